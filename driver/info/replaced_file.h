// What a rename that may replace a file would lose.
#pragma once

#include "names/fcb.h"
#include "provider/provider_calls.h"

// Looks at NewName, relative to TargetHandle, in the target directory (TargetFcb, Target) of a rename of the open file
// (SourceFcb, Source):
// *IsItself says whether it is that file, under another of its names, as far as volumes with identifiers tell. Success
// means that deleting what stands there loses nothing but that. STATUS_NOT_SAME_DEVICE when it lies in a volume that is
// not known to be the source's; the translated status of a question that the Provider did not answer. FcbTableResource
// is held, so that no path changes. Nothing is left open.
NTSTATUS NtFsdLookAtReplaced(PRV_SECURITY Security, PFCB SourceFcb, PINSTANCE_CONTEXT Source, PFCB TargetFcb,
                             PINSTANCE_CONTEXT Target, RVHANDLE TargetHandle, PCWSTR NewName, bool *IsItself);
