#include <cstring>
#include <mutex>
#include <new>
#include <set>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/io/objects.h"
#include "embedded/io/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/leaks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/stack.h"

namespace embedded {
namespace {

std::atomic<size_t> FileObjects{0};

// Those made while the verifier was on.
struct FileList {
    std::mutex Mutex;
    std::set<const FileObject *> Files;
};

FileList &Verified() {
    static FileList &Instance = *new FileList;
    return Instance;
}

__attribute__((noinline)) void EnterList(FileObject &File) {
    std::lock_guard Guard(Verified().Mutex);
    Verified().Files.insert(&File);
    File.Listed = true;
}

__attribute__((noinline)) void LeaveList(const FileObject &File) {
    std::lock_guard Guard(Verified().Mutex);
    Verified().Files.erase(&File);
}

// A caller that wants to hear what its file's last requests were completed with.
struct CloseWitness {
    const FileObject *File = nullptr;
    NTSTATUS Cleanup = STATUS_SUCCESS;
    NTSTATUS Close = STATUS_SUCCESS;
};
thread_local CloseWitness *Witness = nullptr;

// Cleanup and close are the I/O manager's own requests: kernel mode, synchronous, and their status is nobody's but a
// witness's.
void SendOwed(FileObject &File, UCHAR MajorFunction) {
    DeviceObject &Device = *File.Device.Get();
    const IrpHolder Block(AllocateIrp(Device));
    IRP &Irp = Block->Irp;
    Irp.Flags = IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API;
    Irp.RequestorMode = KernelMode;
    Irp.Tail.Overlay.OriginalFileObject = &File.Nt;
    IO_STACK_LOCATION &Stack = *Irp.Tail.Overlay.CurrentStackLocation;
    Stack.MajorFunction = MajorFunction;
    Stack.FileObject = &File.Nt;
    const NTSTATUS Status = CallDriverAndWait(Device, *Block);
    if (Witness != nullptr && Witness->File == &File) {
        (MajorFunction == IRP_MJ_CLEANUP ? Witness->Cleanup : Witness->Close) = Status;
    }
}

} // namespace

FileObject *FileObject::Create(Ref<DeviceObject> Device, std::u16string_view Name, ULONG Flags) noexcept {
    PWSTR Buffer = nullptr;
    const size_t Bytes = Name.size() * sizeof(WCHAR);
    if (Bytes != 0) {
        // A block of the driver's kind: file systems may replace the name.
        Buffer = static_cast<PWSTR>(AllocatePool(PoolKind::Pool, PagedPool, Bytes, MakeTag("IoNm")));
        if (Buffer == nullptr) {
            return nullptr;
        }
        memcpy(Buffer, Name.data(), Bytes);
    }
    auto *File = new (std::nothrow) FileObject(std::move(Device));
    if (File == nullptr) {
        FreePool(PoolKind::Pool, Buffer, 0);
        return nullptr;
    }
    FILE_OBJECT &Nt = File->Nt;
    Nt.Type = IO_TYPE_FILE;
    Nt.Size = sizeof(FILE_OBJECT);
    Nt.DeviceObject = &File->Device->Nt;
    Nt.Flags = Flags;
    Nt.FileName = {static_cast<USHORT>(Bytes), static_cast<USHORT>(Bytes), Buffer};
    Nt.FileObjectExtension = File;
    KeInitializeEvent(&Nt.Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&Nt.Event, NotificationEvent, FALSE);
    InitializeListHead(&Nt.IrpList);
    FileObjects.fetch_add(1, std::memory_order_relaxed);
    if (Verifying()) {
        EnterList(*File);
    }
    return File;
}

void FileObject::Lock() noexcept {
    if (__atomic_exchange_n(&Nt.Busy, 1u, __ATOMIC_SEQ_CST) == 0) {
        return;
    }
    __atomic_fetch_add(&Nt.Waiters, 1u, __ATOMIC_SEQ_CST);
    while (__atomic_exchange_n(&Nt.Busy, 1u, __ATOMIC_SEQ_CST) != 0) {
        static_cast<void>(KeWaitForSingleObject(&Nt.Lock, Executive, KernelMode, FALSE, nullptr));
    }
    __atomic_fetch_sub(&Nt.Waiters, 1u, __ATOMIC_SEQ_CST);
}

void FileObject::Unlock() noexcept {
    __atomic_exchange_n(&Nt.Busy, 0u, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&Nt.Waiters, __ATOMIC_SEQ_CST) != 0) {
        KeSetEvent(&Nt.Lock, 0, FALSE);
    }
}

void FileObject::OnLastHandleClosed() noexcept {
    if (!Opened) {
        return;
    }
    const bool Synchronous = IsSynchronous();
    if (Synchronous) {
        Lock();
    }
    SendOwed(*this, IRP_MJ_CLEANUP);
    if (Synchronous) {
        Unlock();
    }
}

void FileObject::OnLastReference() noexcept {
    if (Opened) {
        SendOwed(*this, IRP_MJ_CLOSE);
    }
    if (Nt.FileName.Buffer != nullptr) {
        FreePool(PoolKind::Pool, Nt.FileName.Buffer, 0);
    }
    Device->EndOpen();
    if (Listed) {
        LeaveList(*this);
    }
    FileObjects.fetch_sub(1, std::memory_order_relaxed);
    delete this;
}

size_t LiveFileObjects() noexcept {
    return FileObjects.load(std::memory_order_relaxed);
}

std::vector<std::string> FilePointersInto(const void *Low, const void *High) {
    std::vector<std::string> Lines;
    std::lock_guard Guard(Verified().Mutex);
    for (const FileObject *File : Verified().Files) {
        for (const void *Word : PointersWithin(&File->Nt, sizeof(File->Nt), Low, High)) {
            Lines.push_back(fmt::format("file object {} points to {}", static_cast<const void *>(&File->Nt),
                                        DescribeAddress(Word)));
        }
    }
    return Lines;
}

PFILE_OBJECT CreateFileObject(PDEVICE_OBJECT Device, std::u16string_view Name, ULONG Flags, bool SendsClose) {
    auto Target = Ref<DeviceObject>::Share(DeviceObject::Of(Device));
    InterlockedIncrement(&Device->ReferenceCount);
    FileObject *File = FileObject::Create(std::move(Target), Name, Flags);
    if (File == nullptr) {
        throw std::bad_alloc();
    }
    File->Opened = SendsClose;
    return &File->Nt;
}

void ReferenceFileObject(PFILE_OBJECT FileObject) noexcept {
    FileObject::Of(FileObject)->Reference();
}

void DereferenceFileObject(PFILE_OBJECT FileObject) noexcept {
    FileObject::Of(FileObject)->Dereference();
}

OpenFiles CountOpenFiles() {
    std::set<const void *> Blocks;
    OpenFiles Found;
    ForEachOpenObject([&](const Object &Each) {
        if (Each.Type() != ObjectType::File) {
            return;
        }
        if (const void *Block = static_cast<const FileObject &>(Each).Nt.FsContext; Block != nullptr) {
            ++Found.Handles;
            Blocks.insert(Block);
        }
    });
    Found.ControlBlocks = Blocks.size();
    return Found;
}

PFILE_OBJECT FileObjectFromHandle(HANDLE Handle) noexcept {
    ObjectRef Target;
    if (!NT_SUCCESS(ReferenceHandle(Handle, ObjectType::File, 0, UserMode, &Target))) {
        return nullptr;
    }
    return &static_cast<FileObject *>(Target.Release())->Nt;
}

NTSTATUS CloseHandleTelling(HANDLE Handle) noexcept {
    CloseWitness Told;
    {
        ObjectRef Target;
        if (NT_SUCCESS(ReferenceHandle(Handle, ObjectType::File, 0, UserMode, &Target))) {
            Told.File = static_cast<FileObject *>(Target.Get());
        }
    }
    CloseWitness *const Outer = std::exchange(Witness, &Told);
    const NTSTATUS Status = CloseHandle(Handle, PreviousMode());
    Witness = Outer;
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    return NT_SUCCESS(Told.Close) ? Told.Cleanup : Told.Close;
}

// ---- Raw requests --------------------------------------------------------------------------------------------

SentIrp::SentIrp(SentIrp &&Other) noexcept : Block_(std::exchange(Other.Block_, nullptr)), Returned_(Other.Returned_) {
}

SentIrp::~SentIrp() {
    if (Block_ != nullptr) {
        Wait();
        DeviceObject *Device = Block_->HeldDevice;
        FreeIrp(Block_);
        Device->Dereference();
    }
}

bool SentIrp::IsCompleted() const noexcept {
    return Block_->IsCompleted();
}

IO_STATUS_BLOCK SentIrp::Wait() noexcept {
    WaitForIrp(*Block_);
    IO_STATUS_BLOCK Result{};
    Result.Status = Block_->FinalStatus;
    Result.Information = Block_->FinalInformation;
    // The last part of a request's end runs in its sender's thread; the close that may follow, too.
    if (FileObject *File = std::exchange(Block_->File, nullptr); File != nullptr) {
        File->Dereference();
    }
    return Result;
}

CCHAR SentIrp::PriorityBoost() noexcept {
    WaitForIrp(*Block_);
    return Block_->PriorityBoost;
}

bool SentIrp::Cancel() noexcept {
    return CancelIrp(*Block_);
}

void SentIrp::CancelWithin(LONGLONG Limit) noexcept {
    CancelIrp(*Block_);
    if (Clock::IsManual()) {
        Clock::Advance(Limit);
    } else if (Block_->MustWait) {
        LARGE_INTEGER Timeout;
        Timeout.QuadPart = -Limit;
        static_cast<void>(KeWaitForSingleObject(&Block_->Done, Executive, KernelMode, FALSE, &Timeout));
    }
    if (!Block_->IsCompleted()) {
        BugCheck(bugcheck::Verifier, 0x135, reinterpret_cast<ULONG_PTR>(&Block_->Irp), 0,
                 static_cast<ULONG_PTR>(Limit / Clock::Millisecond),
                 "a cancelled request was not completed in the allowed time");
    }
}

PIRP SentIrp::Irp() const noexcept {
    return &Block_->Irp;
}

SentIrp SendIrp(PDEVICE_OBJECT Device, const IrpBuilder &Builder) {
    DeviceObject &Target = *DeviceObject::Of(Device);
    // The driver may delete its device while it serves the request.
    Target.Reference();
    const bool Filter = Builder.CompletionRoutine != nullptr;
    IrpBlock *Block = AllocateIrp(Target, Filter);
    Block->HeldDevice = &Target; // the reference travels with the request
    Block->CallersMdl = Builder.Mdl;
    // Until the request is over its file object cannot be closed. A close itself is sent when nothing refers to it.
    if (Builder.FileObject != nullptr && Builder.FileObject->FileObjectExtension != nullptr &&
        Builder.MajorFunction != IRP_MJ_CLOSE) {
        Block->File = FileObject::Of(Builder.FileObject);
        Block->File->Reference();
    }
    IRP &Irp = Block->Irp;
    Irp.MdlAddress = Builder.Mdl;
    Irp.Flags = Builder.IrpFlags;
    Irp.RequestorMode = Builder.RequestorMode;
    Irp.Cancel = Builder.CancelledBefore;
    Irp.UserBuffer = Builder.UserBuffer;
    Irp.AssociatedIrp.SystemBuffer = Builder.SystemBuffer;
    Irp.Overlay.AllocationSize = Builder.AllocationSize;
    Irp.Tail.Overlay.OriginalFileObject = Builder.FileObject;
    IO_STACK_LOCATION &Stack = *Irp.Tail.Overlay.CurrentStackLocation;
    Stack.MajorFunction = Builder.MajorFunction;
    Stack.MinorFunction = Builder.MinorFunction;
    Stack.Flags = Builder.StackFlags;
    Stack.FileObject = Builder.FileObject;
    if (Filter) {
        Stack.CompletionRoutine = Builder.CompletionRoutine;
        Stack.Context = Builder.CompletionContext;
        Stack.Control = SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL;
    }
    if (Builder.Fill) {
        Builder.Fill(&Stack);
    }
    if (Builder.Made != nullptr) {
        *Builder.Made = &Irp;
    }
    KThread &Thread = CurrentThread();
    const PIRP Before = std::exchange(Thread.TopLevelIrp, Builder.TopLevelIrp);
    const NTSTATUS Returned = CallDriver(Target, *Block);
    Thread.TopLevelIrp = Before;
    return SentIrp(Block, Returned);
}

IO_STATUS_BLOCK SendIrpAndWait(PDEVICE_OBJECT Device, const IrpBuilder &Builder) {
    return SendIrp(Device, Builder).Wait();
}

void InitializeIo() {
    RegisterLeakCheck("requests", DescribeIrps);
    RegisterLeakCheck("devices", [] {
        return LiveDevices() == 0 ? std::string{} : fmt::format("{} device object(s) not deleted\n", LiveDevices());
    });
    RegisterLeakCheck("file objects", [] {
        return LiveFileObjects() == 0 ? std::string{}
                                      : fmt::format("{} file object(s) still referenced\n", LiveFileObjects());
    });
    RegisterLeakCheck("handles", [] {
        return OpenHandleCount() == 0 ? std::string{} : fmt::format("{} handle(s) still open\n", OpenHandleCount());
    });
}

} // namespace embedded
