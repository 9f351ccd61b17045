// What a status of the driver, or of the Provider behind it, is to a POSIX program.
#pragma once

#include "provider/provider_interface.h"

namespace app::mount {

// The errno for a status: 0 for a success, EIO for a failure without a row of its own.
int ErrnoOf(NTSTATUS Status) noexcept;

// The same for a raw status of the Provider: what the driver would translate it to, and EIO for an error that it would
// take for a success.
int ErrnoOfProvider(RVSTATUS Status) noexcept;

} // namespace app::mount
