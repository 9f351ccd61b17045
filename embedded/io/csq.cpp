// Cancel-safe queues: the package over a driver's own queue and lock.
//
// A queued request carries the package's cancel routine and, in DriverContext[3], its queue or the context that the
// driver tracks it with. Whoever takes the cancel routine out of the request owns it: the one that removes it, or the
// canceller, who then waits for the queue's lock.

#include "embedded/verifier/rules.h"
#include "kernel/linux/services.h"
#include "kernel/linux/status.h"

using namespace embedded;

namespace {

PVOID &Tracking(PIRP Irp) {
    return Irp->Tail.Overlay.DriverContext[3];
}

PDRIVER_CANCEL ExchangeCancelRoutine(PIRP Irp, PDRIVER_CANCEL New) {
    return __atomic_exchange_n(&Irp->CancelRoutine, New, __ATOMIC_SEQ_CST);
}

bool IsContext(PVOID Tracked) {
    return *static_cast<ULONG *>(Tracked) == IO_TYPE_CSQ_IRP_CONTEXT;
}

PIO_CSQ QueueOf(PIRP Irp) {
    PVOID Tracked = Tracking(Irp);
    return IsContext(Tracked) ? static_cast<PIO_CSQ_IRP_CONTEXT>(Tracked)->Csq : static_cast<PIO_CSQ>(Tracked);
}

// Takes the request, whose cancel routine is the caller's, out of the driver's queue. The queue's lock is held.
void Remove(PIO_CSQ Csq, PIRP Irp) {
    Csq->CsqRemoveIrp(Csq, Irp);
    if (IsContext(Tracking(Irp))) {
        static_cast<PIO_CSQ_IRP_CONTEXT>(Tracking(Irp))->Irp = nullptr;
    }
    Tracking(Irp) = nullptr;
}

VOID NTAPI CancelQueued(PDEVICE_OBJECT, PIRP Irp) noexcept {
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    PIO_CSQ Csq = QueueOf(Irp);
    KIRQL Irql;
    Csq->CsqAcquireLock(Csq, &Irql);
    Remove(Csq, Irp);
    Csq->CsqReleaseLock(Csq, Irql);
    Csq->CsqCompleteCanceledIrp(Csq, Irp);
}

} // namespace

NTSTATUS NTAPI IoCsqInitializeEx(PIO_CSQ Csq, PIO_CSQ_INSERT_IRP_EX InsertIrp, PIO_CSQ_REMOVE_IRP RemoveIrp,
                                 PIO_CSQ_PEEK_NEXT_IRP PeekNextIrp, PIO_CSQ_ACQUIRE_LOCK AcquireLock,
                                 PIO_CSQ_RELEASE_LOCK ReleaseLock,
                                 PIO_CSQ_COMPLETE_CANCELED_IRP CompleteCanceledIrp) noexcept {
    RequireIrql(IrqlRuleOf("IoCsqInitializeEx"));
    *Csq = {.Type = IO_TYPE_CSQ_EX,
            .CsqInsertIrp = reinterpret_cast<PIO_CSQ_INSERT_IRP>(reinterpret_cast<PVOID>(InsertIrp)),
            .CsqRemoveIrp = RemoveIrp,
            .CsqPeekNextIrp = PeekNextIrp,
            .CsqAcquireLock = AcquireLock,
            .CsqReleaseLock = ReleaseLock,
            .CsqCompleteCanceledIrp = CompleteCanceledIrp,
            .ReservePointer = nullptr};
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoCsqInsertIrpEx(PIO_CSQ Csq, PIRP Irp, PIO_CSQ_IRP_CONTEXT Context, PVOID InsertContext) noexcept {
    RequireIrql(IrqlRuleOf("IoCsqInsertIrpEx"));
    if (Context != nullptr) {
        *Context = {.Type = IO_TYPE_CSQ_IRP_CONTEXT, .Irp = Irp, .Csq = Csq};
    }
    Tracking(Irp) = Context != nullptr ? static_cast<PVOID>(Context) : Csq;
    KIRQL Irql;
    Csq->CsqAcquireLock(Csq, &Irql);
    const NTSTATUS Status =
        reinterpret_cast<PIO_CSQ_INSERT_IRP_EX>(reinterpret_cast<PVOID>(Csq->CsqInsertIrp))(Csq, Irp, InsertContext);
    if (!NT_SUCCESS(Status)) {
        Csq->CsqReleaseLock(Csq, Irql);
        return Status;
    }
    // All under the lock: a canceller that takes the routine waits there until the request is wholly in the queue.
    IoMarkIrpPending(Irp);
    ExchangeCancelRoutine(Irp, CancelQueued);
    const bool Cancelled =
        __atomic_load_n(&Irp->Cancel, __ATOMIC_SEQ_CST) && ExchangeCancelRoutine(Irp, nullptr) != nullptr;
    if (Cancelled) {
        Remove(Csq, Irp);
    }
    Csq->CsqReleaseLock(Csq, Irql);
    if (Cancelled) {
        Csq->CsqCompleteCanceledIrp(Csq, Irp);
    }
    return Status;
}

PIRP NTAPI IoCsqRemoveNextIrp(PIO_CSQ Csq, PVOID PeekContext) noexcept {
    RequireIrql(IrqlRuleOf("IoCsqRemoveNextIrp"));
    KIRQL Irql;
    Csq->CsqAcquireLock(Csq, &Irql);
    PIRP Irp = Csq->CsqPeekNextIrp(Csq, nullptr, PeekContext);
    while (Irp != nullptr && ExchangeCancelRoutine(Irp, nullptr) == nullptr) {
        Irp = Csq->CsqPeekNextIrp(Csq, Irp, PeekContext); // a canceller has it
    }
    if (Irp != nullptr) {
        Remove(Csq, Irp);
    }
    Csq->CsqReleaseLock(Csq, Irql);
    return Irp;
}
