// Driver-wide objects, start-up and teardown.
#pragma once

#include "names/text.h"

// What the UNC provider knows the device by.
inline constexpr UNICODE_STRING DEVICE_NAME = ConstantString(WTEXT("\\Device\\RvFsd"));

extern PDEVICE_OBJECT g_pDeviceObject;
extern ULONG g_uInitStage;
extern LONG g_bDriverEntryDone;

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

// Undoes start-up according to g_uInitStage. Own is the number of requests that the caller has counted in. FALSE when
// another request does not end: everything is left as it is, and new requests stay refused.
bool NtFsdTeardown(LONG Own);

VOID NTAPI NtFsdFinishDriverInit(PVOID Context);
