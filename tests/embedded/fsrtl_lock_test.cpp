#include "embedded/fsrtl/fsrtl.h"

#include "embedded/fsrtl/probe.h"
#include "embedded/io/io.h"
#include "embedded/io/probe.h"
#include "embedded/verifier/report.h"

#include <algorithm>
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

    NTSTATUS Unlock(PFILE_OBJECT File, LONGLONG Offset, LONGLONG Length, ULONG Key = 0,
                    PEPROCESS Process = IoGetCurrentProcess()) {
        LARGE_INTEGER Start = {.QuadPart = Offset}, Size = {.QuadPart = Length};
        return FsRtlFastUnlockSingle(&Table_, File, &Start, &Size, Process, Key, nullptr, FALSE);
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

// Whoever locks and unlocks what, also where ranges end with the last byte that there is.
TEST_F(FileLocks, AgreeWithAPlainList) {
    struct Held {
        PFILE_OBJECT File;
        PEPROCESS Process;
        ULONG Key;
        ULONGLONG Start, Length;
        bool Exclusive;
        bool IsOf(const Held &Other) const {
            return File == Other.File && Process == Other.Process && Key == Other.Key;
        }
        // Half-open ranges; an empty one counts as the point between two bytes.
        bool ConflictsWith(const Held &Other) const {
            using Wide = unsigned __int128;
            return Wide{Start} < Wide{Other.Start} + Other.Length && Wide{Other.Start} < Wide{Start} + Length &&
                   (Exclusive || (Other.Exclusive && !IsOf(Other)));
        }
    };
    constexpr ULONGLONG Top = std::numeric_limits<ULONGLONG>::max();
    const PEPROCESS Mine = IoGetCurrentProcess();
    std::vector<LONGLONG> Told, Expected; // of the locks that were given back
    std::vector<Held> Model;              // in the order of their grants
    FsRtlInitializeFileLock(&Table_, CompleteRequest, NoteUnlock);
    Unlocked = &Told;
    EXPECT_EQ(Unlock(A_, 0, 10), STATUS_RANGE_NOT_LOCKED) << "no lock was ever asked for";
    std::mt19937 Random(7);
    const auto OneOf = [&](ULONG Number) { return static_cast<ULONG>(Random() % Number); };
    for (int Step = 0; Step < 8000; ++Step) {
        Held New = {OneOf(2) ? A_ : B_, OneOf(8) ? Mine : reinterpret_cast<PEPROCESS>(&Table_),
                    OneOf(2),           OneOf(400),
                    OneOf(12),          OneOf(2) == 0};
        New.Start += OneOf(4) ? 0 : Top - 399;
        New.Length = OneOf(64) ? New.Length : Top - New.Start + OneOf(3);
        if (OneOf(256) == 0) {
            const bool ByKey = OneOf(2);
            Send(ByKey ? IRP_MN_UNLOCK_ALL_BY_KEY : IRP_MN_UNLOCK_ALL, New.File, 0, 0, 0, New.Key);
            std::erase_if(Model, [&](const Held &Each) {
                const bool Goes = Each.File == New.File && Each.Process == Mine && (!ByKey || Each.Key == New.Key);
                Goes ? Expected.push_back(static_cast<LONGLONG>(Each.Start)) : void();
                return Goes;
            });
        } else if (OneOf(2) && !Model.empty()) {
            Held Gone = Model[OneOf(static_cast<ULONG>(Model.size()))];
            Gone.Start += OneOf(16) == 0;
            Gone.Length += OneOf(16) == 0;
            Gone.Key ^= OneOf(16) == 0;
            Gone.File = OneOf(16) ? Gone.File : New.File;
            // Of those held alike the exclusive one goes, or the oldest.
            const auto Alike = [&](const Held &Each) {
                return Each.IsOf(Gone) && Each.Start == Gone.Start && Each.Length == Gone.Length;
            };
            auto Found = std::ranges::find_if(Model, [&](const Held &Each) { return Each.Exclusive && Alike(Each); });
            Found = Found == Model.end() ? std::ranges::find_if(Model, Alike) : Found;
            ASSERT_EQ(Unlock(Gone.File, static_cast<LONGLONG>(Gone.Start), static_cast<LONGLONG>(Gone.Length), Gone.Key,
                             Gone.Process),
                      Found == Model.end() ? STATUS_RANGE_NOT_LOCKED : STATUS_SUCCESS);
            if (Found != Model.end()) {
                Expected.push_back(static_cast<LONGLONG>(Gone.Start));
                Model.erase(Found);
            }
        } else {
            const bool Wraps = New.Length != 0 && New.Start + (New.Length - 1) < New.Start;
            const bool Taken = std::ranges::any_of(Model, [&](const Held &Each) { return New.ConflictsWith(Each); });
            const NTSTATUS Status = Wraps   ? STATUS_INVALID_LOCK_RANGE
                                    : Taken ? STATUS_LOCK_NOT_GRANTED
                                            : STATUS_SUCCESS;
            if (New.Process == Mine) {
                const UCHAR Flags = New.Exclusive ? Exclusive | Fail : Fail;
                ASSERT_EQ(Lock(New.File, New.Start, New.Length, Flags, New.Key), Status);
                ASSERT_EQ(Requests_.back().Completions, 1);
            } else {
                ASSERT_EQ(PlantFileLock(&Table_, New.File, New.Process, New.Start, New.Length, New.Key, New.Exclusive),
                          Status == STATUS_SUCCESS);
            }
            Model.insert(Model.end(), Status == STATUS_SUCCESS, New);
        }
        Requests_.clear();
        std::vector<LONGLONG> Left;
        std::ranges::transform(Model, std::back_inserter(Left), &Held::Start);
        ASSERT_EQ(Starts(), Left);
        ASSERT_EQ(Told, Expected);
        ASSERT_EQ(Table_.FastIoIsQuestionable != 0, !Model.empty());
    }
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
