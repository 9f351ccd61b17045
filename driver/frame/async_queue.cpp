#include "frame/async_queue.h"

#include "frame/diagnostics.h"
#include "frame/locks.h"
#include "frame/memory.h"
#include "frame/rundown.h"
#include "frame/worker_routine.h"
#include "io/lock_completion.h"
#include "provider/binding.h"

DRIVER_GLOBAL LIST_ENTRY g_AsyncIrpQueue = {&g_AsyncIrpQueue, &g_AsyncIrpQueue};
DRIVER_GLOBAL KSPIN_LOCK g_AsyncIrpQueueLock = 0;
DRIVER_GLOBAL IO_CSQ g_AsyncIrpCsq = {};
DRIVER_GLOBAL ULONG g_uAsyncIrpQueueCount = 0;
DRIVER_GLOBAL ULONG g_uAsyncWorkerThreadCount = 0;

namespace {

constexpr ULONG MOST_WORKERS = 9;
constexpr ULONG IDLE_POLLS = 20;
constexpr LONG64 POLL_PERIOD = 1000000; // 100 ms

// The requests that were cancelled in the queue and have to run all the same, and how many they are.
DRIVER_GLOBAL LIST_ENTRY CancelledQueue UNDER(g_AsyncIrpQueueLock) = {&CancelledQueue, &CancelledQueue};
DRIVER_GLOBAL ULONG CancelledCount UNDER(g_AsyncIrpQueueLock) = 0;

// How many requests no worker has taken and no canceller has ended, those included that the package has taken out of
// the queue for a canceller. No worker ends while there is one.
DRIVER_GLOBAL ULONG UnservedCount UNDER(g_AsyncIrpQueueLock) = 0;

// Ends an idle worker's wait: a request was queued, or teardown waits for the workers.
DRIVER_GLOBAL KEVENT WorkQueued = {};

RV_IRP_Q *EntryOf(PIRP Irp) {
    return CONTAINING_RECORD(Irp->Tail.Overlay.ListEntry.Flink, RV_IRP_Q, IrpLinks);
}

// The count as traces tell it.
ULONG QueueCount() {
    const SpinLockHold Hold(g_AsyncIrpQueueLock);
    return g_uAsyncIrpQueueCount;
}

// Counts a worker out, with the framework's operation for counters.
void DecrementWorkers() HOLDING(g_AsyncIrpQueueLock) {
    g_pRvplInterface->Table->Decrement(g_pRvplInterface, &g_uAsyncWorkerThreadCount);
}

// Cleanup and close never come again, and the lock of a lock completion is already granted.
bool MustRun(PIRP_CONTEXT IrpContext) {
    return IrpContext->MajorFunction == IRP_MJ_CLEANUP || IrpContext->MajorFunction == IRP_MJ_CLOSE ||
           (IrpContext->Flags & IRP_CONTEXT_FLAG_LOCK_COMPLETION_POSTED) != 0;
}

// ---- Callbacks of the queue package. The package holds the lock around the first three ------------------------------

NTSTATUS NTAPI RvFsdInsertIrpEx(PIO_CSQ, PIRP Irp, PVOID InsertContext) HOLDING(g_AsyncIrpQueueLock) {
    const auto Entry = static_cast<RV_IRP_Q *>(InsertContext);
    ++g_uAsyncIrpQueueCount;
    ++UnservedCount;
    InsertTailList(&Entry->IrpLinks, &Irp->Tail.Overlay.ListEntry);
    InsertTailList(&g_AsyncIrpQueue, &Entry->QueueLinks);
    NtFsdDebugPrint(TRACE_GENERAL, 0,
                    "[RVFSD-%p] RvFsdInsertIrpEx for IRP 0x%p RV_IRP_Q 0x%p; g_uAsyncIrpQueueCount now %u.\n",
                    KeGetCurrentThread(), Irp, Entry, g_uAsyncIrpQueueCount);
    return STATUS_SUCCESS;
}

VOID NTAPI RvFsdRemoveIrp(PIO_CSQ, PIRP Irp) HOLDING(g_AsyncIrpQueueLock) {
    RV_IRP_Q *const Entry = EntryOf(Irp);
    RemoveEntryList(&Entry->QueueLinks);
    const bool Expected = g_uAsyncIrpQueueCount != 0;
    NtFsdDebugPrint(
        TRACE_GENERAL, 0, "[RVFSD-%p] RvFsdRemoveIrp for IRP 0x%p RV_IRP_Q 0x%p; g_uAsyncIrpQueueCount now %d%s.\n",
        KeGetCurrentThread(), Irp, Entry, g_uAsyncIrpQueueCount - 1, Expected ? "" : " (UNEXPECTED DECREMENT)");
    g_uAsyncIrpQueueCount -= Expected;
}

PIRP NTAPI RvFsdPeekNextIrp(PIO_CSQ, PIRP Irp, PVOID PeekContext) HOLDING(g_AsyncIrpQueueLock) {
    const PLIST_ENTRY Next = Irp == nullptr ? g_AsyncIrpQueue.Flink : EntryOf(Irp)->QueueLinks.Flink;
    RV_IRP_Q *const Entry = Next == &g_AsyncIrpQueue ? nullptr : CONTAINING_RECORD(Next, RV_IRP_Q, QueueLinks);
    // Set to NULL, too, when there is none left: the entry of before, which the package passed over, may be a
    // canceller's to free.
    *static_cast<RV_IRP_Q **>(PeekContext) = Entry;
    const PIRP Found = Entry != nullptr ? Entry->Irp : nullptr;
    NtFsdDebugPrint(TRACE_GENERAL, 0,
                    "[RVFSD-%p] RvFsdPeekNextIrp for 0x%p determined IRP 0x%p RV_IRP_Q 0x%p; g_uAsyncIrpQueueCount = "
                    "%u.\n",
                    KeGetCurrentThread(), Irp, Found, Entry, g_uAsyncIrpQueueCount);
    return Found;
}

VOID NTAPI RvFsdAcquireLock(PIO_CSQ, PKIRQL Irql) {
    *Irql = KeAcquireSpinLockRaiseToDpc(&g_AsyncIrpQueueLock);
}

VOID NTAPI RvFsdReleaseLock(PIO_CSQ, KIRQL Irql) {
    KeReleaseSpinLock(&g_AsyncIrpQueueLock, Irql);
}

// The entry is out of the queue and the lock released. In the canceller's thread, at up to DISPATCH_LEVEL.
VOID NTAPI RvFsdCompleteCanceledIrp(PIO_CSQ, PIRP Irp) {
    RV_IRP_Q *const Entry = EntryOf(Irp);
    const PIRP_CONTEXT IrpContext = Entry->IrpContext;
    NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD-%p] RvFsdCompleteCanceledIrp for IRP 0x%p RV_IRP_Q 0x%p.\n",
                    KeGetCurrentThread(), Irp, Entry);
    const bool Runs = MustRun(IrpContext);
    {
        const SpinLockHold Hold(g_AsyncIrpQueueLock);
        if (Runs) {
            InsertTailList(&CancelledQueue, &Entry->QueueLinks);
            ++CancelledCount;
        } else {
            --UnservedCount;
        }
    }
    if (Runs) {
        KeSetEvent(&WorkQueued, IO_NO_INCREMENT, FALSE);
        NtFsdWakeTeardown(); // which serves it when there is no worker
        return;
    }
    const UCHAR MajorFunction = IrpContext->MajorFunction;
    RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
    TwFreeMemory(Entry);
    NtFsdUnlockUserBuffer(IrpContext);
    NtFsdDeleteIrpContext(IrpContext);
    NtFsdCompleteAtOnce(Irp, STATUS_CANCELLED, 0, IO_NO_INCREMENT);
    if (NtFsdIsStopped()) {
        KeSetEvent(&WorkQueued, IO_NO_INCREMENT, FALSE); // a worker may have stayed for it
    }
    NtFsdLeaveRequest(MajorFunction);
}

// ---- Posting -------------------------------------------------------------------------------------------------------

// Locks what a worker, in another process, could not reach.
NTSTATUS LockForWorker(PIRP_CONTEXT IrpContext) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(IrpContext->Irp);
    switch (IrpSp->MajorFunction) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        if (IrpSp->MinorFunction & IRP_MN_MDL) {
            NtFsdDebugPrint(TRACE_GENERAL, 0, "IRP MDL Read/Write!\n");
            if (IrpContext->Irp->MdlAddress != nullptr) {
                return STATUS_SUCCESS;
            }
        }
        return NtFsdLockUserBuffer(IrpContext, IrpSp->MajorFunction == IRP_MJ_READ ? IoWriteAccess : IoReadAccess,
                                   IrpSp->Parameters.Read.Length);
    case IRP_MJ_DIRECTORY_CONTROL:
        return IrpSp->MinorFunction == IRP_MN_QUERY_DIRECTORY && IrpSp->Parameters.QueryDirectory.Length != 0
                   ? NtFsdLockUserBuffer(IrpContext, IoWriteAccess, IrpSp->Parameters.QueryDirectory.Length)
                   : STATUS_SUCCESS;
    default:
        return STATUS_SUCCESS;
    }
}

// Decides under the lock whether a worker is to be started, and counts it then.
bool NeedsWorker() {
    const SpinLockHold Hold(g_AsyncIrpQueueLock);
    const ULONG Waiting = g_uAsyncIrpQueueCount + CancelledCount;
    if (g_uAsyncWorkerThreadCount != 0 && (Waiting < 2 || g_uAsyncWorkerThreadCount >= MOST_WORKERS)) {
        return false;
    }
    ++g_uAsyncWorkerThreadCount;
    NtFsdDebugPrint(TRACE_GENERAL, 0,
                    "[RVFSD-%p] NtFsdPostRequest starting thread; g_uAsyncWorkerThreadCount now %u.\n",
                    KeGetCurrentThread(), g_uAsyncWorkerThreadCount);
    return true;
}

// Makes the thread of a worker that is counted. Without one it is counted out, and what is queued waits for a worker
// that runs, for the next post, or for teardown.
bool MakeWorker() {
    NtFsdKeepRequest(IN_FLIGHT_WORKER);
    HANDLE Thread = nullptr;
    if (NT_SUCCESS(PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr, NtFsdDispatch, nullptr))) {
        ZwClose(Thread);
        return true;
    }
    {
        const SpinLockHold Hold(g_AsyncIrpQueueLock);
        DecrementWorkers();
    }
    NtFsdLeaveRequest(IN_FLIGHT_WORKER);
    return false;
}

void StartWorkerIfNeeded() {
    // Once more after a failure: another post may have counted on this worker.
    if (NeedsWorker() && !MakeWorker() && NeedsWorker()) {
        Ignore(MakeWorker(), "the next post tries again");
    }
}

// ---- Serving -------------------------------------------------------------------------------------------------------

RV_IRP_Q *TakeCancelled() {
    const SpinLockHold Hold(g_AsyncIrpQueueLock);
    if (CancelledCount == 0) {
        return nullptr;
    }
    --CancelledCount;
    --UnservedCount;
    return CONTAINING_RECORD(RemoveHeadList(&CancelledQueue), RV_IRP_Q, QueueLinks);
}

// Takes the next request out of the queue; NULL when there is none.
RV_IRP_Q *TakeEntry() {
    if (RV_IRP_Q *const Entry = TakeCancelled(); Entry != nullptr) {
        return Entry;
    }
    RV_IRP_Q *PeekContext = nullptr;
    const PIRP Irp = IoCsqRemoveNextIrp(&g_AsyncIrpCsq, &PeekContext);
    NtFsdDebugPrint(TRACE_GENERAL, 0,
                    "[RVFSD-%p] NtFsdDispatch received IRP 0x%p RV_IRP_Q 0x%p; g_uAsyncIrpQueueCount now %u.\n",
                    KeGetCurrentThread(), Irp, PeekContext, QueueCount());
    if (Irp == nullptr) {
        return nullptr;
    }
    NtFsdRequire(PeekContext != nullptr && PeekContext->Irp == Irp);
    const SpinLockHold Hold(g_AsyncIrpQueueLock);
    --UnservedCount;
    return PeekContext;
}

void RunCommonRoutine(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    const bool IsTransfer = IrpContext->MajorFunction == IRP_MJ_READ || IrpContext->MajorFunction == IRP_MJ_WRITE;
    if (IsTransfer && (IrpContext->MinorFunction & IRP_MN_DPC) && Irp->Tail.Overlay.Thread == nullptr) {
        Irp->Tail.Overlay.Thread = reinterpret_cast<PETHREAD>(KeGetCurrentThread());
    }
    if (IrpContext->Flags & IRP_CONTEXT_FLAG_LOCK_COMPLETION_POSTED) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdDispatch calling TwLockCompleteRoutineWithAcquire!\n");
        IrpContext->Flags &= ~static_cast<ULONG>(IRP_CONTEXT_FLAG_LOCK_COMPLETION_POSTED);
        Ignore(TwLockCompleteRoutineWithAcquire(IrpContext), "the completed IRP carries it");
        return;
    }
    const WORKER_ROUTINE Routine = NtFsdWorkerRoutine(IrpContext->MajorFunction);
    if (Routine.Run == nullptr) {
        NtFsdCompleteRequest(IrpContext, Irp, STATUS_INVALID_DEVICE_REQUEST);
        return;
    }
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdDispatch calling %s!\n", Routine.Name);
    if (IrpContext->MajorFunction == IRP_MJ_READ) {
        NtFsdDebugPrint(TRACE_ASYNC, 0, "NtFsdDispatch calling %s!\n", Routine.Name);
    }
    Ignore(Routine.Run(IrpContext), "the completed IRP carries it");
}

void ServeEntry(RV_IRP_Q *Entry) {
    const PIRP Irp = Entry->Irp;
    const PIRP_CONTEXT IrpContext = Entry->IrpContext;
    NtFsdRequire(IrpContext != nullptr && IrpContext->Irp == Irp);
    TwFreeMemory(Entry);
    const UCHAR MajorFunction = IrpContext->MajorFunction;
    {
        const CriticalRegion Region;
        IoSetTopLevelIrp((IrpContext->Flags & IRP_CONTEXT_FLAG_RECURSIVE_CALL)
                             ? reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP)
                             : Irp);
        RunCommonRoutine(IrpContext);
        NtFsdDebugPrint(TRACE_GENERAL, 0, " NtFsdDispatch() FSP complete!\n");
        IoSetTopLevelIrp(nullptr);
    }
    NtFsdLeaveRequest(MajorFunction);
}

// Counts this worker out, unless a request has come since it looked: whoever queued that may have counted on it.
bool EndWorker() {
    const SpinLockHold Hold(g_AsyncIrpQueueLock);
    if (UnservedCount != 0) {
        return false;
    }
    DecrementWorkers();
    NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD-%p] NtFsdDispatch exiting thread; g_uAsyncWorkerThreadCount now %u.\n",
                    KeGetCurrentThread(), g_uAsyncWorkerThreadCount);
    return true;
}

// Waits for a request, for the period of a poll at most. TRUE: it was woken before the period was over.
bool WaitForWork() {
    LARGE_INTEGER Timeout = {};
    Timeout.QuadPart = -POLL_PERIOD;
    return KeWaitForSingleObject(&WorkQueued, Executive, KernelMode, FALSE, &Timeout) != STATUS_TIMEOUT;
}

} // namespace

VOID NtFsdInitAsyncQueue() {
    NtFsdNobodyElse(g_AsyncIrpQueueLock);
    InitializeListHead(&g_AsyncIrpQueue);
    InitializeListHead(&CancelledQueue);
    CancelledCount = 0;
    UnservedCount = 0;
    KeInitializeEvent(&WorkQueued, SynchronizationEvent, FALSE);
    g_AsyncIrpQueueLock = 0;
    Ignore(IoCsqInitializeEx(&g_AsyncIrpCsq, RvFsdInsertIrpEx, RvFsdRemoveIrp, RvFsdPeekNextIrp, RvFsdAcquireLock,
                             RvFsdReleaseLock, RvFsdCompleteCanceledIrp),
           "it only fills the record");
}

NTSTATUS NtFsdTryPostRequest(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    NtFsdDebugPrint(TRACE_GENERAL, 0, "TwFsdPostRequest called!\n");
    NtFsdDebugPrint(TRACE_ASYNC, 0, "IRP %p Went Async\n", Irp);
    if (Irp == nullptr) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD-%p] NtFsdPostRequest for pIoContext 0x%p, but IRP is NULL.\n",
                        KeGetCurrentThread(), IrpContext);
        return STATUS_UNSUCCESSFUL;
    }
    NtFsdRequireKept(IrpContext);
    const auto Entry = static_cast<RV_IRP_Q *>(TwAllocMemory(sizeof(RV_IRP_Q)));
    if (Entry == nullptr) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD-%p] NtFsdPostRequest for 0x%p; alloc for %u bytes failed.\n",
                        KeGetCurrentThread(), IrpContext, static_cast<ULONG>(sizeof(RV_IRP_Q)));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS Status = LockForWorker(IrpContext);
    if (!NT_SUCCESS(Status)) {
        TwFreeMemory(Entry);
        return Status;
    }
    IoMarkIrpPending(Irp);
    // A worker waits for what it needs: a request is never posted a second time for want of a resource.
    IrpContext->Flags |= IRP_CONTEXT_FLAG_WAIT;
    Entry->Irp = Irp;
    Entry->IrpContext = IrpContext;
    InitializeListHead(&Entry->IrpLinks);
    NtFsdKeepRequest(IrpContext->MajorFunction);
    // From here on a worker or a canceller may have completed the request.
    Ignore(IoCsqInsertIrpEx(&g_AsyncIrpCsq, Irp, nullptr, Entry), "the insertion cannot fail");
    NtFsdDebugPrint(TRACE_GENERAL, 0,
                    "[RVFSD-%p] NtFsdPostRequest for IRP 0x%p RV_IRP_Q 0x%p; g_uAsyncIrpQueueCount now %u.\n",
                    KeGetCurrentThread(), Irp, Entry, QueueCount());
    StartWorkerIfNeeded();
    KeSetEvent(&WorkQueued, IO_NO_INCREMENT, FALSE);
    return STATUS_PENDING;
}

NTSTATUS NtFsdPostRequest(PIRP_CONTEXT IrpContext) {
    const NTSTATUS Status = NtFsdTryPostRequest(IrpContext);
    if (Status == STATUS_PENDING) {
        return STATUS_PENDING;
    }
    if (IrpContext->Irp != nullptr && MustRun(IrpContext)) {
        IoMarkIrpPending(IrpContext->Irp);
        IrpContext->Flags |= IRP_CONTEXT_FLAG_WAIT;
        Ignore(NtFsdWorkerRoutine(IrpContext->MajorFunction).Run(IrpContext), "the completed IRP carries it");
        return STATUS_PENDING;
    }
    return NtFsdCompleteRequest(IrpContext, IrpContext->Irp, Status);
}

VOID NtFsdHurryWorkers() {
    bool Idle;
    {
        const SpinLockHold Hold(g_AsyncIrpQueueLock);
        Idle = g_uAsyncWorkerThreadCount == 0 && UnservedCount != 0;
    }
    if (!Idle) {
        KeSetEvent(&WorkQueued, IO_NO_INCREMENT, FALSE);
        return;
    }
    while (RV_IRP_Q *const Entry = TakeEntry()) {
        ServeEntry(Entry);
    }
}

VOID NTAPI NtFsdDispatch(PVOID Context) {
    UNREFERENCED_PARAMETER(Context);
    NtFsdDebugPrint(TRACE_ASYNC, 0, "NtFsdDispatch called!\n");
    ULONG Idle = 0;
    for (;;) {
        if (RV_IRP_Q *const Entry = TakeEntry(); Entry != nullptr) {
            Idle = 0;
            ServeEntry(Entry);
            continue;
        }
        ++Idle;
        if ((Idle > IDLE_POLLS || NtFsdIsStopped()) && EndWorker()) {
            break;
        }
        // Woken early it looks once more, and that look is not counted: another worker may have been faster.
        Idle -= WaitForWork();
    }
    if (NtFsdIsStopped()) {
        KeSetEvent(&WorkQueued, IO_NO_INCREMENT, FALSE); // the next one
    }
    NtFsdLeaveRequest(IN_FLIGHT_WORKER);
}
