#include "create/target_directory.h"

#include "create/create_state.h"
#include "names/paths.h"
#include "provider/binding.h"

namespace {

// A copy of the target's final name, in the framework's memory.
class FinalName {
public:
    FinalName() = default;
    FinalName(const FinalName &) = delete;
    FinalName &operator=(const FinalName &) = delete;
    ~FinalName() {
        if (Text_ != nullptr) {
            g_pRvplInterface->Table->Free(g_pRvplInterface, Text_);
        }
    }
    // Copies the Units units at Text and terminates them; false when no memory can be had.
    bool Copy(PCWSTR Text, ULONG Units) {
        Bytes_ = Units * sizeof(WCHAR);
        Text_ = static_cast<PWSTR>(g_pRvplInterface->Table->Allocate(g_pRvplInterface, AllocationBytes()));
        if (Text_ == nullptr) {
            return false;
        }
        memcpy(Text_, Text, Bytes_);
        Text_[Units] = 0;
        return true;
    }
    PCWSTR Text() const {
        return Text_;
    }
    ULONG Bytes() const {
        return Bytes_;
    }
    ULONG AllocationBytes() const {
        return Bytes_ + sizeof(WCHAR);
    }

private:
    PWSTR Text_ = nullptr;
    ULONG Bytes_ = 0;
};

NTSTATUS ComposeTargetPath(const PATH_SOURCE &Source, PCUNICODE_STRING Name, PUNICODE_STRING Path) {
    ULONG AllocationBytes = 0;
    const NTSTATUS Status = NtFsdComposePath(Source.Path(), const_cast<PUNICODE_STRING>(Name), Path, &AllocationBytes);
    if (Status == STATUS_INSUFFICIENT_RESOURCES) {
        NtFsdAlwaysPrint("[RVFSD] NtFsdOpenTargetDirectory alloc for %hu bytes failed.\n", AllocationBytes);
    }
    return Status;
}

// Takes the final name off Path, which then names the parent directory.
NTSTATUS SplitFinalName(PUNICODE_STRING Path, FinalName &Name) {
    const PATH_PARTS Parts = NtFsdSplitPath(*Path);
    if (!Name.Copy(Parts.Last.Buffer, UnitsOf(Parts.Last))) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdOpenTargetDirectory alloc %u bytes for remaining path of \"%Z\" failed.\n",
                        Name.AllocationBytes(), Path);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NtFsdCutString(Path, UnitsOf(Parts.Front));
    return STATUS_SUCCESS;
}

// Nothing is known of a new parent: it is taken for a directory.
void TypeNewParent(PIO_STACK_LOCATION IrpSp, PFCB Fcb) HOLDING(Fcb->Resource) {
    const auto &Parameters = IrpSp->Parameters.Create;
    IoSetShareAccess(Parameters.SecurityContext->DesiredAccess, Parameters.ShareAccess, IrpSp->FileObject,
                     &Fcb->ShareAccess);
    NtFsdSetOpenType(Fcb, OPEN_TYPE_DIRECTORY);
    NtFsdDebugPrint(TRACE_CREATE, 0, "[RVFSD] NtFsdOpenTargetDirectory pFcb->OpenType is set to OPEN_TYPE_DIRECTORY\n");
}

// Makes Name, as far as the buffer has room for it, the whole name of the file object.
void ReplaceFileName(PUNICODE_STRING FileName, const FinalName &Name) {
    const ULONG Room = FileName->MaximumLength & ~1u;
    const ULONG Bytes = Name.Bytes() < Room ? Name.Bytes() : Room;
    FileName->Length = static_cast<USHORT>(Bytes);
    if (Bytes != 0) {
        memcpy(FileName->Buffer, Name.Text(), Bytes);
    }
    if (Bytes + sizeof(WCHAR) <= Room) {
        FileName->Buffer[Bytes / sizeof(WCHAR)] = 0;
    }
}

// Opens the parent at the Provider and returns the Information that tells whether the target exists. A parent that
// cannot be opened leaves the instance without a directory handle.
ULONG_PTR OpenParentHandle(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, bool NewParent,
                           NTSTATUS TargetStatus) HOLDING(Fcb->Resource) {
    NtFsdSameLock(Fcb, Instance);
    PRV_SECURITY Security = &IrpContext->SecurityContext;
    ProviderDirectory Directory(Security);
    const RVSTATUS Result = RVFsdOpenDirectory(Security, Instance->RelatedHandle, Instance->PathLeft, Directory.Out());
    NtFsdDebugPrint(
        TRACE_CREATE, 0, "NtFsdOpenTargetDirectory RVFsdOpenDirectory for (0x%p) \"%ws\" returned status 0x%08X.\n",
        AsAddress(Instance->RelatedHandle), static_cast<PCWSTR>(Instance->PathLeft), static_cast<ULONG>(Result));
    const NTSTATUS Status = OpenResult(Result, Directory.Get());
    if (Status == STATUS_SUCCESS) {
        Instance->RelatedHandle = Directory.Get();
        NtFsdSetDirHandle(Instance, Directory.Detach());
        return TargetStatus == STATUS_NO_SUCH_FILE ? FILE_DOES_NOT_EXIST : FILE_EXISTS;
    }
    if (Status != STATUS_NOT_A_DIRECTORY) {
        return FILE_DOES_NOT_EXIST;
    }
    if (NewParent) {
        // The parent is a file after all: as a directory's, its FCB would refuse those who open the file.
        NtFsdSetOpenType(Fcb, OPEN_TYPE_FILE);
        NtFsdInitializeFcbFileLock(Fcb);
    }
    return FILE_EXISTS;
}

// STATUS_RETRY when the related directory, whose path is Source, was renamed in between: nothing has been done then.
NTSTATUS OpenParentOnce(PIRP_CONTEXT IrpContext, PIO_STACK_LOCATION IrpSp, const PATH_SOURCE &Source, PFCB *Fcb,
                        PINSTANCE_CONTEXT *Instance, PULONG_PTR Information, ResourceHold &Hold) {
    PFILE_OBJECT FileObject = IrpSp->FileObject;
    OwnedString Path;
    NTSTATUS Status = ComposeTargetPath(Source, &FileObject->FileName, Path.Get());
    if (Status != STATUS_SUCCESS) {
        return Status;
    }
    const ULONG Units = UnitsOf(NtFsdWithoutSlash(*Path.Get()));
    const bool TrailingSlash = Units != UnitsOf(*Path.Get());
    NtFsdCutString(Path.Get(), Units);
    if (!NtFsdIsPathValid(Path.Get())) {
        return STATUS_OBJECT_NAME_INVALID;
    }

    NTSTATUS TargetStatus = STATUS_SUCCESS;
    Status = NtFsdVerifyFile(IrpContext, Path->Buffer, Path->Length, &TargetStatus);
    if (Status == STATUS_OBJECT_PATH_NOT_FOUND) {
        Status = Source.Judge(Status);
        if (Status != STATUS_RETRY) {
            NtFsdDebugPrint(TRACE_CREATE, 0,
                            "NtFsdOpenTargetDirectory NtFsdVerifyFile for full path \"%wZ\" returned "
                            "STATUS_OBJECT_PATH_NOT_FOUND (0x%08X).\n",
                            Path.Get(), static_cast<ULONG>(Status));
        }
        return Status;
    }
    FinalName Name;
    Status = SplitFinalName(Path.Get(), Name);
    if (Status != STATUS_SUCCESS) {
        return Status;
    }

    PFCB ParentFcb = nullptr;
    PINSTANCE_CONTEXT ParentInstance = nullptr;
    ULONG OpenCount = 0;
    ULONG EntryType = ENTRY_TYPE_UNKNOWN;
    Status = NtFsdOpenComposedFcb(IrpContext, Source, Path.Get(), &ParentFcb, &ParentInstance, &OpenCount, &EntryType,
                                  Hold, nullptr);
    if (Status == STATUS_RETRY) {
        return Status;
    }
    if (Status != STATUS_SUCCESS) {
        NtFsdDebugPrint(TRACE_CREATE, 0,
                        "[RVFSD] NtFsdOpenTargetDirectory NtFsdOpenFcb for (0x%p) \"%Z\" returned status 0x%08X.\n",
                        Path.Get(), Path.Get(), static_cast<ULONG>(Status));
        return Status;
    }
    Hold.Holds(&ParentFcb->Resource);
    ParentInstance->IsTarget = TRUE;
    *Fcb = ParentFcb;
    *Instance = ParentInstance;
    ParentInstance->TargetMissing = TargetStatus == STATUS_NO_SUCH_FILE;
    ParentInstance->TrailingSlash = TrailingSlash;
    // Also new when there are other opens but no type: those are of creates that have failed and not left it yet.
    const bool NewParent = OpenCount < 2 || ParentFcb->OpenType == OPEN_TYPE_UNKNOWN;
    if (NewParent) {
        TypeNewParent(IrpSp, ParentFcb);
    }
    if (!NtFsdIsVolumeRoot(ParentFcb)) {
        NtFsdSetVolumeResolved(ParentFcb, 0); // only a volume root stays resolved; listings tell them apart by it
    }
    ReplaceFileName(&FileObject->FileName, Name);
    *Information = OpenParentHandle(IrpContext, ParentFcb, ParentInstance, NewParent, TargetStatus);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NtFsdOpenTargetDirectory(PIRP_CONTEXT IrpContext, PIO_STACK_LOCATION IrpSp, PFCB *Fcb,
                                  PINSTANCE_CONTEXT *Instance, PULONG_PTR Information, ResourceHold &Hold) {
    PFCB Related;
    PINSTANCE_CONTEXT RelatedInstance;
    const NTSTATUS Status = NtFsdCheckRelated(IrpSp->FileObject->RelatedFileObject, &Related, &RelatedInstance);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    return NtFsdUnderCurrentPath(Related, [&](const PATH_SOURCE &Source) {
        return OpenParentOnce(IrpContext, IrpSp, Source, Fcb, Instance, Information, Hold);
    });
}
