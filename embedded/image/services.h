// The services this kernel exports to loaded images, by name.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>
#include <vector>

namespace embedded {

enum class ResultKind : uint8_t { None, Byte, Word16, Word32, Status, Word64 };

struct Service {
    const char *Name;
    void *Address;
    ResultKind Result;
    uint8_t Arguments; // those shown in a call trace; at most four
    // May raise: its address is a gate that hands the exception to the image's own handlers.
    bool Raises;
    // Bytes of each argument that is shown; 0 for eight. The rest of its register has no meaning.
    uint8_t Sizes[4];
};

// All of them, of ntoskrnl.exe.
const std::vector<Service> &KernelServices();

// The service of that name, or null.
const Service *FindKernelService(std::string_view Name);

} // namespace embedded
