// The local state of one create and the steps that work on it. Internal to create/.
//
// A step returns STATUS_SUCCESS to let the create go on, and anything else to end it in the failure tail, which answers
// with Information: the step sets that where it must differ. From the moment the FCB is found to the tails the FCB's
// Resource is held exclusive, in Hold, exactly once.
#pragma once

#include "create/create_steps.h"
#include "frame/configuration.h"
#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "names/fcb.h"
#include "provider/provider_calls.h"

inline constexpr ACCESS_MASK NO_ACCESS_CHECK = 0xFFFFFFFF;

struct CREATE_STATE {
    // The request.
    PIRP_CONTEXT IrpContext = nullptr;
    PIRP Irp = nullptr;
    PIO_STACK_LOCATION IrpSp = nullptr;
    PFILE_OBJECT FileObject = nullptr;
    PFILE_OBJECT RelatedFileObject = nullptr;
    UNICODE_STRING Name = {0, 0, nullptr}; // aliases the file object's, without a trailing backslash
    ACCESS_MASK DesiredAccess = 0;         // a file action on a shared FCB adds to it
    ULONG ShareAccess = 0;
    ULONG Options = 0;
    ULONG Disposition = 0;
    ULONG Attributes = 0;
    LONG64 AllocationSize = 0;
    bool DirectoryFile = false;
    bool NonDirectoryFile = false;
    bool NoCache = false;
    bool DeleteOnClose = false;
    bool OpenTargetDirectory = false;
    bool TrailingSlash = false;

    // What was found.
    PFCB Fcb = nullptr;
    PINSTANCE_CONTEXT Instance = nullptr;
    ResourceHold Hold; // of Fcb's Resource; not held: there is no FCB
    ULONG OpenCount = 0;
    ULONG EntryType = ENTRY_TYPE_UNKNOWN;
    FCB_BEFORE_OPEN Before = {};
    // Others have the FCB open, and its type is known. One without a type is open for nobody else but creates that have
    // failed and not left it yet: it counts as new.
    bool Shared = false;

    // What was decided.
    ULONG Action = ACTION_OPEN_FILE;
    ACCESS_MASK CheckAccess = NO_ACCESS_CHECK;
    ULONG ProviderAccess = 0;
    ULONG ProviderOptions = 0;
    ULONG_PTR Information = FILE_DOES_NOT_EXIST;
    bool EntryCreated = false; // watchers of the parent are to be told

    PRV_SECURITY Security() const {
        return &IrpContext->SecurityContext;
    }
};

// What a disposition asks for.
struct DISPOSITION_ROW {
    ULONG Disposition;
    PCSTR Name;
    ULONG DirectoryAction;
    ULONG FileAction;
    ULONG ProviderDisposition;
    ACCESS_MASK ExtraAccess; // that the open must have, too, when it shares its FCB
};

inline constexpr ACCESS_MASK OVERWRITE_ACCESS = FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_WRITE_DATA;

inline constexpr DISPOSITION_ROW DISPOSITIONS[] = {
    {FILE_SUPERSEDE, "FILE_SUPERSEDE", ACTION_CREATE_OPEN_DIR, ACTION_REPLACE_FILE, RV_DISPOSITION_CREATE_OR_REPLACE,
     DELETE | OVERWRITE_ACCESS},
    {FILE_OPEN, "FILE_OPEN", ACTION_OPEN_DIR, ACTION_OPEN_FILE, RV_DISPOSITION_OPEN_EXISTING, 0},
    {FILE_CREATE, "FILE_CREATE", ACTION_CREATE_DIR, ACTION_CREATE_NEW_FILE, RV_DISPOSITION_CREATE_NEW, 0},
    {FILE_OPEN_IF, "FILE_OPEN_IF", ACTION_CREATE_OPEN_DIR, ACTION_OPEN_OR_CREATE_FILE, RV_DISPOSITION_OPEN_OR_CREATE,
     0},
    {FILE_OVERWRITE, "FILE_OVERWRITE", ACTION_OPEN_DIR, ACTION_OVERWRITE_FILE, RV_DISPOSITION_OVERWRITE_EXISTING,
     OVERWRITE_ACCESS},
    {FILE_OVERWRITE_IF, "FILE_OVERWRITE_IF", ACTION_CREATE_OPEN_DIR, ACTION_REPLACE_FILE,
     RV_DISPOSITION_CREATE_OR_REPLACE, OVERWRITE_ACCESS},
};
inline constexpr ULONG DISPOSITION_COUNT = sizeof(DISPOSITIONS) / sizeof(DISPOSITIONS[0]);

constexpr bool DispositionsInOrder() {
    for (ULONG Index = 0; Index < DISPOSITION_COUNT; ++Index) {
        if (DISPOSITIONS[Index].Disposition != Index) {
            return false;
        }
    }
    return true;
}
static_assert(DispositionsInOrder() && DISPOSITION_COUNT == FILE_OVERWRITE_IF + 1, "rows are found by disposition");

// Ends a create with Status and the Information that goes with it.
inline NTSTATUS FailCreate(CREATE_STATE &Create, NTSTATUS Status, ULONG_PTR Information) {
    Create.Information = Information;
    return Status;
}

// The result of a Provider call that succeeds or not: STATUS_SUCCESS, or the failure that it translates to.
inline NTSTATUS CallResult(RVSTATUS Result) {
    const NTSTATUS Status = NtFsdTranslateResult(Result);
    return NT_SUCCESS(Status) ? STATUS_SUCCESS : Status;
}

// The same for a call that opens Handle: an open without a handle has failed.
inline NTSTATUS OpenResult(RVSTATUS Result, RVHANDLE Handle) {
    const NTSTATUS Status = CallResult(Result);
    return Status == STATUS_SUCCESS && Handle == 0 ? STATUS_UNSUCCESSFUL : Status;
}

// TRUE when the access check for DELETE is this create's to make.
inline bool EraseCheckWanted(const CREATE_STATE &Create) {
    return (Create.DesiredAccess & DELETE) != 0 && !g_bDeferDeleteAccessCheck;
}

// Works out Create.Action from the type flags, the disposition and what is at the path.
NTSTATUS ChooseAction(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource, Create.Instance->Fcb->Resource);

// Carries out a file action: on success the instance has its FileHandle.
NTSTATUS PerformFileAction(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource, Create.Instance->Fcb->Resource);

// Carries out a directory action: on success the instance has its DirHandle, except where a directory was created only.
NTSTATUS PerformDirectoryAction(CREATE_STATE &Create) HOLDING(Create.Fcb->Resource, Create.Instance->Fcb->Resource);
