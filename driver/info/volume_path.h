// The volume component of a path that the Provider resolved.
#pragma once

#include "names/strings.h"

// Ends Path (\server\volume\...) behind its volume component, in place, and returns a view of that component; empty
// when there is none.
inline UNICODE_STRING NtFsdCutAfterVolume(PUNICODE_STRING Path) {
    const ULONG Units = Path->Length / sizeof(WCHAR);
    ULONG At = 0;
    while (At < Units && Path->Buffer[At] == SEPARATOR) {
        ++At;
    }
    while (At < Units && Path->Buffer[At] != SEPARATOR) {
        ++At;
    }
    if (At < Units) {
        ++At;
    }
    const ULONG Start = At;
    while (At < Units && Path->Buffer[At] != SEPARATOR) {
        ++At;
    }
    if (At < Units) {
        Path->Buffer[At] = 0;
        Path->Length = static_cast<USHORT>(At * sizeof(WCHAR));
    }
    const USHORT Bytes = static_cast<USHORT>((At - Start) * sizeof(WCHAR));
    return {Bytes, Bytes, Path->Buffer + Start};
}
