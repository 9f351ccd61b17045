#include "embedded/io/objects.h"
#include "embedded/io/probe.h"
#include "embedded/ob/ob.h"
#include "embedded/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/rtl/counted.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/user_memory.h"
#include "io_fixture.h"
#include "planted.h"
#include "tests/support/devices.h"

namespace {

using namespace embedded;
using namespace iotest;

IrpBuilder Request(UCHAR MajorFunction) {
    IrpBuilder Builder;
    Builder.MajorFunction = MajorFunction;
    return Builder;
}

using IoRequestTest = IoTest;

TEST_F(IoRequestTest, AnEntryThatTheDriverDoesNotServeIsRefused) {
    TheKernel->Driver()->MajorFunction[IRP_MJ_POWER] = nullptr;
    PDRIVER_OBJECT Bare = nullptr;
    ASSERT_EQ(LoadDriverObject(
                  [](PDRIVER_OBJECT Driver, PUNICODE_STRING) NTAPI -> NTSTATUS {
                      PDEVICE_OBJECT Device;
                      UNICODE_STRING Name = ToUnicodeString(u"\\Device\\Bare");
                      return IoCreateDevice(Driver, 0, &Name, 0, 0, FALSE, &Device);
                  },
                  u"Bare", &Bare),
              STATUS_SUCCESS);
    EXPECT_EQ(SendIrpAndWait(Bare->DeviceObject, Request(IRP_MJ_READ)).Status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(FreeDriverObject(Bare), 1u);
    EXPECT_EQ(test::DeviceFromName(u"\\Device\\Bare"), nullptr);
}

TEST_F(IoRequestTest, WhatMakesARequestSynchronous) {
    struct {
        ULONG IrpFlags, FileFlags;
        bool Synchronous;
    } const Cases[] = {
        {0, 0, false},
        {IRP_SYNCHRONOUS_API, 0, true},
        {0, FO_SYNCHRONOUS_IO, true},
        {IRP_PAGING_IO, 0, false},
        {IRP_PAGING_IO, FO_SYNCHRONOUS_IO, false},
        {IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO, 0, true},
        {IRP_NOCACHE, 0, false},
    };
    for (const auto &Case : Cases) {
        const PFILE_OBJECT File = CreateFileObject(TheDevice, u"\\x", Case.FileFlags);
        IrpBuilder Builder = Request(IRP_MJ_READ);
        Builder.FileObject = File;
        Builder.IrpFlags = Case.IrpFlags;
        bool Synchronous = !Case.Synchronous;
        Handlers[IRP_MJ_READ] = [&](PIRP Irp) {
            Synchronous = IoIsOperationSynchronous(Irp);
            return Complete(Irp, STATUS_SUCCESS);
        };
        SendIrpAndWait(TheDevice, Builder);
        EXPECT_EQ(Synchronous, Case.Synchronous) << Case.IrpFlags << " " << Case.FileFlags;
        DereferenceFileObject(File);
    }
}

TEST_F(IoRequestTest, OnlyATellingCloseHearsOfTheRequestsThatItSends) {
    struct {
        NTSTATUS Cleanup, Close, Told;
    } constexpr Cases[] = {
        {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS},
        {STATUS_SUCCESS, STATUS_DIRECTORY_NOT_EMPTY, STATUS_DIRECTORY_NOT_EMPTY},
        {STATUS_RANGE_NOT_LOCKED, STATUS_SUCCESS, STATUS_RANGE_NOT_LOCKED},
        {STATUS_RANGE_NOT_LOCKED, STATUS_DIRECTORY_NOT_EMPTY, STATUS_DIRECTORY_NOT_EMPTY},
    };
    for (const auto &Each : Cases) {
        Handlers[IRP_MJ_CLEANUP] = [&Each](PIRP Irp) { return Complete(Irp, Each.Cleanup); };
        Handlers[IRP_MJ_CLOSE] = [&Each](PIRP Irp) { return Complete(Irp, Each.Close); };
        EXPECT_EQ(CloseHandleTelling(Open(u"\\Device\\RvFsd\\f").Handle), Each.Told);
        EXPECT_EQ(NtClose(Open(u"\\Device\\RvFsd\\f").Handle), STATUS_SUCCESS);
    }
    // Somebody else still refers to the file: its close comes later, and is not this handle's to tell.
    Handlers[IRP_MJ_CLEANUP] = {};
    const HANDLE Handle = Open(u"\\Device\\RvFsd\\f").Handle;
    const PFILE_OBJECT File = FileObjectFromHandle(Handle);
    EXPECT_EQ(CloseHandleTelling(Handle), STATUS_SUCCESS);
    DereferenceFileObject(File);
    EXPECT_EQ(CloseHandleTelling(Handle), STATUS_INVALID_HANDLE);
}

TEST_F(IoRequestTest, ADeletedDeviceTakesNoOpensButServesTheOnesItHas) {
    const HANDLE Handle = Open(u"\\Device\\RvFsd\\f").Handle;
    IoDeleteDevice(std::exchange(TheDevice, nullptr));
    EXPECT_EQ(Open(u"\\Device\\RvFsd\\g").Status, STATUS_NO_SUCH_DEVICE);
    char Byte;
    IO_STATUS_BLOCK Iosb;
    EXPECT_EQ(NtReadFile(Handle, nullptr, nullptr, nullptr, &Iosb, &Byte, 1, nullptr, nullptr), STATUS_SUCCESS);
    NtClose(Handle);
    FsRtlDeregisterUncProvider(std::exchange(ProviderHandle, nullptr));
}

// ---- Planted faults --------------------------------------------------------------------------------------------

class IoPlantedTest : public PlantedFaults {};

Kernel *Booted = nullptr;

// Boots a kernel with the driver and commits What.
void Started(void (*What)()) {
    Kernel New;
    Booted = &New;
    static_cast<void>(New.LoadDriver(DriverEntry, u"RVFSD"));
    What();
}

// Lets reads be served as Serve says and sends one.
void Read(Handler Serve, const IrpBuilder &Builder = Request(IRP_MJ_READ)) {
    Handlers[IRP_MJ_READ] = std::move(Serve);
    SendIrpAndWait(TheDevice, Builder);
}

// A read that does What on the way to its good end.
void ReadDoing(void (*What)(PIRP), const IrpBuilder &Builder = Request(IRP_MJ_READ)) {
    Read([What](PIRP Irp) { return What(Irp), Complete(Irp, STATUS_SUCCESS); }, Builder);
}

// A read that is completed with one status and returns another.
void ReadAnswering(NTSTATUS Completed, NTSTATUS Returned) {
    Read([=](PIRP Irp) { return Complete(Irp, Completed), Returned; });
}

NTSTATUS Pend(PIRP Irp) {
    IoMarkIrpPending(Irp);
    return STATUS_PENDING;
}

VOID NTAPI NoCancel(PDEVICE_OBJECT, PIRP Irp) {
    IoReleaseCancelSpinLock(Irp->CancelIrql);
}

struct Lasting final : Object {
    Lasting() : Object(ObjectType::Event) {
    }
    void OnLastReference() noexcept override {
        if (std::exchange(Again, false)) {
            Reference();
        }
    }
    bool Again = false;
};

// Closes, in kernel mode, a handle of these attributes that may be closed already.
void ZwCloseOf(ULONG Attributes, bool Closed) {
    HANDLE Handle;
    InsertHandle(*new Lasting, 0, Attributes, Attributes == 0 ? UserMode : KernelMode, &Handle);
    if (Closed) {
        CloseHandle(Handle, KernelMode);
    }
    ZwClose(Handle);
}

char Buffer[64];

const PlantedFault Planted[] = {
    {"CompletedTwice", 0x44, 0, "completed twice",
     [] {
         Read([](PIRP Irp) {
             Complete(Irp, STATUS_SUCCESS);
             IofCompleteRequest(Irp, IO_NO_INCREMENT);
             return STATUS_SUCCESS;
         });
     }},
    {"CompletedWithPending", 0xC9, 0x06, "cannot be final", [] { ReadAnswering(STATUS_PENDING, STATUS_PENDING); }},
    {"CompletedWithMinusOne", 0xC9, 0x06, "cannot be final", [] { ReadAnswering(-1, -1); }},
    {"CompletedAboveDispatch", 0xC9, 0x0E, "above DISPATCH_LEVEL",
     [] { ReadDoing([](PIRP) { KeRaiseIrql(HighLevel); }); }},
    {"CancelRoutineLeftSet", 0xC9, 0x07, "cancel routine",
     [] { ReadDoing([](PIRP Irp) { Irp->CancelRoutine = NoCancel; }); }},
    {"CompletedWithALockHeld", 0xC9, bugcheck::OwnRule + 1, "locks held",
     [] {
         static ERESOURCE Resource;
         ExInitializeResourceLite(&Resource);
         ReadDoing([](PIRP) {
             KeEnterCriticalRegion();
             ExAcquireResourceSharedLite(&Resource, TRUE);
         });
     }},
    {"MdlLeft", 0xC4, 0xB8, "MDL of the driver",
     [] { ReadDoing([](PIRP Irp) { IoAllocateMdl(Buffer, sizeof(Buffer), FALSE, FALSE, Irp); }); }},
    {"CallersMdlTaken", 0xC4, 0xB8, "without the MDL",
     [] {
         IrpBuilder Builder = Request(IRP_MJ_READ);
         MDL Own{};
         Builder.Mdl = &Own;
         ReadDoing([](PIRP Irp) { Irp->MdlAddress = nullptr; }, Builder);
     }},
    {"PendingReturnedUnmarked", 0xC9, 0x23D, "not marked pending",
     [] { ReadAnswering(STATUS_SUCCESS, STATUS_PENDING); }},
    {"MarkedPendingNotReturned", 0xC9, 0x23E, "STATUS_PENDING was not returned",
     [] { ReadDoing([](PIRP Irp) { IoMarkIrpPending(Irp); }); }},
    {"UnmarkedAndCompletedLater", 0xC9, 0x23D, "not marked pending",
     [] {
         PIRP Waiting = nullptr;
         Handlers[IRP_MJ_READ] = [&](PIRP Irp) { return Waiting = Irp, STATUS_PENDING; };
         SentIrp Sent = SendIrp(TheDevice, Request(IRP_MJ_READ));
         Complete(Waiting, STATUS_SUCCESS);
     }},
    {"NeitherCompletedNorPended", 0xC9, 0x226, "neither completed", [] { Read([](PIRP) { return STATUS_SUCCESS; }); }},
    {"OtherStatusReturned", 0xC9, 0x224, "completed with 0xC0000011",
     [] { ReadAnswering(STATUS_END_OF_FILE, STATUS_SUCCESS); }},
    {"MinusOneReturned", 0xC9, 0x225, "0xFFFFFFFF", [] { ReadAnswering(STATUS_SUCCESS, -1); }},
    {"FilterDoesNotPassPendingOn", 0xC9, 0x228, "did not mark",
     [] {
         IrpBuilder Builder = Request(IRP_MJ_READ);
         Builder.CompletionRoutine = [](PDEVICE_OBJECT, PIRP, PVOID) NTAPI -> NTSTATUS { return STATUS_SUCCESS; };
         Read([](PIRP Irp) { return IoMarkIrpPending(Irp), Complete(Irp, STATUS_SUCCESS), STATUS_PENDING; }, Builder);
     }},
    {"CompletedButNoIrp", 0xC9, 0x01, "no IRP",
     [] {
         alignas(16) static char Bytes[2 * sizeof(IrpBlock)] = {};
         IofCompleteRequest(&reinterpret_cast<IrpBlock *>(Bytes)->Irp, 0);
     }},
    {"FreedInTheDriversHands", 0xC9, 0x20A, "still had it",
     [] { ReadDoing([](PIRP Irp) { FreeIrp(IrpBlock::Of(Irp)); }); }},
    {"UserAddressInAKernelRequest", 0xC4, 0xE2, "an address of a process",
     [] {
         const UserMemory Client(64);
         IrpBuilder Builder = Request(IRP_MJ_READ);
         Builder.UserBuffer = Client.Address();
         ReadDoing([](PIRP) {}, Builder);
     }},
    {"CompletedByAStranger", 0xC9, 0x205, "not sent to",
     [] {
         // The request has been finished and its block is new again: the driver still holds the old pointer.
         PIRP Kept = nullptr;
         Handlers[IRP_MJ_READ] = [&](PIRP Irp) { return Kept = Irp, Complete(Irp, STATUS_SUCCESS); };
         SendIrpAndWait(TheDevice, Request(IRP_MJ_READ));
         // Comes round after the quarantine; built, not yet sent, and completed by somebody else.
         for (int Round = 0; Round < 200; ++Round) {
             IrpBuilder Builder = Request(IRP_MJ_FLUSH_BUFFERS);
             Builder.Fill = [&](PIO_STACK_LOCATION Stack) {
                 const auto *Irp = reinterpret_cast<const char *>(Kept);
                 const auto *Here = reinterpret_cast<const char *>(Stack);
                 if (Here > Irp && Here < Irp + 208 + 8 * 72) {
                     IofCompleteRequest(Kept, 0);
                 }
             };
             SendIrpAndWait(TheDevice, Builder);
         }
     }},
    {"TopLevelIrpLeftSet", 0xC9, 0xF0000, "top-level IRP",
     [] { ReadDoing([](PIRP) { IoSetTopLevelIrp(reinterpret_cast<PIRP>(8)); }); }},
    {"CancelLockKept", 0xC9, 0xF0000, "cancel spin lock",
     [] {
         Handlers[IRP_MJ_READ] = [](PIRP Irp) {
             Irp->CancelRoutine = [](PDEVICE_OBJECT, PIRP) NTAPI -> VOID {};
             return Pend(Irp);
         };
         SendIrp(TheDevice, Request(IRP_MJ_READ)).Cancel();
     }},
    {"CancelledButNeverCompleted", 0xC4, 0x135, "allowed time",
     [] {
         Handlers[IRP_MJ_READ] = Pend;
         SendIrp(TheDevice, Request(IRP_MJ_READ)).CancelWithin(Clock::Second);
     }},
    {"DeviceDeletedTwice", 0xC9, 0xF0000, "deleted twice",
     [] { IoDeleteDevice(TheDevice), IoDeleteDevice(TheDevice); }},
    {"ShareRemovedTwice", 0xC9, 0xF0000, "never recorded",
     [] {
         SHARE_ACCESS Share{};
         const PFILE_OBJECT File = CreateFileObject(TheDevice, u"", 0);
         IoSetShareAccess(FILE_READ_DATA, 0, File, &Share);
         IoRemoveShareAccess(File, &Share);
         IoRemoveShareAccess(File, &Share);
     }},
    {"DeviceLeftByAFailedStart", 0xC4, 0x60, "left a device behind",
     [] {
         PDRIVER_OBJECT Bad;
         static_cast<void>(LoadDriverObject(
             [](PDRIVER_OBJECT Driver, PUNICODE_STRING) NTAPI -> NTSTATUS {
                 PDEVICE_OBJECT Device;
                 static_cast<void>(IoCreateDevice(Driver, 0, nullptr, 0, 0, FALSE, &Device));
                 return STATUS_UNSUCCESSFUL;
             },
             u"Bad", &Bad));
     }},
    {"HandleLeftOpen", 0xC4, 0x62, "1 event handle.s. still open",
     [] {
         HANDLE Handle;
         static_cast<void>(CreateEventHandle(NotificationEvent, false, &Handle));
         Booted->Stop();
     }},
    {"FileObjectLeft", 0xC4, 0x62, "1 file object", [] { CreateFileObject(TheDevice, u"", 0), Booted->Stop(); }},
    {"ProviderLeftRegistered", 0xC4, 0x62, "handle", [] { ProviderHandle = nullptr, Booted->Stop(); }},
    {"IrqlChangedByDispatch", 0xC9, 0x05, "", [] { ReadDoing([](PIRP) { KeRaiseIrql(DispatchLevel); }); }},
    {"NoHandleInKernelMode", 0xC4, 0xF5, "", [] { ZwClose(nullptr); }},
    {"UserHandleInKernelMode", 0xC4, 0xF6, "", [] { ZwCloseOf(0, false); }},
    {"ClosedHandleInKernelMode", 0x93, 0, "", [] { ZwCloseOf(OBJ_KERNEL_HANDLE, true); }},
    {"ReferenceToADyingObject", 0xC4, 0x3F, "",
     [] {
         auto *Target = new Lasting;
         Target->Again = true;
         Target->Dereference();
     }},
    {"OneDereferenceTooMany", 0x18, 0, "",
     [] {
         auto *Target = new Lasting;
         Target->Dereference();
         Target->Dereference();
     }},
};

TEST_P(IoPlantedTest, StopsWithItsCode) {
    const PlantedFault &Fault = GetParam();
    // What these three are told of is addresses.
    const bool Addresses = Fault.Code == 0x44 || Fault.Code == 0x93 || Fault.Code == 0x18;
    EXPECT_DEATH(Started(Fault.Commit), Addresses ? fmt::format("STOP 0x{:08X}.*{}", Fault.Code, Fault.What)
                                                  : StopPattern(Fault.Code, Fault.Parameter, Fault.What));
}

INSTANTIATE_TEST_SUITE_P(Io, IoPlantedTest, testing::ValuesIn(Planted),
                         [](const auto &Each) { return std::string(Each.param.Name); });

// ---- The kernel itself -------------------------------------------------------------------------------------------

TEST(KernelLifeTest, StopListsWhatIsLeftWhenTheVerifierIsOff) {
    KernelOptions Options;
    Options.Verifier = VerifierLevel::Off;
    Kernel Running(Options);
    ASSERT_EQ(Running.LoadDriver(DriverEntry, u"RVFSD"), STATUS_SUCCESS);
    HANDLE Handle;
    ASSERT_EQ(CreateEventHandle(NotificationEvent, false, &Handle), STATUS_SUCCESS);
    EXPECT_EQ(Running.Stop(), "1 event handle(s) still open\n");
    EXPECT_EQ(OpenHandleCount(), 0u);
    SetVerifierLevel(VerifierLevel::On); // for tests without a kernel
}

TEST(KernelLifeTest, EachKernelStartsFresh) {
    int Resets = 0;
    KernelOptions Options;
    Options.Registry = {{std::u16string(kServiceKey), u"EnableAsyncIo", 1}};
    Options.ResetDriverImage = [&] { ++Resets; };
    {
        Kernel Running(Options);
        EXPECT_TRUE(QueryRegistryValue(kServiceKey, u"EnableAsyncIo"));
        EXPECT_THROW(Kernel Second, std::logic_error);
    }
    EXPECT_EQ(Resets, 1);
    Kernel Running;
    EXPECT_FALSE(QueryRegistryValue(kServiceKey, u"EnableAsyncIo"));
    EXPECT_EQ(Running.Device(), nullptr);
}

} // namespace
