// The common routines as workers run them: what the queue needs to know of the table of entries (frame/entry.cpp).
#pragma once

#include "frame/irp_context.h"

// What a worker runs for a posted request.
struct WORKER_ROUTINE {
    PCSTR Name;
    NTSTATUS (*Run)(PIRP_CONTEXT IrpContext); // NULL: there is nothing left to run
};
WORKER_ROUTINE NtFsdWorkerRoutine(UCHAR MajorFunction);
