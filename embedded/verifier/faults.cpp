#include "embedded/verifier/faults.h"
#include "embedded/verifier/probe.h"

#include <mutex>
#include <numeric>

namespace embedded {
namespace {

struct PlanState {
    std::mutex Mutex;
    FaultPlan Plan;
    FaultCounts Counts;
};

PlanState &State() {
    static PlanState &Instance = *new PlanState;
    return Instance;
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
    FaultsArmed = true;
}

void ClearFaultPlan() {
    FaultsArmed = false;
}

FaultCounts GetFaultCounts() {
    std::lock_guard Guard(State().Mutex);
    return State().Counts;
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
    const bool Fail = All.Plan.How == FaultPlan::Mode::Nth ? Call == All.Plan.Nth : Call >= All.Plan.Nth;
    All.Counts.Failed[static_cast<ULONG>(Kind)] += Fail;
    return Fail;
}

} // namespace embedded
