// Byte-range locks: what is decided locally, what the server is told, and when.

#include <pthread.h>

#include "embedded/fsrtl/fsrtl.h"
#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/driver/lock_client.h"

namespace {

using namespace test;

class Locks : public LockFixture {
protected:
    HANDLE First = nullptr;
    HANDLE Second = nullptr;

    void SetUp() override {
        First = MustOpen(u"\\srv\\vol\\a.txt", Writer);
        Second = MustOpen(u"\\srv\\vol\\a.txt", Writer);
        Provider.ClearCalls();
    }
    NTSTATUS Send(const IrpBuilder &Builder) {
        return SendIrpAndWait(Device(), Builder).Status;
    }
};

TEST_F(Locks, AKeyOfZeroIsTheLowHalfOfTheProcessAndAnUnlockHasThatOfTheLastLock) {
    EXPECT_EQ(Lock(First, 0, 1), STATUS_SUCCESS);
    const auto Process = reinterpret_cast<ULONG_PTR>(IoGetCurrentProcess());
    EXPECT_EQ(LocalLocks(First).at(0).Key, static_cast<ULONG>(Process));
    EXPECT_EQ(Instance(First)->LockKey, static_cast<ULONG>(Process));
    EXPECT_EQ(Lock(First, 7, 1, 7), STATUS_SUCCESS);
    EXPECT_EQ(Unlock(First, 7, 1, 99), STATUS_SUCCESS) << "whatever it carries";
    EXPECT_EQ(Lock(First, 5, 1, 8), STATUS_SUCCESS);
    EXPECT_EQ(Unlock(First, 0, 1), STATUS_RANGE_NOT_LOCKED);
}

TEST_F(Locks, AnEmptyRangeAtOffsetZeroNeverReachesTheServer) {
    EXPECT_EQ(Lock(First, 0, 0), STATUS_SUCCESS);
    EXPECT_EQ(LocalLocks(First).size(), 1u);
    EXPECT_EQ(Unlock(First, 0, 0), STATUS_SUCCESS);
    EXPECT_EQ(Lock(First, 3, 0), STATUS_SUCCESS);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 3+0"}));
}

TEST_F(Locks, WhatIsWrongHereIsRefusedWithoutTheServerAndWhatFailsThereIsToldAndDoneHere) {
    LARGE_INTEGER Length = {.QuadPart = 1};
    EXPECT_EQ(Send(Request(First, 9, 0, &Length)), STATUS_INVALID_PARAMETER) << "no such request";
    EXPECT_EQ(Lock(First, 0, 10), STATUS_SUCCESS);
    Provider.ClearCalls();
    EXPECT_EQ(Lock(Second, 5, 1), STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(Unlock(Second, 5, 1), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(ServerLocks(), Calls{});
    Provider.OnCall(Slot::UnlockFile).ReturnAfter(ProviderError(0x0102));
    EXPECT_EQ(Unlock(First, 0, 10), STATUS_NETWORK_BUSY);
    EXPECT_TRUE(LocalLocks(First).empty());
}

TEST_F(Locks, ARefusalOfTheServerLeavesNoLocalLock) {
    for (const auto &[Raw, Status] : {std::pair{ProviderError(CodeLockNotGranted), STATUS_LOCK_NOT_GRANTED},
                                      {static_cast<RVSTATUS>(0x000E), STATUS_UNSUCCESSFUL}}) { // pending is none either
        Provider.OnCall(Slot::LockFile).Return(Raw);
        EXPECT_EQ(Lock(First, 0, 10), Status);
        EXPECT_TRUE(LocalLocks(First).empty());
        EXPECT_EQ(Wait(First, 0, 10).Wait().Status, Status);
        EXPECT_TRUE(LocalLocks(First).empty());
        Provider.ClearScript();
    }
}

TEST_F(Locks, AWaitingLockThatTheServerRefusesMakesRoomForTheNext) {
    EXPECT_EQ(Lock(First, 0, 10), STATUS_SUCCESS);
    SentIrp Refused = Wait(Second, 0);
    SentIrp Next = Wait(First, 0);
    Provider.OnCall(Slot::LockFile).Times(1).Return(ProviderError(CodeLockNotGranted));
    EXPECT_EQ(Unlock(First, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(Refused.Wait().Status, STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(Next.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(LocalLocks(First).size(), 1u);
}

// Runs Work on a thread with a stack of about a kernel's size, checks of this build included.
void OnASmallStack(std::function<void()> Work) {
    constexpr size_t StackBytes = 256 * 1024;
    pthread_attr_t Attributes;
    pthread_t Thread;
    ASSERT_EQ(pthread_attr_init(&Attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&Attributes, StackBytes), 0);
    const auto Run = [](void *Context) -> void * {
        (*static_cast<std::function<void()> *>(Context))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&Thread, &Attributes, Run, &Work), 0);
    pthread_join(Thread, nullptr);
    pthread_attr_destroy(&Attributes);
}

TEST_F(Locks, WaitersThatKeepNothingGrantEachOtherWithoutGoingDeeper) {
    EXPECT_EQ(Lock(First, 0, 1), STATUS_SUCCESS);
    std::vector<SentIrp> Waiting;
    for (int Each = 0; Each < 2000; ++Each) {
        Waiting.push_back(Wait(Second, 0, 1));
    }
    Provider.OnCall(Slot::LockFile).Return(ProviderError(CodeLockNotGranted));
    OnASmallStack([&] { EXPECT_EQ(Unlock(First, 0, 1), STATUS_SUCCESS); });
    for (SentIrp &Each : Waiting) {
        ASSERT_EQ(Each.Wait().Status, STATUS_LOCK_NOT_GRANTED);
    }
    EXPECT_TRUE(LocalLocks(First).empty());
}

// The unlock's completion comes before the server hears of what the unlock granted. The server is not asked to unlock
// what it never had, and the unlock's status is the local one.
TEST_F(Locks, ALockThatIsUnlockedBeforeTheServerHeardOfItIsCancelled) {
    LARGE_INTEGER Length = {.QuadPart = 4};
    LARGE_INTEGER Whole = {.QuadPart = 10};
    for (const UCHAR Minor : {IRP_MN_UNLOCK_SINGLE, IRP_MN_UNLOCK_ALL, IRP_MN_UNLOCK_ALL_BY_KEY}) {
        Provider.ClearCalls();
        EXPECT_EQ(Lock(First, 0, 10), STATUS_SUCCESS);
        SentIrp Waiting = Wait(Second, 2);
        std::function<void()> Overtake = [&] {
            EXPECT_EQ(Send(Request(Second, Minor, 2, &Length)), STATUS_SUCCESS);
            EXPECT_EQ(Send(Request(Second, Minor, 2, &Length)),
                      Minor == IRP_MN_UNLOCK_SINGLE ? STATUS_RANGE_NOT_LOCKED : STATUS_SUCCESS);
        };
        IrpBuilder Unlocking = Request(First, IRP_MN_UNLOCK_SINGLE, 0, &Whole);
        Unlocking.CompletionContext = &Overtake;
        Unlocking.CompletionRoutine = [](PDEVICE_OBJECT, PIRP, PVOID Context) NTAPI -> NTSTATUS {
            (*static_cast<std::function<void()> *>(Context))();
            return STATUS_SUCCESS;
        };
        EXPECT_EQ(Send(Unlocking), STATUS_SUCCESS);
        EXPECT_EQ(Waiting.Wait().Status, STATUS_CANCELLED);
        EXPECT_EQ(ServerLocks(), (Calls{"lock 0+10", "unlock 0+10"}));
        EXPECT_TRUE(LocalLocks(First).empty());
    }
}

TEST_F(Locks, ACancelledWaitNeverReachesTheServer) {
    EXPECT_EQ(Lock(First, 0, 10), STATUS_SUCCESS);
    SentIrp Waiting = Wait(Second, 2);
    EXPECT_TRUE(Waiting.Cancel());
    EXPECT_EQ(Waiting.Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 0+10"}));
}

TEST_F(Locks, AnUnlockOfAllGivesBackExactlyTheLocksOfItsHandleOrOfItsKey) {
    for (const bool ByKey : {true, false}) {
        EXPECT_EQ(Lock(First, 0, 1, 5), STATUS_SUCCESS);
        EXPECT_EQ(Lock(Second, 10, 1, 5), STATUS_SUCCESS);
        EXPECT_EQ(Lock(First, 20, 1, 6), STATUS_SUCCESS);
        EXPECT_EQ(Lock(First, 0, 0, 6), STATUS_SUCCESS);
        Provider.ClearCalls();
        const UCHAR Minor = ByKey ? IRP_MN_UNLOCK_ALL_BY_KEY : IRP_MN_UNLOCK_ALL;
        EXPECT_EQ(Send(Request(First, Minor, 0, nullptr, 5)), STATUS_SUCCESS);
        EXPECT_EQ(ServerLocks(), ByKey ? Calls{"unlock 0+1"} : (Calls{"unlock 0+1", "unlock 20+1"}));
        EXPECT_EQ(LocalLocks(First).size(), ByKey ? 3u : 1u);
        EXPECT_EQ(LocalLocks(First)[0].FileObject, FileObject(Second));
        Send(Request(First, IRP_MN_UNLOCK_ALL, 0, nullptr));
        Send(Request(Second, IRP_MN_UNLOCK_ALL, 0, nullptr));
    }
}

class TracedLocks : public Locks {
protected:
    void SetUp() override {
        StartTracing(0x8000);
        Locks::SetUp();
    }
};

TEST_F(TracedLocks, ARangeThatTheServerNeverHadDoesNotHideAFailureBeforeIt) {
    EXPECT_EQ(Lock(First, 10, 1), STATUS_SUCCESS);
    EXPECT_EQ(Lock(First, 0, 0), STATUS_SUCCESS);
    Provider.OnCall(Slot::UnlockFile).ReturnAfter(ProviderError(0x0102));
    Printed.clear();
    EXPECT_EQ(Send(Request(First, IRP_MN_UNLOCK_ALL, 0, nullptr)), STATUS_NETWORK_BUSY);
    const std::string_view Line = "Calling RVFsdUnlockFile...";
    ASSERT_TRUE(WasPrinted(Line));
    EXPECT_EQ(Printed.find(Line), Printed.rfind(Line)) << "a call that was not made";
}

TEST_F(Locks, AnUnlockOfAllWithoutMemoryChangesNothing) {
    EXPECT_EQ(Lock(First, 0, 1), STATUS_SUCCESS);
    Provider.ClearCalls();
    const PlannedFaults Faults({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool)});
    EXPECT_EQ(Send(Request(First, IRP_MN_UNLOCK_ALL, 0, nullptr)), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(ServerLocks(), Calls{});
    EXPECT_EQ(LocalLocks(First).size(), 1u);
}

// A request inside another one of its thread: what may wait is posted and told to the server once, the rest finished in
// its thread.
TEST_F(Locks, NestedOnesAreCompletedOnce) {
    struct {
        UCHAR Minor;
        LONGLONG Offset, Length;
        NTSTATUS Returned, Status;
        Calls Told;
    } const Cases[] = {
        {IRP_MN_LOCK, 2, 4, STATUS_PENDING, STATUS_SUCCESS, {"lock 2+4"}},
        {IRP_MN_UNLOCK_SINGLE, 2, 4, STATUS_SUCCESS, STATUS_SUCCESS, {"unlock 2+4"}},
        {IRP_MN_LOCK, -10, 100, STATUS_PENDING, STATUS_INVALID_LOCK_RANGE, {}},
    };
    for (const auto &Each : Cases) {
        Provider.ClearCalls();
        LARGE_INTEGER Length = {.QuadPart = Each.Length};
        IRP Outer = {};
        IrpBuilder Builder = Request(First, Each.Minor, Each.Offset, &Length);
        Builder.TopLevelIrp = &Outer;
        SentIrp Nested = SendIrp(Device(), Builder);
        EXPECT_EQ(Nested.Returned(), Each.Returned);
        EXPECT_EQ(Nested.Wait().Status, Each.Status);
        EXPECT_FALSE(ExIsResourceAcquiredSharedLite(&Fcb(First)->Resource));
        EXPECT_EQ(ServerLocks(), Each.Told);
    }
}

TEST_F(Locks, WaitersAreToldToTheServerAfterTheUnlockThatMadeRoom) {
    EXPECT_EQ(Lock(First, 0, 10), STATUS_SUCCESS);
    LARGE_INTEGER Length = {.QuadPart = 4};
    IrpBuilder Shared = Request(Second, IRP_MN_LOCK, 0, &Length, 0, 0);
    SentIrp One = SendIrp(Device(), Shared);
    SentIrp Two = SendIrp(Device(), Shared);
    EXPECT_EQ(One.Returned(), STATUS_PENDING);
    EXPECT_FALSE(One.IsCompleted());
    EXPECT_EQ(Unlock(First, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(One.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(Two.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 0+10", "unlock 0+10", "lock 0+4", "lock 0+4"}));
    EXPECT_EQ(LocalLocks(First).size(), 2u);
}

} // namespace
