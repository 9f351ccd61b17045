#include "frame/entry.h"

#include "close/close.h"
#include "control/our_device.h"
#include "create/create.h"
#include "dir/directory.h"
#include "frame/diagnostics.h"
#include "frame/memory.h"
#include "frame/rundown.h"
#include "frame/worker_routine.h"
#include "info/query.h"
#include "info/set_information.h"
#include "io/io.h"
#include "provider/binding.h"

namespace {

// ---- Deviations -----------------------------------------------------------------------------------------------------

bool Complete(ENTRY_REQUEST &Request, NTSTATUS Status) {
    Request.Status = NtFsdCompleteRequest(nullptr, Request.Irp, Status);
    return true;
}

bool CompleteAtOnce(ENTRY_REQUEST &Request, NTSTATUS Status, ULONG_PTR Information = 0) {
    Request.Status = NtFsdCompleteAtOnce(Request.Irp, Status, Information, IO_NETWORK_INCREMENT);
    return true;
}

bool RefuseUnbound(ENTRY_REQUEST &Request) {
    CompleteAtOnce(Request, STATUS_UNSUCCESSFUL);
    NtFsdDebugPrint(TRACE_CONTROL, 0, "Unable to Initialize Orrery\n");
    return true;
}

void OpenDevice(ENTRY_REQUEST &Request, CCHAR PriorityBoost) {
    const NTSTATUS Status = NtFsdOpenOurDevice(Request.FileObject);
    Request.Status =
        NtFsdCompleteAtOnce(Request.Irp, Status, NT_SUCCESS(Status) ? FILE_OPENED : FILE_DOES_NOT_EXIST, PriorityBoost);
}

// The device itself can be opened before the framework is there: the framework finds the driver by such an open.
bool CreateUnbound(ENTRY_REQUEST &Request) {
    const PFILE_OBJECT FileObject = Request.FileObject;
    const WideText Name = {FileObject->FileName.Buffer, FileObject->FileName.Length / 2u};
    NtFsdDebugPrint(TRACE_CREATE, 0, "Name Length %d\n", static_cast<ULONG>(FileObject->FileName.Length));
    NtFsdDebugPrint(TRACE_CREATE, 0, "File %ws\n", Name);
    NtFsdDebugPrint(TRACE_CREATE, 0, "RelatedObject = 0x%X\n", LowPart(FileObject->RelatedFileObject));
    if (!NtFsdIsDeviceOpen(FileObject)) {
        return RefuseUnbound(Request);
    }
    NtFsdDebugPrint(TRACE_CREATE, 0, "Open our Device at Init\n");
    OpenDevice(Request, IO_NETWORK_INCREMENT);
    return true;
}

bool CreateStopped(ENTRY_REQUEST &Request) {
    return NtFsdIsDeviceOpen(Request.FileObject) ? CompleteAtOnce(Request, STATUS_UNSUCCESSFUL, FILE_DOES_NOT_EXIST)
                                                 : RefuseUnbound(Request);
}

bool CreateAdmitted(ENTRY_REQUEST &Request) {
    if (IoGetCurrentIrpStackLocation(Request.Irp)->Flags & SL_OPEN_PAGING_FILE) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCreate() asked to open paging file, returning ACCESS_DENIED\n");
        return Complete(Request, STATUS_ACCESS_DENIED);
    }
    if (!NtFsdIsDeviceOpen(Request.FileObject)) {
        return false;
    }
    OpenDevice(Request, IO_DISK_INCREMENT);
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCreate() returning 0x%x from opening device\n", Request.Status);
    return true;
}

bool IsDriverFcb(PFILE_OBJECT FileObject) {
    return NtFsdIsFcb(FileObject->FsContext) && FileObject->FsContext == DriverFcb;
}

// A device open is closed whatever the binding: nothing else would give its process record back.
bool CloseUnbound(ENTRY_REQUEST &Request) {
    return IsDriverFcb(Request.FileObject) ? Complete(Request, NtFsdCloseOurDevice(Request.FileObject))
                                           : RefuseUnbound(Request);
}

bool CleanupUnbound(ENTRY_REQUEST &Request) {
    return IsDriverFcb(Request.FileObject) ? Complete(Request, STATUS_SUCCESS) : RefuseUnbound(Request);
}

bool CloseStopped(ENTRY_REQUEST &Request) {
    NtFsdCloseAfterTeardown(Request.FileObject);
    return CompleteAtOnce(Request, STATUS_SUCCESS);
}

bool CleanupStopped(ENTRY_REQUEST &Request) {
    return CompleteAtOnce(Request, STATUS_SUCCESS);
}

bool CloseInRegion(ENTRY_REQUEST &Request) {
    const PFILE_OBJECT FileObject = Request.FileObject;
    const NTSTATUS Done = Request.Cancelled ? STATUS_CANCELLED : STATUS_SUCCESS;
    if (FileObject->FsContext == nullptr) {
        NtFsdFreeOrphanInstance(FileObject);
        return Complete(Request, Done);
    }
    if (!NtFsdIsFcb(FileObject->FsContext)) {
        // Not ours: nothing that it points to may be touched.
        FileObject->FsContext = nullptr;
        FileObject->FsContext2 = nullptr;
        FileObject->SectionObjectPointer = nullptr;
        return Complete(Request, Done);
    }
    const auto Fcb = static_cast<PFCB>(FileObject->FsContext);
    NtFsdDebugPrint(TRACE_GENERAL, 0, " File Object: 0x%p -> \"%wZ\".\n", FileObject, NtFsdStablePath(Fcb));
    if (Fcb != DriverFcb) {
        return false;
    }
    Ignore(NtFsdCloseOurDevice(FileObject), "it always succeeds");
    return Complete(Request, Done);
}

bool WriteInRegion(ENTRY_REQUEST &Request) {
    NtFsdDebugPrint(TRACE_WRITE, 0, "   I/O Request       : %s\n",
                    IoIsOperationSynchronous(Request.Irp) ? "Synchronous" : "Asynchronous");
    return false;
}

bool WriteDecoded(ENTRY_REQUEST &Request) {
    if (Request.Status == STATUS_INVALID_PARAMETER) {
        Request.Status = STATUS_FILE_IS_A_DIRECTORY;
    }
    return false;
}

bool ReadDecoded(ENTRY_REQUEST &Request) {
    if (!NT_SUCCESS(Request.Status)) {
        NtFsdDebugPrint(TRACE_READ, 0, "<<<<<<<<<<<<<NtFsdRead() Unable to Decode FileObject\n");
    }
    return WriteDecoded(Request);
}

// The handle of a deleted file is still cleaned up.
bool CleanupDecoded(ENTRY_REQUEST &Request) {
    if (Request.Status == STATUS_DELETE_PENDING) {
        Request.Status = STATUS_SUCCESS;
    }
    return false;
}

bool LockDecoded(ENTRY_REQUEST &Request) {
    ULONG *Key = &IoGetCurrentIrpStackLocation(Request.Irp)->Parameters.LockControl.Key;
    if (*Key == 0) {
        *Key = LowPart(IoGetCurrentProcess());
    }
    return false;
}

// Classes from here on are refused before anything is made for the request.
constexpr ULONG FIRST_UNKNOWN_CLASS = 56;

bool DirectoryDecoded(ENTRY_REQUEST &Request) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Request.Irp);
    return NT_SUCCESS(Request.Status) && IrpSp->MinorFunction == IRP_MN_QUERY_DIRECTORY &&
           static_cast<ULONG>(IrpSp->Parameters.QueryDirectory.FileInformationClass) >= FIRST_UNKNOWN_CLASS &&
           Complete(Request, STATUS_INVALID_INFO_CLASS);
}

// Extended attributes are not offered: files have none, and a set is accepted and stores nothing.
bool QueryEa(ENTRY_REQUEST &Request) {
    Request.Status = NtFsdCompleteAtOnce(Request.Irp, STATUS_NO_EAS_ON_FILE, 0, IO_DISK_INCREMENT);
    return true;
}

bool SetEa(ENTRY_REQUEST &Request) {
    Request.Status = NtFsdCompleteAtOnce(Request.Irp, STATUS_SUCCESS, 0, IO_DISK_INCREMENT);
    return true;
}

NTSTATUS CommonCreate(PIRP_CONTEXT IrpContext) {
    return NtFsdCommonCreate(IrpContext, IrpContext->Irp);
}

NTSTATUS CommonDeviceControl(PIRP_CONTEXT IrpContext) {
    return NtFsdCommonDeviceControl(IrpContext, IrpContext->Irp);
}

// ---- The table ------------------------------------------------------------------------------------------------------

struct ENTRY_TABLE {
    ENTRY Entries[IRP_MJ_MAXIMUM_FUNCTION + 1];
};

constexpr UCHAR ENTRY_USUAL = ENTRY_BINDS | ENTRY_TESTS_CANCEL;

constexpr ENTRY_TABLE MakeTable() {
    ENTRY_TABLE Table = {};
    Table.Entries[IRP_MJ_CREATE] = {.Name = "NtFsdCreate",
                                    .Flags = ENTRY_USUAL,
                                    .OpenType = 0,
                                    .Mask = TRACE_CREATE,
                                    .Common = CommonCreate,
                                    .WorkerName = "NtFsdCommmonCreate",
                                    .NoContext = "NtFsdCreate() couldn't allocate Irp context\n",
                                    .Unbound = CreateUnbound,
                                    .Stopped = CreateStopped,
                                    .Admitted = CreateAdmitted};
    Table.Entries[IRP_MJ_CLOSE] = {.Name = "NtFsdClose",
                                   .Flags = ENTRY_USUAL | ENTRY_MUST_RUN,
                                   .OpenType = 0,
                                   .Mask = TRACE_CLOSE,
                                   .Common = NtFsdCommonClose,
                                   .WorkerName = "NtFsdCommonClose",
                                   .Unbound = CloseUnbound,
                                   .Stopped = CloseStopped,
                                   .InRegion = CloseInRegion};
    Table.Entries[IRP_MJ_READ] = {.Name = "NtFsdRead",
                                  .Flags = ENTRY_USUAL | ENTRY_DECODES | ENTRY_RETURN_RUN,
                                  .OpenType = OPEN_TYPE_FILE,
                                  .Mask = TRACE_READ,
                                  .Common = NtFsdCommonRead,
                                  .WorkerName = "NtFsdCommonRead",
                                  .Decoded = ReadDecoded};
    Table.Entries[IRP_MJ_WRITE] = {.Name = "NtFsdWrite",
                                   .Flags = ENTRY_USUAL | ENTRY_DECODES | ENTRY_RETURN_RUN,
                                   .OpenType = OPEN_TYPE_FILE,
                                   .Mask = TRACE_WRITE,
                                   .Common = NtFsdCommonWrite,
                                   .WorkerName = "NtFsdCommonWrite",
                                   .InRegion = WriteInRegion,
                                   .Decoded = WriteDecoded};
    Table.Entries[IRP_MJ_QUERY_INFORMATION] = {.Name = "NtFsdQueryInformation",
                                               .Flags = ENTRY_USUAL | ENTRY_DECODES,
                                               .OpenType = 0,
                                               .Mask = TRACE_FILE_INFO,
                                               .Common = NtFsdCommonQueryInformation,
                                               .WorkerName = "NtFsdCommonQueryInformation"};
    Table.Entries[IRP_MJ_SET_INFORMATION] = {.Name = "NtFsdSetInformation",
                                             .Flags = ENTRY_USUAL | ENTRY_DECODES,
                                             .OpenType = 0,
                                             .Mask = TRACE_FILE_INFO,
                                             .Common = NtFsdCommonSetInformation,
                                             .WorkerName = "NtFsdCommonSetInformation"};
    Table.Entries[IRP_MJ_QUERY_EA] = {.Name = "NtFsdQueryEa", .Whole = QueryEa};
    Table.Entries[IRP_MJ_SET_EA] = {.Name = "NtFsdSetEa", .Whole = SetEa};
    Table.Entries[IRP_MJ_FLUSH_BUFFERS] = {.Name = "NtFsdFlushBuffers",
                                           .Flags = ENTRY_DECODES | ENTRY_RETURN_RUN,
                                           .OpenType = OPEN_TYPE_FILE,
                                           .Mask = TRACE_FLUSH,
                                           .Common = NtFsdCommonFlush,
                                           .WorkerName = "NtFsdCommonFlush"};
    Table.Entries[IRP_MJ_QUERY_VOLUME_INFORMATION] = {.Name = "NtFsdQueryVolumeInformation",
                                                      .Flags = ENTRY_USUAL | ENTRY_DECODES,
                                                      .OpenType = 0,
                                                      .Mask = TRACE_VOLUME_INFO,
                                                      .Common = NtFsdCommonQueryVolumeInfo,
                                                      .WorkerName = "NtFsdCommonQueryVolumeInfo"};
    Table.Entries[IRP_MJ_DIRECTORY_CONTROL] = {.Name = "NtFsdDirectoryControl",
                                               .Flags = ENTRY_USUAL | ENTRY_DECODES | ENTRY_RETURN_RUN,
                                               .OpenType = OPEN_TYPE_DIRECTORY,
                                               .Mask = TRACE_DIRECTORY,
                                               .Common = NtFsdCommonDirectoryControl,
                                               .WorkerName = "NtFsdCommonDirectoryControl",
                                               .Decoded = DirectoryDecoded};
    Table.Entries[IRP_MJ_FILE_SYSTEM_CONTROL] = {.Name = "NtFsdFileSystemControl",
                                                 .Flags = ENTRY_USUAL,
                                                 .OpenType = 0,
                                                 .Mask = TRACE_CONTROL,
                                                 .Common = CommonDeviceControl};
    Table.Entries[IRP_MJ_DEVICE_CONTROL] = {.Name = "NtFsdDeviceControl",
                                            .Flags = ENTRY_USUAL,
                                            .OpenType = 0,
                                            .Mask = TRACE_CONTROL,
                                            .Common = CommonDeviceControl};
    Table.Entries[IRP_MJ_SHUTDOWN] = {.Name = "NtFsdShutdown", .Whole = NtFsdServeShutdown};
    Table.Entries[IRP_MJ_LOCK_CONTROL] = {.Name = "NtFsdLockControl",
                                          .Flags = ENTRY_BINDS | ENTRY_DECODES | ENTRY_RETURN_RUN,
                                          .OpenType = OPEN_TYPE_FILE,
                                          .Mask = TRACE_LOCK,
                                          .Common = NtFsdCommonLockControl,
                                          .WorkerName = "NtFsdCommonLockControl",
                                          .Decoded = LockDecoded};
    Table.Entries[IRP_MJ_CLEANUP] = {.Name = "NtFsdCleanup",
                                     .Flags = ENTRY_USUAL | ENTRY_MUST_RUN | ENTRY_DECODES,
                                     .OpenType = 0,
                                     .Mask = TRACE_CLEANUP,
                                     .Common = NtFsdCommonCleanup,
                                     .WorkerName = "NtFsdCommmonCleanup",
                                     .Unbound = CleanupUnbound,
                                     .Stopped = CleanupStopped,
                                     .Decoded = CleanupDecoded};
    return Table;
}

constexpr ENTRY_TABLE Table = MakeTable();

// ---- The shape ------------------------------------------------------------------------------------------------------

// The top-level IRP slot, given back when this request took it.
class [[nodiscard]] TopLevelIrp {
public:
    explicit TopLevelIrp(PIRP Irp) : Taken_(NtFsdIsIrpTopLevel(Irp)) {
    }
    TopLevelIrp(const TopLevelIrp &) = delete;
    TopLevelIrp &operator=(const TopLevelIrp &) = delete;
    ~TopLevelIrp() {
        if (Taken_) {
            IoSetTopLevelIrp(nullptr);
        }
    }

private:
    BOOLEAN Taken_;
};

bool IsCancelled(PIRP Irp) {
    KIRQL Irql;
    IoAcquireCancelSpinLock(&Irql);
    const BOOLEAN Cancelled = Irp->Cancel;
    IoReleaseCancelSpinLock(Irql);
    return Cancelled;
}

NTSTATUS RunWithContext(const ENTRY &Entry, ENTRY_REQUEST &Request) {
    // The Provider is asked in somebody's name or not at all. Only a flush, which binds nothing, can come here without.
    if (g_pSecurityContextInterface == nullptr && !(Entry.Flags & ENTRY_MUST_RUN)) {
        RefuseUnbound(Request);
        return Request.Status;
    }
    const PIRP Irp = Request.Irp;
    IRP_CONTEXT Frame;
    PIRP_CONTEXT IrpContext = NtFsdCreateIrpContext(Irp, IoIsOperationSynchronous(Irp));
    if (IrpContext == nullptr) {
        if (Entry.NoContext != nullptr) {
            NtFsdDebugPrint(Entry.Mask, 0, "%s", Entry.NoContext);
        }
        if (!(Entry.Flags & ENTRY_MUST_RUN)) {
            return NtFsdCompleteRequest(nullptr, Irp, STATUS_INSUFFICIENT_RESOURCES);
        }
        IrpContext = NtFsdMakeFrameContext(Frame, Irp);
    }
    if (Request.Cancelled) {
        IrpContext->Flags |= IRP_CONTEXT_FLAG_ANSWER_CANCELLED;
    }
    return Entry.Common(IrpContext);
}

NTSTATUS ServeInRegion(const ENTRY &Entry, ENTRY_REQUEST &Request) {
    if (Entry.InRegion != nullptr && Entry.InRegion(Request)) {
        return Request.Status;
    }
    if (Entry.Flags & ENTRY_DECODES) {
        PFCB Fcb;
        PINSTANCE_CONTEXT Instance;
        Request.Status = NtFsdDecodeFileObject(Request.FileObject, &Fcb, &Instance, Entry.OpenType);
    }
    if (Entry.Decoded != nullptr && Entry.Decoded(Request)) {
        return Request.Status;
    }
    if (!NT_SUCCESS(Request.Status)) {
        return NtFsdCompleteRequest(nullptr, Request.Irp, Request.Cancelled ? STATUS_CANCELLED : Request.Status);
    }
    return RunWithContext(Entry, Request);
}

// What comes before the critical region. TRUE: the request is completed.
bool IsRefused(const ENTRY &Entry, ENTRY_REQUEST &Request) {
    if ((Entry.Flags & ENTRY_BINDS) && !NT_SUCCESS(NtFsdEnsureFrameworkBound())) {
        return Entry.Unbound != nullptr ? Entry.Unbound(Request) : RefuseUnbound(Request);
    }
    Request.Cancelled = (Entry.Flags & ENTRY_TESTS_CANCEL) && IsCancelled(Request.Irp);
    if (Request.Cancelled) {
        NtFsdDebugPrint(Entry.Mask, 0, "%s() called with a cancelled Irp\n", Entry.Name);
        if (!(Entry.Flags & ENTRY_MUST_RUN)) {
            return Complete(Request, STATUS_CANCELLED);
        }
    }
    return Entry.Admitted != nullptr && Entry.Admitted(Request);
}

NTSTATUS Serve(const ENTRY &Entry, ENTRY_REQUEST &Request) {
    const RequestInFlight InFlight(IoGetCurrentIrpStackLocation(Request.Irp)->MajorFunction);
    if (!InFlight) {
        // Opens that outlived teardown may still be cleaned up and closed. Everything else is refused as if the
        // framework were gone.
        Entry.Stopped != nullptr ? Entry.Stopped(Request) : RefuseUnbound(Request);
        return Request.Status;
    }
    if (IsRefused(Entry, Request)) {
        return Request.Status;
    }
    NTSTATUS Status;
    {
        const CriticalRegion Region;
        const TopLevelIrp TopLevel(Request.Irp);
        Status = ServeInRegion(Entry, Request);
    }
    NtFsdDebugPrint(Entry.Mask, 0, "%s%s() returning 0x%x\n", (Entry.Flags & ENTRY_RETURN_RUN) ? "<<<<<<<<<<<<<" : "",
                    Entry.Name, Status);
    return Status;
}

NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT, PIRP Irp) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    const ENTRY &Entry = Table.Entries[IrpSp->MajorFunction];
    NtFsdDebugPrint(TRACE_ENTRY, 0, "<<<<<<<<<<<<<%s() entered\n", Entry.Name);
    ENTRY_REQUEST Request = {.Irp = Irp, .FileObject = IrpSp->FileObject, .Cancelled = false, .Status = STATUS_SUCCESS};
    if (Entry.Whole != nullptr) {
        Entry.Whole(Request);
        return Request.Status;
    }
    return Serve(Entry, Request);
}

} // namespace

WORKER_ROUTINE NtFsdWorkerRoutine(UCHAR MajorFunction) {
    const ENTRY &Entry = Table.Entries[MajorFunction];
    return {Entry.WorkerName, Entry.WorkerName != nullptr ? Entry.Common : nullptr};
}

void NtFsdFillDispatchTable(PDRIVER_OBJECT DriverObject) {
    for (ULONG MajorFunction = 0; MajorFunction <= IRP_MJ_MAXIMUM_FUNCTION; ++MajorFunction) {
        if (Table.Entries[MajorFunction].Name != nullptr) {
            DriverObject->MajorFunction[MajorFunction] = Dispatch;
        }
    }
}
