// Driver-wide objects and switches, start-up and teardown.
#pragma once

#include "names/strings.h"

// What the UNC provider knows the device by.
inline constexpr UNICODE_STRING DEVICE_NAME = ConstantString(WTEXT("\\Device\\RvFsd"));

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

// A 32-bit switch of the service key; Default when it cannot be read.
inline ULONG NtFsdReadSwitch(PCWSTR Name, ULONG Default) {
    ULONG Value = Default;
    ULONG Length = 0;
    // A failed read leaves the default in force.
    static_cast<void>(NtFsdReadServiceValue(Name, REG_DWORD, sizeof(Value), &Value, &Length));
    return Value;
}

// Undoes start-up according to g_uInitStage. Own is the number of requests that the caller has counted in. FALSE when
// another request does not end: everything is left as it is, and new requests stay refused.
bool NtFsdTeardown(LONG Own);

VOID NTAPI NtFsdFinishDriverInit(PVOID Context);

// ---- Requests in flight --------------------------------------------------------------------------------------------

// What is in flight without being a request: calls of the class factory and of fast I/O, workers.
inline constexpr UCHAR IN_FLIGHT_CALL = IRP_MJ_MAXIMUM_FUNCTION + 1;
inline constexpr UCHAR IN_FLIGHT_WORKER = IRP_MJ_MAXIMUM_FUNCTION + 2;
inline constexpr UCHAR IN_FLIGHT_KINDS = IRP_MJ_MAXIMUM_FUNCTION + 3;

// Enters a request of MajorFunction (or one of the above); FALSE once teardown has begun, and then nothing of the
// driver may be used. NtFsdLeaveRequest with the same function follows, of the same thread or another.
bool NtFsdEnterRequest(UCHAR MajorFunction);
void NtFsdLeaveRequest(UCHAR MajorFunction);
// Counts in once more what a request that is in flight hands to another thread.
void NtFsdKeepRequest(UCHAR MajorFunction);
// TRUE once teardown has begun.
bool NtFsdIsStopped();
// Lets a teardown that waits look again. IRQL up to DISPATCH_LEVEL.
void NtFsdWakeTeardown();
// Refuses new requests and waits until those in flight have left. Own is the number of holds of the calling thread.
// Says every ten seconds what it waits for, and gives up after a minute: then FALSE.
bool NtFsdStopRequests(LONG Own);

// A request in flight, by scope.
class [[nodiscard]] RequestInFlight {
public:
    explicit RequestInFlight(UCHAR MajorFunction = IN_FLIGHT_CALL)
        : MajorFunction_(MajorFunction), Entered_(NtFsdEnterRequest(MajorFunction)) {
    }
    RequestInFlight(const RequestInFlight &) = delete;
    RequestInFlight &operator=(const RequestInFlight &) = delete;
    ~RequestInFlight() {
        if (Entered_) {
            NtFsdLeaveRequest(MajorFunction_);
        }
    }
    explicit operator bool() const {
        return Entered_;
    }

private:
    UCHAR MajorFunction_;
    bool Entered_;
};
