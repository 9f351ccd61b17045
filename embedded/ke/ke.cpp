#include "embedded/ke/ke.h"

#include <algorithm>
#include <csignal>
#include <list>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <utility>

#include <fmt/format.h>

#include "embedded/base/driver_stack.h"
#include "embedded/base/process.h"
#include "embedded/image/calls.h"
#include "embedded/ke/schedule.h"
#include "embedded/verifier/locks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

struct ThreadList {
    std::mutex Mutex;
    std::list<KThread *> Threads;
    // Totals of the threads that have gone; nobody lists it, it only carries their counts.
    std::atomic<LONG64> GonePoolBytes{0};
    std::atomic<LONG64> GonePoolBlocks{0};
};

ThreadList &Threads() {
    // Never destroyed: threads leave after the last static has gone.
    static ThreadList &Instance = *new ThreadList;
    return Instance;
}

// Owns the record of a foreign thread; its destructor runs when the thread ends.
struct ForeignThread {
    KThread *Thread = nullptr;
    ~ForeignThread() {
        if (Thread != nullptr) {
            CheckThreadEnd(*Thread);
            LeaveThread(*Thread);
            CurrentThreadRecord = nullptr;
            delete Thread;
        }
    }
};

thread_local ForeignThread Foreign;

ULONG_PTR AddressOf(const void *Pointer) {
    return reinterpret_cast<ULONG_PTR>(Pointer);
}

std::atomic_ref<KSPIN_LOCK> OwnerOf(PKSPIN_LOCK SpinLock) {
    return std::atomic_ref<KSPIN_LOCK>(*SpinLock);
}

[[noreturn]] void NTAPI ReportSelfDeadlock(KThread &Thread, PKSPIN_LOCK SpinLock) noexcept {
    BugCheck(bugcheck::Verifier, bugcheck::SelfDeadlock, AddressOf(SpinLock), AddressOf(&Thread), 0,
             fmt::format("self-deadlock: the thread already holds spin lock {}\n{}", DescribeLock(SpinLock),
                         DescribeHeldLocks(Thread)));
}

__attribute__((noinline)) void NTAPI SpinForLock(KThread &Thread, PKSPIN_LOCK SpinLock) noexcept {
    const KSPIN_LOCK Self = AddressOf(&Thread);
    for (ULONG Round = 0;; ++Round) {
        KSPIN_LOCK Owner = OwnerOf(SpinLock).load(std::memory_order_relaxed);
        if (Owner == Self) {
            ReportSelfDeadlock(Thread, SpinLock);
        }
        if (Owner == 0 && OwnerOf(SpinLock).compare_exchange_weak(Owner, Self, std::memory_order_acquire,
                                                                  std::memory_order_relaxed)) {
            return;
        }
        if (Scheduler *const Running = RunningScheduler(); Running != nullptr && Running->YieldForSpinLock(SpinLock)) {
            continue;
        }
        // The holder cannot be preempted in a real kernel; here it can, and must get the processor.
        if (Round % 64 == 63) {
            sched_yield();
        } else {
            __builtin_ia32_pause();
        }
    }
}

__attribute__((noinline)) void NTAPI VerifySpinAcquire(KThread &Thread, PKSPIN_LOCK SpinLock, PVOID Where) noexcept {
    if (Thread.Irql > DispatchLevel) {
        BugCheck(bugcheck::Verifier, bugcheck::SpinAcquireIrql, Thread.Irql, AddressOf(SpinLock), 0,
                 fmt::format("KeAcquireSpinLockRaiseToDpc at IRQL {}", Thread.Irql));
    }
    if (FindHeld(Thread, SpinLock) != nullptr) {
        ReportSelfDeadlock(Thread, SpinLock);
    }
    CheckLockOrder(Thread, SpinLock, Where);
}

// Checks the release and drops the lock from the held list.
__attribute__((noinline)) void NTAPI VerifySpinRelease(KThread &Thread, PKSPIN_LOCK SpinLock, KIRQL NewIrql) noexcept {
    if (Thread.Irql != DispatchLevel) {
        BugCheck(bugcheck::Verifier, bugcheck::SpinReleaseIrql, Thread.Irql, AddressOf(SpinLock), 0,
                 fmt::format("KeReleaseSpinLock at IRQL {}", Thread.Irql));
    }
    if (NewIrql > DispatchLevel) {
        BugCheck(bugcheck::Verifier, bugcheck::LowerToHigher, Thread.Irql, NewIrql, AddressOf(SpinLock),
                 fmt::format("KeReleaseSpinLock would lower the IRQL from {} to {}", Thread.Irql, NewIrql));
    }
    for (ULONG Index = Thread.HeldCount; Index-- > 0;) {
        if (Thread.Held[Index].Kind == LockKind::SpinLock) {
            if (Thread.Held[Index].Lock != SpinLock && FindHeld(Thread, SpinLock) != nullptr) {
                BugCheck(bugcheck::Verifier, bugcheck::ReleaseOutOfOrder, AddressOf(SpinLock),
                         AddressOf(Thread.Held[Index].Lock), 0,
                         fmt::format("spin lock {} released before {}, which was taken later", DescribeLock(SpinLock),
                                     DescribeLock(Thread.Held[Index].Lock)));
            }
            break;
        }
    }
    if (HeldLock *Held = FindHeld(Thread, SpinLock)) {
        DropHeld(Thread, Held);
    }
}

[[noreturn]] __attribute__((noinline)) void NTAPI ReportNotOwner(KThread &Thread, PKSPIN_LOCK SpinLock) noexcept {
    KSPIN_LOCK Owner = OwnerOf(SpinLock).load(std::memory_order_relaxed);
    if (Owner == 0) {
        BugCheck(bugcheck::Verifier, bugcheck::NotAcquired, AddressOf(SpinLock), AddressOf(&Thread), 0,
                 "release of spin lock " + DescribeLock(SpinLock) + ", which is not held");
    }
    BugCheck(bugcheck::Verifier, bugcheck::WrongThread, AddressOf(SpinLock), Owner, AddressOf(&Thread),
             "release of spin lock " + DescribeLock(SpinLock) + ", which another thread holds");
}

[[noreturn]] __attribute__((noinline)) void NTAPI ReportNoRegion(const KThread &Thread) noexcept {
    BugCheck(bugcheck::Verifier, bugcheck::RegionNotEntered, AddressOf(&Thread),
             static_cast<ULONG_PTR>(Thread.CriticalRegions), 0, "KeLeaveCriticalRegion of a region never entered");
}

// Room for a report in source lines; pages that it does not touch cost nothing.
constexpr size_t SignalStackBytes = 256 * 1024;

void GiveSignalStack(KThread &Thread) {
    stack_t Stack;
    if (sigaltstack(nullptr, &Stack) != 0 || !(Stack.ss_flags & SS_DISABLE)) {
        return;
    }
    void *Room = mmap(nullptr, SignalStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (Room == MAP_FAILED) {
        return;
    }
    Stack = {};
    Stack.ss_sp = Room;
    Stack.ss_size = SignalStackBytes;
    if (sigaltstack(&Stack, nullptr) == 0) {
        Thread.SignalStack = Room;
    } else {
        munmap(Room, SignalStackBytes);
    }
}

void TakeSignalStack(KThread &Thread) {
    if (Thread.SignalStack != nullptr) {
        stack_t Stack = {};
        Stack.ss_flags = SS_DISABLE;
        sigaltstack(&Stack, nullptr);
        munmap(std::exchange(Thread.SignalStack, nullptr), SignalStackBytes);
    }
}

} // namespace

void EnterThread(KThread &Thread) {
    pthread_attr_t Attributes;
    if (pthread_getattr_np(pthread_self(), &Attributes) == 0) {
        void *Low = nullptr;
        size_t Size = 0;
        pthread_attr_getstack(&Attributes, &Low, &Size);
        pthread_attr_destroy(&Attributes);
        Thread.StackLow = AddressOf(Low);
        Thread.StackHigh = Thread.StackLow + Size;
    }
    GiveSignalStack(Thread);
    CurrentThreadRecord = &Thread;
    std::lock_guard Guard(Threads().Mutex);
    Threads().Threads.push_back(&Thread);
}

void LeaveThread(KThread &Thread) {
    if (const PMDL Spare = std::exchange(Thread.SpareMdl, nullptr); Spare != nullptr) {
        Thread.FreeSpareMdl(Spare);
    }
    LeaveDriverStacks(Thread);
    TakeSignalStack(Thread);
    ThreadList &List = Threads();
    std::lock_guard Guard(List.Mutex);
    List.GonePoolBytes += Thread.PoolBytes.load(std::memory_order_relaxed);
    List.GonePoolBlocks += Thread.PoolBlocks.load(std::memory_order_relaxed);
    List.Threads.remove(&Thread);
}

KThread &NTAPI AttachThread() noexcept {
    auto Thread = new _KTHREAD{};
    Thread->Header.Type = ThreadObjectType;
    InitializeListHead(&Thread->Header.WaitListHead);
    Thread->Process = SystemProcess();
    EnterThread(*Thread);
    Foreign.Thread = Thread;
    return *Thread;
}

void ForEachThread(void (*Visit)(KThread &, void *), void *Context) {
    ThreadList &List = Threads();
    _KTHREAD Gone{};
    std::lock_guard Guard(List.Mutex);
    Gone.PoolBytes = List.GonePoolBytes.load();
    Gone.PoolBlocks = List.GonePoolBlocks.load();
    Visit(Gone, Context);
    for (KThread *Thread : List.Threads) {
        Visit(*Thread, Context);
    }
}

void CheckThreadEnd(KThread &Thread) {
    if (!Verifying()) {
        return;
    }
    if (Thread.HeldCount != 0) {
        BugCheck(bugcheck::Verifier, bugcheck::ThreadEndedHolding, AddressOf(Thread.Held[0].Lock), AddressOf(&Thread),
                 0, "thread ended while it holds\n" + DescribeHeldLocks(Thread));
    }
    if (Thread.CriticalRegions != 0 || Thread.Irql != PassiveLevel) {
        BugCheck(0x20, 0, static_cast<ULONG_PTR>(Thread.CriticalRegions), Thread.Irql, 0,
                 fmt::format("thread ended in {} critical regions at IRQL {}", Thread.CriticalRegions, Thread.Irql));
    }
    if (Thread.SystemThread && Thread.TopLevelIrp != nullptr) {
        BugCheck(bugcheck::IoVerifier, 0x02, AddressOf(Thread.TopLevelIrp), AddressOf(&Thread), 0,
                 "thread ended with a top-level IRP set");
    }
}

KIRQL KeRaiseIrql(KIRQL NewIrql) {
    KThread &Thread = CurrentThread();
    KIRQL Old = Thread.Irql;
    if (NewIrql < Old) {
        BugCheck(bugcheck::Verifier, bugcheck::RaiseToLower, Old, NewIrql, 0,
                 fmt::format("KeRaiseIrql from {} to {}", Old, NewIrql));
    }
    Thread.Irql = NewIrql;
    return Old;
}

void KeLowerIrql(KIRQL NewIrql) {
    KThread &Thread = CurrentThread();
    if (NewIrql > Thread.Irql) {
        BugCheck(bugcheck::Verifier, bugcheck::LowerToHigher, Thread.Irql, NewIrql, 0,
                 fmt::format("KeLowerIrql from {} to {}", Thread.Irql, NewIrql));
    }
    Thread.Irql = NewIrql;
}

} // namespace embedded

using namespace embedded;

KIRQL NTAPI KeGetCurrentIrql() noexcept {
    return CurrentThread().Irql;
}

PKTHREAD NTAPI KeGetCurrentThread() noexcept {
    return &CurrentThread();
}

VOID NTAPI KeEnterCriticalRegion() noexcept {
    RequireIrql(IrqlRuleOf("KeEnterCriticalRegion"));
    ++CurrentThread().CriticalRegions;
}

VOID NTAPI KeLeaveCriticalRegion() noexcept {
    RequireIrql(IrqlRuleOf("KeLeaveCriticalRegion"));
    KThread &Thread = CurrentThread();
    if (Thread.CriticalRegions <= 0) [[unlikely]] {
        ReportNoRegion(Thread);
    }
    --Thread.CriticalRegions;
}

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) noexcept {
    KThread &Thread = CurrentThread();
    const bool Verify = Verifying();
    const KIRQL Old = Thread.Irql;
    if (Verify) {
        SchedulePoint("KeAcquireSpinLock", SpinLock);
        VerifySpinAcquire(Thread, SpinLock, CallerOf(__builtin_return_address(0)));
    }
    Thread.Irql = DispatchLevel;
    KSPIN_LOCK Free = 0;
    if (!OwnerOf(SpinLock).compare_exchange_strong(Free, AddressOf(&Thread), std::memory_order_acquire,
                                                   std::memory_order_relaxed)) [[unlikely]] {
        SpinForLock(Thread, SpinLock);
    }
    if (Verify) {
        PushHeld(Thread, SpinLock, LockKind::SpinLock, CallerOf(__builtin_return_address(0)));
    }
    return Old;
}

VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) noexcept {
    KThread &Thread = CurrentThread();
    if (OwnerOf(SpinLock).load(std::memory_order_relaxed) != AddressOf(&Thread)) [[unlikely]] {
        ReportNotOwner(Thread, SpinLock);
    }
    const bool Verify = Verifying();
    if (Verify) {
        VerifySpinRelease(Thread, SpinLock, NewIrql);
    }
    OwnerOf(SpinLock).store(0, std::memory_order_release);
    Thread.Irql = NewIrql;
    if (Scheduler *const Running = Verify ? RunningScheduler() : nullptr; Running != nullptr) [[unlikely]] {
        Running->SpinLockReleased(SpinLock);
        SchedulePoint("KeReleaseSpinLock", SpinLock);
    }
}

VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR Parameter1, ULONG_PTR Parameter2, ULONG_PTR Parameter3,
                        ULONG_PTR Parameter4) noexcept {
    BugCheck(BugCheckCode, Parameter1, Parameter2, Parameter3, Parameter4, "KeBugCheckEx called by the driver");
}
