// The one seam for structured exceptions.
#pragma once

// Probes and locks the pages that Mdl describes, for Mode and Operation, and catches what the probe raises.
// IRQL <= APC_LEVEL. Returns STATUS_SUCCESS with the pages locked, or the code of the exception with the MDL as it
// was. The only place of the driver that an exception may pass through: no objects with destructors live here.
NTSTATUS KernelProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation);
