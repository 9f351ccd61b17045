#include "dir/directory.h"
#include "frame/diagnostics.h"
#include "frame/memory.h"
#include "frame/status_translation.h"
#include "provider/provider_calls.h"

namespace {

DRIVER_GLOBAL LONG64 g_FileIdCounter = 0;

// ---- The classes ----------------------------------------------------------------------------------------------------

constexpr ULONG NONE = 0;

// Where a class keeps what others do not have; NONE where it has not. All but the names class begin like
// FILE_DIRECTORY_INFORMATION.
struct CLASS_LAYOUT {
    ULONG InfoClass;
    ULONG FixedSize;
    bool HasDetails;
    ULONG ShortNameLength;
    ULONG ShortName;
    ULONG FileId;
};

constexpr CLASS_LAYOUT Layouts[] = {
    {FileDirectoryInformation, offsetof(FILE_DIRECTORY_INFORMATION, FileName), true, NONE, NONE, NONE},
    {FileFullDirectoryInformation, offsetof(FILE_FULL_DIR_INFORMATION, FileName), true, NONE, NONE, NONE},
    {FileBothDirectoryInformation, offsetof(FILE_BOTH_DIR_INFORMATION, FileName), true,
     offsetof(FILE_BOTH_DIR_INFORMATION, ShortNameLength), offsetof(FILE_BOTH_DIR_INFORMATION, ShortName), NONE},
    {FileNamesInformation, offsetof(FILE_NAMES_INFORMATION, FileName), false, NONE, NONE, NONE},
    {FileIdBothDirectoryInformation, offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileName), true,
     offsetof(FILE_ID_BOTH_DIR_INFORMATION, ShortNameLength), offsetof(FILE_ID_BOTH_DIR_INFORMATION, ShortName),
     offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileId)},
    {FileIdFullDirectoryInformation, offsetof(FILE_ID_FULL_DIR_INFORMATION, FileName), true, NONE, NONE,
     offsetof(FILE_ID_FULL_DIR_INFORMATION, FileId)},
};
static_assert(Layouts[0].FixedSize == 64 && Layouts[1].FixedSize == 68 && Layouts[2].FixedSize == 94);
static_assert(Layouts[3].FixedSize == 12 && Layouts[4].FixedSize == 104 && Layouts[5].FixedSize == 80);

const CLASS_LAYOUT *LayoutOf(ULONG InfoClass) {
    for (const CLASS_LAYOUT &Layout : Layouts) {
        if (Layout.InfoClass == InfoClass) {
            return &Layout;
        }
    }
    return nullptr;
}

// ---- The Provider's records -----------------------------------------------------------------------------------------

// What both forms of the record begin with.
struct RECORD_HEAD {
    ULONG NextOffset;
    ULONG Attributes;
    LONG64 CreationTime;
    LONG64 LastWriteTime;
    LONG64 LastAccessTime;
    ULONG64 Size;
    UCHAR Unread[16];
};
constexpr ULONG BASIC_NAME_LENGTH = 56;
constexpr ULONG BASIC_NAME = 60;
constexpr ULONG SHORT_FORM_SHORT_LENGTH = 56;
constexpr ULONG SHORT_FORM_SHORT_NAME = 60;
constexpr ULONG SHORT_FORM_NAME_LENGTH = 84;
constexpr ULONG SHORT_FORM_NAME = 88;
constexpr ULONG SHORT_NAME_UNITS = 12;
constexpr ULONG LONGEST_NAME_BYTES = 0xFFFE;
static_assert(sizeof(RECORD_HEAD) == BASIC_NAME_LENGTH);

ULONG ReadUlong(const UCHAR *At) {
    ULONG Value;
    RtlCopyMemory(&Value, At, sizeof(Value));
    return Value;
}

// A record of ours, for the two made-up entries, in the form that the search asked for. Returns its bytes.
ULONG WriteDotRecord(UCHAR *At, const RECORD_HEAD &Head, bool WithShortName, ULONG NameUnits) {
    static constexpr WCHAR Dots[] = {WTEXT('.'), WTEXT('.')};
    const ULONG NameBytes = NameUnits * sizeof(WCHAR);
    RtlCopyMemory(At, &Head, sizeof(Head));
    if (!WithShortName) {
        RtlCopyMemory(At + BASIC_NAME_LENGTH, &NameUnits, sizeof(ULONG));
        RtlCopyMemory(At + BASIC_NAME, Dots, NameBytes);
        return BASIC_NAME + NameBytes;
    }
    RtlCopyMemory(At + SHORT_FORM_SHORT_LENGTH, &NameUnits, sizeof(ULONG));
    RtlCopyMemory(At + SHORT_FORM_SHORT_NAME, Dots, NameBytes);
    RtlCopyMemory(At + SHORT_FORM_NAME_LENGTH, &NameUnits, sizeof(ULONG));
    RtlCopyMemory(At + SHORT_FORM_NAME, Dots, NameBytes);
    return SHORT_FORM_NAME + NameBytes;
}

// "." and ".." with the directory's own attributes and times, whether or not the Provider tells them.
void FillDotEntries(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock)
    HOLDING_SHARED(Instance->Fcb->Resource) {
    RECORD_HEAD Head = {};
    Ignore(static_cast<NTSTATUS>(RVFsdGetDirectoryInformation(&IrpContext->SecurityContext, Instance->RelatedHandle,
                                                              &Head.Attributes, &Head.CreationTime, &Head.LastWriteTime,
                                                              &Head.LastAccessTime)),
           "the entries are listed all the same");
    Head.Attributes |= RV_ATTR_DIRECTORY;
    const auto Buffer = static_cast<UCHAR *>(Instance->EnumBuffer);
    constexpr ULONG BASIC_STEP = 64;
    constexpr ULONG SHORT_FORM_STEP = 94;
    Head.NextOffset = Instance->UseShortNames ? SHORT_FORM_STEP : BASIC_STEP;
    WriteDotRecord(Buffer, Head, Instance->UseShortNames, 1);
    const ULONG Second = Head.NextOffset;
    Head.NextOffset = 0;
    WriteDotRecord(Buffer + Second, Head, Instance->UseShortNames, 2);
    Instance->InfoCount = 2;
    Instance->DotEntries = 0;
}

// ---- Batches --------------------------------------------------------------------------------------------------------

ULONG OffsetOf(PINSTANCE_CONTEXT Instance, PVOID Entry) HOLDING(Instance->SearchLock) {
    return static_cast<ULONG>(static_cast<UCHAR *>(Entry) - static_cast<UCHAR *>(Instance->EnumBuffer));
}

bool ParseAt(PINSTANCE_CONTEXT Instance, ULONG Offset, DIR_RECORD *Record) HOLDING(Instance->SearchLock) {
    return NtFsdParseDirRecord(static_cast<const UCHAR *>(Instance->EnumBuffer), Instance->EnumBufferSize, Offset,
                               Instance->UseShortNames, Record);
}

// Counts the records of a fresh batch, as far as they are records.
void CountRecords(PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock) {
    ULONG Offset = 0;
    ULONG Count = 0;
    Instance->BatchBroken = FALSE;
    for (;;) {
        DIR_RECORD Record;
        if (!ParseAt(Instance, Offset, &Record) || Record.NameBytes == 0) {
            Instance->BatchBroken = TRUE;
            break;
        }
        ++Count;
        if (Record.NextOffset == 0) {
            break;
        }
        Offset += Record.NextOffset;
    }
    Instance->InfoCount = Count;
}

void EndBatch(PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock) {
    TwFreeMemory(Instance->EnumBuffer);
    Instance->EnumBuffer = nullptr;
    Instance->NextEntry = nullptr;
    Instance->InfoCount = 0;
}

// The end of the listing, until it is restarted.
NTSTATUS EndListing(PINSTANCE_CONTEXT Instance, NTSTATUS Status) HOLDING(Instance->SearchLock) {
    EndBatch(Instance);
    Instance->MoreEntries = 0;
    return Status;
}

bool IsEmptyRecord(PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock) {
    DIR_RECORD Record;
    return ParseAt(Instance, 0, &Record) && Record.NameBytes == 0;
}

NTSTATUS FetchBatch(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock)
    HOLDING_SHARED(Instance->Fcb->Resource) {
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "We need more retrieve more entries for \"%ws\".\n",
                    static_cast<PCWSTR>(Instance->SearchMask));
    PRV_SECURITY Security = &IrpContext->SecurityContext;
    const RVSTATUS Result =
        Instance->UseShortNames
            ? RVFsdEnumerateDirectoryEx(Security, Instance->RelatedHandle, Instance->SearchMask,
                                        Instance->ShortNameOption, &Instance->ResumeKey, Instance->EnumBufferSize,
                                        Instance->EnumBuffer)
            : RVFsdEnumerateDirectory(Security, Instance->RelatedHandle, Instance->SearchMask, 0, &Instance->ResumeKey,
                                      Instance->EnumBufferSize, Instance->EnumBuffer);
    if (RvIsError(Result)) {
        const NTSTATUS Status = NtFsdTranslateResult(Result);
        NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   No more entries from RVIOM; status 0x%08X.\n", Status);
        if (Status == STATUS_CONNECTION_DISCONNECTED) {
            EndBatch(Instance); // not the end: the next call asks again, so that nobody takes the part for the whole
            return Status;
        }
        return EndListing(Instance, STATUS_NO_MORE_FILES);
    }
    if (IsEmptyRecord(Instance)) {
        return EndListing(Instance, STATUS_NO_MORE_FILES);
    }
    CountRecords(Instance);
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   New Info Count : %d\n", Instance->InfoCount);
    return Instance->InfoCount != 0 ? STATUS_SUCCESS : EndListing(Instance, STATUS_UNEXPECTED_NETWORK_ERROR);
}

// Sees to it that there is a current record.
NTSTATUS EnsureRecord(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock)
    HOLDING_SHARED(Instance->Fcb->Resource) {
    if (Instance->InfoCount != 0) {
        return STATUS_SUCCESS;
    }
    if (Instance->BatchBroken) {
        return EndListing(Instance, STATUS_UNEXPECTED_NETWORK_ERROR);
    }
    if (Instance->MoreEntries == 0) {
        return STATUS_NO_MORE_FILES;
    }
    // Zeroed: a Provider that fills nothing has answered an empty record.
    Instance->EnumBuffer = TwAllocMemory(Instance->EnumBufferSize);
    if (Instance->EnumBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Instance->NextEntry = Instance->EnumBuffer;
    if (Instance->DotEntries != 0) {
        FillDotEntries(IrpContext, Instance);
        return STATUS_SUCCESS;
    }
    return FetchBatch(IrpContext, Instance);
}

// ---- Conversion -----------------------------------------------------------------------------------------------------

constexpr ULONG KEPT_ATTRIBUTES = 0x1C37;

// The part that all classes but the names class begin with.
FILE_DIRECTORY_INFORMATION DetailsOf(const DIR_RECORD &Record) {
    FILE_DIRECTORY_INFORMATION Details = {};
    RECORD_HEAD Head;
    RtlCopyMemory(&Head, Record.Head, sizeof(Head));
    Details.CreationTime.QuadPart = Head.CreationTime;
    Details.LastAccessTime.QuadPart = Head.LastAccessTime;
    Details.LastWriteTime.QuadPart = Head.LastWriteTime;
    ULONG Attributes = Head.Attributes & KEPT_ATTRIBUTES;
    if (Head.Attributes & RV_ATTR_DIRECTORY) {
        Details.ChangeTime.QuadPart = Head.CreationTime;
    } else {
        Details.EndOfFile.QuadPart = static_cast<LONG64>(Head.Size);
        Details.AllocationSize.QuadPart = static_cast<LONG64>(Head.Size);
        if (Attributes == 0) {
            Attributes = FILE_ATTRIBUTE_NORMAL;
        }
    }
    Details.FileAttributes = Attributes;
    Details.FileNameLength = Record.NameBytes;
    return Details;
}

void WriteShortName(const CLASS_LAYOUT &Layout, const DIR_RECORD &Record, UCHAR *Out) {
    if (Layout.ShortName == NONE || Record.ShortName == nullptr) {
        return;
    }
    constexpr ULONG LONGEST = SHORT_NAME_UNITS * sizeof(WCHAR);
    const ULONG Bytes = Record.ShortNameBytes < LONGEST ? Record.ShortNameBytes : LONGEST;
    Out[Layout.ShortNameLength] = static_cast<UCHAR>(Bytes);
    RtlCopyMemory(Out + Layout.ShortName, Record.ShortName, Bytes);
}

void WriteEntry(const CLASS_LAYOUT &Layout, const DIR_RECORD &Record, UCHAR *Out) {
    if (Layout.HasDetails) {
        const FILE_DIRECTORY_INFORMATION Details = DetailsOf(Record);
        RtlCopyMemory(Out, &Details, offsetof(FILE_DIRECTORY_INFORMATION, FileName));
        WriteShortName(Layout, Record, Out);
    } else {
        RtlCopyMemory(Out + offsetof(FILE_NAMES_INFORMATION, FileNameLength), &Record.NameBytes, sizeof(ULONG));
    }
    if (Layout.FileId != NONE) {
        const LONG64 FileId = __atomic_fetch_add(&g_FileIdCounter, 1, __ATOMIC_RELAXED);
        RtlCopyMemory(Out + Layout.FileId, &FileId, sizeof(FileId));
    }
    RtlCopyMemory(Out + Layout.FixedSize, Record.Name, Record.NameBytes);
}

} // namespace

ULONG NtFsdDirEntryFixedSize(ULONG InfoClass) {
    const CLASS_LAYOUT *Layout = LayoutOf(InfoClass);
    return Layout != nullptr ? Layout->FixedSize : 0;
}

bool NtFsdParseDirRecord(const UCHAR *Batch, ULONG Bytes, ULONG Offset, bool WithShortName, DIR_RECORD *Record) {
    const ULONG NameOffset = WithShortName ? SHORT_FORM_NAME : BASIC_NAME;
    if (Offset > Bytes || Bytes - Offset < NameOffset) {
        return false;
    }
    const UCHAR *At = Batch + Offset;
    const ULONG Room = Bytes - Offset;
    const ULONG NextOffset = ReadUlong(At);
    const ULONG NameUnits = ReadUlong(At + (WithShortName ? SHORT_FORM_NAME_LENGTH : BASIC_NAME_LENGTH));
    if (NameUnits > LONGEST_NAME_BYTES / sizeof(WCHAR) || NameUnits * sizeof(WCHAR) > Room - NameOffset) {
        return false;
    }
    const ULONG NameBytes = NameUnits * static_cast<ULONG>(sizeof(WCHAR));
    // The next record begins behind this one, at a character's boundary, inside the batch.
    if (NextOffset != 0 &&
        (NextOffset < NameOffset + NameBytes || NextOffset >= Room || NextOffset % sizeof(WCHAR) != 0)) {
        return false;
    }
    ULONG ShortUnits = 0;
    if (WithShortName) {
        ShortUnits = ReadUlong(At + SHORT_FORM_SHORT_LENGTH);
        ShortUnits = ShortUnits < SHORT_NAME_UNITS ? ShortUnits : SHORT_NAME_UNITS;
    }
    *Record = {.NextOffset = NextOffset,
               .Head = At,
               .Name = At + NameOffset,
               .NameBytes = NameBytes,
               .ShortName = WithShortName ? At + SHORT_FORM_SHORT_NAME : nullptr,
               .ShortNameBytes = ShortUnits * static_cast<ULONG>(sizeof(WCHAR))};
    return true;
}

NTSTATUS NtFsdTarnwellDirToNtDir(ULONG InfoClass, const DIR_RECORD *Record, UCHAR *Out, ULONG Available,
                                 PULONG EntrySize) {
    *EntrySize = 0;
    if (Record == nullptr) {
        NtFsdDebugPrint(TRACE_DIRECTORY, 0,
                        "NtFsdTarnwellDirToNtDir called without enum buffers; STATUS_INVALID_PARAMETER.\n");
        return STATUS_INVALID_PARAMETER;
    }
    const CLASS_LAYOUT *Layout = LayoutOf(InfoClass);
    if (Layout == nullptr) {
        NtFsdDebugPrint(TRACE_DIRECTORY, 0,
                        "NtFsdTarnwellDirToNtDir called with unknown info class 0x%X; STATUS_INVALID_PARAMETER.\n",
                        InfoClass);
        return STATUS_INVALID_INFO_CLASS;
    }
    const ULONG Needed = Layout->FixedSize + Record->NameBytes;
    if (Needed > Available) {
        const auto Bytes = static_cast<USHORT>(Record->NameBytes);
        const UNICODE_STRING Name = {Bytes, Bytes, reinterpret_cast<PWSTR>(const_cast<UCHAR *>(Record->Name))};
        NtFsdDebugPrint(TRACE_DIRECTORY, 0,
                        "NtFsdTarnwellDirToNtDir needed %u bytes to return \"%wZ\" as info class 0x%X; only %u bytes "
                        "available, STATUS_BUFFER_OVERFLOW.\n",
                        Needed, &Name, InfoClass, Available);
        return STATUS_BUFFER_OVERFLOW;
    }
    RtlZeroMemory(Out, Layout->FixedSize); // the name fills the rest
    WriteEntry(*Layout, *Record, Out);
    *EntrySize = Needed;
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdGetNextDirEntry(PIRP_CONTEXT IrpContext, PFCB, PINSTANCE_CONTEXT Instance, ULONG InfoClass, UCHAR *Out,
                              ULONG Available, PULONG EntrySize) {
    *EntrySize = 0;
    NTSTATUS Status = EnsureRecord(IrpContext, Instance);
    if (!NT_SUCCESS(Status) || Status == STATUS_NO_MORE_FILES) {
        return Status;
    }
    DIR_RECORD Record;
    const ULONG Offset = OffsetOf(Instance, Instance->NextEntry);
    if (!ParseAt(Instance, Offset, &Record)) {
        return EndListing(Instance, STATUS_UNEXPECTED_NETWORK_ERROR);
    }
    Status = NtFsdTarnwellDirToNtDir(InfoClass, &Record, Out, Available, EntrySize);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    if (--Instance->InfoCount != 0) {
        Instance->NextEntry = static_cast<UCHAR *>(Instance->EnumBuffer) + Offset + Record.NextOffset;
    } else {
        EndBatch(Instance);
    }
    return Status;
}
