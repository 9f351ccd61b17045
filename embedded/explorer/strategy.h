// Who goes next at a point of a schedule: a walk through all schedules, or priorities that are drawn.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "embedded/explorer/explored_thread.h"

namespace embedded {

// Who could go on: first the thread that ran, if it can; last, with TimeLast, one whose time would have to come.
struct Candidates {
    std::vector<ExploredThread *> Threads;
    bool StillRuns = false;
    bool TimeLast = false;
};

// Says who goes next.
class Strategy {
public:
    virtual ~Strategy() = default;
    virtual size_t Choose(const Candidates &Among) = 0;
    virtual void Enter(ExploredThread &) {
    }
    // The schedule so far, in the words by which it can be repeated.
    virtual std::string Text() const = 0;
};

// Depth first through all choices that cost at most so many preemptions.
class Walk final : public Strategy {
public:
    explicit Walk(unsigned Preemptions) : Preemptions_(Preemptions) {
    }
    // One schedule, by its choices.
    Walk(unsigned Preemptions, const std::vector<unsigned> &Given);

    size_t Choose(const Candidates &Among) override;
    std::string Text() const override;
    // Moves on to the next schedule; FALSE at the end.
    bool Advance();

private:
    // A choice among Count; those from Free on cost a preemption.
    struct Choice {
        unsigned Taken;
        unsigned Count;
        unsigned Free;

        bool Costs() const {
            return Taken >= Free;
        }
    };

    const unsigned Preemptions_;
    std::vector<Choice> Path_;
    size_t Next_ = 0;
};

// The thread of the highest priority goes; at Depth - 1 points, drawn among Points, the one that runs becomes the last.
class Priorities final : public Strategy {
public:
    Priorities(uint64_t Seed, unsigned Depth, size_t Points);

    void Enter(ExploredThread &Thread) override;
    size_t Choose(const Candidates &Among) override;
    std::string Text() const override;

private:
    static constexpr uint64_t FirstLowered = 1'000'000'000;

    const uint64_t Seed_;
    const unsigned Depth_;
    uint64_t Lowered_ = FirstLowered;
    std::mt19937_64 Random_;
    const size_t Points_;
    std::vector<size_t> Changes_;
    size_t At_ = 0;
};

} // namespace embedded
