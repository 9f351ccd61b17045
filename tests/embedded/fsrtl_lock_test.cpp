#include "embedded/fsrtl.h"

#include "embedded/io.h"
#include "embedded/verifier/report.h"

#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <list>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace embedded {
namespace {

// A lock request and what became of it.
struct Request {
    IrpBuilder Builder;
    LARGE_INTEGER Length{};
    std::optional<SentIrp> Sent;
    int Completions = 0;
    NTSTATUS Status = STATUS_PENDING; // as the completion routine found it
    NTSTATUS Final = STATUS_PENDING;  // what it was completed with
    NTSTATUS Answer = STATUS_SUCCESS; // what the completion routine makes of a request that succeeded
    std::function<void()> OnCompletion;
};

// What the dispatch routine works on: the calling thread's request and the table under test.
thread_local Request *Dispatched = nullptr;
FILE_LOCK *TableUnderTest = nullptr;

NTSTATUS NTAPI DispatchLockControl(PDEVICE_OBJECT, PIRP Irp) {
    Request *const Mine = Dispatched;
    const NTSTATUS Decided = FsRtlProcessFileLock(TableUnderTest, Irp, Mine);
    // The library's own answer: that of the completion routine is the driver's to keep.
    if (Decided == STATUS_PENDING || Mine->Completions == 0) {
        return Decided;
    }
    EXPECT_EQ(Decided, Mine->Status);
    return Mine->Final;
}

NTSTATUS NTAPI CompleteRequest(PVOID Context, PIRP Irp) {
    auto *Done = static_cast<Request *>(Context);
    EXPECT_EQ(__atomic_load_n(&Irp->CancelRoutine, __ATOMIC_SEQ_CST), nullptr);
    EXPECT_EQ(Irp->IoStatus.Information, 0u);
    ++Done->Completions;
    Done->Status = Irp->IoStatus.Status;
    if (Done->OnCompletion) {
        Done->OnCompletion();
    }
    const NTSTATUS Final = NT_SUCCESS(Done->Status) ? Done->Answer : Done->Status;
    Done->Final = Final;
    Irp->IoStatus.Status = Final;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return Final;
}

NTSTATUS NTAPI StartDriver(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
    DriverObject->MajorFunction[IRP_MJ_LOCK_CONTROL] = DispatchLockControl;
    PDEVICE_OBJECT Device = nullptr;
    NTSTATUS Status = IoCreateDevice(DriverObject, 0, nullptr, FILE_DEVICE_NETWORK_FILE_SYSTEM, 0, FALSE, &Device);
    if (NT_SUCCESS(Status)) {
        Device->Flags &= ~DO_DEVICE_INITIALIZING;
    }
    return Status;
}

std::vector<LONGLONG> *Unlocked = nullptr;

VOID NTAPI NoteUnlock(PVOID, PFILE_LOCK_INFO FileLockInfo) {
    Unlocked->push_back(FileLockInfo->StartingByte.QuadPart);
}

constexpr UCHAR Wait = 0;
constexpr UCHAR Fail = SL_FAIL_IMMEDIATELY;
constexpr UCHAR Exclusive = SL_EXCLUSIVE_LOCK;

class FileLocks : public testing::Test {
protected:
    FileLocks() {
        FsRtlInitializeFileLock(&Table_, CompleteRequest, nullptr);
        TableUnderTest = &Table_;
        EXPECT_EQ(LoadDriverObject(StartDriver, u"\\Driver\\LockTest", &Driver_), STATUS_SUCCESS);
        A_ = CreateFileObject(Driver_->DeviceObject, u"\\a", 0);
        B_ = CreateFileObject(Driver_->DeviceObject, u"\\b", 0);
    }
    ~FileLocks() override {
        FsRtlUninitializeFileLock(&Table_);
        EXPECT_EQ(CheckFsRtlLeaks(), "");
        Requests_.clear();
        DereferenceFileObject(A_);
        DereferenceFileObject(B_);
        FreeDriverObject(Driver_);
    }

    Request &Send(UCHAR MinorFunction, PFILE_OBJECT File, ULONGLONG Offset, ULONGLONG Length, UCHAR Flags = 0,
                  ULONG Key = 0) {
        Request &New = Prepare(MinorFunction, File, Offset, Length, Flags, Key);
        Process(New);
        return New;
    }

    Request &Prepare(UCHAR MinorFunction, PFILE_OBJECT File, ULONGLONG Offset, ULONGLONG Length, UCHAR Flags = 0,
                     ULONG Key = 0) {
        Request &New = Requests_.emplace_back();
        New.Length.QuadPart = static_cast<LONGLONG>(Length);
        New.Builder.MajorFunction = IRP_MJ_LOCK_CONTROL;
        New.Builder.MinorFunction = MinorFunction;
        New.Builder.FileObject = File;
        New.Builder.StackFlags = Flags;
        New.Builder.Fill = [&New, Offset, Key](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.LockControl.ByteOffset.QuadPart = static_cast<LONGLONG>(Offset);
            Stack->Parameters.LockControl.Length = &New.Length;
            Stack->Parameters.LockControl.Key = Key;
        };
        return New;
    }

    NTSTATUS Process(Request &New) {
        Request *Outer = std::exchange(Dispatched, &New);
        New.Sent.emplace(SendIrp(Driver_->DeviceObject, New.Builder));
        Dispatched = Outer;
        // The length is the driver's and gone once the request was handed over.
        New.Length.QuadPart = -1;
        return New.Sent->Returned();
    }

    NTSTATUS Lock(PFILE_OBJECT File, ULONGLONG Offset, ULONGLONG Length, UCHAR Flags, ULONG Key = 0) {
        return Process(Prepare(IRP_MN_LOCK, File, Offset, Length, Flags, Key));
    }

    NTSTATUS Unlock(PFILE_OBJECT File, LONGLONG Offset, LONGLONG Length, ULONG Key = 0) {
        LARGE_INTEGER Start{};
        Start.QuadPart = Offset;
        LARGE_INTEGER Size{};
        Size.QuadPart = Length;
        return FsRtlFastUnlockSingle(&Table_, File, &Start, &Size, IoGetCurrentProcess(), Key, nullptr, FALSE);
    }

    std::vector<LONGLONG> Starts() {
        std::vector<LONGLONG> All;
        for (auto *Each = FsRtlGetNextFileLock(&Table_, TRUE); Each != nullptr;
             Each = FsRtlGetNextFileLock(&Table_, FALSE)) {
            All.push_back(Each->StartingByte.QuadPart);
        }
        return All;
    }

    FILE_LOCK Table_;
    std::list<Request> Requests_;
    PDRIVER_OBJECT Driver_ = nullptr;
    PFILE_OBJECT A_ = nullptr;
    PFILE_OBJECT B_ = nullptr;
};

TEST_F(FileLocks, ConflictsFollowKindOwnerAndRange) {
    constexpr ULONGLONG Top = std::numeric_limits<ULONGLONG>::max();
    const struct {
        const char *Why;
        ULONGLONG HeldOffset, HeldLength;
        UCHAR Held;
        bool SameOwner;
        ULONGLONG Offset, Length;
        UCHAR Wanted;
        NTSTATUS Status;
    } Cases[] = {
        {"shared on shared", 10, 10, 0, false, 10, 10, 0, STATUS_SUCCESS},
        {"exclusive on shared", 10, 10, 0, false, 10, 10, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"shared on exclusive", 10, 10, Exclusive, false, 10, 10, 0, STATUS_LOCK_NOT_GRANTED},
        {"exclusive on exclusive", 10, 10, Exclusive, false, 19, 5, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"own exclusive on own exclusive", 10, 10, Exclusive, true, 15, 1, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"own exclusive on own shared", 10, 10, 0, true, 10, 10, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"own shared on own exclusive", 10, 10, Exclusive, true, 10, 10, 0, STATUS_SUCCESS},
        {"just before", 10, 10, Exclusive, false, 0, 10, Exclusive, STATUS_SUCCESS},
        {"just behind", 10, 10, Exclusive, false, 20, 10, Exclusive, STATUS_SUCCESS},
        {"one byte over its start", 10, 10, Exclusive, false, 0, 11, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"all around", 10, 10, Exclusive, false, 0, 100, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"nothing at its start", 10, 10, Exclusive, false, 10, 0, Exclusive, STATUS_SUCCESS},
        {"nothing inside", 10, 10, Exclusive, false, 19, 0, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"nothing behind it", 10, 10, Exclusive, false, 20, 0, Exclusive, STATUS_SUCCESS},
        {"around nothing", 15, 0, Exclusive, false, 10, 10, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"from nothing on", 15, 0, Exclusive, false, 15, 10, Exclusive, STATUS_SUCCESS},
        {"nothing on nothing", 15, 0, Exclusive, false, 15, 0, Exclusive, STATUS_SUCCESS},
        {"nothing at the very start", 0, 0, Exclusive, false, 0, Top, Exclusive, STATUS_SUCCESS},
        {"beyond 2^63", 1ull << 63, 10, Exclusive, false, (1ull << 63) + 9, 1, Exclusive, STATUS_LOCK_NOT_GRANTED},
        {"up to the last byte", Top, 1, Exclusive, false, 0, Top, Exclusive, STATUS_SUCCESS},
        {"over the last byte", 0, 1, Exclusive, false, Top, 2, Exclusive, STATUS_INVALID_LOCK_RANGE},
        {"length wraps", 0, 1, Exclusive, false, 2, Top, Exclusive, STATUS_INVALID_LOCK_RANGE},
    };
    for (const auto &Case : Cases) {
        SCOPED_TRACE(Case.Why);
        ASSERT_EQ(Lock(A_, Case.HeldOffset, Case.HeldLength, Case.Held | Fail), STATUS_SUCCESS);
        PFILE_OBJECT File = Case.SameOwner ? A_ : B_;
        Request &Sent = Send(IRP_MN_LOCK, File, Case.Offset, Case.Length, Case.Wanted | Fail);
        EXPECT_EQ(Sent.Status, Case.Status);
        EXPECT_EQ(Sent.Completions, 1);
        EXPECT_EQ(Starts().size(), NT_SUCCESS(Case.Status) ? 2u : 1u);
        Send(IRP_MN_UNLOCK_ALL, A_, 0, 0);
        Send(IRP_MN_UNLOCK_ALL, B_, 0, 0);
        EXPECT_TRUE(Starts().empty());
    }
}

TEST_F(FileLocks, TheOwnerIsFileProcessAndKeyTogether) {
    auto Other = reinterpret_cast<PEPROCESS>(&Table_);
    ASSERT_TRUE(PlantFileLock(&Table_, A_, Other, 0, 10, 7, true));
    EXPECT_EQ(Lock(A_, 0, 10, Fail, 7), STATUS_LOCK_NOT_GRANTED) << "another process";
    ASSERT_TRUE(PlantFileLock(&Table_, A_, IoGetCurrentProcess(), 20, 10, 7, true));
    EXPECT_EQ(Lock(A_, 20, 10, Fail, 8), STATUS_LOCK_NOT_GRANTED) << "another key";
    EXPECT_EQ(Lock(A_, 20, 10, Fail, 7), STATUS_SUCCESS);
    EXPECT_FALSE(PlantFileLock(&Table_, B_, Other, 29, 1, 7, true));
}

TEST_F(FileLocks, AnUnlockMustMeetRangeAndOwnerExactly) {
    EXPECT_EQ(Unlock(A_, 0, 10), STATUS_RANGE_NOT_LOCKED) << "no lock was ever asked for";
    ASSERT_EQ(Lock(A_, 0, 10, Exclusive, 3), STATUS_SUCCESS);
    EXPECT_TRUE(Table_.FastIoIsQuestionable);
    EXPECT_EQ(Unlock(A_, 0, 9, 3), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(Unlock(A_, 1, 10, 3), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(Unlock(A_, 0, 10, 4), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(Unlock(B_, 0, 10, 3), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(Send(IRP_MN_UNLOCK_SINGLE, A_, 0, 10, 0, 4).Status, STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(Send(IRP_MN_UNLOCK_SINGLE, A_, 0, 10, 0, 3).Status, STATUS_SUCCESS);
    EXPECT_EQ(Unlock(A_, 0, 10, 3), STATUS_RANGE_NOT_LOCKED);
    EXPECT_FALSE(Table_.FastIoIsQuestionable);
}

TEST_F(FileLocks, UnlockAllTakesOneOwnersLocksByKeyOrAll) {
    std::vector<LONGLONG> Order;
    Unlocked = &Order;
    FsRtlInitializeFileLock(&Table_, CompleteRequest, NoteUnlock);
    for (ULONG Key : {1, 2, 1}) {
        ASSERT_EQ(Lock(A_, Starts().size() * 10, 10, Exclusive, Key), STATUS_SUCCESS);
    }
    ASSERT_EQ(Lock(B_, 100, 10, Exclusive, 1), STATUS_SUCCESS);
    EXPECT_EQ(Send(IRP_MN_UNLOCK_ALL_BY_KEY, A_, 0, 0, 0, 1).Status, STATUS_SUCCESS);
    EXPECT_EQ(Starts(), (std::vector<LONGLONG>{10, 100}));
    EXPECT_EQ(Send(IRP_MN_UNLOCK_ALL, A_, 0, 0, 0, 9).Status, STATUS_SUCCESS);
    EXPECT_EQ(Starts(), std::vector<LONGLONG>{100});
    EXPECT_EQ(Send(IRP_MN_UNLOCK_ALL, A_, 0, 0).Status, STATUS_SUCCESS) << "nothing left to unlock";
    EXPECT_EQ(Unlock(B_, 100, 10, 1), STATUS_SUCCESS);
    EXPECT_EQ(Order, (std::vector<LONGLONG>{0, 20, 10, 100}));
}

TEST_F(FileLocks, WaitingRequestsAreGrantedInOrderWhenTheRangeGoesFree) {
    ASSERT_EQ(Lock(A_, 0, 10, Exclusive), STATUS_SUCCESS);
    Request &First = Prepare(IRP_MN_LOCK, B_, 0, 5, Wait);
    Request &Second = Prepare(IRP_MN_LOCK, B_, 0, 10, Exclusive);
    Request &Third = Prepare(IRP_MN_LOCK, A_, 5, 1, Exclusive);
    for (Request *Each : {&First, &Second, &Third}) {
        EXPECT_EQ(Process(*Each), STATUS_PENDING);
        EXPECT_EQ(Each->Completions, 0);
    }
    EXPECT_EQ(WaitingFileLocks(&Table_), 3u);
    ASSERT_EQ(Unlock(A_, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(First.Completions, 1);
    EXPECT_EQ(Second.Completions, 0);
    EXPECT_EQ(Third.Completions, 1) << "what does not conflict overtakes";
    ASSERT_EQ(Unlock(B_, 0, 5), STATUS_SUCCESS);
    EXPECT_EQ(Second.Completions, 0);
    ASSERT_EQ(Unlock(A_, 5, 1), STATUS_SUCCESS);
    EXPECT_EQ(Second.Completions, 1);
    EXPECT_EQ(Second.Status, STATUS_SUCCESS);
    EXPECT_EQ(WaitingFileLocks(&Table_), 0u);
}

TEST_F(FileLocks, ACompletionMayUseTheTable) {
    Request &Own = Prepare(IRP_MN_LOCK, A_, 0, 10, Exclusive);
    Own.OnCompletion = [&] {
        EXPECT_EQ(Starts().size(), 1u);
        EXPECT_EQ(Unlock(A_, 0, 10), STATUS_SUCCESS);
        // The same range again, under the same owner: the refusal below must not take this one back.
        EXPECT_TRUE(PlantFileLock(&Table_, A_, IoGetCurrentProcess(), 0, 10, 0, true));
    };
    Own.Answer = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(Process(Own), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Starts().size(), 1u);
}

TEST_F(FileLocks, TheWalkGoesOnWhenLocksComeAndGo) {
    for (ULONGLONG Offset : {30, 10, 20}) {
        ASSERT_EQ(Lock(A_, Offset, 1, Exclusive), STATUS_SUCCESS);
    }
    FILE_LOCK_INFO *Found = FsRtlGetNextFileLock(&Table_, TRUE);
    ASSERT_NE(Found, nullptr);
    EXPECT_EQ(Found->StartingByte.QuadPart, 30);
    EXPECT_EQ(Found->EndingByte.QuadPart, 30);
    EXPECT_EQ(Found->FileObject, A_);
    EXPECT_EQ(Found->ProcessId, IoGetCurrentProcess());
    ASSERT_EQ(Unlock(A_, 30, 1), STATUS_SUCCESS);
    ASSERT_EQ(Unlock(A_, 10, 1), STATUS_SUCCESS);
    Found = FsRtlGetNextFileLock(&Table_, FALSE);
    ASSERT_NE(Found, nullptr);
    EXPECT_EQ(Found->StartingByte.QuadPart, 20);
    EXPECT_EQ(FsRtlGetNextFileLock(&Table_, FALSE), nullptr);
}

TEST_F(FileLocks, TeardownEndsWaitersWithRangeNotLocked) {
    ASSERT_EQ(Lock(A_, 0, 10, Exclusive), STATUS_SUCCESS);
    Request &Waiting = Send(IRP_MN_LOCK, B_, 0, 10, Exclusive);
    EXPECT_NE(CheckFsRtlLeaks().find("1 waiting byte-range lock request(s) left"), std::string::npos);
    SetVerifierLevel(VerifierLevel::Off);
    FsRtlUninitializeFileLock(&Table_);
    SetVerifierLevel(VerifierLevel::On);
    EXPECT_EQ(Waiting.Completions, 1);
    EXPECT_EQ(Waiting.Status, STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(CheckFsRtlLeaks(), "");
}

using FileLocksDeathTest = FileLocks;

TEST_F(FileLocksDeathTest, TheVerifierReportsATeardownWithWaiters) {
    ASSERT_EQ(Lock(A_, 0, 10, Exclusive), STATUS_SUCCESS);
    Request &Waiting = Send(IRP_MN_LOCK, B_, 0, 10, Exclusive);
    EXPECT_DEATH(FsRtlUninitializeFileLock(&Table_), "lock requests still wait in the table");
    Waiting.Sent->Cancel();
}

TEST_F(FileLocks, RandomLocksAgreeWithAPlainList) {
    struct Held {
        ULONGLONG Start, Length;
        PFILE_OBJECT File;
        bool Exclusive;
    };
    std::mt19937 Random(7);
    std::vector<Held> Model;
    for (int Step = 0; Step < 4000; ++Step) {
        Held New{Random() % 400, Random() % 12, Random() % 2 ? A_ : B_, Random() % 2 == 0};
        if (!Model.empty() && Random() % 2) {
            std::swap(Model[Random() % Model.size()], Model.back());
            // Where the owner holds the range both ways the exclusive lock goes.
            auto Gone = Model.end() - 1;
            for (auto At = Model.begin(); At != Model.end(); ++At) {
                if (At->Start == Gone->Start && At->Length == Gone->Length && At->File == Gone->File && At->Exclusive) {
                    Gone = At;
                    break;
                }
            }
            ASSERT_EQ(Unlock(Gone->File, static_cast<LONGLONG>(Gone->Start), static_cast<LONGLONG>(Gone->Length)),
                      STATUS_SUCCESS);
            Model.erase(Gone);
            continue;
        }
        bool Conflict = false;
        for (const Held &Each : Model) {
            // Half-open ranges; an empty one counts as the point between two bytes.
            bool Overlap = New.Start < Each.Start + Each.Length && Each.Start < New.Start + New.Length;
            Conflict |= Overlap && (New.Exclusive || (Each.Exclusive && Each.File != New.File));
        }
        UCHAR Kind = New.Exclusive ? Exclusive : 0;
        ASSERT_EQ(Lock(New.File, New.Start, New.Length, Kind | Fail),
                  Conflict ? STATUS_LOCK_NOT_GRANTED : STATUS_SUCCESS);
        if (!Conflict) {
            Model.push_back(New);
        }
        Requests_.clear();
        ASSERT_EQ(Starts().size(), Model.size());
    }
}

TEST_F(FileLocks, CancelAndGrantRacingEndARequestOnce) {
    for (int Round = 0; Round < 300; ++Round) {
        ASSERT_EQ(Lock(A_, 0, 10, Exclusive), STATUS_SUCCESS);
        Request &Waiting = Send(IRP_MN_LOCK, B_, 0, 10, Exclusive);
        std::thread Canceller([&] { Waiting.Sent->Cancel(); });
        EXPECT_EQ(Unlock(A_, 0, 10), STATUS_SUCCESS);
        Canceller.join();
        ASSERT_EQ(Waiting.Completions, 1);
        EXPECT_EQ(Starts().size(), NT_SUCCESS(Waiting.Status) ? 1u : 0u);
        Send(IRP_MN_UNLOCK_ALL, B_, 0, 0);
    }
}

TEST(NotifySync, IsCountedFromSetUpToTeardown) {
    PNOTIFY_SYNC Sync = nullptr;
    ASSERT_EQ(KernelNotifyInitializeSync(&Sync), STATUS_SUCCESS);
    ASSERT_NE(Sync, nullptr);
    EXPECT_EQ(CheckFsRtlLeaks(), "1 notify synchronisation object(s) left\n");
    FsRtlNotifyUninitializeSync(&Sync);
    EXPECT_EQ(Sync, nullptr);
    FsRtlNotifyUninitializeSync(&Sync);
    EXPECT_EQ(CheckFsRtlLeaks(), "");
}

FSRTL_ADVANCED_FCB_HEADER GoodHeader(FAST_MUTEX &Mutex) {
    FSRTL_ADVANCED_FCB_HEADER Header{};
    Header.Flags = FSRTL_FLAG_ADVANCED_HEADER;
    Header.Flags2 = FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS;
    Header.Version = FSRTL_FCB_HEADER_V1;
    Header.FastMutex = &Mutex;
    return Header;
}

TEST(StreamContextsDeathTest, TeardownChecksTheHeader) {
    FAST_MUTEX Mutex{};
    auto Teardown = [&](auto Spoil) {
        FSRTL_ADVANCED_FCB_HEADER Header = GoodHeader(Mutex);
        InitializeListHead(&Header.FilterContexts);
        Spoil(Header);
        FsRtlTeardownPerStreamContexts(&Header);
    };
    Teardown([](auto &) {});
    EXPECT_DEATH(Teardown([](auto &Header) { Header.Flags = 0; }), "FSRTL_FLAG_ADVANCED_HEADER");
    EXPECT_DEATH(Teardown([](auto &Header) { Header.Flags2 = 0; }), "SUPPORTS_FILTER_CONTEXTS");
    EXPECT_DEATH(Teardown([](auto &Header) { Header.Version = FSRTL_FCB_HEADER_V0; }), "FSRTL_FCB_HEADER_V1");
    EXPECT_DEATH(Teardown([](auto &Header) { Header.FastMutex = nullptr; }), "no fast mutex");
    LIST_ENTRY Foreign;
    EXPECT_DEATH(Teardown([&](auto &Header) { InsertTailList(&Header.FilterContexts, &Foreign); }),
                 "there are stream contexts");
}

} // namespace
} // namespace embedded
