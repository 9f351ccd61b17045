// What may be given to a Zw routine.
#pragma once

#include "embedded/verifier/user_memory.h"

namespace embedded {

// Stops with 0xC4/0xE4 when String has an odd length, or one longer than its buffer.
void CheckZwString(PCUNICODE_STRING String) noexcept;
// Stops with 0xC4/0xE3 when a pointer is an address of a process.
template <typename... T>
void CheckZwPointers(std::string_view Routine, const T *...Pointers) {
    (RequireKernelAddress(bugcheck::UserAddressToZw, Pointers, Routine), ...);
}

} // namespace embedded
