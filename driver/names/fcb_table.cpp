#include "dir/notify_list.h"
#include "frame/diagnostics.h"
#include "names/fcb.h"

namespace {

// Puts Fcb into the prefix table under its FullPath, which no FCB there has. FALSE when the table refuses it.
bool InsertPrefix(PFCB Fcb) HOLDING(FcbTableResource, Fcb->Resource) {
    if (!RtlInsertUnicodePrefix(&FcbPrefixTable, &Fcb->CurrentPath->Path, &Fcb->PrefixEntry)) {
        return false;
    }
    ++FcbPrefixCount;
    NtFsdSetOpenFlags(Fcb, FCB_STATE_IN_PREFIX_TABLE);
    Fcb->PrefixState = PREFIX_STATE_INSERTED;
    return true;
}

UNICODE_STRING Rest(PUNICODE_STRING Path, USHORT Bytes) {
    UNICODE_STRING Remaining = {static_cast<USHORT>(Path->Length - Bytes), 0, Path->Buffer + Bytes / sizeof(WCHAR)};
    if (Remaining.Length != 0 && Remaining.Buffer[0] == SEPARATOR) {
        Remaining.Length -= sizeof(WCHAR);
        ++Remaining.Buffer;
    }
    return Remaining;
}

void TraceFind(PUNICODE_STRING Path, PFCB Fcb) HOLDING_SHARED(FcbTableResource) {
    const WideText Sought = {Path->Buffer, Path->Length / 2u};
    NtFsdDebugPrint(TRACE_FCB, 0, "   Trying to find : %ls\n", Sought);
    if (Fcb != nullptr) {
        NtFsdDebugPrint(TRACE_FCB, 0, "   Found          : %ls\n", static_cast<PCWSTR>(NtFsdStablePath(Fcb)->Buffer));
    } else {
        NtFsdDebugPrint(TRACE_FCB, 0, "   Didn't find it.\n");
    }
    NtFsdDebugPrint(TRACE_FCB, 0, "   Current # entries in table: %u\n", FcbPrefixCount);
}

} // namespace

VOID NtFsdInitializeFcbTable() {
    RtlInitializeUnicodePrefix(&FcbPrefixTable);
}

VOID NtFsdRemovePrefix(PFCB Fcb) {
    if (Fcb->OpenFlags & FCB_STATE_IN_PREFIX_TABLE) {
        NtFsdClearOpenFlags(Fcb, FCB_STATE_IN_PREFIX_TABLE);
        if (Fcb->PrefixState != PREFIX_STATE_NEVER_INSERTED) {
            RtlRemoveUnicodePrefix(&FcbPrefixTable, &Fcb->PrefixEntry);
            --FcbPrefixCount;
        }
    }
    NtFsdReleaseParent(Fcb->Parent);
    Fcb->Parent = nullptr;
}

PFCB NtFsdFindFcb(PUNICODE_STRING Path, PUNICODE_STRING Remaining) {
    const PUNICODE_PREFIX_TABLE_ENTRY Entry = RtlFindUnicodePrefix(&FcbPrefixTable, Path, 0);
    PFCB Fcb = nullptr;
    if (Entry == nullptr) {
        *Remaining = *Path;
    } else {
        Fcb = CONTAINING_RECORD(Entry, FCB, PrefixEntry);
        if (Entry->Prefix->Length < Path->Length) {
            *Remaining = Rest(Path, Entry->Prefix->Length);
        } else if (RtlEqualUnicodeString(Entry->Prefix, Path, TRUE)) {
            *Remaining = {0, 0, Path->Buffer};
        } else {
            *Remaining = *Path;
        }
    }
    Remaining->MaximumLength = Remaining->Length;
    if (TraceWanted(TRACE_FCB)) {
        TraceFind(Path, Fcb);
    }
    return Fcb;
}

namespace {

// A new FCB for Path, not yet in the table, its Resource not yet held.
NTSTATUS AllocateForOpen(PIRP_CONTEXT IrpContext, PUNICODE_STRING Path, PUNICODE_STRING Remaining, PFCB *Fcb)
    HOLDING(FcbTableResource) {
    const WideText Rest = {Remaining->Buffer, Remaining->Length / 2u};
    NtFsdDebugPrint(TRACE_FCB, 0, "   Didn't find the prefix entry.\n");
    NtFsdDebugPrint(TRACE_FCB, 0, "   Remaining Path = %ws.\n", Rest);
    NtFsdDebugPrint(TRACE_FCB, 0, "   Remaining Len  = %d.\n", static_cast<ULONG>(Remaining->Length));
    NtFsdDebugPrint(TRACE_FCB, 0, "   Allocating new FCB\n");
    PARENT_RECORD *Parent;
    const NTSTATUS Status = NtFsdHoldParent(Path, &Parent);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    *Fcb = NtFsdAllocFcb(IrpContext->FileObject, Path);
    if (*Fcb == nullptr) {
        NtFsdReleaseParent(Parent);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    (*Fcb)->Parent = Parent;
    NtFsdNobodyElse(&(*Fcb)->Resource);
    NtFsdSetOpenType(*Fcb, OPEN_TYPE_UNKNOWN);
    return STATUS_SUCCESS;
}

NTSTATUS OpenOrCreateLocked(PIRP_CONTEXT IrpContext, PUNICODE_STRING Path, PFCB *Fcb, BOOLEAN *Created,
                            ResourceHold &Hold) HOLDING(FcbTableResource) {
    UNICODE_STRING Remaining;
    PFCB Found = NtFsdFindFcb(Path, &Remaining);
    if (Found != nullptr && Remaining.Length == 0) {
        NtFsdDebugPrint(TRACE_FCB, 0, "   Found an existing prefix entry.\n");
        *Created = FALSE;
    } else {
        const NTSTATUS Status = AllocateForOpen(IrpContext, Path, &Remaining, &Found);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
        *Created = TRUE;
    }
    Hold.AcquireExclusive(&Found->Resource, TRUE);
    ++Found->OpenCount;
    if (*Created && !InsertPrefix(Found)) {
        NtFsdDebugPrint(TRACE_FCB, 0, "Failed inserting an FCB into the prefix table!\n");
        if (IrpContext->FileObject != nullptr) {
            IrpContext->FileObject->SectionObjectPointer = nullptr;
        }
        NtFsdDeleteFcb(Found, Hold);
        return STATUS_UNSUCCESSFUL;
    }
    *Fcb = Found;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NtFsdOpenOrCreateFcb(PIRP_CONTEXT IrpContext, PUNICODE_STRING Path, const PATH_SOURCE &Source, PFCB *Fcb,
                              BOOLEAN *Created, ResourceHold &Hold) {
    *Fcb = nullptr;
    *Created = FALSE;
    ResourceHold Table;
    if (!Table.AcquireExclusive(&FcbTableResource, TRUE)) {
        return STATUS_CANT_WAIT;
    }
    // From here on a rename of Source finds the FCB of Path below it, and is refused.
    if (!Source.IsCurrent()) {
        return STATUS_RETRY;
    }
    const NTSTATUS Status = OpenOrCreateLocked(IrpContext, Path, Fcb, Created, Hold);
    // The dump walks the whole table: only when somebody reads it.
    if (TraceWanted(TRACE_PREFIX_DUMP)) {
        NtFsdDumpPrefixTable();
    }
    return Status;
}

namespace {

// Every open of Fcb names itself by the whole new path: the handles that its PathLeft was relative to belong to the old
// one. A directory's own handle stays what names below the open are relative to.
void RepointInstances(PFCB Fcb) HOLDING(FcbTableResource, Fcb->Resource) {
    for (PLIST_ENTRY Link = Fcb->InstanceList.Flink; Link != &Fcb->InstanceList; Link = Link->Flink) {
        const auto Instance = CONTAINING_RECORD(Link, INSTANCE_CONTEXT, Links);
        NtFsdSameLock(Fcb, Instance);
        NtFsdNameByFullPath(Instance);
    }
}

// What leads to the record of a path that Fcb had before; to NULL when it never had it.
PATH_RECORD **OldRecordLink(const FCB *Fcb, PCUNICODE_STRING Path) HOLDING(FcbTableResource) {
    PATH_RECORD **Link = &Fcb->CurrentPath->Older;
    while (*Link != nullptr && !RtlEqualUnicodeString(&(*Link)->Path, Path, FALSE)) {
        Link = &(*Link)->Older;
    }
    return Link;
}

// What keeping a path takes, with what the pool adds.
ULONG BytesOf(const PATH_RECORD *Record) {
    constexpr ULONG HEADERS = 32;
    return sizeof(PATH_RECORD) + Record->Path.Length + HEADERS;
}

// Makes NewPath the path of Fcb. The old one stays: readers without the Resource may be using it.
void TakePath(PFCB Fcb, NewPathRecord &NewPath) HOLDING(FcbTableResource, Fcb->Resource) {
    if (!RtlEqualUnicodeString(&Fcb->FullPath, NewPath.Path(), FALSE)) {
        PATH_RECORD **const Link = OldRecordLink(Fcb, NewPath.Path());
        PATH_RECORD *Newest = *Link;
        if (Newest != nullptr) {
            *Link = Newest->Older;
            Fcb->OldPathBytes -= BytesOf(Newest);
        } else {
            Newest = NewPath.Detach();
        }
        Fcb->OldPathBytes += BytesOf(Fcb->CurrentPath);
        Newest->Older = Fcb->CurrentPath;
        Fcb->FullPath = Newest->Path;
        NtFsdSetCurrentPath(Fcb, Newest);
    }
    NtFsdCountPathChange(Fcb);
}

// The table accepts names that differ only in case; two FCBs may not.
bool IsPathTaken(PUNICODE_STRING Path) HOLDING(FcbTableResource) {
    UNICODE_STRING Remaining;
    return NtFsdFindFcb(Path, &Remaining) != nullptr && Remaining.Length == 0;
}

} // namespace

NewPathRecord::~NewPathRecord() {
    if (Record_) {
        NtFsdFreeUnicodeString(&Record_->Path);
    }
}

NTSTATUS NewPathRecord::Make(const FCB *Fcb, PCUNICODE_STRING Path) {
    // Memory that nobody gives back before the last close: whoever renames on and on is stopped.
    if (Fcb->OldPathBytes + BytesOf(Fcb->CurrentPath) > MOST_OLD_PATH_BYTES && *OldRecordLink(Fcb, Path) == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PoolPointer<PATH_RECORD> Record(static_cast<PATH_RECORD *>(TwAllocMemory(sizeof(PATH_RECORD))));
    if (!Record) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS Status = NtFsdUpdateUnicodeString(&Record->Path, Path);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Record_.Adopt(Record.Detach());
    return NtFsdHoldParent(&Record_->Path, &Parent_);
}

VOID NtFsdRenameFcb(PFCB Fcb, NewPathRecord &NewPath) {
    NtFsdRemovePrefix(Fcb);
    TakePath(Fcb, NewPath);
    RepointInstances(Fcb);
    Fcb->Parent = NewPath.DetachParent();
    if (IsPathTaken(&Fcb->FullPath) || !InsertPrefix(Fcb)) {
        NtFsdRemovePrefix(Fcb); // its directories do not count it any more either
        NtFsdAlwaysPrint("[RVFSD] NtFsdRenameFcb RtlInsertUnicodePrefix for \"%wZ\" on FCB 0x%p failed.\n",
                         &Fcb->FullPath, Fcb);
    }
}

VOID NtFsdDumpPrefixTable() {
    NtFsdDebugPrint(TRACE_PREFIX_DUMP, 0, "Dump Notify Table\n");
    NtFsdDebugPrint(TRACE_PREFIX_DUMP, 0, "---------------------------\n");
    ULONG Counter = 1;
    for (PUNICODE_PREFIX_TABLE_ENTRY Entry = RtlNextUnicodePrefix(&FcbPrefixTable, TRUE); Entry != nullptr;
         Entry = RtlNextUnicodePrefix(&FcbPrefixTable, FALSE)) {
        if (Entry->Prefix == nullptr) {
            NtFsdDebugPrint(TRACE_PREFIX_DUMP, 0, "PREFIX ENTRY IS NULL!!!\n");
            continue;
        }
        const PFCB Fcb = CONTAINING_RECORD(Entry, FCB, PrefixEntry);
        // Without the FCB's Resource, under which waiters come and go: for the trace this is good enough.
        if (NtFsdReadHasWaiters(Fcb)) {
            NtFsdDebugPrint(TRACE_PREFIX_DUMP, 0, "%d: FCB: 0x%p - %ws\n", Counter++, Fcb,
                            static_cast<PCWSTR>(NtFsdStablePath(Fcb)->Buffer));
        }
    }
}
