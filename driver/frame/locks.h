// Resource acquisition: every acquire enters a critical region, every release leaves it.
//
// Locks, in the order in which they may be nested. A thread that needs an earlier one releases the later first.
//   1. FcbTableResource
//   2. an FCB's Resource; of several: the closing open's last (names/borrow.cpp takes those of its borrowers one by one
//      before it), a parent's under its child's (change notification only)
//   3. an open's SearchLock, an event (dir/directory_control.cpp)
//   4. leaves, under which nothing else is waited for: FcbListResource (under which a shutdown that waits tries the
//      FCBs' Resources, frame/stop_requests.cpp), g_OurDeviceResource, g_MappedDeviceResource, g_FrameworkInitResource
//      (under which the framework is called), the framework's class mutex
//   5. spin locks, each alone: g_AsyncIrpQueueLock, the cancel spin lock, g_BorrowLock (names/borrow.cpp),
//      g_LockRequestsLock (io/lock_table.cpp), g_OutlivingLock (close/after_teardown.cpp), and under any of
//      them g_LogBufferLock, since a trace may be made with a spin lock held
// Resources are acquired and released by name in locks.cpp alone. The compiler checks this order at holds of a scope
// (kernel/lock_rules.h), but for the event, the class mutex and the cancel spin lock, which are no holds.
#pragma once

#include "frame/memory.h"

// Enter a critical region and acquire Resource; when that fails (only possible with Wait FALSE) leave the region again.
BOOLEAN NtFsdAcquireExclusive(PERESOURCE Resource, BOOLEAN Wait);
BOOLEAN NtFsdAcquireShared(PERESOURCE Resource, BOOLEAN Wait);

// Releases Resource and leaves the critical region.
VOID NtFsdReleaseResource(PERESOURCE Resource);

// Tells the analysis that nobody else can reach what the lock guards: at start, in teardown, in a record that is being
// made.
VOID NtFsdNobodyElse(PERESOURCE Resource) HELD_FROM_HERE(Resource);
VOID NtFsdNobodyElse(KSPIN_LOCK &Lock) HELD_FROM_HERE(Lock);
VOID NtFsdNobodyElse(KEVENT &Lock) HELD_FROM_HERE(Lock);
inline VOID NtFsdNobodyElse(PERESOURCE Resource) {
    UNREFERENCED_PARAMETER(Resource);
}
inline VOID NtFsdNobodyElse(KSPIN_LOCK &Lock) {
    UNREFERENCED_PARAMETER(Lock);
}
inline VOID NtFsdNobodyElse(KEVENT &Lock) {
    UNREFERENCED_PARAMETER(Lock);
}

// A held resource with its critical region. Released by scope or by name; a routine that must be called with a lock
// takes the hold as its argument.
class [[nodiscard]] ResourceHold {
public:
    ResourceHold() = default;
    ResourceHold(const ResourceHold &) = delete;
    ResourceHold &operator=(const ResourceHold &) = delete;
    ~ResourceHold() {
        Release();
    }

    // Each returns FALSE, holding nothing, when Wait is FALSE and the resource is busy.
    bool AcquireExclusive(PERESOURCE Resource, BOOLEAN Wait) HELD_FROM_HERE(Resource) {
        return Adopt(Resource, NtFsdAcquireExclusive(Resource, Wait));
    }
    bool AcquireShared(PERESOURCE Resource, BOOLEAN Wait) SHARED_FROM_HERE(Resource) {
        return Adopt(Resource, NtFsdAcquireShared(Resource, Wait));
    }
    bool Held() const {
        return Resource_ != nullptr;
    }
    PERESOURCE Resource() const {
        return Resource_;
    }
    void Release() {
        if (Resource_ != nullptr) {
            PERESOURCE Resource = Resource_;
            Resource_ = nullptr;
            NtFsdReleaseResource(Resource);
        }
    }
    // Requires that this hold, which was acquired elsewhere, is one of Resource, and tells the analysis so.
    void Holds(PERESOURCE Resource) const HELD_FROM_HERE(Resource) {
        NtFsdRequire(Resource_ == Resource);
    }
    // The same for a hold that may be shared.
    void HoldsShared(PERESOURCE Resource) const SHARED_FROM_HERE(Resource) {
        NtFsdRequire(Resource_ == Resource);
    }
    // Takes over a hold that was acquired elsewhere (with its critical region).
    void Adopt(PERESOURCE Resource) {
        Resource_ = Resource;
    }
    // Gives the hold to somebody else, who releases it and leaves the region.
    PERESOURCE Detach() {
        PERESOURCE Resource = Resource_;
        Resource_ = nullptr;
        return Resource;
    }

private:
    bool Adopt(PERESOURCE Resource, BOOLEAN Acquired) {
        Resource_ = Acquired ? Resource : nullptr;
        return Acquired;
    }

    PERESOURCE Resource_ = nullptr;
};

// A resource held for a scope, from its beginning to its end: to be preferred where that will do, since the analysis
// follows it. Its own constructor and destructor are not analysed.
class [[nodiscard]] IS_HOLD ExclusiveHold {
public:
    explicit ExclusiveHold(PERESOURCE Resource) TAKES(Resource) UNCHECKED_LOCKS : Resource_(Resource) {
        NtFsdAcquireExclusive(Resource, TRUE);
    }
    ExclusiveHold(const ExclusiveHold &) = delete;
    ExclusiveHold &operator=(const ExclusiveHold &) = delete;
    ~ExclusiveHold() GIVES_BACK UNCHECKED_LOCKS {
        NtFsdReleaseResource(Resource_);
    }

private:
    PERESOURCE Resource_;
};

class [[nodiscard]] IS_HOLD SharedHold {
public:
    explicit SharedHold(PERESOURCE Resource) TAKES_SHARED(Resource) UNCHECKED_LOCKS : Resource_(Resource) {
        NtFsdAcquireShared(Resource, TRUE);
    }
    SharedHold(const SharedHold &) = delete;
    SharedHold &operator=(const SharedHold &) = delete;
    ~SharedHold() GIVES_BACK UNCHECKED_LOCKS {
        NtFsdReleaseResource(Resource_);
    }

private:
    PERESOURCE Resource_;
};

// A critical region without a resource.
class [[nodiscard]] CriticalRegion {
public:
    CriticalRegion() {
        KeEnterCriticalRegion();
    }
    CriticalRegion(const CriticalRegion &) = delete;
    CriticalRegion &operator=(const CriticalRegion &) = delete;
    ~CriticalRegion() {
        KeLeaveCriticalRegion();
    }
};

// A spin lock, held at DISPATCH_LEVEL.
class [[nodiscard]] IS_HOLD SpinLockHold {
public:
    explicit SpinLockHold(KSPIN_LOCK &Lock) TAKES(Lock) UNCHECKED_LOCKS : Lock_(&Lock),
                                                                          Irql_(KeAcquireSpinLockRaiseToDpc(&Lock)) {
    }
    SpinLockHold(const SpinLockHold &) = delete;
    SpinLockHold &operator=(const SpinLockHold &) = delete;
    ~SpinLockHold() GIVES_BACK UNCHECKED_LOCKS {
        KeReleaseSpinLock(Lock_, Irql_);
    }

private:
    PKSPIN_LOCK Lock_;
    KIRQL Irql_;
};
