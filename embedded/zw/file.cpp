#include <algorithm>

#include "embedded/system_volume.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/zw_rules.h"
#include "embedded/zw/request.h"
#include "embedded/zw/zw.h"

namespace embedded {
namespace {

// Where a transfer starts; negative results other than the append marker are refused by the caller.
bool StartOf(FileObject &File, const LARGE_INTEGER *ByteOffset, LONGLONG *Start) {
    if (ByteOffset == nullptr || ByteOffset->QuadPart == UseFilePointer) {
        *Start = File.Nt.CurrentByteOffset.QuadPart;
        return File.IsSynchronous();
    }
    *Start = ByteOffset->QuadPart;
    return true;
}

// The device's kind of buffer: neither is what a network redirector asks for, and the only one simulated.
bool TakesUserBuffer(FileObject &File) {
    return (File.Nt.DeviceObject->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO)) == 0;
}

NTSTATUS Transfer(KPROCESSOR_MODE Mode, UCHAR MajorFunction, HANDLE FileHandle, HANDLE Event,
                  PIO_APC_ROUTINE ApcRoutine, PIO_STATUS_BLOCK Iosb, PVOID Buffer, ULONG Length,
                  PLARGE_INTEGER ByteOffset, PULONG Key) {
    const bool Write = MajorFunction == IRP_MJ_WRITE;
    FileRequest Request;
    if (const NTSTATUS Status =
            Request.Begin(FileHandle, Write ? FILE_WRITE_DATA | FILE_APPEND_DATA : FILE_READ_DATA, Mode, MajorFunction);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    FileObject &File = Request.File();
    LONGLONG Start = 0;
    // A handle that may only append always writes at the end.
    const bool AppendOnly =
        Write && (Request.GrantedAccess() & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == FILE_APPEND_DATA;
    if (AppendOnly) {
        Start = WriteToEndOfFile;
    } else if (!StartOf(File, ByteOffset, &Start)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Start < 0 && !(Write && Start == WriteToEndOfFile)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!TakesUserBuffer(File)) {
        return STATUS_NOT_IMPLEMENTED;
    }
    IRP &Irp = Request.Irp();
    Irp.Flags = (Write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION) |
                ((File.Flags() & FO_NO_INTERMEDIATE_BUFFERING) ? IRP_NOCACHE : 0);
    Irp.UserBuffer = Buffer;
    IO_STACK_LOCATION &Stack = Request.Stack();
    Stack.Flags = Write && (File.Flags() & FO_WRITE_THROUGH) ? StackWriteThrough : 0;
    Stack.Parameters.Read.Length = Length;
    Stack.Parameters.Read.Key = Key == nullptr ? 0 : *Key;
    Stack.Parameters.Read.ByteOffset.QuadPart = Start;
    return Request.Run(Event, ApcRoutine, Iosb);
}

// ---- Controls ------------------------------------------------------------------------------------------------

enum ControlMethod : ULONG { MethodBuffered, MethodInDirect, MethodOutDirect, MethodNeither };

struct ControlBuffers {
    PVOID Input;
    ULONG InputLength;
    PVOID Output;
    ULONG OutputLength;
};

NTSTATUS AttachBuffers(FileRequest &Request, ControlMethod Method, const ControlBuffers &Buffers) {
    switch (Method) {
    case MethodBuffered:
        Request.Irp().UserBuffer = Buffers.Output;
        return Request.UseSystemBuffer(std::max(Buffers.InputLength, Buffers.OutputLength), Buffers.Input,
                                       Buffers.InputLength, Buffers.Output, Buffers.OutputLength);
    case MethodNeither:
        Request.Stack().Parameters.DeviceIoControl.Type3InputBuffer = Buffers.Input;
        Request.Irp().UserBuffer = Buffers.Output;
        return STATUS_SUCCESS;
    default:
        return STATUS_NOT_IMPLEMENTED; // direct transfers are not simulated
    }
}

NTSTATUS Control(KPROCESSOR_MODE Mode, UCHAR MajorFunction, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                 PIO_STATUS_BLOCK Iosb, ULONG Code, const ControlBuffers &Buffers) {
    FileRequest Request;
    if (const NTSTATUS Status = Request.Begin(FileHandle, 0, Mode, MajorFunction); !NT_SUCCESS(Status)) {
        return Status;
    }
    // The code says what access the handle must have: bit 14 to read, bit 15 to write.
    const ACCESS_MASK Required = ((Code & 0x4000) ? FILE_READ_DATA : 0) | ((Code & 0x8000) ? FILE_WRITE_DATA : 0);
    if (Mode == UserMode && (Required & ~Request.GrantedAccess()) != 0) {
        return STATUS_ACCESS_DENIED;
    }
    IO_STACK_LOCATION &Stack = Request.Stack();
    Stack.Parameters.DeviceIoControl.IoControlCode = Code;
    Stack.Parameters.DeviceIoControl.InputBufferLength = Buffers.InputLength;
    Stack.Parameters.DeviceIoControl.OutputBufferLength = Buffers.OutputLength;
    if (const NTSTATUS Status = AttachBuffers(Request, static_cast<ControlMethod>(Code & 3), Buffers);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    return Request.Run(Event, ApcRoutine, Iosb);
}

} // namespace
} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI NtReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                          PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                          PULONG Key) noexcept {
    return Transfer(PreviousMode(), IRP_MJ_READ, FileHandle, Event, ApcRoutine, IoStatusBlock, Buffer, Length,
                    ByteOffset, Key);
}

NTSTATUS NTAPI NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                           PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                           PULONG Key) noexcept {
    return Transfer(PreviousMode(), IRP_MJ_WRITE, FileHandle, Event, ApcRoutine, IoStatusBlock, Buffer, Length,
                    ByteOffset, Key);
}

NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                           PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                           PULONG Key) noexcept {
    RequireIrql(IrqlRuleOf("ZwWriteFile"));
    CheckZwPointers("ZwWriteFile", static_cast<const char *>(Buffer), IoStatusBlock, ByteOffset);
    ObjectRef Target;
    if (const NTSTATUS Status = ReferenceHandle(FileHandle, ObjectType::Any, 0, KernelMode, &Target);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    if (Target->Type() != ObjectType::SystemFile) {
        return Transfer(KernelMode, IRP_MJ_WRITE, FileHandle, Event, ApcRoutine, IoStatusBlock, Buffer, Length,
                        ByteOffset, Key);
    }
    *IoStatusBlock = WriteSystemFileObject(*Target.Get(), Buffer, Length,
                                           ByteOffset == nullptr ? WriteToEndOfFile : ByteOffset->QuadPart);
    return IoStatusBlock->Status;
}

NTSTATUS NTAPI NtFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) noexcept {
    FileRequest Request;
    if (const NTSTATUS Status =
            Request.Begin(FileHandle, FILE_WRITE_DATA | FILE_APPEND_DATA, PreviousMode(), IRP_MJ_FLUSH_BUFFERS);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    Request.Irp().Flags = Request.File().IsSynchronous() ? 0 : IRP_SYNCHRONOUS_API;
    return Request.RunToEnd(IoStatusBlock);
}

NTSTATUS NTAPI NtLockFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                          PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length, ULONG Key,
                          BOOLEAN FailImmediately, BOOLEAN ExclusiveLock) noexcept {
    FileRequest Request;
    if (const NTSTATUS Status = Request.Begin(FileHandle, FILE_READ_DATA | FILE_WRITE_DATA, PreviousMode(),
                                              IRP_MJ_LOCK_CONTROL, IRP_MN_LOCK);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    Request.File().Nt.LockOperation = TRUE;
    Request.Block().LockLength = *Length;
    IO_STACK_LOCATION &Stack = Request.Stack();
    Stack.Flags =
        static_cast<UCHAR>((FailImmediately ? SL_FAIL_IMMEDIATELY : 0) | (ExclusiveLock ? SL_EXCLUSIVE_LOCK : 0));
    Stack.Parameters.LockControl.Length = &Request.Block().LockLength;
    Stack.Parameters.LockControl.Key = Key;
    Stack.Parameters.LockControl.ByteOffset = *ByteOffset;
    return Request.Run(Event, ApcRoutine, IoStatusBlock);
}

NTSTATUS NTAPI NtUnlockFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,
                            PLARGE_INTEGER Length, ULONG Key) noexcept {
    FileRequest Request;
    if (const NTSTATUS Status = Request.Begin(FileHandle, FILE_READ_DATA | FILE_WRITE_DATA, PreviousMode(),
                                              IRP_MJ_LOCK_CONTROL, IRP_MN_UNLOCK_SINGLE);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    Request.Irp().Flags = Request.File().IsSynchronous() ? 0 : IRP_SYNCHRONOUS_API;
    Request.Block().LockLength = *Length;
    IO_STACK_LOCATION &Stack = Request.Stack();
    Stack.Parameters.LockControl.Length = &Request.Block().LockLength;
    Stack.Parameters.LockControl.Key = Key;
    Stack.Parameters.LockControl.ByteOffset = *ByteOffset;
    return Request.RunToEnd(IoStatusBlock);
}

NTSTATUS NTAPI NtDeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                                     PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer,
                                     ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength) noexcept {
    return Control(PreviousMode(), IRP_MJ_DEVICE_CONTROL, FileHandle, Event, ApcRoutine, IoStatusBlock, IoControlCode,
                   {InputBuffer, InputBufferLength, OutputBuffer, OutputBufferLength});
}

NTSTATUS NTAPI NtFsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID,
                               PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,
                               ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength) noexcept {
    return Control(PreviousMode(), IRP_MJ_FILE_SYSTEM_CONTROL, FileHandle, Event, ApcRoutine, IoStatusBlock,
                   FsControlCode, {InputBuffer, InputBufferLength, OutputBuffer, OutputBufferLength});
}
