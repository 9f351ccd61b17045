// Multiple UNC provider: the table of registered redirectors and the cache of claimed prefixes.
//
// Names below \Device\Mup (where \??\UNC points) have the form \server\share\rest. A claim is asked of every provider
// with IOCTL_REDIR_QUERY_PATH_EX, with no lock held; the longest one wins and is remembered for 15 minutes of the
// kernel's clock. One mutex guards table and cache.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "embedded/names/names.h"
#include "kernel/kernel.h"

namespace embedded {

class DeviceObject;

struct PathClaim {
    NTSTATUS Status;
    ULONG BytesClaimed; // of the path, 0 when nobody claims it
    bool FromCache;
};

// Asks the providers for Path (\server\share\...), past the cache, and changes nothing. Without a claim Status is
// the provider's, STATUS_BAD_NETWORK_PATH when there is no provider.
PathClaim QueryPathClaim(std::u16string_view Path);

// The device of the provider that serves Path, from the cache or by asking. *Claim may be null.
NTSTATUS ResolveUncPath(std::u16string_view Path, PIO_SECURITY_CONTEXT SecurityContext, Ref<DeviceObject> *Device,
                        PathClaim *Claim = nullptr) noexcept;

// The device behind a registered provider name (\Device\RvFsd); Target is of type UncProvider.
Ref<DeviceObject> DeviceOfProvider(Object &Target) noexcept;

struct UncProviderInfo {
    std::u16string DeviceName;
    ULONG Flags;
};
// The providers now registered, in the order of their registration.
std::vector<UncProviderInfo> RegisteredUncProviders();

// Puts \Device\Mup and \??\UNC into the name space of a fresh kernel.
void InitializeMup();
void ResetMup() noexcept;

} // namespace embedded
