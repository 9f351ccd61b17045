// A file's byte-range locks: what the run-time library's table holds, and which of it the server has been told of.
//
// A lock that may wait is decided without the FCB's Resource; the server hears of it later, under a new hold. Between
// the two an unlock may come. So every such request stands in its FCB's LockRequests from before the library decides
// until the server is told: an unlock that takes its lock away revokes it, and asks the server for nothing.
#pragma once

#include "names/fcb.h"

// Which locks: those of one file object, of one process, with one key, of one range, as far as these are given.
struct LOCK_PATTERN {
    PFILE_OBJECT FileObject = nullptr;
    PVOID Process = nullptr;
    const ULONG *Key = nullptr;
    const LARGE_INTEGER *Offset = nullptr;
    const LARGE_INTEGER *Length = nullptr;

    bool Matches(const FILE_LOCK_INFO &Lock) const {
        return (FileObject == nullptr || Lock.FileObject == FileObject) &&
               (Process == nullptr || Lock.ProcessId == Process) && (Key == nullptr || Lock.Key == *Key) &&
               (Offset == nullptr || Lock.StartingByte.QuadPart == Offset->QuadPart) &&
               (Length == nullptr || Lock.Length.QuadPart == Length->QuadPart);
    }
};

// Calls Visit(const FILE_LOCK_INFO &) for every lock in the table, in the order in which they were granted, until it
// answers FALSE. Visit must not change the table. Resource held exclusive: the place of the walk is the file's.
template <typename F>
void NtFsdWalkLocks(PFCB Fcb, F Visit) {
    for (auto Lock = FsRtlGetNextFileLock(&Fcb->FileLock, TRUE); Lock != nullptr && Visit(*Lock);
         Lock = FsRtlGetNextFileLock(&Fcb->FileLock, FALSE)) {
    }
}

// TRUE when the server knows the range: an empty one at offset 0 is kept locally only.
inline bool NtFsdIsServerRange(LARGE_INTEGER Offset, LARGE_INTEGER Length) {
    return Offset.QuadPart != 0 || Length.QuadPart != 0;
}

struct NOTED_LOCK {
    PFILE_OBJECT FileObject;
    LARGE_INTEGER Offset;
    LARGE_INTEGER Length;
    PVOID Process;
    ULONG Key;
    bool Told; // the server knows of it
};

// Removes a noted lock from the table, which may grant waiting ones. FALSE when the table does not have it.
bool NtFsdRemoveLock(PFCB Fcb, NOTED_LOCK Lock);

// The locks of a pattern, noted before they are removed. A few need no memory.
class NotedLocks {
public:
    NotedLocks() = default;
    NotedLocks(const NotedLocks &) = delete;
    NotedLocks &operator=(const NotedLocks &) = delete;

    // Notes the locks of Fcb that Pattern means, and revokes what requests of LockRequests among them had been granted.
    // TRUE: all of them; FALSE: for want of memory only the first few. Resource held exclusive.
    bool Note(PFCB Fcb, const LOCK_PATTERN &Pattern);

    const NOTED_LOCK *begin() const {
        return Locks();
    }
    const NOTED_LOCK *end() const {
        return Locks() + Count_;
    }

private:
    static constexpr ULONG FEW = 4;

    const NOTED_LOCK *Locks() const {
        return Many_ ? Many_.Get() : Few_;
    }
    ULONG Walk(PFCB Fcb, const LOCK_PATTERN &Pattern, NOTED_LOCK *Locks, ULONG Capacity);

    NOTED_LOCK Few_[FEW];
    PoolPointer<NOTED_LOCK> Many_;
    ULONG Count_ = 0;
};

// ---- Requests whose lock the server has not been told of ----------------------------------------------------------

// Enters the request of a lock that may wait; IrpContext->LockLength is set. Resource held exclusive.
VOID NtFsdEnterLockRequest(PIRP_CONTEXT IrpContext);

// Says that the library has granted it. Any thread, with or without the Resource.
VOID NtFsdGrantLockRequest(PIRP_CONTEXT IrpContext);

// Takes the request out, for whoever is about to end it. TRUE: its lock has not been taken away by an unlock, as far as
// the requests say; *Doubtful tells that only the table knows. Does nothing, and answers TRUE, for one that was never
// entered.
bool NtFsdLeaveLockRequest(PIRP_CONTEXT IrpContext, bool *Doubtful);

// FALSE when the server need not be asked to unlock the range of Pattern: all that the table has of it are locks that
// it was not told of, and the one that goes is revoked. To be called before the library unlocks. Resource held
// exclusive.
bool NtFsdIsUnlockForServer(PFCB Fcb, const LOCK_PATTERN &Pattern);
