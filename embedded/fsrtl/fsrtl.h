// File system run-time library: byte-range lock tables, notify synchronisation, stream contexts, cached copies.
//
// The services are declared in kernel/linux/services.h. Here stands what the other rooms ask.
//
// Lock tables: FILE_LOCK is the driver's memory, the records hang on its LockInformation from the first lock until
// FsRtlUninitializeFileLock. Every table has one mutex. It is never held while a completion routine, an unlock
// routine or a completed request runs, so a routine may call back into the same table; what was read before a
// callback is read again after it. Nothing here waits for a lock range: a request that has to wait is queued.
#pragma once

#include <string>

#include "kernel/linux/services.h"
#include "kernel/linux/status.h"

namespace embedded {

// FsRtlNotifyInitializeSync, which raises (RaisedException) when memory is out: the driver calls it through its seam.
void NotifyInitializeSync(PNOTIFY_SYNC *NotifySync);

// Everything of this room that is alive in the whole process.
struct FsRtlCounts {
    size_t LockTables;
    size_t Locks;
    size_t WaitingLocks;
    size_t NotifySyncs;
};
FsRtlCounts CountFsRtl();

// One line per kind of leak, empty when nothing is alive. DescribeLeaks asks it.
std::string CheckFsRtlLeaks();

// Live notify synchronisation objects; a part of CountFsRtl.
size_t NotifySyncsInUse();

} // namespace embedded
