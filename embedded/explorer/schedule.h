// Where one thread at a time runs: the points at which the services of this kernel let the explorer choose who goes on.
//
// Everything else of the kernel includes this file only. While nothing is explored a point is one load.
#pragma once

#include <atomic>

#include "embedded/ke/thread.h"

namespace embedded {

inline std::atomic<bool> ExplorerRuns{false};

__attribute__((noinline)) void NTAPI ReachPoint(const char *What, const void *Object) noexcept;

// A place where another thread may run: before and after what other threads can see. What is for reports and has static
// storage. No host lock is held, no spin lock's release is owed to the calling service. Nothing happens in a thread
// that is not explored.
inline void SchedulePoint(const char *What, const void *Object) {
    if (ExplorerRuns.load(std::memory_order_relaxed)) [[unlikely]] {
        ReachPoint(What, Object);
    }
}

// The parts of parking that the explorer takes over; each is false or does nothing for a thread that is not explored.

// Blocks the calling thread until WakeExplored or until the clock comes to Due; may return early.
bool BlockExplored(LONGLONG Due) noexcept;
bool WakeExplored(KThread &Thread) noexcept;
// Lets others run until somebody has released the spin lock that Object is.
bool YieldForSpinLock(const void *Object) noexcept;
void SpinLockReleased(const void *Object) noexcept;

// A system thread that an explored thread starts is explored, too: made by its starter, entered by the new thread
// before anything else, left at its very end. Null is for a thread that is not explored.
struct ExploredThread;
ExploredThread *AdoptThread(KThread &Thread) noexcept;
void EnterExplored(ExploredThread *Explored) noexcept;
void LeaveExplored() noexcept;

} // namespace embedded
