// Kernel core: thread records, IRQL, spin locks, events, waits and the clock.
//
// A thread record belongs to its thread: only the fields under "parking" are touched by others, under ParkMutex.
// Spin locks and events live wholly in the driver's bytes. Waits block; everything else here does not.
// Lock order inside this room: wait buckets, clock, a thread's ParkMutex, the settle count.
#pragma once

#include <atomic>
#include <condition_variable>
#include <limits>
#include <mutex>

#include "kernel/kernel.h"

namespace embedded {

inline constexpr KIRQL PassiveLevel = 0;
inline constexpr KIRQL ApcLevel = 1;
inline constexpr KIRQL DispatchLevel = 2;
inline constexpr KIRQL HighLevel = 15;

enum class LockKind : UCHAR { SpinLock, ResourceShared, ResourceExclusive };

// One lock that a thread holds; Count is how often (resources only).
struct HeldLock {
    PVOID Lock;
    PVOID Where;
    ULONG Count;
    LockKind Kind;
};

// A lock-order edge this thread has seen accepted already.
struct SeenEdge {
    PVOID From;
    PVOID To;
    ULONG64 Generation;
};

inline constexpr ULONG MaximumHeldLocks = 32;
inline constexpr ULONG SeenEdges = 64;
inline constexpr UCHAR ThreadObjectType = 6;

} // namespace embedded

struct _KTHREAD {
    DISPATCHER_HEADER Header; // signalled when a system thread has ended: threads can be waited for

    KIRQL Irql;
    bool SystemThread;
    bool CountsInSettle; // Clock::Settle waits for this thread
    LONG CriticalRegions;
    PIRP TopLevelIrp;
    PEPROCESS Process;
    ULONG FaultScopes;  // driver code runs: faults may be injected
    ULONG FaultExempts; // ... but not while this is set
    PMDL SpareMdl;      // the MDL freed last, while nothing is verified

    ULONG HeldCount;
    embedded::HeldLock Held[embedded::MaximumHeldLocks];
    embedded::SeenEdge Seen[embedded::SeenEdges];
    ULONG_PTR StackLow;
    ULONG_PTR StackHigh;

    // Pool of the unverified kind: written by this thread only, summed by others.
    std::atomic<LONG64> PoolBytes;
    std::atomic<LONG64> PoolBlocks;

    // Parking.
    std::mutex ParkMutex;
    std::condition_variable ParkWake;
    bool ParkToken;
    bool Parked;

    PVOID SignalStack; // for the report of a stack that is used up; null when the host's thread has one of its own
};

namespace embedded {

using KThread = _KTHREAD;

inline constinit thread_local KThread *CurrentThreadRecord = nullptr;

// What a service calls on its rare paths is NTAPI as well: a call of the host's convention would make every service
// save ten vector registers on its common path, and so would one that may throw.

// Gives the calling thread its record; it lives until the thread ends. The process of a foreign thread is System.
__attribute__((noinline)) KThread &NTAPI AttachThread() noexcept;

inline KThread &CurrentThread() {
    KThread *Thread = CurrentThreadRecord;
    return Thread != nullptr ? *Thread : AttachThread();
}

// Calls Visit for every thread record, under the list's lock: Visit may read only PoolBytes and PoolBlocks.
void ForEachThread(void (*Visit)(KThread &, void *), void *Context);

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

// Lock bookkeeping, shared by spin locks and resources. Where is the caller's return address.
inline HeldLock *FindHeld(KThread &Thread, const void *Lock) {
    for (ULONG Index = Thread.HeldCount; Index-- > 0;) {
        if (Thread.Held[Index].Lock == Lock) {
            return &Thread.Held[Index];
        }
    }
    return nullptr;
}

[[noreturn]] void NTAPI ReportTooManyLocks(const KThread &Thread) noexcept;

inline void PushHeld(KThread &Thread, PVOID Lock, LockKind Kind, PVOID Where) {
    if (Thread.HeldCount == MaximumHeldLocks) [[unlikely]] {
        ReportTooManyLocks(Thread);
    }
    Thread.Held[Thread.HeldCount++] = {Lock, Where, 1, Kind};
}

// Moves the locks behind Held, which were taken later, one place down.
void NTAPI CloseGap(KThread &Thread, HeldLock *Held) noexcept;

inline void DropHeld(KThread &Thread, HeldLock *Held) {
    if (Held != &Thread.Held[--Thread.HeldCount]) {
        CloseGap(Thread, Held);
    }
}

// Stops when the ending (Thread is the caller's) thread still holds a lock or is still in a critical region.
void CheckThreadEnd(KThread &Thread);

// Reads the bounds of the calling thread's stack into its record; enters the record into the list of threads, and
// takes it out again.
void EnterThread(KThread &Thread);
void LeaveThread(KThread &Thread);

} // namespace embedded
