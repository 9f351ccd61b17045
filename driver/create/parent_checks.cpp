#include "create/parent_checks.h"

#include "create/create_state.h"
#include "names/paths.h"

namespace {

// Where the parent's path ends within a full path.
struct PARENT_POSITION {
    ULONG Separators;  // backslashes that something follows
    ULONG ParentUnits; // units before the last of them; 0 when that is the path's first character

    bool BelowVolume() const {
        return Separators >= 3 && ParentUnits != 0;
    }
};

PARENT_POSITION FindParent(PCUNICODE_STRING FullPath) {
    const UNICODE_STRING Path =
        NtFsdWithoutSlash(ViewOf(FullPath->Buffer, WideLength(FullPath->Buffer, UnitsOf(*FullPath))));
    return {NtFsdCountPathComponents(&Path), UnitsOf(NtFsdSplitPath(Path).Front)};
}

BOOLEAN AskErasePermission(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance, RVHANDLE Handle, PCWSTR Path) {
    const BOOLEAN Missing = ErasePermissionIsNotAvailableByHandle(IrpContext, Instance, Handle);
    NtFsdDebugPrint(TRACE_CREATE, 0,
                    "ErasePermissionIsNotAvailableByPath determined ERASE permission %s available for \"%ls\".\n",
                    Missing ? "IS NOT" : "IS", Path);
    return Missing;
}

// Of an object that is not there yet the rights on its parent are asked.
BOOLEAN AskParentErasePermission(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance, PCWSTR FullPath,
                                 const PARENT_POSITION &Position) {
    const ULONG ParentBytes = Position.ParentUnits * sizeof(WCHAR);
    PoolPointer<WCHAR> Parent(static_cast<PWSTR>(TwAllocMemory(ParentBytes + sizeof(WCHAR))));
    if (!Parent) {
        return FALSE;
    }
    memcpy(Parent.Get(), FullPath, ParentBytes);

    PRV_SECURITY Security = &IrpContext->SecurityContext;
    PCWSTR ParentPath = Parent.Get();
    ProviderDirectory Directory(Security);
    const RVSTATUS Result = RVFsdOpenDirectory(Security, 0, ParentPath, Directory.Out());
    NtFsdDebugPrint(TRACE_CREATE, 0,
                    "ErasePermissionIsNotAvailableByPath RVFsdOpenDirectory status 0x%X for parent \"%ls\" (%u) from "
                    "\"%ls\" (%u).\n",
                    static_cast<ULONG>(Result), ParentPath, ParentBytes, FullPath, Position.Separators);
    if (OpenResult(Result, Directory.Get()) != STATUS_SUCCESS) {
        return FALSE;
    }
    return AskErasePermission(IrpContext, Instance, Directory.Get(), ParentPath);
}

} // namespace

NTSTATUS ParentEntryDoesNotExist(PIRP_CONTEXT IrpContext, PCUNICODE_STRING FullPath) {
    const PARENT_POSITION Position = FindParent(FullPath);
    if (!Position.BelowVolume()) {
        return STATUS_UNSUCCESSFUL;
    }
    PCWSTR Path = FullPath->Buffer;
    const ULONG ParentBytes = Position.ParentUnits * sizeof(WCHAR);
    NTSTATUS ParentStatus = STATUS_SUCCESS;
    const NTSTATUS Status = NtFsdVerifyFile(IrpContext, Path, ParentBytes, &ParentStatus);
    NtFsdDebugPrint(TRACE_CREATE, 0,
                    "ParentEntryDoesNotExist NtFsdVerifyFile status 0x%X, file status 0x%X, for \"%.*ls\" (%u) from "
                    "\"%ls\" (%u).\n",
                    static_cast<ULONG>(Status), static_cast<ULONG>(ParentStatus), Position.ParentUnits, Path,
                    ParentBytes, Path, Position.Separators);
    // A parent that is a volume root must positively be there; one below it must positively be missing.
    const bool Missing =
        Position.Separators == 3 ? ParentStatus != STATUS_FILE_IS_A_DIRECTORY : ParentStatus == STATUS_NO_SUCH_FILE;
    NtFsdDebugPrint(TRACE_CREATE, 0, "ParentEntryDoesNotExist returning %s for \"%ls\".\n",
                    Missing ? "SUCCESS (parent does not exist)" : "FAILURE (parent does or can exist)", Path);
    return Missing ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

BOOLEAN ErasePermissionIsNotAvailableByHandle(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT, RVHANDLE Handle) {
    if (g_bDeferDeleteAccessCheck) {
        return FALSE;
    }
    USHORT Rights = 0;
    const RVSTATUS Result = RVFsdGetEffectiveRights(&IrpContext->SecurityContext, Handle, &Rights);
    BOOLEAN Missing = FALSE;
    if (RvIsError(Result)) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "ErasePermissionIsNotAvailableByHandle failed RVFsdGetEffectiveRights; status 0x%08X.\n",
                        static_cast<ULONG>(Result));
    } else {
        Missing = (Rights & RV_RIGHT_ERASE) == 0;
    }
    NtFsdDebugPrint(TRACE_CREATE, 0,
                    "ErasePermissionIsNotAvailableByHandle RVFsdGetEffectiveRights returned status 0x%08X, rights "
                    "0x%08X.  ERASE permission %s available.\n",
                    static_cast<ULONG>(Result), static_cast<ULONG>(Rights), Missing ? "IS NOT" : "IS");
    return Missing;
}

BOOLEAN ErasePermissionIsNotAvailableByPath(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance,
                                            PCUNICODE_STRING FullPath, BOOLEAN IsDirectory) {
    const PARENT_POSITION Position = FindParent(FullPath);
    if (!Position.BelowVolume()) {
        return FALSE;
    }
    PRV_SECURITY Security = &IrpContext->SecurityContext;
    PCWSTR Path = FullPath->Buffer;
    ProviderDirectory Directory(Security);
    ProviderFile File(Security);
    NTSTATUS Status;
    if (IsDirectory) {
        const RVSTATUS Result = RVFsdOpenDirectory(Security, 0, Path, Directory.Out());
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "ErasePermissionIsNotAvailableByPath RVFsdOpenDirectory status 0x%X for full path \"%ls\" "
                        "(%u).\n",
                        static_cast<ULONG>(Result), Path, Position.Separators);
        Status = OpenResult(Result, Directory.Get());
    } else {
        ULONG CreateAction = 0;
        const RVSTATUS Result = RVFsdCreateFile(Security, 0, Path, RV_QUERY_ACCESS, File.Out(), &CreateAction);
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "ErasePermissionIsNotAvailableByPath RVFsdCreateFile status 0x%X for full path \"%ls\" "
                        "(%u).\n",
                        static_cast<ULONG>(Result), Path, Position.Separators);
        Status = OpenResult(Result, File.Get());
    }
    if (Status == STATUS_SUCCESS) {
        return AskErasePermission(IrpContext, Instance, IsDirectory ? Directory.Get() : File.Get(), Path);
    }
    if (Status == STATUS_NO_SUCH_FILE) {
        return AskParentErasePermission(IrpContext, Instance, Path, Position);
    }
    return FALSE;
}
