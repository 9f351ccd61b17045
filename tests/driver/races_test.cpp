// Named races of the driver: every schedule of two preemptions, up to a limit, and random ones. RVFSD_EXPLORE=100 makes
// a campaign of it, RVFSD_SCHEDULE repeats one schedule.

#include <iostream>

#include "embedded/ex.h"
#include "embedded/explorer/explorer.h"
#include "embedded/explorer/schedule.h"
#include "frame/async_queue.h"
#include "provider/binding.h"
#include "provider/class_factory.h"
#include "tests/driver/lock_client.h"
#include "tests/driver/set_client.h"

namespace {

using namespace embedded;
using providers::Slot;
using test::Open;

template <typename Fixture>
class Racing : public Fixture {
protected:
    // The calls of the Provider are places where others may run, too.
    void Begin(const test::StartOptions &Options = {}) {
        this->Start(Options);
        embedded::Clock::Settle();
        this->Provider.OnCall(Slot::Any).Do(
            [](const providers::Call &) { embedded::SchedulePoint("a call of the Provider", nullptr); });
    }
    // Runs the schedules. After each nothing may be left that was not there before the first one.
    void MustPass(Race Of, const embedded::ExploreOptions &Options = {.MostSchedules = 3000}) {
        LONG64 Blocks = -1;
        const auto After = Of.After;
        Of.After = [&, After] {
            std::string Wrong = After();
            if (Wrong.empty() && !this->Provider.OpenHandles().empty()) {
                Wrong = "left open at the server: " + this->Provider.OpenHandles().front();
            }
            if (Wrong.empty() && Blocks >= 0 && embedded::PoolBlocksInUse() > Blocks) {
                Wrong =
                    fmt::format("{} blocks of pool, {} after the first schedule", embedded::PoolBlocksInUse(), Blocks);
            }
            Blocks = Blocks < 0 ? embedded::PoolBlocksInUse() : Blocks;
            this->Provider.ClearCalls();
            return Wrong;
        };
        const embedded::ExploreResult Found = Explore(Of, OptionsFromEnvironment(Options));
        EXPECT_EQ(Found.Failure, "") << "RVFSD_SCHEDULE=" << Found.Schedule;
        std::cout << "[ EXPLORER ] " << Of.Name << ": " << Found.Walked << " schedules of at most "
                  << Options.Preemptions << " preemptions, " << (Found.Bounded ? "bounded there" : "all") << "; "
                  << Found.Random << " random ones; up to " << Found.MostPoints << " points\n";
    }
};

std::string Wrong(const char *What, NTSTATUS Status) {
    return fmt::format("{}: 0x{:08X}", What, static_cast<ULONG>(Status));
}

bool IsAmong(NTSTATUS Status, std::initializer_list<NTSTATUS> Allowed) {
    return std::find(Allowed.begin(), Allowed.end(), Status) != Allowed.end();
}

// ---- Names

class NameRaces : public Racing<test::SetFixture> {
protected:
    NameRaces() {
        Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "inside");
    }
    // Empty when the open names itself by a path where the server has something.
    std::string IsWhereItSays(HANDLE Handle) {
        return Provider.Exists(PathOf(Handle)) ? "" : "nothing is at " + providers::ToUtf8(PathOf(Handle));
    }
    // Waits for changes in \srv\vol\d.
    void Watch() {
        Directory =
            MustOpen(u"\\srv\\vol\\d", {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Options = FILE_DIRECTORY_FILE});
        embedded::IrpBuilder Builder = Plain(IRP_MJ_DIRECTORY_CONTROL, FileObject(Directory));
        Builder.MinorFunction = IRP_MN_NOTIFY_CHANGE_DIRECTORY;
        Builder.Fill = [](PIO_STACK_LOCATION Stack) {
            Stack->Parameters.NotifyDirectory.CompletionFilter = FILE_NOTIFY_CHANGE_FILE_NAME;
        };
        Waiting.emplace(SendIrp(Device(), Builder));
    }
    // What the wait has ended with.
    NTSTATUS Watched() {
        const NTSTATUS Status = Waiting->IsCompleted() ? Waiting->Wait().Status : STATUS_PENDING;
        if (Status != STATUS_PENDING) {
            Waiting.reset();
        }
        return Status;
    }
    // Puts names back for the next schedule.
    void MoveBack(HANDLE Handle, std::u16string_view Path) {
        if (PathOf(Handle) != Path) {
            EXPECT_EQ(Rename(Handle, Path), STATUS_SUCCESS);
        }
    }

    std::optional<SentIrp> Waiting;
    HANDLE File = nullptr, Directory = nullptr, Opened = nullptr;
    NTSTATUS First = STATUS_SUCCESS, Second = STATUS_SUCCESS;
};

TEST_F(NameRaces, CloseAgainstCreateOfTheSamePath) {
    Begin();
    MustPass({"close against create of the same path",
              [&] { File = MustOpen(u"\\srv\\vol\\a.txt"); },
              {[&] { Close(File); },
               [&] {
                   const embedded::CreateResult Result = Create(u"\\srv\\vol\\A.TXT", test::ForChange);
                   First = Result.Status;
                   Opened = Result.Handle;
               }},
              [&]() -> std::string {
                  if (First != STATUS_SUCCESS) {
                      return Wrong("the create", First);
                  }
                  if (ReadAll(Opened) != "0123456789") {
                      return "the file cannot be read";
                  }
                  const ULONG Opens = Fcb(Opened)->OpenCount;
                  Close(Opened);
                  return Opens == 1 ? "" : fmt::format("{} opens counted", Opens);
              }});
}

TEST_F(NameRaces, RenameAgainstARelativeOpen) {
    Begin();
    MustPass({"rename against a relative open",
              [&] { Directory = MustOpen(u"\\srv\\vol\\d", test::DirectoryForChange); },
              {[&] { First = Rename(Directory, u"\\srv\\vol\\e"); },
               [&] {
                   const embedded::CreateResult Result = Create(u"f.txt", {.Related = Directory});
                   Second = Result.Status;
                   Opened = Result.Handle;
               }},
              [&]() -> std::string {
                  std::string Text;
                  // An open below makes the server, or the driver, refuse the rename.
                  if (!IsAmong(First, {STATUS_SUCCESS, STATUS_ACCESS_DENIED})) {
                      Text = Wrong("the rename", First);
                  } else if (Second != STATUS_SUCCESS) {
                      Text = Wrong("the open", Second);
                  } else if (Text = IsWhereItSays(Opened); Text.empty() && ReadAll(Opened) != "inside") {
                      Text = "the file cannot be read";
                  }
                  if (Second == STATUS_SUCCESS) {
                      Close(Opened);
                  }
                  MoveBack(Directory, u"\\srv\\vol\\d");
                  Close(Directory);
                  return Text;
              }});
}

TEST_F(NameRaces, RenameAgainstARenameOfTheTargetDirectory) {
    Begin();
    MustPass({"rename against a rename of the target directory",
              [&] {
                  File = MustOpen(u"\\srv\\vol\\a.txt", test::ForChange);
                  Directory = MustOpen(u"\\srv\\vol\\d", test::DirectoryForChange);
              },
              {[&] { First = Rename(File, u"\\srv\\vol\\d\\g.txt"); },
               [&] { Second = Rename(Directory, u"\\srv\\vol\\e"); }},
              [&]() -> std::string {
                  std::string Text = IsWhereItSays(File) + IsWhereItSays(Directory);
                  if (!IsAmong(First, {STATUS_SUCCESS, STATUS_OBJECT_PATH_NOT_FOUND, STATUS_ACCESS_DENIED})) {
                      Text += Wrong("the file's rename", First);
                  }
                  if (!IsAmong(Second, {STATUS_SUCCESS, STATUS_ACCESS_DENIED})) {
                      Text += Wrong("the directory's rename", Second);
                  }
                  if (Text.empty() && ReadAll(File) != "0123456789") {
                      Text = "the file cannot be read";
                  }
                  MoveBack(File, u"\\srv\\vol\\a.txt");
                  MoveBack(Directory, u"\\srv\\vol\\d");
                  Close(File);
                  Close(Directory);
                  return Text;
              }});
}

TEST_F(NameRaces, NotificationAgainstClose) {
    Begin({.Switches = {{u"EnableDirectoryNotify", 1}}});
    MustPass({"notification against close",
              [&] { Watch(); },
              {[&] {
                   Close(MustOpen(u"\\srv\\vol\\d\\new.txt",
                                  {.Access = FILE_WRITE_DATA | DELETE | SYNCHRONIZE,
                                   .Disposition = FILE_CREATE,
                                   .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT}));
               },
               [&] { Close(Directory); }},
              [&]() -> std::string {
                  const NTSTATUS Status = Watched();
                  return IsAmong(Status,
                                 {STATUS_SUCCESS, STATUS_NOTIFY_ENUM_DIR, STATUS_NOTIFY_CLEANUP, STATUS_CANCELLED})
                             ? ""
                             : Wrong("the wait", Status);
              }});
}

// Whichever of them ends last deletes the file, and watchers hear of it.
TEST_F(NameRaces, CloseThatDeletesAgainstAnOpenThatFails) {
    Begin({.Switches = {{u"EnableDirectoryNotify", 1}}});
    MustPass({"close that deletes against an open that fails",
              [&] {
                  Provider.AddFile(u"\\srv\\vol\\d\\x.txt", "x");
                  File = MustOpen(
                      u"\\srv\\vol\\d\\x.txt",
                      {.Access = DELETE | SYNCHRONIZE, .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT});
                  Watch();
              },
              {[&] { Close(File); }, [&] { First = Create(u"\\srv\\vol\\d\\x.txt", AsDirectory).Status; }},
              [&]() -> std::string {
                  const NTSTATUS Told = Watched();
                  Close(Directory);
                  if (Told != STATUS_NOTIFY_ENUM_DIR) {
                      return Wrong("the wait", Told);
                  }
                  if (NT_SUCCESS(First)) {
                      return Wrong("the open", First);
                  }
                  return Provider.Exists(u"\\srv\\vol\\d\\x.txt") ? "the file is still there" : "";
              }},
             {.MostSchedules = 3000, .RandomSchedules = 300});
}

// ---- Locks

class LockRaces : public Racing<test::LockFixture> {
protected:
    // Told locks minus told unlocks.
    int KeptByServer() {
        return static_cast<int>(Provider.CountCalls(Slot::LockFile)) -
               static_cast<int>(Provider.CountCalls(Slot::UnlockFile));
    }

    LARGE_INTEGER Length = {.QuadPart = 4};
    std::optional<SentIrp> Waiting;
    HANDLE Owner = nullptr, Other = nullptr;
};

TEST_F(LockRaces, GrantAgainstCleanup) {
    Begin();
    MustPass({"lock grant against cleanup",
              [&] {
                  Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer);
                  Other = MustOpen(u"\\srv\\vol\\a.txt", Writer);
                  EXPECT_EQ(Lock(Owner, 0, 10), STATUS_SUCCESS);
                  Waiting.emplace(Wait(Other, 2, &Length));
              },
              {[&] { Unlock(Owner, 0, 10); }, [&] { Close(Other); }},
              [&]() -> std::string {
                  if (!Waiting->IsCompleted()) {
                      return "the waiting lock has not ended";
                  }
                  const NTSTATUS Status = Waiting->Wait().Status;
                  Waiting.reset();
                  const size_t Left = LocalLocks(Owner).size();
                  Close(Owner);
                  if (!IsAmong(Status, {STATUS_SUCCESS, STATUS_CANCELLED})) {
                      return Wrong("the waiting lock", Status);
                  }
                  return Left == 0 && KeptByServer() == 0
                             ? ""
                             : fmt::format("{} locks left here, {} at the server", Left, KeptByServer());
              }});
}

TEST_F(LockRaces, UnlockAgainstTheTellingOfTheServer) {
    Begin();
    NTSTATUS Unlocked = STATUS_SUCCESS;
    MustPass({"unlock against the telling of the server",
              [&] { Owner = MustOpen(u"\\srv\\vol\\a.txt", Writer); },
              {[&] { Waiting.emplace(Wait(Owner, 2, &Length)); }, [&] { Unlocked = Unlock(Owner, 2, 4); }},
              [&]() -> std::string {
                  const NTSTATUS Status = Waiting->Wait().Status;
                  Waiting.reset();
                  const int Local = static_cast<int>(LocalLocks(Owner).size());
                  const int Server = KeptByServer();
                  Close(Owner);
                  if (!IsAmong(Status, {STATUS_SUCCESS, STATUS_CANCELLED})) {
                      return Wrong("the lock", Status);
                  }
                  if (!IsAmong(Unlocked, {STATUS_SUCCESS, STATUS_RANGE_NOT_LOCKED})) {
                      return Wrong("the unlock", Unlocked);
                  }
                  const int Expected = Status == STATUS_SUCCESS && Unlocked != STATUS_SUCCESS ? 1 : 0;
                  // An unlock that comes between the grant and its note is taken to the server, which has no such lock
                  // and says so.
                  const bool Overtaken = Server == -1 && Unlocked == STATUS_RANGE_NOT_LOCKED;
                  return Local == Expected && (Server == Expected || Overtaken)
                             ? ""
                             : fmt::format("{} locks here, {} at the server, lock 0x{:08X}, unlock 0x{:08X}", Local,
                                           Server, static_cast<ULONG>(Status), static_cast<ULONG>(Unlocked));
              }});
}

// ---- The queue of posted requests

class QueueRaces : public Racing<test::LockFixture> {
protected:
    // Requests over it may not wait.
    static constexpr Open Overlapped = {.Access = FILE_READ_DATA | FILE_WRITE_DATA, .Options = 0};

    void StartPosting() {
        Begin({.Switches = {{u"EnableAsyncIo", 1}}});
    }
    static constexpr embedded::ExploreOptions Queued = {.MostSchedules = 5000};

    // A read of one byte that is posted.
    SentIrp SendRead(char *Byte, PDEVICE_OBJECT To, PIRP *Made = nullptr) {
        embedded::IrpBuilder Builder = Plain(IRP_MJ_READ, FileObject(Handle));
        Builder.UserBuffer = Byte;
        Builder.Fill = [](PIO_STACK_LOCATION Stack) { Stack->Parameters.Read.Length = 1; };
        return SendBusy(Builder, To, Made);
    }
    // A request that gets no resource without waiting.
    SentIrp SendBusy(embedded::IrpBuilder Builder, PDEVICE_OBJECT To, PIRP *Made) {
        Builder.Made = Made;
        const embedded::PlannedFaults Busy({.How = embedded::FaultPlan::Mode::NthAndAfter,
                                            .Kinds = embedded::FaultBit(embedded::FaultKind::TryAcquire)});
        return embedded::SendIrp(To, Builder);
    }
    // Lets the workers end; what is left of the queue then, or nothing.
    std::string Drained() {
        embedded::Clock::Advance(3 * embedded::Clock::Second);
        embedded::Clock::Settle();
        return g_uAsyncWorkerThreadCount == 0 && g_uAsyncIrpQueueCount == 0
                   ? ""
                   : fmt::format("{} workers and {} requests left", g_uAsyncWorkerThreadCount, g_uAsyncIrpQueueCount);
    }
    void Delay(LONGLONG Time) {
        LARGE_INTEGER Interval = {.QuadPart = -Time};
        KeDelayExecutionThread(KernelMode, FALSE, &Interval);
    }

    HANDLE Handle = nullptr;
    IO_STATUS_BLOCK Read = {};
    char Byte = 0;
};

TEST_F(QueueRaces, PostAgainstCancel) {
    StartPosting();
    PIRP Irp = nullptr;
    std::optional<SentIrp> Sent;
    MustPass({"post against cancel",
              [&] {
                  Handle = MustOpen(u"\\srv\\vol\\a.txt", Overlapped);
                  Irp = nullptr;
                  Byte = 0;
              },
              {[&] {
                   Sent.emplace(SendRead(&Byte, Device(), &Irp));
                   Read = Sent->Wait();
               },
               [&] {
                   embedded::SchedulePoint("the canceller", nullptr);
                   if (Irp != nullptr) {
                       IoCancelIrp(Irp);
                   }
               }},
              [&]() -> std::string {
                  Sent.reset();
                  Close(Handle);
                  const bool Served = Read.Status == STATUS_SUCCESS && Read.Information == 1 && Byte == '0';
                  const bool Cancelled = Read.Status == STATUS_CANCELLED && Read.Information == 0;
                  return Served || Cancelled ? Drained() : Wrong("the read", Read.Status);
              }},
             Queued);
}

// The second post comes when the worker of the first has looked for the last time.
TEST_F(QueueRaces, WorkerExitAgainstANewPost) {
    StartPosting();
    MustPass({"worker exit against a new post",
              [&] { Handle = MustOpen(u"\\srv\\vol\\a.txt", Overlapped); },
              {[&] {
                  for (int Post = 0; Post < 2; ++Post) {
                      Byte = 0;
                      Read = SendRead(&Byte, Device()).Wait();
                      if (Post == 0) {
                          Delay(2 * embedded::Clock::Second);
                      }
                  }
              }},
              [&]() -> std::string {
                  Close(Handle);
                  return Read.Status == STATUS_SUCCESS && Byte == '0' ? Drained() : Wrong("the read", Read.Status);
              }},
             Queued);
}

// A cleanup is run though it is cancelled: between the queue and its worker it belongs to the canceller.
TEST_F(QueueRaces, CancelOfACleanupAgainstTheExitOfItsWorker) {
    StartPosting();
    PIRP Irp = nullptr;
    NTSTATUS Closed = STATUS_SUCCESS;
    bool Posted = false;
    MustPass({"cancel of a cleanup against the exit of its worker",
              [&] {
                  Handle = MustOpen(u"\\srv\\vol\\a.txt", Overlapped);
                  Irp = nullptr;
              },
              {[&] {
                  Read = SendRead(&Byte, Device()).Wait();
                  Delay(2 * embedded::Clock::Second);
                  SentIrp Sent = SendBusy(Plain(IRP_MJ_CLEANUP, FileObject(Handle)), Device(), &Irp);
                  Posted = Sent.Returned() == STATUS_PENDING;
                  embedded::SchedulePoint("a cleanup that waits", nullptr);
                  IoCancelIrp(Irp);
                  Closed = Sent.Wait().Status;
              }},
              [&]() -> std::string {
                  const bool CleanedUp = Fcb(Handle)->UncleanCount == 0;
                  Close(Handle);
                  return Posted && CleanedUp && Closed == STATUS_SUCCESS ? Drained() : Wrong("the cleanup", Closed);
              }},
             Queued);
}

TEST_F(QueueRaces, TwoShutdownsAgainstAPost) {
    NTSTATUS Down[2] = {};
    PDEVICE_OBJECT Kept = nullptr;
    const auto ShutDown = [&](NTSTATUS &Status) {
        Status = embedded::SendIrpAndWait(Kept, Plain(IRP_MJ_SHUTDOWN, nullptr)).Status;
    };
    MustPass({"two shutdowns against a post",
              [&] {
                  StartPosting();
                  Handle = MustOpen(u"\\srv\\vol\\a.txt", Overlapped);
                  Kept = embedded::DeviceFromName(u"\\Device\\RvFsd");
              },
              {[&] { Read = SendRead(&Byte, Kept).Wait(); }, [&] { ShutDown(Down[0]); }, [&] { ShutDown(Down[1]); }},
              [&]() -> std::string {
                  std::string Text = Drained();
                  // One tears down, the other is refused.
                  if (std::minmax({Down[0], Down[1]}) != std::minmax({STATUS_NOT_SUPPORTED, STATUS_UNSUCCESSFUL})) {
                      Text += Wrong("one shutdown", Down[0]) + Wrong(", the other", Down[1]);
                  }
                  if (!IsAmong(Read.Status, {STATUS_SUCCESS, STATUS_UNSUCCESSFUL})) {
                      Text += Wrong("the read", Read.Status);
                  }
                  Close(Handle);
                  embedded::DereferenceDevice(Kept);
                  Stop();
                  return Text;
              }},
             {.MostSchedules = 1000, .RandomSchedules = 300});
}

// ---- Binding

class BindingRaces : public Racing<test::FrameFixture> {};

TEST_F(BindingRaces, TwoFirstRequestsShareTheOutcomeOfOneBinding) {
    Begin();
    NTSTATUS First = STATUS_SUCCESS, Second = STATUS_SUCCESS;
    const auto Ask = [&] { return Send(Plain(IRP_MJ_DEVICE_CONTROL, nullptr)).Status; };
    for (const bool Fails : {true, false}) {
        MustPass({"first binding by two requests",
                  [&] {
                      // Only a test lets the driver try again.
                      NtFsdReleaseSecurityContextInterface();
                      NtFsdReleaseProviderInterfaces();
                      NtFsdReleaseRvplInterface();
                      g_bFrameworkBindFailed = 0;
                      g_bFrameworkBound = 0;
                      Framework->ClearLog();
                      if (Fails) {
                          Framework->FailCreate(Class::Provider, RVPSTATUS::NoSuchClass);
                      }
                  },
                  {[&] { First = Ask(); }, [&] { Second = Ask(); }},
                  [&]() -> std::string {
                      const NTSTATUS Expected = Fails ? STATUS_UNSUCCESSFUL : STATUS_INVALID_DEVICE_REQUEST;
                      if (First != Expected || Second != Expected) {
                          return Wrong("the first", First) + Wrong(", the second", Second);
                      }
                      const size_t Asked = Framework->Log().size();
                      return Asked == (Fails ? 4u : 5u) ? "" : fmt::format("{} classes asked for", Asked);
                  }});
    }
}

} // namespace
