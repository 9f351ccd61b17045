#include "dir/directory.h"
#include "frame/async_queue.h"
#include "frame/configuration.h"
#include "frame/diagnostics.h"
#include "frame/memory.h"

namespace {

constexpr UNICODE_STRING ALL_NAMES = ConstantString(WTEXT("*"));
// What the command interpreter's "*.*" becomes on the platform.
constexpr UNICODE_STRING ALL_NAMES_REWRITTEN = ConstantString(WTEXT(">>>>>>>>\">>>"));
static_assert(ALL_NAMES_REWRITTEN.Length == 24);

// Whether the lazy-close switch has been read: once per life of the driver, whatever came of it.
DRIVER_GLOBAL LONG LazyCloseRead = 0;

// The lock of one open's search: queries of one open may come side by side.
class [[nodiscard]] SearchHold {
public:
    SearchHold() = default;
    SearchHold(const SearchHold &) = delete;
    SearchHold &operator=(const SearchHold &) = delete;
    ~SearchHold() {
        if (Instance_ != nullptr) {
            KeSetEvent(&Instance_->SearchLock, IO_NO_INCREMENT, FALSE);
        }
    }
    bool Acquire(PINSTANCE_CONTEXT Instance, BOOLEAN Wait) HELD_FROM_HERE(Instance->SearchLock) {
        LARGE_INTEGER Now = {};
        if (KeWaitForSingleObject(&Instance->SearchLock, Executive, KernelMode, FALSE, Wait ? nullptr : &Now) !=
            STATUS_SUCCESS) {
            return false;
        }
        Instance_ = Instance;
        return true;
    }

private:
    PINSTANCE_CONTEXT Instance_ = nullptr;
};

// One query of a directory.
struct QUERY {
    PIRP_CONTEXT IrpContext;
    PIRP Irp;
    PFCB Fcb;
    PINSTANCE_CONTEXT Instance;
    bool RestartScan;
    bool SingleEntry;
    bool IndexSpecified;
    ULONG Length;
    PUNICODE_STRING FileName;
    ULONG InfoClass;
    ULONG FixedSize;
    bool Started;   // this call set up the search
    ULONG Previous; // where the last entry handed out begins
    ULONG Information;
};

void TraceQuery(const QUERY &Query) {
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Index Specified     : %s\n", TrueOrFalse(Query.IndexSpecified));
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Restart Scan        : %s\n", TrueOrFalse(Query.RestartScan));
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Return Single Entry : %s\n", TrueOrFalse(Query.SingleEntry));
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Buffer Length       : 0x%X\n", Query.Length);
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Search Initialized  : %s\n", TrueOrFalse(NtFsdIsSearching(Query.Instance)));
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Information Class  : %d\n", Query.InfoClass);
}

QUERY ReadQuery(PIRP_CONTEXT IrpContext) {
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(IrpContext->Irp);
    const auto InfoClass = static_cast<ULONG>(IrpSp->Parameters.QueryDirectory.FileInformationClass);
    return {.IrpContext = IrpContext,
            .Irp = IrpContext->Irp,
            .Fcb = static_cast<PFCB>(IrpContext->FileObject->FsContext),
            .Instance = static_cast<PINSTANCE_CONTEXT>(IrpContext->FileObject->FsContext2),
            .RestartScan = (IrpSp->Flags & SL_RESTART_SCAN) != 0,
            .SingleEntry = (IrpSp->Flags & SL_RETURN_SINGLE_ENTRY) != 0,
            .IndexSpecified = (IrpSp->Flags & SL_INDEX_SPECIFIED) != 0,
            .Length = IrpSp->Parameters.QueryDirectory.Length,
            .FileName = reinterpret_cast<PUNICODE_STRING>(IrpSp->Parameters.QueryDirectory.FileName),
            .InfoClass = InfoClass,
            .FixedSize = NtFsdDirEntryFixedSize(InfoClass),
            .Started = false,
            .Previous = 0,
            .Information = 0};
}

// The switch is marked as read once its value is stored: until then every search reads it itself.
void ReadLazyCloseOnce() {
    if (!__atomic_load_n(&LazyCloseRead, __ATOMIC_ACQUIRE)) {
        Ignore(NtFsdReadLazyCloseConfig(), "short names are then asked for");
        __atomic_store_n(&LazyCloseRead, 1, __ATOMIC_RELEASE);
    }
}

PCUNICODE_STRING MaskOf(const QUERY &Query) {
    const PCUNICODE_STRING Name = Query.FileName;
    if (Name == nullptr || Name->Buffer == nullptr || Name->Length < sizeof(WCHAR)) {
        return &ALL_NAMES;
    }
    const bool Rewritten = Name->Length == ALL_NAMES_REWRITTEN.Length &&
                           memcmp(Name->Buffer, ALL_NAMES_REWRITTEN.Buffer, Name->Length) == 0;
    return Rewritten ? &ALL_NAMES : Name;
}

// Sets up the search of this open's first query, or of a restart.
NTSTATUS StartSearch(QUERY &Query) HOLDING(Query.Instance->SearchLock) {
    const NTSTATUS Status = NtFsdInitializeSearch(Query.IrpContext, Query.Fcb, Query.Instance, MaskOf(Query));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    NtFsdSetSearching(Query.Instance, TRUE);
    Query.Started = true;
    ReadLazyCloseOnce();
    const bool HasShortNames =
        Query.InfoClass == FileBothDirectoryInformation || Query.InfoClass == FileIdBothDirectoryInformation;
    if (HasShortNames && !NtFsdIsLazyClose()) {
        Query.Instance->UseShortNames = TRUE;
    }
    return STATUS_SUCCESS;
}

void TraceSearch(PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock) {
    if (Instance->SearchMask != nullptr) {
        NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Search Mask : %ws\n", static_cast<PCWSTR>(Instance->SearchMask));
    }
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Current Entries: 0x%x\n", LowPart(Instance->EnumBuffer));
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Next Entry     : 0x%x\n", LowPart(Instance->NextEntry));
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Info Count     : %d\n", Instance->InfoCount);
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   More Entries   : %s\n", TrueOrFalse(Instance->MoreEntries));
}

constexpr ULONG RoundUp(ULONG Bytes) {
    return (Bytes + 7) & ~7u;
}

// Packs entries into Buffer until it is full, one is enough, or there is no more. The result of the last step.
NTSTATUS PackEntries(QUERY &Query, UCHAR *Buffer) HOLDING(Query.Instance->SearchLock)
    HOLDING_SHARED(Query.Instance->Fcb->Resource) {
    ULONG Offset = 0;
    ULONG Remaining = Query.Length;
    for (;;) {
        ULONG EntrySize;
        const NTSTATUS Status = NtFsdGetNextDirEntry(Query.IrpContext, Query.Fcb, Query.Instance, Query.InfoClass,
                                                     Buffer + Offset, Remaining, &EntrySize);
        if (Status != STATUS_SUCCESS) {
            return Status;
        }
        // The bytes up to the boundary on which the entry begins are counted with it.
        memset(Buffer + Query.Information, 0, Offset - Query.Information);
        const ULONG Distance = Offset - Query.Previous;
        RtlCopyMemory(Buffer + Query.Previous, &Distance, sizeof(Distance));
        Query.Previous = Offset;
        Query.Information = RoundUp(Query.Information) + EntrySize;
        // The last entry may end where its rounding would not.
        const ULONG Step = RoundUp(EntrySize);
        Offset += Step;
        Remaining = Remaining > Step ? Remaining - Step : 0;
        Query.Instance->ExactAnswered = !Query.Instance->Wildcard;
        if (Remaining <= Query.FixedSize || Query.SingleEntry || !Query.Instance->Wildcard) {
            return STATUS_SUCCESS;
        }
    }
}

NTSTATUS SettleStatus(const QUERY &Query, NTSTATUS Status) {
    if (Status == STATUS_NO_MORE_FILES) {
        if (Query.Information != 0) {
            return STATUS_SUCCESS;
        }
        return Query.Started ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
    }
    if (Status == STATUS_BUFFER_OVERFLOW && Query.Information != 0) {
        NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Overflowed the user buffer!\n");
        return STATUS_SUCCESS;
    }
    return Status;
}

// A search for one exact name answers once. One that a broken batch ended goes on saying so.
bool IsAnswered(const QUERY &Query) HOLDING(Query.Instance->SearchLock) {
    return !Query.RestartScan && NtFsdIsSearching(Query.Instance) && !Query.Instance->Wildcard &&
           (Query.Instance->ExactAnswered || (Query.Instance->MoreEntries == 0 && !Query.Instance->BatchBroken));
}

// Begins the search when there is none, and packs what fits into the caller's buffer.
NTSTATUS ListHeld(QUERY &Query) HOLDING(Query.Instance->SearchLock) HOLDING_SHARED(Query.Instance->Fcb->Resource) {
    NTSTATUS Status = STATUS_SUCCESS;
    if (!NtFsdIsSearching(Query.Instance) || Query.RestartScan) {
        Status = StartSearch(Query);
    }
    TraceSearch(Query.Instance);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    UserBufferLock Lock(Query.IrpContext);
    UCHAR *Buffer = nullptr;
    if (Query.Length != 0) {
        const PMDL Mdl = Query.Irp->MdlAddress;
        if (Mdl != nullptr && MmGetMdlByteCount(Mdl) < Query.Length) {
            return STATUS_INVALID_PARAMETER;
        }
        Status = NtFsdLockUserBuffer(Query.IrpContext, IoWriteAccess, Query.Length);
        if (!NT_SUCCESS(Status)) {
            return Status;
        }
        Buffer = static_cast<UCHAR *>(NtFsdMapUserBuffer(Query.IrpContext));
        if (Buffer == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    return SettleStatus(Query, PackEntries(Query, Buffer));
}

// STATUS_SUCCESS: go on.
NTSTATUS CheckClass(const QUERY &Query) {
    if (Query.FixedSize != 0) {
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "Unknown DirInfo Level 0x%X\n", Query.InfoClass);
    return STATUS_INVALID_INFO_CLASS;
}

// What the search's state refuses, with the FCB's Resource and the search's lock held. STATUS_SUCCESS: go on.
NTSTATUS CheckHeld(const QUERY &Query) HOLDING(Query.Instance->SearchLock) {
    if (IsAnswered(Query)) {
        NtFsdDebugPrint(TRACE_DIRECTORY, 0,
                        "Not a wildcard, and we have already returned an entry. Returning STATUS_NO_MORE_FILES.\n");
        return STATUS_NO_MORE_FILES;
    }
    return CheckClass(Query);
}

NTSTATUS CompleteListed(const QUERY &Query, NTSTATUS Status) {
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Previous Entry      : 0x%X\n", Query.Previous);
    Query.IrpContext->Information = Query.Information;
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Status              : 0x%X\n", Status);
    NtFsdDebugPrint(TRACE_DIRECTORY, 0, "   Information         : %u\n", Query.Information);
    return NtFsdCompleteRequest(Query.IrpContext, Query.Irp, Status);
}

NTSTATUS QueryDirectory(PIRP_CONTEXT IrpContext) {
    QUERY Query = ReadQuery(IrpContext);
    TraceQuery(Query);
    if (Query.IndexSpecified) {
        NtFsdDebugPrint(TRACE_DIRECTORY, 0, "SL_INDEX_SPECIFIED not supported. Returning STATUS_NOT_IMPLEMENTED.\n");
        return NtFsdCompleteRequest(IrpContext, Query.Irp, STATUS_NOT_IMPLEMENTED);
    }
    NTSTATUS Refused = STATUS_SUCCESS;
    if (Query.RestartScan || !NtFsdIsSearching(Query.Instance)) {
        Refused = CheckClass(Query); // no search can have answered: nothing to wait for
    }
    NTSTATUS Status = STATUS_SUCCESS;
    if (Refused == STATUS_SUCCESS) {
        ResourceHold Hold;
        SearchHold Search;
        Status = NtFsdAcquireForHandle(IrpContext, Query.Fcb, Query.Instance, !NtFsdIsSearching(Query.Instance), Hold);
        if (Status == STATUS_CANT_WAIT || !Search.Acquire(Query.Instance, IrpContext->MayWait())) {
            Hold.Release();
            return NtFsdPostRequest(IrpContext);
        }
        Hold.HoldsShared(&Query.Instance->Fcb->Resource);
        Refused = CheckHeld(Query);
        if (Refused == STATUS_SUCCESS && NT_SUCCESS(Status)) {
            Status = ListHeld(Query);
        }
    }
    return Refused != STATUS_SUCCESS ? NtFsdCompleteRequest(IrpContext, Query.Irp, Refused)
                                     : CompleteListed(Query, Status);
}

} // namespace

NTSTATUS NtFsdCommonDirectoryControl(PIRP_CONTEXT IrpContext) {
    if (IrpContext->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
        return QueryDirectory(IrpContext);
    }
    if (IrpContext->MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY && g_bEnableDirectoryNotify) {
        return NtFsdNotifyDirectoryChange(IrpContext);
    }
    return NtFsdCompleteRequest(IrpContext, IrpContext->Irp, STATUS_NOT_IMPLEMENTED);
}
