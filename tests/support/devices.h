// The way to a device by its name.
#pragma once

#include <string_view>

#include "kernel/kernel.h"

namespace test {

// The device behind a name such as "\Device\RvFsd" with a reference for the caller, which embedded::DereferenceDevice
// gives back; null when there is none.
PDEVICE_OBJECT DeviceFromName(std::u16string_view Name) noexcept;

} // namespace test
