#include "create/create_state.h"
#include "create/parent_checks.h"
#include "info/volume_size.h"
#include "io/io.h"
#include "provider/attribute_names.h"

namespace {

struct ACCESS_ROW {
    ACCESS_MASK Access;
    ULONG ProviderAccess;
    PCSTR Trace;
};

constexpr ACCESS_ROW ACCESS_ROWS[] = {
    {FILE_READ_DATA, RV_ACCESS_READ, "Set Read Access on Create\n"},
    {FILE_WRITE_DATA, RV_ACCESS_WRITE, "Set Write Access on Create\n"},
    {FILE_EXECUTE, RV_ACCESS_EXECUTE, nullptr},
    {DELETE, RV_ACCESS_DELETE | RV_ACCESS_ATTRIBUTES, nullptr},
    {FILE_APPEND_DATA, RV_ACCESS_WRITE | RV_ACCESS_ATTRIBUTES, nullptr},
    {FILE_READ_ATTRIBUTES, RV_ACCESS_ATTRIBUTES, nullptr},
};

struct OPTION_ROW {
    ULONG Option;
    ULONG ProviderOption;
};

constexpr OPTION_ROW OPTION_ROWS[] = {
    {FILE_WRITE_THROUGH, RV_OPTION_WRITE_THROUGH},          {FILE_NO_INTERMEDIATE_BUFFERING, RV_OPTION_NO_CACHE},
    {FILE_RANDOM_ACCESS, RV_OPTION_RANDOM_ACCESS},          {FILE_SEQUENTIAL_ONLY, RV_OPTION_SEQUENTIAL},
    {FILE_OPEN_FOR_BACKUP_INTENT, RV_OPTION_BACKUP_INTENT},
};

const DISPOSITION_ROW &RowOf(const CREATE_STATE &Create) {
    return DISPOSITIONS[Create.Disposition];
}

NTSTATUS CheckFileAction(CREATE_STATE &Create) {
    if (Create.Shared && (Create.Action == ACTION_OPEN_FILE || Create.Action == ACTION_REPLACE_FILE)) {
        Create.DesiredAccess |= RowOf(Create).ExtraAccess;
    }
    if (Create.Shared && Create.Action == ACTION_CREATE_NEW_FILE) {
        return FailCreate(Create, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS);
    }
    if (Create.TrailingSlash) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    return STATUS_SUCCESS;
}

void DeriveProviderArguments(CREATE_STATE &Create) {
    NtFsdDebugPrint(TRACE_CREATE, 0, "Desired NT Access 0x%X\n", Create.DesiredAccess);
    for (const ACCESS_ROW &Row : ACCESS_ROWS) {
        if ((Create.DesiredAccess & Row.Access) == 0) {
            continue;
        }
        Create.ProviderAccess |= Row.ProviderAccess;
        if (Row.Trace != nullptr) {
            NtFsdDebugPrint(TRACE_CREATE, 0, "%s", Row.Trace);
        }
    }
    if (Create.DesiredAccess == 0) {
        Create.ProviderAccess |= RV_ACCESS_ATTRIBUTES;
    }
    for (const OPTION_ROW &Row : OPTION_ROWS) {
        if ((Create.Options & Row.Option) != 0) {
            Create.ProviderOptions |= Row.ProviderOption;
        }
    }
}

NTSTATUS CheckShareAccess(CREATE_STATE &Create) {
    if (!Create.Shared) {
        return STATUS_SUCCESS;
    }
    Create.CheckAccess = Create.DesiredAccess | RowOf(Create).ExtraAccess;
    const NTSTATUS Status =
        IoCheckShareAccess(Create.CheckAccess, Create.ShareAccess, Create.FileObject, &Create.Fcb->ShareAccess, FALSE);
    if (!NT_ERROR(Status)) {
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(TRACE_CREATE, 0,
                    "ERROR : Incompatible sharing mode detected: DesiredAccess %08x\t, DesiredShareAccess %08x\t,  "
                    "Error %08x\n",
                    Create.DesiredAccess, static_cast<ULONG>(Create.IrpSp->Parameters.Create.ShareAccess),
                    static_cast<ULONG>(Status));
    return Status;
}

// Refuses a file whose announced size exceeds what the caller may still use. A volume that cannot be asked refuses
// nothing.
NTSTATUS CheckSpace(CREATE_STATE &Create) {
    PCUNICODE_STRING FullPath = &Create.Fcb->FullPath;
    if (Create.AllocationSize == 0) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdCommonCreate ACTION_CREATE_NEW_FILE for \"%wZ\"; no AllocationSize hint "
                        "provided.\n",
                        FullPath);
        return STATUS_SUCCESS;
    }
    ULONG64 VolumeLength = 0;
    ULONG64 FreeSpace = 0;
    ULONG64 QuotaAllowed = 0;
    ULONG64 FreeAfterQuota = 0;
    const NTSTATUS Status = NtFsdTranslateResult(NtQueryPhysicalTargetVolumeSizeInfo(
        Create.IrpContext, Create.Fcb, Create.Instance, &VolumeLength, &FreeSpace, &QuotaAllowed, &FreeAfterQuota));
    if (Status != STATUS_SUCCESS) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdCommonCreate pCacheHandle->lpVtbl->RVFsdGetVolumeSize() failed; status "
                        "0x%08X.\n",
                        static_cast<ULONG>(Status));
        return STATUS_SUCCESS;
    }
    if (Create.AllocationSize > static_cast<LONG64>(FreeAfterQuota)) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdCommonCreate ACTION_CREATE_NEW_FILE for \"%wZ\" requested size %I64u exceeds "
                        "available %I64u bytes; STATUS_DISK_FULL.\n",
                        FullPath, Create.AllocationSize, FreeAfterQuota);
        return STATUS_DISK_FULL;
    }
    NtFsdDebugPrint(TRACE_CREATE, 0,
                    "[RVFSD] NtFsdCommonCreate ACTION_CREATE_NEW_FILE for \"%wZ\" requested size %I64u is acceptable "
                    "due to available %I64u bytes.\n",
                    FullPath, Create.AllocationSize, FreeAfterQuota);
    return STATUS_SUCCESS;
}

// The failure of the Provider's open as the caller sees it.
NTSTATUS FileOpenFailure(CREATE_STATE &Create, NTSTATUS Status) {
    switch (Status) {
    case STATUS_OBJECT_PATH_NOT_FOUND:
        return Status;
    case STATUS_SHARING_VIOLATION:
        return FailCreate(Create, Status, FILE_EXISTS);
    case STATUS_ACCESS_DENIED:
        return FailCreate(Create, Status, FILE_SUPERSEDED);
    default:
        break;
    }
    if (Create.Action == ACTION_CREATE_NEW_FILE) {
        return FailCreate(Create, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS);
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

// Removes the file that this open has made: a create that fails leaves none behind. Closes File.
void RemoveStray(const CREATE_STATE &Create, ProviderFile &File, ULONG Attributes)
    HOLDING(Create.Instance->Fcb->Resource) {
    ULONG Writable = (Attributes | Create.Attributes) & RV_ATTR_SETTABLE;
    if ((Writable & RV_ATTR_READONLY) != 0) {
        // Being read-only, it could not be deleted.
        Writable &= ~static_cast<ULONG>(RV_ATTR_READONLY);
        Ignore(RVFsdSetFileInformation(Create.Security(), File.Get(), &Writable, nullptr, nullptr, nullptr),
               "the delete is tried all the same");
    }
    File.CloseNow();
    Ignore(RVFsdDeleteFile(Create.Security(), Create.Instance->RelatedHandle, Create.Instance->PathLeft),
           "the create answers with its own failure");
}

// An open with delete-on-close is refused for a file that may not be deleted, or of which that is not known.
NTSTATUS CheckDeleteOnClose(CREATE_STATE &Create, RVSTATUS Queried, ULONG Attributes, ProviderFile &File,
                            ULONG CreateAction) HOLDING(Create.Instance->Fcb->Resource) {
    const NTSTATUS Status = CallResult(Queried);
    const bool ReadOnly = (Attributes & RV_ATTR_READONLY) != 0;
    if (!Create.DeleteOnClose || (Status == STATUS_SUCCESS && !ReadOnly)) {
        return STATUS_SUCCESS;
    }
    if (TraceWanted(TRACE_CREATE)) {
        const RvAttributeNames Set(Attributes);
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "NtFsdCommonCreate FILE_DELETE_ON_CLOSE determined file attributes are "
                        "%s%s%s%s%s%s%s%s%s%s%s(0x%08X) with status 0x%08X for FCB 0x%p (\"%wZ\").\n",
                        RV_ATTRIBUTE_NAME_ARGUMENTS(Set), Attributes, static_cast<ULONG>(Queried), Create.Fcb,
                        &Create.Fcb->FullPath);
    }
    if (CreateAction == RV_CREATE_ACTION_CREATED) {
        RemoveStray(Create, File, Attributes);
    } else {
        File.CloseNow();
    }
    return FailCreate(Create, ReadOnly ? STATUS_CANNOT_DELETE : Status, FILE_SUPERSEDED);
}

ULONG_PTR FileInformation(const CREATE_STATE &Create, ULONG CreateAction) {
    const ULONG ProviderDisposition = RowOf(Create).ProviderDisposition;
    if (ProviderDisposition == RV_DISPOSITION_OVERWRITE_EXISTING ||
        (ProviderDisposition == RV_DISPOSITION_CREATE_OR_REPLACE && Create.Shared)) {
        return FILE_OVERWRITTEN;
    }
    switch (CreateAction) {
    case RV_CREATE_ACTION_OPENED:
        return FILE_OPENED;
    case RV_CREATE_ACTION_CREATED:
        return FILE_CREATED;
    default:
        return FILE_SUPERSEDED;
    }
}

NTSTATUS OpenFileAtProvider(CREATE_STATE &Create) HOLDING(Create.Instance->Fcb->Resource) {
    const RV_CREATE_PARAMETERS Parameters = {Create.ProviderAccess, Create.ShareAccess,
                                             RowOf(Create).ProviderDisposition, Create.ProviderOptions,
                                             Create.Attributes};
    ProviderFile File(Create.Security());
    ULONG CreateAction = 0;
    const RVSTATUS Opened = RVFsdCreateFile(Create.Security(), Create.Instance->RelatedHandle,
                                            Create.Instance->PathLeft, Parameters, File.Out(), &CreateAction);
    NTSTATUS Status = OpenResult(Opened, File.Get());
    if (Status != STATUS_SUCCESS) {
        // A note whose code is a failure: the Provider made the file all the same.
        if (!RvIsError(Opened) && File.Get() != 0 && CreateAction == RV_CREATE_ACTION_CREATED) {
            RemoveStray(Create, File, 0);
        }
        return FileOpenFailure(Create, Status);
    }

    ULONG Attributes = 0;
    ULONG64 EndOfFile = 0;
    const RVSTATUS Queried = RVFsdGetFileInformation(Create.Security(), File.Get(), &Attributes, &EndOfFile);
    Status = CheckDeleteOnClose(Create, Queried, Attributes, File, CreateAction);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    if (Queried == RVSTATUS::Success && EndOfFile <= static_cast<ULONG64>(LARGEST_OFFSET)) {
        PFCB Fcb = Create.Fcb;
        Fcb->Header.AllocationSize.QuadPart = static_cast<LONG64>(EndOfFile);
        Fcb->Header.FileSize.QuadPart = static_cast<LONG64>(EndOfFile);
        Fcb->Header.ValidDataLength.QuadPart = static_cast<LONG64>(EndOfFile);
    }
    Create.EntryCreated = Parameters.Disposition == RV_DISPOSITION_CREATE_NEW;
    Create.Information = FileInformation(Create, CreateAction);
    NtFsdDebugPrint(TRACE_CREATE, 0, "Setting File Handle to 0x%x\n", LowPart(File.Get()));
    Create.Instance->FileHandle = File.Detach();
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS PerformFileAction(CREATE_STATE &Create) {
    NTSTATUS Status = CheckFileAction(Create);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    if (!Create.Shared) {
        NtFsdSetOpenType(Create.Fcb, OPEN_TYPE_FILE);
    }
    DeriveProviderArguments(Create);
    Status = CheckShareAccess(Create);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    if (EraseCheckWanted(Create) &&
        ErasePermissionIsNotAvailableByPath(Create.IrpContext, Create.Instance, &Create.Fcb->FullPath, FALSE)) {
        return STATUS_ACCESS_DENIED;
    }
    Status = CheckSpace(Create);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    return OpenFileAtProvider(Create);
}
