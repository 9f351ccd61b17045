// The thread that opens the device up to all users, once, shortly after start.

#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/memory.h"
#include "names/strings.h"

namespace {

constexpr ACCESS_MASK PROBE_ACCESS = SYNCHRONIZE | FILE_READ_ATTRIBUTES | FILE_WRITE_DATA | FILE_READ_DATA;
constexpr ACCESS_MASK SECURITY_ACCESS = SYNCHRONIZE | WRITE_DAC | FILE_READ_DATA;
static_assert(PROBE_ACCESS == 0x00100083 && SECURITY_ACCESS == 0x00140001);
constexpr ULONG TRIES = 10;

// Static: the platform keeps no copy while it applies it.
DRIVER_GLOBAL SECURITY_DESCRIPTOR DeviceDescriptor = {};

bool DeviceOpens() {
    UNICODE_STRING Name = DEVICE_NAME;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK IoStatus = {};
    HANDLE Device = nullptr;
    const NTSTATUS Status = ZwOpenFile(&Device, PROBE_ACCESS, &Attributes, &IoStatus,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_SYNCHRONOUS_IO_ALERT);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_START, 0, "ZwCreate Status %X\n", Status);
        return false;
    }
    ZwClose(Device);
    return true;
}

// Takes the DACL off the device, so that any caller may open it.
void RvSetupDeviceAccess() {
    NtFsdDebugPrint(TRACE_ERROR, 0, "VEYFSD: Call To RvSetupDeviceAccess\n");
    NtFsdDebugPrint(TRACE_ERROR, 0, "Device Name: %ws\n", static_cast<PCWSTR>(DEVICE_NAME.Buffer));
    if (!NT_SUCCESS(RtlCreateSecurityDescriptor(&DeviceDescriptor, SECURITY_DESCRIPTOR_REVISION))) {
        return;
    }
    UNICODE_STRING Name = DEVICE_NAME;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &Name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK IoStatus = {};
    HANDLE Device = nullptr;
    const NTSTATUS Status = ZwCreateFile(&Device, SECURITY_ACCESS, &Attributes, &IoStatus, nullptr, 0, 0, FILE_OPEN_IF,
                                         FILE_SYNCHRONOUS_IO_ALERT, nullptr, 0);
    NtFsdDebugPrint(TRACE_ERROR, 0, "ZwCreate Status 0x%X\n", Status);
    if (NT_SUCCESS(Status)) {
        Ignore(NtSetSecurityObject(Device, DACL_SECURITY_INFORMATION, &DeviceDescriptor),
               "the device then stays as the platform made it");
        ZwClose(Device);
    }
}

} // namespace

VOID NTAPI NtFsdFinishDriverInit(PVOID Context) {
    UNREFERENCED_PARAMETER(Context);
    NtFsdDebugPrint(TRACE_ERROR, 0, "Call to Finish Driver Init\n");
    for (ULONG Try = 0; Try < TRIES; ++Try) {
        LARGE_INTEGER Interval;
        Interval.QuadPart = -10000000;
        KeDelayExecutionThread(KernelMode, FALSE, &Interval);
        if (DeviceOpens()) {
            break;
        }
    }
    RvSetupDeviceAccess();
    PsTerminateSystemThread(STATUS_SUCCESS);
}
