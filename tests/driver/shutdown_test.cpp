// Shutdown: the order of the teardown, what refuses afterwards, and what is still open or under way meanwhile.

#include <utility>

#include "close/close.h"
#include "embedded/io/probe.h"
#include "embedded/mup.h"
#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/rundown.h"
#include "provider/binding.h"
#include "provider/class_factory.h"
#include "tests/driver/lock_client.h"

namespace {

using namespace test;

class Shutdown : public LockFixture {
protected:
    NTSTATUS ShutDown() {
        return Kernel().SendShutdown();
    }
    // A thread whose read of the file hangs at the Provider until Held is released.
    std::thread HangingRead(HANDLE Handle) {
        Held = &Provider.OnCall(Slot::ReadFile).Block();
        std::thread Reader([this, Handle] {
            char Byte = 0;
            EXPECT_EQ(Read(Handle, &Byte, 1, 0).Status, STATUS_SUCCESS);
            EXPECT_EQ(Byte, '0');
            ReadDone = true;
        });
        EXPECT_TRUE(Held->WaitUntilBlocked());
        Frame().ClearLog();
        return Reader;
    }
    // A thread that shuts the driver down, which has begun.
    std::thread ShuttingDown() {
        std::thread Down([this] {
            EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
            DownAfterRead = ReadDone || Provider.OpenHandles().empty();
            IsDown = true;
        });
        while (!NtFsdIsStopped()) {
            std::this_thread::yield();
        }
        return Down;
    }

    Rule *Held = nullptr;
    std::atomic<bool> ReadDone = false, DownAfterRead = false, IsDown = false;
};

TEST_F(Shutdown, ReleasesEverythingInItsOrder) {
    StartTracing(0x10000);
    Bind();
    Frame().ClearLog();
    Printed.clear();
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Frame().Log(),
              (Lines{"release SecurityContext -> 0 left", "release Provider -> 0 left", "release Quillon -> 0 left",
                     "release Transport -> 0 left", "release RVPL -> 0 left"}));
    EXPECT_EQ(Printed, "[RVFSD] Deregistering Unc Provider\n"
                       "[RVFSD] NtFsdUnInitOurDevice() entering\n"
                       "[RVFSD] NtFsdUnInitOurDevice() returning STATUS_SUCCESS\n"
                       "[RVFSD] Deleting the device object\n"
                       "[RVFSD] <<<<<<<<<<<<<NtFsdShutdown() returning STATUS_NOT_SUPPORTED\n");
    EXPECT_EQ(Provider.Calls(), Lines{"Release() -> 0x00000000"})
        << "with nothing open the Provider is asked nothing else";
    EXPECT_EQ(RegisteredUncProviders().size(), 0u);
    EXPECT_EQ(LiveObjects(LiveKind::Resource), 0u);
    EXPECT_EQ(LiveObjects(LiveKind::Lookaside), 0u);
    EXPECT_EQ(Device(), nullptr);
    EXPECT_EQ(g_uInitStage, 0u);
}

TEST_F(Shutdown, WhileTheFrameworkCannotBeBoundIsRefusedAndUndoesNothing) {
    StartTracing(0x1001);
    Frame().FailCreate(Class::Rvpl, RVPSTATUS::NoSuchClass);
    Printed.clear();
    SentIrp Sent = SendIrp(Device(), Plain(IRP_MJ_SHUTDOWN, nullptr));
    EXPECT_EQ(Sent.Returned(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Sent.Wait().Status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Sent.PriorityBoost(), 2);
    EXPECT_EQ(Printed, "[RVFSD] <<<<<<<<<<<<<NtFsdShutdown() entered\n[RVFSD] Unable to Initialize Orrery\n");
    EXPECT_NE(Device(), nullptr);
    g_bFrameworkBindFailed = 0; // only the test lets it try again
}

// ---- Afterwards

TEST_F(Shutdown, LaterRequestsAreRefusedAndTouchNothing) {
    constexpr NTSTATUS Refused = STATUS_UNSUCCESSFUL;
    const std::map<UCHAR, NTSTATUS> Others = {{IRP_MJ_QUERY_EA, STATUS_NO_EAS_ON_FILE},
                                              {IRP_MJ_SET_EA, STATUS_SUCCESS},
                                              {IRP_MJ_CLEANUP, STATUS_SUCCESS},
                                              {IRP_MJ_CLOSE, STATUS_SUCCESS}};
    Start();
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    // Stays for requests after the driver has deleted it.
    const std::unique_ptr<DEVICE_OBJECT, void (*)(PDEVICE_OBJECT)> Device(
        DeviceFromName(u"\\Device\\RvFsd"), [](PDEVICE_OBJECT Kept) { DereferenceDevice(Kept); });
    const PDEVICE_OBJECT Kept = Device.get();
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    Provider.ClearCalls();
    Frame().ClearLog();
    for (const UCHAR Each : {IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_QUERY_INFORMATION, IRP_MJ_SET_INFORMATION,
                             IRP_MJ_QUERY_EA, IRP_MJ_SET_EA, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_QUERY_VOLUME_INFORMATION,
                             IRP_MJ_DIRECTORY_CONTROL, IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MJ_DEVICE_CONTROL,
                             IRP_MJ_SHUTDOWN, IRP_MJ_LOCK_CONTROL, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        EXPECT_THAT(SendIrpAndWait(Kept, Plain(Each, FileObject(Handle))),
                    Ends(Others.contains(Each) ? Others.at(Each) : Refused, 0))
            << MajorFunctionName(Each);
    }
    const OwnedFile OfDevice(Kept, u"");
    EXPECT_THAT(SendIrpAndWait(Kept, Plain(IRP_MJ_CREATE, OfDevice)), Ends(Refused, FILE_DOES_NOT_EXIST));
    EXPECT_EQ(OfDevice->FsContext, nullptr);
    EXPECT_EQ(Provider.Calls(), Lines{});
    EXPECT_EQ(Frame().Log(), Lines{});
}

TEST_F(Shutdown, MappingObjectsMayBeReleasedAfterwards) {
    Start();
    PVOID Out = nullptr;
    ASSERT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &IID_IClassFactory, &Out), RVPSTATUS::Success);
    const auto Factory = static_cast<RVFSD_FACTORY *>(Out);
    ASSERT_EQ(Factory->Table->CreateInstance(Factory, nullptr, &IID_RvfsdMapping, &Out), RVPSTATUS::Success);
    const auto Mapping = static_cast<RVFSD_MAPPING *>(Out);
    EXPECT_EQ(Frame().LiveMutexes(), 1u);
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Frame().LiveMutexes(), 0u);
    EXPECT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &IID_IUnknown, &Out), RVPSTATUS::NoSuchClass);
    EXPECT_EQ(Mapping->Table->AddRef(Mapping), 2u);
    EXPECT_EQ(Mapping->Table->Release(Mapping), 1u);
    EXPECT_EQ(Mapping->Table->Release(Mapping), 0u);
    EXPECT_EQ(Factory->Table->LockServer(Factory, 1), RVPSTATUS::Success);
    EXPECT_EQ(Factory->Table->CreateInstance(Factory, nullptr, &IID_RvfsdMapping, &Out), RVPSTATUS::NoSuchClass);
    EXPECT_EQ(Factory->Table->Release(Factory), 0u);
    EXPECT_EQ(Frame().Violations(), Lines{}) << "nothing that was released is called";
    // The block is the framework's own, which the driver can no longer give back: the one thing that stays.
    EXPECT_EQ(Frame().LiveBlocks(), 1u);
    EXPECT_EQ(LiveObjects(LiveKind::Resource), 0u);
    StopWithLeftovers();
}

// ---- What is open or under way

TEST_F(Shutdown, OpensThatOutliveItHaveNoProviderHandlesAndCloseHarmlessly) {
    Provider.AddFile(u"\\srv\\vol\\doomed.txt", "stays");
    const HANDLE Handles[] = {
        MustOpen(u"\\srv\\vol\\a.txt"),
        MustOpen(u"\\srv\\vol\\A.TXT"),
        MustOpen(u"\\srv\\vol\\docs", AsDirectory),
        MustOpen(u"\\srv\\vol\\doomed.txt",
                 {.Access = DELETE | SYNCHRONIZE, .Options = FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT}),
        MustOpen(u""),
    };
    const HANDLE Below = MustOpen(u"f", {.Disposition = FILE_OPEN_IF, .Related = Handles[2]});
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Provider.OpenHandles(), Lines{});
    Provider.ClearCalls();
    char Byte;
    EXPECT_EQ(Read(Handles[0], &Byte, 1, 0).Status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Instance(Handles[0])->BaseHandle, 0u);
    EXPECT_EQ(Instance(Handles[0])->FileHandle | Instance(Handles[0])->VolumeHandle, 0u);
    EXPECT_EQ(Instance(Handles[2])->DirHandle, 0u);
    for (const HANDLE Each : Handles) {
        EXPECT_EQ(Close(Each), STATUS_SUCCESS);
    }
    EXPECT_EQ(Close(Below), STATUS_SUCCESS) << "whose handle was lent by one that has gone";
    EXPECT_EQ(Provider.Calls(), Lines{});
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\doomed.txt")) << "no pending delete is carried out";
}

// Whoever makes a section, or filters, reads what the file object points to without asking the driver.
TEST_F(Shutdown, WhatOpensOfTheDevicePointToStaysUntilTheLastIsClosed) {
    const HANDLE Opens[] = {MustOpen(u""), MustOpen(u""), MustOpen(u"\\srv\\vol\\a.txt")};
    const PFILE_OBJECT First = FileObject(Opens[0]);
    ASSERT_NE(First->FsContext, nullptr);
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    for (const HANDLE Each : Opens) {
        const PFILE_OBJECT File = FileObject(Each);
        EXPECT_EQ(static_cast<PFCB>(File->FsContext)->NodeTypeCode, NODE_TYPE_FCB);
        EXPECT_EQ(File->SectionObjectPointer, &static_cast<PFCB>(File->FsContext)->SectionObjectPointers);
        EXPECT_EQ(File->SectionObjectPointer->DataSectionObject, nullptr);
        EXPECT_EQ(Close(Each), STATUS_SUCCESS);
    }
}

TEST_F(Shutdown, ASectionUnderWayGivesTheFileBackAfterwards) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Again = MustOpen(u"", {.Related = Handle});
    const HANDLE OfDevice = MustOpen(u"");
    const PFAST_IO_DISPATCH Table = Kernel().Driver()->FastIoDispatch;
    Table->AcquireFileForNtCreateSection(FileObject(Again));
    Table->AcquireFileForNtCreateSection(FileObject(OfDevice));
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    Table->ReleaseFileForNtCreateSection(FileObject(OfDevice)); // there is nothing to release
    Table->ReleaseFileForNtCreateSection(FileObject(Again));
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&Fcb(Handle)->Resource));
    Table->AcquireFileForNtCreateSection(FileObject(Handle));
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&Fcb(Handle)->Resource)) << "nothing new begins";
}

TEST_F(Shutdown, LocksThatWaitAreCancelledOneAfterTheOther) {
    const HANDLE Holder = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    const HANDLE Waiter = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Holder, 0, 10), STATUS_SUCCESS);
    SentIrp One = Wait(Waiter, 2);
    SentIrp Two = Wait(Waiter, 2);
    EXPECT_EQ(One.Returned(), STATUS_PENDING);
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(One.Wait().Status, STATUS_CANCELLED);
    EXPECT_EQ(Two.Wait().Status, STATUS_CANCELLED);
}

// A canceller that has taken the request, but not ended it yet, is nobody that teardown could wait for.
TEST_F(Shutdown, ALockWhoseCancellerIsOvertakenIsCompletedAllTheSame) {
    const HANDLE Holder = MustOpen(u"\\srv\\vol\\a.txt", Writer);
    EXPECT_EQ(Lock(Holder, 0, 10), STATUS_SUCCESS);
    SentIrp Waiting = Wait(Holder, 2);
    const PIRP Irp = Waiting.Irp();
    Irp->Cancel = TRUE;
    const PDRIVER_CANCEL Routine = std::exchange(Irp->CancelRoutine, nullptr);
    ASSERT_NE(Routine, nullptr);
    EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
    EXPECT_FALSE(Waiting.IsCompleted());
    IoAcquireCancelSpinLock(&Irp->CancelIrql);
    Routine(nullptr, Irp);
    EXPECT_EQ(Waiting.Wait().Status, STATUS_CANCELLED);
}

TEST_F(Shutdown, WaitsForARequestThatIsUnderWay) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Other = MustOpen(u"\\srv\\vol\\a.txt");
    std::thread Reader = HangingRead(Handle);
    std::thread Down = ShuttingDown();
    EXPECT_EQ(Create(u"\\srv\\vol\\a.txt").Status, STATUS_UNSUCCESSFUL) << "nothing new begins meanwhile";
    EXPECT_EQ(Close(Other), STATUS_SUCCESS) << "closes come through";
    {
        INSTANCE_CONTEXT Foreign = *static_cast<PINSTANCE_CONTEXT>(FileObject(Handle)->FsContext2);
        const OwnedFile Odd(Device(), u"");
        Odd->FsContext = FileObject(Handle)->FsContext;
        Odd->FsContext2 = &Foreign;
        EXPECT_EQ(Send(Plain(IRP_MJ_CLOSE, Odd)).Status, STATUS_SUCCESS);
        EXPECT_EQ(Foreign.FileObject, FileObject(Handle)) << "only the instance of its own open is marked";
    }
    EXPECT_EQ(Frame().Log(), Lines{}) << "nothing is released meanwhile";
    EXPECT_FALSE(ReadDone);
    Held->Release();
    Reader.join();
    Down.join();
    EXPECT_TRUE(DownAfterRead);
    EXPECT_EQ(Provider.Violations(), Lines{});
    EXPECT_EQ(Provider.OpenHandles(), Lines{});
}

TEST_F(Shutdown, GivesUpAfterAMinuteAndUndoesNothing) {
    std::thread Reader = HangingRead(MustOpen(u"\\srv\\vol\\a.txt"));
    std::thread Down = ShuttingDown();
    LONGLONG Seconds = 0;
    for (; !IsDown; ++Seconds) {
        Clock::Advance(Clock::Second);
        EXPECT_EQ(Create(u"\\srv\\vol\\a.txt").Status, STATUS_UNSUCCESSFUL) << "which wakes it";
    }
    Down.join();
    EXPECT_GE(Seconds, 60);
    EXPECT_TRUE(WasPrinted("Shutdown waits for 1 IRP_MJ_READ\n"));
    EXPECT_TRUE(WasPrinted("Shutdown waits for \"\\srv\\vol\\a.txt\"\n"));
    EXPECT_EQ(Frame().Log(), Lines{});
    EXPECT_EQ(Create(u"\\srv\\vol\\a.txt").Status, STATUS_UNSUCCESSFUL);
    Held->Release();
    Reader.join();
    EXPECT_EQ(Send(Plain(IRP_MJ_SHUTDOWN, nullptr)).Status, STATUS_NOT_SUPPORTED) << "nothing holds it any more";
    EXPECT_EQ(Provider.OpenHandles(), Lines{});
}

// ---- Races

// Requests of every kind while the driver goes down, with all its messages on their way to a log.
TEST_F(Shutdown, RequestsThatRaceWithItEndOneWayOrTheOther) {
    Provider.SetRecording(false);
    for (int Round = 0; Round < 20; ++Round) {
        Start({.Switches = {{u"EnableDebug", 6}, {u"FsDebugLevel", 0xFFFFFFFF}, {u"DebugLogging", 1}}});
        std::atomic<int> Served = 0;
        std::atomic<bool> Over = false;
        std::vector<std::thread> Clients;
        for (int Client = 0; Client < 3; ++Client) {
            Clients.emplace_back([&] {
                while (!Over) {
                    const CreateResult Opened = Create(u"\\srv\\vol\\a.txt");
                    if (!NT_SUCCESS(Opened.Status)) {
                        EXPECT_NE(Opened.Status, STATUS_PENDING);
                        continue;
                    }
                    char Byte = 0;
                    const NTSTATUS Status = Read(Opened.Handle, &Byte, 1, 0).Status;
                    EXPECT_TRUE(Status == STATUS_SUCCESS || Status == STATUS_UNSUCCESSFUL) << std::hex << Status;
                    EXPECT_EQ(Close(Opened.Handle), STATUS_SUCCESS);
                    ++Served;
                }
            });
        }
        while (Served < 10) {
            std::this_thread::yield();
        }
        EXPECT_EQ(ShutDown(), STATUS_NOT_SUPPORTED);
        EXPECT_EQ(Provider.OpenHandles(), Lines{});
        Over = true;
        for (std::thread &Each : Clients) {
            Each.join();
        }
        Stop();
    }
}

} // namespace
