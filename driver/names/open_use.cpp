// What a request does with an open before it uses it: the check of the file object, and a directory's own handle.

#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "names/fcb.h"
#include "provider/provider_calls.h"

NTSTATUS NtFsdDecodeFileObject(PFILE_OBJECT FileObject, PFCB *Fcb, PINSTANCE_CONTEXT *Instance,
                               ULONG ExpectedOpenType) {
    *Fcb = static_cast<PFCB>(FileObject->FsContext);
    *Instance = static_cast<PINSTANCE_CONTEXT>(FileObject->FsContext2);
    // Nothing of a record is read before its signature is known, the path of the trace included.
    const bool IsFcb = NtFsdIsFcb(*Fcb);
    if (IsFcb) {
        NtFsdDebugPrint(TRACE_FCB, 0, " File Object: 0x%x -> \"%wZ\"\n", LowPart(FileObject), NtFsdStablePath(*Fcb));
    }
    if (*Fcb == nullptr || *Instance == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    if (!IsFcb) {
        return STATUS_INVALID_PARAMETER;
    }
    if (NtFsdReadOpenFlags(*Fcb) & FCB_STATE_DELETED) {
        return STATUS_DELETE_PENDING;
    }
    if (ExpectedOpenType != 0 && ExpectedOpenType != NtFsdReadOpenType(*Fcb)) {
        return STATUS_INVALID_PARAMETER;
    }
    return ExpectedOpenType == OPEN_TYPE_FILE && NtFsdLacksFileHandle(*Fcb, *Instance) ? STATUS_INVALID_HANDLE
                                                                                       : STATUS_SUCCESS;
}

NTSTATUS NtFsdEnsureDirectoryHandle(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance) {
    if (Instance->DirHandle != 0 || *Instance->PathLeft == 0) {
        return STATUS_SUCCESS;
    }
    ProviderDirectory Directory(&IrpContext->SecurityContext);
    const NTSTATUS Status = NtFsdTranslateResult(
        RVFsdOpenDirectory(&IrpContext->SecurityContext, Instance->BaseHandle, Instance->PathLeft, Directory.Out()));
    if (NT_SUCCESS(Status)) {
        Instance->RelatedHandle = Directory.Get();
        NtFsdSetDirHandle(Instance, Directory.Detach());
    }
    return Status;
}

namespace {

bool LacksDirectoryHandle(PFCB Fcb, PINSTANCE_CONTEXT Instance) {
    return NtFsdReadOpenType(Fcb) == OPEN_TYPE_DIRECTORY && NtFsdReadDirHandle(Instance) == 0 &&
           *NtFsdReadPathLeft(Instance) != 0;
}

} // namespace

NTSTATUS NtFsdAcquireForHandle(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, bool Exclusive,
                               ResourceHold &Hold) {
    const BOOLEAN Wait = IrpContext->MayWait();
    if (!Exclusive && !LacksDirectoryHandle(Fcb, Instance)) {
        if (!Hold.AcquireShared(&Fcb->Resource, Wait)) {
            return STATUS_CANT_WAIT;
        }
        if (!LacksDirectoryHandle(Fcb, Instance)) {
            return STATUS_SUCCESS;
        }
        Hold.Release(); // a rename has just consumed it
    }
    if (!Hold.AcquireExclusive(&Fcb->Resource, Wait)) {
        return STATUS_CANT_WAIT;
    }
    Hold.Holds(&Instance->Fcb->Resource);
    return LacksDirectoryHandle(Fcb, Instance) ? NtFsdEnsureDirectoryHandle(IrpContext, Instance) : STATUS_SUCCESS;
}
