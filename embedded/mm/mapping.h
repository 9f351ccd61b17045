// Mappings of locked pages at an address of their own, while Verifying(): what uses one after its pages were unlocked
// stops, although the buffer itself is still there.
//
// The pages are not shared: a mapping is a copy, and what was written into it is brought to the buffer by WriteBack.
// Mappings that were given back stay without access for a while (gone_mappings.h).
#pragma once

#include "kernel/kernel.h"

namespace embedded {

// A mapping of the MDL's bytes, with the same place inside its page; the address itself where none can be made. The
// pages are locked.
PVOID MapApart(const MDL *Mdl);
// Brings what was written into the MDL's mapping to its buffer.
void WriteBack(const MDL *Mdl);
// Takes the MDL's mapping away, written back.
void UnmapApart(const MDL *Mdl);

} // namespace embedded
