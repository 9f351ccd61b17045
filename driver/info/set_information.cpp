#include "info/set_information.h"

#include "frame/async_queue.h"
#include "frame/diagnostics.h"

namespace {

template <typename T>
T InputAt(const SET_INFORMATION &Change, ULONG Offset) {
    T Value;
    RtlCopyMemory(&Value, Change.Buffer + Offset, sizeof(Value));
    return Value;
}

constexpr ULONG ALL_POSITION = 80;

NTSTATUS SetPosition(SET_INFORMATION &Change) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileSetPositionInfo()...\n");
    Change.FileObject->CurrentByteOffset.QuadPart = InputAt<LONG64>(Change, 0);
    return STATUS_SUCCESS;
}

NTSTATUS SetAll(SET_INFORMATION &Change) {
    Ignore(NtFsdFileSetBasicInfo(Change), "the position counts alone");
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileSetPositionInfo()...\n");
    Change.FileObject->CurrentByteOffset.QuadPart = InputAt<LONG64>(Change, ALL_POSITION);
    return STATUS_SUCCESS;
}

NTSTATUS RefuseLink(SET_INFORMATION &) {
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS SetAllocation(SET_INFORMATION &Change) {
    const LONG64 Size = InputAt<LONG64>(Change, 0);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileSetAllocationInfo() called for AllocationSize 0x%I64X.\n", Size);
    return NtFsdCommonFileSetFileSize(Change, Size);
}

NTSTATUS SetEndOfFile(SET_INFORMATION &Change) {
    const LONG64 Size = InputAt<LONG64>(Change, 0);
    const BOOLEAN AdvanceOnly = IoGetCurrentIrpStackLocation(Change.IrpContext->Irp)->Parameters.SetFile.AdvanceOnly;
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileSetEndOfFileInfo() called for EndOfFile 0x%I64X, AdvanceOnly %s.\n",
                    Size, TrueOrFalse(AdvanceOnly));
    return NtFsdCommonFileSetFileSize(Change, Size);
}

struct CLASS_CHANGE {
    ULONG InfoClass;
    ULONG InputBytes; // a shorter buffer is refused
    NTSTATUS (*Apply)(SET_INFORMATION &Change);
};

constexpr CLASS_CHANGE Changes[] = {
    {FileBasicInformation, 40, NtFsdFileSetBasicInfo},
    {FileRenameInformation, 1, NtFsdFileSetRenameInfo},
    {FileLinkInformation, 0, RefuseLink},
    {FileDispositionInformation, 1, NtFsdFileSetDispositionInfo},
    {FilePositionInformation, 8, SetPosition},
    {FileAllInformation, 88, SetAll},
    {FileAllocationInformation, 8, SetAllocation},
    {FileEndOfFileInformation, 8, SetEndOfFile},
};

const CLASS_CHANGE *FindChange(ULONG InfoClass) {
    for (const CLASS_CHANGE &Row : Changes) {
        if (Row.InfoClass == InfoClass) {
            return &Row;
        }
    }
    return nullptr;
}

NTSTATUS Apply(SET_INFORMATION &Change, ULONG InfoClass, ULONG Length) {
    const CLASS_CHANGE *Row = FindChange(InfoClass);
    if (Row == nullptr) {
        NtFsdDebugPrint(TRACE_ENTRY, 0, "SetFileInformation Error: Invalid Level 0x%X\n", InfoClass);
        return STATUS_INVALID_PARAMETER;
    }
    if (Length < Row->InputBytes || (Change.Buffer == nullptr && Row->InputBytes != 0)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    return Row->Apply(Change);
}

} // namespace

NTSTATUS NtFsdCommonSetInformation(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    const PFILE_OBJECT FileObject = IrpContext->FileObject;
    SET_INFORMATION Change = {.IrpContext = IrpContext,
                              .FileObject = FileObject,
                              .Fcb = static_cast<PFCB>(FileObject->FsContext),
                              .Instance = static_cast<PINSTANCE_CONTEXT>(FileObject->FsContext2),
                              .Buffer = static_cast<const UCHAR *>(Irp->AssociatedIrp.SystemBuffer),
                              .Hold = {}};
    IrpContext->Information = 0;
    if (NtFsdReadOpenType(Change.Fcb) == OPEN_TYPE_DEVICE) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "Error: Attempted to set info on a device.\n");
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_INVALID_PARAMETER);
    }
    if (NtFsdLacksFileHandle(Change.Fcb, Change.Instance)) {
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_INVALID_HANDLE);
    }
    if (!Change.Hold.AcquireExclusive(&Change.Fcb->Resource, IrpContext->MayWait())) {
        return NtFsdPostRequest(IrpContext);
    }
    const NTSTATUS Status = Apply(Change, static_cast<ULONG>(IrpSp->Parameters.SetFile.FileInformationClass),
                                  IrpSp->Parameters.SetFile.Length);
    Change.Hold.Release();
    return NtFsdCompleteRequest(IrpContext, Irp, Status);
}
