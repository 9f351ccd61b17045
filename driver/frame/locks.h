// Resource acquisition: every acquire enters a critical region, every release leaves it.
//
// Lock order: FcbTableResource, then an FCB's Resource, then a parent FCB's Resource (change notification only).
// FcbListResource, g_OurDeviceResource, g_MappedDeviceResource and g_FrameworkInitResource are leaves. Raw acquire and
// release calls stand in locks.cpp alone.
#pragma once

#include "kernel/kernel.h"

// Enter a critical region and acquire Resource; when that fails (only possible with Wait FALSE) leave the region again.
BOOLEAN NtFsdAcquireExclusive(PERESOURCE Resource, BOOLEAN Wait);
BOOLEAN NtFsdAcquireShared(PERESOURCE Resource, BOOLEAN Wait);

// Releases Resource and leaves the critical region.
VOID NtFsdReleaseResource(PERESOURCE Resource);

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
    bool AcquireExclusive(PERESOURCE Resource, BOOLEAN Wait) {
        return Adopt(Resource, NtFsdAcquireExclusive(Resource, Wait));
    }
    bool AcquireShared(PERESOURCE Resource, BOOLEAN Wait) {
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
class [[nodiscard]] SpinLockHold {
public:
    explicit SpinLockHold(PKSPIN_LOCK Lock) : Lock_(Lock), Irql_(KeAcquireSpinLockRaiseToDpc(Lock)) {
    }
    SpinLockHold(const SpinLockHold &) = delete;
    SpinLockHold &operator=(const SpinLockHold &) = delete;
    ~SpinLockHold() {
        KeReleaseSpinLock(Lock_, Irql_);
    }

private:
    PKSPIN_LOCK Lock_;
    KIRQL Irql_;
};
