#include "io/lock_table.h"

// Guards LockRequests of all FCBs, and the links and states in it. A leaf.
DRIVER_GLOBAL KSPIN_LOCK g_LockRequestsLock = 0;

namespace {

PIRP_CONTEXT ContextOf(PLIST_ENTRY Links) {
    return CONTAINING_RECORD(Links, IRP_CONTEXT, LockLinks);
}

// The lock that a request asks for, as the table would have it.
FILE_LOCK_INFO Asked(PIRP_CONTEXT IrpContext) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(IrpContext->Irp);
    FILE_LOCK_INFO Lock = {};
    Lock.FileObject = IrpContext->FileObject;
    Lock.ProcessId = IoGetRequestorProcess(IrpContext->Irp);
    Lock.Key = IrpSp->Parameters.LockControl.Key;
    Lock.StartingByte = IrpSp->Parameters.LockControl.ByteOffset;
    Lock.Length = IrpContext->LockLength;
    return Lock;
}

// Calls Visit for the requests whose lock Pattern means.
template <typename F>
void VisitRequests(PFCB Fcb, const LOCK_PATTERN &Pattern, F Visit) HOLDING(g_LockRequestsLock) {
    for (PLIST_ENTRY Links = Fcb->LockRequests.Flink; Links != &Fcb->LockRequests; Links = Links->Flink) {
        const PIRP_CONTEXT IrpContext = ContextOf(Links);
        const FILE_LOCK_INFO Lock = Asked(IrpContext);
        if (Pattern.Matches(Lock)) {
            Visit(IrpContext, Lock);
        }
    }
}

bool HasLock(PIRP_CONTEXT IrpContext) HOLDING(g_LockRequestsLock) {
    return (IrpContext->LockState & (LOCK_STATE_GRANTED | LOCK_STATE_REVOKED)) == LOCK_STATE_GRANTED;
}

// Finds the lock among those noted that no other request has claimed, and says that the server does not know it.
bool ClaimNoted(NOTED_LOCK *Locks, ULONG Count, const FILE_LOCK_INFO &Lock) {
    for (ULONG Index = 0; Index < Count; ++Index) {
        NOTED_LOCK &Noted = Locks[Index];
        if (Noted.Told && Noted.FileObject == Lock.FileObject && Noted.Offset.QuadPart == Lock.StartingByte.QuadPart &&
            Noted.Length.QuadPart == Lock.Length.QuadPart && Noted.Process == Lock.ProcessId && Noted.Key == Lock.Key) {
            Noted.Told = false;
            return true;
        }
    }
    return false;
}

} // namespace

ULONG NotedLocks::Walk(PFCB Fcb, const LOCK_PATTERN &Pattern, NOTED_LOCK *Locks, ULONG Capacity) {
    ULONG Found = 0;
    NtFsdWalkLocks(Fcb, [&](const FILE_LOCK_INFO &Lock) {
        if (Pattern.Matches(Lock)) {
            if (Found < Capacity) {
                Locks[Found] = {Lock.FileObject, Lock.StartingByte, Lock.Length, Lock.ProcessId, Lock.Key, true};
            }
            ++Found;
        }
        return true;
    });
    return Found;
}

bool NotedLocks::Note(PFCB Fcb, const LOCK_PATTERN &Pattern) {
    NOTED_LOCK *Locks = Few_;
    ULONG Capacity = FEW;
    ULONG Found = Walk(Fcb, Pattern, Locks, Capacity);
    if (Found > FEW) {
        Many_.Adopt(static_cast<NOTED_LOCK *>(TwAllocBuffer(SIZE_T{Found} * sizeof(NOTED_LOCK))));
        if (Many_) {
            Locks = Many_.Get();
            Capacity = Found;
            Found = Walk(Fcb, Pattern, Locks, Capacity);
        }
    }
    // What is granted while this goes on, without the Resource, belongs to a request that finds out by itself.
    Count_ = Found < Capacity ? Found : Capacity;
    const SpinLockHold Hold(g_LockRequestsLock);
    VisitRequests(Fcb, Pattern, [&](PIRP_CONTEXT IrpContext, const FILE_LOCK_INFO &Lock) HOLDING(g_LockRequestsLock) {
        if (!HasLock(IrpContext)) {
            IrpContext->LockState |= LOCK_STATE_DOUBTFUL;
        } else if (ClaimNoted(Locks, Count_, Lock)) {
            IrpContext->LockState |= LOCK_STATE_REVOKED;
        }
    });
    return Found <= Capacity;
}

bool NtFsdRemoveLock(PFCB Fcb, NOTED_LOCK Lock) {
    return NT_SUCCESS(FsRtlFastUnlockSingle(&Fcb->FileLock, Lock.FileObject, &Lock.Offset, &Lock.Length,
                                            static_cast<PEPROCESS>(Lock.Process), Lock.Key, nullptr, FALSE));
}

VOID NtFsdEnterLockRequest(PIRP_CONTEXT IrpContext) {
    NtFsdRequireKept(IrpContext);
    const auto Fcb = static_cast<PFCB>(IrpContext->FileObject->FsContext);
    const SpinLockHold Hold(g_LockRequestsLock);
    IrpContext->LockState = LOCK_STATE_ENTERED;
    InsertTailList(&Fcb->LockRequests, &IrpContext->LockLinks);
}

VOID NtFsdGrantLockRequest(PIRP_CONTEXT IrpContext) {
    const SpinLockHold Hold(g_LockRequestsLock);
    IrpContext->LockState |= LOCK_STATE_GRANTED;
}

bool NtFsdLeaveLockRequest(PIRP_CONTEXT IrpContext, bool *Doubtful) {
    const SpinLockHold Hold(g_LockRequestsLock);
    const ULONG State = IrpContext->LockState;
    if (State & LOCK_STATE_ENTERED) {
        RemoveEntryList(&IrpContext->LockLinks);
        IrpContext->LockState = 0;
    }
    *Doubtful = (State & LOCK_STATE_DOUBTFUL) != 0;
    return !(State & LOCK_STATE_REVOKED);
}

bool NtFsdIsUnlockForServer(PFCB Fcb, const LOCK_PATTERN &Pattern) {
    // Requests that a failure ends leave without the Resource: what the first hold finds may be gone under the second.
    bool AnyUntold = false;
    {
        const SpinLockHold Hold(g_LockRequestsLock);
        VisitRequests(Fcb, Pattern, [&](PIRP_CONTEXT IrpContext, const FILE_LOCK_INFO &) HOLDING(g_LockRequestsLock) {
            IrpContext->LockState |= HasLock(IrpContext) ? 0u : ULONG{LOCK_STATE_DOUBTFUL};
            AnyUntold = AnyUntold || HasLock(IrpContext);
        });
    }
    if (!AnyUntold) {
        return true;
    }
    ULONG InTable = 0;
    NtFsdWalkLocks(Fcb, [&](const FILE_LOCK_INFO &Lock) {
        InTable += Pattern.Matches(Lock);
        return true;
    });
    const SpinLockHold Hold(g_LockRequestsLock);
    PIRP_CONTEXT Untold = nullptr;
    // A request that is being decided may have its lock in the table already. Where we cannot be sure that the server
    // has a lock of this range, the unlock takes one that the server was never told of.
    VisitRequests(Fcb, Pattern, [&](PIRP_CONTEXT IrpContext, const FILE_LOCK_INFO &) HOLDING(g_LockRequestsLock) {
        if (HasLock(IrpContext)) {
            Untold = IrpContext;
        }
        InTable -= InTable != 0 && !(IrpContext->LockState & LOCK_STATE_REVOKED);
    });
    if (Untold == nullptr || InTable != 0) {
        return true; // the server has one of the same range, and one goes
    }
    Untold->LockState |= LOCK_STATE_REVOKED;
    return false;
}
