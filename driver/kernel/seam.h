// The one seam for structured exceptions: the only functions of the driver that an exception may pass through. No
// objects with destructors live in them.
#pragma once

// Probes and locks the pages that Mdl describes, for Mode and Operation, and catches what the probe raises.
// IRQL <= APC_LEVEL. Returns STATUS_SUCCESS with the pages locked, or the code of the exception with the MDL as it
// was.
NTSTATUS KernelProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation);

// Makes *NotifySync with FsRtlNotifyInitializeSync, which raises when memory is out. IRQL <= APC_LEVEL. Returns
// STATUS_SUCCESS, or the code of the exception with *NotifySync NULL.
NTSTATUS KernelNotifyInitializeSync(PNOTIFY_SYNC *NotifySync);
