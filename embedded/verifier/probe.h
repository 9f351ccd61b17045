// What tests look at and plant: faults that are wanted, names and ranks of locks.
#pragma once

#include <array>

#include "embedded/verifier/faults.h"

namespace embedded {

// All that are failures.
inline constexpr ULONG AllFaultKinds = FaultBit(FaultKind::TryAcquire) - 1;

struct FaultPlan {
    enum class Mode {
        Nth,         // the Nth call of the kinds fails (1 is the next one)
        NthAndAfter, // ... and every one after it
    };
    Mode How = Mode::Nth;
    ULONG Kinds = AllFaultKinds; // of FaultBit
    ULONG64 Nth = 1;
};

// Counts since SetFaultPlan, by kind.
struct FaultCounts {
    std::array<ULONG64, FaultKinds> Calls{};
    std::array<ULONG64, FaultKinds> Failed{};
    ULONG64 TotalCalls() const;
    ULONG64 TotalFailed() const;
};

// Sets the plan and zeroes the counts.
void SetFaultPlan(const FaultPlan &Plan);
void ClearFaultPlan();
FaultCounts GetFaultCounts();

// A fault plan for a scope.
class [[nodiscard]] PlannedFaults {
public:
    explicit PlannedFaults(const FaultPlan &Plan) {
        SetFaultPlan(Plan);
    }
    ~PlannedFaults() {
        ClearFaultPlan();
    }
    PlannedFaults(const PlannedFaults &) = delete;
    PlannedFaults &operator=(const PlannedFaults &) = delete;
};

// Names a lock and puts it into a class: edges between classes are kept when their locks go. A lock may only be taken
// while every held named lock has a rank not above its own; rank 0 takes no part in ranks.
void NameLock(const void *Lock, const char *ClassName, ULONG Rank);

} // namespace embedded
