// Durations, counted in steps of a sixteenth of their size: percentiles are right to 6 %.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace app::monitor {

class Latencies {
public:
    void Add(uint64_t Nanoseconds) {
        ++Counts_[StepOf(Nanoseconds)];
        ++Count_;
        Longest_ = std::max(Longest_, Nanoseconds);
    }
    uint64_t Count() const {
        return Count_;
    }
    uint64_t Longest() const {
        return Longest_;
    }
    // What Percent of the durations do not exceed, in nanoseconds; 0 without any.
    uint64_t Percentile(uint64_t Percent) const {
        const uint64_t Wanted = (Count_ * Percent + 99) / 100;
        uint64_t Seen = 0;
        for (size_t Step = 0; Step < Counts_.size(); ++Step) {
            Seen += Counts_[Step];
            if (Seen >= Wanted && Seen != 0) {
                return std::min(EndOf(Step), Longest_);
            }
        }
        return 0;
    }

private:
    // Below 16 each for itself; above, the highest bit and the four that follow it.
    static size_t StepOf(uint64_t Value) {
        const auto Shift = static_cast<size_t>(std::max(0, static_cast<int>(std::bit_width(Value)) - 5));
        return Shift * 16 + static_cast<size_t>(Value >> Shift);
    }
    // The largest value of the step.
    static uint64_t EndOf(size_t Step) {
        const size_t Shift = Step < 32 ? 0 : Step / 16 - 1;
        return ((uint64_t{Step - Shift * 16} + 1) << Shift) - 1;
    }

    std::array<uint64_t, 61 * 16> Counts_ = {};
    uint64_t Count_ = 0;
    uint64_t Longest_ = 0;
};

} // namespace app::monitor
