// Named races of the driver: every schedule of two preemptions, up to a limit, and random ones. RVFSD_EXPLORE=100 makes
// a campaign of it, RVFSD_SCHEDULE repeats one schedule.

#include <iostream>

#include "embedded/ex/probe.h"
#include "embedded/explorer/explorer.h"
#include "embedded/io/probe.h"
#include "embedded/ke/schedule.h"
#include "embedded/verifier/probe.h"
#include "frame/async_queue.h"
#include "provider/binding.h"
#include "provider/class_factory.h"
#include "tests/driver/lock_client.h"
#include "tests/driver/set_client.h"

namespace {

using namespace test;

template <typename Fixture>
class Racing : public Fixture {
protected:
    // The calls of the Provider are places where others may run, too.
    void Begin(const StartOptions &Options = {}) {
        this->Start(Options);
        Clock::Settle();
        this->Provider.OnCall(Slot::Any).Do([](const Call &) { SchedulePoint("a call of the Provider", nullptr); });
    }
    // Runs the schedules of Actors, each between Before and After, which says by Must and Ended what is wrong. Nothing
    // may be left then that was not there after the first one.
    void MustPass(const char *Name, std::function<void()> Before, std::vector<std::function<void()>> Actors,
                  std::function<void()> After, const ExploreOptions &Options = {.MostSchedules = 3000}) {
        LONG64 Blocks = -1;
        const auto Judge = [&] {
            Wrong.clear();
            After();
            Must(this->Provider.OpenHandles().empty(), "handles are left open at the server");
            Must(Blocks < 0 || PoolBlocksInUse() <= Blocks, "more blocks of pool than after the first schedule");
            Blocks = Blocks < 0 ? PoolBlocksInUse() : Blocks;
            this->Provider.ClearCalls();
            return Wrong;
        };
        const ExploreResult Found = Explore({Name, Before, Actors, Judge}, OptionsFromEnvironment(Options));
        EXPECT_EQ(Found.Failure, "") << "RVFSD_SCHEDULE=" << Found.Schedule;
        std::cout << "[ EXPLORER ] " << Name << ": " << Found.Walked << " schedules of at most " << Options.Preemptions
                  << " preemptions, " << (Found.Bounded ? "bounded there" : "all") << "; " << Found.Random
                  << " random ones; up to " << Found.MostPoints << " points\n";
    }
    void Must(bool Holds, std::string_view What) {
        Wrong += Holds ? "" : fmt::format("{}; ", What);
    }
    // Whether What ended with Status, one of those that it may end with, and that is a success.
    bool Ended(const char *What, NTSTATUS Status, std::initializer_list<NTSTATUS> Allowed = {STATUS_SUCCESS}) {
        Must(std::ranges::find(Allowed, Status) != Allowed.end(),
             fmt::format("{}: 0x{:08X}", What, static_cast<ULONG>(Status)));
        return NT_SUCCESS(Status);
    }

    // What the request that waits has ended with.
    NTSTATUS Waited() {
        const NTSTATUS Status = Waiting->IsCompleted() ? Waiting->Wait().Status : STATUS_PENDING;
        if (Status != STATUS_PENDING) {
            Waiting.reset();
        }
        return Status;
    }

    std::string Wrong;
    std::optional<SentIrp> Waiting;
};

// ---- Names

class NameRaces : public Racing<SetFixture> {
protected:
    NameRaces() {
        Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "inside");
    }
    void TryOpen(NTSTATUS &Status, std::u16string_view Path, const Open &Request) {
        const CreateResult Result = Create(Path, Request);
        Status = Result.Status;
        Opened = Result.Handle;
    }
    // The open names itself by a path where the server has something, and that is Content.
    void ExpectThere(HANDLE Handle, std::string_view Content) {
        Must(Provider.Exists(PathOf(Handle)), "nothing is at " + ToUtf8(PathOf(Handle)));
        Must(Content.empty() || ReadAll(Handle) == Content, "the file cannot be read");
    }
    // Waits for changes in \srv\vol\d.
    void Watch() {
        Directory =
            MustOpen(u"\\srv\\vol\\d", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Options = FILE_DIRECTORY_FILE});
        IrpBuilder Builder = Plain(IRP_MJ_DIRECTORY_CONTROL, FileObject(Directory));
        Builder.MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
        Builder.Fill = [](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.NotifyDirectory.CompletionFilter = FILE_NOTIFY_CHANGE_FILE_NAME;
        };
        Waiting.emplace(SendIrp(Device(), Builder));
    }
    // Puts names back for the next schedule.
    void MoveBack(HANDLE Handle, std::u16string_view Path) {
        Must(PathOf(Handle) == Path || Rename(Handle, Path) == STATUS_SUCCESS, "it cannot be put back");
        Close(Handle);
    }

    HANDLE File = nullptr, Directory = nullptr, Opened = nullptr;
    NTSTATUS First = STATUS_SUCCESS, Second = STATUS_SUCCESS;
};

TEST_F(NameRaces, CloseAgainstCreateOfTheSamePath) {
    Begin();
    MustPass(
        "close against create of the same path", [&] { File = MustOpen(u"\\srv\\vol\\a.txt"); },
        {[&] { Close(File); }, [&] { TryOpen(First, u"\\srv\\vol\\A.TXT", ForChange); }},
        [&] {
            if (Ended("the create", First)) {
                ExpectThere(Opened, "0123456789");
                Must(Fcb(Opened)->OpenCount == 1, "opens are not counted");
                Close(Opened);
            }
        });
}

TEST_F(NameRaces, RenameAgainstARelativeOpen) {
    Begin();
    MustPass(
        "rename against a relative open", [&] { Directory = MustOpen(u"\\srv\\vol\\d", DirectoryForChange); },
        {[&] { First = Rename(Directory, u"\\srv\\vol\\e"); },
         [&] { TryOpen(Second, u"f.txt", {.Related = Directory}); }},
        [&] {
            // An open below makes the server, or the driver, refuse the rename.
            Ended("the rename", First, {STATUS_SUCCESS, STATUS_ACCESS_DENIED});
            if (Ended("the open", Second)) {
                ExpectThere(Opened, "inside");
                Close(Opened);
            }
            MoveBack(Directory, u"\\srv\\vol\\d");
        });
}

TEST_F(NameRaces, RenameAgainstARenameOfTheTargetDirectory) {
    Begin();
    MustPass(
        "rename against a rename of the target directory",
        [&] {
            File = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
            Directory = MustOpen(u"\\srv\\vol\\d", DirectoryForChange);
        },
        {[&] { First = Rename(File, u"\\srv\\vol\\d\\g.txt"); }, [&] { Second = Rename(Directory, u"\\srv\\vol\\e"); }},
        [&] {
            Ended("the file's rename", First, {STATUS_SUCCESS, STATUS_OBJECT_PATH_NOT_FOUND, STATUS_ACCESS_DENIED});
            Ended("the directory's rename", Second, {STATUS_SUCCESS, STATUS_ACCESS_DENIED});
            ExpectThere(File, "0123456789");
            ExpectThere(Directory, "");
            MoveBack(File, u"\\srv\\vol\\a.txt");
            MoveBack(Directory, u"\\srv\\vol\\d");
        });
}

TEST_F(NameRaces, NotificationAgainstClose) {
    Begin({.Switches = {{u"EnableDirectoryNotify", 1}}});
    constexpr Open Passing = {.Access = FILE_WRITE_DATA | DELETE | SYNCHRONIZE,
                              .Disposition = FILE_CREATE,
                              .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT};
    MustPass(
        "notification against close", [&] { Watch(); },
        {[&] { Close(MustOpen(u"\\srv\\vol\\d\\new.txt", Passing)); }, [&] { Close(Directory); }},
        [&] {
            Ended("the wait", Waited(),
                  {STATUS_SUCCESS, STATUS_NOTIFY_ENUM_DIR, STATUS_NOTIFY_CLEANUP, STATUS_CANCELLED});
        });
}

// Whichever of them ends last deletes the file, and watchers hear of it.
TEST_F(NameRaces, CloseThatDeletesAgainstAnOpenThatFails) {
    Begin({.Switches = {{u"EnableDirectoryNotify", 1}}});
    constexpr Open Deleting = {.Access = DELETE | SYNCHRONIZE,
                               .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT};
    MustPass(
        "close that deletes against an open that fails",
        [&] {
            Provider.AddFile(u"\\srv\\vol\\d\\x.txt", "x");
            File = MustOpen(u"\\srv\\vol\\d\\x.txt", Deleting);
            Watch();
        },
        {[&] { Close(File); }, [&] { First = Create(u"\\srv\\vol\\d\\x.txt", AsDirectory).Status; }},
        [&] {
            Ended("the wait", Waited(), {STATUS_NOTIFY_ENUM_DIR});
            Close(Directory);
            Must(!NT_SUCCESS(First), "the open did not fail");
            Must(!Provider.Exists(u"\\srv\\vol\\d\\x.txt"), "the file is still there");
        },
        {.MostSchedules = 3000, .RandomSchedules = 300});
}

// ---- Locks

class LockRaces : public Racing<LockFixture> {
protected:
    // Told locks minus told unlocks.
    int KeptByServer() {
        return static_cast<int>(Provider.CountCalls(Slot::LockFile)) -
               static_cast<int>(Provider.CountCalls(Slot::UnlockFile));
    }

    HANDLE Owner = nullptr, Other = nullptr;
};

TEST_F(LockRaces, GrantAgainstCleanup) {
    Begin();
    MustPass(
        "lock grant against cleanup",
        [&] {
            Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer);
            Other = MustOpen(u"\\srv\\vol\\a.txt", Writer);
            EXPECT_EQ(Lock(Owner, 0, 10), STATUS_SUCCESS);
            Waiting.emplace(Wait(Other, 2));
        },
        {[&] { Unlock(Owner, 0, 10); }, [&] { Close(Other); }},
        [&] {
            Ended("the waiting lock", Waited(), {STATUS_SUCCESS, STATUS_CANCELLED});
            Must(LocalLocks(Owner).empty(), "locks are left here");
            Close(Owner);
            Must(KeptByServer() == 0, "locks are left at the server");
        });
}

TEST_F(LockRaces, UnlockAgainstTheTellingOfTheServer) {
    Begin();
    NTSTATUS Unlocked = STATUS_SUCCESS;
    MustPass(
        "unlock against the telling of the server", [&] { Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer); },
        {[&] { Waiting.emplace(Wait(Owner, 2)); }, [&] { Unlocked = Unlock(Owner, 2, 4); }},
        [&] {
            const bool Locked = Ended("the lock", Waited(), {STATUS_SUCCESS, STATUS_CANCELLED});
            const bool Given = Ended("the unlock", Unlocked, {STATUS_SUCCESS, STATUS_RANGE_NOT_LOCKED});
            const int Expected = Locked && !Given ? 1 : 0;
            Must(static_cast<int>(LocalLocks(Owner).size()) == Expected, "another number of locks here");
            // An unlock that comes between the grant and its note is taken to the server, which has no such lock and
            // says so.
            const bool Overtaken = KeptByServer() == -1 && !Given;
            Must(KeptByServer() == Expected || Overtaken, "another number of locks at the server");
            Close(Owner);
        });
}

// ---- The queue of posted requests

class QueueRaces : public Racing<LockFixture> {
protected:
    void StartPosting() {
        Begin({.Switches = {{u"EnableAsyncIo", 1}}});
    }
    void OpenOverlapped() {
        Handle = MustOpen(u"\\srv\\vol\\a.txt", Asynchronous);
        Irp = nullptr;
        Byte = 0;
    }
    static constexpr ExploreOptions Queued = {.MostSchedules = 5000};

    // A read of one byte that is posted.
    SentIrp SendRead(char *Into, PDEVICE_OBJECT To, PIRP *Made = nullptr) {
        IrpBuilder Builder = Plain(IRP_MJ_READ, FileObject(Handle));
        Builder.UserBuffer = Into;
        Builder.Fill = [](PIO_STACK_LOCATION Stack) { Stack->Parameters.Read.Length = 1; };
        return SendBusy(Builder, To, Made);
    }
    // A request that gets no resource without waiting.
    SentIrp SendBusy(IrpBuilder Builder, PDEVICE_OBJECT To, PIRP *Made) {
        Builder.Made = Made;
        const PlannedFaults Busy({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::TryAcquire)});
        return SendIrp(To, Builder);
    }
    // Lets the workers end, who leave nothing of the queue.
    void Drain() {
        Clock::Advance(3 * Clock::Second);
        Clock::Settle();
        Must(g_uAsyncWorkerThreadCount == 0 && g_uAsyncIrpQueueCount == 0, "workers or requests are left");
    }
    void Delay(LONGLONG Time) {
        LARGE_INTEGER Interval = {.QuadPart = -Time};
        KeDelayExecutionThread(KernelMode, FALSE, &Interval);
    }

    HANDLE Handle = nullptr;
    PIRP Irp = nullptr;
    IO_STATUS_BLOCK Read = {};
    char Byte = 0;
};

TEST_F(QueueRaces, PostAgainstCancel) {
    StartPosting();
    std::optional<SentIrp> Sent;
    MustPass(
        "post against cancel", [&] { OpenOverlapped(); },
        {[&] {
             Sent.emplace(SendRead(&Byte, Device(), &Irp));
             Read = Sent->Wait();
         },
         [&] {
             SchedulePoint("the canceller", nullptr);
             Irp != nullptr ? static_cast<void>(IoCancelIrp(Irp)) : void();
         }},
        [&] {
            Sent.reset();
            Close(Handle);
            const bool Served = Ended("the read", Read.Status, {STATUS_SUCCESS, STATUS_CANCELLED});
            Must(Read.Information == (Served ? 1 : 0) && (!Served || Byte == '0'), "the read has another answer");
            Drain();
        },
        Queued);
}

// The second post comes when the worker of the first has looked for the last time.
TEST_F(QueueRaces, WorkerExitAgainstANewPost) {
    StartPosting();
    MustPass(
        "worker exit against a new post", [&] { OpenOverlapped(); }, {[&] {
            SendRead(&Byte, Device()).Wait();
            Delay(2 * Clock::Second);
            Byte = 0;
            Read = SendRead(&Byte, Device()).Wait();
        }},
        [&] {
            Close(Handle);
            Must(Ended("the read", Read.Status) && Byte == '0', "the read has another answer");
            Drain();
        },
        Queued);
}

// A cleanup is run though it is cancelled: between the queue and its worker it belongs to the canceller.
TEST_F(QueueRaces, CancelOfACleanupAgainstTheExitOfItsWorker) {
    StartPosting();
    NTSTATUS Returned = STATUS_SUCCESS, Closed = STATUS_SUCCESS;
    MustPass(
        "cancel of a cleanup against the exit of its worker", [&] { OpenOverlapped(); }, {[&] {
            Read = SendRead(&Byte, Device()).Wait();
            Delay(2 * Clock::Second);
            SentIrp Sent = SendBusy(Plain(IRP_MJ_CLEANUP, FileObject(Handle)), Device(), &Irp);
            Returned = Sent.Returned();
            SchedulePoint("a cleanup that waits", nullptr);
            IoCancelIrp(Irp);
            Closed = Sent.Wait().Status;
        }},
        [&] {
            Must(Fcb(Handle)->UncleanCount == 0, "it has not cleaned up");
            Close(Handle);
            Ended("the post", Returned, {STATUS_PENDING});
            Ended("the cleanup", Closed);
            Drain();
        },
        Queued);
}

TEST_F(QueueRaces, TwoShutdownsAgainstAPost) {
    NTSTATUS Down[2] = {};
    PDEVICE_OBJECT Kept = nullptr;
    const auto ShutDown = [&](NTSTATUS &Status) {
        Status = SendIrpAndWait(Kept, Plain(IRP_MJ_SHUTDOWN, nullptr)).Status;
    };
    MustPass(
        "two shutdowns against a post",
        [&] {
            StartPosting();
            OpenOverlapped();
            Kept = DeviceFromName(u"\\Device\\RvFsd");
        },
        {[&] { Read = SendRead(&Byte, Kept).Wait(); }, [&] { ShutDown(Down[0]); }, [&] { ShutDown(Down[1]); }},
        [&] {
            Drain();
            for (const NTSTATUS Each : Down) {
                Ended("a shutdown", Each, {STATUS_NOT_SUPPORTED, STATUS_UNSUCCESSFUL});
            }
            Must(Down[0] != Down[1], "one tears down, the other is refused");
            Ended("the read", Read.Status, {STATUS_SUCCESS, STATUS_UNSUCCESSFUL});
            Close(Handle);
            DereferenceDevice(Kept);
            Stop();
        },
        {.MostSchedules = 1000, .RandomSchedules = 300});
}

// ---- Binding

class BindingRaces : public Racing<FrameFixture> {};

TEST_F(BindingRaces, TwoFirstRequestsShareTheOutcomeOfOneBinding) {
    Begin();
    NTSTATUS First = STATUS_SUCCESS, Second = STATUS_SUCCESS;
    const auto Ask = [&] { return Send(Plain(IRP_MJ_DEVICE_CONTROL, nullptr)).Status; };
    for (const bool Fails : {true, false}) {
        MustPass(
            "first binding by two requests",
            [&] {
                Forget();
                g_bFrameworkBound = 0;
                Frame().ClearLog();
                if (Fails) {
                    Frame().FailCreate(Class::Provider, RVPSTATUS::NoSuchClass);
                }
            },
            {[&] { First = Ask(); }, [&] { Second = Ask(); }},
            [&] {
                const NTSTATUS Expected = Fails ? STATUS_UNSUCCESSFUL : STATUS_INVALID_DEVICE_REQUEST;
                Ended("the first", First, {Expected});
                Ended("the second", Second, {Expected});
                Must(Frame().Log().size() == (Fails ? 4u : 5u), "another number of classes was asked for");
            });
    }
}

} // namespace
