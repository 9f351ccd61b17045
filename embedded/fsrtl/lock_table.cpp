#include "embedded/fsrtl/lock_table.h"

#include <atomic>
#include <utility>

namespace embedded {
namespace {

std::atomic<size_t> TableCount = 0;
std::atomic<size_t> LockCount = 0;
std::atomic<size_t> WaiterCount = 0;

// Requests that may wait come without any lock of the driver's, so two of them may find a file without a table.
constinit std::mutex AttachMutex;

LockTable *Attachment(PFILE_LOCK FileLock) {
    return static_cast<LockTable *>(__atomic_load_n(&FileLock->LockInformation, __ATOMIC_ACQUIRE));
}

} // namespace

LockTable::LockTable(PFILE_LOCK FileLock)
    : CompleteLockIrp(FileLock->CompleteLockIrpRoutine), Unlock(FileLock->UnlockRoutine), Attached(FileLock) {
    ++TableCount;
}

LockTable::~LockTable() {
    LockCount -= Granted.size();
    --TableCount;
}

bool LockTable::ConflictsLocked(const Lock &Wanted) const {
    if (Wanted.Exclusive) {
        auto Anyone = [](const Lock &) { return true; };
        return Shared.AnyOverlap(Wanted.Bytes, Anyone) || Exclusive.AnyOverlap(Wanted.Bytes, Anyone);
    }
    return Exclusive.AnyOverlap(Wanted.Bytes, [&](const Lock &Other) { return Other.By != Wanted.By; });
}

LockId LockTable::GrantLocked(const Lock &Wanted) {
    auto New = Granted.emplace(NextId, Wanted).first;
    try {
        (Wanted.Exclusive ? Exclusive : Shared).Add(New);
    } catch (...) {
        Granted.erase(New);
        throw;
    }
    ++LockCount;
    if (Attached != nullptr) {
        Attached->FastIoIsQuestionable = TRUE;
    }
    return NextId++;
}

void LockTable::RemoveLocked(GrantedLocks::iterator Old) {
    (Old->second.Exclusive ? Exclusive : Shared).Remove(Old);
    Granted.erase(Old);
    --LockCount;
    if (Attached != nullptr && Granted.empty()) {
        Attached->FastIoIsQuestionable = FALSE;
    }
}

void LockTable::QueueLocked(Waiter New) {
    Waiters.push_back(std::move(New));
    ++WaiterCount;
}

Waiter LockTable::TakeLocked(WaiterList::iterator At) {
    Waiter Taken = std::move(*At);
    Waiters.erase(At);
    --WaiterCount;
    return Taken;
}

TableReference ExistingTable(PFILE_LOCK FileLock) {
    std::lock_guard Hold(AttachMutex);
    LockTable *Table = Attachment(FileLock);
    return Table == nullptr ? nullptr : Table->shared_from_this();
}

TableReference TableOf(PFILE_LOCK FileLock) {
    std::lock_guard Hold(AttachMutex);
    if (LockTable *Table = Attachment(FileLock)) {
        return Table->shared_from_this();
    }
    auto Table = std::make_shared<LockTable>(FileLock);
    Table->Self = Table;
    __atomic_store_n(&FileLock->LockInformation, static_cast<PVOID>(Table.get()), __ATOMIC_RELEASE);
    return Table;
}

void Detach(PFILE_LOCK FileLock, LockTable &Table) {
    std::lock_guard HoldAttach(AttachMutex);
    std::lock_guard Hold(Table.Mutex);
    FileLock->LockInformation = nullptr;
    Table.Attached = nullptr;
    Table.Self.reset();
}

LockCounts CountLocks() {
    return {TableCount.load(), LockCount.load(), WaiterCount.load()};
}

} // namespace embedded
