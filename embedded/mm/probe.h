// What tests look at and plant: the sections that were closed.
#pragma once

#include "kernel/kernel.h"

namespace embedded {

// The pointers of the last section that was closed since ResetSectionCloses.
PSECTION_OBJECT_POINTERS LastSectionClosed();
void ResetSectionCloses();

} // namespace embedded
