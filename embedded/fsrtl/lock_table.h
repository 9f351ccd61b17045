// The byte-range locks of a file and the requests that wait for some.
//
// Who may have what: an exclusive lock is refused when any lock overlaps it, also one of the same owner; a shared
// lock is refused when an exclusive lock of another owner overlaps it. An owner is a file object, a process and a
// key together. A range of no bytes at offset X overlaps a range only if it lies strictly inside it: behind its
// first byte and not behind its last; two of no bytes never overlap.
#pragma once

#include <list>
#include <memory>
#include <mutex>

#include "embedded/fsrtl/ranges.h"

namespace embedded {

struct LockTable;
using TableReference = std::shared_ptr<LockTable>;

struct Waiter {
    Lock Wanted;
    PIRP Irp;
    PVOID Context;
    // Keeps the table for a cancel routine that runs while the table is being torn down.
    TableReference Table;
};
using WaiterList = std::list<Waiter>;

// What ends in Locked is called with Mutex held.
struct LockTable : std::enable_shared_from_this<LockTable> {
    explicit LockTable(PFILE_LOCK FileLock);
    ~LockTable();

    bool ConflictsLocked(const Lock &Wanted) const;
    // Throws bad_alloc, having changed nothing.
    LockId GrantLocked(const Lock &Wanted);
    void RemoveLocked(GrantedLocks::iterator Old);
    // Throws bad_alloc, having changed nothing.
    void QueueLocked(Waiter New);
    // Takes a waiter out of the queue. The caller has taken its cancel routine.
    Waiter TakeLocked(WaiterList::iterator At);

    const PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrp;
    const PUNLOCK_ROUTINE Unlock;

    std::mutex Mutex;
    // Guarded by Mutex:
    PFILE_LOCK Attached; // nullptr once torn down
    TableReference Self;
    GrantedLocks Granted;
    LocksByRange Shared;
    LocksByRange Exclusive;
    LockId NextId = 1;
    WaiterList Waiters; // in order of arrival
};

// The file's table, or nothing when no lock was ever asked for.
TableReference ExistingTable(PFILE_LOCK FileLock);
// The file's table, made when there is none. Throws bad_alloc.
TableReference TableOf(PFILE_LOCK FileLock);
// Takes the table from its file; it goes with its last reference.
void Detach(PFILE_LOCK FileLock, LockTable &Table);

// Of all tables.
struct LockCounts {
    size_t Tables, Locks, Waiters;
};
LockCounts CountLocks();

} // namespace embedded
