#include "embedded/explorer/strategy.h"

#include <algorithm>

#include <fmt/format.h>

#include "embedded/verifier/report.h"

namespace embedded {
namespace {

std::vector<ExploredThread *>::const_iterator Highest(const std::vector<ExploredThread *> &Among) {
    return std::max_element(Among.begin(), Among.end(),
                            [](const auto *One, const auto *Two) { return One->Priority < Two->Priority; });
}

} // namespace

Walk::Walk(unsigned Preemptions, const std::vector<unsigned> &Given) : Preemptions_(Preemptions) {
    for (const unsigned Each : Given) {
        Path_.push_back({Each, 0, 0});
    }
}

size_t Walk::Choose(const Candidates &Among) {
    const auto Count = static_cast<unsigned>(Among.Threads.size());
    const unsigned Free = Among.StillRuns ? 1 : Count - (Among.TimeLast ? 1 : 0);
    if (Next_ == Path_.size()) {
        Path_.push_back({0, Count, Free});
    }
    Choice &Here = Path_[Next_++];
    if (Here.Count == 0) {
        Here = {std::min(Here.Taken, Count - 1), Count, Free};
    }
    if (Here.Count != Count) {
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 9, Here.Count, Count, Next_,
                 "a schedule took another way when it was repeated");
    }
    return Here.Taken;
}

bool Walk::Advance() {
    for (Path_.resize(Next_), Next_ = 0; !Path_.empty(); Path_.pop_back()) {
        Choice &Last = Path_.back();
        unsigned Spent = 0;
        for (const Choice &Each : Path_) {
            Spent += &Each != &Last && Each.Costs();
        }
        if (++Last.Taken < Last.Count && Spent + Last.Costs() <= Preemptions_) {
            return true;
        }
    }
    return false;
}

std::string Walk::Text() const {
    std::string Choices;
    size_t Last = 0;
    for (size_t Index = 0; Index < std::min(Next_, Path_.size()); ++Index) {
        Last = Path_[Index].Taken != 0 ? Index + 1 : Last;
    }
    for (size_t Index = 0; Index < Last; ++Index) {
        Choices += fmt::format("{}{}", Index == 0 ? "" : ".", Path_[Index].Taken);
    }
    return fmt::format("p{}:{}", Preemptions_, Choices);
}

Priorities::Priorities(uint64_t Seed, unsigned Depth, size_t Points)
    : Seed_(Seed), Depth_(Depth), Random_(Seed), Points_(Points) {
    for (unsigned Change = 1; Change < Depth; ++Change) {
        Changes_.push_back(Random_() % std::max<size_t>(Points, 1));
    }
}

void Priorities::Enter(ExploredThread &Thread) {
    Thread.Priority = FirstLowered + 1 + Random_() % FirstLowered;
}

size_t Priorities::Choose(const Candidates &Among) {
    const size_t Here = At_++;
    auto Best = Highest(Among.Threads);
    for (const size_t Change : Changes_) {
        if (Change == Here) {
            (*Best)->Priority = Lowered_--;
            Best = Highest(Among.Threads);
        }
    }
    // Who waits for a time must not make it pass for ever while others could go on.
    if (Among.TimeLast && *Best == Among.Threads.back()) {
        (*Best)->Priority = Lowered_--;
    }
    return static_cast<size_t>(Best - Among.Threads.begin());
}

std::string Priorities::Text() const {
    return fmt::format("s{}:{}:{}", Seed_, Depth_, Points_);
}

} // namespace embedded
