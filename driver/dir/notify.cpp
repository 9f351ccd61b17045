#include "dir/notify.h"

#include "frame/diagnostics.h"
#include "frame/driver.h"

namespace {

NOTIFY_ENTRY *EntryOf(PLIST_ENTRY Links) {
    return CONTAINING_RECORD(Links, NOTIFY_ENTRY, Links);
}

// The waiters that IrpContext's request is to complete.
PLIST_ENTRY ChangedOf(PIRP_CONTEXT IrpContext) {
    if (IrpContext->ChangedWaiters.Flink == nullptr) {
        InitializeListHead(&IrpContext->ChangedWaiters);
    }
    return &IrpContext->ChangedWaiters;
}

// Moves the requests that asked for names of files to Changed; the others go on waiting.
void TakeFileNameWaiters(PFCB Parent, PLIST_ENTRY Changed) HOLDING(Parent->Resource) {
    for (PLIST_ENTRY Links = Parent->NotifyList.Flink; Links != &Parent->NotifyList;) {
        NOTIFY_ENTRY *Entry = EntryOf(Links);
        Links = Links->Flink;
        if (Entry->CompletionFilter & FILE_NOTIFY_CHANGE_FILE_NAME) {
            NtFsdDebugPrint(TRACE_NOTIFY, 0, "Complete Irp: 0x%p\n", Entry->Irp);
            RemoveEntryList(&Entry->Links);
            InsertTailList(Changed, &Entry->Links);
            NtFsdDebugPrint(TRACE_NOTIFY, 0, "Remove IRP from List: 0x%p\n", Entry->Irp);
        }
    }
}

// Takes the waiters of the open directory whose path is exactly ParentPath.
void TakeWaitersOf(PUNICODE_STRING ParentPath, PLIST_ENTRY Changed) HOLDING(FcbTableResource) {
    UNICODE_STRING Remaining;
    const PFCB Parent = NtFsdFindFcb(ParentPath, &Remaining);
    if (Parent == nullptr || Remaining.Length != 0) {
        return;
    }
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "Found Parent FCB 0x%p\n", Parent);
    ResourceHold Hold;
    if (Hold.AcquireExclusive(&Parent->Resource, TRUE)) {
        TakeFileNameWaiters(Parent, Changed);
    }
}

NTSTATUS ReportToParent(PIRP_CONTEXT IrpContext, PFCB Fcb, ResourceHold &Hold) {
    OwnedString Parent;
    const NTSTATUS Status = NtFsdGetParentName(&Fcb->FullPath, Parent.Get());
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "Lookup Parent \"%wZ\"\n", Parent.Get());

    // The table comes before any FCB in the lock order. The caller's open keeps the FCB meanwhile.
    Hold.Release();
    const ExclusiveHold Table(&FcbTableResource);
    Hold.AcquireExclusive(&Fcb->Resource, TRUE);
    TakeWaitersOf(Parent.Get(), ChangedOf(IrpContext));
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NtFsdNotifyChange(PIRP_CONTEXT IrpContext, PFCB Fcb, ULONG, ResourceHold &Hold) {
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "NtFsdNotifyChange Called FCB = 0x%p\n", Fcb);
    if (!g_bEnableDirectoryNotify) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS Status = ReportToParent(IrpContext, Fcb, Hold);
    NtFsdDebugPrint(TRACE_NOTIFY, 0, "NtFsdNotifyChange returns 0x%X\n", Status);
    return Status;
}

VOID NtFsdCompleteChanged(PIRP_CONTEXT IrpContext) {
    const PLIST_ENTRY Changed = &IrpContext->ChangedWaiters;
    while (Changed->Flink != nullptr && !IsListEmpty(Changed)) {
        const PoolPointer<NOTIFY_ENTRY> Entry(EntryOf(RemoveHeadList(Changed)));
        Entry->IrpContext->Information = 0;
        Ignore(NtFsdCompleteRequest(Entry->IrpContext, Entry->Irp, STATUS_NOTIFY_ENUM_DIR), "it is the waiter's");
    }
}

NTSTATUS NtFsdGetParentName(PCUNICODE_STRING Name, PUNICODE_STRING Parent) {
    constexpr ULONG SHORTEST = 6; // \s\v\n
    if (NtFsdCountPathComponents(Name) < 3 || Name->Length / sizeof(WCHAR) < SHORTEST) {
        return STATUS_OBJECT_PATH_INVALID;
    }
    UNICODE_STRING Path = *Name;
    while (UnitsOf(Path) != UnitsOf(NtFsdWithoutSlash(Path))) {
        Path = NtFsdWithoutSlash(Path);
    }
    const UNICODE_STRING Front = NtFsdSplitPath(Path).Front;
    return Front.Length != 0 ? NtFsdUpdateUnicodeString(Parent, &Front) : STATUS_OBJECT_PATH_INVALID;
}

VOID NtFsdTakeNotifyList(PFCB Fcb, PLIST_ENTRY Batch) {
    while (!IsListEmpty(&Fcb->NotifyList)) {
        InsertTailList(Batch, RemoveHeadList(&Fcb->NotifyList));
    }
}

VOID NtFsdCompleteNotifyBatch(PLIST_ENTRY Batch, NTSTATUS Status) {
    while (!IsListEmpty(Batch)) {
        const PoolPointer<NOTIFY_ENTRY> Entry(EntryOf(RemoveHeadList(Batch)));
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
