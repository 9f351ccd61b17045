#include "embedded/faults.h"

#include <mutex>
#include <numeric>
#include <random>
#include <unordered_set>

#include "embedded/verifier/stack.h"

namespace embedded {
namespace {

struct PlanState {
    std::mutex Mutex;
    FaultPlan Plan;
    FaultCounts Counts;
    std::mt19937_64 Random;
    std::unordered_set<ULONG64> Stacks;
};

PlanState &State() {
    static PlanState &Instance = *new PlanState;
    return Instance;
}

// TRUE the first time this calling stack asks.
bool IsNewStack(FaultKind Kind) {
    PVOID Frames[24];
    size_t Count = CaptureStack(Frames, 24);
    ULONG64 Hash = static_cast<ULONG64>(Kind) + 1;
    for (size_t Index = 0; Index < Count; ++Index) {
        Hash = (Hash ^ reinterpret_cast<ULONG_PTR>(Frames[Index])) * 0x100000001B3ull;
        Hash ^= Hash >> 29;
    }
    return State().Stacks.insert(Hash).second;
}

} // namespace

ULONG64 FaultCounts::TotalCalls() const {
    return std::accumulate(Calls.begin(), Calls.end(), ULONG64{0});
}

ULONG64 FaultCounts::TotalFailed() const {
    return std::accumulate(Failed.begin(), Failed.end(), ULONG64{0});
}

void SetFaultPlan(const FaultPlan &Plan) {
    std::lock_guard Guard(State().Mutex);
    State().Plan = Plan;
    State().Counts = {};
    State().Random.seed(Plan.Seed);
    FaultsArmed = true;
}

void ClearFaultPlan() {
    FaultsArmed = false;
}

FaultCounts GetFaultCounts() {
    std::lock_guard Guard(State().Mutex);
    return State().Counts;
}

SIZE_T FaultStacksSeen() {
    std::lock_guard Guard(State().Mutex);
    return State().Stacks.size();
}

void ForgetFaultStacks() {
    std::lock_guard Guard(State().Mutex);
    State().Stacks.clear();
}

bool NTAPI DecideFault(FaultKind Kind) noexcept {
    const KThread &Thread = CurrentThread();
    if (Thread.FaultScopes == 0 || Thread.FaultExempts != 0) {
        return false;
    }
    PlanState &All = State();
    std::lock_guard Guard(All.Mutex);
    if ((All.Plan.Kinds & FaultBit(Kind)) == 0) {
        return false;
    }
    ++All.Counts.Calls[static_cast<ULONG>(Kind)];
    const ULONG64 Call = All.Counts.TotalCalls();
    bool Fail = false;
    switch (All.Plan.How) {
    case FaultPlan::Mode::Nth:
        Fail = Call == All.Plan.Nth;
        break;
    case FaultPlan::Mode::NthAndAfter:
        Fail = Call >= All.Plan.Nth;
        break;
    case FaultPlan::Mode::EachStackOnce:
        Fail = IsNewStack(Kind);
        break;
    case FaultPlan::Mode::Random:
        Fail = All.Random() % 10'000 < All.Plan.PerTenThousand;
        break;
    }
    All.Counts.Failed[static_cast<ULONG>(Kind)] += Fail;
    return Fail;
}

} // namespace embedded
