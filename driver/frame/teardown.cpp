// Shutdown and the undoing of a start that failed.

#include "close/close.h"
#include "control/our_device.h"
#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/entry.h"
#include "frame/resources.h"
#include "frame/rundown.h"
#include "frame/stop_requests.h"
#include "mapping/drive_mapping.h"
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

bool NtFsdTeardown(LONG Own) {
    const ULONG Stage = g_uInitStage;
    if (Stage == INIT_STAGE_NONE || Stage > LAST_STAGE) {
        return true;
    }
    // Nothing of what follows may meet a request: new ones are refused, those in flight have left (but this one), and
    // no open keeps anything of the Provider. The opens themselves stay until their file objects go.
    if (!NtFsdStopRequests(Own)) {
        return false;
    }
    NtFsdMarkFrameworkUnbound();
    if (Stage == INIT_STAGE_REGISTERED) {
        NtFsdDetachOpens();
        NtFsdFreeMappedDevices();
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
    NtFsdDeleteResource(DRIVER_RESOURCE_MAPPED_DEVICES);
    NtFsdDeleteResource(DRIVER_RESOURCE_FCB_LIST);
    g_uInitStage = INIT_STAGE_NONE;
    return true;
}

namespace {

// Two that tear down would wait for each other. A shutdown that gave up leaves it to the next one, if any comes.
DRIVER_GLOBAL LONG ShutdownBegun = 0;
DRIVER_GLOBAL LONG GaveUp = 0;

// TRUE when this request is to tear down. It is counted in meanwhile: teardown waits for all others.
bool BeginsShutdown(bool InFlight) {
    if (!InFlight) {
        return InterlockedExchange(&GaveUp, 0) != 0;
    }
    return NT_SUCCESS(NtFsdEnsureFrameworkBound()) && InterlockedExchange(&ShutdownBegun, 1) == 0;
}

} // namespace

bool NtFsdServeShutdown(ENTRY_REQUEST &Request) {
    const RequestInFlight InFlight(IRP_MJ_SHUTDOWN);
    if (!BeginsShutdown(static_cast<bool>(InFlight))) {
        Request.Status = NtFsdCompleteAtOnce(Request.Irp, STATUS_UNSUCCESSFUL, 0, IO_NETWORK_INCREMENT);
        NtFsdDebugPrint(TRACE_CONTROL, 0, "Unable to Initialize Orrery\n");
        return true;
    }
    Request.Status = NtFsdCompleteAtOnce(Request.Irp, STATUS_NOT_SUPPORTED, 0, IO_NETWORK_INCREMENT);
    const bool Done = NtFsdTeardown(InFlight ? 1 : 0);
    NtFsdDebugPrint(TRACE_ERROR, 0, "<<<<<<<<<<<<<NtFsdShutdown() returning STATUS_NOT_SUPPORTED\n");
    if (Done) {
        NtFsdStopDebug();
    } else {
        InterlockedExchange(&GaveUp, 1); // the log writer lives on: the log tells what the shutdown waited for
    }
    return true;
}
