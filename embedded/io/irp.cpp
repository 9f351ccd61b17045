#include <chrono>

#include <fmt/format.h>

#include "embedded/image/calls.h"
#include "embedded/io/objects.h"
#include "embedded/ke/schedule.h"
#include "embedded/mm/mapping.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/answers.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/locks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/stack.h"
#include "embedded/verifier/user_memory.h"

namespace embedded {
namespace {

// Own cache line: every request of every thread takes it.
struct alignas(64) {
    KSPIN_LOCK Lock = 0;
} CancelSpinLock;

IoObserver TheObserver;
std::atomic<bool> Observing{false}; // an observer or a tap is there
std::atomic<IoTap *> TheTap{nullptr};

void SetObserving() {
    Observing.store(TheObserver || TheTap.load() != nullptr, std::memory_order_release);
}

int64_t WallClock() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

std::string Describe(const IrpBlock &Block, UCHAR MajorFunction) {
    return fmt::format("IRP {} ({}): ", static_cast<const void *>(&Block.Irp), MajorFunctionName(MajorFunction));
}

// ---- Completion ----------------------------------------------------------------------------------------------
//
// What a completion does rarely is of the services' convention (see ke.h).

bool IsCompletable(const IrpBlock &Block) {
    const IRP &Irp = Block.Irp;
    const NTSTATUS Status = Irp.IoStatus.Status;
    return CurrentThread().Irql <= DispatchLevel && Status != STATUS_PENDING && Status != -1 &&
           __atomic_load_n(&Irp.CancelRoutine, __ATOMIC_RELAXED) == nullptr && Irp.MdlAddress == Block.CallersMdl;
}

// Says what is wrong with a completion that IsCompletable refused.
__attribute__((noinline)) void NTAPI ReportCompletion(const IrpBlock &Block) noexcept {
    const IRP &Irp = Block.Irp;
    const NTSTATUS Status = Irp.IoStatus.Status;
    if (CurrentThread().Irql > DispatchLevel) {
        ReportIrp(0x0E, Block, CurrentThread().Irql, "IofCompleteRequest was called above DISPATCH_LEVEL");
    }
    if (Status == STATUS_PENDING || Status == -1) {
        ReportIrp(0x06, Block, static_cast<ULONG>(Status),
                  "a request was completed with a status that cannot be final: STATUS_PENDING or -1");
    }
    // A cancellation that came first may be clearing it at this moment.
    if (const auto Routine = __atomic_load_n(&Irp.CancelRoutine, __ATOMIC_RELAXED); Routine != nullptr) {
        ReportIrp(0x07, Block, reinterpret_cast<ULONG_PTR>(Routine),
                  "a request was completed while its cancel routine was still set");
    }
    if (Irp.MdlAddress != Block.CallersMdl) {
        BugCheck(bugcheck::Verifier, bugcheck::FreeLockedMdl, reinterpret_cast<ULONG_PTR>(&Irp),
                 reinterpret_cast<ULONG_PTR>(Irp.MdlAddress), reinterpret_cast<ULONG_PTR>(Block.CallersMdl),
                 Block.CallersMdl == nullptr ? "a request was completed with an MDL of the driver's left on it"
                                             : "a request was completed without the MDL that its sender put on it");
    }
}

bool WantsCompletionRoutine(const IO_STACK_LOCATION &Location, const IRP &Irp) {
    if (Location.CompletionRoutine == nullptr) {
        return false;
    }
    return ((Location.Control & SL_INVOKE_ON_SUCCESS) && NT_SUCCESS(Irp.IoStatus.Status)) ||
           ((Location.Control & SL_INVOKE_ON_ERROR) && !NT_SUCCESS(Irp.IoStatus.Status)) ||
           ((Location.Control & SL_INVOKE_ON_CANCEL) && __atomic_load_n(&Irp.Cancel, __ATOMIC_RELAXED));
}

__attribute__((noinline)) void NTAPI CallCompletionRoutine(IrpBlock &Block, IO_STACK_LOCATION &Location,
                                                           bool HasAbove) noexcept {
    IRP &Irp = Block.Irp;
    IO_STACK_LOCATION *Above = Irp.Tail.Overlay.CurrentStackLocation;
    {
        RequireUnchanged Unchanged(DriverCall::Completion, "a completion routine");
        static_cast<void>(Location.CompletionRoutine(HasAbove ? Above->DeviceObject : nullptr, &Irp, Location.Context));
    }
    if (Irp.PendingReturned && HasAbove && !(Above->Control & SL_PENDING_RETURNED)) {
        ReportIrp(0x228, Block, reinterpret_cast<ULONG_PTR>(Location.CompletionRoutine),
                  "a completion routine did not mark the request pending although it had pended below");
    }
}

// Walks the stack from the driver's location up and calls the routines that drivers above left there.
void RunCompletionRoutines(IrpBlock &Block) {
    IRP &Irp = Block.Irp;
    while (Irp.CurrentLocation <= Irp.StackCount) {
        IO_STACK_LOCATION &Location = *Irp.Tail.Overlay.CurrentStackLocation;
        Irp.PendingReturned = (Location.Control & SL_PENDING_RETURNED) != 0;
        ++Irp.CurrentLocation;
        ++Irp.Tail.Overlay.CurrentStackLocation;
        const bool HasAbove = Irp.CurrentLocation <= Irp.StackCount;
        if (WantsCompletionRoutine(Location, Irp)) {
            CallCompletionRoutine(Block, Location, HasAbove);
        } else if (Irp.PendingReturned && HasAbove) {
            IoMarkIrpPending(&Irp);
        }
    }
}

ULONG CodeOf(const IO_STACK_LOCATION &Location) {
    switch (Location.MajorFunction) {
    case IRP_MJ_FILE_SYSTEM_CONTROL:
    case IRP_MJ_DEVICE_CONTROL:
        return Location.Parameters.DeviceIoControl.IoControlCode;
    case IRP_MJ_QUERY_INFORMATION:
    case IRP_MJ_SET_INFORMATION:
        return Location.Parameters.QueryFile.FileInformationClass;
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
        return Location.Parameters.QueryVolume.FsInformationClass;
    case IRP_MJ_DIRECTORY_CONTROL:
        return Location.MinorFunction == IRP_MN_QUERY_DIRECTORY
                   ? Location.Parameters.QueryDirectory.FileInformationClass
                   : 0;
    default:
        return 0;
    }
}

__attribute__((noinline)) void NTAPI Observe(const IrpBlock &Block) noexcept {
    const IO_STACK_LOCATION &Location = *Block.Irp.Tail.Overlay.CurrentStackLocation;
    const PFILE_OBJECT File = Location.FileObject;
    const CompletedRequest Request = {&Block.Irp,
                                      Location.MajorFunction,
                                      Location.MinorFunction,
                                      CodeOf(Location),
                                      File,
                                      File == nullptr ? std::u16string_view{} : View(&File->FileName),
                                      Block.Irp.IoStatus.Status,
                                      Block.Irp.IoStatus.Information,
                                      Block.StartTime == 0 ? 0 : WallClock() - Block.StartTime};
    OnHostStack([&] {
        if (TheObserver) {
            TheObserver(Request);
        }
        if (IoTap *Tap = TheTap.load(std::memory_order_acquire)) {
            Tap->Completed(Request);
        }
    });
}

__attribute__((noinline)) int64_t NTAPI ObserveSent(const IrpBlock &Block) noexcept {
    if (IoTap *Tap = TheTap.load(std::memory_order_acquire)) {
        OnHostStack([&] { Tap->Sent(&Block.Irp, *Block.Irp.Tail.Overlay.CurrentStackLocation); });
    }
    return WallClock();
}

__attribute__((noinline)) void NTAPI ObserveReturned(const IrpBlock &Block, NTSTATUS Status) noexcept {
    if (IoTap *Tap = TheTap.load(std::memory_order_acquire)) {
        OnHostStack([&] { Tap->Returned(&Block.Irp, Status); });
    }
}

// Whoever hears of a request's end may take any lock, or wait for another thread that does.
void RequireNoLocks(const IrpBlock &Block) {
    const KThread &Thread = CurrentThread();
    if (Thread.HeldCount > Thread.HeldBefore) {
        ReportIrp(bugcheck::OwnRule + 1, Block, Thread.HeldCount,
                  "a request was completed with locks held:\n" + DescribeHeldLocks(Thread));
    }
}

// ---- Return from dispatch ------------------------------------------------------------------------------------

// Both the return and the completion have happened: they must tell the same story.
void CheckStory(const IrpBlock &Block, UCHAR MajorFunction) {
    const NTSTATUS Returned = Block.ReturnedStatus;
    if (Returned == STATUS_PENDING && !Block.MarkedPending) {
        ReportIrp(0x23D, Block, 0,
                  Describe(Block, MajorFunction) + "STATUS_PENDING was returned for a request not marked pending");
    }
    if (Returned != STATUS_PENDING && Block.MarkedPending) {
        ReportIrp(0x23E, Block, static_cast<ULONG>(Returned),
                  Describe(Block, MajorFunction) + "a request was marked pending, but STATUS_PENDING was not returned");
    }
    if (Returned != STATUS_PENDING && Returned != Block.FinalStatus) {
        ReportIrp(0x224, Block, static_cast<ULONG>(Returned),
                  Describe(Block, MajorFunction) +
                      fmt::format("dispatch returned 0x{:08X}, the request was completed with 0x{:08X}",
                                  static_cast<ULONG>(Returned), static_cast<ULONG>(Block.FinalStatus)));
    }
}

// Gives an asynchronous caller the result: data, status block, events, then the request's own references. A failure
// that the caller was told at once is told nowhere else.
void FinishAsynchronous(IrpBlock &Block) {
    const bool Failed = NT_ERROR(Block.FinalStatus);
    if (!Failed) {
        CopyAnswer(Block);
    }
    const bool Tells = !Failed || Block.MarkedPending;
    if (Block.Iosb != nullptr && Tells) {
        Block.Iosb->Information = Block.FinalInformation;
        __atomic_store_n(&Block.Iosb->Status, Block.FinalStatus, __ATOMIC_RELEASE);
    }
    auto File = Ref<FileObject>::Adopt(Block.File);
    auto Event = Ref<EventObject>::Adopt(Block.UserEvent);
    FreeIrp(&Block);
    if (Event && Tells) {
        KeSetEvent(&Event->Event, 0, FALSE);
    }
    if (File && Tells) {
        KeSetEvent(&File->Nt.Event, 0, FALSE);
    }
}

// The end of a request that was completed after its dispatch routine had returned.
__attribute__((noinline)) void NTAPI FinishPended(IrpBlock &Block, UCHAR MajorFunction) noexcept {
    CheckStory(Block, MajorFunction);
    if (Block.Asynchronous) {
        FinishAsynchronous(Block);
    } else {
        KeSetEvent(&Block.Done, Block.PriorityBoost, FALSE);
    }
}

[[noreturn]] __attribute__((noinline)) void NTAPI ReportNoIrp(const IrpBlock &Block, uint32_t State,
                                                              PVOID Caller) noexcept {
    const auto Irp = reinterpret_cast<ULONG_PTR>(&Block.Irp);
    if (Block.Signature != IrpBlock::SignatureValue) {
        BugCheck(bugcheck::IoVerifier, 0x01, Irp, 0, 0, "this is no IRP");
    }
    if (!(State & IrpBlock::InUse) || (State & IrpBlock::Completing)) {
        BugCheck(bugcheck::MultipleIrpComplete, Irp, 0, 0, 0,
                 fmt::format("a request was completed twice: first from {}, now from {}",
                             DescribeAddress(Block.CompletedFrom), DescribeAddress(Caller)));
    }
    ReportIrp(0x205, Block, 0, "a request was completed by a driver that it was not sent to");
}

} // namespace

void SetIoObserver(IoObserver Observer) {
    TheObserver = std::move(Observer);
    SetObserving();
}

void SetIoTap(IoTap *Tap) noexcept {
    TheTap.store(Tap, std::memory_order_release);
    SetObserving();
}

NTSTATUS CallDriver(DeviceObject &Device, IrpBlock &Block) noexcept {
    KThread &Thread = CurrentThread();
    const PIRP TopLevel = Thread.TopLevelIrp;
    const UCHAR MajorFunction = Block.Irp.Tail.Overlay.CurrentStackLocation->MajorFunction;
    const bool Asynchronous = Block.Asynchronous;
    Block.MajorFunction = MajorFunction;
    Block.Code = CodeOf(*Block.Irp.Tail.Overlay.CurrentStackLocation);
    const bool Observed = Observing.load(std::memory_order_acquire);
    Block.StartTime = Observed ? ObserveSent(Block) : 0;
    Block.Dispatcher = &Thread;
    if (Block.Irp.RequestorMode == KernelMode && Block.Irp.MdlAddress == nullptr) {
        RequireKernelAddress(bugcheck::UserAddressInIrp, Block.Irp.UserBuffer, MajorFunctionName(MajorFunction));
    }
    // Nobody else has the request yet.
    Block.State.store(Block.State.load(std::memory_order_relaxed) | IrpBlock::Dispatched, std::memory_order_release);

    NTSTATUS Status;
    {
        RequireUnchanged Unchanged(DriverCall::Dispatch, MajorFunctionName(MajorFunction));
        FaultScope Faults;
        OnDriverStack([&] { Status = Device.Nt.DriverObject->MajorFunction[MajorFunction](&Device.Nt, &Block.Irp); });
    }
    if (Observed) [[unlikely]] {
        ObserveReturned(Block, Status);
    }
    if (Thread.TopLevelIrp != TopLevel) {
        ReportIrp(bugcheck::OwnRule, Block, reinterpret_cast<ULONG_PTR>(Thread.TopLevelIrp),
                  Describe(Block, MajorFunction) + "the thread's top-level IRP was not the same after the call");
    }
    if (Status == -1) {
        ReportIrp(0x225, Block, 0, Describe(Block, MajorFunction) + "dispatch returned 0xFFFFFFFF");
    }
    Block.ReturnedStatus = Status;
    if (!Block.IsCompleted()) {
        if (Status != STATUS_PENDING) {
            ReportIrp(0x226, Block, static_cast<ULONG>(Status),
                      Describe(Block, MajorFunction) +
                          "dispatch neither completed the request nor returned STATUS_PENDING");
        }
        if (!Asynchronous) {
            KeInitializeEvent(&Block.Done, NotificationEvent, FALSE);
        }
    }
    if (Block.IsCompleted() ||
        (Block.State.fetch_or(IrpBlock::Returned, std::memory_order_acq_rel) & IrpBlock::Completed)) {
        CheckStory(Block, MajorFunction);
        if (Asynchronous) {
            FinishAsynchronous(Block);
        }
    } else if (!Asynchronous) {
        // From here on the completer works with the block until it sets the event.
        Block.MustWait = true;
    }
    return Status;
}

void CopyAnswer(const IrpBlock &Block) {
    if (Block.CopyTo == nullptr) {
        return;
    }
    const auto Counted = std::min<ULONG_PTR>(Block.FinalInformation, Block.CopyLimit);
    if (Block.Garbage != 0 && Verifying()) {
        CheckAnswer({Block.MajorFunction, Block.Code, Block.SystemBufferSize}, Block.SystemBuffer, Block.GarbageFrom,
                    Counted, Block.Garbage, MajorFunctionName(Block.MajorFunction));
    }
    memcpy(Block.CopyTo, Block.SystemBuffer, Counted);
}

void WaitForIrp(IrpBlock &Block) noexcept {
    if (Block.MustWait) {
        static_cast<void>(KeWaitForSingleObject(&Block.Done, Executive, KernelMode, FALSE, nullptr));
        Block.MustWait = false;
    }
}

NTSTATUS CallDriverAndWait(DeviceObject &Device, IrpBlock &Block) noexcept {
    static_cast<void>(CallDriver(Device, Block));
    WaitForIrp(Block);
    return Block.FinalStatus;
}

bool CancelIrp(IrpBlock &Block) noexcept {
    PIRP Irp = &Block.Irp;
    SchedulePoint("IoCancelIrp", Irp);
    KIRQL Irql;
    IoAcquireCancelSpinLock(&Irql);
    // A request that is being completed is out of reach; one that is not yet stays readable while we work on it.
    if (Block.State.fetch_or(IrpBlock::Cancelling, std::memory_order_acq_rel) & IrpBlock::Completing) {
        IoReleaseCancelSpinLock(Irql);
        return false;
    }
    __atomic_store_n(&Irp->Cancel, TRUE, __ATOMIC_RELAXED);
    const PDRIVER_CANCEL Routine = __atomic_exchange_n(&Irp->CancelRoutine, nullptr, __ATOMIC_SEQ_CST);
    if (Routine == nullptr) {
        IoReleaseCancelSpinLock(Irql);
        return false;
    }
    Irp->CancelIrql = Irql;
    FaultScope Faults;
    OnDriverStack([&] { Routine(Irp->Tail.Overlay.CurrentStackLocation->DeviceObject, Irp); });
    if (FindHeld(CurrentThread(), &CancelSpinLock.Lock) != nullptr || CurrentThread().Irql != Irql) {
        BugCheck(bugcheck::IoVerifier, bugcheck::OwnRule, reinterpret_cast<ULONG_PTR>(Irp), CurrentThread().Irql, Irql,
                 "a cancel routine did not release the cancel spin lock to the IRQL of the request");
    }
    return true;
}

} // namespace embedded

using namespace embedded;

VOID NTAPI IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) noexcept {
    IrpBlock &Block = *IrpBlock::Of(Irp);
    PVOID Caller = __builtin_return_address(0);
    if (Verifying()) {
        SchedulePoint("IofCompleteRequest", Irp);
        Caller = CallerOf(Caller);
    }
    if (Block.Signature != IrpBlock::SignatureValue) [[unlikely]] {
        ReportNoIrp(Block, 0, Caller);
    }
    const uint32_t State = Block.State.fetch_or(IrpBlock::Completing, std::memory_order_acq_rel);
    constexpr uint32_t SentOnce = IrpBlock::InUse | IrpBlock::Dispatched;
    if ((State & (SentOnce | IrpBlock::Completing)) != SentOnce) [[unlikely]] {
        ReportNoIrp(Block, State, Caller);
    }
    Block.CompletedFrom = Caller;
    if (!IsCompletable(Block)) [[unlikely]] {
        ReportCompletion(Block);
    }
    if (Verifying()) {
        RequireNoLocks(Block);
    }
    for (PMDL Mdl = Block.CallersMdl; Mdl != nullptr; Mdl = Mdl->Next) {
        WriteBack(Mdl); // the sender unlocks it later
    }
    const UCHAR MajorFunction = Irp->Tail.Overlay.CurrentStackLocation->MajorFunction;
    if (Observing.load(std::memory_order_relaxed)) [[unlikely]] {
        Observe(Block);
    }
    RunCompletionRoutines(Block);
    Block.FinalStatus = Irp->IoStatus.Status;
    Block.FinalInformation = Irp->IoStatus.Information;
    Block.MarkedPending = Irp->PendingReturned;
    Block.PriorityBoost = PriorityBoost;
    if (!(State & IrpBlock::Cancelling)) {
        PoisonIrp(Block);
    }
    if (Block.Dispatcher == &CurrentThread() && !(State & IrpBlock::Returned)) {
        // The dispatch routine has yet to return, in this very thread. Only a cancel can come between, and it looks at
        // Completing alone.
        Block.State.store(State | IrpBlock::Completing | IrpBlock::Completed, std::memory_order_release);
    } else if (Block.State.fetch_or(IrpBlock::Completed, std::memory_order_acq_rel) & IrpBlock::Returned) {
        FinishPended(Block, MajorFunction);
    }
}

PIRP NTAPI IoGetTopLevelIrp() noexcept {
    return CurrentThread().TopLevelIrp;
}

VOID NTAPI IoSetTopLevelIrp(PIRP Irp) noexcept {
    CurrentThread().TopLevelIrp = Irp;
}

VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) noexcept {
    *Irql = KeAcquireSpinLockRaiseToDpc(&CancelSpinLock.Lock);
}

VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql) noexcept {
    KeReleaseSpinLock(&CancelSpinLock.Lock, Irql);
}

BOOLEAN NTAPI IoIsOperationSynchronous(PIRP Irp) noexcept {
    RequireIrql(IrqlRuleOf("IoIsOperationSynchronous"));
    // Paging I/O goes by its own flag alone, whatever the file was opened for.
    if (Irp->Flags & IRP_PAGING_IO) {
        return (Irp->Flags & IRP_SYNCHRONOUS_PAGING_IO) != 0;
    }
    const PFILE_OBJECT File = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    return (Irp->Flags & IRP_SYNCHRONOUS_API) != 0 ||
           (File != nullptr && (__atomic_load_n(&File->Flags, __ATOMIC_RELAXED) & FO_SYNCHRONOUS_IO) != 0);
}

PEPROCESS NTAPI IoGetRequestorProcess(PIRP Irp) noexcept {
    RequireIrql(IrqlRuleOf("IoGetRequestorProcess"));
    return IrpBlock::Of(Irp)->Process;
}

BOOLEAN NTAPI IoCancelIrp(PIRP Irp) noexcept {
    return CancelIrp(*IrpBlock::Of(Irp));
}
