// What a create may do, and the steps of it that need none of its state.
#pragma once

#include "frame/irp_context.h"

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
