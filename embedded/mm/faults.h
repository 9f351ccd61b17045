// What becomes of a fault of the processor's: a probe fails, a driver that is to blame is reported with its lines, and
// everything else goes on to the handler that was there before.
//
// Probing touches each page with a guarded instruction.
#pragma once

#include "kernel/kernel.h"

namespace embedded {

// Installs the handler, if that has not been done.
void WatchFaults();

// Whether [Address, Address + Length) can be read (written); a write probe leaves the bytes as they are.
bool ProbeRange(const void *Address, SIZE_T Length, bool Write);

} // namespace embedded
