#include "embedded/mm/faults.h"
#include "embedded/verifier/leaks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/user_memory.h"

#include <thread>

#include "embedded/base/probe.h"
#include "embedded/ex/ex.h"
#include "embedded/kernel.h"
#include "embedded/mm/mm.h"
#include "embedded/ps/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/probe.h"
#include "tests/embedded/planted.h"

namespace embedded {
namespace {

constexpr ULONG Tag = MakeTag("Test");

// Initialised resources and spin locks that the faults below misuse. In the child process they are never cleaned up.
struct Victims {
    ERESOURCE A, B, C;
    KSPIN_LOCK SpinA = 0, SpinB = 0;
    Victims() {
        ExInitializeResourceLite(&A);
        ExInitializeResourceLite(&B);
        ExInitializeResourceLite(&C);
    }
};

Victims &Bad() {
    static Victims &Instance = *new Victims;
    return Instance;
}

void Exclusive(ERESOURCE &Resource) {
    ExAcquireResourceExclusiveLite(&Resource, TRUE);
}

void TakeInTurn(ERESOURCE &First, ERESOURCE &Second) {
    CriticalRegion Region;
    Exclusive(First);
    Exclusive(Second);
    ExReleaseResourceLite(&Second);
    ExReleaseResourceLite(&First);
}

PVOID Allocate(SIZE_T Size, POOL_TYPE Type = NonPagedPool) {
    return ExAllocatePoolWithTag(Type, Size, Tag);
}
PVOID Free(PVOID Block) {
    ExFreePoolWithTag(Block, Tag);
    return Block;
}

void InThread(void (*Body)()) {
    std::thread(Body).join();
}

void InSystemThread(PKSTART_ROUTINE Body) {
    HANDLE Thread;
    PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr, Body, nullptr);
    CloseThreadHandle(Thread);
    JoinSystemThreads();
}

void At(KIRQL Level, const std::function<void()> &Body) {
    RaisedIrql Raised(Level);
    Body();
}

void During(DriverCall Call, void (*Body)()) {
    RequireUnchanged Same(Call, "the call");
    Body();
}

void InRegion(const std::function<void()> &Body) {
    CriticalRegion Region;
    Body();
}

void WaitForEvent(LARGE_INTEGER *Timeout, KIRQL Level) {
    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, TRUE);
    RaisedIrql Raised(Level);
    KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, Timeout);
}

LARGE_INTEGER Zero{};

constexpr ULONG V = bugcheck::Verifier;

const PlantedFault PoolFaults[] = {
    {"ZeroBytes", V, 0x00, "zero bytes", [] { Allocate(0); }},
    {"PagedAtDispatch", V, 0x01, "paged pool", [] { At(DispatchLevel, [] { Allocate(16, PagedPool); }); }},
    {"AboveDispatch", V, 0x02, "above DISPATCH", [] { At(HighLevel, [] { Allocate(16); }); }},
    {"FreeOfNoBlock", V, 0x10, "no block",
     [] {
         alignas(16) char Bytes[64] = {};
         Free(Bytes + 32);
     }},
    {"FreeInTheMiddle", V, 0x10, "no block", [] { Free(static_cast<char *>(Allocate(64)) + 16); }},
    {"FreeOfNull", V, 0x10, "NULL", [] { Free(nullptr); }},
    {"PagedFreedAtDispatch", V, 0x11, "paged pool freed",
     [] { At(DispatchLevel, [Block = Allocate(16, PagedPool)] { Free(Block); }); }},
    {"FreeAboveDispatch", V, 0x12, "freed above", [] { At(HighLevel, [Block = Allocate(16)] { Free(Block); }); }},
    {"FreeTwice", V, 0x13, "freed twice", [] { Free(Free(Allocate(64))); }},
    {"WrongTag", V, 0x16, "another tag", [] { ExFreePoolWithTag(Allocate(64), MakeTag("Else")); }},
    {"IrpFreedAsPool", V, 0x105, "another kind",
     [] { ExFreePoolWithTag(AllocatePool(PoolKind::Irp, NonPagedPool, 64, Tag), Tag); }},
    {"PoolFreedAsMdl", V, 0x16, "another kind", [] { IoFreeMdl(static_cast<PMDL>(memset(Allocate(64), 0, 64))); }},
    {"LiveResourceInFreedPool", V, 0xD2, "live resource",
     [] {
         auto Block = static_cast<char *>(Allocate(256));
         ExInitializeResourceLite(reinterpret_cast<PERESOURCE>(Block + 64));
         Free(Block);
     }},
    {"LiveLookasideInFreedPool", V, 0xCC, "live lookaside",
     [] {
         auto Block = static_cast<char *>(Allocate(512));
         auto List = reinterpret_cast<PNPAGED_LOOKASIDE_LIST>((reinterpret_cast<ULONG_PTR>(Block) + 63) & ~63ull);
         ExInitializeNPagedLookasideList(List, nullptr, nullptr, 0, 32, Tag, 4);
         Free(Block);
     }},
};

const PlantedFault IrqlFaults[] = {
    {"WaitAtDispatch", V, 0x120, "KeWait", [] { WaitForEvent(nullptr, DispatchLevel); }},
    {"PollAboveDispatch", V, 0x121, "KeWait", [] { WaitForEvent(&Zero, HighLevel); }},
    {"DelayAtDispatch", V, 0x122, "KeDelay",
     [] { At(DispatchLevel, [] { KeDelayExecutionThread(KernelMode, FALSE, &Zero); }); }},
    {"ResourceAtDispatch", V, 0x20002, "ExAcquireResourceSharedLite called at IRQL 2",
     [] { Bad(), At(DispatchLevel, [] { ExAcquireResourceSharedLite(&Bad().A, TRUE); }); }},
    {"ThreadAtApc", V, 0x20002, "PsCreateSystemThread",
     [] { At(ApcLevel, [] { PsCreateSystemThread(nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr); }); }},
    {"CaseOfNamesAtApc", V, 0x20002, "RtlEqualUnicodeString",
     [] { At(ApcLevel, [Name = UNICODE_STRING{}] { RtlEqualUnicodeString(&Name, &Name, TRUE); }); }},
    {"RegistryAtApc", V, 0x20002, "ZwOpenKey", [] { At(ApcLevel, [] { ZwOpenKey(nullptr, KEY_READ, nullptr); }); }},
    {"ShareAccessAtDispatch", V, 0x20002, "IoSetShareAccess",
     [] { At(DispatchLevel, [] { IoSetShareAccess(FILE_READ_DATA, 0, nullptr, nullptr); }); }},
    {"RaiseToLower", V, 0x30, "KeRaiseIrql", [] { KeRaiseIrql(DispatchLevel), KeRaiseIrql(ApcLevel); }},
    {"LowerToHigher", V, 0x31, "KeLowerIrql", [] { KeLowerIrql(DispatchLevel); }},
    {"SpinLockAboveDispatch", V, 0x40, "KeAcquireSpinLock",
     [] { Bad(), At(HighLevel, [] { KeAcquireSpinLockRaiseToDpc(&Bad().SpinA); }); }},
    {"SpinReleaseAtPassive", V, 0x32, "KeReleaseSpinLock",
     [] {
         KeAcquireSpinLockRaiseToDpc(&Bad().SpinA);
         KeLowerIrql(PassiveLevel);
         KeReleaseSpinLock(&Bad().SpinA, PassiveLevel);
     }},
    {"DispatchChangesIrql", bugcheck::IoVerifier, 0x05, "returned at 1",
     [] { During(DriverCall::Dispatch, [] { KeRaiseIrql(ApcLevel); }); }},
    {"DispatchKeepsRegion", bugcheck::ApcIndexMismatch, 0, "returned in 1",
     [] { During(DriverCall::Dispatch, [] { KeEnterCriticalRegion(); }); }},
    {"FastIoKeepsRegion", V, 0xC5, "fast I/O", [] { During(DriverCall::FastIo, [] { KeEnterCriticalRegion(); }); }},
    {"FastIoChangesIrql", V, 0xC6, "fast I/O", [] { During(DriverCall::FastIo, [] { KeRaiseIrql(ApcLevel); }); }},
    {"CompletionKeepsRegion", V, 0xFB, "completion",
     [] { During(DriverCall::Completion, [] { KeEnterCriticalRegion(); }); }},
    {"CompletionChangesIrql", V, 0xFA, "completion",
     [] { During(DriverCall::Completion, [] { KeRaiseIrql(DispatchLevel); }); }},
    {"DispatchKeepsLock", V, bugcheck::OwnRule + 1, "locks held",
     [] { InRegion([] { During(DriverCall::Dispatch, [] { Exclusive(Bad().A); }); }); }},
};

const PlantedFault LockFaults[] = {
    {"ResourceWithApcsOn", V, 0x37, "outside a critical region", [] { Exclusive(Bad().A); }},
    {"ReleaseWithApcsOn", V, 0x38, "outside a critical region",
     [] {
         InRegion([] { Exclusive(Bad().A); });
         ExReleaseResourceLite(&Bad().A);
     }},
    {"RegionNeverEntered", V, 0x3E, "never entered", [] { KeLeaveCriticalRegion(); }},
    {"SpinSelfDeadlock", V, 0x1000, "self-deadlock",
     [] { KeAcquireSpinLockRaiseToDpc(&Bad().SpinA), KeAcquireSpinLockRaiseToDpc(&Bad().SpinA); }},
    {"UpgradeDeadlock", V, 0x1000, "holds the resource shared",
     [] { InRegion([] { ExAcquireResourceSharedLite(&Bad().A, TRUE), Exclusive(Bad().A); }); }},
    {"TwoWayCycle", V, 0x1001, "lock order", [] { TakeInTurn(Bad().A, Bad().B), TakeInTurn(Bad().B, Bad().A); }},
    {"ThreeWayCycleOverThreads", V, 0x1001, "lock order",
     [] {
         Bad();
         InThread([] { TakeInTurn(Bad().A, Bad().B); });
         InThread([] { TakeInTurn(Bad().B, Bad().C); });
         InThread([] { TakeInTurn(Bad().C, Bad().A); });
     }},
    {"SpinAndSpinCycle", V, 0x1001, "lock order",
     [] {
         for (auto [First, Second] : {std::pair{&Bad().SpinA, &Bad().SpinB}, {&Bad().SpinB, &Bad().SpinA}}) {
             KIRQL Old = KeAcquireSpinLockRaiseToDpc(First);
             KeReleaseSpinLock(Second, KeAcquireSpinLockRaiseToDpc(Second));
             KeReleaseSpinLock(First, Old);
         }
     }},
    {"RankGoesDown", V, 0x1001, "lock order",
     [] {
         NameLock(&Bad().A, "FcbTableResource", 2);
         NameLock(&Bad().B, "InitializeResource", 1);
         TakeInTurn(Bad().A, Bad().B);
     }},
    {"ClassCycleOverOtherInstances", V, 0x1001, "lock order",
     [] {
         NameLock(&Bad().A, "Table", 0);
         NameLock(&Bad().B, "File", 0);
         NameLock(&Bad().C, "File", 0);
         TakeInTurn(Bad().A, Bad().B);
         TakeInTurn(Bad().C, Bad().A);
     }},
    {"UninitializedResource", V, 0x1002, "not initialised",
     [] {
         static ERESOURCE Never;
         InRegion([] { Exclusive(Never); });
     }},
    {"DeletedResource", V, 0x1002, "was deleted",
     [] {
         ExDeleteResourceLite(&Bad().A);
         InRegion([] { Exclusive(Bad().A); });
     }},
    {"WaitOnNoEvent", V, 0x1002, "not initialised",
     [] {
         static KEVENT Event;
         Event.Header.Type = 77;
         KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, nullptr);
     }},
    {"LookasideDeletedTwice", V, 0x1002, "was deleted",
     [] {
         static NPAGED_LOOKASIDE_LIST List;
         ExInitializeNPagedLookasideList(&List, nullptr, nullptr, 0, 32, Tag, 4);
         ExDeleteNPagedLookasideList(&List);
         ExDeleteNPagedLookasideList(&List);
     }},
    {"SpinOutOfOrder", V, 0x1003, "taken later",
     [] {
         KIRQL Old = KeAcquireSpinLockRaiseToDpc(&Bad().SpinA);
         KeAcquireSpinLockRaiseToDpc(&Bad().SpinB);
         KeReleaseSpinLock(&Bad().SpinA, Old);
     }},
    {"SpinReleasedByAnother", V, 0x1004, "another thread",
     [] {
         KeAcquireSpinLockRaiseToDpc(&Bad().SpinA);
         InThread([] {
             KeRaiseIrql(DispatchLevel);
             KeReleaseSpinLock(&Bad().SpinA, PassiveLevel);
         });
     }},
    {"ResourceReleasedByAnother", V, 0x1004, "another thread",
     [] { InRegion([] { Exclusive(Bad().A), InThread([] { ExReleaseResourceLite(&Bad().A); }); }); }},
    {"InitializedTwice", V, 0x1005, "initialised twice", [] { ExInitializeResourceLite(&Bad().A); }},
    {"SpinNotHeld", V, 0x1007, "not held", [] { KeReleaseSpinLock(&Bad().SpinA, PassiveLevel); }},
    {"ResourceNotHeld", V, 0x1007, "not held", [] { ExReleaseResourceLite(&Bad().A); }},
    {"ReleasedOnceTooOften", V, 0x1007, "not held",
     [] {
         TakeInTurn(Bad().A, Bad().B);
         ExReleaseResourceLite(&Bad().A);
     }},
    {"ConvertOfShared", V, 0x1007, "conversion",
     [] { InRegion([] { ExAcquireResourceSharedLite(&Bad().A, TRUE), ExConvertExclusiveToSharedLite(&Bad().A); }); }},
    {"DeletedWhileHeld", V, 0x100B, "held or waited for",
     [] { InRegion([] { Exclusive(Bad().A), ExDeleteResourceLite(&Bad().A); }); }},
    {"ThreadEndsWithLock", V, 0x100A, "ended while it holds",
     [] {
         Bad();
         InThread([] {
             KeEnterCriticalRegion();
             Exclusive(Bad().A);
         });
     }},
    {"SystemThreadEndsInRegion", 0x20, 0, "ended in 1 critical regions",
     [] { InSystemThread([](PVOID) NTAPI { KeEnterCriticalRegion(); }); }},
    {"EventInUserMemory", V, 0xE0, "an address of a process",
     [] {
         const UserMemory Client(sizeof(KEVENT));
         KeInitializeEvent(static_cast<PKEVENT>(Client.Address()), NotificationEvent, FALSE);
     }},
    {"UserAddressGivenToZw", V, 0xE3, "ZwQueryValueKey",
     [] {
         const UserMemory Client(64);
         UNICODE_STRING Name{};
         ULONG Length;
         ZwQueryValueKey(nullptr, &Name, KeyValuePartialInformation, static_cast<char *>(Client.Address()) + 8, 20,
                         &Length);
     }},
    {"ForeignWaitOnStack", V, 0x123, "kernel stack",
     [] {
         KEVENT Event;
         KeInitializeEvent(&Event, NotificationEvent, TRUE);
         KeWaitForSingleObject(&Event, Executive, UserMode, FALSE, nullptr);
     },
     true},
};

char UserBytes[PAGE_SIZE];

PMDL NewMdl(CSHORT Flags = 0) {
    PMDL Mdl = IoAllocateMdl(UserBytes, sizeof(UserBytes), FALSE, FALSE, nullptr);
    Mdl->MdlFlags |= Flags;
    return Mdl;
}

PMDL LockedMdl() {
    PMDL Mdl = NewMdl();
    KernelProbeAndLockPages(Mdl, UserMode, IoWriteAccess);
    return Mdl;
}

const PlantedFault MdlFaults[] = {
    {"UnlockOfUnlocked", V, 0x7C, "not locked", [] { MmUnlockPages(NewMdl()); }},
    {"UnlockTwice", V, 0x7C, "not locked",
     [] {
         PMDL Mdl = LockedMdl();
         MmUnlockPages(Mdl);
         MmUnlockPages(Mdl);
     }},
    {"UnlockOfNonpaged", V, 0x7D, "nonpaged", [] { MmUnlockPages(NewMdl(MDL_SOURCE_IS_NONPAGED_POOL)); }},
    {"UnlockOfPartial", V, 0xB4, "partial", [] { MmUnlockPages(NewMdl(MDL_PARTIAL)); }},
    {"FreeWhileLocked", V, 0xB8, "while its pages are locked", [] { IoFreeMdl(LockedMdl()); }},
    {"FreeWithFlagClearedButLocked", V, 0xB8, "while its pages are locked",
     [] {
         PMDL Mdl = LockedMdl();
         Mdl->MdlFlags = 0;
         IoFreeMdl(Mdl);
     }},
    {"LockTwice", V, bugcheck::OwnRule + 4, "locked already",
     [] { KernelProbeAndLockPages(LockedMdl(), KernelMode, IoReadAccess); }},
    {"MapOfUnlocked", V, bugcheck::OwnRule + 5, "not locked",
     [] { MmMapLockedPagesSpecifyCache(NewMdl(), KernelMode, MmCached, nullptr, FALSE, NormalPagePriority); }},
    {"MappingUsedAfterUnlock", V, bugcheck::OwnRule + 7, "pages that are unlocked",
     [] {
         WatchFaults();
         PMDL Mdl = LockedMdl();
         auto *Mapped = static_cast<volatile char *>(
             MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority));
         MmUnlockPages(Mdl);
         Mapped[0] = 1;
     }},
    {"ProcessEndsWithLockedPages", bugcheck::LeftLockedPages, 0, "MDLs locked",
     [] {
         PEPROCESS Process = CreateProcess("client.exe");
         {
             AttachProcess Attached(Process);
             LockedMdl();
         }
         DeleteProcess(Process);
     }},
};

// Takes Bytes of the stack, step by step.
__attribute__((noinline)) void TakeStack(ULONG_PTR Bytes, ULONG_PTR From = 0) {
    char Room[512];
    const auto Here = reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    if (From == 0 || From - Here < Bytes) {
        TakeStack(Bytes, From == 0 ? Here : From);
    }
    asm volatile("" : : "r"(Room) : "memory"); // keeps the room, and the call from being a jump
}

constexpr ULONG_PTR MostOfTheStack = DriverStackBytes - 4096;

const PlantedFault StackFaults[] = {
    {"OfARequest", 0x7F, 8, "the stack is used up, [0-9]+ bytes, at .*\n",
     [] { OnDriverStack([] { TakeStack(DriverStackBytes); }); }},
    {"OfARequestFromAProvider", 0x7F, 8, "used up",
     [] {
         auto Nested = [] { OnDriverStack([] { TakeStack(DriverStackBytes); }); };
         OnDriverStack([&] { RunProvider(CallRoutine<decltype(Nested)>, &Nested); });
     }},
    {"OfTheHostAboveTheDrivers", 0x7F, 8, "used up",
     [] {
         OnDriverStack([] {});
         TakeStack(6 << 20);
     }},
    {"OfAProvider", 0x7F, 8, "used up",
     [] {
         auto Provider = [] {
             OnDriverStack([] {});
             TakeStack(2 << 20);
         };
         OnDriverStack([&] { RunProvider(CallRoutine<decltype(Provider)>, &Provider); });
     }},
    {"OfADriversThread", 0x7F, 8, "used up",
     [] {
         Kernel Booted(KernelOptions{});
         HANDLE Thread;
         PsCreateSystemThread(
             &Thread, 0, nullptr, nullptr, nullptr, [](PVOID) NTAPI { TakeStack(DriverStackBytes); }, nullptr);
         Booted.Stop();
     }},
};

TEST(DriverStack, HasRoomForTheDriverAndTheHostsCodeHasItsOwn) {
    bool Came = false;
    auto Provider = [&] {
        TakeStack(5 * DriverStackBytes / 2);
        OnDriverStack([&] { TakeStack(MostOfTheStack); });
        OnHostStack([&] { Came = true; });
    };
    OnDriverStack([&] {
        RunProvider(CallRoutine<decltype(Provider)>, &Provider);
        TakeStack(MostOfTheStack);
        OnDriverStack([] { OnHostStack([] { TakeStack(2 * DriverStackBytes); }); });
    });
    EXPECT_TRUE(Came);
    const StackUse Use = DeepestStackUse();
    EXPECT_GE(Use.Whole, MostOfTheStack);
    EXPECT_LE(Use.Whole, DriverStackBytes);
    EXPECT_GE(Use.Provider, 2 * KernelStackBytes);
    EXPECT_GT(Use.AtProvider, 0u);
}

bool VariablesLieOnTheStack() {
    char Local;
    const auto Address = reinterpret_cast<ULONG_PTR>(static_cast<volatile char *>(&Local));
    return Address >= CurrentThread().StackLow && Address < CurrentThread().StackHigh;
}

TEST_P(PlantedFaults, StopsWithItsCode) {
    const PlantedFault &Fault = GetParam();
    if (Fault.OfTheStack && !VariablesLieOnTheStack()) {
        GTEST_SKIP()
            << "the sanitizer keeps variables beside the stack, where nobody can tell that they are the stack's";
    }
    EXPECT_DEATH(Fault.Commit(), StopPattern(Fault.Code, Fault.Parameter, Fault.What));
}

auto NameOfFault = [](const testing::TestParamInfo<PlantedFault> &Info) { return std::string(Info.param.Name); };
INSTANTIATE_TEST_SUITE_P(Pool, PlantedFaults, testing::ValuesIn(PoolFaults), NameOfFault);
INSTANTIATE_TEST_SUITE_P(Irql, PlantedFaults, testing::ValuesIn(IrqlFaults), NameOfFault);
INSTANTIATE_TEST_SUITE_P(Locks, PlantedFaults, testing::ValuesIn(LockFaults), NameOfFault);
INSTANTIATE_TEST_SUITE_P(Stack, PlantedFaults, testing::ValuesIn(StackFaults), NameOfFault);
INSTANTIATE_TEST_SUITE_P(Mdls, PlantedFaults, testing::ValuesIn(MdlFaults), NameOfFault);

TEST(VerifierTest, ALeakReportNamesTagSizeAndEveryRegisteredCheck) {
    PVOID Block = Allocate(123);
    const PMDL Mdl = NewMdl();
    std::string Leaks = "one widget";
    RegisterLeakCheck("widgets", [&] { return Leaks; });
    std::string Text = DescribeLeaks();
    EXPECT_NE(Text.find("tag Test, 123 bytes"), std::string::npos) << Text;
    EXPECT_NE(Text.find("MDL block"), std::string::npos) << Text;
    EXPECT_NE(Text.find("widgets: one widget\n"), std::string::npos) << Text;
    Leaks.clear();
    EXPECT_EQ(DescribeLeaks().find("widgets"), std::string::npos);
    ExFreePoolWithTag(Block, Tag);
    IoFreeMdl(Mdl);
    EXPECT_EQ(DescribeLeaks().find("tag Test"), std::string::npos);
    EXPECT_EQ(DescribeLeaks().find("MDL block"), std::string::npos);
    RegisterLeakCheck("widgets", [] { return std::string(); });
}

TEST(VerifierTest, OnlyWaitsForLocksThatStillAreCountAgainstTheOrder) {
    ResetLockOrder();
    Victims Own;
    TakeInTurn(Own.A, Own.B);
    InRegion([&] {
        Exclusive(Own.B);
        EXPECT_TRUE(ExAcquireResourceExclusiveLite(&Own.A, FALSE));
        ExReleaseResourceLite(&Own.A);
        ExReleaseResourceLite(&Own.B);
    });
    ExDeleteResourceLite(&Own.B);
    ExInitializeResourceLite(&Own.B);
    TakeInTurn(Own.B, Own.A);
    for (ERESOURCE *Each : {&Own.A, &Own.B, &Own.C}) {
        ExDeleteResourceLite(Each);
    }
}

TEST(VerifierTest, ChecksAreOffWhenTheLevelIsOff) {
    SetVerifierLevel(VerifierLevel::Off);
    At(HighLevel, [] { Free(Allocate(16)); });
    SetVerifierLevel(VerifierLevel::On);
}

} // namespace
} // namespace embedded
