// What tests look at and plant: the ranges and requests of a lock table.
#pragma once

#include <cstddef>

#include "kernel/kernel.h"

namespace embedded {

// Grants a range as FsRtlProcessFileLock would for a request of Process, with no request and no callback. Key and
// process are recorded as given. False when the range conflicts, wraps, or there is no memory.
bool PlantFileLock(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS Process, ULONGLONG Offset, ULONGLONG Length,
                   ULONG Key, bool Exclusive);

// Requests that wait in a table.
size_t WaitingFileLocks(PFILE_LOCK FileLock);

} // namespace embedded
