// Change notification: requests that wait on a directory's FCB until an entry appears or vanishes.
#pragma once

#include "names/fcb.h"

// One waiting request on an FCB's NotifyList, guarded by the FCB's Resource.
struct NOTIFY_ENTRY {
    LIST_ENTRY Links;
    PFILE_OBJECT FileObject;
    PIRP Irp;
    PIRP_CONTEXT IrpContext;
    ULONG CompletionFilter;
};
static_assert(sizeof(NOTIFY_ENTRY) == 48);

// Reports that the entry named by Fcb appeared in or vanished from its parent: takes the parent's waiting requests,
// which are completed with STATUS_NOTIFY_ENUM_DIR when the request of IrpContext is completed and holds no lock any
// more. The caller holds Fcb's Resource exactly once, in Hold, and may hold FcbTableResource; the Resource is dropped
// and retaken, so nothing read before the call holds afterwards. Action is always 1.
NTSTATUS NtFsdNotifyChange(PIRP_CONTEXT IrpContext, PFCB Fcb, ULONG Action, ResourceHold &Hold) HOLDING(Fcb->Resource);

// Completes what NtFsdNotifyChange took for IrpContext. No lock held: a waiter may ask again at once, and its
// completion may be the last reference to the watched directory's file object, so that its close runs in here.
VOID NtFsdCompleteChanged(PIRP_CONTEXT IrpContext);

// The parent's path of an FCB path into the empty string Parent. STATUS_OBJECT_PATH_INVALID when it has none.
NTSTATUS NtFsdGetParentName(PCUNICODE_STRING Name, PUNICODE_STRING Parent);

// Completes every request that waits on Fcb with Status. Resource held exclusive, or no request in flight.
VOID NtFsdCompleteNotifyList(PFCB Fcb, NTSTATUS Status) HOLDING(Fcb->Resource);

// The same in two steps, so that nothing is completed under a lock: moves the requests that wait on Fcb to the end of
// Batch (Resource held exclusive, or no request in flight), then completes and frees them.
VOID NtFsdTakeNotifyList(PFCB Fcb, PLIST_ENTRY Batch) HOLDING(Fcb->Resource);
VOID NtFsdCompleteNotifyBatch(PLIST_ENTRY Batch, NTSTATUS Status);
