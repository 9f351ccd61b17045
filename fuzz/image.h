// Driver images, and the debug information beside them, of arbitrary bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Reads Data as a driver's image, with the checksum that belongs to it: random bytes would get no further than there.
// What is accepted is mapped, moved and bound, its unwind tables walked and its scopes read from many places; its code
// is never run. Stops the process when what was read breaks a promise of image/format.h; memory errors are the
// sanitizer's.
void RunImage(const uint8_t *Data, size_t Size);

// Reads Data as a PDB.
void RunDebugInformation(const uint8_t *Data, size_t Size);

} // namespace fuzz
