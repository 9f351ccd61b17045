#include "kernel/kernel.h"

// Only calls inside __try are guarded, and objects with destructors that live across the raise are not destroyed: the
// block holds the one call, and the function nothing else.
NTSTATUS KernelProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation) {
    __try {
        MmProbeAndLockPages(Mdl, Mode, Operation);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}

NTSTATUS KernelNotifyInitializeSync(PNOTIFY_SYNC *NotifySync) {
    __try {
        FsRtlNotifyInitializeSync(NotifySync);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        *NotifySync = nullptr;
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}
