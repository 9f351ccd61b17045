// The end of byte-range locks that the run-time library has decided (io/lock_control.cpp).
#pragma once

#include "frame/irp_context.h"

// The completion routine of the FCB's FileLock: tells the Provider, completes the IRP.
NTSTATUS NTAPI TwLockCompleteRoutine(PVOID Context, PIRP Irp);
// The same after taking the FCB's Resource.
NTSTATUS TwLockCompleteRoutineWithAcquire(PIRP_CONTEXT IrpContext);
