#include "dir/notify_list.h"

#include "dir/notify_entry.h"
#include "frame/diagnostics.h"

VOID NtFsdTakeNotifyList(PFCB Fcb, PLIST_ENTRY Batch) {
    while (!IsListEmpty(&Fcb->NotifyList)) {
        InsertTailList(Batch, RemoveHeadList(&Fcb->NotifyList));
    }
    NtFsdUpdateHasWaiters(Fcb);
}

VOID NtFsdCompleteNotifyBatch(PLIST_ENTRY Batch, NTSTATUS Status) {
    while (!IsListEmpty(Batch)) {
        const PoolPointer<NOTIFY_ENTRY> Entry(NtFsdNotifyEntryOf(RemoveHeadList(Batch)));
        NtFsdDebugPrint(TRACE_NOTIFY, 0, "Cleanup Irp: 0x%p\n", Entry->Irp);
        Ignore(NtFsdCompleteRequest(Entry->IrpContext, Entry->Irp, Status), "it is the waiter's");
    }
}

VOID NtFsdCompleteNotifyList(PFCB Fcb, NTSTATUS Status) {
    LIST_ENTRY Batch;
    InitializeListHead(&Batch);
    NtFsdTakeNotifyList(Fcb, &Batch);
    NtFsdCompleteNotifyBatch(&Batch, Status);
}
