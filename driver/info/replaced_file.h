// What a rename that may replace a file would lose.
#pragma once

#include "names/fcb.h"
#include "provider/provider_calls.h"

// What stands under the new name of a rename, as far as the Provider can tell.
enum class REPLACED {
    Another,     // another file, or nothing could be told
    Itself,      // the file that is to be renamed, under another of its names
    Unreachable, // something in a volume that is not known to be the source's
};

// Looks at NewName in the target directory (TargetFcb, Target) of a rename of the open file (SourceFcb, Source).
// FcbTableResource is held, so that no path changes. Nothing is left open.
REPLACED NtFsdWhatIsReplaced(PRV_SECURITY Security, PFCB SourceFcb, PINSTANCE_CONTEXT Source, PFCB TargetFcb,
                             PINSTANCE_CONTEXT Target, PCWSTR NewName);
