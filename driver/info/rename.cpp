// Rename: one move at the Provider from a handle and a relative path to the target directory's handle and a new name;
// then the FCB takes its new path.

#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "info/replaced_file.h"
#include "info/set_information.h"
#include "provider/provider_calls.h"

namespace {

// One rename. The new path exists before anything is asked of the Provider: after the move nothing may fail for memory.
struct RENAME {
    SET_INFORMATION &Change;
    PFILE_OBJECT TargetFile;
    PFCB TargetFcb;
    PINSTANCE_CONTEXT TargetInstance;
    bool Replace;
    RVHANDLE TargetHandle = 0;       // that the new name is relative to
    bool CaseOnly = false;           // the object itself bears the new name, in another case
    bool SameName = false;           // the FCB itself bears the new name, which the server may spell otherwise
    bool HasOpenBelow = false;       // a directory with FCBs below it, but for what the rename itself counts in
    OwnedString NewName = {};        // the new final component
    NewPathRecord NewPath = {};      // the FCB's path after the move
    OwnedString CaseOnlySource = {}; // the old final component of a case-only rename

    PCUNICODE_STRING Source() const {
        return &Change.Fcb->FullPath;
    }
    PCUNICODE_STRING TargetDirectory() const {
        return &TargetFcb->FullPath;
    }
};

// ---- Preparation

// The new name must be one component, of a name that an open would take.
bool IsNewNameValid(PCUNICODE_STRING Name) {
    return NtFsdIsPathValid(Name) && !NtFsdHasWildcards(Name) && NtFsdSplitPath(*Name).Last.Length == Name->Length;
}

NTSTATUS PrepareNames(RENAME &Rename) HOLDING(FcbTableResource) {
    if (!IsNewNameValid(&Rename.TargetFile->FileName)) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    NTSTATUS Status = NtFsdUpdateUnicodeString(Rename.NewName.Get(), &Rename.TargetFile->FileName);
    if (!NT_SUCCESS(Status)) {
        return Status == STATUS_NAME_TOO_LONG ? STATUS_OBJECT_NAME_INVALID : Status;
    }
    const UNICODE_STRING Directory = NtFsdWithoutSlash(*Rename.TargetDirectory());
    OwnedString Path;
    Status = NtFsdComposePath(&Directory, Rename.NewName.Get(), Path.Get(), nullptr);
    return NT_SUCCESS(Status) ? Rename.NewPath.Make(Rename.Change.Fcb, Path.Get()) : Status;
}

// ---- The case-only test

// Whether the source path begins with the target directory's. If not, the reason is traced.
bool BeginsWithTarget(RENAME &Rename) {
    const PCUNICODE_STRING Source = Rename.Source();
    const PCUNICODE_STRING Target = Rename.TargetDirectory();
    if (Source->Length < Target->Length) {
        NtFsdDebugPrint(
            TRACE_FILE_INFO, 0,
            "NtFsdFileSetRenameInfo determined cannot be case-only rename based on length:\n        source: "
            "\"%wZ\" (%u)\n        target: \"%wZ\" (%u)\n",
            Source, static_cast<ULONG>(Source->Length), Target, static_cast<ULONG>(Target->Length));
        return false;
    }
    const UNICODE_STRING Directory = NtFsdWithoutSlash(*Target);
    const ULONG Units = UnitsOf(Directory);
    if (UnitsOf(*Source) > Units && Source->Buffer[Units] != SEPARATOR) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdFileSetRenameInfo determined cannot be case-only rename based on parent directory "
                        "backslash:\n        source: \"%wZ\"\n        target: \"%wZ\"\n",
                        Source, Target);
        return false;
    }
    const UNICODE_STRING Front = ViewOf(Source->Buffer, Units);
    if (!RtlEqualUnicodeString(&Front, &Directory, TRUE)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdFileSetRenameInfo determined cannot be case-only rename based on parent directory "
                        "compare:\n        source: \"%wZ\"\n        target: \"%wZ\"\n",
                        Source, Target);
        return false;
    }
    return true;
}

NTSTATUS TestCaseOnly(RENAME &Rename) {
    if (!BeginsWithTarget(Rename)) {
        return STATUS_SUCCESS;
    }
    const UNICODE_STRING Old = NtFsdSplitPath(*Rename.Source()).Last;
    PCUNICODE_STRING New = Rename.NewName.Get();
    // The comparison is of the last characters of the source, as many as the new name has: of a longer old name they do
    // not begin behind a backslash.
    if (Old.Length > New->Length) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdFileSetRenameInfo determined cannot be case-only rename based on final component "
                        "backslash:\n        source: \"%wZ\"\n        target: \"%wZ\"\n",
                        Rename.Source(), Rename.TargetDirectory());
        return STATUS_SUCCESS;
    }
    // The name alone says nothing of an object deeper below the target directory, or of that directory itself.
    const UNICODE_STRING Directory = NtFsdWithoutSlash(*Rename.TargetDirectory());
    const bool LiesInTarget = UnitsOf(*Rename.Source()) == UnitsOf(Directory) + 1 + UnitsOf(Old);
    // What has the name already must not be deleted to make room for itself.
    Rename.SameName = LiesInTarget && RtlEqualUnicodeString(&Old, New, FALSE);
    if (!LiesInTarget || Rename.SameName || !RtlEqualUnicodeString(&Old, New, TRUE)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdFileSetRenameInfo determined \"%wZ\" and \"%wZ\" are not a case-only rename.\n", &Old,
                        New);
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "NtFsdFileSetRenameInfo determined \"%wZ\" and \"%wZ\" represent a case-only rename.\n", &Old, New);
    const NTSTATUS Status = NtFsdUpdateUnicodeString(Rename.CaseOnlySource.Get(), &Old);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "NtFsdFileSetRenameInfo TwAllocMemory for %u bytes for \"%wZ\" failed.\n",
                        Old.Length + static_cast<ULONG>(sizeof(WCHAR)), &Old);
        return Status;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "NtFsdFileSetRenameInfo constructed pCaseOnlyRenameSourceName \"%ws\".\n",
                    Rename.CaseOnlySource->Buffer);
    Rename.CaseOnly = true;
    return STATUS_SUCCESS;
}

// ---- The move

struct MOVE {
    RVHANDLE SourceBase;
    PCWSTR SourcePath;
    RVHANDLE TargetBase;
    PCWSTR TargetName;
};

MOVE MoveOf(RENAME &Rename) {
    MOVE Move = {0, nullptr, Rename.TargetHandle, Rename.NewName->Buffer};
    const PINSTANCE_CONTEXT Source = Rename.Change.Instance;
    Rename.Change.Hold.Holds(&Source->Fcb->Resource);
    if (Rename.CaseOnly) {
        Move.SourceBase = Rename.TargetHandle;
        Move.SourcePath = Rename.CaseOnlySource->Buffer;
    } else {
        Move.SourceBase = Rename.Change.IsDirectory() ? Source->BaseHandle : Source->RelatedHandle;
        Move.SourcePath = Source->PathLeft;
    }
    return Move;
}

void TraceMove(const MOVE &Move) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "   Source directory %x:%ws \n", LowPart(Move.SourceBase), Move.SourcePath);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "   Target directory %x:%ws \n", LowPart(Move.TargetBase), Move.TargetName);
}

bool IsAccessDenied(RVSTATUS Status) {
    return RvCode(Status) == RV_STATUS_ACCESS_DENIED;
}

RVSTATUS AskAttributes(SET_INFORMATION &Change, RVHANDLE Handle, ULONG *Attributes) {
    return Change.IsDirectory()
               ? RVFsdGetDirectoryInformation(Change.Security(), Handle, Attributes, nullptr, nullptr, nullptr)
               : RVFsdGetBasicFileInformation(Change.Security(), Handle, Attributes);
}

RVSTATUS SetAttributes(SET_INFORMATION &Change, RVHANDLE Handle, ULONG Attributes) {
    const auto Set = Change.IsDirectory() ? RVFsdSetDirectoryInformation : RVFsdSetFileInformation;
    return Set(Change.Security(), Handle, &Attributes, nullptr, nullptr, nullptr);
}

RVSTATUS MoveOnce(SET_INFORMATION &Change, const MOVE &Move) {
    const auto Ask = Change.IsDirectory() ? RVFsdMoveDirectory : RVFsdMoveFile;
    return Ask(Change.Security(), Move.SourceBase, Move.SourcePath, Move.TargetBase, Move.TargetName);
}

// Once more with the read-only attribute off, when that is what stands in the way; it is put back whatever came of it.
RVSTATUS MoveWritable(SET_INFORMATION &Change, const MOVE &Move, RVSTATUS First) {
    Change.Hold.Holds(&Change.Instance->Fcb->Resource);
    if (!NT_SUCCESS(Change.NeedHandle())) {
        return First;
    }
    const bool IsFile = !Change.IsDirectory(); // only of a file's second attempt something is traced
    const RVHANDLE Handle = IsFile ? Change.Instance->FileHandle : Change.Instance->RelatedHandle;
    ULONG Attributes = 0;
    RVSTATUS Result = AskAttributes(Change, Handle, &Attributes);
    if (IsFile) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdFileSetRenameInfo RV_STATUS_ACCESS_DENIED; RVFsdGetBasicFileInformation for FileHandle "
                        "0x%08X status 0x%08X.\n",
                        LowPart(Handle), static_cast<ULONG>(Result));
    }
    if (RvIsError(Result) || !(Attributes & RV_ATTR_READONLY)) {
        return First;
    }
    Result = SetAttributes(Change, Handle, Attributes & ~ULONG{RV_ATTR_READONLY});
    if (IsFile) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdFileSetRenameInfo RV_ATTR_READONLY; RVFsdSetFileInformation for FileHandle 0x%08X status "
                        "0x%08X.\n",
                        LowPart(Handle), static_cast<ULONG>(Result));
    }
    if (RvIsError(Result)) {
        return First;
    }
    const RVSTATUS Second = MoveOnce(Change, Move);
    if (IsFile) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "NtFsdFileSetRenameInfo re-RVFsdMoveFile status 0x%08X.\n",
                        static_cast<ULONG>(Second));
    }
    Result = SetAttributes(Change, Handle, Attributes); // the move's result counts
    if (IsFile) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdFileSetRenameInfo RVFsdSetFileInformation to restore attributes status 0x%08X.\n",
                        static_cast<ULONG>(Result));
    }
    return Second;
}

RVSTATUS MoveObject(SET_INFORMATION &Change, const MOVE &Move) {
    const PCSTR Object = Change.IsDirectory() ? "Directory" : "File";
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " Renaming %s\n", Object);
    TraceMove(Move);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "NtFsdFileSetRenameInfo RVFsdMove%s (0x%p) \"%ws\" to (0x%p) \"%ws\".\n",
                    Object, AsAddress(Move.SourceBase), Move.SourcePath, AsAddress(Move.TargetBase), Move.TargetName);
    RVSTATUS Result = MoveOnce(Change, Move);
    if (IsAccessDenied(Result)) {
        Result = MoveWritable(Change, Move, Result);
    }
    if (!Change.IsDirectory() && RvCode(Result) != 0) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "NtFsdFileSetRenameInfo final RVFsdMoveFile status 0x%08X.\n",
                        static_cast<ULONG>(Result));
    }
    return Result;
}

// ---- The rules

// Reads what the new name is relative to. FALSE for a target that could not be opened as a directory: it has no such
// handle. No FCB's Resource is held.
bool ReadTargetHandle(RENAME &Rename) {
    const PINSTANCE_CONTEXT Target = Rename.TargetInstance;
    const SharedHold Hold(&Target->Fcb->Resource);
    Rename.TargetHandle = Target->RelatedHandle;
    return Target->DirHandle != 0 || *Target->PathLeft == 0;
}

bool IsInTheWay(const RENAME &Rename) {
    return !Rename.TargetInstance->TargetMissing && !Rename.CaseOnly && !Rename.SameName;
}

// Frees the new name from creates that have only looked it up. A create holds its FCB until it has succeeded: one that
// has no type when its Resource can be had belongs to creates that have failed. One with a type is open, and keeps its
// name. FcbTableResource held, which keeps the FCB alive, and no FCB's Resource.
NTSTATUS ClaimNewPath(RENAME &Rename) HOLDING(FcbTableResource) {
    UNICODE_STRING Remaining;
    const PFCB Holder = NtFsdFindFcb(Rename.NewPath.Path(), &Remaining);
    if (Holder == nullptr || Remaining.Length != 0 || Holder == Rename.Change.Fcb) {
        return STATUS_SUCCESS;
    }
    const ExclusiveHold Hold(&Holder->Resource);
    if (Holder->OpenType != OPEN_TYPE_UNKNOWN) {
        return STATUS_ACCESS_DENIED;
    }
    NtFsdRemovePrefix(Holder);
    return STATUS_SUCCESS;
}

// Everything that can be known before something is deleted or moved.
NTSTATUS CheckRules(const RENAME &Rename) HOLDING(Rename.Change.Fcb->Resource) {
    if (NtFsdIsVolumeRoot(Rename.Change.Fcb)) {
        return STATUS_INVALID_PARAMETER; // an open has found it out while the Resource was not held
    }
    if (Rename.HasOpenBelow) {
        return STATUS_ACCESS_DENIED; // what is open below would keep its old path
    }
    return STATUS_SUCCESS;
}

// Deletes the file that is to be replaced, unless that would lose what is to be moved, or be in vain.
NTSTATUS ClearTheWay(RENAME &Rename) {
    if (!IsInTheWay(Rename)) {
        return STATUS_SUCCESS;
    }
    bool IsItself;
    NTSTATUS Status =
        NtFsdLookAtReplaced(Rename.Change.Security(), Rename.Change.Fcb, Rename.Change.Instance, Rename.TargetFcb,
                            Rename.TargetInstance, Rename.TargetHandle, Rename.NewName->Buffer, &IsItself);
    if (!NT_SUCCESS(Status) || IsItself) {
        return Status; // of the file itself the Provider judges the move from one of its names to another
    }
    Status =
        NtFsdTranslateResult(RVFsdDeleteFile(Rename.Change.Security(), Rename.TargetHandle, Rename.NewName->Buffer));
    return Status == STATUS_NO_SUCH_FILE ? STATUS_SUCCESS : Status;
}

// What the move's result means. STATUS_PENDING is the answer of a Provider that has not said what it did.
NTSTATUS JudgeMove(const RENAME &Rename, RVSTATUS Result) {
    const NTSTATUS Status = NtFsdTranslateResult(Result);
    if (Status == STATUS_PENDING) {
        return STATUS_UNSUCCESSFUL;
    }
    // The server may call what bears the name already a collision with itself.
    return Rename.SameName && Status == STATUS_OBJECT_NAME_COLLISION ? STATUS_SUCCESS : Status;
}

// The rename with FcbTableResource and the FCB's Resource held.
NTSTATUS RenameHeld(RENAME &Rename) HOLDING(FcbTableResource) {
    Rename.Change.Hold.Holds(&Rename.Change.Fcb->Resource);
    NTSTATUS Status = CheckRules(Rename);
    if (NT_SUCCESS(Status)) {
        Status = ClearTheWay(Rename);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    const MOVE Move = MoveOf(Rename);
    Status = JudgeMove(Rename, MoveObject(Rename.Change, Move));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "NtFsdFileSetRenameInfo built path \"%wZ\" for NtFsdRenameFcb.\n",
                    Rename.NewPath.Path());
    NtFsdRenameFcb(Rename.Change.Fcb, Rename.NewPath);
    return Status;
}

// The rename with FcbTableResource held: no other rename changes a path of an FCB meanwhile.
NTSTATUS RenameUnderTable(RENAME &Rename) HOLDING(FcbTableResource) {
    if (!ReadTargetHandle(Rename)) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    Rename.HasOpenBelow = Rename.Change.IsDirectory() && NtFsdHasFcbBelow(Rename.Source());
    NTSTATUS Status = PrepareNames(Rename);
    if (NT_SUCCESS(Status)) {
        Status = TestCaseOnly(Rename);
    }
    if (NT_SUCCESS(Status) && IsInTheWay(Rename) && (!Rename.Replace || Rename.Change.IsDirectory())) {
        Status = STATUS_OBJECT_NAME_COLLISION;
    }
    if (NT_SUCCESS(Status)) {
        Status = ClaimNewPath(Rename);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Rename.Change.Hold.AcquireExclusive(&Rename.Change.Fcb->Resource, TRUE);
    Status = RenameHeld(Rename);
    Rename.Change.Hold.Release();
    return Status;
}

// The rename consumes the target open's directory handle. FcbTableResource held, no FCB's Resource.
RVHANDLE TakeTargetHandle(const RENAME &Rename) HOLDING(FcbTableResource) {
    const PINSTANCE_CONTEXT Target = Rename.TargetInstance;
    NtFsdRebaseBorrowers(Target, TRUE);
    const ExclusiveHold Hold(&Target->Fcb->Resource);
    const RVHANDLE Handle = Target->DirHandle;
    if (Handle != 0) {
        NtFsdSetDirHandle(Target, 0);
        Target->RelatedHandle = Target->BaseHandle;
    }
    return Handle;
}

} // namespace

NTSTATUS NtFsdFileSetRenameInfo(SET_INFORMATION &Change) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileSetRenameInfo()...\n");
    const PFILE_OBJECT TargetFile = IoGetCurrentIrpStackLocation(Change.IrpContext->Irp)->Parameters.SetFile.FileObject;
    if (TargetFile == nullptr) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "   Called for a simple rename.  Not supported!\n");
        return STATUS_NOT_SUPPORTED;
    }
    PFCB TargetFcb;
    PINSTANCE_CONTEXT TargetInstance;
    NTSTATUS Status = NtFsdDecodeFileObject(TargetFile, &TargetFcb, &TargetInstance, OPEN_TYPE_DIRECTORY);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    if (!TargetInstance->IsTarget) {
        return STATUS_INVALID_PARAMETER; // its handle is its owner's, not the rename's to consume
    }
    Change.Hold.Holds(&Change.Fcb->Resource);
    if (NtFsdIsVolumeRoot(Change.Fcb)) {
        return STATUS_INVALID_PARAMETER; // the root of a volume has no name of its own
    }
    RENAME Rename = {.Change = Change,
                     .TargetFile = TargetFile,
                     .TargetFcb = TargetFcb,
                     .TargetInstance = TargetInstance,
                     .Replace = Change.Buffer[0] != FALSE};
    // In the order of the locks: the table, then the FCB again.
    Change.Hold.Release();
    ResourceHold Table;
    Table.AcquireExclusive(&FcbTableResource, TRUE);
    Status = RenameUnderTable(Rename);
    Rename.NewPath.Drop();
    ProviderDirectory Directory(Change.Security());
    *Directory.Out() = TakeTargetHandle(Rename);
    Table.Release();
    return Status;
}
