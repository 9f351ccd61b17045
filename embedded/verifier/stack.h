// Stacks in reports: addresses, through the frames of images too, and their names.
#pragma once

#include <string>
#include <vector>

#include "kernel/kernel.h"

namespace embedded {

// What this thread reports next happened in the frame at Frame, not in the caller's: a handler of signals has a stack
// of its own. 0 for an unknown frame.
void ReportStackFrom(ULONG_PTR Frame);

// Up to Count return addresses of the calling thread, innermost first, by its frame pointers; frames compiled
// without them end the walk. Returns how many. Costs nanoseconds and never faults.
size_t CaptureStack(PVOID *Frames, size_t Count);

// The aligned words of the Bytes bytes at Start that point between Low and High. The bytes may be poisoned.
std::vector<const void *> PointersWithin(const void *Start, size_t Bytes, const void *Low, const void *High);

// Address as "module+0xoffset" or "symbol+0xoffset".
std::string DescribeAddress(const void *Address);

} // namespace embedded
