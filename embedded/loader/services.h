// The services this kernel exports to loaded images, by name.
#pragma once

#include <string_view>
#include <vector>

#include "embedded/image/calls.h"

namespace embedded {

// All of them, of ntoskrnl.exe.
const std::vector<Service> &KernelServices();

// The service of that name, or null.
const Service *FindKernelService(std::string_view Name);

} // namespace embedded
