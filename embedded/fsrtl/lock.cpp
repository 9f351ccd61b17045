// Byte-range locks: requests, and who is granted what when. The table of a file is in lock_table.h.
//
// FsRtlProcessFileLock answers what was decided here. What a driver's completion routine makes of it, and completes the
// request with, is the driver's to know: a lock that it failed was granted all the same, and is taken back.
//
// Who ends a waiting request: whoever takes its cancel routine out of the request. The canceller has taken it before
// it calls CancelWaiting, so a grant, an unlock or a teardown that finds none leaves the request to the canceller.

#include "embedded/fsrtl/fsrtl.h"

#include "embedded/fsrtl/lock_table.h"
#include "embedded/fsrtl/probe.h"
#include "embedded/ke/schedule.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

namespace embedded {
namespace {

// ---- Completion --------------------------------------------------------------------------------------------

// Hands a decided request to the driver, or completes it when the driver has no routine. No lock may be held; the
// request belongs to others afterwards.
NTSTATUS CompleteLockIrp(PCOMPLETE_LOCK_IRP_ROUTINE Routine, PVOID Context, PIRP Irp, NTSTATUS Status) {
    SchedulePoint("the end of a lock request", Irp);
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    if (Routine != nullptr) {
        return Routine(Context, Irp);
    }
    IofCompleteRequest(Irp, IO_DISK_INCREMENT);
    return Status;
}

PDRIVER_CANCEL ExchangeCancelRoutine(PIRP Irp, PDRIVER_CANCEL New) {
    return __atomic_exchange_n(&Irp->CancelRoutine, New, __ATOMIC_SEQ_CST);
}

// A driver that failed the completion of a granted lock does not have it; unless it gave it back itself by now.
void TakeBack(const TableReference &Table, LockId Id) {
    std::lock_guard Hold(Table->Mutex);
    auto Granted = Table->Granted.find(Id);
    if (Granted != Table->Granted.end()) {
        Table->RemoveLocked(Granted);
    }
}

struct Grant {
    Waiter To;
    NTSTATUS Status;
    LockId Id;
};

// Grants the first waiter that nothing stands against. One that cannot be recorded for want of memory is ended.
std::optional<Grant> GrantNextLocked(LockTable &Table) {
    for (auto At = Table.Waiters.begin(); At != Table.Waiters.end(); ++At) {
        if (Table.ConflictsLocked(At->Wanted) || ExchangeCancelRoutine(At->Irp, nullptr) == nullptr) {
            continue;
        }
        Waiter Next = Table.TakeLocked(At);
        try {
            if (ShouldFail(FaultKind::Pool)) {
                throw std::bad_alloc();
            }
            LockId Id = Table.GrantLocked(Next.Wanted);
            return Grant{std::move(Next), STATUS_SUCCESS, Id};
        } catch (const std::bad_alloc &) {
            return Grant{std::move(Next), STATUS_INSUFFICIENT_RESOURCES, 0};
        }
    }
    return std::nullopt;
}

// Grants what can be granted now, in order of arrival. No lock may be held.
void GrantWaiters(const TableReference &Table) {
    for (;;) {
        std::optional<Grant> Next;
        {
            std::lock_guard Hold(Table->Mutex);
            Next = GrantNextLocked(*Table);
        }
        if (!Next) {
            return;
        }
        NTSTATUS Status = CompleteLockIrp(Table->CompleteLockIrp, Next->To.Context, Next->To.Irp, Next->Status);
        if (NT_SUCCESS(Next->Status) && !NT_SUCCESS(Status)) {
            TakeBack(Table, Next->Id);
        }
    }
}

// The I/O manager calls it with the cancel spin lock held and the cancel routine taken out of the request.
VOID NTAPI CancelWaiting(PDEVICE_OBJECT, PIRP Irp) noexcept {
    // Only this routine ends the request from here on, so its table and its place in the queue stay.
    auto *Table = reinterpret_cast<LockTable *>(Irp->IoStatus.Information);
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    std::optional<Waiter> Cancelled;
    {
        std::lock_guard Hold(Table->Mutex);
        for (auto At = Table->Waiters.begin(); At != Table->Waiters.end(); ++At) {
            if (At->Irp == Irp) {
                Cancelled = Table->TakeLocked(At);
                break;
            }
        }
    }
    if (!Cancelled) {
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule, reinterpret_cast<ULONG_PTR>(Irp), 0, 0,
                 "a cancelled lock request is not waiting in its table");
    }
    CompleteLockIrp(Table->CompleteLockIrp, Cancelled->Context, Irp, STATUS_CANCELLED);
}

// ---- Requests ----------------------------------------------------------------------------------------------

Range RequestedRange(const IO_STACK_LOCATION *Stack) {
    const LARGE_INTEGER *Length = Stack->Parameters.LockControl.Length;
    return {static_cast<ULONGLONG>(Stack->Parameters.LockControl.ByteOffset.QuadPart),
            Length == nullptr ? 0 : static_cast<ULONGLONG>(Length->QuadPart)};
}

struct Decision {
    NTSTATUS Status; // STATUS_PENDING: the request waits and is no longer the caller's
    LockId Id = 0;
};

// Queues a request that has to wait. Under the table's mutex from the look at Irp->Cancel to the mark: a canceller
// cannot complete the request before it is marked pending.
NTSTATUS QueueLocked(const TableReference &Table, const Lock &Wanted, PIRP Irp, PVOID Context) {
    Table->QueueLocked({Wanted, Irp, Context, Table});
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(Table.get());
    IoMarkIrpPending(Irp);
    ExchangeCancelRoutine(Irp, CancelWaiting);
    if (__atomic_load_n(&Irp->Cancel, __ATOMIC_SEQ_CST) && ExchangeCancelRoutine(Irp, nullptr) != nullptr) {
        Table->TakeLocked(std::prev(Table->Waiters.end()));
        return STATUS_CANCELLED;
    }
    return STATUS_PENDING;
}

Decision DecideLock(const TableReference &Table, const Lock &Wanted, PIRP Irp, PVOID Context, bool MayWait) {
    std::lock_guard Hold(Table->Mutex);
    if (!Table->ConflictsLocked(Wanted)) {
        return {STATUS_SUCCESS, Table->GrantLocked(Wanted)};
    }
    if (!MayWait) {
        return {STATUS_LOCK_NOT_GRANTED};
    }
    return {QueueLocked(Table, Wanted, Irp, Context)};
}

NTSTATUS ProcessLock(PFILE_LOCK FileLock, PIRP Irp, PVOID Context, const Owner &By) {
    const IO_STACK_LOCATION *Stack = IoGetCurrentIrpStackLocation(Irp);
    Lock Wanted{RequestedRange(Stack), By, (Stack->Flags & SL_EXCLUSIVE_LOCK) != 0};
    bool MayWait = (Stack->Flags & SL_FAIL_IMMEDIATELY) == 0;
    PCOMPLETE_LOCK_IRP_ROUTINE Routine = FileLock->CompleteLockIrpRoutine;
    TableReference Table;
    Decision Decided{STATUS_INVALID_LOCK_RANGE};
    if (!Wanted.Bytes.Wraps()) {
        try {
            if (ShouldFail(FaultKind::Pool)) {
                throw std::bad_alloc();
            }
            Table = TableOf(FileLock);
            Decided = DecideLock(Table, Wanted, Irp, Context, MayWait);
        } catch (const std::bad_alloc &) {
            Decided = {STATUS_INSUFFICIENT_RESOURCES};
        }
    }
    if (Decided.Status == STATUS_PENDING) {
        return STATUS_PENDING;
    }
    NTSTATUS Status = CompleteLockIrp(Routine, Context, Irp, Decided.Status);
    if (NT_SUCCESS(Decided.Status) && !NT_SUCCESS(Status)) {
        TakeBack(Table, Decided.Id);
        GrantWaiters(Table);
    }
    // One that was cancelled while it was queued was marked pending before.
    return Decided.Status == STATUS_CANCELLED ? STATUS_PENDING : Decided.Status;
}

// Where a range is locked both ways by its owner, the exclusive lock goes first.
std::optional<Lock> RemoveOne(const TableReference &Table, const Range &Bytes, const Owner &By) {
    std::lock_guard Hold(Table->Mutex);
    auto Found = Table->Exclusive.Find(Bytes, By);
    if (!Found) {
        Found = Table->Shared.Find(Bytes, By);
    }
    if (!Found) {
        return std::nullopt;
    }
    Lock Removed = (*Found)->second;
    Table->RemoveLocked(*Found);
    return Removed;
}

NTSTATUS UnlockSingle(PFILE_LOCK FileLock, const Range &Bytes, const Owner &By, PVOID Context) {
    TableReference Table = ExistingTable(FileLock);
    if (Table == nullptr) {
        return STATUS_RANGE_NOT_LOCKED;
    }
    std::optional<Lock> Removed = RemoveOne(Table, Bytes, By);
    if (!Removed) {
        return STATUS_RANGE_NOT_LOCKED;
    }
    if (Table->Unlock != nullptr) {
        FILE_LOCK_INFO Info = Describe(*Removed);
        Table->Unlock(Context, &Info);
    }
    GrantWaiters(Table);
    return STATUS_SUCCESS;
}

// Whose locks an unlock of all removes: those of one file object and process, of any key or of one.
struct OwnerPattern {
    PFILE_OBJECT FileObject;
    PEPROCESS Process;
    std::optional<ULONG> Key;

    bool Matches(const Owner &By) const {
        return By.FileObject == FileObject && By.Process == Process && (!Key || By.Key == *Key);
    }
};

// Removes the first matching lock that was granted after the lock numbered Last, and moves Last on to it.
std::optional<Lock> RemoveNext(const TableReference &Table, const OwnerPattern &Whose, LockId &Last) {
    std::lock_guard Hold(Table->Mutex);
    for (auto At = Table->Granted.upper_bound(Last); At != Table->Granted.end(); ++At) {
        Last = At->first;
        if (Whose.Matches(At->second.By)) {
            Lock Removed = At->second;
            Table->RemoveLocked(At);
            return Removed;
        }
    }
    return std::nullopt;
}

// Takes the first waiter that Counts accepts and that no canceller has taken already.
template <typename Predicate>
std::optional<Waiter> TakeWaiter(const TableReference &Table, Predicate Counts) {
    std::lock_guard Hold(Table->Mutex);
    for (auto At = Table->Waiters.begin(); At != Table->Waiters.end(); ++At) {
        if (Counts(*At) && ExchangeCancelRoutine(At->Irp, nullptr) != nullptr) {
            return Table->TakeLocked(At);
        }
    }
    return std::nullopt;
}

// Whether a request waits that no canceller has taken.
bool AnyWaits(LockTable &Table) {
    std::lock_guard Hold(Table.Mutex);
    return std::any_of(Table.Waiters.begin(), Table.Waiters.end(), [](const Waiter &Waiting) {
        return __atomic_load_n(&Waiting.Irp->CancelRoutine, __ATOMIC_SEQ_CST) != nullptr;
    });
}

// Removes the locks and ends the waiting requests of an owner.
void UnlockAll(PFILE_LOCK FileLock, const OwnerPattern &Whose, PVOID Context) {
    TableReference Table = ExistingTable(FileLock);
    if (Table == nullptr) {
        return;
    }
    // The waiting ones first: they must not be granted what goes free here.
    while (auto Ended = TakeWaiter(Table, [&](const Waiter &Waiting) { return Whose.Matches(Waiting.Wanted.By); })) {
        CompleteLockIrp(Table->CompleteLockIrp, Ended->Context, Ended->Irp, STATUS_CANCELLED);
    }
    LockId Last = 0;
    while (auto Removed = RemoveNext(Table, Whose, Last)) {
        if (Table->Unlock != nullptr) {
            FILE_LOCK_INFO Info = Describe(*Removed);
            Table->Unlock(Context, &Info);
        }
    }
    GrantWaiters(Table);
}

} // namespace

bool PlantFileLock(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS Process, ULONGLONG Offset, ULONGLONG Length,
                   ULONG Key, bool Exclusive) {
    Lock Wanted{{Offset, Length}, {FileObject, Process, Key}, Exclusive};
    if (Wanted.Bytes.Wraps()) {
        return false;
    }
    try {
        TableReference Table = TableOf(FileLock);
        std::lock_guard Hold(Table->Mutex);
        return !Table->ConflictsLocked(Wanted) && Table->GrantLocked(Wanted) != 0;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

size_t WaitingFileLocks(PFILE_LOCK FileLock) {
    TableReference Table = ExistingTable(FileLock);
    if (Table == nullptr) {
        return 0;
    }
    std::lock_guard Hold(Table->Mutex);
    return Table->Waiters.size();
}

FsRtlCounts CountFsRtl() {
    const LockCounts Locks = CountLocks();
    return {Locks.Tables, Locks.Locks, Locks.Waiters, NotifySyncsInUse()};
}

} // namespace embedded

using namespace embedded;

VOID NTAPI FsRtlInitializeFileLock(PFILE_LOCK FileLock, PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine,
                                   PUNLOCK_ROUTINE UnlockRoutine) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlInitializeFileLock"));
    *FileLock = {};
    FileLock->CompleteLockIrpRoutine = CompleteLockIrpRoutine;
    FileLock->UnlockRoutine = UnlockRoutine;
}

VOID NTAPI FsRtlUninitializeFileLock(PFILE_LOCK FileLock) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlUninitializeFileLock"));
    TableReference Table = ExistingTable(FileLock);
    if (Table == nullptr) {
        return;
    }
    if (Verifying() && AnyWaits(*Table)) {
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule, reinterpret_cast<ULONG_PTR>(FileLock), 0, 0,
                 "FsRtlUninitializeFileLock: lock requests still wait in the table");
    }
    while (auto Ended = TakeWaiter(Table, [](const Waiter &) { return true; })) {
        CompleteLockIrp(Table->CompleteLockIrp, Ended->Context, Ended->Irp, STATUS_RANGE_NOT_LOCKED);
    }
    Detach(FileLock, *Table);
}

NTSTATUS NTAPI FsRtlProcessFileLock(PFILE_LOCK FileLock, PIRP Irp, PVOID Context) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlProcessFileLock"));
    const IO_STACK_LOCATION *Stack = IoGetCurrentIrpStackLocation(Irp);
    Owner By{Stack->FileObject, IoGetRequestorProcess(Irp), Stack->Parameters.LockControl.Key};
    PCOMPLETE_LOCK_IRP_ROUTINE Routine = FileLock->CompleteLockIrpRoutine;
    NTSTATUS Status = STATUS_SUCCESS;
    switch (Stack->MinorFunction) {
    case IRP_MN_LOCK:
        return ProcessLock(FileLock, Irp, Context, By);
    case IRP_MN_UNLOCK_SINGLE:
        Status = UnlockSingle(FileLock, RequestedRange(Stack), By, Context);
        break;
    case IRP_MN_UNLOCK_ALL:
        UnlockAll(FileLock, {By.FileObject, By.Process, std::nullopt}, Context);
        break;
    case IRP_MN_UNLOCK_ALL_BY_KEY:
        UnlockAll(FileLock, {By.FileObject, By.Process, By.Key}, Context);
        break;
    default:
        return CompleteLockIrp(nullptr, Context, Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    static_cast<void>(CompleteLockIrp(Routine, Context, Irp, Status));
    return Status;
}

PFILE_LOCK_INFO NTAPI FsRtlGetNextFileLock(PFILE_LOCK FileLock, BOOLEAN Restart) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlGetNextFileLock"));
    TableReference Table = ExistingTable(FileLock);
    if (Table == nullptr) {
        return nullptr;
    }
    std::lock_guard Hold(Table->Mutex);
    // The place is kept as a number, not as an address: the lock that was returned last may be gone.
    LockId Last = Restart ? 0 : reinterpret_cast<LockId>(FileLock->LastReturnedLock);
    auto Next = Table->Granted.upper_bound(Last);
    if (Next == Table->Granted.end()) {
        return nullptr;
    }
    FileLock->LastReturnedLock = reinterpret_cast<PVOID>(Next->first);
    FileLock->LastReturnedLockInfo = Describe(Next->second);
    return &FileLock->LastReturnedLockInfo;
}

NTSTATUS NTAPI FsRtlFastUnlockSingle(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, LARGE_INTEGER *FileOffset,
                                     PLARGE_INTEGER Length, PEPROCESS Process, ULONG Key, PVOID Context,
                                     BOOLEAN /*AlreadySynchronized*/) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlFastUnlockSingle"));
    Range Bytes{static_cast<ULONGLONG>(FileOffset->QuadPart), static_cast<ULONGLONG>(Length->QuadPart)};
    return UnlockSingle(FileLock, Bytes, {FileObject, Process, Key}, Context);
}
