// Mappings that were given back: they stay without access for a while. One mutex, innermost.
#pragma once

#include "kernel/kernel.h"

namespace embedded {

// Gives the memory back, keeps the addresses until enough other mappings have gone.
void GiveBackMapping(void *Start, SIZE_T Bytes);

// Whether Address lies in such a mapping. Takes no lock: may be called by a handler of signals.
bool IsGoneMapping(const void *Address);

} // namespace embedded
