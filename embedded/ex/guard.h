// Pool blocks that end before a page without access, and stay without access for a while when they are freed: an
// overrun and a use after free stop where they happen, in a driver's image too, into which no sanitizer sees.
//
// On with RVFSD_GUARD_POOL in the environment, or when a test says so; tracked blocks only. One mutex, innermost.
#pragma once

#include <string>

#include "kernel/kernel.h"

namespace embedded {

bool PoolGuardsOn();

// Room for Bytes, 16-byte aligned, whose last byte lies less than 16 bytes before the guard; NULL when no more can be
// guarded. Tag and Offset (of the block in it) are for reports.
void *AllocateGuarded(SIZE_T Bytes, SIZE_T Offset, ULONG Tag);
void FreeGuarded(void *Start);

// What the address has to do with a guarded block; empty when nothing. May be called by a handler of signals.
std::string DescribeGuarded(const void *Address);

} // namespace embedded
