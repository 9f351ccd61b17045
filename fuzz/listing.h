// A listing whose mask, buffer lengths and Provider batch are arbitrary bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Runs one input through a started driver: searches a directory with a mask from the input while the Provider answers
// batches from the input, with buffers of lengths from the input. Stops the process on a finding: memory errors by the
// sanitizer, everything else by an assertion of its own or by the kernel's verifier. One driver serves all inputs.
void RunListing(const uint8_t *Data, size_t Size);

// Stops that driver and proves that nothing is left.
void StopListing();

} // namespace fuzz
