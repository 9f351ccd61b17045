// Parking, settling, events and waits.
#include <algorithm>
#include <array>
#include <chrono>
#include <map>

#include <fmt/format.h>

#include "embedded/base/time.h"
#include "embedded/image/calls.h"
#include "embedded/ke/ke.h"
#include "embedded/ke/schedule.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/user_memory.h"

namespace embedded {
namespace {

struct Timer {
    KThread *Thread;
    bool Queued;
    std::multimap<LONGLONG, Timer *>::iterator Place;
};

struct ClockState {
    std::mutex Mutex;
    std::multimap<LONGLONG, Timer *> Timers; // equal due times stay in order of arrival
};

ClockState &State() {
    static ClockState &Instance = *new ClockState;
    return Instance;
}

struct SettleState {
    std::mutex Mutex;
    std::condition_variable Changed;
    LONG Running = 0;
};

SettleState &Settling() {
    static SettleState &Instance = *new SettleState;
    return Instance;
}

// Queues the timer; tells whether the clock is manual at that moment.
bool QueueTimer(Timer &Entry, LONGLONG Due) {
    std::lock_guard Guard(State().Mutex);
    Entry.Place = State().Timers.emplace(Due, &Entry);
    Entry.Queued = true;
    return Time().Manual;
}

void RemoveTimer(Timer &Entry) {
    std::lock_guard Guard(State().Mutex);
    if (Entry.Queued) {
        State().Timers.erase(Entry.Place);
    }
}

// Due == Never: until the token comes.
void WaitForToken(KThread &Thread, const SteadyClock::time_point *Deadline) {
    std::unique_lock Lock(Thread.ParkMutex);
    if (!Thread.ParkToken) {
        Thread.Parked = true;
        if (Thread.CountsInSettle) {
            SettleLeave();
        }
        auto Woken = [&] { return Thread.ParkToken; };
        if (Deadline == nullptr) {
            Thread.ParkWake.wait(Lock, Woken);
        } else if (!Thread.ParkWake.wait_until(Lock, *Deadline, Woken)) {
            Thread.Parked = false;
            if (Thread.CountsInSettle) {
                SettleEnter();
            }
        }
    }
    Thread.ParkToken = false;
}

// Wakes the waiter of the earliest timer at or before Limit, after moving the clock to its time.
bool FireNext(LONGLONG Limit) {
    ClockState &Clock = State();
    std::lock_guard Guard(Clock.Mutex);
    auto First = Clock.Timers.begin();
    if (First == Clock.Timers.end() || First->first > Limit) {
        return false;
    }
    if (First->first > Time().ManualNow) {
        Time().ManualNow = First->first;
    }
    First->second->Queued = false;
    UnparkThread(*First->second->Thread);
    Clock.Timers.erase(First);
    return true;
}

// ---- Dispatcher objects: waiters by address ---------------------------------------------------------------

struct Waiter {
    const void *Object;
    KThread *Thread;
    bool Satisfied;
    Waiter *Next;
};

struct Bucket {
    std::mutex Mutex;
    Waiter *First = nullptr;
};

Bucket &BucketOf(const void *Object) {
    static auto &Buckets = *new std::array<Bucket, 64>;
    return Buckets[(reinterpret_cast<ULONG_PTR>(Object) >> 4) * 0x9E3779B97F4A7C15ull >> 58];
}

void Append(Bucket &Place, Waiter &Entry) {
    Waiter **Link = &Place.First;
    while (*Link != nullptr) {
        Link = &(*Link)->Next;
    }
    *Link = &Entry;
}

void Remove(Bucket &Place, const Waiter &Entry) {
    for (Waiter **Link = &Place.First; *Link != nullptr; Link = &(*Link)->Next) {
        if (*Link == &Entry) {
            *Link = Entry.Next;
            return;
        }
    }
}

// Satisfies the waiters of Object, oldest first, at most Limit of them; the bucket is locked. TRUE if any.
bool WakeWaiters(Bucket &Place, const void *Object, bool OnlyFirst) {
    bool Any = false;
    for (Waiter **Link = &Place.First; *Link != nullptr;) {
        Waiter *Entry = *Link;
        if (Entry->Object != Object) {
            Link = &Entry->Next;
            continue;
        }
        *Link = Entry->Next;
        Entry->Satisfied = true;
        UnparkThread(*Entry->Thread);
        Any = true;
        if (OnlyFirst) {
            break;
        }
    }
    return Any;
}

std::atomic_ref<LONG> SignalOf(DISPATCHER_HEADER &Header) {
    return std::atomic_ref<LONG>(Header.SignalState);
}

void VerifyWait(const DISPATCHER_HEADER &Header, KPROCESSOR_MODE Mode, const LARGE_INTEGER *Timeout) {
    const KThread &Thread = CurrentThread();
    const bool MayBlock = Timeout == nullptr || Timeout->QuadPart != 0;
    auto Address = reinterpret_cast<ULONG_PTR>(&Header);
    if (Thread.Irql > DispatchLevel || (MayBlock && Thread.Irql == DispatchLevel)) {
        BugCheck(bugcheck::Verifier, MayBlock ? bugcheck::WaitAtDispatch : bugcheck::WaitAboveDispatch, Thread.Irql,
                 Address, 0, fmt::format("KeWaitForSingleObject at IRQL {}", Thread.Irql));
    }
    if (Mode == UserMode && Address >= Thread.StackLow && Address < Thread.StackHigh) {
        BugCheck(bugcheck::Verifier, bugcheck::UserWaitOnStack, Address, 0, 0,
                 "UserMode wait on an object of the kernel stack, which may be paged out");
    }
    if (Header.Type != NotificationEvent && Header.Type != SynchronizationEvent && Header.Type != ThreadObjectType) {
        BugCheck(bugcheck::Verifier, bugcheck::Uninitialized, Address, Header.Type, 0,
                 "wait on an object that was not initialised");
    }
}

// In a delay: a thread that holds no lock ends here, as if it had called PsTerminateSystemThread itself.
void EndIfMachineGoesDown() {
    KThread &Thread = CurrentThread();
    if (Thread.MustEnd && Thread.HeldCount == 0) {
        Thread.StoppedInDelay = true;
        Thread.CriticalRegions = 0;
        PsTerminateSystemThread(STATUS_CANCELLED);
    }
}

} // namespace

void SettleEnter() {
    std::lock_guard Guard(Settling().Mutex);
    ++Settling().Running;
}

void SettleLeave() {
    std::lock_guard Guard(Settling().Mutex);
    --Settling().Running;
    Settling().Changed.notify_all();
}

SettleWith::SettleWith() {
    CurrentThread().CountsInSettle = true;
    SettleEnter();
}

SettleWith::~SettleWith() {
    CurrentThread().CountsInSettle = false;
    SettleLeave();
}

void ParkThread(LONGLONG Due) {
    KThread &Thread = CurrentThread();
    if (CallLinesWanted.load(std::memory_order_relaxed)) {
        WriteWaitingCall();
    }
    if (Scheduler *const Running = RunningScheduler(); Running != nullptr && Running->Block(Due)) {
        return;
    }
    if (Due == Clock::Never) {
        WaitForToken(Thread, nullptr);
        return;
    }
    Timer Entry{&Thread, false, {}};
    if (QueueTimer(Entry, Due)) {
        if (Clock::InterruptTime() < Due) {
            WaitForToken(Thread, nullptr);
        }
    } else {
        SteadyClock::time_point Deadline(
            std::chrono::duration_cast<SteadyClock::duration>(Ticks(Due + Time().RunOffset)));
        WaitForToken(Thread, &Deadline);
    }
    RemoveTimer(Entry);
}

void UnparkThread(KThread &Thread) {
    if (Scheduler *const Running = RunningScheduler(); Running != nullptr && Running->Wake(Thread)) {
        return;
    }
    std::lock_guard Guard(Thread.ParkMutex);
    Thread.ParkToken = true;
    if (Thread.Parked) {
        Thread.Parked = false;
        if (Thread.CountsInSettle) {
            SettleEnter();
        }
        Thread.ParkWake.notify_one();
    }
}

void Clock::SetManual(LONGLONG StartTime) {
    LONGLONG Now = InterruptTime();
    std::lock_guard Guard(State().Mutex);
    Time().ManualNow = Now;
    Time().ManualOffset = StartTime - Now;
    Time().Boot = StartTime;
    Time().Manual = true;
    for (auto &[Due, Entry] : State().Timers) {
        UnparkThread(*Entry->Thread);
    }
}

void Clock::SetRunning() {
    std::lock_guard Guard(State().Mutex);
    if (Time().Manual) {
        Time().RunOffset = SteadyTicks() - Time().ManualNow;
        Time().Boot = Time().RealBoot;
        Time().Manual = false;
    }
    for (auto &[Due, Entry] : State().Timers) {
        UnparkThread(*Entry->Thread);
    }
}

bool Clock::IsManual() {
    return Time().Manual;
}

void Clock::Advance(LONGLONG Units) {
    if (!IsManual() || Units < 0) {
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 3, static_cast<ULONG_PTR>(Units), 0, 0,
                 "Clock::Advance needs a manual clock and moves forward only");
    }
    const LONGLONG Target = Time().ManualNow + Units;
    Settle();
    while (FireNext(Target)) {
        Settle();
    }
    Time().ManualNow = Target;
}

void Clock::MoveTo(LONGLONG To) {
    std::lock_guard Guard(State().Mutex);
    Time().ManualNow = std::max<LONGLONG>(Time().ManualNow, To);
}

void Clock::Settle() {
    const LONG Self = CurrentThread().CountsInSettle ? 1 : 0;
    std::unique_lock Lock(Settling().Mutex);
    Settling().Changed.wait(Lock, [&] { return Settling().Running <= Self; });
}

LONGLONG Clock::NextDue() {
    std::lock_guard Guard(State().Mutex);
    return State().Timers.empty() ? Never : State().Timers.begin()->first;
}

LONGLONG Clock::InterruptTime() {
    return Time().InterruptTime();
}

LONGLONG Clock::SystemTime() {
    return Time().SystemTime();
}

LONGLONG Clock::BootTime() {
    return Time().Boot;
}

LONGLONG DueTime(const LARGE_INTEGER *Timeout) {
    if (Timeout == nullptr) {
        return Clock::Never;
    }
    LONGLONG Now = Clock::InterruptTime();
    LONGLONG Wait = Timeout->QuadPart <= 0 ? -Timeout->QuadPart : Timeout->QuadPart - Clock::SystemTime();
    if (Wait <= 0) {
        return Now;
    }
    return Wait > Clock::Never - Now ? Clock::Never : Now + Wait;
}

void SignalThreadEnd(KThread &Thread) {
    Bucket &Place = BucketOf(&Thread.Header);
    std::lock_guard Guard(Place.Mutex);
    SignalOf(Thread.Header).store(1);
    WakeWaiters(Place, &Thread.Header, false);
}

void KeClearEvent(PKEVENT Event) {
    Bucket &Place = BucketOf(Event);
    std::lock_guard Guard(Place.Mutex);
    SignalOf(Event->Header).store(0);
}

LONG KeReadStateEvent(PKEVENT Event) {
    return SignalOf(Event->Header).load();
}

} // namespace embedded

using namespace embedded;

VOID NTAPI KeInitializeEvent(PKEVENT Event, EVENT_TYPE Type, BOOLEAN State) noexcept {
    RequireIrql(IrqlRuleOf("KeInitializeEvent"));
    RequireKernelAddress(bugcheck::UserAddress, Event, "KeInitializeEvent");
    *Event = KEVENT{};
    Event->Header.Type = static_cast<UCHAR>(Type);
    Event->Header.Size = sizeof(KEVENT) / sizeof(LONG);
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

LONG NTAPI KeSetEvent(PKEVENT Event, KPRIORITY, BOOLEAN) noexcept {
    RequireIrql(IrqlRuleOf("KeSetEvent"));
    SchedulePoint("KeSetEvent", Event);
    Bucket &Place = BucketOf(Event);
    std::lock_guard Guard(Place.Mutex);
    LONG Old = SignalOf(Event->Header).load();
    const bool One = Event->Header.Type == SynchronizationEvent;
    bool Woken = WakeWaiters(Place, Event, One);
    SignalOf(Event->Header).store(One && Woken ? 0 : 1);
    return Old;
}

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE WaitMode, BOOLEAN,
                                     PLARGE_INTEGER Timeout) noexcept {
    auto &Header = *static_cast<DISPATCHER_HEADER *>(Object);
    if (Verifying()) {
        VerifyWait(Header, WaitMode, Timeout);
    }
    SchedulePoint("KeWaitForSingleObject", Object);
    const LONGLONG Due = DueTime(Timeout);
    Bucket &Place = BucketOf(Object);
    Waiter Entry{Object, &CurrentThread(), false, nullptr};
    {
        std::lock_guard Guard(Place.Mutex);
        if (SignalOf(Header).load() != 0) {
            if (Header.Type == SynchronizationEvent) {
                SignalOf(Header).store(0);
            }
            return STATUS_SUCCESS;
        }
        if (Timeout != nullptr && Timeout->QuadPart == 0) {
            return STATUS_TIMEOUT;
        }
        Append(Place, Entry);
    }
    for (;;) {
        ParkThread(Due);
        std::lock_guard Guard(Place.Mutex);
        if (Entry.Satisfied) {
            return STATUS_SUCCESS;
        }
        if (Due != Clock::Never && Clock::InterruptTime() >= Due) {
            Remove(Place, Entry);
            return STATUS_TIMEOUT;
        }
    }
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval) noexcept {
    if (Verifying() && CurrentThread().Irql > ApcLevel) {
        BugCheck(bugcheck::Verifier, bugcheck::DelayAboveApc, CurrentThread().Irql, 0, 0,
                 fmt::format("KeDelayExecutionThread at IRQL {}", CurrentThread().Irql));
    }
    const LONGLONG Due = DueTime(Interval);
    do {
        EndIfMachineGoesDown();
        ParkThread(Due);
    } while (Clock::InterruptTime() < Due);
    EndIfMachineGoesDown();
    return STATUS_SUCCESS;
}

VOID NTAPI KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime) noexcept {
    CurrentTime->QuadPart = Clock::SystemTime();
}

ULONG64 NTAPI KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp) noexcept {
    *QpcTimeStamp = static_cast<ULONG64>(Clock::InterruptTime()); // the counter runs at 10 MHz, as on most machines
    return *QpcTimeStamp;
}
