#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "info/answer.h"
#include "info/open_volume.h"
#include "info/query.h"
#include "io/io.h"
#include "provider/provider_calls.h"

namespace {

// What the Provider says of one open; zeros where it says nothing.
struct FACTS {
    ULONG Attributes;
    LONG64 CreationTime;
    LONG64 LastWriteTime;
    LONG64 LastAccessTime;
    ULONG64 EndOfFile;
    ULONG VolumeFlags;
};

struct QUERY {
    PIRP_CONTEXT IrpContext;
    PFCB Fcb;
    PINSTANCE_CONTEXT Instance;
    FACTS Facts;

    PRV_SECURITY Security() const {
        return &IrpContext->SecurityContext;
    }
    bool IsFile() const {
        return NtFsdReadOpenType(Fcb) == OPEN_TYPE_FILE;
    }
    bool IsDirectory() const {
        return NtFsdReadOpenType(Fcb) == OPEN_TYPE_DIRECTORY;
    }
};

// ---- Gathering

// A failed call may have written some of its outputs: none of them counts.
void GatherFile(QUERY &Query) {
    FACTS &Facts = Query.Facts;
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "File Handle : 0x%x\n", LowPart(Query.Instance->FileHandle));
    const RVSTATUS Status =
        RVFsdGetFileTimes(Query.Security(), Query.Instance->FileHandle, &Facts.Attributes, &Facts.CreationTime,
                          &Facts.LastWriteTime, &Facts.LastAccessTime, &Facts.EndOfFile);
    if (RvIsError(Status)) {
        Facts = {};
        return;
    }
    Ignore(RvFsdUpdateFCBFileSize(Query.Fcb, FALSE, static_cast<LONG64>(Facts.EndOfFile), 0), "it cannot fail");
}

void GatherDirectory(QUERY &Query) HOLDING_SHARED(Query.Instance->Fcb->Resource) {
    FACTS &Facts = Query.Facts;
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "Dir Handle : 0x%x\n", LowPart(Query.Instance->RelatedHandle));
    if (RvIsError(RVFsdGetDirectoryInformation(Query.Security(), Query.Instance->RelatedHandle, &Facts.Attributes,
                                               &Facts.CreationTime, &Facts.LastWriteTime, &Facts.LastAccessTime))) {
        Facts = {};
    }
}

// ---- Fills

constexpr ULONG BASIC_TAIL = 4;
constexpr ULONG STANDARD_TAIL = 2;
static_assert(sizeof(FILE_BASIC_INFORMATION) == 36 + BASIC_TAIL);
static_assert(sizeof(FILE_STANDARD_INFORMATION) == 22 + STANDARD_TAIL);
constexpr ULONG64 NO_FILE_ID = 0x00000ABA00000020;

// The attribute word as the basic class shows it.
ULONG ShownAttributes(const QUERY &Query) {
    const ULONG Attributes = Query.Facts.Attributes;
    if (Query.IsDirectory()) {
        return Attributes != 0 ? Attributes : FILE_ATTRIBUTE_DIRECTORY;
    }
    const ULONG Others = Attributes & ~static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL);
    return Others != 0 ? Others : FILE_ATTRIBUTE_NORMAL;
}

ULONG High(LONG64 Time) {
    return static_cast<ULONG>(static_cast<ULONG64>(Time) >> 32);
}

ULONG Low(LONG64 Time) {
    return LowPart(static_cast<ULONG64>(Time));
}

// The fields that fit, each told as it is written; FALSE when one does not.
bool PutBasic(const QUERY &Query, AnswerBuffer &Answer) {
    const FACTS &Facts = Query.Facts;
    if (!Answer.Put(Facts.CreationTime)) {
        return false;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " BasicInfo->CreationDate = %x%x\n", High(Facts.CreationTime),
                    Low(Facts.CreationTime));
    if (!Answer.Put(Facts.LastAccessTime)) {
        return false;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " BasicInfo->LastAccessTime = %x%x\n", High(Facts.LastAccessTime),
                    Low(Facts.LastAccessTime));
    if (!Answer.Put(Facts.LastWriteTime)) {
        return false;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " BasicInfo->LastWriteTime = %x%x\n", High(Facts.LastWriteTime),
                    Low(Facts.LastWriteTime));
    constexpr LONG64 ChangeTime = 0;
    if (!Answer.Put(ChangeTime)) {
        return false;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " BasicInfo->ChangeTime = %x%x\n", High(ChangeTime), Low(ChangeTime));
    const ULONG Attributes = ShownAttributes(Query);
    if (!Answer.Put(Attributes)) {
        return false;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " BasicInfo->FileAttributes = 0x%x\n", Attributes);
    Answer.PutTail(BASIC_TAIL);
    return true;
}

// An answer that does not fit is cut: a file's with success, a directory's with STATUS_BUFFER_OVERFLOW.
NTSTATUS NtFsdFileBasicInfo(const QUERY &Query, AnswerBuffer &Answer) {
    return PutBasic(Query, Answer) || !Query.IsDirectory() ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS NtFsdFileStandardInfo(const QUERY &Query, AnswerBuffer &Answer) {
    const ULONG64 Size = Query.IsFile() ? Query.Facts.EndOfFile : 0;
    constexpr ULONG Links = 1;
    constexpr BOOLEAN DeletePending = FALSE;
    const BOOLEAN Directory = Query.IsDirectory();
    if (Answer.Put(Size) && Answer.Put(Size) && Answer.Put(Links) && Answer.Put(DeletePending) &&
        Answer.Put(Directory)) {
        Answer.PutTail(STANDARD_TAIL);
        return STATUS_SUCCESS;
    }
    return STATUS_BUFFER_OVERFLOW;
}

NTSTATUS NtFsdFileInternalInfo(const QUERY &Query, AnswerBuffer &Answer) {
    if (!Answer.Fits(sizeof(ULONG64))) {
        return STATUS_BUFFER_OVERFLOW;
    }
    if (!(Query.Facts.VolumeFlags & RV_VOLUME_IDENTIFIER_VALID)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, " InternalInfo->IndexNumber = 0xABA00000020\n");
        Answer.Put(NO_FILE_ID);
        return STATUS_SUCCESS;
    }
    ULONG64 FileId = 0;
    const NTSTATUS Status = NtFsdTranslateResult(RVFsdGetFileId(
        Query.Security(), Query.IsFile() ? Query.Instance->FileHandle : Query.Instance->RelatedHandle, &FileId));
    if (!NT_SUCCESS(Status)) {
        FileId = 0;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " InternalInfo->IndexNumber = 0x%x%x\n", static_cast<ULONG>(FileId >> 32),
                    LowPart(FileId));
    Answer.Put(FileId);
    return Status;
}

// The full path, with the trailing backslash that the open's name had.
NTSTATUS FillName(const QUERY &Query, AnswerBuffer &Answer) {
    const UNICODE_STRING &Path = *NtFsdStablePath(Query.Fcb);
    const bool Slash = Query.Instance->TrailingSlash != 0;
    const ULONG NameBytes = Path.Length + (Slash ? sizeof(WCHAR) : 0);
    if (!Answer.Put(NameBytes) || Answer.Remaining() <= 0) {
        return STATUS_BUFFER_OVERFLOW;
    }
    if (!Answer.PutPart(Path.Buffer, Path.Length) || (Slash && !Answer.PutPart(&SEPARATOR, sizeof(WCHAR)))) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "   Copied partial name\n");
        return STATUS_BUFFER_OVERFLOW;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdFileNameInfo(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileNameInfo()...\n");
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "   NameInfo->FileName = \"%wZ\".\n", &Query.Fcb->FullPath);
    return FillName(Query, Answer);
}

// There is no other name to give.
NTSTATUS NtFsdFileAltNameInfo(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileAltNameInfo()...\n");
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "   AltNameInfo->FileName = \"%wZ\".\n", &Query.Fcb->FullPath);
    return FillName(Query, Answer);
}

NTSTATUS NtFsdFileEaInfo(const QUERY &, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileEaInfo()...\n");
    if (!Answer.Put(ULONG{0})) {
        return STATUS_BUFFER_OVERFLOW;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " EaInfo zerod out\n");
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdFilePositionInfo(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFilePositionInfo()...\n");
    return Answer.Put(Query.IrpContext->FileObject->CurrentByteOffset.QuadPart) ? STATUS_SUCCESS
                                                                                : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS NtFsdNetworkOpenInfo(const QUERY &Query, AnswerBuffer &Answer) {
    constexpr ULONG SIZE = 56;
    if (!Answer.Fits(SIZE)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    FILE_BASIC_INFORMATION Basic = {};
    FILE_STANDARD_INFORMATION Standard = {};
    AnswerBuffer BasicScratch(&Basic, sizeof(Basic));
    AnswerBuffer StandardScratch(&Standard, sizeof(Standard));
    NTSTATUS Status = NtFsdFileBasicInfo(Query, BasicScratch);
    if (NT_SUCCESS(Status)) {
        Status = NtFsdFileStandardInfo(Query, StandardScratch);
    }
    if (!NT_SUCCESS(Status)) {
        Answer.PutTail(SIZE);
        return Status;
    }
    // The four times lie alike.
    Answer.PutBytes(&Basic, offsetof(FILE_BASIC_INFORMATION, FileAttributes));
    Answer.Put(Standard.AllocationSize.QuadPart);
    Answer.Put(Standard.EndOfFile.QuadPart);
    Answer.Put(Basic.FileAttributes);
    Answer.PutTail(sizeof(ULONG)); // reserved
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdAttributeTagInfo(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "Entered NtFsdAttributeTagInfo.\n");
    const struct {
        ULONG FileAttributes;
        ULONG ReparseTag;
    } Tag = {Query.Facts.Attributes, 0};
    return Answer.Put(Tag) ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS NtFsdFileAllInfo(const QUERY &Query, AnswerBuffer &Answer) {
    constexpr ULONG ACCESS_FLAGS = FILE_GENERIC_READ;
    constexpr ULONG MODE = FILE_SYNCHRONOUS_IO_NONALERT;
    constexpr ULONG ALIGNMENT = 0;
    constexpr ULONG EA_SIZE = 0;
    NTSTATUS Status = NtFsdFileBasicInfo(Query, Answer);
    if (NT_SUCCESS(Status)) {
        Status = NtFsdFileStandardInfo(Query, Answer);
    }
    if (NT_SUCCESS(Status)) {
        Status = NtFsdFileInternalInfo(Query, Answer);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    if (!Answer.Put(EA_SIZE) || !Answer.Put(ACCESS_FLAGS) ||
        !Answer.Put(Query.IrpContext->FileObject->CurrentByteOffset.QuadPart) || !Answer.Put(MODE) ||
        !Answer.Put(ALIGNMENT)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    return NtFsdFileNameInfo(Query, Answer);
}

// ---- The classes

struct CLASS_FILL {
    ULONG InfoClass;
    NTSTATUS (*Fill)(const QUERY &Query, AnswerBuffer &Answer);
};

constexpr CLASS_FILL Fills[] = {
    {FileBasicInformation, NtFsdFileBasicInfo},
    {FileStandardInformation, NtFsdFileStandardInfo},
    {FileInternalInformation, NtFsdFileInternalInfo},
    {FileEaInformation, NtFsdFileEaInfo},
    {FileNameInformation, NtFsdFileNameInfo},
    {FilePositionInformation, NtFsdFilePositionInfo},
    {FileAllInformation, NtFsdFileAllInfo},
    {FileAlternateNameInformation, NtFsdFileAltNameInfo},
    {FileNetworkOpenInformation, NtFsdNetworkOpenInfo},
    {FileAttributeTagInformation, NtFsdAttributeTagInfo},
};

NTSTATUS FillClass(const QUERY &Query, ULONG InfoClass, AnswerBuffer &Answer) {
    for (const CLASS_FILL &Row : Fills) {
        if (Row.InfoClass == InfoClass) {
            return Row.Fill(Query, Answer);
        }
    }
    if (InfoClass != FileStreamInformation) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "   Error - Unsupported query info call was made : %d\n", InfoClass);
    }
    return STATUS_INVALID_PARAMETER;
}

// The query with the FCB's Resource held.
NTSTATUS AnswerHeld(QUERY &Query, ULONG InfoClass, AnswerBuffer &Answer) HOLDING_SHARED(Query.Instance->Fcb->Resource) {
    if (Query.IsFile()) {
        GatherFile(Query);
    } else {
        GatherDirectory(Query);
    }
    OPEN_VOLUME Volume;
    Ignore(NtFsdVolumeOfOpen(Query.Security(), Query.Fcb, Query.Instance, &Volume), "an unknown volume has no flags");
    Query.Facts.VolumeFlags = Volume.Flags;
    const NTSTATUS Status = FillClass(Query, InfoClass, Answer);
    return Answer.Remaining() < 0 ? STATUS_BUFFER_OVERFLOW : Status;
}

NTSTATUS Refuse(PIRP_CONTEXT IrpContext, NTSTATUS Status) {
    IrpContext->Information = 0;
    return NtFsdCompleteRequest(IrpContext, IrpContext->Irp, Status);
}

} // namespace

NTSTATUS NtFsdCommonQueryInformation(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    const ULONG Length = IrpSp->Parameters.QueryFile.Length;
    const ULONG InfoClass = static_cast<ULONG>(IrpSp->Parameters.QueryFile.FileInformationClass);
    QUERY Query = {.IrpContext = IrpContext,
                   .Fcb = static_cast<PFCB>(IrpContext->FileObject->FsContext),
                   .Instance = static_cast<PINSTANCE_CONTEXT>(IrpContext->FileObject->FsContext2),
                   .Facts = {}};
    if (NtFsdReadOpenType(Query.Fcb) == OPEN_TYPE_DEVICE) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "File stream is a device. Returning invalid parameter\n");
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "Info Level 0x%X\n", InfoClass);
        return Refuse(IrpContext, STATUS_INVALID_PARAMETER);
    }
    const PVOID Buffer = Irp->AssociatedIrp.SystemBuffer;
    if (Buffer == nullptr && Length != 0) {
        return Refuse(IrpContext, STATUS_INVALID_PARAMETER);
    }
    if (NtFsdLacksFileHandle(Query.Fcb, Query.Instance)) {
        return Refuse(IrpContext, STATUS_INVALID_HANDLE);
    }
    ResourceHold Hold;
    const NTSTATUS Acquired = NtFsdAcquireForHandle(IrpContext, Query.Fcb, Query.Instance, false, Hold);
    if (Acquired == STATUS_CANT_WAIT) {
        return NtFsdPostRequest(IrpContext);
    }
    if (!NT_SUCCESS(Acquired)) {
        Hold.Release();
        return Refuse(IrpContext, Acquired);
    }
    Hold.HoldsShared(&Query.Instance->Fcb->Resource);
    AnswerBuffer Answer(Buffer, Length);
    const NTSTATUS Status = AnswerHeld(Query, InfoClass, Answer);
    Hold.Release();
    IrpContext->Information = Answer.Used();
    return NtFsdCompleteRequest(IrpContext, Irp, Status);
}
