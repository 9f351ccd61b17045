#include "close/close.h"

#include "close/share_claim.h"
#include "dir/notify.h"
#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "provider/attribute_names.h"
#include "provider/provider_calls.h"

namespace {

struct CLOSE {
    PIRP_CONTEXT IrpContext;
    PFILE_OBJECT FileObject;
    PFCB Fcb;
    PINSTANCE_CONTEXT Instance;
    ResourceHold Table; // FcbTableResource
    ResourceHold Hold;  // the FCB's Resource
    NTSTATUS Status = STATUS_SUCCESS;

    PRV_SECURITY Security() const {
        return &IrpContext->SecurityContext;
    }
    bool IsOpenDirectory() const HOLDING(Instance->Fcb->Resource) {
        return NtFsdReadOpenType(Fcb) == OPEN_TYPE_DIRECTORY && Instance->DirHandle != 0;
    }
    // Only the last open deletes.
    bool Deletes() const HOLDING(Fcb->Resource) {
        return Fcb->OpenCount == 1 && (Fcb->OpenFlags & FCB_STATE_DELETE_ON_CLOSE) != 0;
    }
};

// How often a close tries for both resources before it waits for the second with the first in its hand.
constexpr ULONG TRIES = 16;

// Both resources or none. Creates need FcbTableResource: while the file is busy it is given back and tried again, until
// the tries are used up.
bool AcquireAll(CLOSE &Close) {
    const BOOLEAN MayWait = Close.IrpContext->MayWait();
    for (ULONG Try = 0;; ++Try) {
        const BOOLEAN Wait = MayWait && Try == TRIES;
        if (!Close.Table.AcquireExclusive(&FcbTableResource, MayWait)) {
            return false;
        }
        // Opens that borrow this one's handle lose it. Their FCBs are taken one by one, before this one's.
        if (NtFsdRebaseBorrowers(Close.Instance, Wait) && Close.Hold.AcquireExclusive(&Close.Fcb->Resource, Wait)) {
            return true;
        }
        Close.Table.Release();
        if (!MayWait) {
            return false;
        }
        ResourceHold Busy; // the FCB stays: this open is one of its
        Busy.AcquireExclusive(&Close.Fcb->Resource, TRUE);
    }
}

void ClearReadOnly(const CLOSE &Close, bool IsDirectory) {
    const RVHANDLE Handle = IsDirectory ? Close.Instance->RelatedHandle : Close.Instance->FileHandle;
    ULONG Attributes = 0;
    const RVSTATUS Status =
        IsDirectory ? RVFsdGetDirectoryInformation(Close.Security(), Handle, &Attributes, nullptr, nullptr, nullptr)
                    : RVFsdGetFileInformation(Close.Security(), Handle, &Attributes, nullptr);
    NtFsdDebugPrint(TRACE_GENERAL, 0,
                    "NtFsdCommonClose %s attributes are %s%s%s%s%s%s%s%s%s%s%s(0x%08X) and status 0x%08X for FCB 0x%p "
                    "(\"%wZ\").\n",
                    IsDirectory ? "directory" : "file", RV_ATTRIBUTE_NAME_ARGUMENTS(RvAttributeNames(Attributes)),
                    Attributes, static_cast<ULONG>(Status), Close.Fcb, &Close.Fcb->FullPath);
    if (RvIsError(Status) || !(Attributes & RV_ATTR_READONLY)) {
        return;
    }
    Attributes &= ~static_cast<ULONG>(RV_ATTR_READONLY);
    const auto Set = IsDirectory ? RVFsdSetDirectoryInformation : RVFsdSetFileInformation;
    Ignore(Set(Close.Security(), Handle, &Attributes, nullptr, nullptr, nullptr), "the delete tells");
}

// A read-only object cannot be deleted; the attribute goes while there is still a handle.
void PrepareDelete(const CLOSE &Close) HOLDING(Close.Fcb->Resource, Close.Instance->Fcb->Resource) {
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCommonClose saw %s for FCB 0x%p (\"%wZ\").\n",
                    (Close.Fcb->OpenFlags & FCB_STATE_DELETE_DISPOSITION) ? "FCB_STATE_DELETE_DISPOSITION"
                                                                          : "FCB_STATE_DELETE_ON_CLOSE",
                    Close.Fcb, &Close.Fcb->FullPath);
    const ActForDeletionOwner Owner(Close.IrpContext, Close.Fcb);
    if (Close.IsOpenDirectory()) {
        ClearReadOnly(Close, true);
    } else if (Close.Instance->FileHandle != 0) {
        ClearReadOnly(Close, false);
    }
}

// Goes by the handles, which are of what was opened: the FCB may count as something else by now.
void CloseObjectHandles(CLOSE &Close) {
    const PINSTANCE_CONTEXT Instance = Close.Instance;
    Close.Hold.Holds(&Instance->Fcb->Resource);
    if (Instance->FileHandle != 0) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "Closing File 0x%x\n", LowPart(Instance->FileHandle));
        Close.Status = NtFsdTranslateResult(RVFsdCloseFile(Close.Security(), Instance->FileHandle));
    }
    if (Instance->DirHandle != 0) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "Closing Directory 0x%x\n", LowPart(Instance->DirHandle));
        Ignore(RVFsdCloseDirectory(Close.Security(), Instance->DirHandle), "nobody can use the handle again");
    }
}

// Asks the Provider for the delete; FALSE, without a call, for the root of a volume, also for an open that was made
// before it became one.
bool DeleteObject(CLOSE &Close) HOLDING(Close.Fcb->Resource) {
    const PINSTANCE_CONTEXT Instance = Close.Instance;
    Close.Hold.Holds(&Instance->Fcb->Resource);
    if (Instance->PathLeft == nullptr || Instance->PathLeft[0] == 0 || NtFsdIsVolumeRoot(Close.Fcb)) {
        return false;
    }
    bool IsDirectory = Close.Fcb->OpenType == OPEN_TYPE_DIRECTORY;
    if (IsDirectory && Instance->DirHandle != 0) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "Deleting Dir 0x%x\n", LowPart(Instance->DirHandle));
    } else if (Instance->FileHandle != 0) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "Deleting File 0x%x\n", LowPart(Instance->FileHandle));
        IsDirectory = false;
    }
    const ActForDeletionOwner Owner(Close.IrpContext, Close.Fcb);
    const RVSTATUS Status = IsDirectory
                                ? RVFsdDeleteDirectory(Close.Security(), Instance->BaseHandle, Instance->PathLeft)
                                : RVFsdDeleteFile(Close.Security(), Instance->BaseHandle, Instance->PathLeft);
    Close.Status = NtFsdTranslateResult(Status);
    return true;
}

// What the status of the delete means. TRUE: the object is gone.
bool JudgeDelete(CLOSE &Close) HOLDING(Close.Fcb->Resource, Close.Instance->Fcb->Resource) {
    switch (Close.Status) {
    case STATUS_SUCCESS:
        return true;
    case STATUS_NO_SUCH_FILE:
        if (Close.Fcb->OpenType == OPEN_TYPE_DIRECTORY) {
            NtFsdDebugPrint(TRACE_GENERAL, 0, "      Hit wierd case where lazy close directory gone.\n");
            Close.Status = STATUS_SUCCESS;
            return true;
        }
        // Where deletion was reserved, the server has deleted the file as its handle was closed.
        return (Close.Instance->ProviderOptions & RV_OPTION_RESERVE_DELETE) != 0;
    case STATUS_OBJECT_PATH_NOT_FOUND:
        Close.Status = STATUS_SHARING_VIOLATION;
        return false;
    default:
        return false;
    }
}

void DeleteOnClose(CLOSE &Close) {
    NtFsdDebugPrint(TRACE_GENERAL, 0, "   Deleting file/directory on close.\n");
    Close.Hold.Holds(&Close.Fcb->Resource);
    Close.Hold.Holds(&Close.Instance->Fcb->Resource);
    if (DeleteObject(Close) && JudgeDelete(Close)) {
        Ignore(NtFsdNotifyChange(Close.IrpContext, Close.Fcb, 1, Close.Hold), "watchers are told if they can be");
        NtFsdSetOpenFlags(Close.Fcb, FCB_STATE_DELETED);
    }
    // Whatever came of it, it is not tried again.
    NtFsdClearOpenFlags(Close.Fcb, FCB_STATE_DELETE_ON_CLOSE | FCB_STATE_DELETE_DISPOSITION);
}

void CloseVolumeHandle(CLOSE &Close) {
    const PINSTANCE_CONTEXT Instance = Close.Instance;
    if (Instance->VolumeHandle == 0) {
        return;
    }
    NtFsdDebugPrint(TRACE_GENERAL, 0, "Closing Volume 0x%x\n", LowPart(Instance->VolumeHandle));
    const RVSTATUS Status = RVFsdCloseVolume(Close.Security(), Instance->VolumeHandle);
    if (RvIsError(Status)) {
        Close.Status = NtFsdTranslateResult(Status);
    } else {
        Instance->VolumeHandle = 0;
    }
}

void Dereference(CLOSE &Close) {
    Close.Table.Holds(&FcbTableResource);
    Close.Hold.Holds(&Close.Fcb->Resource);
    // The cleanup of an FCB's only open leaves its claim of shares; opens that have come since must not be refused for
    // it.
    if (Close.Fcb->OpenCount > 1) {
        NtFsdRemoveShareClaim(Close.Fcb, Close.FileObject);
    }
    BOOLEAN FcbFreed = FALSE;
    Ignore(TwSupDereference(Close.IrpContext, Close.Fcb, Close.Instance, &FcbFreed, Close.Hold),
           "the delete is already done");
    if (!FcbFreed) {
        Close.Hold.Release();
    }
    Close.Table.Release();
}

// The work of a close whose resources are held.
void EndOpen(CLOSE &Close) {
    Close.Hold.Holds(&Close.Fcb->Resource);
    Close.Hold.Holds(&Close.Instance->Fcb->Resource);
    if (Close.Fcb->OpenCount == 1 && (Close.Fcb->OpenFlags & FCB_STATE_DELETE_DISPOSITION)) {
        NtFsdSetOpenFlags(Close.Fcb, FCB_STATE_DELETE_ON_CLOSE);
    }
    if (Close.Deletes()) {
        PrepareDelete(Close);
    }
    CloseObjectHandles(Close);
    NtFsdDebugPrint(TRACE_GENERAL, 0, "   FCB Open Count = %d\n", Close.Fcb->OpenCount);
    NtFsdDebugPrint(TRACE_GENERAL, 0, "   pFcb = 0x%x, pFcb->OpenFlags = 0x%x\n", LowPart(Close.Fcb),
                    Close.Fcb->OpenFlags);
    if (Close.Deletes()) {
        DeleteOnClose(Close);
    }
    CloseVolumeHandle(Close);
    Dereference(Close);
}

// FALSE for an instance that no open was ever made of. Asks for Fcb, which is set once: Links may be read under a lock
// only, as neighbours change it.
bool IsLinked(PINSTANCE_CONTEXT Instance) {
    return Instance->Fcb != nullptr;
}

NTSTATUS Finish(PIRP_CONTEXT IrpContext, PFILE_OBJECT FileObject, NTSTATUS Status) {
    FileObject->SectionObjectPointer = nullptr;
    FileObject->FsContext = nullptr;
    FileObject->FsContext2 = nullptr;
    IrpContext->Information = 0;
    return NtFsdCompleteRequest(IrpContext, IrpContext->Irp, Status);
}

} // namespace

VOID NtFsdFreeOrphanInstance(PFILE_OBJECT FileObject) {
    const auto Instance = static_cast<PINSTANCE_CONTEXT>(FileObject->FsContext2);
    if (Instance == nullptr || FileObject->FsContext != nullptr) {
        return;
    }
    FileObject->FsContext2 = nullptr;
    if (!IsLinked(Instance)) {
        return;
    }
    const ExclusiveHold Table(&FcbTableResource);
    RemoveEntryList(&Instance->Links);
    NtFsdFreeInstance(Instance);
}

NTSTATUS NtFsdCommonClose(PIRP_CONTEXT IrpContext) {
    const PFILE_OBJECT FileObject = IrpContext->FileObject;
    if (!NtFsdIsFcb(FileObject->FsContext)) {
        NtFsdFreeOrphanInstance(FileObject);
        return Finish(IrpContext, FileObject, STATUS_UNSUCCESSFUL);
    }
    const auto Instance = static_cast<PINSTANCE_CONTEXT>(FileObject->FsContext2);
    if (Instance == nullptr || !IsLinked(Instance)) {
        return Finish(IrpContext, FileObject, STATUS_SUCCESS); // it is no open: there is nothing to end
    }
    CLOSE Close = {.IrpContext = IrpContext,
                   .FileObject = FileObject,
                   .Fcb = static_cast<PFCB>(FileObject->FsContext),
                   .Instance = Instance,
                   .Table = {},
                   .Hold = {}};
    NtFsdDebugPrint(TRACE_GENERAL, 0, "Close File FCB = 0x%p\n", Close.Fcb);
    NtFsdDebugPrint(TRACE_GENERAL, 0, "FileName           = %ls\n", NtFsdStablePath(Close.Fcb)->Buffer);
    if (!AcquireAll(Close)) {
        return NtFsdPostRequest(IrpContext); // pending, whatever becomes of it: a close is always run
    }
    EndOpen(Close);
    return Finish(IrpContext, FileObject, Close.Status);
}
