// Queries of files and volumes.
#pragma once

#include "names/fcb.h"

// Serves IRP_MJ_QUERY_INFORMATION: asks the Provider afresh, refreshes the FCB's sizes, fills the class. Completes the
// request or posts it.
NTSTATUS NtFsdCommonQueryInformation(PIRP_CONTEXT IrpContext);

// Serves IRP_MJ_QUERY_VOLUME_INFORMATION. Takes no FCB lock; always completes the request.
NTSTATUS NtFsdCommonQueryVolumeInfo(PIRP_CONTEXT IrpContext);

// A serial number made from up to four characters. They are taken from FallbackPath, beginning at the last backslash
// behind which another character stands, and when these do not suffice from the start of Path. Both are NUL-terminated.
ULONG NtFsdVolumeSerialFromPath(PCWSTR Path, PCWSTR FallbackPath);
