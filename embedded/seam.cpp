#include "kernel/kernel.h"

#include "embedded/fsrtl/fsrtl.h"
#include "embedded/mm/mm.h"

NTSTATUS KernelProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation) {
    try {
        embedded::ProbeAndLockPages(Mdl, Mode, Operation);
        return STATUS_SUCCESS;
    } catch (const embedded::RaisedException &Raised) {
        return Raised.Status;
    }
}

NTSTATUS KernelNotifyInitializeSync(PNOTIFY_SYNC *NotifySync) {
    try {
        embedded::NotifyInitializeSync(NotifySync);
        return STATUS_SUCCESS;
    } catch (const embedded::RaisedException &Raised) {
        *NotifySync = nullptr;
        return Raised.Status;
    }
}
