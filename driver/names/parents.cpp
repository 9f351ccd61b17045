#include "frame/diagnostics.h"
#include "names/fcb.h"

// The directories below which FCBs are in the prefix table, directly or deeper, so that one look-up tells whether a
// directory may be renamed. Each counts the FCBs and the records directly below it and goes with the last of them.
// Volumes, which are never renamed, and what is above them have no record.
struct PARENT_RECORD {
    UNICODE_PREFIX_TABLE_ENTRY Entry;
    UNICODE_STRING Path; // owned
    PARENT_RECORD *Parent;
    ULONG Below;
};

namespace {

DRIVER_GLOBAL UNICODE_PREFIX_TABLE ParentTable UNDER(FcbTableResource) = {};

PARENT_RECORD *FindRecord(PUNICODE_STRING Path) HOLDING(FcbTableResource) {
    const PUNICODE_PREFIX_TABLE_ENTRY Entry = RtlFindUnicodePrefix(&ParentTable, Path, 0);
    return Entry != nullptr && Entry->Prefix->Length == Path->Length ? CONTAINING_RECORD(Entry, PARENT_RECORD, Entry)
                                                                     : nullptr;
}

void FreeRecord(PARENT_RECORD *Record) {
    NtFsdFreeUnicodeString(&Record->Path);
    TwFreeMemory(Record);
}

// A record in the table with one below it, and none above it yet. NULL when no memory can be had.
PARENT_RECORD *MakeRecord(PCUNICODE_STRING Path) HOLDING(FcbTableResource) {
    const auto Record = static_cast<PARENT_RECORD *>(TwAllocMemory(sizeof(PARENT_RECORD)));
    if (Record == nullptr) {
        return nullptr;
    }
    if (!NT_SUCCESS(NtFsdUpdateUnicodeString(&Record->Path, Path)) ||
        !RtlInsertUnicodePrefix(&ParentTable, &Record->Path, &Record->Entry)) {
        FreeRecord(Record);
        return nullptr;
    }
    Record->Below = 1;
    return Record;
}

} // namespace

VOID NtFsdInitializeParents() {
    RtlInitializeUnicodePrefix(&ParentTable);
}

NTSTATUS NtFsdHoldParent(PCUNICODE_STRING Path, PARENT_RECORD **Parent) {
    constexpr ULONG VOLUME_COMPONENTS = 2;
    *Parent = nullptr;
    PARENT_RECORD **Link = Parent;
    UNICODE_STRING Front = NtFsdSplitPath(*Path).Front;
    for (ULONG Components = NtFsdCountPathComponents(Path); Components > VOLUME_COMPONENTS + 1; --Components) {
        if (PARENT_RECORD *Found = FindRecord(&Front); Found != nullptr) {
            ++Found->Below;
            *Link = Found;
            return STATUS_SUCCESS;
        }
        *Link = MakeRecord(&Front);
        if (*Link == nullptr) {
            NtFsdReleaseParent(*Parent);
            *Parent = nullptr;
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        Link = &(*Link)->Parent;
        Front = NtFsdSplitPath(Front).Front;
    }
    return STATUS_SUCCESS;
}

VOID NtFsdReleaseParent(PARENT_RECORD *Parent) {
    while (Parent != nullptr && --Parent->Below == 0) {
        PARENT_RECORD *Above = Parent->Parent;
        RtlRemoveUnicodePrefix(&ParentTable, &Parent->Entry);
        FreeRecord(Parent);
        Parent = Above;
    }
}

bool NtFsdHasFcbBelow(PCUNICODE_STRING Path) {
    UNICODE_STRING Directory = *Path;
    return FindRecord(&Directory) != nullptr;
}
