// Counted strings as the driver keeps them: owned, NUL-terminated, 16-bit byte counts.
#pragma once

#include "frame/memory.h"
#include "names/text.h"

// Makes Destination an owned, NUL-terminated copy of Source, reusing its buffer when that is large enough. Returns
// STATUS_NAME_TOO_LONG, before Destination is touched, when the text and its terminator do not fit a 16-bit size, and
// STATUS_INSUFFICIENT_RESOURCES, with Destination empty, when no memory can be had.
NTSTATUS NtFsdUpdateUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);

// Frees the buffer and empties the string.
VOID NtFsdFreeUnicodeString(PUNICODE_STRING String);

// Ends String, which owns its buffer, after Units of its units.
inline VOID NtFsdCutString(PUNICODE_STRING String, ULONG Units) {
    String->Length = static_cast<USHORT>(Units * sizeof(WCHAR));
    String->Buffer[Units] = 0;
}

// The number of path components: \server counts 1, \server\volume 2; an empty component between doubled backslashes
// counts. A 16-bit zero ends the text early. Counting stops at Most (at least 1), which is also the answer for a path
// with more.
ULONG NtFsdCountPathComponents(PCUNICODE_STRING Path, ULONG Most = 0xFFFF);

// Composes Base, one backslash unless Base already ends in one, and Name into the empty string Path, which owns its
// buffer and is terminated. Base may be NULL: then Path is Name. Returns STATUS_OBJECT_NAME_INVALID when the result
// does not fit a 16-bit size, STATUS_INSUFFICIENT_RESOURCES when no memory can be had (AllocationBytes, when given,
// receives the size that was asked for).
NTSTATUS NtFsdComposePath(PCUNICODE_STRING Base, PCUNICODE_STRING Name, PUNICODE_STRING Path, PULONG AllocationBytes);

// Views into a path. Front and Last are what stands before and behind its last separator; without one Front is empty.
struct PATH_PARTS {
    UNICODE_STRING Front;
    UNICODE_STRING Last;
};
PATH_PARTS NtFsdSplitPath(const UNICODE_STRING &Path);

// Where server and volume of a path (\server\volume\...) lie, in units: the server ends, the volume begins and ends.
// The volume is empty when the path has none.
struct VOLUME_POSITION {
    ULONG ServerEnd;
    ULONG Start;
    ULONG End;
};
VOLUME_POSITION NtFsdFindVolume(const UNICODE_STRING &Path);

// Ends Path behind its volume, in place, and returns a view of that component.
UNICODE_STRING NtFsdCutAfterVolume(PUNICODE_STRING Path);

// The path without a trailing separator, if it has one.
UNICODE_STRING NtFsdWithoutSlash(const UNICODE_STRING &Path);

// TRUE when Path is not empty, has no empty component and holds no zero: with one of these the Provider would see
// another path than the one that was named. A separator at the start belongs to no component; one at the end makes an
// empty one.
bool NtFsdIsPathValid(PCUNICODE_STRING Path);

// TRUE when a wildcard stands in the last component.
bool NtFsdHasWildcards(PCUNICODE_STRING Path);

// A string of the driver that is freed by scope.
class OwnedString {
public:
    OwnedString() = default;
    OwnedString(const OwnedString &) = delete;
    OwnedString &operator=(const OwnedString &) = delete;
    ~OwnedString() {
        NtFsdFreeUnicodeString(&String_);
    }
    PUNICODE_STRING Get() {
        return &String_;
    }
    PCUNICODE_STRING Get() const {
        return &String_;
    }
    UNICODE_STRING *operator->() {
        return &String_;
    }

private:
    UNICODE_STRING String_ = {0, 0, nullptr};
};
