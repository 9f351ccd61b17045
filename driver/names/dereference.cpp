#include "dir/notify.h"
#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "names/fcb.h"
#include "provider/provider_calls.h"

namespace {

// The delete that waited for the last open, by full path: the open's own handles are closed or belong to a failed
// create.
NTSTATUS DeleteByFullPath(PIRP_CONTEXT IrpContext, PFCB Fcb, ResourceHold &Hold) HOLDING(Fcb->Resource) {
    NtFsdDebugPrint(TRACE_FCB, 0, "   Deleting file/directory on close.\n");
    const bool IsDirectory = Fcb->OpenType == OPEN_TYPE_DIRECTORY;
    RV_SECURITY_CONTEXT *Security = &IrpContext->SecurityContext;
    RVSTATUS Result;
    {
        const ActForDeletionOwner Owner(IrpContext, Fcb);
        Result = IsDirectory ? RVFsdDeleteDirectory(Security, 0, Fcb->FullPath.Buffer)
                             : RVFsdDeleteFile(Security, 0, Fcb->FullPath.Buffer);
    }
    NTSTATUS Status = NtFsdTranslateResult(Result);
    if (Status == STATUS_OBJECT_PATH_NOT_FOUND) {
        Status = STATUS_SUCCESS;
    }
    if (Status == STATUS_NO_SUCH_FILE && IsDirectory) {
        NtFsdDebugPrint(TRACE_FCB, 0, "      Hit wierd case where lazy close directory gone.\n");
        Status = STATUS_SUCCESS;
    }
    if (Status == STATUS_SUCCESS) {
        Ignore(NtFsdNotifyChange(IrpContext, Fcb, 1, Hold), "whether anybody watches does not matter");
        NtFsdSetOpenFlags(Fcb, FCB_STATE_DELETED);
    }
    return Status;
}

NTSTATUS PendingDelete(PIRP_CONTEXT IrpContext, PFCB Fcb, ResourceHold &Hold) HOLDING(Fcb->Resource) {
    if (Fcb->OpenFlags & FCB_STATE_DELETE_DISPOSITION) {
        NtFsdSetOpenFlags(Fcb, FCB_STATE_DELETE_ON_CLOSE);
    }
    if (!(Fcb->OpenFlags & FCB_STATE_DELETE_ON_CLOSE)) {
        return STATUS_SUCCESS;
    }
    // A volume root is never deleted, whatever its flags say.
    const NTSTATUS Status = NtFsdIsVolumeRoot(Fcb) ? STATUS_CANNOT_DELETE : DeleteByFullPath(IrpContext, Fcb, Hold);
    NtFsdClearOpenFlags(Fcb, FCB_STATE_DELETE_DISPOSITION | FCB_STATE_DELETE_ON_CLOSE);
    return Status;
}

} // namespace

VOID NtFsdFreeInstance(PINSTANCE_CONTEXT Instance) {
    NtFsdEndBorrowing(Instance);
    NtFsdNobodyElse(Instance->SearchLock);
    if (Instance->EnumBuffer != nullptr) {
        NtFsdDebugPrint(TRACE_FCB, 0, "   Freeing dangling directory entries.\n");
        TwFreeMemory(Instance->EnumBuffer);
    }
    TwFreeMemory(Instance->SearchMask);
    ExFreePoolWithTag(Instance, 0);
}

NTSTATUS TwSupDereference(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, BOOLEAN *FcbFreed,
                          ResourceHold &Hold) {
    if (Fcb == nullptr) {
        NtFsdDebugPrint(TRACE_FCB, 0, " TwSupDereference FCB called with NULL FCB!");
        if (Instance != nullptr) {
            NtFsdFreeInstance(Instance);
        }
        *FcbFreed = TRUE;
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS Status = Fcb->OpenCount == 1 ? PendingDelete(IrpContext, Fcb, Hold) : STATUS_SUCCESS;

    const PFILE_OBJECT FileObject = IrpContext->FileObject;
    RemoveEntryList(&Instance->Links);
    if (FileObject != nullptr) {
        FileObject->FsContext2 = nullptr;
    }
    NtFsdFreeInstance(Instance);
    if (Fcb->OpenCount != 0) {
        --Fcb->OpenCount;
    }
    const BOOLEAN Last = Fcb->OpenCount == 0;
    if (Last) {
        if (FileObject != nullptr) {
            FileObject->FsContext = nullptr;
            FileObject->FsContext2 = nullptr;
        }
        NtFsdDeleteFcb(Fcb, Hold);
    }
    if (FcbFreed != nullptr) {
        *FcbFreed = Last;
    }
    return Status;
}
