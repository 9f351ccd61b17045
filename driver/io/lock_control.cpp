// Byte-range locks: the run-time library decides locally, then the server is told.
//
// A lock that may wait must not hold the FCB's Resource while it waits: it gives the Resource up before the library
// decides, and the server is told later under a new hold. Everything else holds the Resource from the decision to the
// end, and the completion routine, which the library calls in the same thread, releases it:
//
//     unlock, or lock that fails at once     common (hold) -> library -> completion routine (server, release, complete)
//     lock that may wait, decided at once    common -> library -> completion routine (returns) -> common: hold, server,
//     ... lock that waits                    common returns pending; the thread that makes room -> library ->
//                                            completion routine (collects) -> later: hold, server, release, complete
//
// While the library decides, the request's IRP is the thread's top-level IRP: that is how the completion routine tells
// the request's own thread from the thread of another request.

#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "frame/rundown.h"
#include "frame/status_translation.h"
#include "io/io.h"
#include "io/lock_completion.h"
#include "io/lock_grants.h"
#include "io/lock_table.h"
#include "provider/provider_calls.h"

namespace {

constexpr ULONG DEBUG_COMPONENT = 77;

// What the common routine has in its frame while the library decides, and what the completion routine leaves there when
// the library calls it inside that frame.
struct DECISION {
    const NotedLocks *Noted = nullptr; // the locks that an unlock-all gives back
    bool AtServer = true;              // an unlock of one range: the server knows of its lock
    bool Decided = false;              // a lock that may wait did not have to
    NTSTATUS Status = STATUS_PENDING;  // what the request was completed with
};

PFCB FcbOf(PIRP_CONTEXT IrpContext) {
    return static_cast<PFCB>(IrpContext->FileObject->FsContext);
}

PINSTANCE_CONTEXT InstanceOf(PIRP_CONTEXT IrpContext) {
    return static_cast<PINSTANCE_CONTEXT>(IrpContext->FileObject->FsContext2);
}

// Slots of the IRP, which are the driver's while it has the IRP. The first is looked at only by a completion routine
// that runs inside the frame of the decision; it is empty once the request has left that.
PVOID &DecisionSlot(PIRP Irp) {
    return Irp->Tail.Overlay.DriverContext[0];
}

// The context of a collected grant.
PVOID &ContextSlot(PIRP Irp) {
    return Irp->Tail.Overlay.DriverContext[1];
}

LOCK_PATTERN PatternOf(PIRP_CONTEXT IrpContext) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(IrpContext->Irp);
    LOCK_PATTERN Pattern = {.FileObject = IrpContext->FileObject, .Process = IoGetRequestorProcess(IrpContext->Irp)};
    if (IrpContext->MinorFunction != IRP_MN_UNLOCK_ALL) {
        Pattern.Key = &IrpSp->Parameters.LockControl.Key;
    }
    if (IrpContext->MinorFunction == IRP_MN_LOCK || IrpContext->MinorFunction == IRP_MN_UNLOCK_SINGLE) {
        Pattern.Offset = &IrpSp->Parameters.LockControl.ByteOffset;
        Pattern.Length = &IrpContext->LockLength;
    }
    return Pattern;
}

// ---- The server's side --------------------------------------------------------------------------------------------

NTSTATUS UnlockAtServer(PIRP_CONTEXT IrpContext, LARGE_INTEGER Offset, LARGE_INTEGER Length) {
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Calling RVFsdUnlockFile...\n");
    if (!NtFsdIsServerRange(Offset, Length)) {
        return STATUS_SUCCESS;
    }
    return NtFsdTranslateResult(RVFsdUnlockFile(&IrpContext->SecurityContext, InstanceOf(IrpContext)->FileHandle,
                                                static_cast<ULONG64>(Offset.QuadPart),
                                                static_cast<ULONG64>(Length.QuadPart)));
}

NTSTATUS UnlockNotedAtServer(PIRP_CONTEXT IrpContext, const NotedLocks &Noted) {
    NTSTATUS Status = STATUS_SUCCESS;
    for (const NOTED_LOCK &Lock : Noted) {
        // A lock that is kept locally only has no answer, which would hide that of the one before it.
        if (Lock.Told && NtFsdIsServerRange(Lock.Offset, Lock.Length)) {
            Status = UnlockAtServer(IrpContext, Lock.Offset, Lock.Length);
        }
    }
    return Status;
}

NTSTATUS LockAtServer(PIRP_CONTEXT IrpContext, const IO_STACK_LOCATION *IrpSp) {
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Calling RVFsdLockFile...\n");
    const LARGE_INTEGER Offset = IrpSp->Parameters.LockControl.ByteOffset;
    if (!NtFsdIsServerRange(Offset, IrpContext->LockLength)) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS Status = NtFsdTranslateResult(RVFsdLockFile(
        &IrpContext->SecurityContext, InstanceOf(IrpContext)->FileHandle, (IrpSp->Flags & SL_EXCLUSIVE_LOCK) != 0,
        static_cast<ULONG64>(Offset.QuadPart), static_cast<ULONG64>(IrpContext->LockLength.QuadPart)));
    return Status == STATUS_PENDING ? STATUS_UNSUCCESSFUL : Status;
}

// Removes the local lock of a request that the library believes granted. For a request that kept the FCB the library
// does so itself, when the completion routine fails it.
VOID TakeLocalLockBack(PIRP_CONTEXT IrpContext, PIO_STACK_LOCATION IrpSp) {
    if (IrpContext->Flags & IRP_CONTEXT_FLAG_FCB_RELEASED) {
        Ignore(FsRtlFastUnlockSingle(&FcbOf(IrpContext)->FileLock, IrpContext->FileObject,
                                     &IrpSp->Parameters.LockControl.ByteOffset, &IrpContext->LockLength,
                                     IoGetRequestorProcess(IrpContext->Irp), IrpSp->Parameters.LockControl.Key, nullptr,
                                     FALSE),
               "a cleanup may have removed it");
    }
}

// TRUE while the table has the lock that was granted to the request. Resource held exclusive.
bool IsInTable(PIRP_CONTEXT IrpContext) {
    const LOCK_PATTERN Pattern = PatternOf(IrpContext);
    bool Found = false;
    NtFsdWalkLocks(FcbOf(IrpContext), [&](const FILE_LOCK_INFO &Lock) {
        Found = Pattern.Matches(Lock);
        return !Found;
    });
    return Found;
}

NTSTATUS FinishLock(PIRP_CONTEXT IrpContext, PIO_STACK_LOCATION IrpSp) {
    // An unlock may have come between the grant and this hold: the server would keep what nobody here has any more.
    bool Doubtful;
    if (!NtFsdLeaveLockRequest(IrpContext, &Doubtful) || (Doubtful && !IsInTable(IrpContext))) {
        return STATUS_CANCELLED;
    }
    // Granted after the handle's cleanup: nobody would ever give it back.
    if (NtFsdFileFlags(IrpContext->FileObject) & FO_CLEANUP_COMPLETE) {
        TakeLocalLockBack(IrpContext, IrpSp);
        return STATUS_CANCELLED;
    }
    const NTSTATUS Status = LockAtServer(IrpContext, IrpSp);
    if (!NT_SUCCESS(Status) && (IrpContext->Flags & IRP_CONTEXT_FLAG_FCB_RELEASED)) {
        TakeLocalLockBack(IrpContext, IrpSp);
        DbgPrintEx(DEBUG_COMPONENT, 0, "Releasing the lcok due to server faile. Status 0x%x\n", Status);
    }
    return Status;
}

// Takes a request that gets no lock out of the FCB's LockRequests. FALSE: an unlock has taken its lock away.
bool LeaveWithoutLock(PIRP_CONTEXT IrpContext) {
    bool Doubtful;
    return NtFsdLeaveLockRequest(IrpContext, &Doubtful);
}

NTSTATUS TellServer(PIRP_CONTEXT IrpContext, PIRP Irp, const DECISION &Decision) {
    if (!NT_SUCCESS(Irp->IoStatus.Status)) {
        NtFsdDebugPrint(TRACE_LOCK, 0, "   Lock/unlock failed. Returning...\n");
        LeaveWithoutLock(IrpContext);
        return Irp->IoStatus.Status;
    }
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    switch (IrpContext->MinorFunction) {
    case IRP_MN_LOCK:
        return FinishLock(IrpContext, IrpSp);
    case IRP_MN_UNLOCK_SINGLE:
        return Decision.AtServer
                   ? UnlockAtServer(IrpContext, IrpSp->Parameters.LockControl.ByteOffset, IrpContext->LockLength)
                   : STATUS_SUCCESS;
    case IRP_MN_UNLOCK_ALL:
    case IRP_MN_UNLOCK_ALL_BY_KEY:
        return Decision.Noted != nullptr ? UnlockNotedAtServer(IrpContext, *Decision.Noted) : STATUS_SUCCESS;
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

// ---- Completion in a thread that does not hold the FCB -------------------------------------------------------------

// Hands a decided lock to a worker, who tells the server. STATUS_PENDING, or why it cannot be queued.
NTSTATUS PostCompletion(PIRP_CONTEXT IrpContext) {
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Not top level Irp. Post it.\n");
    IrpContext->Flags |= IRP_CONTEXT_FLAG_LOCK_COMPLETION_POSTED;
    const NTSTATUS Status = NtFsdTryPostRequest(IrpContext);
    if (Status != STATUS_PENDING) {
        IrpContext->Flags &= ~static_cast<ULONG>(IRP_CONTEXT_FLAG_LOCK_COMPLETION_POSTED);
    }
    return Status;
}

// The grants list of an unlock of this thread, or NULL. Only the exclusive owner may look.
PLIST_ENTRY GrantsOfThisThread(PFCB Fcb) {
    if (!ExIsResourceAcquiredExclusiveLite(&Fcb->Resource)) {
        return nullptr;
    }
    NtFsdNobodyElse(&Fcb->Resource);
    return Fcb->LockGrants;
}

// Ends a waiter that gets no lock. There is nothing to tell the server: this may be a canceller's thread, which must
// not be made to wait, and which no entry routine has counted in. Returns what the library is to be told: a failure
// makes it take back a lock of this range, which must not be another's when an unlock has taken this one's.
NTSTATUS EndWaiter(PIRP_CONTEXT IrpContext, PIRP Irp) {
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Lock/unlock failed. Returning...\n");
    const bool TakenAway = !LeaveWithoutLock(IrpContext);
    const RequestInFlight InFlight;
    if (!InFlight) {
        // Teardown does not wait for this thread: the list that the context came from may be gone.
        IrpContext->Flags |= IRP_CONTEXT_FLAG_FROM_POOL;
    }
    const NTSTATUS Status = NtFsdCompleteRequest(IrpContext, Irp, Irp->IoStatus.Status);
    return TakenAway ? STATUS_SUCCESS : Status;
}

// A waiting lock was granted or ended by somebody else's request. A failure that is returned for a granted lock makes
// the library take the lock back before it goes on.
NTSTATUS CompleteWaiter(PIRP_CONTEXT IrpContext, PIRP Irp) {
    const PLIST_ENTRY Grants = GrantsOfThisThread(FcbOf(IrpContext));
    const bool Ended =
        NtFsdIsStopped() || (Grants != nullptr && (NtFsdFileFlags(IrpContext->FileObject) & FO_CLEANUP_COMPLETE));
    if (Ended && NT_SUCCESS(Irp->IoStatus.Status)) {
        Irp->IoStatus.Status = STATUS_CANCELLED;
    }
    const NTSTATUS Status = Irp->IoStatus.Status;
    if (NT_SUCCESS(Status)) {
        NtFsdGrantLockRequest(IrpContext);
    }
    if (Grants != nullptr) {
        // Nothing is completed under this thread's hold, failures neither: the close that may follow takes
        // FcbTableResource, which comes before an FCB's Resource.
        ContextSlot(Irp) = IrpContext;
        InsertTailList(Grants, &Irp->Tail.Overlay.ListEntry);
        return Status;
    }
    if (NT_SUCCESS(Status)) {
        const NTSTATUS Posted = PostCompletion(IrpContext);
        if (Posted == STATUS_PENDING) {
            return STATUS_PENDING;
        }
        Irp->IoStatus.Status = Posted;
    }
    return EndWaiter(IrpContext, Irp);
}

// Tells the server of a decided lock and completes the request. What that grants goes to the end of Grants.
NTSTATUS CompleteWithAcquire(PIRP_CONTEXT IrpContext, PLIST_ENTRY Grants) {
    NtFsdDebugPrint(TRACE_LOCK, 0, "TwLockCompleteRoutineWithAcquire, pIrp=0x%X\n", LowPart(IrpContext->Irp));
    const PFCB Fcb = FcbOf(IrpContext);
    ResourceHold Hold;
    Hold.AcquireExclusive(&Fcb->Resource, TRUE);
    IrpContext->Flags |= IRP_CONTEXT_FLAG_FCB_ACQUIRED;
    DecisionSlot(IrpContext->Irp) = nullptr;
    Fcb->LockGrants = Grants;
    Hold.Detach();
    return TwLockCompleteRoutine(IrpContext, IrpContext->Irp);
}

// ---- The common routine --------------------------------------------------------------------------------------------

// Ends a lock that is decided, without the FCB and without the server, which has not heard of it.
NTSTATUS EndDecided(PIRP_CONTEXT IrpContext, PIRP Irp, NTSTATUS Status) {
    bool Doubtful;
    if (NtFsdLeaveLockRequest(IrpContext, &Doubtful) && NT_SUCCESS(Irp->IoStatus.Status)) {
        TakeLocalLockBack(IrpContext, IoGetCurrentIrpStackLocation(Irp));
    }
    return NtFsdCompleteRequest(IrpContext, Irp, Status);
}

// A lock that may wait: the FCB is not held while the library decides.
NTSTATUS LockMayWait(PIRP_CONTEXT IrpContext, ResourceHold &Hold) {
    const PIRP Irp = IrpContext->Irp;
    const PFCB Fcb = FcbOf(IrpContext);
    NtFsdDebugPrint(TRACE_LOCK, 0, "Lock command but not fail immediately. Releasing FCB\n");
    NtFsdEnterLockRequest(IrpContext);
    Hold.Release();
    IrpContext->Flags |= IRP_CONTEXT_FLAG_FCB_RELEASED;

    DECISION Decision;
    DecisionSlot(Irp) = &Decision;
    const PIRP TopLevel = IoGetTopLevelIrp();
    IoSetTopLevelIrp(Irp);
    const NTSTATUS Status = FsRtlProcessFileLock(&Fcb->FileLock, Irp, IrpContext);
    IoSetTopLevelIrp(TopLevel);
    if (!Decision.Decided) {
        return STATUS_PENDING; // it waits, or has waited: context and IRP are somebody else's
    }
    // Pending and decided: the library began to queue it and ended it again, as one that was cancelled meanwhile.
    if (TopLevel != Irp) {
        // A nested request: its thread may hold other locks and must not wait for this FCB.
        const NTSTATUS Posted = PostCompletion(IrpContext);
        if (Posted == STATUS_PENDING) {
            return STATUS_PENDING;
        }
        const NTSTATUS Decided = Irp->IoStatus.Status;
        const NTSTATUS Ended = EndDecided(IrpContext, Irp, NT_SUCCESS(Decided) ? Posted : Decided);
        return Status == STATUS_PENDING ? STATUS_PENDING : Ended;
    }
    if (NT_SUCCESS(Irp->IoStatus.Status)) {
        NtFsdDebugPrint(TRACE_LOCK, 0, "Lock successful, and Fcb not aquired. Complete it.\n");
    }
    const NTSTATUS Final = TwLockCompleteRoutineWithAcquire(IrpContext);
    return Status == STATUS_PENDING ? STATUS_PENDING : Final;
}

// An unlock, or a lock that fails at once. The library calls the completion routine in this thread, which ends the
// hold and leaves the status that the request got: the library's own need not be it.
NTSTATUS DecideHeld(PIRP_CONTEXT IrpContext, ResourceHold &Hold) {
    const PIRP Irp = IrpContext->Irp;
    const PFCB Fcb = FcbOf(IrpContext);
    DECISION Decision;
    NotedLocks Noted;
    switch (IrpContext->MinorFunction) {
    case IRP_MN_UNLOCK_SINGLE:
        Decision.AtServer = NtFsdIsUnlockForServer(Fcb, PatternOf(IrpContext));
        break;
    case IRP_MN_UNLOCK_ALL:
    case IRP_MN_UNLOCK_ALL_BY_KEY:
        if (!Noted.Note(Fcb, PatternOf(IrpContext))) {
            Hold.Release();
            return NtFsdCompleteRequest(IrpContext, Irp, STATUS_INSUFFICIENT_RESOURCES);
        }
        Decision.Noted = &Noted;
        break;
    default:
        break;
    }
    DecisionSlot(Irp) = &Decision;
    Hold.Holds(&Fcb->Resource);
    LIST_ENTRY Grants;
    NtFsdCollectLockGrants(Fcb, &Grants);
    IrpContext->Flags |= IRP_CONTEXT_FLAG_FCB_ACQUIRED;
    Hold.Detach();
    Ignore(FsRtlProcessFileLock(&Fcb->FileLock, Irp, IrpContext), "the completion routine has left the request's");
    NtFsdPostLockGrants(&Grants);
    return Decision.Status;
}

} // namespace

VOID NtFsdCollectLockGrants(PFCB Fcb, PLIST_ENTRY Grants) {
    InitializeListHead(Grants);
    Fcb->LockGrants = Grants;
}

VOID NtFsdStopCollectingLockGrants(PFCB Fcb) {
    Fcb->LockGrants = nullptr;
}

VOID NtFsdPostLockGrants(PLIST_ENTRY Grants) {
    // A waiter that does not keep its lock grants the next one: that one is found here, not a level deeper.
    while (!IsListEmpty(Grants)) {
        const PIRP Irp = CONTAINING_RECORD(RemoveHeadList(Grants), IRP, Tail.Overlay.ListEntry);
        const auto IrpContext = static_cast<PIRP_CONTEXT>(ContextSlot(Irp));
        if (PostCompletion(IrpContext) != STATUS_PENDING) {
            // The library has granted it. It could not be posted for want of memory, and is finished here.
            Ignore(CompleteWithAcquire(IrpContext, Grants), "the IRP carries it");
        }
    }
}

NTSTATUS NtFsdCommonLockControl(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    PLARGE_INTEGER *Length = &IrpSp->Parameters.LockControl.Length;
    IrpContext->LockLength.QuadPart = *Length != nullptr ? (*Length)->QuadPart : 0;
    *Length = &IrpContext->LockLength;

    ResourceHold Hold;
    if (!Hold.AcquireExclusive(&FcbOf(IrpContext)->Resource, IrpContext->MayWait())) {
        NtFsdDebugPrint(TRACE_LOCK, 0, "Unable to acquire pFcb resource. Posting...\n");
        return NtFsdPostRequest(IrpContext);
    }
    const PINSTANCE_CONTEXT Instance = InstanceOf(IrpContext);
    Hold.Holds(&Instance->Fcb->Resource);
    switch (IrpContext->MinorFunction) {
    case IRP_MN_LOCK:
        Instance->LockKey = IrpSp->Parameters.LockControl.Key;
        return (IrpSp->Flags & SL_FAIL_IMMEDIATELY) ? DecideHeld(IrpContext, Hold) : LockMayWait(IrpContext, Hold);
    case IRP_MN_UNLOCK_SINGLE:
        IrpSp->Parameters.LockControl.Key = Instance->LockKey;
        return DecideHeld(IrpContext, Hold);
    case IRP_MN_UNLOCK_ALL:
    case IRP_MN_UNLOCK_ALL_BY_KEY:
        return DecideHeld(IrpContext, Hold);
    default:
        Hold.Release();
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_INVALID_PARAMETER);
    }
}

NTSTATUS NTAPI TwLockCompleteRoutine(PVOID Context, PIRP Irp) {
    const auto IrpContext = static_cast<PIRP_CONTEXT>(Context);
    NtFsdDebugPrint(TRACE_LOCK, 0, "   TwLockCompleteRoutine\n");
    if (!(IrpContext->Flags & IRP_CONTEXT_FLAG_FCB_ACQUIRED)) {
        if (IoGetTopLevelIrp() != Irp) {
            return CompleteWaiter(IrpContext, Irp);
        }
        NtFsdDebugPrint(TRACE_LOCK, 0, "   Fcb not acquired. Returning...\n");
        if (NT_SUCCESS(Irp->IoStatus.Status)) {
            NtFsdGrantLockRequest(IrpContext);
        }
        static_cast<DECISION *>(DecisionSlot(Irp))->Decided = true;
        return STATUS_SUCCESS;
    }
    const PFCB Fcb = FcbOf(IrpContext);
    ResourceHold Hold;
    Hold.Adopt(&Fcb->Resource);
    Hold.Holds(&Fcb->Resource);
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Minor function    : %d\n", IrpContext->MinorFunction);
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Byte offset       : %d\n", IrpSp->Parameters.LockControl.ByteOffset.LowPart);
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Lock length       : %d\n", IrpContext->LockLength.LowPart);
    NtFsdDebugPrint(TRACE_LOCK, 0, "   IoStatus          : 0x%X\n", Irp->IoStatus.Status);
    NtFsdDebugPrint(TRACE_LOCK, 0, "   IoInformation     : %X\n", LowPart(Irp->IoStatus.Information));

    DECISION None;
    DECISION *const InFrame = static_cast<DECISION *>(DecisionSlot(Irp));
    DECISION &Decision = InFrame != nullptr ? *InFrame : None;
    const NTSTATUS Status = TellServer(IrpContext, Irp, Decision);
    NtFsdDebugPrint(TRACE_LOCK, 0, "   Releasing Fcb resource...\n");
    NtFsdStopCollectingLockGrants(Fcb);
    Hold.Release();
    Decision.Status = NtFsdCompleteRequest(IrpContext, Irp, Status);
    return Decision.Status;
}

NTSTATUS TwLockCompleteRoutineWithAcquire(PIRP_CONTEXT IrpContext) {
    LIST_ENTRY Grants;
    InitializeListHead(&Grants);
    const NTSTATUS Status = CompleteWithAcquire(IrpContext, &Grants);
    NtFsdPostLockGrants(&Grants);
    return Status;
}
