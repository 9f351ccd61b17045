#include "dir/notify.h"

#include "dir/notify_entry.h"
#include "dir/notify_list.h"
#include "frame/configuration.h"
#include "frame/diagnostics.h"

namespace {

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
        NOTIFY_ENTRY *Entry = NtFsdNotifyEntryOf(Links);
        Links = Links->Flink;
        if (Entry->CompletionFilter & FILE_NOTIFY_CHANGE_FILE_NAME) {
            NtFsdDebugPrint(TRACE_NOTIFY, 0, "Complete Irp: 0x%p\n", Entry->Irp);
            RemoveEntryList(&Entry->Links);
            InsertTailList(Changed, &Entry->Links);
            NtFsdDebugPrint(TRACE_NOTIFY, 0, "Remove IRP from List: 0x%p\n", Entry->Irp);
        }
    }
    NtFsdUpdateHasWaiters(Parent);
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
