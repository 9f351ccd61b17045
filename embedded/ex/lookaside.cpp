// Lookaside lists, interlocked lists and local time.
//
// A list head's first word is the first entry's address with bit 0 as its lock, the second word the depth. Popping
// under the lock means that an entry's link is read only while nobody can have popped and freed it.
#include <ctime>
#include <sched.h>

#include "embedded/ex/ex.h"
#include "embedded/ex/live.h"
#include "embedded/ex/probe.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

constexpr USHORT DefaultDepth = 4;
constexpr USHORT GreatestDepth = 256;
constexpr ULONGLONG LockBit = 1;

std::atomic<LookasideCaching> Caching{LookasideCaching::FollowVerifier};

std::atomic_ref<ULONGLONG> HeadOf(PSLIST_HEADER List) {
    return std::atomic_ref<ULONGLONG>(List->Alignment);
}

std::atomic_ref<ULONGLONG> DepthOf(PSLIST_HEADER List) {
    return std::atomic_ref<ULONGLONG>(List->Region);
}

// Of the services' convention, so that they need not save their caller's vector registers for a rare call.
__attribute__((noinline)) void NTAPI Yield() noexcept {
    sched_yield();
}

// Locks the head and returns the first entry's address.
ULONGLONG LockHead(PSLIST_HEADER List) {
    for (ULONG Round = 0;; ++Round) {
        ULONGLONG Head = HeadOf(List).load(std::memory_order_relaxed) & ~LockBit;
        if (HeadOf(List).compare_exchange_weak(Head, Head | LockBit, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
            return Head;
        }
        if (Round % 64 == 63) {
            Yield();
        } else {
            __builtin_ia32_pause();
        }
    }
}

void SetDepth(PSLIST_HEADER List, ULONGLONG Depth) {
    DepthOf(List).store(Depth, std::memory_order_relaxed);
}

PVOID NTAPI LookasideAllocate(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, Tag);
}

VOID NTAPI LookasideFree(PVOID Buffer) {
    ExFreePoolWithTag(Buffer, 0);
}

} // namespace

void SetLookasideCaching(LookasideCaching New) {
    Caching = New;
}

} // namespace embedded

using namespace embedded;

VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                           PFREE_FUNCTION Free, ULONG, SIZE_T Size, ULONG Tag, USHORT Depth) noexcept {
    if (Verifying()) {
        RequireIrql(IrqlRuleOf("ExInitializeNPagedLookasideList"));
        EnterLiveObject(LiveKind::Lookaside, Lookaside, sizeof(NPAGED_LOOKASIDE_LIST));
    }
    *Lookaside = NPAGED_LOOKASIDE_LIST{};
    Lookaside->L.Depth = Depth != 0 ? Depth : DefaultDepth;
    Lookaside->L.MaximumDepth = GreatestDepth;
    Lookaside->L.Type = NonPagedPool;
    Lookaside->L.Tag = Tag;
    // A freed entry carries the link of the list.
    Lookaside->L.Size = static_cast<ULONG>(Size < sizeof(SLIST_ENTRY) ? sizeof(SLIST_ENTRY) : Size);
    Lookaside->L.Allocate = Allocate != nullptr ? Allocate : LookasideAllocate;
    Lookaside->L.Free = Free != nullptr ? Free : LookasideFree;
    InitializeListHead(&Lookaside->L.ListEntry);
}

VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) noexcept {
    RequireIrql(IrqlRuleOf("ExDeleteNPagedLookasideList"));
    if (Lookaside->L.Free == nullptr) {
        BugCheck(bugcheck::Verifier, bugcheck::Uninitialized, reinterpret_cast<ULONG_PTR>(Lookaside), 0, 0,
                 "delete of a lookaside list that is not initialised or was deleted");
    }
    while (PSLIST_ENTRY Entry = ExpInterlockedPopEntrySList(&Lookaside->L.ListHead)) {
        Lookaside->L.Free(Entry);
    }
    Lookaside->L.Allocate = nullptr;
    Lookaside->L.Free = nullptr;
    LeaveLiveObject(Lookaside);
}

PSLIST_ENTRY NTAPI ExpInterlockedPopEntrySList(PSLIST_HEADER ListHead) noexcept {
    if (HeadOf(ListHead).load(std::memory_order_relaxed) == 0) {
        return nullptr;
    }
    auto First = reinterpret_cast<PSLIST_ENTRY>(LockHead(ListHead));
    if (First == nullptr) {
        HeadOf(ListHead).store(0, std::memory_order_release);
        return nullptr;
    }
    SetDepth(ListHead, DepthOf(ListHead).load(std::memory_order_relaxed) - 1);
    HeadOf(ListHead).store(reinterpret_cast<ULONGLONG>(First->Next), std::memory_order_release);
    return First;
}

PSLIST_ENTRY NTAPI ExpInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry) noexcept {
    auto First = reinterpret_cast<PSLIST_ENTRY>(LockHead(ListHead));
    ListEntry->Next = First;
    SetDepth(ListHead, DepthOf(ListHead).load(std::memory_order_relaxed) + 1);
    HeadOf(ListHead).store(reinterpret_cast<ULONGLONG>(ListEntry), std::memory_order_release);
    return First;
}

USHORT NTAPI ExQueryDepthSList(PSLIST_HEADER ListHead) noexcept {
    // A list that seems full makes the caller free to pool: every entry is then watched like any other block.
    if (Verifying() && Caching.load(std::memory_order_relaxed) == LookasideCaching::FollowVerifier) {
        return 0xFFFF;
    }
    return static_cast<USHORT>(DepthOf(ListHead).load(std::memory_order_relaxed));
}

VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime) noexcept {
    constexpr LONGLONG UnixEpochSeconds = 11'644'473'600;
    const time_t Seconds = SystemTime->QuadPart / Clock::Second - UnixEpochSeconds;
    tm Local{};
    localtime_r(&Seconds, &Local);
    LocalTime->QuadPart = SystemTime->QuadPart + Local.tm_gmtoff * Clock::Second;
}
