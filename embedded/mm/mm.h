// Memory: MDLs, probing, and the few questions a file system asks the memory manager.
//
// The one address space is system and user space at once; see mapping.h for mappings, faults.h for probing. Nothing
// blocks.
#pragma once

#include <exception>

#include "embedded/mm/faults.h"
#include "embedded/mm/mdl.h"

namespace embedded {

// What a raising service raises. Never leaves an NTAPI function.
struct RaisedException {
    NTSTATUS Status;
};

// Probes every page of Mdl and marks it locked. Raises STATUS_ACCESS_VIOLATION with the MDL unchanged when a page
// cannot be accessed; for UserMode also for pool, the lowest 64 KiB and anything beyond the user half.
void ProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation);

// ProbeRange with the rules of UserMode: what ProbeForRead and ProbeForWrite accept.
bool ProbeUserRange(const void *Address, SIZE_T Length, bool Write);

void SetSystemSize(MM_SYSTEMSIZE Size);

} // namespace embedded
