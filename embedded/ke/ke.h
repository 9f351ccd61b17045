// Kernel core: IRQL, spin locks, events, waits and the clock.
//
// Spin locks and events live wholly in the driver's bytes. Waits block; everything else here does not.
// Lock order inside this room: wait buckets, clock, a thread's ParkMutex, the settle count.
#pragma once

#include <limits>

#include "embedded/base/thread.h"

namespace embedded {

// IRQL for the kernel's own code and for tests. Raising to a lower level, or lowering to a higher one, stops.
KIRQL KeRaiseIrql(KIRQL NewIrql);
void KeLowerIrql(KIRQL NewIrql);

// Runs a scope at a raised IRQL.
class [[nodiscard]] RaisedIrql {
public:
    explicit RaisedIrql(KIRQL NewIrql) : Old_(KeRaiseIrql(NewIrql)) {
    }
    ~RaisedIrql() {
        KeLowerIrql(Old_);
    }
    RaisedIrql(const RaisedIrql &) = delete;
    RaisedIrql &operator=(const RaisedIrql &) = delete;

private:
    KIRQL Old_;
};

// Runs a scope in a critical region.
class [[nodiscard]] CriticalRegion {
public:
    CriticalRegion() {
        KeEnterCriticalRegion();
    }
    ~CriticalRegion() {
        KeLeaveCriticalRegion();
    }
    CriticalRegion(const CriticalRegion &) = delete;
    CriticalRegion &operator=(const CriticalRegion &) = delete;
};

// Services for callers of the kernel, beyond those that the driver uses.
void KeClearEvent(PKEVENT Event);
LONG KeReadStateEvent(PKEVENT Event);

// The time. Running: the host's clock (the program). Manual: stands still until Advance (tests).
// All times are in units of 100 ns; system time counts from 1601, interrupt time from the start of the kernel.
class Clock {
public:
    static constexpr LONGLONG Millisecond = 10'000;
    static constexpr LONGLONG Second = 10'000'000;
    static constexpr LONGLONG Never = std::numeric_limits<LONGLONG>::max();

    // Stops the clock at StartTime (system time, also the boot time from now on). Timed waits stay due as they were.
    static void SetManual(LONGLONG StartTime);
    static void SetRunning();
    static bool IsManual();

    // Manual only. Settles, then moves through every due time within Units in order, waking one waiter at a time
    // and settling after each, and ends exactly Units later. Deterministic as far as the woken threads are.
    static void Advance(LONGLONG Units);

    // Blocks, without polling, until every system thread (and every SettleWith thread) has ended or is blocked in a
    // wait of this kernel: a delay, an event, a resource. The calling thread is not counted.
    static void Settle();

    // Manual only: the time is To from now on, unless it is later already; wakes nobody.
    static void MoveTo(LONGLONG To);

    // Interrupt time of the earliest timed wait; Never when there is none.
    static LONGLONG NextDue();

    static LONGLONG SystemTime();
    static LONGLONG InterruptTime();
    static LONGLONG BootTime();
};

// The calling foreign thread takes part in Settle for the life of this object.
class [[nodiscard]] SettleWith {
public:
    SettleWith();
    ~SettleWith();
    SettleWith(const SettleWith &) = delete;
    SettleWith &operator=(const SettleWith &) = delete;
};

// For the rooms of this kernel that build their own waits: blocks the calling thread until UnparkThread or until
// Due (interrupt time; Clock::Never). May return early: callers loop over their condition.
void ParkThread(LONGLONG Due);
// Wakes Thread from its park, or lets its next park return at once. Thread counts as running from here on.
void UnparkThread(KThread &Thread);

// Counts a thread in or out of Settle; for thread start and end.
void SettleEnter();
void SettleLeave();

// Interrupt time at which a wait with this timeout (NULL: never; negative: relative; else system time) is due.
LONGLONG DueTime(const LARGE_INTEGER *Timeout);

// Wakes everybody who waits for Thread, which has ended.
void SignalThreadEnd(KThread &Thread);

// Calls Visit for every thread record, under the list's lock: Visit may read only PoolBytes and PoolBlocks.
void ForEachThread(void (*Visit)(KThread &, void *), void *Context);

// Stops when the ending (Thread is the caller's) thread still holds a lock or is still in a critical region.
void CheckThreadEnd(KThread &Thread);

// Reads the bounds of the calling thread's stack into its record; enters the record into the list of threads, and
// takes it out again.
void EnterThread(KThread &Thread);
void LeaveThread(KThread &Thread);

} // namespace embedded
