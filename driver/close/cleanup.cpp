#include "close/close.h"
#include "close/share_claim.h"
#include "dir/notify.h"
#include "frame/diagnostics.h"
#include "io/lock_grants.h"
#include "provider/provider_calls.h"

namespace {

// Removes a lock from the table and tells the server. FALSE when the table keeps it.
bool ReleaseLock(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, FILE_LOCK_INFO Lock, NTSTATUS *Status) {
    NtFsdDebugPrint(TRACE_CLEANUP, 0, "   Unlocking, offset = %d ", Lock.StartingByte.LowPart);
    NtFsdDebugPrint(TRACE_CLEANUP, 0, "   length = %d\n", Lock.Length.LowPart);
    if (!NT_SUCCESS(FsRtlFastUnlockSingle(&Fcb->FileLock, Lock.FileObject, &Lock.StartingByte, &Lock.Length,
                                          static_cast<PEPROCESS>(Lock.ProcessId), Lock.Key, nullptr, FALSE))) {
        return false;
    }
    if (NtFsdIsServerRange(Lock.StartingByte, Lock.Length)) {
        // The last raw result is the answer of the whole cleanup.
        *Status = static_cast<NTSTATUS>(RVFsdUnlockFile(&IrpContext->SecurityContext, Instance->FileHandle,
                                                        static_cast<ULONG64>(Lock.StartingByte.QuadPart),
                                                        static_cast<ULONG64>(Lock.Length.QuadPart)));
    }
    return true;
}

// Releases every lock of the file object, under whatever key and by whatever process it was taken: what stayed would
// block others and name a file object that is gone.
NTSTATUS ReleaseLocks(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance) {
    NTSTATUS Status = STATUS_SUCCESS;
    BOOLEAN Restart = TRUE;
    for (;;) {
        const FILE_LOCK_INFO *Lock = FsRtlGetNextFileLock(&Fcb->FileLock, Restart);
        if (Lock == nullptr) {
            return Status;
        }
        // The list changes with every removal; a lock that cannot be removed is passed over, so that the walk ends.
        Restart = Lock->FileObject == IrpContext->FileObject && ReleaseLock(IrpContext, Fcb, Instance, *Lock, &Status);
    }
}

} // namespace

NTSTATUS NtFsdCommonCleanup(PIRP_CONTEXT IrpContext) {
    const PFILE_OBJECT FileObject = IrpContext->FileObject;
    const auto Fcb = static_cast<PFCB>(FileObject->FsContext);
    IrpContext->Information = 0;
    ResourceHold Hold;
    if (!Hold.AcquireExclusive(&Fcb->Resource, IrpContext->MayWait())) {
        NtFsdDebugPrint(TRACE_CLEANUP, 0, "Posting request in cleanup!\n");
        return NtFsdPostRequest(IrpContext);
    }
    // Requests that find the flag under the Resource give back what they get.
    FileObject->Flags |= FO_CLEANUP_COMPLETE;
    if (Fcb->UncleanCount != 0) {
        --Fcb->UncleanCount;
    }
    // The claim of the only open goes with the FCB; opens of the device, counted under another lock, claim nothing.
    if (Fcb->OpenType != OPEN_TYPE_DEVICE && Fcb->OpenCount > 1) {
        NtFsdRemoveShareClaim(Fcb, FileObject);
    }
    NTSTATUS Status = STATUS_SUCCESS;
    LIST_ENTRY Grants;
    LIST_ENTRY Notifications;
    NtFsdCollectLockGrants(Fcb, &Grants);
    InitializeListHead(&Notifications);
    if (Fcb->OpenType == OPEN_TYPE_FILE) {
        if (Fcb->FileLockInitialized) {
            Status = ReleaseLocks(IrpContext, Fcb, static_cast<PINSTANCE_CONTEXT>(FileObject->FsContext2));
        }
    } else {
        NtFsdTakeNotifyList(Fcb, &Notifications);
    }
    NtFsdStopCollectingLockGrants(Fcb);
    Hold.Release();
    NtFsdCompleteNotifyBatch(&Notifications, STATUS_SUCCESS);
    Status = NtFsdCompleteRequest(IrpContext, IrpContext->Irp, Status);
    NtFsdPostLockGrants(&Grants);
    return Status;
}
