// Fault injection: makes the services that may fail do so, where a plan (probe.h) says.
//
// Faults hit only calls of driver code: threads inside a FaultScope (the I/O manager opens one around every call into
// the driver; system threads run in one) and outside any FaultExempt. The plan has one mutex; while no plan is set a
// service pays one relaxed load.
#pragma once

#include <atomic>

#include "embedded/base/thread.h"

namespace embedded {

// TryAcquire is no failure but an answer: an acquire that may not wait is told that it would have to.
enum class FaultKind : ULONG {
    Pool,
    Resource,
    Mdl,
    Thread,
    Map,
    NotifySync,
    Prefix,
    Token,
    Link,
    Registry,
    TryAcquire
};
inline constexpr ULONG FaultKinds = 11;

inline constexpr ULONG FaultBit(FaultKind Kind) {
    return 1u << static_cast<ULONG>(Kind);
}

inline std::atomic<bool> FaultsArmed{false};
bool NTAPI DecideFault(FaultKind Kind) noexcept;

// Asked by every service that may fail: TRUE if this call has to.
inline bool ShouldFail(FaultKind Kind) {
    return FaultsArmed.load(std::memory_order_relaxed) && DecideFault(Kind);
}

// Driver code runs in this scope.
class [[nodiscard]] FaultScope {
public:
    FaultScope() {
        ++CurrentThread().FaultScopes;
    }
    ~FaultScope() {
        --CurrentThread().FaultScopes;
    }
    FaultScope(const FaultScope &) = delete;
    FaultScope &operator=(const FaultScope &) = delete;
};

// No faults in this scope, whatever scope is around it.
class [[nodiscard]] FaultExempt {
public:
    FaultExempt() {
        ++CurrentThread().FaultExempts;
    }
    ~FaultExempt() {
        --CurrentThread().FaultExempts;
    }
    FaultExempt(const FaultExempt &) = delete;
    FaultExempt &operator=(const FaultExempt &) = delete;
};

} // namespace embedded
