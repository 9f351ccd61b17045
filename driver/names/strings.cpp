#include "names/strings.h"

#include "frame/diagnostics.h"

namespace {

// A 16-bit size holds at most this much text with its terminator.
constexpr ULONG LONGEST_TEXT_BYTES = 0xFFFF - sizeof(WCHAR);

void Store(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    if (Source->Length != 0) {
        RtlCopyMemory(Destination->Buffer, Source->Buffer, Source->Length);
    }
    Destination->Length = Source->Length;
    Destination->Buffer[Source->Length / sizeof(WCHAR)] = 0;
}

} // namespace

NTSTATUS NtFsdUpdateUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    if (Source->Length > LONGEST_TEXT_BYTES) {
        return STATUS_NAME_TOO_LONG;
    }
    // Half a character at the end has no place for a terminator behind it.
    const UNICODE_STRING Text = {static_cast<USHORT>(Source->Length & ~1u), Source->MaximumLength, Source->Buffer};
    const USHORT Needed = static_cast<USHORT>(Text.Length + sizeof(WCHAR));
    if (Destination->Buffer == nullptr || Destination->MaximumLength < Needed) {
        NtFsdFreeUnicodeString(Destination);
        Destination->Buffer = static_cast<PWSTR>(TwAllocMemory(Needed));
        if (Destination->Buffer == nullptr) {
            NtFsdAlwaysPrint("[RVFSD] NtFsdUpdateUnicodeString alloc for %hu bytes failed.\n",
                             static_cast<ULONG>(Needed));
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        Destination->MaximumLength = Needed;
    }
    Store(Destination, &Text);
    return STATUS_SUCCESS;
}

VOID NtFsdFreeUnicodeString(PUNICODE_STRING String) {
    TwFreeMemory(String->Buffer);
    *String = {0, 0, nullptr};
}

ULONG NtFsdCountPathComponents(PCUNICODE_STRING Path, ULONG Most) {
    const ULONG Units = Path->Length / sizeof(WCHAR);
    ULONG At = 0;
    while (At < Units && Path->Buffer[At] == SEPARATOR) {
        ++At;
    }
    if (At == Units) {
        return 0;
    }
    ULONG Count = Path->Buffer[At] != 0 ? 1 : 0;
    while (Count < Most && At < Units && Path->Buffer[At] != 0) {
        if (Path->Buffer[At++] == SEPARATOR && At < Units && Path->Buffer[At] != 0) {
            ++Count;
        }
    }
    return Count;
}

NTSTATUS NtFsdComposePath(PCUNICODE_STRING Base, PCUNICODE_STRING Name, PUNICODE_STRING Path, PULONG AllocationBytes) {
    const ULONG BaseUnits = Base != nullptr ? Base->Length / sizeof(WCHAR) : 0;
    const ULONG NameUnits = Name->Length / sizeof(WCHAR);
    const ULONG SeparatorUnits =
        Base != nullptr && (BaseUnits == 0 || Base->Buffer[BaseUnits - 1] != SEPARATOR) ? 1 : 0;
    const ULONG Bytes = (BaseUnits + SeparatorUnits + NameUnits + 1) * sizeof(WCHAR);
    if (AllocationBytes != nullptr) {
        *AllocationBytes = Bytes;
    }
    if (Bytes > 0xFFFF) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    Path->Buffer = static_cast<PWSTR>(TwAllocBuffer(Bytes));
    if (Path->Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Path->MaximumLength = static_cast<USHORT>(Bytes);
    Path->Length = static_cast<USHORT>(Bytes - sizeof(WCHAR));
    PWSTR At = Path->Buffer;
    if (BaseUnits != 0) {
        RtlCopyMemory(At, Base->Buffer, BaseUnits * sizeof(WCHAR));
        At += BaseUnits;
    }
    if (SeparatorUnits != 0) {
        *At++ = SEPARATOR;
    }
    if (NameUnits != 0) {
        RtlCopyMemory(At, Name->Buffer, NameUnits * sizeof(WCHAR));
        At += NameUnits;
    }
    *At = 0;
    return STATUS_SUCCESS;
}

PATH_PARTS NtFsdSplitPath(const UNICODE_STRING &Path) {
    ULONG Start = UnitsOf(Path);
    while (Start != 0 && Path.Buffer[Start - 1] != SEPARATOR) {
        --Start;
    }
    return {ViewOf(Path.Buffer, Start != 0 ? Start - 1 : 0), ViewOf(Path.Buffer + Start, UnitsOf(Path) - Start)};
}

namespace {

// From At on over what is a separator, or over what is none.
ULONG SkipUnits(const UNICODE_STRING &Path, ULONG At, bool Separators) {
    while (At < UnitsOf(Path) && (Path.Buffer[At] == SEPARATOR) == Separators) {
        ++At;
    }
    return At;
}

} // namespace

VOLUME_POSITION NtFsdFindVolume(const UNICODE_STRING &Path) {
    const ULONG ServerEnd = SkipUnits(Path, SkipUnits(Path, 0, true), false);
    const ULONG Start = ServerEnd < UnitsOf(Path) ? ServerEnd + 1 : ServerEnd;
    return {ServerEnd, Start, SkipUnits(Path, Start, false)};
}

UNICODE_STRING NtFsdCutAfterVolume(PUNICODE_STRING Path) {
    const VOLUME_POSITION Volume = NtFsdFindVolume(*Path);
    if (Volume.End < UnitsOf(*Path)) {
        NtFsdCutString(Path, Volume.End);
    }
    return ViewOf(Path->Buffer + Volume.Start, Volume.End - Volume.Start);
}

UNICODE_STRING NtFsdWithoutSlash(const UNICODE_STRING &Path) {
    const ULONG Units = UnitsOf(Path);
    return ViewOf(Path.Buffer, Units != 0 && Path.Buffer[Units - 1] == SEPARATOR ? Units - 1 : Units);
}

bool NtFsdIsPathValid(PCUNICODE_STRING Path) {
    const ULONG Units = UnitsOf(*Path);
    if (Units == 0 || Path->Buffer[Units - 1] == SEPARATOR || Path->Buffer[Units - 1] == 0) {
        return false;
    }
    // Without an exit the loop takes several units at a time, and nearly all paths are valid.
    USHORT Faults = 0;
    for (ULONG At = 0; At < Units - 1; ++At) {
        const WCHAR Unit = Path->Buffer[At];
        const bool Empty = (Unit == SEPARATOR) & (Path->Buffer[At + 1] == SEPARATOR);
        Faults |= static_cast<USHORT>((Unit == 0) | Empty);
    }
    return Faults == 0;
}

bool NtFsdHasWildcards(PCUNICODE_STRING Path) {
    const UNICODE_STRING Last = NtFsdSplitPath(*Path).Last;
    for (ULONG At = 0; At < UnitsOf(Last); ++At) {
        if (Last.Buffer[At] == WTEXT('*') || Last.Buffer[At] == WTEXT('?')) {
            return true;
        }
    }
    return false;
}
