#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "io/io.h"
#include "io/transfer.h"
#include "provider/provider_calls.h"

namespace {

struct READ {
    PIRP_CONTEXT IrpContext;
    PIRP Irp;
    PFILE_OBJECT FileObject;
    RVHANDLE File;
    LONG64 Offset;
    ULONG Length;
};

// Asks the Provider for the bytes; *Count is what it read, 0 on failure.
NTSTATUS ReadFromProvider(const READ &Read, ULONG Transfer, PVOID Buffer, ULONG64 *Count) {
    LONG64 Offset = Read.Offset;
    // Nothing is asked for that no offset can name.
    const auto Nameable = static_cast<ULONG64>(LARGEST_OFFSET - Offset);
    if (Nameable == 0) {
        return STATUS_SUCCESS;
    }
    if (Transfer > Nameable) {
        Transfer = static_cast<ULONG>(Nameable);
    }
    ULONG64 Bytes = Read.Length < Nameable ? Read.Length : Nameable;
    const RVSTATUS Raw = RVFsdReadFile(&Read.IrpContext->SecurityContext, Read.File, &Offset, Transfer, Buffer, &Bytes);
    NtFsdDebugPrint(TRACE_READ, 0, "   RVFsdReadFile returned       : 0x%x\n", static_cast<ULONG>(Raw));
    const NTSTATUS Status = TransferStatus(Raw);
    if (NT_SUCCESS(Status)) {
        *Count = Bytes < Nameable ? Bytes : Nameable;
        NtFsdDebugPrint(TRACE_READ_DETAIL, 0, "Read offset       : %d\n", static_cast<LONG>(Read.Offset));
        NtFsdDebugPrint(TRACE_READ_DETAIL, 0, "Bytes to read     : %d\n", Read.Length);
        NtFsdDebugPrint(TRACE_READ_DETAIL, 0, "File Handle       : 0x%x\n", LowPart(Read.File));
    }
    return Status;
}

// Reads into the caller's buffer, which is locked for as long as that takes.
NTSTATUS ReadIntoUserBuffer(const READ &Read, ULONG64 *Count) {
    UserBufferLock Lock(Read.IrpContext);
    ULONG Transfer = Read.Length;
    if (Read.Irp->MdlAddress != nullptr) {
        Transfer = MmGetMdlByteCount(Read.Irp->MdlAddress);
        NtFsdDebugPrint(TRACE_READ, 0, " Using MDL Size for Read 0x%I64X\n", static_cast<ULONG64>(Transfer));
    } else {
        const NTSTATUS Status = NtFsdLockUserBuffer(Read.IrpContext, IoWriteAccess, Read.Length);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
    }
    const PVOID Buffer = NtFsdMapUserBuffer(Read.IrpContext);
    if (Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return ReadFromProvider(Read, Transfer, Buffer, Count);
}

// The whole transfer, with the FCB's Resource held shared.
NTSTATUS ReadHeld(const READ &Read, ULONG64 *Count) {
    const NTSTATUS Status = ReadIntoUserBuffer(Read, Count);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    if (MovesByteOffset(Read.FileObject, Read.Irp)) {
        Read.FileObject->CurrentByteOffset.QuadPart = Read.Offset + static_cast<LONG64>(*Count);
    }
    // Where the file ends only the server knows: a successful read of nothing is beyond it.
    return *Count == 0 ? STATUS_END_OF_FILE : Status;
}

} // namespace

NTSTATUS NtFsdCommonRead(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    const READ Read = {.IrpContext = IrpContext,
                       .Irp = Irp,
                       .FileObject = IrpContext->FileObject,
                       .File = static_cast<PINSTANCE_CONTEXT>(IrpContext->FileObject->FsContext2)->FileHandle,
                       .Offset = IrpSp->Parameters.Read.ByteOffset.QuadPart,
                       .Length = IrpSp->Parameters.Read.Length};
    IrpContext->Information = 0;
    if (Read.Length == 0) {
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_SUCCESS);
    }
    if (Read.Offset < 0) {
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_INVALID_PARAMETER);
    }
    ResourceHold Hold;
    if (!Hold.AcquireShared(&static_cast<PFCB>(Read.FileObject->FsContext)->Resource, IrpContext->MayWait())) {
        return NtFsdPostRequest(IrpContext);
    }
    ULONG64 Count = 0;
    const NTSTATUS Status = ReadHeld(Read, &Count);
    Hold.Release();
    IrpContext->Information = Count;
    return NtFsdCompleteRequest(IrpContext, Irp, Status);
}
