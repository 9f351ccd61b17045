// Lock order: one graph over all lock kinds, by instance and by named class.
//
// An edge A -> B says that some thread took B while it held A. A new edge that closes a cycle, or that goes against
// the ranks of named locks, stops with 0xC4/0x1001 and both chains, even if no thread ever blocked. Owns its mutex,
// takes no other lock. Used only while Verifying().
#pragma once

#include <string>

#include "embedded/base/thread.h"

namespace embedded {

// ---- The locks that a thread holds: spin locks and resources -------------------------------------------------

// In these Where is the caller's return address.
inline HeldLock *FindHeld(KThread &Thread, const void *Lock) {
    for (ULONG Index = Thread.HeldCount; Index-- > 0;) {
        if (Thread.Held[Index].Lock == Lock) {
            return &Thread.Held[Index];
        }
    }
    return nullptr;
}

[[noreturn]] void NTAPI ReportTooManyLocks(const KThread &Thread) noexcept;

inline void PushHeld(KThread &Thread, PVOID Lock, LockKind Kind, PVOID Where) {
    if (Thread.HeldCount == MaximumHeldLocks) [[unlikely]] {
        ReportTooManyLocks(Thread);
    }
    Thread.Held[Thread.HeldCount++] = {Lock, Where, 1, Kind};
}

// Moves the locks behind Held, which were taken later, one place down.
void NTAPI CloseGap(KThread &Thread, HeldLock *Held) noexcept;

inline void DropHeld(KThread &Thread, HeldLock *Held) {
    if (Held != &Thread.Held[--Thread.HeldCount]) {
        CloseGap(Thread, Held);
    }
}

// ---- Their order ---------------------------------------------------------------------------------------------

// To be called before a blocking acquire of Lock by Thread, which does not hold it yet.
void NTAPI CheckLockOrder(KThread &Thread, PVOID Lock, PVOID Where) noexcept;

// The lock is gone: its instance edges and its name are dropped.
void ForgetLock(const void *Lock);
// The same for all locks in [Start, Start + Length).
void ForgetLocksIn(const void *Start, SIZE_T Length);

// "FcbTableResource 0x..." or "0x...".
std::string DescribeLock(const void *Lock);
// The locks that Thread holds, oldest first, one a line, with where they were taken.
std::string DescribeHeldLocks(const KThread &Thread);

// Drops the whole graph and all names; for tests.
void ResetLockOrder();

} // namespace embedded
