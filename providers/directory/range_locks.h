// Locks of the file system itself, through which the processes that serve one directory see each other: of the open
// file description, so that they go with the open and with nothing else. No locks of ours; calls may wait for the file
// system, but never for a lock.
#pragma once

#include "providers/directory/errno_status.h"

namespace providers::directory {

enum class RangeLock : uint8_t { None, Shared, Exclusive };

// Makes the range of the open file that. CODE_LOCK_NOT_GRANTED when another open has it. A descriptor that cannot carry
// the lock carries the other kind, or none: such a lock, one on a file system without locks, and what lies beyond what
// the system can name hold within the process alone.
RVSTATUS SetRange(int Fd, RangeLock Kind, ULONG64 Offset, ULONG64 Length);

// Notes on the open file what it does not share (the bits of slot 18's share mode), for other processes, and asks
// whether one of them denies Access. First: nothing was noted on it before. CODE_SHARING_VIOLATION when one does.
RVSTATUS NoteShares(int Fd, bool First, ULONG Access, ULONG ShareMode);

} // namespace providers::directory
