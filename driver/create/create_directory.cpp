#include "create/create_state.h"
#include "create/parent_checks.h"

namespace {

// Marks the FCB as a directory below its volume. A volume root keeps saying that its path was resolved: its listings
// have no dot entries.
void MarkDirectory(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource) {
    NtFsdSetOpenType(Create.Fcb, OPEN_TYPE_DIRECTORY);
    if (!NtFsdIsVolumeRoot(Create.Fcb)) {
        NtFsdSetVolumeResolved(Create.Fcb, 0);
    }
}

void StoreDirectoryHandle(CREATE_STATE &Create, ProviderDirectory &Directory) HOLDING(Create.Instance->Fcb->Resource) {
    NtFsdDebugPrint(TRACE_CREATE, 0, "Setting Dir Handle to 0x%x\n", LowPart(Directory.Get()));
    Create.Instance->RelatedHandle = Directory.Get();
    NtFsdSetDirHandle(Create.Instance, Directory.Detach());
}

// The end of an open that reached its directory.
NTSTATUS FinishDirectoryOpen(CREATE_STATE &Create, ProviderDirectory &Directory)
    HOLDING(Create.Fcb->Resource, Create.Instance->Fcb->Resource) {
    // The server's object changed its kind under a file that others have open: their FCB stays a file's.
    if (Create.Shared && Create.Fcb->OpenType != OPEN_TYPE_DIRECTORY) {
        Directory.CloseNow();
        return FailCreate(Create, STATUS_NOT_A_DIRECTORY, FILE_EXISTS);
    }
    if (EraseCheckWanted(Create) &&
        ErasePermissionIsNotAvailableByHandle(Create.IrpContext, Create.Instance, Directory.Get())) {
        Directory.CloseNow();
        return STATUS_ACCESS_DENIED;
    }
    StoreDirectoryHandle(Create, Directory);
    Create.Information = FILE_OPENED;
    MarkDirectory(Create);
    return STATUS_SUCCESS;
}

// The failure of a directory call as the caller sees it: a missing parent and a missing name are told apart.
NTSTATUS DirectoryFailure(CREATE_STATE &Create, NTSTATUS Status, PCSTR ActionName) {
    PCUNICODE_STRING FullPath = &Create.Fcb->FullPath;
    if (ParentEntryDoesNotExist(Create.IrpContext, FullPath) == STATUS_SUCCESS) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdCommonCreate \"%wZ\" STATUS_OBJECT_PATH_NOT_FOUND in %s case due to "
                        "ParentEntryDoesNotExist.\n",
                        FullPath, ActionName);
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    if (Status == STATUS_NO_SUCH_FILE) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "[RVFSD] NtFsdCommonCreate \"%wZ\" STATUS_OBJECT_NAME_NOT_FOUND in %s case.\n",
                        FullPath, ActionName);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NtFsdDebugPrint(TRACE_CREATE, 0, "[RVFSD] NtFsdCommonCreate \"%wZ\" status 0x%08X in %s case.\n", FullPath,
                    static_cast<ULONG>(Status), ActionName);
    return Status;
}

bool EraseDeniedByPath(CREATE_STATE &Create) {
    return EraseCheckWanted(Create) &&
           ErasePermissionIsNotAvailableByPath(Create.IrpContext, Create.Instance, &Create.Fcb->FullPath, TRUE);
}

NTSTATUS OpenDirectoryAtProvider(CREATE_STATE &Create, ProviderDirectory &Directory)
    HOLDING(Create.Instance->Fcb->Resource) {
    const RVSTATUS Result = RVFsdOpenDirectory(Create.Security(), Create.Instance->RelatedHandle,
                                               Create.Instance->PathLeft, Directory.Out());
    return OpenResult(Result, Directory.Get());
}

NTSTATUS CreateDirectoryAtProvider(CREATE_STATE &Create) HOLDING(Create.Instance->Fcb->Resource) {
    return CallResult(
        RVFsdCreateDirectory(Create.Security(), Create.Instance->RelatedHandle, Create.Instance->PathLeft));
}

NTSTATUS OpenExistingDirectory(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource, Create.Instance->Fcb->Resource) {
    if (Create.NonDirectoryFile) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "ERROR : Trying ACTION_OPEN_DIR on  a file \n");
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    ProviderDirectory Directory(Create.Security());
    const NTSTATUS Status = OpenDirectoryAtProvider(Create, Directory);
    if (Status != STATUS_SUCCESS) {
        return DirectoryFailure(Create, Status, "ACTION_OPEN_DIR");
    }
    return FinishDirectoryOpen(Create, Directory);
}

// The new directory is not opened; the first request that needs a handle of it opens one.
NTSTATUS CreateNewDirectory(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource, Create.Instance->Fcb->Resource) {
    if (Create.NonDirectoryFile) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "ERROR : Trying ACTION_CREATE_DIR on a file  \n");
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (Create.Shared) {
        return FailCreate(Create, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS);
    }
    if (EraseDeniedByPath(Create)) {
        return STATUS_ACCESS_DENIED;
    }
    const NTSTATUS Status = CreateDirectoryAtProvider(Create);
    if (Status == STATUS_OBJECT_NAME_COLLISION) {
        return FailCreate(Create, Status, FILE_EXISTS);
    }
    if (Status != STATUS_SUCCESS) {
        return DirectoryFailure(Create, Status, "ACTION_CREATE_DIR");
    }
    Create.EntryCreated = true;
    Create.Information = FILE_CREATED;
    MarkDirectory(Create);
    return STATUS_SUCCESS;
}

NTSTATUS OpenOrCreateDirectory(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource, Create.Instance->Fcb->Resource) {
    if (Create.NonDirectoryFile) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "ERROR : Trying ACTION_CREATE_OPEN_DIR on a file as directory \n");
        return STATUS_FILE_IS_A_DIRECTORY;
    }
    if (Create.Shared) {
        if (Create.Fcb->OpenType != OPEN_TYPE_DIRECTORY) {
            return FailCreate(Create, STATUS_NOT_A_DIRECTORY, FILE_EXISTS);
        }
        Create.Information = FILE_OPENED;
    }
    ProviderDirectory Directory(Create.Security());
    if (OpenDirectoryAtProvider(Create, Directory) == STATUS_SUCCESS) {
        return FinishDirectoryOpen(Create, Directory);
    }
    Directory.CloseNow();

    if (EraseDeniedByPath(Create)) {
        return STATUS_ACCESS_DENIED;
    }
    if (CreateDirectoryAtProvider(Create) != STATUS_SUCCESS) {
        return FailCreate(Create, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS);
    }
    Create.Information = FILE_CREATED;
    MarkDirectory(Create);
    const RVSTATUS Reopened = RVFsdOpenDirectory(Create.Security(), Create.Instance->RelatedHandle,
                                                 Create.Instance->PathLeft, Directory.Out());
    if (Reopened == RVSTATUS::Success && Directory.Get() != 0) {
        StoreDirectoryHandle(Create, Directory);
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS PerformDirectoryAction(CREATE_STATE &Create) {
    switch (Create.Action) {
    case ACTION_OPEN_DIR:
        return OpenExistingDirectory(Create);
    case ACTION_CREATE_DIR:
        return CreateNewDirectory(Create);
    default:
        return OpenOrCreateDirectory(Create);
    }
}
