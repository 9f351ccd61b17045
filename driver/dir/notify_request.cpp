#include "dir/directory.h"
#include "dir/notify_entry.h"
#include "dir/notify_list.h"
#include "frame/diagnostics.h"
#include "frame/memory.h"

namespace {

bool IsWaiting(PFCB Fcb, PIRP Irp) HOLDING(Fcb->Resource) {
    bool Found = false;
    for (PLIST_ENTRY Link = Fcb->NotifyList.Flink; Link != &Fcb->NotifyList; Link = Link->Flink) {
        const PIRP Waiting = NtFsdNotifyEntryOf(Link)->Irp;
        NtFsdDebugPrint(TRACE_NOTIFY, 0, "Found Irp: 0x%p == 0x%p\n", Waiting, Irp);
        Found = Found || Waiting == Irp;
    }
    return Found;
}

// Appends the request. From the insertion on it may be completed by others, so it is marked pending before.
// STATUS_PENDING: the entry owns IRP and context.
NTSTATUS Enqueue(PFCB Fcb, PIRP_CONTEXT IrpContext, ULONG CompletionFilter) HOLDING(Fcb->Resource) {
    NtFsdRequireKept(IrpContext);
    const PIRP Irp = IrpContext->Irp;
    if (NtFsdFileFlags(IrpContext->FileObject) & FO_CLEANUP_COMPLETE) {
        return STATUS_NOTIFY_CLEANUP; // the cleanup that would end the wait has been
    }
    if (IsWaiting(Fcb, Irp)) {
        NtFsdDeleteIrpContext(IrpContext);
        return STATUS_PENDING;
    }
    auto Entry = static_cast<NOTIFY_ENTRY *>(TwAllocMemory(sizeof(NOTIFY_ENTRY)));
    if (Entry == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Entry->FileObject = IrpContext->FileObject;
    Entry->Irp = Irp;
    Entry->IrpContext = IrpContext;
    Entry->CompletionFilter = CompletionFilter;
    IoMarkIrpPending(Irp);
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "Add Irp to List: 0x%p\n", Irp);
    InsertTailList(&Fcb->NotifyList, &Entry->Links);
    NtFsdUpdateHasWaiters(Fcb);
    return STATUS_PENDING;
}

} // namespace

NTSTATUS NtFsdNotifyDirectoryChange(PIRP_CONTEXT IrpContext) {
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "NtFsdNotifyDirectoryChange Called \n");
    const PIRP Irp = IrpContext->Irp;
    const PFILE_OBJECT FileObject = IrpContext->FileObject;
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    const ULONG CompletionFilter = IrpSp->Parameters.NotifyDirectory.CompletionFilter;
    const ULONG WatchTree = IrpSp->Flags & SL_WATCH_TREE;
    const auto Fcb = static_cast<PFCB>(FileObject->FsContext);

    NTSTATUS Status = STATUS_NOT_IMPLEMENTED;
    if (Fcb != nullptr) {
        const ExclusiveHold Hold(&Fcb->Resource);
        Status = Enqueue(Fcb, IrpContext, CompletionFilter);
    }
    // A queued request may be gone by now: only what was read before is shown.
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "CompletionFilter = 0x%X\n", CompletionFilter);
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "WatchTree = 0x%X\n", WatchTree);
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "File Object = 0x%p\n", FileObject);
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "NtFsdNotifyDirectoryChange returns 0x%X\n", Status);
    return Status == STATUS_PENDING ? Status : NtFsdCompleteRequest(IrpContext, Irp, Status);
}
