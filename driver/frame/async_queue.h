// Requests that wait for a worker: the queue of posted requests and the pool of threads that serve it.
//
// A routine that cannot go on in its caller's thread posts the request. Workers are started by posts, take requests in
// order, run their common routines with waiting allowed, and end when they have found nothing for about two seconds.
// There are never more than nine. A posted request stays counted in flight until it is completed, and so does a worker
// until it ends: teardown waits for both.
#pragma once

#include "frame/irp_context.h"

// A queued request. From the pool, owned by the queue, and then by whoever takes it out.
struct RV_IRP_Q {
    LIST_ENTRY QueueLinks;
    PIRP Irp;
    PIRP_CONTEXT IrpContext;
    LIST_ENTRY IrpLinks; // has the IRP's Tail.Overlay.ListEntry, which so leads to the entry
};
static_assert(sizeof(RV_IRP_Q) == 48 && offsetof(RV_IRP_Q, Irp) == 16 && offsetof(RV_IRP_Q, IrpContext) == 24 &&
              offsetof(RV_IRP_Q, IrpLinks) == 32);

extern KSPIN_LOCK g_AsyncIrpQueueLock BEHIND(BelowLeaves)
    BEFORE(BelowSpinLocks);                                   // also of the decision to start or end a worker
extern LIST_ENTRY g_AsyncIrpQueue UNDER(g_AsyncIrpQueueLock); // oldest first
extern IO_CSQ g_AsyncIrpCsq;
extern ULONG g_uAsyncIrpQueueCount UNDER(g_AsyncIrpQueueLock);
extern ULONG g_uAsyncWorkerThreadCount UNDER(g_AsyncIrpQueueLock);

// Empties the queue and sets up the package over it. Part of start-up.
VOID NtFsdInitAsyncQueue();

// Queues the request of IrpContext, whose IRP is then pending, and starts a worker when one is needed. The user buffer
// is locked before. STATUS_PENDING: context and IRP belong to the queue. Otherwise nothing has happened to the IRP:
// STATUS_UNSUCCESSFUL when the context has none, STATUS_INSUFFICIENT_RESOURCES, or why the buffer cannot be locked.
// IRQL PASSIVE_LEVEL; resources may be held.
NTSTATUS NtFsdTryPostRequest(PIRP_CONTEXT IrpContext);

// The same for a routine that has nothing left to do: what cannot be queued is completed with the reason, but cleanup
// and close, which never come again, are run at once with waiting allowed. The caller returns the result as its own
// and touches neither context nor IRP afterwards. No FCB or table lock is held.
NTSTATUS NtFsdPostRequest(PIRP_CONTEXT IrpContext);

// Wakes a worker, or makes one, while requests are queued and none serves them; serves them itself when none can be
// made. For teardown, while it waits.
VOID NtFsdHurryWorkers();

// The worker thread. Context is not used.
VOID NTAPI NtFsdDispatch(PVOID Context);
