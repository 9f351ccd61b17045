// Tables of operations whose unused positions end the program loudly: a call of a slot that no contract names is a
// fault of the caller, and a test must not survive it.
#pragma once

#include "kernel/kernel.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace providers {

// Interface names, as template arguments.
struct RvplName {
    static constexpr const char *Text = "RVPL";
};
struct SecurityName {
    static constexpr const char *Text = "Local Security Context";
};
struct PlainObjectName {
    static constexpr const char *Text = "component object";
};
struct ProviderName {
    static constexpr const char *Text = "Provider";
};

template <class Interface, size_t Slot>
[[noreturn]] void NTAPI Trap() noexcept {
    std::fprintf(stderr, "unexpected slot %zu of %s called\n", Slot, Interface::Text);
    std::abort();
}

template <class Interface, size_t... Slots>
std::array<PVOID, sizeof...(Slots)> TrapPointers(std::index_sequence<Slots...>) {
    return {reinterpret_cast<PVOID>(&Trap<Interface, Slots>)...};
}

// A Table (a record of function pointers only) with a trap in every slot; the caller overwrites what it serves.
template <class Interface, class Table>
Table TrappedTable() {
    static_assert(sizeof(Table) % sizeof(PVOID) == 0);
    const auto Pointers = TrapPointers<Interface>(std::make_index_sequence<sizeof(Table) / sizeof(PVOID)>());
    Table Filled;
    static_assert(sizeof(Pointers) == sizeof(Filled));
    std::memcpy(static_cast<void *>(&Filled), Pointers.data(), sizeof(Filled));
    return Filled;
}

} // namespace providers
