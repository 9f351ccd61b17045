// The entry routines: one shape, a table of the entries and their differences.
//
// One dispatch routine serves every major function that has a row in the table: it counts the request in, binds the
// framework, refuses a cancelled IRP, enters a critical region, takes the top-level slot if free, decodes the file
// object, makes the IrpContext and runs the common routine. What deviates stands in the row; a row with Whole has
// nothing of this but what that does itself.
#pragma once

#include "frame/irp_context.h"

enum ENTRY_FLAGS : UCHAR {
    ENTRY_BINDS = 0x1,        // the framework must be bound
    ENTRY_TESTS_CANCEL = 0x2, // a cancelled IRP is refused
    ENTRY_MUST_RUN = 0x4,     // never refused for want of memory or for cancellation: it would never come again
    ENTRY_DECODES = 0x8,      // the file object is decoded, with OpenType
    ENTRY_RETURN_RUN = 0x10,  // the returning line begins with the run of the entry line
};

// A request on its way through its entry.
struct ENTRY_REQUEST {
    PIRP Irp;
    PFILE_OBJECT FileObject;
    bool Cancelled;  // found cancelled, and runs all the same
    NTSTATUS Status; // what the entry returns once the request is completed; before that, what the decode answered
};

// A deviation. TRUE: it has completed the IRP with Status, and the entry is done.
typedef bool (*ENTRY_HOOK)(ENTRY_REQUEST &Request);

struct ENTRY {
    PCSTR Name;                                  // NULL: the major function is not served
    UCHAR Flags;                                 // ENTRY_FLAGS
    UCHAR OpenType;                              // required of the FCB; 0 = any
    ULONG Mask;                                  // of the lines other than the entry line
    NTSTATUS (*Common)(PIRP_CONTEXT IrpContext); // completes the request, or posts it
    PCSTR WorkerName;                            // of Common, as a worker calls it; NULL: no worker runs it

    // NULL where the entry has none.
    PCSTR NoContext;     // the line, a short one, of a request for which no IrpContext can be had
    ENTRY_HOOK Whole;    // instead of everything but the entry line
    ENTRY_HOOK Unbound;  // instead of the refusal of an unbound framework
    ENTRY_HOOK Stopped;  // instead of the refusal after teardown
    ENTRY_HOOK Admitted; // before the critical region
    ENTRY_HOOK InRegion; // before the decode
    ENTRY_HOOK Decoded;  // after it, also when it failed; may change Status
};

// Fills DriverObject's dispatch table.
void NtFsdFillDispatchTable(PDRIVER_OBJECT DriverObject);

// IRP_MJ_SHUTDOWN, after its entry line (frame/teardown.cpp).
bool NtFsdServeShutdown(ENTRY_REQUEST &Request);
