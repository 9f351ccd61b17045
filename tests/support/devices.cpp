#include "tests/support/devices.h"

#include "embedded/io/objects.h"
#include "embedded/mup.h"
#include "embedded/names/names.h"

namespace test {

using namespace embedded;

PDEVICE_OBJECT DeviceFromName(std::u16string_view Name) noexcept {
    ParsedName Parsed;
    if (!NT_SUCCESS(LookupName(Name, true, &Parsed)) || !Parsed.Remaining.empty()) {
        return nullptr;
    }
    Ref<DeviceObject> Device;
    if (Parsed.Target->Type() == ObjectType::Device) {
        Device = std::move(Parsed.Target).As<DeviceObject>();
    } else if (Parsed.Target->Type() == ObjectType::UncProvider) {
        Device = DeviceOfProvider(*Parsed.Target.Get());
    }
    return Device ? &Device.Release()->Nt : nullptr;
}

} // namespace test
