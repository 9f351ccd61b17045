// The create path. Called with the framework bound, inside a critical region, holding nothing.
#pragma once

#include "frame/irp_context.h"

// Serves IRP_MJ_CREATE of a path below the redirector: completes the IRP and returns its status, or posts it.
NTSTATUS NtFsdCommonCreate(PIRP_CONTEXT IrpContext, PIRP Irp);
