#include "close/close.h"
#include "close/share_claim.h"
#include "dir/notify_list.h"
#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "io/lock_grants.h"
#include "io/lock_table.h"
#include "provider/provider_calls.h"

namespace {

// Removes a lock from the table and tells the server, if that knows of it. FALSE when the table keeps it.
bool ReleaseLock(PIRP_CONTEXT IrpContext, PFCB Fcb, const NOTED_LOCK &Lock, NTSTATUS *Status) {
    NtFsdDebugPrint(TRACE_CLEANUP, 0, "   Unlocking, offset = %d ", Lock.Offset.LowPart);
    NtFsdDebugPrint(TRACE_CLEANUP, 0, "   length = %d\n", Lock.Length.LowPart);
    if (!NtFsdRemoveLock(Fcb, Lock)) {
        return false;
    }
    if (Lock.Told && NtFsdIsServerRange(Lock.Offset, Lock.Length)) {
        // The last raw result is the answer of the whole cleanup.
        const auto Instance = static_cast<PINSTANCE_CONTEXT>(IrpContext->FileObject->FsContext2);
        *Status = static_cast<NTSTATUS>(RVFsdUnlockFile(&IrpContext->SecurityContext, Instance->FileHandle,
                                                        static_cast<ULONG64>(Lock.Offset.QuadPart),
                                                        static_cast<ULONG64>(Lock.Length.QuadPart)));
    }
    return true;
}

// Releases every lock of the file object, under whatever key and by whatever process it was taken: what stayed would
// block others and name a file object that is gone. Without memory a few at a time, as long as some go.
NTSTATUS ReleaseLocks(PIRP_CONTEXT IrpContext, PFCB Fcb) {
    NTSTATUS Status = STATUS_SUCCESS;
    bool Again = true;
    while (Again) {
        NotedLocks Locks;
        const bool All = Locks.Note(Fcb, {.FileObject = IrpContext->FileObject});
        bool Released = false;
        for (const NOTED_LOCK &Lock : Locks) {
            Released |= ReleaseLock(IrpContext, Fcb, Lock, &Status);
        }
        Again = !All && Released;
    }
    return Status;
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
    NtFsdSetFileFlags(FileObject, FO_CLEANUP_COMPLETE);
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
            Status = ReleaseLocks(IrpContext, Fcb);
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
