// The create path. Called with the framework bound, inside a critical region, holding nothing.
#pragma once

#include "names/fcb.h"

// Serves IRP_MJ_CREATE of a path below the redirector: completes the IRP and returns its status, or posts it.
NTSTATUS NtFsdCommonCreate(PIRP_CONTEXT IrpContext, PIRP Irp);

enum CREATE_ACTION : ULONG {
    ACTION_OPEN_FILE = 0,
    ACTION_REPLACE_FILE = 1,
    ACTION_CREATE_NEW_FILE = 2,
    ACTION_OPEN_OR_CREATE_FILE = 3,
    ACTION_OVERWRITE_FILE = 4,
    ACTION_OPEN_DIR = 5,
    ACTION_CREATE_DIR = 6,
    ACTION_CREATE_OPEN_DIR = 7,
};

// The action that Disposition asks for on an entry of the flagged kind. STATUS_UNSUCCESSFUL without a kind flag,
// STATUS_INVALID_PARAMETER for a disposition above FILE_OVERWRITE_IF.
NTSTATUS NtFsdActionFromDisposition(BOOLEAN DirectoryFlag, BOOLEAN NonDirectoryFlag, ULONG Disposition, PULONG Action);

// Asks the Provider whether Path below BaseHandle is a directory or a file; *EntryType is unchanged on failure.
NTSTATUS NtFsdGetEntryType(PIRP_CONTEXT IrpContext, RVHANDLE BaseHandle, PCWSTR Path, PULONG EntryType);

// Trace of a create's parameters, when trace bit 0x100000 is enabled.
VOID NtFsdDumpCreateParameters(PIRP_CONTEXT IrpContext, PIRP Irp, PIO_STACK_LOCATION IrpSp);

// ---- create/target_directory.cpp, create/parent_checks.cpp ---------------------------------------------------------

// Opens the parent directory of the named path in its place, tells whether the final name exists (*Information) and
// leaves only that name in the file object. On success Hold holds the parent FCB's Resource exclusive; the instance has
// a DirHandle unless the Provider could not open the parent, which does not fail this open. Failures, with nothing held
// and *Information untouched: STATUS_INVALID_HANDLE or STATUS_NOT_A_DIRECTORY (related file object),
// STATUS_OBJECT_NAME_INVALID (empty component, embedded zero, too long), STATUS_OBJECT_PATH_NOT_FOUND, NtFsdOpenFcb's,
// or resources. The caller holds nothing.
NTSTATUS NtFsdOpenTargetDirectory(PIRP_CONTEXT IrpContext, PIO_STACK_LOCATION IrpSp, PFCB *Fcb,
                                  PINSTANCE_CONTEXT *Instance, PULONG_PTR Information, ResourceHold &Hold);

// STATUS_SUCCESS when the parent of FullPath does not exist, STATUS_UNSUCCESSFUL when it does or may exist. FullPath is
// NUL-terminated and must not change meanwhile: an FCB's, with its Resource held.
NTSTATUS ParentEntryDoesNotExist(PIRP_CONTEXT IrpContext, PCUNICODE_STRING FullPath);

// TRUE only when the Provider positively says that the caller may not erase the object (for a path that does not exist
// yet: its parent). Never TRUE while the access check is deferred.
BOOLEAN ErasePermissionIsNotAvailableByHandle(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance, RVHANDLE Handle);
BOOLEAN ErasePermissionIsNotAvailableByPath(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance,
                                            PCUNICODE_STRING FullPath, BOOLEAN IsDirectory);
