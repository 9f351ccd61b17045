// Registry: keys and values in memory, names equal ignoring case.
//
// Key paths are written with or without a trailing backslash. One mutex guards the tree; nothing blocks. ZwOpenKey and
// ZwQueryValueKey read what the front end set here.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "kernel/kernel.h"

namespace embedded {

inline constexpr std::u16string_view kServiceKey = u"\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\RVFSD";
inline constexpr std::u16string_view kClientParametersKey = u"\\REGISTRY\\Machine\\Software\\Veyra\\Client\\Parameters";
inline constexpr std::u16string_view kSystemPolicyKey =
    u"\\REGISTRY\\Machine\\Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";

struct RegistryValue {
    ULONG Type = REG_NONE;
    std::vector<std::byte> Data;
};

void CreateRegistryKey(std::u16string_view Key);
// Makes the key when it is missing.
void SetRegistryValue(std::u16string_view Key, std::u16string_view Name, ULONG Type, std::span<const std::byte> Data);
void SetRegistryDword(std::u16string_view Key, std::u16string_view Name, ULONG Value);
void ResetRegistry() noexcept;

} // namespace embedded
