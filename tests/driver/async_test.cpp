// Requests that wait: the queue, its workers, cancellation in it, and what becomes of it at shutdown.

#include "frame/async_queue.h"

#include <future>

#include <sys/mman.h>

#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "frame/rundown.h"
#include "tests/driver/lock_client.h"

namespace {

using namespace test;

// Holds a file in another thread, so that requests that may not wait are posted and workers wait.
class BusyFile {
public:
    explicit BusyFile(PFCB Fcb)
        : Holder_([this, Fcb] {
              NtFsdAcquireExclusive(&Fcb->Resource, TRUE);
              Held_.set_value();
              Free_.get_future().wait();
              NtFsdReleaseResource(&Fcb->Resource);
          }) {
        Held_.get_future().wait();
    }
    ~BusyFile() {
        Release();
    }
    void Release() {
        if (Holder_.joinable()) {
            Free_.set_value();
            Holder_.join();
        }
    }

private:
    std::promise<void> Held_;
    std::promise<void> Free_;
    std::thread Holder_;
};

class Async : public LockFixture {
protected:
    HANDLE Handle = nullptr;
    char Bytes[32] = {};

    void SetUp() override {
        Start({.Switches = {{u"EnableAsyncIo", 1}}});
        Handle = MustOpen(u"\\srv\\vol\\a.txt", Asynchronous);
    }

    IrpBuilder ReadAt(size_t Index) {
        IrpBuilder Builder = Plain(IRP_MJ_READ, FileObject(Handle));
        Builder.UserBuffer = &Bytes[Index];
        Builder.Fill = [Index](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.Read.ByteOffset.QuadPart = static_cast<LONGLONG>(Index % 10);
            Stack->Parameters.Read.Length = 1;
        };
        return Builder;
    }
    SentIrp Post(const IrpBuilder &Builder) {
        SentIrp Sent = SendIrp(Device(), Builder);
        EXPECT_EQ(Sent.Returned(), STATUS_PENDING);
        Clock::Settle();
        return Sent;
    }
    static ULONG Workers() {
        Clock::Settle();
        return g_uAsyncWorkerThreadCount;
    }
};

TEST_F(Async, ThePoolGrowsWithTheBacklogToNineAndFallsToNone) {
    BusyFile Busy(Fcb(Handle));
    std::vector<SentIrp> Posted;
    for (ULONG Count = 1; Count <= 14; ++Count) {
        Posted.push_back(Post(ReadAt(Count - 1)));
        // The first starts one; after that one more for every two that wait.
        EXPECT_EQ(Workers(), Count == 1 ? 1u : std::min(Count - 1, 9u)) << Count;
        EXPECT_EQ(g_uAsyncIrpQueueCount, Count == 1 ? 0u : Count <= 10 ? 1u : Count - 9) << Count;
    }
    Busy.Release();
    for (SentIrp &Each : Posted) {
        EXPECT_EQ(Each.Wait().Information, 1u);
    }
    EXPECT_STREQ(Bytes, "01234567890123") << "each byte came to its own request";
    EXPECT_EQ(Workers(), 9u);
    Clock::Advance(19 * 100 * Clock::Millisecond);
    EXPECT_EQ(Workers(), 9u);
    Clock::Advance(2 * 100 * Clock::Millisecond);
    EXPECT_EQ(Workers(), 0u);
    BusyFile Again(Fcb(Handle));
    SentIrp Late = Post(ReadAt(5));
    EXPECT_EQ(Workers(), 1u);
    Again.Release();
    EXPECT_EQ(Late.Wait().Status, STATUS_SUCCESS);
}

TEST_F(Async, ARequestTellsItsWayThroughTheQueue) {
    Close(Handle);
    Stop();
    Start({.Switches = {{u"EnableAsyncIo", 1}, {u"EnableDebug", 1}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", 16}}});
    Clock::Settle();
    Handle = MustOpen(u"\\srv\\vol\\a.txt", Asynchronous);
    Printed.clear();
    {
        BusyFile Busy(Fcb(Handle));
        SentIrp Posted = Post(ReadAt(0));
        Busy.Release();
        EXPECT_EQ(Posted.Wait().Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(Workers(), 1u);
    Clock::Advance(3 * Clock::Second);
    EXPECT_EQ(Workers(), 0u);
    ExpectPrintedInOrder(
        {"TwFsdPostRequest called!\n", "RvFsdInsertIrpEx for IRP 0x", "g_uAsyncIrpQueueCount now 1.\n",
         "NtFsdPostRequest for IRP 0x", "NtFsdPostRequest starting thread; g_uAsyncWorkerThreadCount now 1.\n",
         "RvFsdPeekNextIrp for 0x", "RvFsdRemoveIrp for IRP 0x", "g_uAsyncIrpQueueCount now 0.\n",
         "NtFsdDispatch received IRP 0x", "NtFsdDispatch calling NtFsdCommonRead!\n",
         " NtFsdDispatch() FSP complete!\n", "NtFsdDispatch exiting thread; g_uAsyncWorkerThreadCount now 0.\n"});
}

// ---- Cancellation

TEST_F(Async, AQueuedRequestIsCancelledAndOneThatAWorkerHasIsNot) {
    BusyFile Busy(Fcb(Handle));
    SentIrp Taken = Post(ReadAt(0));
    SentIrp Queued = Post(ReadAt(1));
    EXPECT_TRUE(Queued.Cancel());
    EXPECT_EQ(Queued.Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(Queued.Wait().Information, 0u);
    EXPECT_EQ(Queued.PriorityBoost(), IO_NO_INCREMENT);
    EXPECT_EQ(g_uAsyncIrpQueueCount, 0u);
    EXPECT_FALSE(Taken.Cancel());
    Busy.Release();
    EXPECT_EQ(Taken.Wait().Status, STATUS_SUCCESS);
}

// A lock request is not asked at its entry whether it was cancelled: the insertion finds out.
TEST_F(Async, ARequestThatIsCancelledBeforeItIsQueuedEndsThere) {
    BusyFile Busy(Fcb(Handle));
    LARGE_INTEGER Length = {.QuadPart = 4};
    IrpBuilder Cancelled = Request(Handle, IRP_MN_LOCK, 2, &Length);
    Cancelled.CancelledBefore = true;
    EXPECT_EQ(Post(Cancelled).Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(g_uAsyncIrpQueueCount, 0u);
    Busy.Release();
    EXPECT_TRUE(LocalLocks(Handle).empty());
    EXPECT_EQ(ServerLocks(), Calls{});
}

TEST_F(Async, CleanupAndCloseRunThoughTheyAreCancelledInTheQueue) {
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt", Asynchronous);
    const PFILE_OBJECT File = FileObject(Goes);
    for (const UCHAR MajorFunction : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        BusyFile Busy(Fcb(Handle));
        SentIrp Taken = Post(ReadAt(0));
        SentIrp Queued = Post(Plain(MajorFunction, File));
        EXPECT_TRUE(Queued.Cancel());
        EXPECT_FALSE(Queued.IsCompleted());
        Busy.Release();
        EXPECT_EQ(Taken.Wait().Status, STATUS_SUCCESS);
        EXPECT_EQ(Queued.Wait().Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(Fcb(Handle)->UncleanCount, 1u);
    EXPECT_EQ(Fcb(Handle)->OpenCount, 1u);
}

// The grant of a waiting lock stands in the queue behind a worker that is busy with another file.
class QueuedGrant : public Async {
protected:
    HANDLE Other = nullptr;
    HANDLE Owner = nullptr;
    std::unique_ptr<BusyFile> Busy;
    std::optional<SentIrp> Taken;
    std::optional<SentIrp> Granted;
    LARGE_INTEGER Length = {.QuadPart = 4};

    void SetUp() override {
        Async::SetUp();
        Provider.AddFile(u"\\srv\\vol\\b.txt", "b");
        Other = MustOpen(u"\\srv\\vol\\b.txt", Asynchronous);
        Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer);
        EXPECT_EQ(Lock(Owner, 0, 10), STATUS_SUCCESS);
        Granted.emplace(Wait(Handle, 2));
        Busy = std::make_unique<BusyFile>(Fcb(Other));
        IrpBuilder Read = ReadAt(0);
        Read.FileObject = FileObject(Other);
        Taken.emplace(Post(Read));
        EXPECT_EQ(Unlock(Owner, 0, 10), STATUS_SUCCESS);
        EXPECT_FALSE(Granted->IsCompleted());
        Provider.ClearCalls();
    }
    void TearDown() override {
        EXPECT_EQ(Taken->Wait().Status, STATUS_SUCCESS);
        Taken.reset();
        Granted.reset();
        Async::TearDown();
    }
};

TEST_F(QueuedGrant, IsToldToTheServerThoughItIsCancelled) {
    EXPECT_TRUE(Granted->Cancel());
    Busy->Release();
    EXPECT_EQ(Granted->Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 2+4"}));
    EXPECT_EQ(LocalLocks(Handle).size(), 1u);
}

TEST_F(QueuedGrant, IsCancelledByTheUnlockThatOvertakesIt) {
    EXPECT_EQ(Send(Request(Handle, IRP_MN_UNLOCK_SINGLE, 2, &Length)).Status, STATUS_SUCCESS);
    Busy->Release();
    EXPECT_EQ(Granted->Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(ServerLocks(), Calls{}) << "it never heard of it";
}

// Of two locks of one range and owner the server knows one: that one is unlocked there, and the other told.
TEST_F(QueuedGrant, IsLeftAloneByAnUnlockOfTheLockThatTheServerKnows) {
    EXPECT_EQ(Send(Request(Handle, IRP_MN_UNLOCK_SINGLE, 2, &Length)).Status, STATUS_SUCCESS);
    const IrpBuilder Shared = Request(Handle, IRP_MN_LOCK, 2, &Length, 0, SL_FAIL_IMMEDIATELY);
    EXPECT_EQ(Send(Shared).Status, STATUS_SUCCESS);
    IRP Outer = {};
    IrpBuilder Nested = Request(Handle, IRP_MN_LOCK, 2, &Length, 0, 0);
    Nested.TopLevelIrp = &Outer;
    std::optional<PlannedFaults> NoSecondWorker;
    NoSecondWorker.emplace(FaultPlan{.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Thread)});
    SentIrp Untold = Post(Nested);
    NoSecondWorker.reset();
    EXPECT_EQ(LocalLocks(Handle).size(), 2u);
    EXPECT_EQ(Send(Request(Handle, IRP_MN_UNLOCK_SINGLE, 2, &Length)).Status, STATUS_SUCCESS);
    Busy->Release();
    EXPECT_EQ(Untold.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(Granted->Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(ServerLocks(), (Calls{"lock 2+4", "unlock 2+4", "lock 2+4"}));
    EXPECT_EQ(LocalLocks(Handle).size(), 1u);
}

TEST_F(QueuedGrant, OfAHandleThatIsCleanedUpIsGivenBack) {
    EXPECT_EQ(Send(Plain(IRP_MJ_CLEANUP, FileObject(Handle))).Status, STATUS_SUCCESS);
    Busy->Release();
    EXPECT_EQ(Granted->Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(ServerLocks(), Calls{});
    EXPECT_TRUE(LocalLocks(Owner).empty());
}

// ---- What cannot be posted

TEST_F(Async, APostThatFailsEndsTheRequestAndLosesNoCleanup) {
    constexpr NTSTATUS Refused = STATUS_INSUFFICIENT_RESOURCES;
    struct {
        const char *What;
        UCHAR MajorFunction;
        FaultKind Fails;
        NTSTATUS Returned, Status;
    } constexpr Cases[] = {
        {"no entry", IRP_MJ_READ, FaultKind::Pool, Refused, Refused},
        {"no MDL", IRP_MJ_READ, FaultKind::Mdl, Refused, Refused},
        {"no entry", IRP_MJ_LOCK_CONTROL, FaultKind::Pool, Refused, Refused},
        {"no entry", IRP_MJ_CLEANUP, FaultKind::Pool, STATUS_PENDING, STATUS_SUCCESS},
    };
    LARGE_INTEGER Length = {.QuadPart = 4};
    for (const auto &Case : Cases) {
        SCOPED_TRACE(Case.What);
        const IrpBuilder Builder = Case.MajorFunction == IRP_MJ_READ      ? ReadAt(0)
                                   : Case.MajorFunction == IRP_MJ_CLEANUP ? Plain(IRP_MJ_CLEANUP, FileObject(Handle))
                                                                          : Request(Handle, IRP_MN_LOCK, 2, &Length);
        Provider.ClearCalls();
        const PlannedFaults Faults({.How = FaultPlan::Mode::NthAndAfter,
                                    .Kinds = FaultBit(FaultKind::TryAcquire) | FaultBit(Case.Fails),
                                    .Nth = Case.Fails == FaultKind::Pool ? 2u : 1u}); // after its context
        SentIrp Sent = SendIrp(Device(), Builder);
        EXPECT_EQ(Sent.Returned(), Case.Returned);
        EXPECT_EQ(Sent.Wait().Status, Case.Status);
        EXPECT_EQ(CallNames(), Lines{});
        EXPECT_EQ(Workers(), 0u);
    }
    EXPECT_EQ(Fcb(Handle)->UncleanCount, 0u);
}

TEST_F(Async, AListingThatCannotBePostedEnds) {
    const HANDLE Directory =
        MustOpen(u"\\srv\\vol\\docs", {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE});
    IrpBuilder Listing = Plain(IRP_MJ_DIRECTORY_CONTROL, FileObject(Directory));
    Listing.MinorFunction = IRP_MN_QUERY_DIRECTORY;
    Listing.Fill = [](PIO_STACK_LOCATION Stack) {
        Stack->Parameters.QueryDirectory.FileInformationClass = FileNamesInformation;
    };
    PKEVENT SearchLock = &Instance(Directory)->SearchLock;
    KeClearEvent(SearchLock); // another listing of this open is under way
    {
        const PlannedFaults NoEntry({.Kinds = FaultBit(FaultKind::Pool), .Nth = 2}); // after its context
        EXPECT_EQ(Send(Listing).Status, STATUS_INSUFFICIENT_RESOURCES);
    }
    KeSetEvent(SearchLock, IO_NO_INCREMENT, FALSE);
}

TEST_F(Async, ABufferThatCannotBeLockedNeverReachesAWorker) {
    BusyFile Busy(Fcb(Handle));
    IrpBuilder Bad = ReadAt(0);
    Bad.UserBuffer = reinterpret_cast<PVOID>(0x1000);
    Bad.RequestorMode = UserMode;
    EXPECT_EQ(Send(Bad).Status, STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Workers(), 0u);
}

TEST_F(Async, AMissingThreadIsMadeUpForByTheNextPost) {
    BusyFile Busy(Fcb(Handle));
    std::optional<SentIrp> First;
    {
        const PlannedFaults Faults({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Thread)});
        First.emplace(Post(ReadAt(0)));
        EXPECT_EQ(Workers(), 0u);
        EXPECT_EQ(g_uAsyncIrpQueueCount, 1u);
    }
    SentIrp Second = Post(ReadAt(1));
    Busy.Release();
    EXPECT_EQ(First->Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(Second.Wait().Status, STATUS_SUCCESS);
}

// ---- Closing, shutting down

TEST_F(Async, AProcessEndsWithRequestsInFlightAndItsMemoryGone) {
    const PEPROCESS Client = CreateProcess("client");
    const size_t Bytes = 4096;
    void *const Memory = mmap(nullptr, Bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(Memory, MAP_FAILED);
    BusyFile Busy(Fcb(Handle));
    std::vector<SentIrp> Sent;
    {
        const AttachProcess In(Client);
        for (size_t Index = 0; Index < 2; ++Index) {
            IrpBuilder Builder = ReadAt(Index);
            Builder.UserBuffer = static_cast<char *>(Memory) + Index;
            Builder.RequestorMode = UserMode;
            Sent.push_back(Post(Builder));
        }
        munmap(Memory, Bytes);
        EXPECT_FALSE(Sent[0].Cancel()) << "a worker has it";
        EXPECT_TRUE(Sent[1].Cancel());
    }
    EXPECT_EQ(Sent[1].Wait().Status, STATUS_CANCELLED);
    Busy.Release();
    EXPECT_EQ(Sent[0].Wait().Status, STATUS_SUCCESS);
    DeleteProcess(Client); // stops when its pages are still locked
}

TEST_F(Async, APostedCloseLetsOtherCreatesGoOn) {
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt", Asynchronous);
    const PFILE_OBJECT File = FileObject(Goes);
    EXPECT_EQ(Send(Plain(IRP_MJ_CLEANUP, File)).Status, STATUS_SUCCESS);
    Provider.AddFile(u"\\srv\\vol\\b.txt", "b");
    BusyFile Busy(Fcb(Handle));
    SentIrp Closing = Post(Plain(IRP_MJ_CLOSE, File));
    EXPECT_FALSE(Closing.IsCompleted());
    Close(MustOpen(u"\\srv\\vol\\b.txt"));
    Busy.Release();
    EXPECT_EQ(Closing.Wait().Status, STATUS_SUCCESS);
}

TEST_F(Async, AShutdownServesWhatIsQueuedAndOutlivesEveryWorker) {
    for (const bool WithoutThreads : {false, true}) {
        SCOPED_TRACE(WithoutThreads ? "by itself" : "by workers");
        auto Busy = std::make_unique<BusyFile>(Fcb(Handle));
        std::vector<SentIrp> Posted;
        {
            const PlannedFaults Faults({.How = FaultPlan::Mode::NthAndAfter,
                                        .Kinds = FaultBit(FaultKind::Thread),
                                        .Nth = WithoutThreads ? 1u : 100u});
            for (size_t Index = 0; Index < 5; ++Index) {
                Posted.push_back(Post(ReadAt(Index)));
            }
        }
        EXPECT_EQ(Workers(), WithoutThreads ? 0u : 4u);
        std::thread Down([this] { EXPECT_EQ(Kernel().SendShutdown(), STATUS_NOT_SUPPORTED); });
        while (!NtFsdIsStopped()) {
            std::this_thread::yield();
        }
        Busy.reset();
        Down.join();
        for (SentIrp &Each : Posted) {
            EXPECT_EQ(Each.Wait().Status, STATUS_SUCCESS);
        }
        EXPECT_EQ(g_uAsyncWorkerThreadCount, 0u);
        EXPECT_EQ(Provider.OpenHandles(), Lines{});
        Posted.clear();
        Close(Handle);
        Stop();
        if (!WithoutThreads) {
            SetUp();
        }
    }
}

} // namespace
