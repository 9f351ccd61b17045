#include "frame/resources.h"

#include "control/our_device.h"
#include "frame/memory.h"
#include "mapping/drive_mapping.h"
#include "names/fcb.h"
#include "provider/binding.h"

namespace {

constexpr PERESOURCE Resources[DRIVER_RESOURCE_COUNT] = {&FcbTableResource, &g_FrameworkInitResource, &FcbListResource,
                                                         &g_OurDeviceResource, &g_MappedDeviceResource};
DRIVER_GLOBAL bool SetUp[DRIVER_RESOURCE_COUNT] = {};

} // namespace

NTSTATUS NtFsdInitializeResource(DRIVER_RESOURCE Which) {
    const NTSTATUS Status = ExInitializeResourceLite(Resources[Which]);
    SetUp[Which] = NT_SUCCESS(Status);
    return Status;
}

VOID NtFsdDeleteResource(DRIVER_RESOURCE Which) {
    if (SetUp[Which]) {
        SetUp[Which] = false;
        Ignore(ExDeleteResourceLite(Resources[Which]), "a resource that is set up can be deleted");
    }
}
