#include "create/parent_checks.h"
#include "dir/directory.h"
#include "frame/configuration.h"
#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "info/set_information.h"
#include "provider/attribute_names.h"
#include "provider/provider_calls.h"

namespace {

constexpr ULONG COUNT_BUFFER_BYTES = 576;

bool IsEndOfDirectory(NTSTATUS Status) {
    return Status == STATUS_NO_MORE_FILES || Status == STATUS_NO_SUCH_FILE || Status == STATUS_NO_MORE_ENTRIES;
}

// The records of a batch, as far as they are records; a first one without a name is none.
ULONG CountRecords(const UCHAR *Batch) {
    ULONG Count = 0;
    ULONG Offset = 0;
    DIR_RECORD Record;
    while (NtFsdParseDirRecord(Batch, COUNT_BUFFER_BYTES, Offset, false, &Record)) {
        if (Count == 0 && Record.NameBytes == 0) {
            return 0;
        }
        ++Count;
        if (Record.NextOffset == 0) {
            break;
        }
        Offset += Record.NextOffset;
    }
    return Count;
}

// A batch whose first record does not even fit is not empty.
bool FirstRecordIsCut(const UCHAR *Batch) {
    DIR_RECORD Record;
    return !NtFsdParseDirRecord(Batch, COUNT_BUFFER_BYTES, 0, false, &Record);
}

RVSTATUS ModifyAccess(SET_INFORMATION &Change, ULONG Options) {
    return RVFsdModifyFileAccess(Change.Security(), Change.Instance->FileHandle, Change.Instance->ProviderAccess,
                                 Change.Instance->ShareMode, Options);
}

// The open's options say whether the server holds the deletion reserved: the close judges by it.
RVSTATUS ReserveDelete(SET_INFORMATION &Change) {
    Change.Hold.Holds(&Change.Instance->Fcb->Resource);
    const ULONG Options = Change.Instance->ProviderOptions | RV_OPTION_RESERVE_DELETE;
    const RVSTATUS Result = ModifyAccess(Change, Options);
    if (Result == RVSTATUS::Success) {
        Change.Instance->ProviderOptions = Options;
    }
    return Result;
}

RVSTATUS UnreserveDelete(SET_INFORMATION &Change) {
    Change.Hold.Holds(&Change.Instance->Fcb->Resource);
    const ULONG Options = Change.Instance->ProviderOptions & ~static_cast<ULONG>(RV_OPTION_RESERVE_DELETE);
    const RVSTATUS Result = ModifyAccess(Change, Options);
    if (!RvIsError(Result)) {
        Change.Instance->ProviderOptions = Options;
    }
    return Result;
}

NTSTATUS ClearDisposition(SET_INFORMATION &Change) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "[RVFSD] NtFsdFileSetDispositionInfo clearing FCB_STATE_DELETE_DISPOSITION flag.\n");
    if (!Change.FileObject->DeletePending) {
        return STATUS_SUCCESS;
    }
    if (!Change.IsDirectory()) {
        const RVSTATUS Result = UnreserveDelete(Change);
        if (g_bFailDeleteInUseWorkaround && RvIsError(Result)) {
            NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                            "[RVFSD] NtFsdFileSetDispositionInfo converting RVFsdModifyFileAccess status 0x%08X to "
                            "STATUS_ACCESS_DENIED.\n",
                            static_cast<ULONG>(Result));
            return STATUS_ACCESS_DENIED;
        }
    }
    Change.Hold.Holds(&Change.Fcb->Resource);
    NtFsdClearOpenFlags(Change.Fcb, FCB_STATE_DELETE_DISPOSITION);
    Change.FileObject->DeletePending = FALSE;
    return STATUS_SUCCESS;
}

void MarkDisposition(SET_INFORMATION &Change) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "[RVFSD] NtFsdFileSetDispositionInfo Setting FCB_STATE_DELETE_DISPOSITION flag\n");
    Change.Hold.Holds(&Change.Fcb->Resource);
    Change.Fcb->DispositionOwner = Change.Instance->Opener;
    NtFsdSetOpenFlags(Change.Fcb, FCB_STATE_DELETE_DISPOSITION);
}

NTSTATUS SetOnDirectory(SET_INFORMATION &Change) {
    Change.Hold.Holds(&Change.Instance->Fcb->Resource);
    Change.Hold.Holds(&Change.Fcb->Resource);
    if (Change.Fcb->OpenCount != 1 || NtFsdIsVolumeRoot(Change.Fcb)) {
        return STATUS_CANNOT_DELETE; // others have it open, or it is the root of its volume
    }
    NTSTATUS Status = Change.NeedHandle();
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    const RVHANDLE Directory = Change.Instance->RelatedHandle;
    ULONG Entries = 0;
    Status = NtFsdCountDirectoryEntries(Change.IrpContext, Change.Instance, &Entries);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    if (Entries != 0) {
        return STATUS_DIRECTORY_NOT_EMPTY;
    }
    ULONG Attributes = 0;
    const RVSTATUS Result =
        RVFsdGetDirectoryInformation(Change.Security(), Directory, &Attributes, nullptr, nullptr, nullptr);
    if (!RvIsError(Result) && (Attributes & RV_ATTR_READONLY)) {
        return STATUS_CANNOT_DELETE;
    }
    // While the check is deferred nobody is denied here either: the Provider is the last judge.
    if (g_bDeferDeleteAccessCheck &&
        ErasePermissionIsNotAvailableByHandle(Change.IrpContext, Change.Instance, Directory)) {
        return STATUS_ACCESS_DENIED;
    }
    MarkDisposition(Change);
    return STATUS_SUCCESS;
}

NTSTATUS SetOnFile(SET_INFORMATION &Change) {
    const RVHANDLE File = Change.Instance->FileHandle;
    Change.Hold.Holds(&Change.Fcb->Resource);
    if (Change.Fcb->OpenCount != 1 && Change.Fcb->ShareAccess.SharedDelete == 0) {
        return STATUS_CANNOT_DELETE;
    }
    ULONG Attributes = 0;
    RVSTATUS Result = RVFsdGetFileInformation(Change.Security(), File, &Attributes, nullptr);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "NtFsdFileSetDispositionInfo determined file attributes are %s%s%s%s%s%s%s%s%s%s%s (0x%08X) with "
                    "status 0x%08X for FCB 0x%p (\"%wZ\").\n",
                    RV_ATTRIBUTE_NAME_ARGUMENTS(RvAttributeNames(Attributes)), Attributes, static_cast<ULONG>(Result),
                    Change.Fcb, &Change.Fcb->FullPath);
    if (!RvIsError(Result) && (Attributes & RV_ATTR_READONLY)) {
        return STATUS_CANNOT_DELETE;
    }
    if (g_bDeferDeleteAccessCheck && ErasePermissionIsNotAvailableByHandle(Change.IrpContext, Change.Instance, File)) {
        return STATUS_ACCESS_DENIED;
    }
    Result = ReserveDelete(Change);
    if (g_bFailDeleteInUseWorkaround && Result != RVSTATUS::Success) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[RVFSD] NtFsdFileSetDispositionInfo converting RVFsdModifyFileAccess status 0x%08X to "
                        "STATUS_SHARING_VIOLATION.\n",
                        static_cast<ULONG>(Result));
        return STATUS_SHARING_VIOLATION;
    }
    MarkDisposition(Change);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NtFsdCountDirectoryEntries(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance, PULONG Count) {
    *Count = 0;
    // Zeroed: a Provider that fills nothing has found nothing.
    PoolPointer<UCHAR> Batch(static_cast<UCHAR *>(TwAllocMemory(COUNT_BUFFER_BYTES)));
    if (!Batch) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG ResumeKey = 0;
    const RVSTATUS Result = RVFsdEnumerateDirectory(&IrpContext->SecurityContext, Instance->RelatedHandle, nullptr, 1,
                                                    &ResumeKey, COUNT_BUFFER_BYTES, Batch.Get());
    if (RvIsError(Result)) {
        const NTSTATUS Status = NtFsdTranslateResult(Result);
        if (Status == STATUS_BUFFER_OVERFLOW) {
            *Count = 1; // one entry whose name does not fit is one entry
            return STATUS_SUCCESS;
        }
        return IsEndOfDirectory(Status) ? STATUS_SUCCESS : Status;
    }
    *Count = FirstRecordIsCut(Batch.Get()) ? 1 : CountRecords(Batch.Get());
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdFileSetDispositionInfo(SET_INFORMATION &Change) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileSetDispositionInfo()...\n");
    if (Change.Buffer[0] == FALSE) {
        return ClearDisposition(Change);
    }
    if (Change.FileObject->DeletePending) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[RVFSD] NtFsdFileSetDispositionInfo Delete has already been successfully requested.\n");
        return STATUS_SUCCESS;
    }
    const NTSTATUS Status = Change.IsDirectory() ? SetOnDirectory(Change) : SetOnFile(Change);
    if (Status == STATUS_SUCCESS) {
        Change.FileObject->DeletePending = TRUE;
    }
    return Status;
}
