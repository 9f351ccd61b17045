// Sizes of the volume behind a path.
#pragma once

#include "names/fcb.h"

// The four byte counts of the volume that physically holds Fcb's path: its length, free space, the caller's quota and
// what is free after it. Returns the raw Provider status; the Resource of Fcb is held.
RVSTATUS NtQueryPhysicalTargetVolumeSizeInfo(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance,
                                             PULONG64 VolumeLength, PULONG64 FreeSpace, PULONG64 QuotaAllowed,
                                             PULONG64 FreeAfterQuota);
