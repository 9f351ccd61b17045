// What tests look at and plant: the UNC provider, the system volume, the registry.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/kernel.h"

namespace embedded {

// ---- The UNC provider --------------------------------------------------------------------------------------

// The next registration fails with Status.
void FailNextUncRegistration(NTSTATUS Status) noexcept;

// The prefixes now in the cache, expired ones left out.
std::vector<std::u16string> CachedUncPrefixes();

// ---- The system volume -------------------------------------------------------------------------------------

enum class VolumeOperation { Create, Write, Delete };
// The next Count operations of that kind fail with Status and change nothing.
void FailNext(VolumeOperation Operation, NTSTATUS Status, unsigned Count = 1);

// The bytes of a file of the volume ("\Rvfsd.log"), or nothing when there is no such file.
std::optional<std::string> ReadSystemFile(std::u16string_view Name);
void WriteSystemFile(std::u16string_view Name, std::string_view Bytes);

// ---- The registry ------------------------------------------------------------------------------------------

struct RegistryValue;

// What the registry has; the deleting ones say whether there was anything.
std::optional<RegistryValue> QueryRegistryValue(std::u16string_view Key, std::u16string_view Name);
bool DeleteRegistryValue(std::u16string_view Key, std::u16string_view Name);
// Deletes the key with everything below it.
bool DeleteRegistryKey(std::u16string_view Key);

} // namespace embedded
