// The shape that all entry routines share, and where one of them deviates: binding, cancelled requests, file objects
// that are not the driver's, and what becomes of a request when there is no memory for it.

#include "dir/directory.h"
#include "embedded/io/probe.h"
#include "embedded/mm/mm.h"
#include "embedded/verifier/probe.h"
#include "frame/async_queue.h"
#include "frame/entry.h"
#include "io/lock_table.h"
#include "provider/binding.h"
#include "provider/provider_calls.h"
#include "tests/driver/frame_client.h"

namespace {

using namespace test;

struct EntryRow {
    UCHAR MajorFunction;
    const char *Name;
    ULONG Mask;
    bool Binds, TestsCancel;
    bool RunInFront; // of the returning line
    NTSTATUS Bare;   // the answer to a file object without contexts
    // The answer once the handle is cleaned up, while sections may go on using the file object; to a minor function.
    NTSTATUS CleanedUp = STATUS_SUCCESS;
    UCHAR MinorFunction = 0;
};

constexpr NTSTATUS NoHandle = STATUS_INVALID_HANDLE;
constexpr EntryRow Entries[] = {
    {IRP_MJ_CLOSE, "NtFsdClose", 512, true, true, false, STATUS_SUCCESS},
    {IRP_MJ_READ, "NtFsdRead", 2, true, true, true, NoHandle},
    {IRP_MJ_WRITE, "NtFsdWrite", 2048, true, true, true, NoHandle},
    {IRP_MJ_QUERY_INFORMATION, "NtFsdQueryInformation", 128, true, true, false, NoHandle},
    {IRP_MJ_SET_INFORMATION, "NtFsdSetInformation", 128, true, true, false, NoHandle},
    {IRP_MJ_FLUSH_BUFFERS, "NtFsdFlushBuffers", 16384, false, false, true, NoHandle},
    {IRP_MJ_QUERY_VOLUME_INFORMATION, "NtFsdQueryVolumeInformation", 256, true, true, false, NoHandle},
    {IRP_MJ_DIRECTORY_CONTROL, "NtFsdDirectoryControl", 64, true, true, true, NoHandle, STATUS_NOTIFY_CLEANUP,
     IRP_MN_NOTIFY_CHANGE_DIRECTORY},
    {IRP_MJ_FILE_SYSTEM_CONTROL, "NtFsdFileSystemControl", 4096, true, true, false, STATUS_INVALID_DEVICE_REQUEST,
     STATUS_INVALID_DEVICE_REQUEST},
    {IRP_MJ_DEVICE_CONTROL, "NtFsdDeviceControl", 4096, true, true, false, STATUS_INVALID_DEVICE_REQUEST,
     STATUS_INVALID_DEVICE_REQUEST},
    {IRP_MJ_LOCK_CONTROL, "NtFsdLockControl", 32768, true, false, true, NoHandle, STATUS_CANCELLED, IRP_MN_LOCK},
    {IRP_MJ_CLEANUP, "NtFsdCleanup", 1024, true, true, false, NoHandle},
};

constexpr std::string_view Arrow = "<<<<<<<<<<<<<";

class Entry : public FrameFixture {
protected:
    // Sends a request of a row on a file object without contexts.
    IO_STATUS_BLOCK SendBare(const EntryRow &Row, bool IsCancelled = false) {
        const OwnedFile Bare(Device(), u"\\srv\\vol\\a.txt");
        return Send(IsCancelled ? Cancelled(Row.MajorFunction, Bare) : Plain(Row.MajorFunction, Bare));
    }
    IrpBuilder Cancelled(UCHAR MajorFunction, PFILE_OBJECT File) {
        IrpBuilder Builder = Plain(MajorFunction, File);
        Builder.CancelledBefore = true;
        return Builder;
    }
};

TEST_F(Entry, EveryEntryNamesItselfAtItsMask) {
    for (const EntryRow &Row : Entries) {
        StartTracing(Row.Mask | 1);
        Bind();
        Printed.clear();
        EXPECT_EQ(SendBare(Row).Status, Row.Bare) << Row.Name;
        EXPECT_EQ(Printed.find(fmt::format("[RVFSD] {}{}() entered\n", Arrow, Row.Name)), 0u) << Printed;
        EXPECT_TRUE(Printed.ends_with(fmt::format("[RVFSD] {}{}() returning 0x{:x}\n", Row.RunInFront ? Arrow : "",
                                                  Row.Name, static_cast<ULONG>(Row.Bare))))
            << Printed;
        Stop();
        StartTracing(~(Row.Mask | 1));
        Bind();
        Printed.clear();
        SendBare(Row);
        EXPECT_FALSE(WasPrinted(std::string(Row.Name) + "()")) << "at another mask: " << Printed;
        Stop();
    }
}

TEST_F(Entry, WithoutTheFrameworkARequestIsRefusedWithBoostTwo) {
    StartTracing(0x1000);
    Frame().FailCreate(Class::Rvpl, RVPSTATUS::NoSuchClass);
    for (const EntryRow &Row : Entries) {
        Printed.clear();
        const OwnedFile Bare(Device(), u"\\srv\\vol\\a.txt");
        SentIrp Sent = SendIrp(Device(), Plain(Row.MajorFunction, Bare));
        EXPECT_THAT(Sent.Wait(), Ends(Row.Binds ? STATUS_UNSUCCESSFUL : Row.Bare, 0)) << Row.Name;
        EXPECT_EQ(Sent.PriorityBoost(), Row.Binds ? 2 : 1) << Row.Name;
        EXPECT_EQ(WasPrinted("[RVFSD] Unable to Initialize Orrery\n"), Row.Binds) << Row.Name;
    }
    EXPECT_EQ(Create(u"\\srv\\vol\\a.txt").Status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Frame().CreateCount(Class::Rvpl), 1u) << "a failed binding is not tried again";
    g_bFrameworkBindFailed = 0; // only the test lets it try again, so that it can shut down
}

TEST_F(Entry, ACancelledRequestIsCompletedAndTouchesNothing) {
    for (const EntryRow &Row : Entries) {
        StartTracing(Row.Mask);
        Bind();
        Printed.clear();
        EXPECT_EQ(SendBare(Row, true).Status, Row.TestsCancel ? STATUS_CANCELLED : Row.Bare) << Row.Name;
        EXPECT_EQ(WasPrinted(fmt::format("[RVFSD] {}() called with a cancelled Irp\n", Row.Name)), Row.TestsCancel);
        EXPECT_EQ(CallNames(), Lines{});
        Stop();
    }
    Bind();
    const OwnedFile File(Device(), u"\\srv\\vol\\a.txt");
    IrpBuilder Builder = CreateOf(File);
    Builder.CancelledBefore = true;
    EXPECT_EQ(Send(Builder).Status, STATUS_CANCELLED);
    EXPECT_EQ(File->FsContext, nullptr);
}

TEST_F(Entry, ACancelledCleanupAndCloseDoTheirWorkAllTheSame) {
    const HANDLE Stays = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Goes = MustOpen(u"\\srv\\vol\\a.txt");
    const PFILE_OBJECT File = FileObject(Goes);
    EXPECT_EQ(Send(Cancelled(IRP_MJ_CLEANUP, File)).Status, STATUS_CANCELLED);
    EXPECT_EQ(Fcb(Stays)->UncleanCount, 1u);
    EXPECT_EQ(Send(Cancelled(IRP_MJ_CLOSE, File)).Status, STATUS_CANCELLED);
    EXPECT_EQ(Fcb(Stays)->OpenCount, 1u);
    EXPECT_EQ(File->FsContext, nullptr);
    EXPECT_EQ(File->SectionObjectPointer, nullptr);
    EXPECT_EQ(Provider.OpenHandles().size(), 2u) << "a file and its volume";
    Close(Goes);
    Close(Stays);
    // An open of the device is given back too.
    const HANDLE OfDevice = OpenDevice();
    EXPECT_EQ(Send(Cancelled(IRP_MJ_CLOSE, FileObject(OfDevice))).Status, STATUS_CANCELLED);
    EXPECT_EQ(DeviceOpens(), 0u);
}

TEST_F(Entry, AFileObjectOfSomebodyElseIsNeitherReadNorFreed) {
    Start();
    Bind();
    ULONG64 Foreign[64] = {}; // no FCB: nothing in it is the signature
    for (const EntryRow &Row : Entries) {
        const OwnedFile File(Device(), u"\\srv\\vol\\a.txt");
        File->FsContext = Foreign;
        File->FsContext2 = &Foreign[32];
        const bool DecodesAFile = Row.MajorFunction == IRP_MJ_READ || Row.MajorFunction == IRP_MJ_WRITE;
        const NTSTATUS Wanted = Row.Bare != NoHandle ? Row.Bare
                                : DecodesAFile       ? STATUS_FILE_IS_A_DIRECTORY
                                                     : STATUS_INVALID_PARAMETER;
        EXPECT_EQ(Send(Plain(Row.MajorFunction, File)).Status, Wanted) << Row.Name;
        EXPECT_EQ(File->FsContext == nullptr, Row.MajorFunction == IRP_MJ_CLOSE);
        File->FsContext = File->FsContext2 = nullptr;
    }
    for (const ULONG64 Each : Foreign) {
        EXPECT_EQ(Each, 0u);
    }
    EXPECT_EQ(CallNames(), Lines{});
}

TEST_F(Entry, AHandleThatIsCleanedUpIsServedUntilItsClose) {
    Start({.Switches = {{u"EnableDirectoryNotify", 1}}});
    UCHAR Buffer[sizeof(FILE_BASIC_INFORMATION)] = {};
    LARGE_INTEGER Bytes = {.QuadPart = 4};
    for (const EntryRow &Row : Entries) {
        const HANDLE Handle =
            Row.MajorFunction == IRP_MJ_DIRECTORY_CONTROL
                ? MustOpen(u"\\srv\\vol\\docs", {.Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT})
                : MustOpen(u"\\srv\\vol\\a.txt", {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE});
        const PFILE_OBJECT File = FileObject(Handle);
        EXPECT_EQ(Send(Plain(IRP_MJ_CLEANUP, File)).Status, STATUS_SUCCESS);
        IrpBuilder Builder = Plain(Row.MajorFunction, File);
        Builder.MinorFunction = Row.MinorFunction;
        Builder.StackFlags = Row.MajorFunction == IRP_MJ_LOCK_CONTROL ? SL_FAIL_IMMEDIATELY | SL_EXCLUSIVE_LOCK : 0;
        Builder.UserBuffer = Builder.SystemBuffer = Buffer;
        Builder.Fill = [&](PIO_STACK_LOCATION IrpSp) {
            auto &Parameters = IrpSp->Parameters;
            switch (Row.MajorFunction) {
            case IRP_MJ_READ:
            case IRP_MJ_WRITE:
                Parameters.Read.Length = 4;
                break;
            case IRP_MJ_QUERY_INFORMATION:
                Parameters.QueryFile.FileInformationClass = FileBasicInformation;
                Parameters.QueryFile.Length = sizeof(Buffer);
                break;
            case IRP_MJ_SET_INFORMATION:
                Parameters.SetFile.FileInformationClass = FilePositionInformation;
                Parameters.SetFile.Length = sizeof(Buffer);
                break;
            case IRP_MJ_QUERY_VOLUME_INFORMATION:
                Parameters.QueryVolume.FsInformationClass = FileFsDeviceInformation;
                Parameters.QueryVolume.Length = sizeof(Buffer);
                break;
            case IRP_MJ_LOCK_CONTROL:
                Parameters.LockControl.Length = &Bytes;
                break;
            default:
                break;
            }
        };
        EXPECT_EQ(Send(Builder).Status, Row.CleanedUp) << Row.Name;
        EXPECT_EQ(Send(Plain(IRP_MJ_CLOSE, File)).Status, STATUS_SUCCESS) << Row.Name;
        EXPECT_EQ(Provider.OpenHandles(), Lines{}) << Row.Name;
        Close(Handle);
    }
}

TEST_F(Entry, AnInstanceWithoutItsFcbGoesWithTheClose) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Orphan = MustOpen(u"\\srv\\vol\\a.txt");
    const PFILE_OBJECT File = FileObject(Orphan);
    const INSTANCE_CONTEXT Copy = *Instance(Orphan);
    Send(Plain(IRP_MJ_CLEANUP, File));
    File->FsContext = nullptr;
    EXPECT_EQ(Send(Plain(IRP_MJ_CLOSE, File)).Status, STATUS_SUCCESS);
    EXPECT_EQ(File->FsContext2, nullptr);
    EXPECT_EQ(Fcb(Handle)->InstanceList.Flink, &Instance(Handle)->Links) << "it has left the list";
    // What else it held is the test's to give back: its Provider handles and its count.
    RV_SECURITY_CONTEXT Security = {};
    RVFsdCloseFile(&Security, Copy.FileHandle);
    RVFsdCloseVolume(&Security, Copy.VolumeHandle);
    --Fcb(Handle)->OpenCount;
}

// ---- Memory and identity

TEST_F(Entry, WithoutMemoryForItsContextARequestIsRefusedButAnOpenStillEnds) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    const PFILE_OBJECT File = FileObject(Handle);
    {
        const PlannedFaults NoMemory({.How = FaultPlan::Mode::NthAndAfter});
        char Byte;
        EXPECT_EQ(Read(Handle, &Byte, 1, 0).Status, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(Create(u"\\srv\\vol\\b.txt").Status, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(Send(Plain(IRP_MJ_CLEANUP, File)).Status, STATUS_SUCCESS);
        EXPECT_EQ(Send(Plain(IRP_MJ_CLOSE, File)).Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(Provider.OpenHandles(), Lines{});
}

TEST_F(Entry, AContextFromPoolIsMarkedAndGoesBackToPool) {
    Bind();
    const PlannedFaults ListFails({.Kinds = FaultBit(FaultKind::Pool)});
    const FaultScope AsTheDriver;
    const PIRP_CONTEXT Context = NtFsdCreateIrpContext(nullptr, FALSE);
    ASSERT_NE(Context, nullptr);
    EXPECT_EQ(Context->Flags, IRP_CONTEXT_FLAG_FROM_POOL | IRP_CONTEXT_FLAG_WAIT);
    const ULONG Frees = g_IrpContextLookasideList.L.TotalFrees;
    NtFsdDeleteIrpContext(Context);
    EXPECT_EQ(g_IrpContextLookasideList.L.TotalFrees, Frees) << "it never enters the list";
}

TEST_F(Entry, AContextWithoutARequestIsEmptyAndCompletingItFreesIt) {
    StartTracing(0x10000);
    Framework->SetCaller([] { return RV_SECURITY_CONTEXT{{7, 8}}; });
    Bind();
    const PIRP_CONTEXT Context = NtFsdCreateIrpContext(nullptr, FALSE);
    ASSERT_NE(Context, nullptr);
    EXPECT_EQ(Context->FileObject, nullptr);
    EXPECT_EQ(Context->Flags, IRP_CONTEXT_FLAG_WAIT + 0u) << "asynchronous I/O is off";
    EXPECT_EQ(Context->SecurityContext.Words[0], 7u);
    EXPECT_EQ(Context->SecurityContext.Words[1], 8u);
    EXPECT_EQ(Context->SecurityContextLength, 8u);
    EXPECT_EQ(Context->OriginatingProcess, IoGetCurrentProcess());
    Printed.clear();
    NtFsdCompleteRequest(Context, nullptr, STATUS_SUCCESS);
    EXPECT_EQ(Printed.find("[RVFSD] *** Complete IRP No IRP Specified IRP = 0x0 :: Context = 0x"), 0u) << Printed;
    NtFsdCompleteRequest(nullptr, nullptr, STATUS_SUCCESS);
}

TEST_F(Entry, WithoutTheCallersIdentityNothingIsAskedInHisName) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    Provider.ClearCalls();
    RV_SECURITY *const Held = g_pSecurityContextInterface;
    g_pSecurityContextInterface = nullptr;
    EXPECT_EQ(Send(Plain(IRP_MJ_FLUSH_BUFFERS, FileObject(Handle))).Status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(NtFsdCreateIrpContext(nullptr, TRUE), nullptr);
    g_pSecurityContextInterface = Held;
    EXPECT_EQ(CallNames(), Lines{});
}

TEST_F(Entry, ACompletionCarriesBoostOneAndIsTold) {
    StartTracing(0x10000);
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    Printed.clear();
    char Bytes[8];
    EXPECT_EQ(Read(Handle, Bytes, 8, 4).Information, 6u);
    EXPECT_EQ(Printed, "[RVFSD] Function = IRP_MJ_READ -  IRP Status = 0x0, Information = 0x6\n");
    EXPECT_EQ(BoostOf(Plain(IRP_MJ_FLUSH_BUFFERS, FileObject(Handle))), 1);
}

// ---- Create

TEST_F(Entry, APagingFileIsRefused) {
    StartTracing(0x20);
    Bind();
    const OwnedFile File(Device(), u"\\srv\\vol\\a.txt");
    Printed.clear();
    EXPECT_THAT(Send(CreateOf(File, SL_OPEN_PAGING_FILE)), Ends(STATUS_ACCESS_DENIED, 0));
    EXPECT_EQ(Printed, "[RVFSD] NtFsdCreate() asked to open paging file, returning ACCESS_DENIED\n");
    EXPECT_EQ(CallNames(), Lines{});
}

TEST_F(Entry, HalfACharacterAtTheEndIsNoPartOfTheName) {
    Provider.AddFile(u"\\srv\\vol\\docs\\f.t", "right");
    const HANDLE Parent = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    OwnedFile File(Device(), u"f.tx");
    --File->FileName.Length;
    File->RelatedFileObject = FileObject(Parent);
    EXPECT_EQ(Send(CreateOf(File)).Status, STATUS_SUCCESS);
    ASSERT_NE(File->FsContext2, nullptr);
    EXPECT_EQ(std::u16string(static_cast<PINSTANCE_CONTEXT>(File->FsContext2)->PathLeft), u"f.t");
    Send(Plain(IRP_MJ_CLEANUP, File));
    EXPECT_EQ(Send(Plain(IRP_MJ_CLOSE, File)).Status, STATUS_SUCCESS);
}

TEST_F(Entry, TheDeviceOpensAndClosesWithoutTheFramework) {
    StartTracing(0x20);
    Frame().FailCreate(Class::Rvpl, RVPSTATUS::NoSuchClass);
    Printed.clear();
    const OwnedFile File(Device(), u"");
    SentIrp Sent = SendIrp(Device(), CreateOf(File));
    EXPECT_EQ(Sent.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(Sent.Wait().Information, static_cast<ULONG_PTR>(FILE_OPENED));
    EXPECT_EQ(Sent.PriorityBoost(), 2);
    EXPECT_EQ(Printed.find("[RVFSD] Name Length 0\n[RVFSD] File \n[RVFSD] RelatedObject = 0x0\n"
                           "[RVFSD] Open our Device at Init\n[RVFSD] NtFsdOpenOurDevice() entering\n"),
              0u)
        << Printed;
    EXPECT_EQ(DeviceOpens(), 1u);
    EXPECT_EQ(Send(Plain(IRP_MJ_CLEANUP, File)).Status, STATUS_SUCCESS);
    EXPECT_EQ(Send(Plain(IRP_MJ_CLOSE, File)).Status, STATUS_SUCCESS);
    EXPECT_EQ(DeviceOpens(), 0u);
    EXPECT_EQ(File->FsContext2, nullptr);
    g_bFrameworkBindFailed = 0; // only the test lets it try again, so that it can shut down
}

// A request whose context ends with its routine stops the machine on every road that would keep it.
TEST_F(Entry, AContextInAFrameIsNeverKept) {
    Start();
    IO_STACK_LOCATION Stack = {};
    IRP Irp = {};
    Irp.Tail.Overlay.CurrentStackLocation = &Stack;
    IRP_CONTEXT Frame;
    NtFsdMakeFrameContext(Frame, &Irp);
    Frame.FileObject = FileObject(MustOpen(u"\\srv\\vol\\docs"));
    EXPECT_DEATH(NtFsdTryPostRequest(&Frame), "");
    EXPECT_DEATH(NtFsdEnterLockRequest(&Frame), "");
    EXPECT_DEATH(NtFsdNotifyDirectoryChange(&Frame), "");
}

// ---- User buffers

TEST_F(Entry, ALockedBufferIsUndoneOnceAndACallersMdlIsLeftAlone) {
    Bind();
    char Buffer[32];
    IRP Irp = {};
    Irp.UserBuffer = Buffer;
    IRP_CONTEXT Context = {};
    Context.Irp = &Irp;
    EXPECT_EQ(NtFsdMapUserBuffer(&Context), Buffer) << "without an MDL: the address itself";
    EXPECT_EQ(NtFsdLockUserBuffer(&Context, IoWriteAccess, sizeof(Buffer)), STATUS_SUCCESS);
    EXPECT_EQ(Context.UserBufferFlags, USER_BUFFER_MDL_ALLOCATED | USER_BUFFER_PAGES_LOCKED);
    // A second turn of the same request finds its own MDL and still knows that it is its own.
    EXPECT_EQ(NtFsdLockUserBuffer(&Context, IoWriteAccess, sizeof(Buffer)), STATUS_SUCCESS);
    EXPECT_EQ(Context.UserBufferFlags, USER_BUFFER_MDL_ALLOCATED | USER_BUFFER_PAGES_LOCKED);
    const PVOID Mapped = NtFsdMapUserBuffer(&Context);
    EXPECT_EQ(Mapped, Irp.MdlAddress->MappedSystemVa);
    EXPECT_NE(Mapped, Buffer);
    NtFsdUnlockUserBuffer(&Context);
    EXPECT_EQ(Irp.MdlAddress, nullptr);
    EXPECT_EQ(Context.UserBufferFlags, 0u);

    const PMDL Mdl = IoAllocateMdl(Buffer, sizeof(Buffer), FALSE, FALSE, nullptr);
    Irp.MdlAddress = Mdl;
    EXPECT_EQ(NtFsdLockUserBuffer(&Context, IoReadAccess, sizeof(Buffer)), STATUS_SUCCESS);
    EXPECT_EQ(Context.UserBufferFlags, USER_BUFFER_PAGES_LOCKED + 0u) << "locked here, allocated elsewhere";
    NtFsdUnlockUserBuffer(&Context);
    EXPECT_EQ(Irp.MdlAddress, Mdl);
    EXPECT_FALSE(Mdl->MdlFlags & MDL_PAGES_LOCKED);
    IoFreeMdl(Mdl);
}

TEST_F(Entry, ABufferThatCannotBeProbedLeavesNoMdl) {
    StartTracing(0x10000);
    Bind();
    IRP Irp = {};
    Irp.UserBuffer = reinterpret_cast<PVOID>(ULONG_PTR{0x10});
    Irp.RequestorMode = UserMode;
    IRP_CONTEXT Context = {};
    Context.Irp = &Irp;
    Printed.clear();
    EXPECT_EQ(NtFsdLockUserBuffer(&Context, IoWriteAccess, 8), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Irp.MdlAddress, nullptr);
    EXPECT_EQ(Context.UserBufferFlags, 0u);
    EXPECT_TRUE(WasPrinted("[RVFSD] Failed probing and locking Mdl in MapUserBuffer!\n"));
    EXPECT_TRUE(WasPrinted("[RVFSD] Probe and Lock status = 0xC0000005!\n"));
}

} // namespace
