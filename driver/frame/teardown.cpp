// Shutdown and the undoing of a start that failed.

#include "close/close.h"
#include "control/our_device.h"
#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/entry.h"
#include "frame/resources.h"
#include "provider/binding.h"

namespace {

void Deregister() {
    NtFsdDebugPrint(TRACE_ERROR, 0, "Deregistering Unc Provider\n");
    FsRtlDeregisterUncProvider(static_cast<DEVICE_EXTENSION *>(g_pDeviceObject->DeviceExtension)->MupHandle);
}

struct TEARDOWN_STEP {
    ULONG Stage; // the stage that enters the list here
    void (*Run)();
};

constexpr TEARDOWN_STEP Steps[] = {
    {8, Deregister},
    {6, [] { NtFsdUnInitOurDevice(); }},
    {7, [] { NtFsdDeleteResource(DRIVER_RESOURCE_FCB_TABLE); }},
    {5, [] { ExDeleteNPagedLookasideList(&g_IrpContextLookasideList); }},
    {9, NtFsdDestroyClassMutex},
    {4, NtFsdReleaseSecurityContextInterface},
    {3, NtFsdReleaseProviderInterfaces},
    {2, NtFsdReleaseRvplInterface},
    {1, nullptr},
};
constexpr ULONG LAST_STAGE = 9;

void DeleteDevice() {
    if (g_pDeviceObject != nullptr) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "Deleting the device object\n");
        IoDeleteDevice(g_pDeviceObject);
        g_pDeviceObject = nullptr;
    }
}

} // namespace

VOID NtFsdTeardown() {
    const ULONG Stage = g_uInitStage;
    if (Stage == INIT_STAGE_NONE || Stage > LAST_STAGE) {
        return;
    }
    // Nothing of what follows may meet a request: new ones are refused, those in flight have left (but this one), and
    // no open keeps anything of the Provider. The opens themselves stay until their file objects go.
    NtFsdStopRequests(Stage == INIT_STAGE_REGISTERED ? 1 : 0);
    NtFsdMarkFrameworkUnbound();
    if (Stage == INIT_STAGE_REGISTERED) {
        NtFsdDetachOpens();
    }

    bool Entered = false;
    for (const TEARDOWN_STEP &Step : Steps) {
        Entered = Entered || Step.Stage == Stage;
        if (Entered && Step.Run != nullptr) {
            Step.Run();
        }
    }
    DeleteDevice();
    NtFsdDeleteResource(DRIVER_RESOURCE_FRAMEWORK_INIT);
    NtFsdDeleteResource(DRIVER_RESOURCE_FCB_LIST);
    g_uInitStage = INIT_STAGE_NONE;
}

namespace {

// Two that tear down would wait for each other.
DRIVER_GLOBAL LONG ShutdownBegun = 0;

// The request is counted in while it tears down: teardown waits for all others.
NTSTATUS Shutdown(PIRP Irp) {
    const RequestInFlight InFlight;
    if (!InFlight || !NT_SUCCESS(NtFsdEnsureFrameworkBound()) || InterlockedExchange(&ShutdownBegun, 1) != 0) {
        const NTSTATUS Status = NtFsdCompleteAtOnce(Irp, STATUS_UNSUCCESSFUL, 0, IO_NETWORK_INCREMENT);
        NtFsdDebugPrint(TRACE_CONTROL, 0, "Unable to Initialize Orrery\n");
        return Status;
    }
    const NTSTATUS Status = NtFsdCompleteAtOnce(Irp, STATUS_NOT_SUPPORTED, 0, IO_NETWORK_INCREMENT);
    NtFsdTeardown();
    NtFsdDebugPrint(TRACE_ERROR, 0, "<<<<<<<<<<<<<NtFsdShutdown() returning STATUS_NOT_SUPPORTED\n");
    NtFsdStopDebug();
    return Status;
}

} // namespace

NTSTATUS NTAPI NtFsdShutdown(PDEVICE_OBJECT, PIRP Irp) {
    NtFsdDebugPrint(TRACE_ENTRY, 0, "<<<<<<<<<<<<<NtFsdShutdown() entered\n");
    return Shutdown(Irp);
}
