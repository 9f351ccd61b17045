// Lock order: one graph over all lock kinds, by instance and by named class.
//
// An edge A -> B says that some thread took B while it held A. A new edge that closes a cycle, or that goes against
// the ranks of named locks, stops with 0xC4/0x1001 and both chains, even if no thread ever blocked. Owns its mutex,
// takes no other lock. Used only while Verifying().
#pragma once

#include <string>

#include "embedded/ke/ke.h"

namespace embedded {

// Names a lock and puts it into a class: edges between classes are kept when their locks go. A lock may only be taken
// while every held named lock has a rank not above its own; rank 0 takes no part in ranks.
void NameLock(const void *Lock, const char *ClassName, ULONG Rank);

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
