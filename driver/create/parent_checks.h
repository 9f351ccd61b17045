// What is asked before something is created or deleted: whether its parent is there, whether the caller may erase it.
#pragma once

#include "names/fcb.h"

// STATUS_SUCCESS when the parent of FullPath does not exist, STATUS_UNSUCCESSFUL when it does or may exist. FullPath is
// NUL-terminated and must not change meanwhile: an FCB's, with its Resource held.
NTSTATUS ParentEntryDoesNotExist(PIRP_CONTEXT IrpContext, PCUNICODE_STRING FullPath);

// TRUE only when the Provider positively says that the caller may not erase the object (for a path that does not exist
// yet: its parent). Never TRUE while the access check is deferred.
BOOLEAN ErasePermissionIsNotAvailableByHandle(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance, RVHANDLE Handle);
BOOLEAN ErasePermissionIsNotAvailableByPath(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance,
                                            PCUNICODE_STRING FullPath, BOOLEAN IsDirectory);
