// The driver's start: switches, device, registration, what every failure leaves, and the thread that opens the device
// up.

#include "embedded/ex/probe.h"
#include "embedded/io/probe.h"
#include "embedded/mm/mm.h"
#include "embedded/mm/probe.h"
#include "embedded/mup.h"
#include "embedded/names/names.h"
#include "embedded/probe.h"
#include "embedded/ps/probe.h"
#include "embedded/rtl/counted.h"
#include "embedded/verifier/probe.h"
#include "frame/configuration.h"
#include "frame/driver.h"
#include "frame/fast_io.h"
#include "frame/irp_context.h"
#include "provider/binding.h"
#include "tests/driver/frame_client.h"
#include "tests/driver/request_log.h"
#include "tests/support/driver_under_test.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace {

using namespace test;

class DriverStart : public FrameFixture {
protected:
    // A value of any size under the service key.
    static void SetValue(std::u16string_view Name, ULONG Type, std::initializer_list<int> Bytes) {
        std::vector<std::byte> Data;
        for (const int Each : Bytes) {
            Data.push_back(static_cast<std::byte>(Each));
        }
        SetRegistryValue(ServiceKey, Name, Type, Data);
    }
};

// ---- Switches

struct Switch {
    const char16_t *Name;
    const BOOLEAN *Global;
    BOOLEAN Default;
};

constexpr Switch Switches[] = {
    {u"EnableDirectoryNotify", &g_bEnableDirectoryNotify, FALSE},
    {u"EnableAsyncIo", &g_bEnableAsyncIo, FALSE},
    {u"UNCPathFilterBehavior", &g_bUNCPathFilterBehavior, FALSE},
    {u"FailDeleteInUseWorkaround", &g_bFailDeleteInUseWorkaround, TRUE},
    {u"Defer Windows DELETE Access Check", &g_bDeferDeleteAccessCheck, FALSE},
};

TEST_F(DriverStart, SwitchesThatAreMissingHaveTheirDefaults) {
    for (const bool HasKey : {true, false}) {
        Start({.StartsTheDriver = false});
        HasKey || DeleteRegistryKey(ServiceKey);
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        for (const Switch &Each : Switches) {
            EXPECT_EQ(*Each.Global, Each.Default);
        }
        Stop();
    }
}

TEST_F(DriverStart, ASwitchIsOnWhenItIsNotZeroAndMovesNoOther) {
    for (const Switch &Set : Switches) {
        for (const ULONG Value : {0u, 1u, 0x100u}) {
            Start({.Switches = {{Set.Name, Value}}});
            for (const Switch &Each : Switches) {
                EXPECT_EQ(*Each.Global, Each.Name == Set.Name ? Value != 0 : Each.Default);
            }
            Stop();
        }
    }
}

TEST_F(DriverStart, AServiceValueIsCopiedUpToFourBytesWhateverItsType) {
    struct ValueCase {
        const char16_t *Name;
        NTSTATUS Status;
        ULONG Value, Length;
    };
    constexpr ULONG Untouched = 0xDDDDDDDD;
    Start();
    SetValue(u"four", REG_SZ, {1, 2, 3, 4});
    SetValue(u"one", REG_BINARY, {7});
    SetValue(u"none", REG_BINARY, {});
    SetValue(u"five", REG_BINARY, {1, 2, 3, 4, 5});
    SetValue(u"eight", REG_BINARY, {1, 2, 3, 4, 5, 6, 7, 8});
    SetValue(u"nine", REG_BINARY, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    constexpr ValueCase Cases[] = {
        {u"four", STATUS_SUCCESS, 0x04030201, 4},
        {u"one", STATUS_SUCCESS, 0xDDDDDD07, 1},
        {u"none", STATUS_SUCCESS, Untouched, 0},
        {u"five", STATUS_BUFFER_OVERFLOW, Untouched, 5},
        {u"eight", STATUS_BUFFER_OVERFLOW, Untouched, 8},
        {u"nine", STATUS_BUFFER_OVERFLOW, Untouched, 9},
        {u"missing", STATUS_OBJECT_NAME_NOT_FOUND, Untouched, 77},
    };
    for (const ValueCase &Each : Cases) {
        ULONG Value = Untouched;
        ULONG Length = 77;
        EXPECT_EQ(NtFsdReadServiceValue(Each.Name, REG_DWORD, 4, &Value, &Length), Each.Status);
        EXPECT_EQ(Value, Each.Value);
        EXPECT_EQ(Length, Each.Length);
    }
    const NoMemoryInTheDriver NoMemory;
    EXPECT_EQ(NtFsdReadServiceValue(u"four", REG_DWORD, 4, nullptr, nullptr), STATUS_INSUFFICIENT_RESOURCES);
}

// ---- What stands after the start

TEST_F(DriverStart, TheDeviceIsAnUnnamedNetworkFileSystemWithARegisteredNameAndALink) {
    Start();
    const PDEVICE_OBJECT Device = DriverStart::Device();
    ASSERT_EQ(Device, g_pDeviceObject);
    EXPECT_EQ(Device->DeviceType, static_cast<ULONG>(FILE_DEVICE_NETWORK_FILE_SYSTEM));
    EXPECT_EQ(Device->Characteristics, static_cast<ULONG>(FILE_REMOTE_DEVICE));
    EXPECT_EQ(Device->StackSize, 2);
    EXPECT_EQ(Device->Flags & (DO_EXCLUSIVE | DO_DEVICE_INITIALIZING), 0u);
    const auto Extension = static_cast<DEVICE_EXTENSION *>(Device->DeviceExtension);
    EXPECT_EQ(View(&Extension->DeviceName), u"\\Device\\RvFsd");
    EXPECT_EQ(View(&Extension->VersionName), u"v5.00.001 (07292006)");
    EXPECT_EQ(Kernel().Driver()->DriverUnload, nullptr);
    EXPECT_EQ(g_uInitStage, 8u);
    EXPECT_EQ(g_bDriverEntryDone, 1);
    const auto Registered = RegisteredUncProviders();
    ASSERT_EQ(Registered.size(), 1u);
    EXPECT_EQ(Registered[0].DeviceName, u"\\Device\\RvFsd");
    EXPECT_EQ(Registered[0].Flags, 0u);
    std::u16string Target;
    EXPECT_EQ(QuerySymbolicLink(u"\\DosDevices\\RvFsd", &Target), STATUS_SUCCESS);
    EXPECT_EQ(Target, u"\\Device\\RvFsd");
}

TEST_F(DriverStart, TheLookasideListFollowsTheSystemSize) {
    for (const auto &[Size, Depth] :
         std::map<MM_SYSTEMSIZE, USHORT>{{MmSmallSystem, 4}, {MmMediumSystem, 8}, {MmLargeSystem, 16}}) {
        Start({.SystemSize = Size});
        EXPECT_EQ(g_IrpContextLookasideList.L.Depth, Depth);
        EXPECT_EQ(g_IrpContextLookasideList.L.Size, 168u);
        EXPECT_EQ(g_IrpContextLookasideList.L.Tag, 0x63787446u);
        Stop();
    }
}

TEST_F(DriverStart, ARequestsContextIsTakenFromTheListAndPutBack) {
    SetLookasideCaching(LookasideCaching::Always);
    Start();
    for (int Round = 0; Round < 8; ++Round) {
        EXPECT_EQ(Close(MustOpen(u"\\srv\\vol\\a.txt")), STATUS_SUCCESS);
    }
    EXPECT_GT(g_IrpContextLookasideList.L.TotalAllocates, g_IrpContextLookasideList.L.AllocateMisses * 4);
    EXPECT_EQ(g_IrpContextLookasideList.L.FreeMisses, 0u);
    Stop();
    SetLookasideCaching(LookasideCaching::FollowVerifier);
}

TEST_F(DriverStart, FastIoReadsAndWritesByTheCacheAndRefusesTheRest) {
    StartTracing(1);
    const PFAST_IO_DISPATCH Table = Kernel().Driver()->FastIoDispatch;
    ASSERT_NE(Table, nullptr);
    EXPECT_EQ(Table->SizeOfFastIoDispatch, 224u);
    EXPECT_EQ(ServiceBehind(reinterpret_cast<void *>(Table->FastIoRead)), reinterpret_cast<void *>(FsRtlCopyRead));
    EXPECT_EQ(ServiceBehind(reinterpret_cast<void *>(Table->FastIoWrite)), reinterpret_cast<void *>(FsRtlCopyWrite));
    EXPECT_EQ(Table->FastIoLock, nullptr);
    EXPECT_EQ(Table->FastIoDeviceControl, nullptr);
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    IO_STATUS_BLOCK IoStatus = {};
    LARGE_INTEGER Offset = {};
    char Bytes[4];
    // Without a cache the I/O manager has to send a request.
    for (const auto Routine : {Table->FastIoRead, Table->FastIoWrite}) {
        EXPECT_FALSE(Routine(FileObject(Handle), &Offset, sizeof(Bytes), TRUE, 0, Bytes, &IoStatus, Device()));
    }
    EXPECT_EQ(Close(Handle), STATUS_SUCCESS);
    Printed.clear();
    EXPECT_FALSE(Table->FastIoCheckIfPossible(nullptr, nullptr, 0, TRUE, 0, TRUE, nullptr, nullptr));
    EXPECT_FALSE(Table->FastIoQueryBasicInfo(nullptr, TRUE, nullptr, nullptr, nullptr));
    EXPECT_FALSE(Table->FastIoQueryStandardInfo(nullptr, TRUE, nullptr, nullptr, nullptr));
    EXPECT_EQ(Printed, "[RVFSD] --++++++++++++++++++--+++NtFsdFastIoCheckIfPossible called!\n"
                       "[RVFSD] --++++++++++++++++++--+++NtFsdFastQueryBasicInfo called!\n"
                       "[RVFSD] --++++++++++++++++++--+++NtFsdFastQueryStdInfo called!\n");
}

TEST_F(DriverStart, ASectionIsCreatedUnderTheFilesResource) {
    Start();
    const PFAST_IO_DISPATCH Table = Kernel().Driver()->FastIoDispatch;
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Again = MustOpen(u"", {.Related = Handle}); // a file without a name of its own
    const auto Regions = CurrentThread().CriticalRegions;
    for (const HANDLE Each : {Handle, Again}) {
        Table->AcquireFileForNtCreateSection(FileObject(Each));
        EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&Fcb(Each)->Resource));
        ResetSectionCloses();
        Table->ReleaseFileForNtCreateSection(FileObject(Each));
        EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&Fcb(Each)->Resource));
        EXPECT_EQ(LastSectionClosed(), &Fcb(Each)->SectionObjectPointers);
        EXPECT_EQ(CurrentThread().CriticalRegions, Regions);
    }
    Close(Again);
    // The control device has no data, and its FCB does not wait for those who hold it.
    const HANDLE OfDevice = MustOpen(u"");
    Table->AcquireFileForNtCreateSection(FileObject(OfDevice));
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&Fcb(OfDevice)->Resource));
    Table->ReleaseFileForNtCreateSection(FileObject(OfDevice));
    Close(OfDevice);
    const OwnedFile Bare(Device(), u"\\srv\\vol\\a.txt");
    Table->AcquireFileForNtCreateSection(Bare);
    Table->ReleaseFileForNtCreateSection(Bare);
    EXPECT_EQ(CurrentThread().CriticalRegions, Regions);
}

TEST_F(DriverStart, TellsItsStepsInOrder) {
    StartTracing(8);
    ExpectPrintedInOrder({"[RVFSD] DriverEntry() entered\n", "[RVFSD] Async IO set to 0\n",
                          "[RVFSD] DriverEntry set UNCPathFilterBehavior to FALSE.\n",
                          "[RVFSD] DriverEntry set FailDeleteInUseWorkaround to TRUE.\n",
                          "[RVFSD] DriverEntry set Defer Windows DELETE Access Check to FALSE.\n",
                          "[RVFSD] IO Device \\Device\\RvFsd created, 0x", "[RVFSD] Setup driver name completed.\n",
                          "[RVFSD] Calling FsRtlRegisterUncProvider()\n",
                          "[RVFSD] DriverEntry() exiting, status = 0x0\n"});
}

// ---- Starts that fail

class FailedStart : public DriverStart {
protected:
    // Starts with the Nth call of Kind failing until none fails; the statuses in order. Each kernel's stop proves that
    // nothing is left.
    std::vector<NTSTATUS> Sweep(FaultKind Kind, std::map<std::u16string, ULONG> Set = {}) {
        std::vector<NTSTATUS> Statuses;
        for (ULONG64 Nth = 1;; ++Nth) {
            Start({.Switches = Set, .StartsTheDriver = false});
            ULONG64 Failed;
            {
                const PlannedFaults Plan({.Kinds = FaultBit(Kind), .Nth = Nth});
                Statuses.push_back(Load());
                Failed = GetFaultCounts().TotalFailed();
            }
            if (NT_SUCCESS(Statuses.back())) {
                EXPECT_EQ(g_bFailDeleteInUseWorkaround, TRUE);
                EXPECT_EQ(g_bEnableAsyncIo, FALSE);
            } else {
                EXPECT_EQ(g_pDeviceObject, nullptr);
                EXPECT_EQ(g_uInitStage, 0u);
                EXPECT_EQ(RegisteredUncProviders().size(), 0u);
                EXPECT_EQ(LiveObjects(LiveKind::Resource), 0u);
                // The writer is waited for; the kernel's own record of it may be a moment late.
                EXPECT_EQ(JoinSystemThreads(0), 0u);
            }
            Stop();
            if (Failed == 0) {
                return Statuses;
            }
        }
    }
};

TEST_F(FailedStart, EveryResourceIsNeeded) {
    // The FCB table, the framework, the FCB list, the control device, and two of the driver FCB.
    std::vector<NTSTATUS> Wanted(6, STATUS_UNSUCCESSFUL);
    Wanted.push_back(STATUS_INSUFFICIENT_RESOURCES); // the list of mapped drives
    Wanted.push_back(STATUS_SUCCESS);
    EXPECT_EQ(Sweep(FaultKind::Resource), Wanted);
    // The log's writer goes with a start that fails.
    EXPECT_EQ(Sweep(FaultKind::Resource, {{u"EnableDebug", 1}, {u"FsDebugLevel", 0x10008}, {u"DebugLogging", 1}}),
              Wanted);
}

TEST_F(FailedStart, MemoryIsNeededForTheDeviceAndItsFcbAlone) {
    std::vector<NTSTATUS> Wanted(7, STATUS_SUCCESS); // the log buffer and six switches: defaults
    Wanted.push_back(STATUS_INSUFFICIENT_RESOURCES); // the device
    Wanted.push_back(STATUS_UNSUCCESSFUL);           // the driver FCB
    Wanted.push_back(STATUS_SUCCESS);                // the link
    Wanted.push_back(STATUS_SUCCESS);                // nothing failed
    EXPECT_EQ(Sweep(FaultKind::Pool), Wanted);
}

TEST_F(FailedStart, SaysWhatFailed) {
    constexpr const char *Last = "[RVFSD] Failed to initialize our device support, 0xc000009a\n"
                                 "[RVFSD] DriverEntry NtFsdInitOurDevice returned 0xC000009A.\n";
    struct {
        ULONG64 Nth; // of the resources
        const char *Text;
    } constexpr Cases[] = {
        {1, Last},
        {4, "[RVFSD] NtFsdInitOurDevice ExInitializeResourceLite returned 0xC000009A.\n"},
        {5, "[RVFSD] NtFsdInitOurDevice NtFsdAllocFcb returned NULL.\n"},
        {5, Last},
    };
    for (const auto &Each : Cases) {
        Printed.clear();
        Start({.Switches = {{u"EnableDebug", 1}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", 0x10000}},
               .StartsTheDriver = false});
        {
            const PlannedFaults Plan({.Kinds = FaultBit(FaultKind::Resource), .Nth = Each.Nth});
            EXPECT_EQ(Load(), STATUS_UNSUCCESSFUL);
        }
        EXPECT_TRUE(WasPrinted(Each.Text)) << Each.Text << Printed;
        Stop();
    }
}

TEST_F(FailedStart, ARefusedRegistrationIsTheAnswer) {
    Start({.Switches = {{u"EnableDebug", 1}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", 0x10000}},
           .StartsTheDriver = false});
    FailNextUncRegistration(STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Load(), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Printed, "[RVFSD] Failed to register \\Device\\RvFsd as Unc Provider, 0xc0000043\n"
                       "[RVFSD] NtFsdUnInitOurDevice() entering\n"
                       "[RVFSD] NtFsdUnInitOurDevice() returning STATUS_SUCCESS\n"
                       "[RVFSD] Deleting the device object\n");
    EXPECT_EQ(LiveObjects(LiveKind::Resource), 0u);
    EXPECT_EQ(LiveObjects(LiveKind::Lookaside), 0u);
}

NTSTATUS StatusWithoutThread;

NTSTATUS NTAPI StartWithoutThread(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    const PlannedFaults NoThread({.Kinds = FaultBit(FaultKind::Thread)});
    StatusWithoutThread = DriverEntry(DriverObject, RegistryPath);
    return STATUS_SUCCESS; // the driver stays, as it does where a failed start unloads nothing
}

TEST_F(FailedStart, AMissingDeferredThreadIsTheAnswerAndUndoesNothing) {
    Start({.StartsTheDriver = false});
    ASSERT_EQ(Kernel().LoadDriver(StartWithoutThread, u"RVFSD"), STATUS_SUCCESS);
    EXPECT_EQ(StatusWithoutThread, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(g_bDriverEntryDone, 1);
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    EXPECT_EQ(ReadAll(Handle), "0123456789");
}

// ---- The deferred thread

class DeferredStart : public DriverStart {
protected:
    void ExpectNoDacl() {
        const SECURITY_DESCRIPTOR *Descriptor = DeviceSecurity(Device());
        ASSERT_NE(Descriptor, nullptr);
        EXPECT_EQ(Descriptor->Revision, 1);
        EXPECT_EQ(Descriptor->Control & 0x4, 0) << "a DACL is present";
        EXPECT_EQ(Descriptor->Dacl, nullptr);
    }
};

TEST_F(DeferredStart, AfterASecondTheDeviceHasNoDaclAndNobodyHasItOpen) {
    StartTracing(0x10008);
    Clock::Advance(Clock::Second - 1);
    EXPECT_EQ(DeviceSecurity(Device()), nullptr);
    Clock::Advance(1);
    ExpectNoDacl();
    EXPECT_EQ(RunningSystemThreads(), 0u);
    EXPECT_EQ(DeviceOpens(), 0u);
    ExpectPrintedInOrder({"Call to Finish Driver Init\n", "VEYFSD: Call To RvSetupDeviceAccess\n",
                          "Device Name: \\Device\\RvFsd\n", "ZwCreate Status 0x0\n"});
    EXPECT_FALSE(WasPrinted("ZwCreate Status 0\n")) << "only a failed try is told";
}

// The tries fail for want of memory for the process record; after the tenth there is memory again.
TEST_F(DeferredStart, ADeviceThatDoesNotOpenIsGivenUpAfterTenTriesAndOpenedUpAllTheSame) {
    StartTracing(8);
    std::vector<NTSTATUS> Tries;
    SetFaultPlan({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool)});
    SetIoObserver([&](const CompletedRequest &Request) {
        if (Request.MajorFunction == IRP_MJ_CREATE) {
            Tries.push_back(Request.Status);
            if (Tries.size() == 10) {
                ClearFaultPlan();
            }
        }
    });
    Clock::Advance(10 * Clock::Second - 1);
    EXPECT_EQ(Tries, std::vector<NTSTATUS>(9, STATUS_INSUFFICIENT_RESOURCES));
    EXPECT_EQ(DeviceSecurity(Device()), nullptr);
    Clock::Advance(1);
    SetIoObserver({});
    ASSERT_EQ(Tries.size(), 11u);
    EXPECT_EQ(Tries[10], STATUS_SUCCESS);
    ExpectNoDacl();
    EXPECT_EQ(RunningSystemThreads(), 0u);
}

TEST_F(DeferredStart, EndsHarmlesslyWhenTheDeviceIsGone) {
    Start();
    EXPECT_EQ(Kernel().SendShutdown(), STATUS_NOT_SUPPORTED);
    Clock::Advance(20 * Clock::Second);
    EXPECT_EQ(RunningSystemThreads(), 0u);
}

} // namespace
