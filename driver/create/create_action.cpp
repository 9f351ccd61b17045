#include "create/create_state.h"
#include "create/parent_checks.h"

NTSTATUS NtFsdActionFromDisposition(BOOLEAN DirectoryFlag, BOOLEAN NonDirectoryFlag, ULONG Disposition, PULONG Action) {
    if (!DirectoryFlag && !NonDirectoryFlag) {
        return STATUS_UNSUCCESSFUL;
    }
    if (Disposition >= DISPOSITION_COUNT) {
        return STATUS_INVALID_PARAMETER;
    }
    const DISPOSITION_ROW &Row = DISPOSITIONS[Disposition];
    *Action = DirectoryFlag ? Row.DirectoryAction : Row.FileAction;
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdGetEntryType(PIRP_CONTEXT IrpContext, RVHANDLE BaseHandle, PCWSTR Path, PULONG EntryType) {
    NtFsdDebugPrint(TRACE_CREATE, 0, "Getting Entry Type for %ws\n", Path);
    PRV_SECURITY Security = &IrpContext->SecurityContext;
    ProviderDirectory Directory(Security);
    const RVSTATUS Opened = RVFsdOpenDirectory(Security, BaseHandle, Path, Directory.Out());
    if (OpenResult(Opened, Directory.Get()) == STATUS_SUCCESS) {
        Directory.CloseNow();
        NtFsdDebugPrint(TRACE_CREATE, 0, "Path is a DIRECTORY\n");
        *EntryType = ENTRY_TYPE_DIRECTORY;
        return STATUS_SUCCESS;
    }
    Directory.CloseNow();

    constexpr RV_CREATE_PARAMETERS Question = {RV_ACCESS_ATTRIBUTES, 0, RV_DISPOSITION_QUERY, 0, 0};
    ProviderFile File(Security);
    ULONG CreateAction = 0;
    const RVSTATUS Queried = RVFsdCreateFile(Security, BaseHandle, Path, Question, File.Out(), &CreateAction);
    const NTSTATUS Status = OpenResult(Queried, File.Get());
    File.CloseNow();
    // An entry that may not be opened exists all the same.
    if (Status != STATUS_SUCCESS && Status != STATUS_ACCESS_DENIED) {
        return Status;
    }
    NtFsdDebugPrint(TRACE_CREATE, 0, "Path is a FILE\n");
    *EntryType = ENTRY_TYPE_FILE;
    return STATUS_SUCCESS;
}

namespace {

NTSTATUS AskEntryType(CREATE_STATE &Create) HOLDING(Create.Instance->Fcb->Resource) {
    return NtFsdGetEntryType(Create.IrpContext, Create.Instance->RelatedHandle, Create.Instance->PathLeft,
                             &Create.EntryType);
}

// The action when nothing bears the name and the caller did not say which kind of entry it wants.
NTSTATUS ActionOnMissingEntry(CREATE_STATE &Create) {
    if (Create.Disposition != FILE_OPEN && Create.Disposition != FILE_OVERWRITE) {
        Create.Action = ACTION_REPLACE_FILE;
        return STATUS_SUCCESS;
    }
    PCUNICODE_STRING FullPath = &Create.Fcb->FullPath;
    if (ParentEntryDoesNotExist(Create.IrpContext, FullPath) == STATUS_SUCCESS) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdCommonCreate \"%wZ\" STATUS_OBJECT_PATH_NOT_FOUND in Action case due to "
                        "ParentEntryDoesNotExist.\n",
                        FullPath);
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    NtFsdDebugPrint(TRACE_CREATE, 0, "[RVFSD] NtFsdCommonCreate \"%wZ\" STATUS_OBJECT_NAME_NOT_FOUND in Action case.\n",
                    FullPath);
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

} // namespace

NTSTATUS ChooseAction(CREATE_STATE &Create) {
    if (Create.EntryType == ENTRY_TYPE_UNKNOWN) {
        Ignore(AskEntryType(Create), "an entry that nobody could tell stays unknown, which is an answer too");
    }
    if (Create.EntryType == ENTRY_TYPE_DIRECTORY) {
        return NtFsdActionFromDisposition(TRUE, FALSE, Create.Disposition, &Create.Action);
    }
    if (Create.DirectoryFile || Create.NonDirectoryFile) {
        if (Create.DirectoryFile && Create.NonDirectoryFile) {
            NtFsdDebugPrint(TRACE_CREATE, 0, "Directory bit and NonDirectory bit are both set!\n");
        }
        return NtFsdActionFromDisposition(Create.DirectoryFile, Create.NonDirectoryFile, Create.Disposition,
                                          &Create.Action);
    }
    if (Create.EntryType == ENTRY_TYPE_UNKNOWN) {
        // Asked again, because without a type flag a failure to find out may not pass for a missing entry.
        const NTSTATUS Status = AskEntryType(Create);
        if (Status != STATUS_SUCCESS && Status != STATUS_NO_SUCH_FILE) {
            return Status;
        }
    }
    if (Create.EntryType == ENTRY_TYPE_UNKNOWN) {
        return ActionOnMissingEntry(Create);
    }
    const BOOLEAN IsDirectory = Create.EntryType == ENTRY_TYPE_DIRECTORY;
    return NtFsdActionFromDisposition(IsDirectory, !IsDirectory, Create.Disposition, &Create.Action);
}
