// Resources. State of the word in SpinLock (atomic, everything else of the structure is guarded by the bucket):
//
//   bits 0..31  shared holders      bit 32  held exclusively
//   bit 33      exclusive waiters   bit 34  shared waiters
//
// Uncontended acquires and releases are one atomic each. Whoever must wait queues in the bucket of the address and
// sets a waiter bit; a release that finds one goes through the bucket. Shared waiters are handed the resource; an
// exclusive waiter is woken to take it, and until it has it, new shared acquires wait behind it. Every release that
// leaves a waiter bit looks at the waiters of the bucket only: if there are none the resource may be gone already.
#include <array>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/ex/live.h"
#include "embedded/image/calls.h"
#include "embedded/ke/schedule.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

constexpr ULONG64 SharedMask = 0xFFFFFFFF;
constexpr ULONG64 ExclusiveBit = 1ull << 32;
constexpr ULONG64 ExclusiveWaitersBit = 1ull << 33;
constexpr ULONG64 SharedWaitersBit = 1ull << 34;
constexpr ULONG64 WaiterBits = ExclusiveWaitersBit | SharedWaitersBit;
constexpr ULONG64 HolderBits = SharedMask | ExclusiveBit;

// In Reserved2, mixed with the address: a copied or never initialised resource does not have it.
constexpr ULONG_PTR LiveCookie = 0x5265736F75726365ull;

// How often a thread looks again before it parks: holds are short, a park costs two context switches.
constexpr int SpinRounds = 100;

struct ResourceWaiter {
    PERESOURCE Resource;
    KThread *Thread;
    bool Exclusive;
    bool Granted; // shared waiters: guarded by the bucket
    ResourceWaiter *Next;
};

struct Bucket {
    std::mutex Mutex;
    ResourceWaiter *First = nullptr;
};

Bucket &BucketOf(const void *Resource) {
    static auto &Buckets = *new std::array<Bucket, 64>;
    return Buckets[(reinterpret_cast<ULONG_PTR>(Resource) >> 3) * 0x9E3779B97F4A7C15ull >> 58];
}

std::atomic_ref<KSPIN_LOCK> WordOf(PERESOURCE Resource) {
    return std::atomic_ref<KSPIN_LOCK>(Resource->SpinLock);
}

ULONG_PTR AddressOf(const void *Pointer) {
    return reinterpret_cast<ULONG_PTR>(Pointer);
}

PVOID CookieOf(PERESOURCE Resource) {
    return reinterpret_cast<PVOID>(AddressOf(Resource) ^ LiveCookie);
}

[[noreturn]] __attribute__((noinline)) void NTAPI Stop(ULONG_PTR Which, PERESOURCE Resource,
                                                       std::string_view What) noexcept {
    KThread &Thread = CurrentThread();
    BugCheck(bugcheck::Verifier, Which, AddressOf(Resource), AddressOf(&Thread), Thread.Irql,
             fmt::format("{}: resource {}\n{}", What, DescribeLock(Resource), DescribeHeldLocks(Thread)));
}

void RequireLive(PERESOURCE Resource) {
    if (Resource->Reserved2 != CookieOf(Resource)) {
        Stop(bugcheck::Uninitialized, Resource, "use of a resource that is not initialised or was deleted");
    }
}

void RequireApcsOff(const KThread &Thread, PERESOURCE Resource, ULONG_PTR Which) {
    if (Thread.CriticalRegions == 0 && Thread.Irql < ApcLevel) {
        Stop(Which, Resource, "resource acquired or released outside a critical region");
    }
}

__attribute__((noinline)) void NTAPI VerifyAcquire(KThread &Thread, PERESOURCE Resource,
                                                   const IrqlRule &Rule) noexcept {
    SchedulePoint("the acquire of a resource", Resource);
    RequireIrql(Rule);
    RequireLive(Resource);
    RequireApcsOff(Thread, Resource, bugcheck::ResourceApcsOn);
}

bool TryExclusive(PERESOURCE Resource) {
    KSPIN_LOCK Word = WordOf(Resource).load(std::memory_order_relaxed);
    while ((Word & HolderBits) == 0) {
        if (WordOf(Resource).compare_exchange_weak(Word, Word | ExclusiveBit, std::memory_order_acquire,
                                                   std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

bool TryShared(PERESOURCE Resource) {
    KSPIN_LOCK Word = WordOf(Resource).load(std::memory_order_relaxed);
    while ((Word & (ExclusiveBit | ExclusiveWaitersBit)) == 0) {
        if (WordOf(Resource).compare_exchange_weak(Word, Word + 1, std::memory_order_acquire,
                                                   std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

template <class Try>
bool SpinFor(PERESOURCE Resource, Try &&Attempt) {
    for (int Round = 0; Round < SpinRounds && !ExplorerRuns.load(std::memory_order_relaxed); ++Round) {
        if (Attempt(Resource)) {
            return true;
        }
        __builtin_ia32_pause();
    }
    return false;
}

// The bucket is locked in the functions below.

ULONG &CounterOf(PERESOURCE Resource, bool Exclusive) {
    return Exclusive ? Resource->NumberOfExclusiveWaiters : Resource->NumberOfSharedWaiters;
}

void Enqueue(Bucket &Place, ResourceWaiter &Entry) {
    ResourceWaiter **Link = &Place.First;
    while (*Link != nullptr) {
        Link = &(*Link)->Next;
    }
    *Link = &Entry;
    ++CounterOf(Entry.Resource, Entry.Exclusive);
    ++Entry.Resource->ContentionCount;
    WordOf(Entry.Resource)
        .fetch_or(Entry.Exclusive ? ExclusiveWaitersBit : SharedWaitersBit, std::memory_order_relaxed);
}

void Dequeue(Bucket &Place, ResourceWaiter &Entry) {
    ResourceWaiter **Link = &Place.First;
    while (*Link != &Entry) {
        Link = &(*Link)->Next;
    }
    *Link = Entry.Next;
    if (--CounterOf(Entry.Resource, Entry.Exclusive) == 0) {
        WordOf(Entry.Resource)
            .fetch_and(~(Entry.Exclusive ? ExclusiveWaitersBit : SharedWaitersBit), std::memory_order_relaxed);
    }
}

ResourceWaiter *FirstWaiter(Bucket &Place, PERESOURCE Resource, bool Exclusive) {
    ResourceWaiter *Entry = Place.First;
    while (Entry != nullptr && (Entry->Resource != Resource || Entry->Exclusive != Exclusive)) {
        Entry = Entry->Next;
    }
    return Entry;
}

// One more shared holder, unless somebody has it exclusively.
bool GrantShared(PERESOURCE Resource) {
    KSPIN_LOCK Word = WordOf(Resource).load(std::memory_order_relaxed);
    while ((Word & ExclusiveBit) == 0) {
        if (WordOf(Resource).compare_exchange_weak(Word, Word + 1, std::memory_order_acq_rel,
                                                   std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

bool GrantAllShared(Bucket &Place, PERESOURCE Resource) {
    bool Any = false;
    while (ResourceWaiter *Entry = FirstWaiter(Place, Resource, false)) {
        if (!GrantShared(Resource)) {
            break;
        }
        Dequeue(Place, *Entry);
        Entry->Granted = true;
        UnparkThread(*Entry->Thread);
        Any = true;
    }
    return Any;
}

// After a release: shared waiters first if it was exclusive, so that neither side starves.
__attribute__((noinline)) void NTAPI WakeWaiters(PERESOURCE Resource, bool SharedFirst) noexcept {
    Bucket &Place = BucketOf(Resource);
    std::lock_guard Guard(Place.Mutex);
    if (SharedFirst && GrantAllShared(Place, Resource)) {
        return;
    }
    if (ResourceWaiter *Entry = FirstWaiter(Place, Resource, true)) {
        UnparkThread(*Entry->Thread);
        return;
    }
    GrantAllShared(Place, Resource);
}

__attribute__((noinline)) void NTAPI WaitExclusive(KThread &Thread, PERESOURCE Resource) noexcept {
    if (SpinFor(Resource, TryExclusive)) {
        return;
    }
    Bucket &Place = BucketOf(Resource);
    ResourceWaiter Entry{Resource, &Thread, true, false, nullptr};
    std::unique_lock Lock(Place.Mutex);
    Enqueue(Place, Entry);
    while (!TryExclusive(Resource)) {
        Lock.unlock();
        ParkThread(Clock::Never);
        Lock.lock();
    }
    Dequeue(Place, Entry);
}

__attribute__((noinline)) void NTAPI WaitShared(KThread &Thread, PERESOURCE Resource) noexcept {
    if (SpinFor(Resource, TryShared)) {
        return;
    }
    Bucket &Place = BucketOf(Resource);
    ResourceWaiter Entry{Resource, &Thread, false, false, nullptr};
    std::unique_lock Lock(Place.Mutex);
    Enqueue(Place, Entry);
    if (TryShared(Resource)) {
        Dequeue(Place, Entry);
        return;
    }
    while (!Entry.Granted) {
        Lock.unlock();
        ParkThread(Clock::Never);
        Lock.lock();
    }
}

void SetOwner(PERESOURCE Resource, KThread *Owner) {
    std::atomic_ref<ERESOURCE_THREAD>(Resource->OwnerEntry.OwnerThread)
        .store(AddressOf(Owner), std::memory_order_relaxed);
}

void ReleaseWord(PERESOURCE Resource, bool Exclusive) {
    if (Exclusive) {
        SetOwner(Resource, nullptr);
        if (WordOf(Resource).fetch_sub(ExclusiveBit, std::memory_order_release) & WaiterBits) [[unlikely]] {
            WakeWaiters(Resource, true);
        }
        return;
    }
    KSPIN_LOCK Old = WordOf(Resource).fetch_sub(1, std::memory_order_release);
    if ((Old & SharedMask) == 1 && (Old & WaiterBits)) [[unlikely]] {
        WakeWaiters(Resource, false);
    }
}

[[noreturn]] __attribute__((noinline)) void NTAPI ReportBadRelease(PERESOURCE Resource) noexcept {
    RequireLive(Resource);
    const bool Held = (WordOf(Resource).load() & HolderBits) != 0;
    Stop(Held ? bugcheck::WrongThread : bugcheck::NotAcquired, Resource,
         Held ? "release of a resource that only another thread holds" : "release of a resource that is not held");
}

} // namespace
} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource) noexcept {
    if (ShouldFail(FaultKind::Resource)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (Verifying()) {
        RequireIrql(IrqlRuleOf("ExInitializeResourceLite"));
        EnterLiveObject(LiveKind::Resource, Resource, sizeof(ERESOURCE));
    }
    *Resource = ERESOURCE{};
    InitializeListHead(&Resource->SystemResourcesList);
    Resource->Reserved2 = CookieOf(Resource);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource) noexcept {
    RequireIrql(IrqlRuleOf("ExDeleteResourceLite"));
    RequireLive(Resource);
    if ((WordOf(Resource).load(std::memory_order_acquire) & (HolderBits | WaiterBits)) != 0) {
        Stop(bugcheck::DeletedInUse, Resource, "resource deleted while it is held or waited for");
    }
    Resource->Reserved2 = nullptr;
    if (Verifying()) {
        ForgetLock(Resource);
    }
    LeaveLiveObject(Resource);
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) noexcept {
    KThread &Thread = CurrentThread();
    const bool Verify = Verifying();
    if (Verify) {
        VerifyAcquire(Thread, Resource, IrqlRuleOf("ExAcquireResourceExclusiveLite"));
    }
    if (HeldLock *Held = FindHeld(Thread, Resource)) {
        if (Held->Kind == LockKind::ResourceExclusive) {
            ++Held->Count;
            return TRUE;
        }
        if (Wait) {
            Stop(bugcheck::SelfDeadlock, Resource, "exclusive acquire by a thread that holds the resource shared");
        }
        return FALSE;
    }
    if (!Wait) {
        if (ShouldFail(FaultKind::TryAcquire)) {
            return FALSE;
        }
    } else if (Verify) {
        CheckLockOrder(Thread, Resource, CallerOf(__builtin_return_address(0)));
    }
    if (!TryExclusive(Resource)) [[unlikely]] {
        if (!Wait) {
            return FALSE;
        }
        WaitExclusive(Thread, Resource);
    }
    SetOwner(Resource, &Thread);
    PVOID Where = __builtin_return_address(0);
    PushHeld(Thread, Resource, LockKind::ResourceExclusive, Verify ? CallerOf(Where) : Where);
    return TRUE;
}

BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) noexcept {
    KThread &Thread = CurrentThread();
    const bool Verify = Verifying();
    if (Verify) {
        VerifyAcquire(Thread, Resource, IrqlRuleOf("ExAcquireResourceSharedLite"));
    }
    if (HeldLock *Held = FindHeld(Thread, Resource)) {
        ++Held->Count;
        return TRUE;
    }
    if (!Wait) {
        if (ShouldFail(FaultKind::TryAcquire)) {
            return FALSE;
        }
    } else if (Verify) {
        CheckLockOrder(Thread, Resource, CallerOf(__builtin_return_address(0)));
    }
    if (!TryShared(Resource)) [[unlikely]] {
        if (!Wait) {
            return FALSE;
        }
        WaitShared(Thread, Resource);
    }
    PVOID Where = __builtin_return_address(0);
    PushHeld(Thread, Resource, LockKind::ResourceShared, Verify ? CallerOf(Where) : Where);
    return TRUE;
}

VOID NTAPI ExReleaseResourceLite(PERESOURCE Resource) noexcept {
    KThread &Thread = CurrentThread();
    HeldLock *Held = FindHeld(Thread, Resource);
    if (Held == nullptr) [[unlikely]] {
        ReportBadRelease(Resource);
    }
    if (Verifying()) {
        RequireIrql(IrqlRuleOf("ExReleaseResourceLite"));
        RequireLive(Resource);
        RequireApcsOff(Thread, Resource, bugcheck::ResourceReleaseApcsOn);
    }
    if (--Held->Count != 0) {
        return;
    }
    const bool Exclusive = Held->Kind == LockKind::ResourceExclusive;
    DropHeld(Thread, Held);
    ReleaseWord(Resource, Exclusive);
    SchedulePoint("the release of a resource", nullptr);
}

VOID NTAPI ExConvertExclusiveToSharedLite(PERESOURCE Resource) noexcept {
    KThread &Thread = CurrentThread();
    RequireIrql(IrqlRuleOf("ExConvertExclusiveToSharedLite"));
    HeldLock *Held = FindHeld(Thread, Resource);
    if (Held == nullptr || Held->Kind != LockKind::ResourceExclusive) {
        Stop(bugcheck::NotAcquired, Resource, "conversion of a resource that the thread does not hold exclusively");
    }
    Held->Kind = LockKind::ResourceShared;
    SetOwner(Resource, nullptr);
    KSPIN_LOCK Old = WordOf(Resource).fetch_sub(ExclusiveBit - 1, std::memory_order_release);
    if (Old & SharedWaitersBit) {
        WakeWaiters(Resource, true);
    }
}

BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) noexcept {
    RequireIrql(IrqlRuleOf("ExIsResourceAcquiredExclusiveLite"));
    const HeldLock *Held = FindHeld(CurrentThread(), Resource);
    return Held != nullptr && Held->Kind == LockKind::ResourceExclusive;
}

ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource) noexcept {
    RequireIrql(IrqlRuleOf("ExIsResourceAcquiredSharedLite"));
    const HeldLock *Held = FindHeld(CurrentThread(), Resource);
    return Held == nullptr ? 0 : Held->Count;
}
