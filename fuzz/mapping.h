// Map requests and UTF-8 text of arbitrary bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Runs one input through a started driver: as a map request that ends where the input ends, as text for the UTF-8
// decoder, and as a path to be verified. Stops the process on a finding: memory errors by the sanitizer, everything
// else by an assertion of its own or by the kernel's verifier. One driver serves all inputs.
void RunMapping(const uint8_t *Data, size_t Size);

// Stops that driver and proves that nothing is left.
void StopMapping();

} // namespace fuzz
