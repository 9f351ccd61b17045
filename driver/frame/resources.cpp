#include "frame/resources.h"

#include "frame/memory.h"

namespace {

DRIVER_GLOBAL PERESOURCE Resources[DRIVER_RESOURCE_COUNT] = {}; // those that are set up

} // namespace

NTSTATUS NtFsdInitializeResource(DRIVER_RESOURCE Which, PERESOURCE Resource) {
    const NTSTATUS Status = ExInitializeResourceLite(Resource);
    Resources[Which] = NT_SUCCESS(Status) ? Resource : nullptr;
    return Status;
}

VOID NtFsdDeleteResource(DRIVER_RESOURCE Which) {
    if (const PERESOURCE Resource = Resources[Which]; Resource != nullptr) {
        Resources[Which] = nullptr;
        Ignore(ExDeleteResourceLite(Resource), "a resource that is set up can be deleted");
    }
}
