// Memory: MDLs, probing, and the few questions a file system asks the memory manager.
//
// The one address space is system and user space at once; see mapping.h for mappings. Probing touches each page with
// a guarded instruction; a handler for SIGSEGV and SIGBUS, installed at the first probe, passes everything else on to
// the handler before it. Nothing blocks.
#pragma once

#include <exception>

#include "embedded/ke/ke.h"

namespace embedded {

// What a raising service raises. Never leaves an NTAPI function.
struct RaisedException {
    NTSTATUS Status;
};

// Probes every page of Mdl and marks it locked. Raises STATUS_ACCESS_VIOLATION with the MDL unchanged when a page
// cannot be accessed; for UserMode also for pool, the lowest 64 KiB and anything beyond the user half.
void ProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation);

// Installs the handler, if that has not been done.
void WatchFaults();

// Whether [Address, Address + Length) can be read (written); a write probe leaves the bytes as they are.
bool ProbeRange(const void *Address, SIZE_T Length, bool Write);

// The same with the rules of UserMode: what ProbeForRead and ProbeForWrite accept.
bool ProbeUserRange(const void *Address, SIZE_T Length, bool Write);

inline PVOID MdlVirtualAddress(const MDL *Mdl) {
    // By number: the start may be NULL or anything else a caller made up.
    return reinterpret_cast<PVOID>(reinterpret_cast<ULONG_PTR>(Mdl->StartVa) + Mdl->ByteOffset);
}

// Frees the MDL that an ending thread kept; the thread is the calling one.
void FreeSpareMdl(KThread &Thread);

void SetSystemSize(MM_SYSTEMSIZE Size);

// The pointers of the last section that was closed since ResetSectionCloses.
PSECTION_OBJECT_POINTERS LastSectionClosed();
void ResetSectionCloses();

} // namespace embedded
