// Changes of open files and directories.
#pragma once

#include "names/fcb.h"

// Serves IRP_MJ_SET_INFORMATION: completes the request (Information 0) or posts it.
NTSTATUS NtFsdCommonSetInformation(PIRP_CONTEXT IrpContext);

// A change in progress: the open, with its FCB's Resource held exclusive.
struct SET_INFORMATION {
    PIRP_CONTEXT IrpContext;
    PFILE_OBJECT FileObject;
    PFCB Fcb;
    PINSTANCE_CONTEXT Instance;
    const UCHAR *Buffer; // the system buffer, of at least the class's input size
    ResourceHold Hold;

    RV_SECURITY_CONTEXT *Security() const {
        return &IrpContext->SecurityContext;
    }
    // Before the first use of a directory's RelatedHandle: one that was created and not opened has its parent's.
    NTSTATUS NeedHandle() HOLDING(Instance->Fcb->Resource) {
        return IsDirectory() ? NtFsdEnsureDirectoryHandle(IrpContext, Instance) : STATUS_SUCCESS;
    }
    bool IsFile() const {
        return NtFsdReadOpenType(Fcb) == OPEN_TYPE_FILE;
    }
    bool IsDirectory() const {
        return NtFsdReadOpenType(Fcb) == OPEN_TYPE_DIRECTORY;
    }
};

// Each returns the request's status.
NTSTATUS NtFsdFileSetBasicInfo(SET_INFORMATION &Change);
NTSTATUS NtFsdFileSetDispositionInfo(SET_INFORMATION &Change);
NTSTATUS NtFsdCommonFileSetFileSize(SET_INFORMATION &Change, LONG64 NewSize);

// Renames through the target directory that the stack location names. FcbTableResource is held across the move, so that
// nobody finds the FCB under a name that is going; the Resource is dropped and retaken to get it, and not held on
// return.
NTSTATUS NtFsdFileSetRenameInfo(SET_INFORMATION &Change);

// Counts the entries of the first batch of a directory: 0 only when it is empty.
NTSTATUS NtFsdCountDirectoryEntries(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance, PULONG Count)
    HOLDING_SHARED(Instance->Fcb->Resource);
