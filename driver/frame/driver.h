// Driver-wide objects and switches, start-up and teardown.
#pragma once

#include "kernel/kernel.h"

extern PDEVICE_OBJECT g_pDeviceObject;
extern ULONG g_uInitStage;
extern LONG g_bDriverEntryDone;

// Switches, read once by DriverEntry.
extern BOOLEAN g_bEnableDirectoryNotify;
extern BOOLEAN g_bEnableAsyncIo;
extern BOOLEAN g_bUNCPathFilterBehavior;
extern BOOLEAN g_bFailDeleteInUseWorkaround;
extern BOOLEAN g_bDeferDeleteAccessCheck;

struct DEVICE_EXTENSION {
    HANDLE MupHandle;
    UNICODE_STRING DeviceName;
    UNICODE_STRING VersionName;
    WCHAR DeviceNameBuffer[30];
    WCHAR VersionNameBuffer[25];
};
static_assert(offsetof(DEVICE_EXTENSION, DeviceName) == 8 && offsetof(DEVICE_EXTENSION, VersionName) == 24 &&
              offsetof(DEVICE_EXTENSION, DeviceNameBuffer) == 40 &&
              offsetof(DEVICE_EXTENSION, VersionNameBuffer) == 100);

// Start-up stages, as teardown enters them. 2, 3, 4 and 9 are teardown steps that start-up never sets.
enum INIT_STAGE : ULONG {
    INIT_STAGE_NONE = 0,
    INIT_STAGE_DEVICE = 1,
    INIT_STAGE_LOOKASIDE = 5,
    INIT_STAGE_OUR_DEVICE = 6,
    INIT_STAGE_TABLES = 7,
    INIT_STAGE_REGISTERED = 8,
};

// Reads a value of at most 4 bytes from the service key into Buffer, which keeps its default when the read fails. Type
// and Size are not used. ResultLength receives the value's length when the value exists. IRQL PASSIVE_LEVEL.
NTSTATUS NtFsdReadServiceValue(PCWSTR ValueName, ULONG Type, ULONG Size, PVOID Buffer, PULONG ResultLength);

// Undoes start-up according to g_uInitStage.
VOID NtFsdTeardown();

VOID NTAPI NtFsdFinishDriverInit(PVOID Context);

// ---- Requests in flight --------------------------------------------------------------------------------------------

// Enters a request; FALSE once teardown has begun, and then nothing of the driver may be used. LeaveRequest follows.
bool NtFsdEnterRequest();
void NtFsdLeaveRequest();
// TRUE once teardown has begun.
bool NtFsdIsStopped();
// Refuses new requests and waits until those in flight have left. Own is the number of holds of the calling thread.
void NtFsdStopRequests(LONG Own);

// A request in flight, by scope.
class [[nodiscard]] RequestInFlight {
public:
    RequestInFlight() : Entered_(NtFsdEnterRequest()) {
    }
    RequestInFlight(const RequestInFlight &) = delete;
    RequestInFlight &operator=(const RequestInFlight &) = delete;
    ~RequestInFlight() {
        if (Entered_) {
            NtFsdLeaveRequest();
        }
    }
    explicit operator bool() const {
        return Entered_;
    }

private:
    bool Entered_;
};
