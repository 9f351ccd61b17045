#include "frame/entry.h"

#include "close/close.h"
#include "control/our_device.h"
#include "create/create.h"
#include "dir/directory.h"
#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/memory.h"
#include "info/query.h"
#include "info/set_information.h"
#include "io/io.h"
#include "provider/binding.h"

namespace {

// ---- Deviations -----------------------------------------------------------------------------------------------------

NTSTATUS OpenDevice(PIRP Irp, CCHAR PriorityBoost) {
    const NTSTATUS Status = NtFsdOpenOurDevice(IoGetCurrentIrpStackLocation(Irp)->FileObject);
    return NtFsdCompleteAtOnce(Irp, Status, NT_SUCCESS(Status) ? FILE_OPENED : FILE_DOES_NOT_EXIST, PriorityBoost);
}

// The device itself can be opened before the framework is there: that is how it is found at start.
bool CreateUnbound(PIRP Irp, NTSTATUS *Status) {
    const PFILE_OBJECT FileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    const WideText Name = {FileObject->FileName.Buffer, FileObject->FileName.Length / 2u};
    NtFsdDebugPrint(TRACE_CREATE, 0, "Name Length %d\n", static_cast<ULONG>(FileObject->FileName.Length));
    NtFsdDebugPrint(TRACE_CREATE, 0, "File %ws\n", Name);
    NtFsdDebugPrint(TRACE_CREATE, 0, "RelatedObject = 0x%X\n",
                    LowPart(reinterpret_cast<ULONG_PTR>(FileObject->RelatedFileObject)));
    if (!NtFsdIsDeviceOpen(FileObject)) {
        return false;
    }
    NtFsdDebugPrint(TRACE_CREATE, 0, "Open our Device at Init\n");
    *Status = OpenDevice(Irp, IO_NETWORK_INCREMENT);
    return true;
}

bool CreateSpecial(PIRP Irp, NTSTATUS *Status) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    if (IrpSp->Flags & SL_OPEN_PAGING_FILE) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCreate() asked to open paging file, returning ACCESS_DENIED\n");
        *Status = NtFsdCompleteRequest(nullptr, Irp, STATUS_ACCESS_DENIED);
        return true;
    }
    if (NtFsdIsDeviceOpen(IrpSp->FileObject)) {
        *Status = OpenDevice(Irp, IO_DISK_INCREMENT);
        NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCreate() returning 0x%x from opening device\n", *Status);
        return true;
    }
    return false;
}

bool IsDriverFcb(PFILE_OBJECT FileObject) {
    return NtFsdIsFcb(FileObject->FsContext) && FileObject->FsContext == DriverFcb;
}

// A device open is closed whatever the binding: nothing else would give its process record back.
bool CloseUnbound(PIRP Irp, NTSTATUS *Status) {
    const PFILE_OBJECT FileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (!IsDriverFcb(FileObject)) {
        return false;
    }
    *Status = NtFsdCompleteRequest(nullptr, Irp, NtFsdCloseOurDevice(FileObject));
    return true;
}

bool CleanupUnbound(PIRP Irp, NTSTATUS *Status) {
    if (!IsDriverFcb(IoGetCurrentIrpStackLocation(Irp)->FileObject)) {
        return false;
    }
    *Status = NtFsdCompleteRequest(nullptr, Irp, STATUS_SUCCESS);
    return true;
}

bool CloseSpecial(PIRP Irp, bool Cancelled, NTSTATUS *Status) {
    const PFILE_OBJECT FileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    const NTSTATUS Done = Cancelled ? STATUS_CANCELLED : STATUS_SUCCESS;
    if (FileObject->FsContext == nullptr) {
        NtFsdFreeOrphanInstance(FileObject);
        *Status = NtFsdCompleteRequest(nullptr, Irp, Done);
        return true;
    }
    if (!NtFsdIsFcb(FileObject->FsContext)) {
        // Not ours: nothing that it points to may be touched.
        FileObject->FsContext = nullptr;
        FileObject->FsContext2 = nullptr;
        FileObject->SectionObjectPointer = nullptr;
        *Status = NtFsdCompleteRequest(nullptr, Irp, Done);
        return true;
    }
    const auto Fcb = static_cast<PFCB>(FileObject->FsContext);
    NtFsdDebugPrint(TRACE_GENERAL, 0, " File Object: 0x%p -> \"%wZ\".\n", FileObject, NtFsdStablePath(Fcb));
    if (Fcb != DriverFcb) {
        return false;
    }
    Ignore(NtFsdCloseOurDevice(FileObject), "it always succeeds");
    *Status = NtFsdCompleteRequest(nullptr, Irp, Done);
    return true;
}

NTSTATUS MapNotAFile(NTSTATUS Status) {
    return Status == STATUS_INVALID_PARAMETER ? STATUS_FILE_IS_A_DIRECTORY : Status;
}

NTSTATUS MapReadDecode(NTSTATUS Status) {
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_READ, 0, "<<<<<<<<<<<<<NtFsdRead() Unable to Decode FileObject\n");
    }
    return MapNotAFile(Status);
}

// The handle of a deleted file is still cleaned up.
NTSTATUS MapDeletePending(NTSTATUS Status) {
    return Status == STATUS_DELETE_PENDING ? STATUS_SUCCESS : Status;
}

void TraceWriteMode(PIRP Irp) {
    NtFsdDebugPrint(TRACE_WRITE, 0, "   I/O Request       : %s\n",
                    IoIsOperationSynchronous(Irp) ? "Synchronous" : "Asynchronous");
}

void DefaultLockKey(PIRP_CONTEXT IrpContext) {
    ULONG *Key = &IoGetCurrentIrpStackLocation(IrpContext->Irp)->Parameters.LockControl.Key;
    if (*Key == 0) {
        *Key = LowPart(reinterpret_cast<ULONG_PTR>(IrpContext->OriginatingProcess));
    }
}

// Classes from here on are refused before anything is made for the request.
constexpr ULONG FIRST_UNKNOWN_CLASS = 56;

bool RefuseUnknownListing(PIRP Irp, NTSTATUS *Status) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    if (IrpSp->MinorFunction != IRP_MN_QUERY_DIRECTORY ||
        static_cast<ULONG>(IrpSp->Parameters.QueryDirectory.FileInformationClass) < FIRST_UNKNOWN_CLASS) {
        return false;
    }
    *Status = NtFsdCompleteRequest(nullptr, Irp, STATUS_INVALID_INFO_CLASS);
    return true;
}

NTSTATUS CommonCreate(PIRP_CONTEXT IrpContext) {
    return NtFsdCommonCreate(IrpContext, IrpContext->Irp);
}

NTSTATUS CommonDeviceControl(PIRP_CONTEXT IrpContext) {
    return NtFsdCommonDeviceControl(IrpContext, IrpContext->Irp);
}

// ---- The table ------------------------------------------------------------------------------------------------------

constexpr UCHAR ENTRY_USUAL = ENTRY_BINDS | ENTRY_TESTS_CANCEL;

enum : SIZE_T {
    ROW_CREATE,
    ROW_CLOSE,
    ROW_READ,
    ROW_WRITE,
    ROW_FLUSH,
    ROW_FSCTL,
    ROW_IOCTL,
    ROW_LOCK,
    ROW_CLEANUP,
    ROW_DIRECTORY,
    ROW_QUERY_FILE,
    ROW_QUERY_VOLUME,
    ROW_SET_FILE
};

constexpr ENTRY Entries[] = {
    {.MajorFunction = IRP_MJ_CREATE,
     .Flags = ENTRY_USUAL,
     .OpenType = 0,
     .Mask = TRACE_CREATE,
     .Name = "NtFsdCreate",
     .Common = CommonCreate,
     .Unbound = CreateUnbound,
     .AfterCancelTest = CreateSpecial},
    {.MajorFunction = IRP_MJ_CLOSE,
     .Flags = ENTRY_USUAL | ENTRY_MUST_RUN,
     .OpenType = 0,
     .Mask = TRACE_CLOSE,
     .Name = "NtFsdClose",
     .Common = NtFsdCommonClose,
     .Unbound = CloseUnbound,
     .InRegion = CloseSpecial},
    {.MajorFunction = IRP_MJ_READ,
     .Flags = ENTRY_USUAL | ENTRY_DECODES | ENTRY_RETURN_RUN,
     .OpenType = OPEN_TYPE_FILE,
     .Mask = TRACE_READ,
     .Name = "NtFsdRead",
     .Common = NtFsdCommonRead,
     .MapDecode = MapReadDecode},
    {.MajorFunction = IRP_MJ_WRITE,
     .Flags = ENTRY_USUAL | ENTRY_DECODES | ENTRY_RETURN_RUN,
     .OpenType = OPEN_TYPE_FILE,
     .Mask = TRACE_WRITE,
     .Name = "NtFsdWrite",
     .Common = NtFsdCommonWrite,
     .BeforeDecode = TraceWriteMode,
     .MapDecode = MapNotAFile},
    {.MajorFunction = IRP_MJ_FLUSH_BUFFERS,
     .Flags = ENTRY_DECODES | ENTRY_RETURN_RUN,
     .OpenType = OPEN_TYPE_FILE,
     .Mask = TRACE_FLUSH,
     .Name = "NtFsdFlushBuffers",
     .Common = NtFsdCommonFlush},
    {.MajorFunction = IRP_MJ_FILE_SYSTEM_CONTROL,
     .Flags = ENTRY_USUAL,
     .OpenType = 0,
     .Mask = TRACE_CONTROL,
     .Name = "NtFsdFileSystemControl",
     .Common = CommonDeviceControl},
    {.MajorFunction = IRP_MJ_DEVICE_CONTROL,
     .Flags = ENTRY_USUAL,
     .OpenType = 0,
     .Mask = TRACE_CONTROL,
     .Name = "NtFsdDeviceControl",
     .Common = CommonDeviceControl},
    {.MajorFunction = IRP_MJ_LOCK_CONTROL,
     .Flags = ENTRY_BINDS | ENTRY_DECODES | ENTRY_RETURN_RUN,
     .OpenType = OPEN_TYPE_FILE,
     .Mask = TRACE_LOCK,
     .Name = "NtFsdLockControl",
     .Common = NtFsdCommonLockControl,
     .BeforeCommon = DefaultLockKey},
    {.MajorFunction = IRP_MJ_CLEANUP,
     .Flags = ENTRY_USUAL | ENTRY_MUST_RUN | ENTRY_DECODES,
     .OpenType = 0,
     .Mask = TRACE_CLEANUP,
     .Name = "NtFsdCleanup",
     .Common = NtFsdCommonCleanup,
     .Unbound = CleanupUnbound,
     .MapDecode = MapDeletePending},
    {.MajorFunction = IRP_MJ_DIRECTORY_CONTROL,
     .Flags = ENTRY_USUAL | ENTRY_DECODES | ENTRY_RETURN_RUN,
     .OpenType = OPEN_TYPE_DIRECTORY,
     .Mask = TRACE_DIRECTORY,
     .Name = "NtFsdDirectoryControl",
     .Common = NtFsdCommonDirectoryControl,
     .AfterDecode = RefuseUnknownListing},
    {.MajorFunction = IRP_MJ_QUERY_INFORMATION,
     .Flags = ENTRY_USUAL | ENTRY_DECODES,
     .OpenType = 0,
     .Mask = TRACE_FILE_INFO,
     .Name = "NtFsdQueryInformation",
     .Common = NtFsdCommonQueryInformation},
    {.MajorFunction = IRP_MJ_QUERY_VOLUME_INFORMATION,
     .Flags = ENTRY_USUAL | ENTRY_DECODES,
     .OpenType = 0,
     .Mask = TRACE_VOLUME_INFO,
     .Name = "NtFsdQueryVolumeInformation",
     .Common = NtFsdCommonQueryVolumeInfo},
    {.MajorFunction = IRP_MJ_SET_INFORMATION,
     .Flags = ENTRY_USUAL | ENTRY_DECODES,
     .OpenType = 0,
     .Mask = TRACE_FILE_INFO,
     .Name = "NtFsdSetInformation",
     .Common = NtFsdCommonSetInformation},
};
static_assert(Entries[ROW_CREATE].MajorFunction == IRP_MJ_CREATE && Entries[ROW_CLOSE].MajorFunction == IRP_MJ_CLOSE &&
              Entries[ROW_READ].MajorFunction == IRP_MJ_READ && Entries[ROW_WRITE].MajorFunction == IRP_MJ_WRITE &&
              Entries[ROW_FLUSH].MajorFunction == IRP_MJ_FLUSH_BUFFERS &&
              Entries[ROW_FSCTL].MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL &&
              Entries[ROW_IOCTL].MajorFunction == IRP_MJ_DEVICE_CONTROL &&
              Entries[ROW_LOCK].MajorFunction == IRP_MJ_LOCK_CONTROL &&
              Entries[ROW_CLEANUP].MajorFunction == IRP_MJ_CLEANUP &&
              Entries[ROW_DIRECTORY].MajorFunction == IRP_MJ_DIRECTORY_CONTROL &&
              Entries[ROW_QUERY_FILE].MajorFunction == IRP_MJ_QUERY_INFORMATION &&
              Entries[ROW_QUERY_VOLUME].MajorFunction == IRP_MJ_QUERY_VOLUME_INFORMATION &&
              Entries[ROW_SET_FILE].MajorFunction == IRP_MJ_SET_INFORMATION);

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

NTSTATUS RefuseUnbound(PIRP Irp) {
    const NTSTATUS Status = NtFsdCompleteAtOnce(Irp, STATUS_UNSUCCESSFUL, 0, IO_NETWORK_INCREMENT);
    NtFsdDebugPrint(TRACE_CONTROL, 0, "Unable to Initialize Orrery\n");
    return Status;
}

// After teardown only opens that are still there may end; everything else is refused as if the framework were gone.
NTSTATUS ServeAfterTeardown(const ENTRY &Entry, PIRP Irp) {
    const PFILE_OBJECT FileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    switch (Entry.MajorFunction) {
    case IRP_MJ_CLOSE:
        NtFsdCloseAfterTeardown(FileObject);
        return NtFsdCompleteAtOnce(Irp, STATUS_SUCCESS, 0, IO_NETWORK_INCREMENT);
    case IRP_MJ_CLEANUP:
        return NtFsdCompleteAtOnce(Irp, STATUS_SUCCESS, 0, IO_NETWORK_INCREMENT);
    case IRP_MJ_CREATE:
        if (NtFsdIsDeviceOpen(FileObject)) {
            return NtFsdCompleteAtOnce(Irp, STATUS_UNSUCCESSFUL, FILE_DOES_NOT_EXIST, IO_NETWORK_INCREMENT);
        }
        return RefuseUnbound(Irp);
    default:
        return RefuseUnbound(Irp);
    }
}

NTSTATUS RunWithContext(const ENTRY &Entry, PIRP Irp, bool Cancelled) {
    // The Provider is asked in somebody's name or not at all. Only a flush, which binds nothing, can come here without.
    if (g_pSecurityContextInterface == nullptr && !(Entry.Flags & ENTRY_MUST_RUN)) {
        return RefuseUnbound(Irp);
    }
    const BOOLEAN Wait = IoIsOperationSynchronous(Irp);
    IRP_CONTEXT InFrame;
    PIRP_CONTEXT IrpContext = NtFsdCreateIrpContext(Irp, Wait);
    if (IrpContext == nullptr) {
        if (Entry.MajorFunction == IRP_MJ_CREATE) {
            NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCreate() couldn't allocate Irp context\n");
        }
        if (!(Entry.Flags & ENTRY_MUST_RUN)) {
            return NtFsdCompleteRequest(nullptr, Irp, STATUS_INSUFFICIENT_RESOURCES);
        }
        IrpContext = &InFrame;
        NtFsdFillIrpContext(IrpContext, Irp, TRUE, IRP_CONTEXT_FLAG_IN_FRAME);
    }
    if (Cancelled) {
        IrpContext->Flags |= IRP_CONTEXT_FLAG_ANSWER_CANCELLED;
    }
    if (Entry.BeforeCommon != nullptr) {
        Entry.BeforeCommon(IrpContext);
    }
    return Entry.Common(IrpContext);
}

NTSTATUS ServeInRegion(const ENTRY &Entry, PIRP Irp, bool Cancelled) {
    NTSTATUS Status;
    if (Entry.InRegion != nullptr && Entry.InRegion(Irp, Cancelled, &Status)) {
        return Status;
    }
    if (Entry.BeforeDecode != nullptr) {
        Entry.BeforeDecode(Irp);
    }
    if (Entry.Flags & ENTRY_DECODES) {
        PFCB Fcb;
        PINSTANCE_CONTEXT Instance;
        Status = NtFsdDecodeFileObject(IoGetCurrentIrpStackLocation(Irp)->FileObject, &Fcb, &Instance, Entry.OpenType);
        if (Entry.MapDecode != nullptr) {
            Status = Entry.MapDecode(Status);
        }
        if (!NT_SUCCESS(Status)) {
            return NtFsdCompleteRequest(nullptr, Irp, Cancelled ? STATUS_CANCELLED : Status);
        }
    }
    if (Entry.AfterDecode != nullptr && Entry.AfterDecode(Irp, &Status)) {
        return Status;
    }
    return RunWithContext(Entry, Irp, Cancelled);
}

NTSTATUS Serve(const ENTRY &Entry, PIRP Irp) {
    NtFsdDebugPrint(TRACE_ENTRY, 0, "<<<<<<<<<<<<<%s() entered\n", Entry.Name);
    const RequestInFlight InFlight;
    if (!InFlight) {
        return ServeAfterTeardown(Entry, Irp);
    }
    NTSTATUS Status;
    if ((Entry.Flags & ENTRY_BINDS) && !NT_SUCCESS(NtFsdEnsureFrameworkBound())) {
        if (Entry.Unbound != nullptr && Entry.Unbound(Irp, &Status)) {
            return Status;
        }
        return RefuseUnbound(Irp);
    }
    const bool Cancelled = (Entry.Flags & ENTRY_TESTS_CANCEL) && IsCancelled(Irp);
    if (Cancelled) {
        NtFsdDebugPrint(Entry.Mask, 0, "%s() called with a cancelled Irp\n", Entry.Name);
        if (!(Entry.Flags & ENTRY_MUST_RUN)) {
            return NtFsdCompleteRequest(nullptr, Irp, STATUS_CANCELLED);
        }
    }
    if (Entry.AfterCancelTest != nullptr && Entry.AfterCancelTest(Irp, &Status)) {
        return Status;
    }
    {
        const CriticalRegion Region;
        const TopLevelIrp TopLevel(Irp);
        Status = ServeInRegion(Entry, Irp, Cancelled);
    }
    NtFsdDebugPrint(Entry.Mask, 0, "%s%s() returning 0x%x\n", (Entry.Flags & ENTRY_RETURN_RUN) ? "<<<<<<<<<<<<<" : "",
                    Entry.Name, Status);
    return Status;
}

} // namespace

NTSTATUS NtFsdCompleteAtOnce(PIRP Irp, NTSTATUS Status, ULONG_PTR Information, CCHAR PriorityBoost) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IofCompleteRequest(Irp, PriorityBoost);
    return Status;
}

NTSTATUS NtFsdRunCommonRoutine(PIRP_CONTEXT IrpContext) {
    for (const ENTRY &Entry : Entries) {
        if (Entry.MajorFunction == IrpContext->MajorFunction) {
            if (IrpContext->MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL ||
                IrpContext->MajorFunction == IRP_MJ_DEVICE_CONTROL) {
                break; // a posted control has no common routine left to run
            }
            return Entry.Common(IrpContext);
        }
    }
    return NtFsdCompleteRequest(IrpContext, IrpContext->Irp, STATUS_INVALID_DEVICE_REQUEST);
}

// ---- The dispatch routines

NTSTATUS NTAPI NtFsdCreate(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_CREATE], Irp);
}

NTSTATUS NTAPI NtFsdClose(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_CLOSE], Irp);
}

NTSTATUS NTAPI NtFsdRead(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_READ], Irp);
}

NTSTATUS NTAPI NtFsdWrite(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_WRITE], Irp);
}

NTSTATUS NTAPI NtFsdFlushBuffers(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_FLUSH], Irp);
}

NTSTATUS NTAPI NtFsdFileSystemControl(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_FSCTL], Irp);
}

NTSTATUS NTAPI NtFsdDeviceControl(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_IOCTL], Irp);
}

NTSTATUS NTAPI NtFsdLockControl(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_LOCK], Irp);
}

NTSTATUS NTAPI NtFsdCleanup(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_CLEANUP], Irp);
}

NTSTATUS NTAPI NtFsdQueryInformation(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_QUERY_FILE], Irp);
}

NTSTATUS NTAPI NtFsdSetInformation(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_SET_FILE], Irp);
}

NTSTATUS NTAPI NtFsdQueryVolumeInformation(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_QUERY_VOLUME], Irp);
}

NTSTATUS NTAPI NtFsdDirectoryControl(PDEVICE_OBJECT, PIRP Irp) {
    return Serve(Entries[ROW_DIRECTORY], Irp);
}

// Extended attributes are not offered: files have none, and a set is accepted and stores nothing.
NTSTATUS NTAPI NtFsdQueryEa(PDEVICE_OBJECT, PIRP Irp) {
    NtFsdDebugPrint(TRACE_ENTRY, 0, "<<<<<<<<<<<<<NtFsdQueryEa() entered\n");
    return NtFsdCompleteAtOnce(Irp, STATUS_NO_EAS_ON_FILE, 0, IO_DISK_INCREMENT);
}

NTSTATUS NTAPI NtFsdSetEa(PDEVICE_OBJECT, PIRP Irp) {
    NtFsdDebugPrint(TRACE_ENTRY, 0, "<<<<<<<<<<<<<NtFsdSetEa() entered\n");
    return NtFsdCompleteAtOnce(Irp, STATUS_SUCCESS, 0, IO_DISK_INCREMENT);
}

void NtFsdFillDispatchTable(PDRIVER_OBJECT DriverObject) {
    DriverObject->MajorFunction[IRP_MJ_CREATE] = NtFsdCreate;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = NtFsdClose;
    DriverObject->MajorFunction[IRP_MJ_READ] = NtFsdRead;
    DriverObject->MajorFunction[IRP_MJ_WRITE] = NtFsdWrite;
    DriverObject->MajorFunction[IRP_MJ_QUERY_EA] = NtFsdQueryEa;
    DriverObject->MajorFunction[IRP_MJ_SET_EA] = NtFsdSetEa;
    DriverObject->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = NtFsdFlushBuffers;
    DriverObject->MajorFunction[IRP_MJ_QUERY_INFORMATION] = NtFsdQueryInformation;
    DriverObject->MajorFunction[IRP_MJ_QUERY_VOLUME_INFORMATION] = NtFsdQueryVolumeInformation;
    DriverObject->MajorFunction[IRP_MJ_SET_INFORMATION] = NtFsdSetInformation;
    DriverObject->MajorFunction[IRP_MJ_DIRECTORY_CONTROL] = NtFsdDirectoryControl;
    DriverObject->MajorFunction[IRP_MJ_FILE_SYSTEM_CONTROL] = NtFsdFileSystemControl;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = NtFsdDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_SHUTDOWN] = NtFsdShutdown;
    DriverObject->MajorFunction[IRP_MJ_LOCK_CONTROL] = NtFsdLockControl;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = NtFsdCleanup;
}
