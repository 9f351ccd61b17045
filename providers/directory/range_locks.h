// Locks of the file system itself, through which the processes that serve one directory see each other: of the open
// file description, so that they go with the open and with nothing else. No locks of ours; calls may wait for the file
// system, but never for a lock.
#pragma once

#include "providers/directory/errno_status.h"

namespace providers::directory {

enum class RangeLock : uint8_t { None, Shared, Exclusive };

// Both take a descriptor of -1 for an open whose own names the file only and carries no locks.

// Makes the range of the open file that. CODE_LOCK_NOT_GRANTED when another open has it. A descriptor that cannot carry
// the lock carries the other kind, or none: such a lock, one on a file system without locks, and what lies beyond what
// the system can name hold within the process alone.
RVSTATUS SetRange(int Fd, RangeLock Kind, ULONG64 Offset, ULONG64 Length);

// Notes on the open file what it shares (the bits of slot 18's share mode), for other processes, and asks whether one
// of them denies Access. Noted is what was noted on it before, all three bits at first, and becomes what is noted now.
// CODE_SHARING_VIOLATION when one does.
RVSTATUS NoteShares(int Fd, ULONG &Noted, ULONG Access, ULONG ShareMode);

} // namespace providers::directory
