#include "control/our_device.h"
#include "frame/async_queue.h"
#include "frame/configuration.h"
#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/entry.h"
#include "frame/fast_io.h"
#include "frame/memory.h"
#include "frame/resources.h"
#include "mapping/drive_mapping.h"
#include "names/fcb.h"
#include "provider/binding.h"

DRIVER_GLOBAL PDEVICE_OBJECT g_pDeviceObject = nullptr;
DRIVER_GLOBAL ULONG g_uInitStage = INIT_STAGE_NONE;
DRIVER_GLOBAL LONG g_bDriverEntryDone = 0;

namespace {

constexpr UNICODE_STRING LINK_NAME = ConstantString(WTEXT("\\DosDevices\\RvFsd"));
constexpr UNICODE_STRING VERSION_NAME = ConstantString(WTEXT("v5.00.001 (07292006)"));
constexpr ULONG LOOKASIDE_TAG = 0x63787446; // "Ftxc"

void ReadSwitches() {
    g_bEnableDirectoryNotify = NtFsdReadSwitch(WTEXT("EnableDirectoryNotify"), 0) != 0;
    g_bEnableAsyncIo = NtFsdReadSwitch(WTEXT("EnableAsyncIo"), 0) != 0;
    NtFsdDebugPrint(TRACE_START, 0, "Async IO set to %d\n", static_cast<ULONG>(g_bEnableAsyncIo));
    g_bUNCPathFilterBehavior = NtFsdReadSwitch(WTEXT("UNCPathFilterBehavior"), 0) != 0;
    NtFsdDebugPrint(TRACE_START, 0, "DriverEntry set UNCPathFilterBehavior to %s.\n",
                    TrueOrFalse(g_bUNCPathFilterBehavior));
    g_bFailDeleteInUseWorkaround = NtFsdReadSwitch(WTEXT("FailDeleteInUseWorkaround"), 1) != 0;
    NtFsdDebugPrint(TRACE_START, 0, "DriverEntry set FailDeleteInUseWorkaround to %s.\n",
                    TrueOrFalse(g_bFailDeleteInUseWorkaround));
    g_bDeferDeleteAccessCheck = NtFsdReadSwitch(WTEXT("Defer Windows DELETE Access Check"), 0) != 0;
    NtFsdDebugPrint(TRACE_START, 0, "DriverEntry set Defer Windows DELETE Access Check to %s.\n",
                    TrueOrFalse(g_bDeferDeleteAccessCheck));
}

void CopyName(PUNICODE_STRING Name, PWSTR Buffer, USHORT MaximumLength, const UNICODE_STRING &Text) {
    Name->Buffer = Buffer;
    Name->MaximumLength = MaximumLength;
    Name->Length = Text.Length < MaximumLength ? Text.Length : MaximumLength;
    RtlCopyMemory(Buffer, Text.Buffer, Name->Length);
}

void SetUpDriverObject(PDRIVER_OBJECT DriverObject) {
    NtFsdFillDispatchTable(DriverObject);
    DriverObject->FastIoDispatch = NtFsdFastIoDispatch();
    const auto Extension = static_cast<DEVICE_EXTENSION *>(g_pDeviceObject->DeviceExtension);
    static_assert(sizeof(Extension->DeviceNameBuffer) == 60 && sizeof(Extension->VersionNameBuffer) == 50);
    CopyName(&Extension->DeviceName, Extension->DeviceNameBuffer, sizeof(Extension->DeviceNameBuffer), DEVICE_NAME);
    CopyName(&Extension->VersionName, Extension->VersionNameBuffer, sizeof(Extension->VersionNameBuffer), VERSION_NAME);
    NtFsdDebugPrint(TRACE_START, 0, "Setup driver name completed.\n");
}

USHORT LookasideDepth() {
    switch (MmQuerySystemSize()) {
    case MmSmallSystem:
        return 4;
    case MmMediumSystem:
        return 8;
    default:
        return 16;
    }
}

// The control device's FCB, to which opens of the device itself attach.
NTSTATUS MakeDriverFcb() {
    DriverFcb = NtFsdAllocFcb(nullptr, nullptr);
    if (DriverFcb == nullptr) {
        NtFsdAlwaysPrint("[RVFSD] NtFsdInitOurDevice NtFsdAllocFcb returned NULL.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NtFsdNobodyElse(&DriverFcb->Resource);
    NtFsdSetOpenType(DriverFcb, OPEN_TYPE_DEVICE);
    DriverFcb->UncleanCount = 1;
    DriverFcb->OpenCount = 0;
    return STATUS_SUCCESS;
}

// Sets up the FCB table, the framework's and the control device's locks, and the driver FCB. What it set up before a
// failure is either undone here or left to the teardown of the stage that was reached.
NTSTATUS NtFsdInitOurDevice() {
    NtFsdInitializeFcbTable();
    NTSTATUS Status = NtFsdInitializeResource(DRIVER_RESOURCE_FCB_TABLE, &FcbTableResource);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    ScopeExit DeleteTable([] { NtFsdDeleteResource(DRIVER_RESOURCE_FCB_TABLE); });
    Status = NtFsdInitializeResource(DRIVER_RESOURCE_FRAMEWORK_INIT, &g_FrameworkInitResource);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    InitializeListHead(&FcbList);
    g_uInitStage = INIT_STAGE_TABLES;
    DeleteTable.Drop(); // teardown of this stage deletes it
    Status = NtFsdInitializeResource(DRIVER_RESOURCE_FCB_LIST, &FcbListResource);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    NtFsdNobodyElse(&FcbListResource);
    FcbCount = 0;
    Status = NtFsdInitializeResource(DRIVER_RESOURCE_OUR_DEVICE, &g_OurDeviceResource);
    if (!NT_SUCCESS(Status)) {
        NtFsdAlwaysPrint("[RVFSD] NtFsdInitOurDevice ExInitializeResourceLite returned 0x%08X.\n", Status);
        return Status;
    }
    Status = MakeDriverFcb();
    if (!NT_SUCCESS(Status)) {
        NtFsdDeleteResource(DRIVER_RESOURCE_OUR_DEVICE);
    }
    return Status;
}

NTSTATUS MakeDevice(PDRIVER_OBJECT DriverObject) {
    const NTSTATUS Status = IoCreateDevice(DriverObject, sizeof(DEVICE_EXTENSION), nullptr,
                                           FILE_DEVICE_NETWORK_FILE_SYSTEM, 0, FALSE, &g_pDeviceObject);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "Failed creating device object 0x%X\n", Status);
        return Status;
    }
    g_uInitStage = INIT_STAGE_DEVICE;
    NtFsdDebugPrint(TRACE_START, 0, "IO Device %ls created, 0x%x\n", static_cast<PCWSTR>(DEVICE_NAME.Buffer),
                    LowPart(g_pDeviceObject));
    return STATUS_SUCCESS;
}

void OpenForRequests(PDRIVER_OBJECT DriverObject) {
    g_pDeviceObject->StackSize = 2;
    DriverObject->DriverUnload = nullptr;
    g_pDeviceObject->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    g_pDeviceObject->Characteristics = FILE_REMOTE_DEVICE;
    g_uInitStage = INIT_STAGE_OUR_DEVICE;
    NtFsdDebugPrint(TRACE_START, 0, "Calling FsRtlRegisterUncProvider()\n");
}

NTSTATUS RegisterUncProvider() {
    const auto Extension = static_cast<DEVICE_EXTENSION *>(g_pDeviceObject->DeviceExtension);
    const NTSTATUS Status =
        FsRtlRegisterUncProviderEx(&Extension->MupHandle, &Extension->DeviceName, g_pDeviceObject, 0);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "Failed to register %ls as Unc Provider, 0x%x\n",
                        static_cast<PCWSTR>(DEVICE_NAME.Buffer), Status);
        return Status;
    }
    g_uInitStage = INIT_STAGE_REGISTERED;
    UNICODE_STRING Link = LINK_NAME;
    UNICODE_STRING Target = DEVICE_NAME;
    Ignore(IoCreateSymbolicLink(&Link, &Target), "the device is reached by its own name as well");
    return STATUS_SUCCESS;
}

NTSTATUS StartDeferredThread() {
    HANDLE Thread = nullptr;
    const NTSTATUS Status = PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr, NtFsdFinishDriverInit, nullptr);
    if (NT_SUCCESS(Status)) {
        ZwClose(Thread);
    }
    return Status;
}

// After a start that failed nothing of the driver may be left: the image is about to go.
NTSTATUS FailStart(NTSTATUS Status) {
    NtFsdTeardown(0);
    NtFsdStopDebug();
    return Status;
}

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(RegistryPath);
    NtFsdInitDebug();
    NtFsdDebugPrint(TRACE_START, 0, "DriverEntry() entered\n");
    ReadSwitches();

    NTSTATUS Status = MakeDevice(DriverObject);
    if (!NT_SUCCESS(Status)) {
        NtFsdStopDebug();
        return Status;
    }
    SetUpDriverObject(DriverObject);
    ExInitializeNPagedLookasideList(&g_IrpContextLookasideList, nullptr, nullptr, 0, sizeof(IRP_CONTEXT), LOOKASIDE_TAG,
                                    LookasideDepth());
    NtFsdInitAsyncQueue();
    g_uInitStage = INIT_STAGE_LOOKASIDE;

    Status = NtFsdInitOurDevice();
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "Failed to initialize our device support, 0x%x\n", Status);
        NtFsdAlwaysPrint("[RVFSD] DriverEntry NtFsdInitOurDevice returned 0x%08X.\n", Status);
        return FailStart(STATUS_UNSUCCESSFUL);
    }
    OpenForRequests(DriverObject);
    Status = RegisterUncProvider();
    if (!NT_SUCCESS(Status)) {
        return FailStart(Status);
    }
    Status = NtFsdInitMappedDevices();
    if (!NT_SUCCESS(Status)) {
        return FailStart(Status);
    }

    // From here on nothing is undone: a missing deferred thread only leaves the device closed to ordinary users.
    Status = StartDeferredThread();
    __atomic_store_n(&g_bDriverEntryDone, 1, __ATOMIC_RELEASE);
    NtFsdDebugPrint(TRACE_START, 0, "DriverEntry() exiting, status = 0x%x\n", Status);
    return Status;
}
