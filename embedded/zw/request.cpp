#include <algorithm>
#include <cstring>

#include "embedded/ex/ex.h"
#include "embedded/verifier/answers.h"
#include "embedded/verifier/rules.h"
#include "embedded/zw/request.h"

namespace embedded {

FileRequest::~FileRequest() {
    Block_.reset();
    if (Locked_) {
        File_->Unlock();
    }
}

NTSTATUS FileRequest::Begin(HANDLE Handle, ACCESS_MASK Access, KPROCESSOR_MODE Mode, UCHAR MajorFunction,
                            UCHAR MinorFunction) noexcept {
    RequireIrql(IrqlRuleOf("a file service"));
    ObjectRef Target;
    if (const NTSTATUS Status = ReferenceHandle(Handle, ObjectType::File, 0, Mode, &Target, &Granted_);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    if (Mode == UserMode && Access != 0 && (Access & Granted_) == 0) {
        return STATUS_ACCESS_DENIED;
    }
    File_ = std::move(Target).As<FileObject>();
    Mode_ = Mode;
    if (File_->IsSynchronous()) {
        File_->Lock();
        Locked_ = true;
    }
    Block_.reset(AllocateIrp(*File_->Device.Get()));
    IRP &Irp = Block_->Irp;
    Irp.RequestorMode = Mode;
    Irp.Tail.Overlay.OriginalFileObject = &File_->Nt;
    IO_STACK_LOCATION &Location = Stack();
    Location.MajorFunction = MajorFunction;
    Location.MinorFunction = MinorFunction;
    Location.FileObject = &File_->Nt;
    return STATUS_SUCCESS;
}

NTSTATUS FileRequest::UseSystemBuffer(ULONG Size, const void *Input, ULONG InputLength, PVOID CopyTo,
                                      ULONG CopyLimit) noexcept {
    if (Size != 0) {
        void *Buffer = AllocatePool(PoolKind::Object, NonPagedPoolNx, Size, MakeTag("IoSB"));
        if (Buffer == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        // Nobody cleans such a buffer: what the driver does not write is what the kernel had there.
        if (Verifying()) {
            Block_->Garbage = FillWithGarbage(Buffer, Size);
            Block_->GarbageFrom = InputLength;
        }
        if (InputLength != 0) {
            memcpy(Buffer, Input, InputLength);
        }
        Block_->SystemBuffer = Buffer;
        Block_->Irp.AssociatedIrp.SystemBuffer = Buffer;
    }
    Block_->CopyTo = CopyTo;
    Block_->CopyLimit = CopyLimit;
    Block_->SystemBufferSize = Size;
    return STATUS_SUCCESS;
}

NTSTATUS FileRequest::RunToEnd(PIO_STATUS_BLOCK Iosb) noexcept {
    const NTSTATUS Status = CallDriverAndWait(*File_->Device.Get(), *Block_);
    const ULONG_PTR Information = Block_->FinalInformation;
    if (!NT_ERROR(Status)) {
        CopyAnswer(*Block_);
        if (Iosb != nullptr) {
            Iosb->Status = Status;
            Iosb->Information = Information;
        }
    }
    return Status;
}

NTSTATUS FileRequest::Run(HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PIO_STATUS_BLOCK Iosb) noexcept {
    if (ApcRoutine != nullptr) {
        return STATUS_NOT_IMPLEMENTED; // asynchronous procedure calls are not simulated
    }
    Ref<EventObject> UserEvent;
    if (Event != nullptr) {
        ObjectRef Target;
        if (const NTSTATUS Status = ReferenceHandle(Event, ObjectType::Event, 0, Mode_, &Target); !NT_SUCCESS(Status)) {
            return Status;
        }
        UserEvent = std::move(Target).As<EventObject>();
        KeClearEvent(&UserEvent->Event);
    }
    if (Locked_) {
        const NTSTATUS Status = RunToEnd(Iosb);
        if (UserEvent) {
            KeSetEvent(&UserEvent->Event, 0, FALSE);
        }
        return Status;
    }
    KeClearEvent(&File_->Nt.Event);
    Block_->Asynchronous = true;
    Block_->Iosb = Iosb;
    Block_->UserEvent = UserEvent.Release();
    DeviceObject &Device = *File_->Device.Get();
    Block_->File = Ref<FileObject>(File_).Release();
    return CallDriver(Device, *Block_.release());
}

} // namespace embedded
