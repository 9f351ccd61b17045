// Where one thread at a time runs: the points at which the services of this kernel let a scheduler choose who goes on.
//
// While nothing is explored a point is one load.
#pragma once

#include <atomic>

#include "embedded/base/thread.h"

namespace embedded {

// What the schedule explorer is to the threads it runs. Nothing happens in a thread that is not explored.
class Scheduler {
public:
    virtual void NTAPI Reach(const char *What, const void *Object) noexcept = 0;

    // The parts of parking that it takes over; each is false for a thread that is not explored.

    // Blocks the calling thread until Wake or until the clock comes to Due; may return early.
    virtual bool Block(LONGLONG Due) noexcept = 0;
    virtual bool Wake(KThread &Thread) noexcept = 0;
    // Lets others run until somebody has released the spin lock that Object is.
    virtual bool YieldForSpinLock(const void *Object) noexcept = 0;
    virtual void NTAPI SpinLockReleased(const void *Object) noexcept = 0;

    // A system thread that an explored thread starts is explored, too: made by its starter, entered by the new thread
    // before anything else, left at its very end.
    virtual void Adopt(KThread &Thread) noexcept = 0;
    virtual void Enter(KThread &Thread) noexcept = 0;
    virtual void Leave() noexcept = 0;

protected:
    ~Scheduler() = default;
};

// Set for good by the first exploration.
inline std::atomic<Scheduler *> TheScheduler{nullptr};
// An exploration is under way.
inline std::atomic<bool> ExplorerRuns{false};

// A place where another thread may run: before and after what other threads can see. What is for reports and has static
// storage. No host lock is held, no spin lock's release is owed to the calling service.
inline void SchedulePoint(const char *What, const void *Object) {
    if (ExplorerRuns.load(std::memory_order_relaxed)) [[unlikely]] {
        TheScheduler.load(std::memory_order_relaxed)->Reach(What, Object);
    }
}

// The scheduler while it runs, for what is no point; else null.
inline Scheduler *RunningScheduler() {
    return ExplorerRuns.load(std::memory_order_relaxed) ? TheScheduler.load(std::memory_order_relaxed) : nullptr;
}

} // namespace embedded
