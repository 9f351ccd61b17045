#include "create/create.h"

#include "close/close.h"
#include "close/share_claim.h"
#include "create/create_state.h"
#include "create/target_directory.h"
#include "dir/notify.h"
#include "frame/async_queue.h"

namespace {

void ReadParameters(CREATE_STATE &Create, PIRP_CONTEXT IrpContext, PIRP Irp) {
    PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    const auto &Parameters = IrpSp->Parameters.Create;
    Create.IrpContext = IrpContext;
    Create.Irp = Irp;
    Create.IrpSp = IrpSp;
    Create.FileObject = IrpSp->FileObject;
    Create.RelatedFileObject = IrpSp->FileObject->RelatedFileObject;
    Create.Name = IrpSp->FileObject->FileName;
    Create.Name.Length &= static_cast<USHORT>(~1u); // half a character names nothing
    Create.DesiredAccess = Parameters.SecurityContext->DesiredAccess;
    Create.ShareAccess = Parameters.ShareAccess;
    Create.Options = Parameters.Options & 0xFFFFFF;
    Create.Disposition = Parameters.Options >> 24;
    Create.Attributes = Parameters.FileAttributes & RV_ATTR_SETTABLE;
    Create.AllocationSize = Irp->Overlay.AllocationSize.QuadPart;
    Create.DirectoryFile = (Create.Options & FILE_DIRECTORY_FILE) != 0;
    Create.NonDirectoryFile = (Create.Options & FILE_NON_DIRECTORY_FILE) != 0;
    Create.NoCache = (Create.Options & FILE_NO_INTERMEDIATE_BUFFERING) != 0;
    Create.DeleteOnClose = (Create.Options & FILE_DELETE_ON_CLOSE) != 0;
    Create.OpenTargetDirectory = (IrpSp->Flags & SL_OPEN_TARGET_DIRECTORY) != 0;
}

void TraceParameters(const CREATE_STATE &Create) {
    const bool OpenIf = Create.Disposition == FILE_OPEN_IF;
    const ULONG CreateDirectory = Create.DirectoryFile && (Create.Disposition == FILE_CREATE || OpenIf);
    const ULONG OpenDirectory = Create.DirectoryFile && (Create.Disposition == FILE_OPEN || OpenIf);
    NtFsdDebugPrint(TRACE_CREATE, 0, "desiredAccess = 0x%X\n", Create.DesiredAccess);
    NtFsdDebugPrint(TRACE_CREATE, 0, "shareAccess = 0x%X\n", Create.ShareAccess);
    NtFsdDebugPrint(TRACE_CREATE, 0, "Options = 0x%X\n", Create.Options);
    NtFsdDebugPrint(TRACE_CREATE, 0, "Disposition = 0x%X\n", Create.Disposition);
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCommonCreate: directoryFile = 0x%X \n",
                    static_cast<ULONG>(Create.DirectoryFile));
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCommonCreate: nonDirectoryFile = 0x%X \n",
                    static_cast<ULONG>(Create.NonDirectoryFile));
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCommonCreate: noCache = 0x%X \n", static_cast<ULONG>(Create.NoCache));
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCommonCreate: openTargetDirectory = 0x%X \n",
                    static_cast<ULONG>(Create.OpenTargetDirectory));
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCommonCreate: createDirectory = 0x%X \n", CreateDirectory);
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCommonCreate: openDirectory = 0x%X \n", OpenDirectory);
}

NTSTATUS CheckParameters(const CREATE_STATE &Create) {
    // The name of an open by identifier is 8 or 16 binary bytes: nothing that a path may be made of.
    if ((Create.Options & FILE_OPEN_BY_FILE_ID) != 0) {
        return STATUS_NOT_SUPPORTED;
    }
    return Create.Disposition < DISPOSITION_COUNT ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

void AdjustParameters(CREATE_STATE &Create) {
    const USHORT Length = NtFsdWithoutSlash(Create.Name).Length;
    Create.TrailingSlash = Length != Create.Name.Length;
    Create.Name.Length = Length;
    if ((Create.ShareAccess & FILE_SHARE_WRITE) != 0 && (Create.DesiredAccess & FILE_READ_DATA) != 0 &&
        Create.NoCache) {
        Create.ShareAccess |= FILE_SHARE_READ;
    }
}

NTSTATUS OpenTarget(CREATE_STATE &Create) {
    const NTSTATUS Status = NtFsdOpenTargetDirectory(Create.IrpContext, Create.IrpSp, &Create.Fcb, &Create.Instance,
                                                     &Create.Information, Create.Hold);
    if (Status == STATUS_SUCCESS) {
        Create.Hold.Holds(&Create.Fcb->Resource);
        Create.OpenCount = Create.Fcb->OpenCount;
        Create.Shared = Create.DirectoryFile || Create.OpenCount > 1;
        // The option names the target, not the parent that was opened in its place.
        Create.DeleteOnClose = false;
    }
    return Status;
}

// Empties the share record of the claims that handles which are cleaned up, but not closed, have left there. Only right
// when no other open is alive.
void DropDeadShareClaims(PFCB Fcb) HOLDING(Fcb->Resource) {
    for (PLIST_ENTRY Entry = Fcb->InstanceList.Flink; Entry != &Fcb->InstanceList; Entry = Entry->Flink) {
        NtFsdForgetClaimOfOpen(CONTAINING_RECORD(Entry, INSTANCE_CONTEXT, Links));
    }
    memset(&Fcb->ShareAccess, 0, sizeof(Fcb->ShareAccess));
}

NTSTATUS FindFcb(CREATE_STATE &Create) {
    const NTSTATUS Status =
        NtFsdOpenFcb(Create.IrpContext, Create.RelatedFileObject, &Create.Name, &Create.Fcb, &Create.Instance,
                     &Create.OpenCount, &Create.EntryType, Create.Hold, &Create.Before);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    PFCB Fcb = Create.Fcb;
    PINSTANCE_CONTEXT Instance = Create.Instance;
    Create.Hold.Holds(&Fcb->Resource);
    NtFsdSameLock(Fcb, Instance);
    NtFsdDebugPrint(TRACE_CREATE, 0, "FCB Open Count         = %d\n", Create.OpenCount);
    NtFsdDebugPrint(TRACE_CREATE, 0, "reference Count        = %d\n", Create.OpenCount);
    NtFsdDebugPrint(TRACE_CREATE, 0, "Instance Dir Handle    = 0x%x\n", LowPart(Instance->DirHandle));
    NtFsdDebugPrint(TRACE_CREATE, 0, "Instance Volume Handle = 0x%x\n", LowPart(Instance->VolumeHandle));
    NtFsdDebugPrint(TRACE_CREATE, 0, "Instance pPathLeft     = \"%ls\"\n", static_cast<PCWSTR>(Instance->PathLeft));
    NtFsdDebugPrint(TRACE_CREATE, 0, "FCB full path          = \"%wZ\"\n", &Fcb->FullPath);
    Create.Shared = Create.OpenCount > 1 && Fcb->OpenType != OPEN_TYPE_UNKNOWN;
    Instance->TrailingSlash = Create.TrailingSlash;
    if (!Create.Shared) {
        IoSetShareAccess(Create.DesiredAccess, Create.ShareAccess, Create.FileObject, &Fcb->ShareAccess);
        return STATUS_SUCCESS;
    }
    if (Fcb->UncleanCount == 1) {
        DropDeadShareClaims(Fcb);
    }
    const bool IsFile = Fcb->OpenType == OPEN_TYPE_FILE;
    Create.EntryType = IsFile ? ENTRY_TYPE_FILE : ENTRY_TYPE_DIRECTORY;
    NtFsdDebugPrint(TRACE_CREATE, 0, "Existing FCB found! Type = %s\n", IsFile ? "FILE" : "DIR");
    return STATUS_SUCCESS;
}

// What the open has proved to be one of ours must be a directory, once a name is sought below it.
NTSTATUS CheckRelatedIsDirectory(const CREATE_STATE &Create) HOLDING(Create.Instance->Fcb->Resource) {
    if (Create.RelatedFileObject != nullptr && Create.Name.Length != 0) {
        const FCB *Related = static_cast<const FCB *>(Create.RelatedFileObject->FsContext);
        if (NtFsdReadOpenType(Related) != OPEN_TYPE_DIRECTORY) {
            return STATUS_NOT_A_DIRECTORY;
        }
    }
    NtFsdDebugPrint(TRACE_CREATE, 0, "Instance Related Handle = 0x%x\n", LowPart(Create.Instance->RelatedHandle));
    return STATUS_SUCCESS;
}

// A volume root needs no handle but its volume's, which the instance has.
NTSTATUS OpenVolumeRoot(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource) {
    if (Create.TrailingSlash && Create.NonDirectoryFile) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "Error : Can not open Directory as a file \n");
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (Create.DeleteOnClose) {
        return STATUS_CANNOT_DELETE;
    }
    // The path became a volume's under a file that others have open: their FCB stays a file's.
    if (Create.Shared && Create.Fcb->OpenType != OPEN_TYPE_DIRECTORY) {
        return FailCreate(Create, STATUS_NOT_A_DIRECTORY, FILE_EXISTS);
    }
    NtFsdSetOpenType(Create.Fcb, OPEN_TYPE_DIRECTORY);
    Create.Information = FILE_OPENED;
    NtFsdDebugPrint(TRACE_CREATE, 0, "Successfully Opened Volume root. Exiting...\n");
    return STATUS_SUCCESS;
}

NTSTATUS CheckDelete(const CREATE_STATE &Create) HOLDING(Create.Fcb->Resource) {
    if ((Create.Fcb->OpenFlags & FCB_STATE_DELETE_DISPOSITION) != 0) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdCommonCreate STATUS_ACCESS_DENIED on \"%wZ\" due to "
                        "FCB_STATE_DELETE_DISPOSITION flag.\n",
                        &Create.Fcb->FullPath);
        return STATUS_DELETE_PENDING;
    }
    if (!Create.DeleteOnClose) {
        return STATUS_SUCCESS;
    }
    if ((Create.DesiredAccess & DELETE) == 0) {
        return STATUS_ACCESS_DENIED;
    }
    return NtFsdIsVolumeRoot(Create.Fcb) ? STATUS_CANNOT_DELETE : STATUS_SUCCESS;
}

NTSTATUS OpenPath(CREATE_STATE &Create) {
    NTSTATUS Status = FindFcb(Create);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    Create.Hold.Holds(&Create.Fcb->Resource);
    Create.Hold.Holds(&Create.Instance->Fcb->Resource);
    Status = CheckRelatedIsDirectory(Create);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    if (Create.RelatedFileObject == nullptr && Create.Instance->PathLeft[0] == 0) {
        return OpenVolumeRoot(Create);
    }
    Status = ChooseAction(Create);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    Status = CheckDelete(Create);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    return Create.Action <= ACTION_OVERWRITE_FILE ? PerformFileAction(Create) : PerformDirectoryAction(Create);
}

// What all opens of a share record allow, as one share mode.
ULONG CommonShareMode(const SHARE_ACCESS &Record) {
    return (Record.SharedRead == Record.OpenCount ? FILE_SHARE_READ : 0) |
           (Record.SharedWrite == Record.OpenCount ? FILE_SHARE_WRITE : 0) |
           (Record.SharedDelete == Record.OpenCount ? FILE_SHARE_DELETE : 0);
}

void RecordShareAccess(CREATE_STATE &Create) {
    if (Create.OpenCount <= 1 || Create.CheckAccess == NO_ACCESS_CHECK) {
        return;
    }
    PFCB Fcb = Create.Fcb;
    Create.Hold.Holds(&Fcb->Resource);
    const NTSTATUS Status =
        IoCheckShareAccess(Create.CheckAccess, Create.ShareAccess, Create.FileObject, &Fcb->ShareAccess, TRUE);
    if (NT_SUCCESS(Status)) {
        return;
    }
    NtFsdAlwaysPrint("[RVFSD] ERROR : IoCheckShareAccess failed for DesiredAccess 0x%X ShareAccess 0x%X for FCB "
                     "ShareAccess 0x%X; status 0x%08X on \"%wZ\".\n",
                     Create.CheckAccess, Create.ShareAccess, CommonShareMode(Fcb->ShareAccess),
                     static_cast<ULONG>(Status), &Fcb->FullPath);
    // The check noted the access in the file object before it refused: cleanup would subtract a claim that was never
    // added.
    NtFsdForgetShareClaim(Create.FileObject);
}

// Every success ends here, with the FCB's Resource held.
NTSTATUS CompleteSuccess(CREATE_STATE &Create) {
    PFCB Fcb = Create.Fcb;
    Create.Hold.Holds(&Fcb->Resource);
    Create.Hold.Holds(&Create.Instance->Fcb->Resource);
    Create.Instance->ProviderAccess = Create.ProviderAccess;
    Create.Instance->ShareMode = Create.ShareAccess;
    Create.Instance->ProviderOptions = Create.ProviderOptions;
    RecordShareAccess(Create);
    if (Fcb->OpenType == OPEN_TYPE_FILE && !Create.Shared) {
        if ((Create.DesiredAccess & FILE_EXECUTE) != 0) {
            NtFsdSetOpenFlags(Fcb, FCB_STATE_EXECUTE_ACCESS);
        }
        NtFsdInitializeFcbFileLock(Fcb);
    }
    if (Create.DeleteOnClose) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "[RVFSD] NtFsdCommonCreate FCB_STATE_DELETE_ON_CLOSE set on \"%wZ\" \n",
                        &Fcb->FullPath);
        Fcb->DeleteOnCloseOwner = Create.Instance->Opener;
        NtFsdSetOpenFlags(Fcb, FCB_STATE_DELETE_ON_CLOSE);
    }
    // Last, because it drops the Resource: an open that attaches meanwhile must find the FCB finished.
    if (Create.EntryCreated) {
        Ignore(NtFsdNotifyChange(Create.IrpContext, Fcb, 1, Create.Hold), "the entry exists, whoever watches or not");
    }
    Create.Hold.Release();
    Create.IrpContext->Information = Create.Information;
    return NtFsdCompleteRequest(Create.IrpContext, Create.Irp, STATUS_SUCCESS);
}

// Puts the FCB back to what it was before this create, for those who have it open or attach before the reference goes.
void UndoFcbChanges(CREATE_STATE &Create) {
    PFCB Fcb = Create.Fcb;
    Create.Hold.Holds(&Fcb->Resource);
    constexpr ULONG KEPT = FCB_STATE_IN_PREFIX_TABLE;
    NtFsdClearOpenFlags(Fcb, ~(Create.Before.OpenFlags | KEPT));
    NtFsdSetOpenFlags(Fcb, Create.Before.OpenFlags & ~KEPT);
    NtFsdSetVolumeResolved(Fcb, Create.Before.VolumeResolved);
    Fcb->VolumeRoot = Create.Before.VolumeRoot;
    if (!Create.Shared) {
        NtFsdInitializeFcbFileLock(Fcb);
        NtFsdRemoveShareClaim(Fcb, Create.FileObject);
        NtFsdSetOpenType(Fcb, OPEN_TYPE_UNKNOWN);
    }
    NtFsdForgetShareClaim(Create.FileObject);
    if (Fcb->OpenCount == 1) {
        NtFsdSetOpenFlags(Fcb, FCB_STATE_FIRST_OPEN_FAILED);
    }
    if (Fcb->UncleanCount != 0) {
        --Fcb->UncleanCount; // no cleanup comes for an open that failed
    }
}

void DropReference(CREATE_STATE &Create) {
    PFCB Fcb = Create.Fcb;
    PINSTANCE_CONTEXT Instance = Create.Instance;
    // The table comes before the FCB. The instance keeps the FCB alive in between.
    Create.Hold.Release();
    const ExclusiveHold Table(&FcbTableResource);
    Create.Hold.AcquireExclusive(&Fcb->Resource, TRUE);
    if (Instance->VolumeHandle != 0) {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "Closing Volume 0x%x\n", LowPart(Instance->VolumeHandle));
        if (!RvIsError(RVFsdCloseVolume(Create.Security(), Instance->VolumeHandle))) {
            Instance->VolumeHandle = 0;
        }
    }
    BOOLEAN FcbFreed = FALSE;
    Ignore(TwSupDereference(Create.IrpContext, Fcb, Instance, &FcbFreed, Create.Hold),
           "the create answers with its own failure");
    Create.FileObject->FsContext = nullptr;
    Create.FileObject->FsContext2 = nullptr;
    Create.FileObject->SectionObjectPointer = nullptr;
    if (!FcbFreed) {
        Create.Hold.Release();
    }
}

// Every failure ends here, with the FCB's Resource held when an FCB was found.
NTSTATUS CompleteFailure(CREATE_STATE &Create, NTSTATUS Status) {
    if (Create.Hold.Held()) {
        UndoFcbChanges(Create);
        DropReference(Create);
    }
    Create.IrpContext->Information = Create.Information;
    // A status that merely sounds like success would make the I/O manager take the file object for open.
    return NtFsdCompleteRequest(Create.IrpContext, Create.Irp, NT_SUCCESS(Status) ? STATUS_UNSUCCESSFUL : Status);
}

} // namespace

NTSTATUS NtFsdCommonCreate(PIRP_CONTEXT IrpContext, PIRP Irp) {
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdCommonCreate entering...\n");
    CREATE_STATE Create;
    ReadParameters(Create, IrpContext, Irp);
    NtFsdDumpCreateParameters(IrpContext, Irp, Create.IrpSp);
    TraceParameters(Create);

    NTSTATUS Status = CheckParameters(Create);
    if (Status == STATUS_SUCCESS) {
        AdjustParameters(Create);
        Status = Create.OpenTargetDirectory ? OpenTarget(Create) : OpenPath(Create);
        if (Status == STATUS_CANT_WAIT && !Create.Hold.Held()) {
            return NtFsdPostRequest(IrpContext);
        }
    }
    return Status == STATUS_SUCCESS ? CompleteSuccess(Create) : CompleteFailure(Create, Status);
}
