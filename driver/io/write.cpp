#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "io/io.h"
#include "io/transfer.h"
#include "provider/binding.h"
#include "provider/provider_calls.h"

namespace {

// FILE_WRITE_TO_END_OF_FILE with a high part of -1.
constexpr LONG64 END_OF_FILE_MARKER = -1;

// How long a refused extension of the file refuses writes beyond what was free: 5 seconds.
constexpr LONG64 DISK_FULL_PERIOD = 50000000;

struct WRITE {
    PIRP_CONTEXT IrpContext;
    PIRP Irp;
    PFILE_OBJECT FileObject;
    PFCB Fcb;
    PINSTANCE_CONTEXT Instance;
    LONG64 Offset; // once the Resource is held: where the write goes
    ULONG Length;
    ULONG64 Count;

    bool IsPaging() const {
        return (Irp->Flags & IRP_PAGING_IO) != 0;
    }
};

void TraceWrite(const WRITE &Write) {
    NtFsdDebugPrint(TRACE_WRITE, 0, "   File Object       : 0x%X\n", LowPart(Write.FileObject));
    NtFsdDebugPrint(TRACE_WRITE, 0, "   Write offset      : %d\n", static_cast<LONG>(Write.Offset));
    NtFsdDebugPrint(TRACE_WRITE, 0, "   Bytes to write    : %d\n", Write.Length);
    NtFsdDebugPrint(TRACE_WRITE, 0, "   Paging IO         : %s\n", TrueOrFalse(Write.IsPaging()));
    NtFsdDebugPrint(TRACE_WRITE, 0, "   Synchronous IO    : %s\n",
                    TrueOrFalse((NtFsdFileFlags(Write.FileObject) & FO_SYNCHRONOUS_IO) != 0));
    NtFsdDebugPrint(TRACE_WRITE, 0, "   File Handle       : 0x%x\n", LowPart(Write.Instance->FileHandle));
}

// Turns the end-of-file marker into the offset where the file ends now. Under the exclusive hold, so that of two
// appends the second begins where the first ended.
NTSTATUS ResolveOffset(WRITE &Write) {
    if (Write.Offset != END_OF_FILE_MARKER) {
        return STATUS_SUCCESS;
    }
    ULONG64 EndOfFile = 0;
    const NTSTATUS Status =
        TransferStatus(RVFsdGetFileSize(&Write.IrpContext->SecurityContext, Write.Instance->FileHandle, &EndOfFile));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Write.Offset = static_cast<LONG64>(EndOfFile);
    return IsTransferRange(Write.Offset, Write.Length) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// STATUS_DISK_FULL while a refused size of this open is fresh and the write would end beyond what was free then.
NTSTATUS TestDiskFullLatch(const WRITE &Write) HOLDING(Write.Instance->Fcb->Resource) {
    if (!Write.Instance->DiskFullLatched) {
        return STATUS_SUCCESS;
    }
    // A clock that was set back must not keep it for as long.
    const LONG64 Now = NtFsdSystemTime();
    if (Now < Write.Instance->DiskFullTime || Now - Write.Instance->DiskFullTime >= DISK_FULL_PERIOD) {
        Write.Instance->DiskFullTime = 0;
        Write.Instance->DiskFullAvailable = 0;
        Write.Instance->DiskFullLatched = FALSE;
        return STATUS_SUCCESS;
    }
    if (static_cast<ULONG64>(Write.Offset) + Write.Length <= Write.Instance->DiskFullAvailable) {
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(TRACE_WRITE, 0, "  STATUS_DISK_FULL status for File Handle: 0x%x\n",
                    LowPart(Write.Instance->FileHandle));
    return STATUS_DISK_FULL;
}

NTSTATUS WriteToProvider(WRITE &Write, PVOID Buffer) {
    LONG64 Offset = Write.Offset;
    ULONG64 Bytes = 0;
    const RVSTATUS Raw = RVFsdWriteFile(&Write.IrpContext->SecurityContext, Write.Instance->FileHandle, &Offset,
                                        Write.Length, Buffer, &Bytes);
    NtFsdDebugPrint(TRACE_WRITE, 0, "   Bytes to Write = %I64d\n", static_cast<LONG64>(Write.Length));
    NtFsdDebugPrint(TRACE_WRITE, 0, "   Bytes Written  = %d\n", static_cast<ULONG>(Bytes));
    NtFsdDebugPrint(TRACE_WRITE, 0, "   RVFsdWriteFile returned       : 0x%x\n", static_cast<ULONG>(Raw));
    const NTSTATUS Status = TransferStatus(Raw);
    if (NT_SUCCESS(Status)) {
        Write.Count = Bytes;
    }
    return Status;
}

// Writes from the caller's buffer, which is locked for as long as that takes.
NTSTATUS WriteFromUserBuffer(WRITE &Write) {
    UserBufferLock Lock(Write.IrpContext);
    if (Write.Irp->MdlAddress == nullptr) {
        const NTSTATUS Status = NtFsdLockUserBuffer(Write.IrpContext, IoReadAccess, Write.Length);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
    }
    // Without a buffer the Provider would take the call for a change of the file's size.
    const PVOID Buffer = NtFsdMapUserBuffer(Write.IrpContext);
    if (Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return WriteToProvider(Write, Buffer);
}

// What a successful write leaves in the file object.
void MarkWritten(const WRITE &Write) {
    if (MovesByteOffset(Write.FileObject, Write.Irp)) {
        Write.FileObject->CurrentByteOffset.QuadPart = Write.Offset + static_cast<LONG64>(Write.Count);
    }
    if (Write.Count != 0 && !Write.IsPaging()) {
        NtFsdSetFileFlags(Write.FileObject, FO_FILE_MODIFIED);
    }
}

// The whole transfer, with the FCB's Resource held exclusive.
NTSTATUS WriteHeld(WRITE &Write) HOLDING(Write.Instance->Fcb->Resource) {
    NTSTATUS Status = ResolveOffset(Write);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Status = TestDiskFullLatch(Write);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Status = WriteFromUserBuffer(Write);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    // A length of 0 would set the size to the offset.
    if (Write.Count != 0) {
        Ignore(RvFsdUpdateFCBFileSize(Write.Fcb, TRUE, Write.Offset, Write.Count), "it cannot fail");
    }
    MarkWritten(Write);
    return Status;
}

NTSTATUS CompleteEmptyWrite(const WRITE &Write) {
    // Where the file ends was not asked, so the marker leaves the byte offset alone; so does what is no offset.
    if (Write.Offset >= 0) {
        MarkWritten(Write);
    }
    return NtFsdCompleteRequest(Write.IrpContext, Write.Irp, STATUS_SUCCESS);
}

bool IsValid(const WRITE &Write) {
    if (Write.Offset != END_OF_FILE_MARKER && !IsTransferRange(Write.Offset, Write.Length)) {
        return false;
    }
    // The Provider is told Length: a shorter MDL would let it read past the pages.
    return Write.Irp->MdlAddress == nullptr || MmGetMdlByteCount(Write.Irp->MdlAddress) >= Write.Length;
}

} // namespace

NTSTATUS NtFsdCommonWrite(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    WRITE Write = {.IrpContext = IrpContext,
                   .Irp = Irp,
                   .FileObject = IrpContext->FileObject,
                   .Fcb = static_cast<PFCB>(IrpContext->FileObject->FsContext),
                   .Instance = static_cast<PINSTANCE_CONTEXT>(IrpContext->FileObject->FsContext2),
                   .Offset = IrpSp->Parameters.Write.ByteOffset.QuadPart,
                   .Length = IrpSp->Parameters.Write.Length,
                   .Count = 0};
    IrpContext->Information = 0;
    TraceWrite(Write);
    if (Write.Length == 0) {
        return CompleteEmptyWrite(Write);
    }
    if (!IsValid(Write)) {
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_INVALID_PARAMETER);
    }
    ResourceHold Hold;
    if (!Hold.AcquireExclusive(&Write.Fcb->Resource, IrpContext->MayWait())) {
        return NtFsdPostRequest(IrpContext);
    }
    Hold.Holds(&Write.Instance->Fcb->Resource);
    const NTSTATUS Status = WriteHeld(Write);
    Hold.Release();
    IrpContext->Information = Write.Count;
    return NtFsdCompleteRequest(IrpContext, Irp, Status);
}
