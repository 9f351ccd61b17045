// The driver-wide resources: which of them are set up, so that each is deleted exactly once.
#pragma once

#include "kernel/kernel.h"

enum DRIVER_RESOURCE : ULONG {
    DRIVER_RESOURCE_FCB_TABLE,
    DRIVER_RESOURCE_FRAMEWORK_INIT,
    DRIVER_RESOURCE_FCB_LIST,
    DRIVER_RESOURCE_OUR_DEVICE,
    DRIVER_RESOURCE_MAPPED_DEVICES,
    DRIVER_RESOURCE_COUNT,
};

// Sets up Resource, which is Which from now on.
NTSTATUS NtFsdInitializeResource(DRIVER_RESOURCE Which, PERESOURCE Resource);

// Deletes it when it is set up.
VOID NtFsdDeleteResource(DRIVER_RESOURCE Which);
