// Which addresses are a process's. One mutex, innermost.
#pragma once

#include <atomic>
#include <string_view>

#include "embedded/verifier/report.h"

namespace embedded {

// Memory of a process. One address space serves for kernel and user here, so what is user memory has to be said: a
// driver must not hand such an address to the kernel as its own, nor be given one in a request of the kernel's.
class UserMemory {
public:
    explicit UserMemory(SIZE_T Bytes);
    ~UserMemory();
    UserMemory(const UserMemory &) = delete;
    UserMemory &operator=(const UserMemory &) = delete;

    PVOID Address() const {
        return Address_;
    }

private:
    PVOID Address_;
    SIZE_T Bytes_;
};

[[noreturn]] void NTAPI ReportUserAddress(ULONG_PTR Rule, const void *Address, std::string_view Routine) noexcept;
inline std::atomic<SIZE_T> UserMemories{0};
bool NTAPI IsUserMemory(const void *Address) noexcept;

// Stops with 0xC4/Rule when Address is a process's.
inline void RequireKernelAddress(ULONG_PTR Rule, const void *Address, std::string_view Routine) {
    if (UserMemories.load(std::memory_order_relaxed) != 0 && Verifying() && IsUserMemory(Address)) [[unlikely]] {
        ReportUserAddress(Rule, Address, Routine);
    }
}

} // namespace embedded
