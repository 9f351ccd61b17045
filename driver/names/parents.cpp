#include "frame/diagnostics.h"
#include "names/fcb.h"

// The directories below which FCBs are in the prefix table, directly or deeper, so that one look-up tells whether a
// directory may be renamed. Each counts the FCBs and the records directly below it and goes with the last of them.
// Volumes, which are never renamed, and what is above them have no record.
//
// The records that one FCB adds are one block: the highest first, each directory below it next, and the text of the
// deepest path behind them, of which all show a part. The highest is the last of them to go, and the block with it.
struct PARENT_RECORD {
    UNICODE_PREFIX_TABLE_ENTRY Entry;
    UNICODE_STRING Path; // a view into the block's text
    PARENT_RECORD *Parent UNDER(FcbTableResource);
    ULONG Below UNDER(FcbTableResource);
    BOOLEAN BeginsBlock;
};

namespace {

constexpr ULONG VOLUME_COMPONENTS = 2;

DRIVER_GLOBAL UNICODE_PREFIX_TABLE ParentTable UNDER(FcbTableResource) = {};

PARENT_RECORD *FindRecord(PUNICODE_STRING Path) HOLDING(FcbTableResource) {
    const PUNICODE_PREFIX_TABLE_ENTRY Entry = RtlFindUnicodePrefix(&ParentTable, Path, 0);
    return Entry != nullptr && Entry->Prefix->Length == Path->Length ? CONTAINING_RECORD(Entry, PARENT_RECORD, Entry)
                                                                     : nullptr;
}

// Takes Record out, and those above it that have nothing below them then.
void Release(PARENT_RECORD *Record) HOLDING(FcbTableResource) {
    while (Record != nullptr && --Record->Below == 0) {
        PARENT_RECORD *Above = Record->Parent;
        RtlRemoveUnicodePrefix(&ParentTable, &Record->Entry);
        if (Record->BeginsBlock) {
            TwFreeMemory(Record);
        }
        Record = Above;
    }
}

// A block of Count records for Directory and the directories above it, below Above (NULL: below the volume), in the
// table, the deepest with one below it. NULL when no memory can be had; nothing has changed then.
PARENT_RECORD *MakeRecords(const UNICODE_STRING &Directory, ULONG Count, PARENT_RECORD *Above)
    HOLDING(FcbTableResource) {
    const auto Block = static_cast<PARENT_RECORD *>(TwAllocMemory(Count * sizeof(PARENT_RECORD) + Directory.Length));
    if (Block == nullptr) {
        return nullptr;
    }
    const auto Text = reinterpret_cast<PWSTR>(Block + Count);
    RtlCopyMemory(Text, Directory.Buffer, Directory.Length);
    UNICODE_STRING Path = ViewOf(Text, UnitsOf(Directory));
    for (ULONG Left = Count; Left != 0; --Left) {
        Block[Left - 1].Path = Path;
        Path = NtFsdSplitPath(Path).Front;
    }
    Block->BeginsBlock = TRUE;
    for (ULONG Made = 0; Made < Count; ++Made) {
        PARENT_RECORD *Record = &Block[Made];
        Record->Parent = Made == 0 ? Above : Record - 1;
        Record->Below = 1; // the next, or the FCB
        if (!RtlInsertUnicodePrefix(&ParentTable, &Record->Path, &Record->Entry)) {
            Block->Parent = nullptr; // Above has not counted the block yet
            if (Made == 0) {
                TwFreeMemory(Block);
            } else {
                Release(Record - 1);
            }
            return nullptr;
        }
    }
    if (Above != nullptr) {
        ++Above->Below;
    }
    return &Block[Count - 1];
}

} // namespace

VOID NtFsdInitializeParents() {
    RtlInitializeUnicodePrefix(&ParentTable);
}

NTSTATUS NtFsdHoldParent(PCUNICODE_STRING Path, PARENT_RECORD **Parent) {
    *Parent = nullptr;
    const UNICODE_STRING Directory = NtFsdSplitPath(*Path).Front;
    UNICODE_STRING At = Directory;
    PARENT_RECORD *Found = nullptr;
    ULONG Missing = 0;
    while (NtFsdCountPathComponents(&At, VOLUME_COMPONENTS + 1) > VOLUME_COMPONENTS) {
        Found = FindRecord(&At);
        if (Found != nullptr) {
            break;
        }
        ++Missing;
        At = NtFsdSplitPath(At).Front;
    }
    if (Missing == 0) {
        if (Found != nullptr) {
            ++Found->Below;
        }
        *Parent = Found;
        return STATUS_SUCCESS;
    }
    *Parent = MakeRecords(Directory, Missing, Found);
    return *Parent != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

VOID NtFsdReleaseParent(PARENT_RECORD *Parent) {
    Release(Parent);
}

bool NtFsdHasFcbBelow(PCUNICODE_STRING Path) {
    UNICODE_STRING Directory = *Path;
    return FindRecord(&Directory) != nullptr;
}
