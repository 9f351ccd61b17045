// What tests look at and plant: system threads, to their end.
#pragma once

#include "embedded/ke/ke.h"

namespace embedded {

// Waits until all system threads have ended and joins them. A manual clock is advanced from due time to due time,
// a running one waited for; either way at most Limit of the clock's time. Returns how many still run.
SIZE_T JoinSystemThreads(LONGLONG Limit = 60 * Clock::Second);

} // namespace embedded
