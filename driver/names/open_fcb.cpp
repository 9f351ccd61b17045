#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "names/fcb.h"
#include "names/paths.h"
#include "provider/provider_calls.h"

namespace {

// The related open of a relative create.
struct RELATED_OPEN {
    PFCB Fcb;
    PINSTANCE_CONTEXT Instance;
};

// What an open finds under its name.
struct FOUND_FCB {
    PFCB Fcb = nullptr;
    NTSTATUS FileStatus = STATUS_SUCCESS; // of the probe
    PoolPointer<INSTANCE_CONTEXT> Instance = {};
};

NTSTATUS ComposeName(PCUNICODE_STRING Directory, PUNICODE_STRING Name, PUNICODE_STRING Path) {
    ULONG Bytes = 0;
    const NTSTATUS Status = NtFsdComposePath(Directory, Name, Path, &Bytes);
    if (Status == STATUS_INSUFFICIENT_RESOURCES) {
        NtFsdDebugPrint(TRACE_FCB, 0,
                        "[RVFSD] NtFsdOpenFcb for \"%wZ\" unable to alloc %hu bytes; STATUS_INSUFFICIENT_RESOURCES.\n",
                        Name, Bytes);
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    // An empty name opens the related object again: its path has no separator behind it.
    if (Name->Length == 0 && Path->Length > sizeof(WCHAR)) {
        NtFsdCutString(Path, UnitsOf(*Path) - 1);
    }
    const bool Valid = Path->Length > sizeof(WCHAR) && Path->Buffer[0] == SEPARATOR && NtFsdIsPathValid(Path) &&
                       !NtFsdHasWildcards(Path);
    return Valid ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

PINSTANCE_CONTEXT AllocateInstance(PIRP_CONTEXT IrpContext) {
    auto Instance = static_cast<PINSTANCE_CONTEXT>(TwAllocMemory(sizeof(INSTANCE_CONTEXT)));
    if (Instance != nullptr) {
        Instance->NodeTypeCode = NODE_TYPE_INSTANCE;
        NtFsdNobodyElse(g_OutlivingLock);
        Instance->FileObject = IrpContext->FileObject;
        Instance->ProviderAccess = 0;
        Instance->Opener = IrpContext->SecurityContext;
        InitializeListHead(&Instance->Borrowers);
        InitializeListHead(&Instance->BorrowLinks);
        KeInitializeEvent(&Instance->SearchLock, SynchronizationEvent, TRUE);
    }
    return Instance;
}

// TRUE when Units characters of Path end at a component boundary.
bool EndsComponent(PCUNICODE_STRING Path, ULONG Units) {
    const ULONG PathUnits = Path->Length / sizeof(WCHAR);
    return Units == PathUnits || (Units < PathUnits && Path->Buffer[Units] == SEPARATOR);
}

// Opens the volume of the FCB's path and finds how many characters of the path it covers.
RVSTATUS OpenVolumeOf(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, PULONG VolumeUnits)
    HOLDING(Fcb->Resource) {
    RV_SECURITY_CONTEXT *Security = &IrpContext->SecurityContext;
    if (NtFsdCountPathComponents(&Fcb->FullPath, 3) < 3) {
        *VolumeUnits = Fcb->FullPath.Length / sizeof(WCHAR);
        return RVFsdOpenVolume(Security, Fcb->FullPath.Buffer, &Instance->VolumeHandle);
    }
    OwnedString VolumePath;
    const RVSTATUS Result =
        NtFsdOpenVolumeOfPath(Security, Fcb->FullPath.Buffer, VolumePath.Get(), &Instance->VolumeHandle);
    *VolumeUnits = UnitsOf(*VolumePath.Get());
    return Result;
}

// Makes the open relative to its volume. When the volume cannot be opened, or its path is no leading part of the FCB's,
// the object is named by its full path; create finds out through its own calls.
void SplitAgainstVolume(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance)
    HOLDING(Fcb->Resource, Instance->Fcb->Resource) {
    ULONG VolumeUnits = 0;
    const RVSTATUS Result = OpenVolumeOf(IrpContext, Fcb, Instance, &VolumeUnits);
    NtFsdDebugPrint(TRACE_FCB, 0, " Open Vol \"%wZ\", handle=0x%x, status=0x%x.\n", &Fcb->FullPath,
                    LowPart(Instance->VolumeHandle), static_cast<ULONG>(Result));
    if (RvIsError(Result)) {
        Instance->VolumeHandle = 0;
        return;
    }
    if (!EndsComponent(&Fcb->FullPath, VolumeUnits)) {
        Ignore(RVFsdCloseVolume(&IrpContext->SecurityContext, Instance->VolumeHandle),
               "nobody can use the handle again");
        Instance->VolumeHandle = 0;
        return;
    }
    PWSTR Split = Fcb->FullPath.Buffer + VolumeUnits;
    if (*Split == SEPARATOR) {
        ++Split;
    }
    NtFsdSetPathLeft(Instance, Split);
    Fcb->VolumeRoot = *Split == 0;
    NtFsdSetVolumeResolved(Fcb, 1);
    Instance->BaseHandle = Instance->RelatedHandle = Instance->VolumeHandle;
    NtFsdDebugPrint(TRACE_FCB, 0, " Path past volume level = %ls\n", static_cast<PCWSTR>(Split));
}

// Makes the open relative to the open it was named by, which lives at least as long as this create. When that open has
// no handle of its own directory (it created it and did not open it, or has been renamed) the full path is right,
// whatever its other handles name.
void NameRelative(const RELATED_OPEN &Related, PUNICODE_STRING Name, PFCB Fcb, PINSTANCE_CONTEXT Instance)
    HOLDING(Fcb->Resource, Instance->Fcb->Resource) {
    if (!Fcb->VolumeRoot) {
        NtFsdSetVolumeResolved(Fcb, NtFsdReadVolumeResolved(Related.Fcb));
    }
    const RVHANDLE Handle = NtFsdHandleToLend(Related.Instance);
    if (Handle != 0) {
        Instance->BaseHandle = Instance->RelatedHandle = Handle;
        NtFsdSetPathLeft(Instance, Fcb->FullPath.Buffer + UnitsOf(Fcb->FullPath) - UnitsOf(*Name));
        NtFsdBorrowFrom(Related.Instance, Instance);
    }
}

void Attach(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance) HOLDING(Fcb->Resource) {
    InsertTailList(&Fcb->InstanceList, &Instance->Links);
    ++Fcb->UncleanCount;
    PFILE_OBJECT FileObject = IrpContext->FileObject;
    FileObject->FsContext = Fcb;
    FileObject->FsContext2 = Instance;
    FileObject->SectionObjectPointer = &Fcb->SectionObjectPointers;
}

// Composes the path of Name below Directory (NULL: Name is the path), asks what is there, and finds or makes its FCB.
// STATUS_RETRY when a rename of Source came in between.
NTSTATUS FindByName(PIRP_CONTEXT IrpContext, const PATH_SOURCE &Source, PCUNICODE_STRING Directory,
                    PUNICODE_STRING Name, FOUND_FCB &Found, ResourceHold &Hold) {
    OwnedString Path;
    NTSTATUS Status = ComposeName(Directory, Name, Path.Get());
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Status = NtFsdVerifyFile(IrpContext, Path->Buffer, Path->Length, &Found.FileStatus);
    if (Status != STATUS_SUCCESS) {
        Status = Source.Judge(NT_SUCCESS(Status) ? STATUS_UNSUCCESSFUL : Status);
        if (Status != STATUS_RETRY) {
            NtFsdDebugPrint(TRACE_FCB, 0, "[RVFSD] NtFsdOpenFcb NtFsdVerifyFile for \"%wZ\" failed; status 0x%08X.\n",
                            Path.Get(), Status);
        }
        return Status;
    }
    Found.Instance.Adopt(AllocateInstance(IrpContext));
    if (!Found.Instance) {
        NtFsdDebugPrint(TRACE_FCB, 0,
                        "[RVFSD] NtFsdOpenFcb for \"%wZ\" NtFsdAllocInstanceContext failed; "
                        "STATUS_INSUFFICIENT_RESOURCES.\n",
                        Path.Get());
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    BOOLEAN Created;
    Status = NtFsdOpenOrCreateFcb(IrpContext, Path.Get(), Source, &Found.Fcb, &Created, Hold);
    if (!NT_SUCCESS(Status) && Status != STATUS_RETRY) {
        NtFsdDebugPrint(TRACE_FCB, 0, "[RVFSD] NtFsdOpenFcb for \"%wZ\" NtFsdOpenOrCreateFcb failed; status 0x%08X.\n",
                        Path.Get(), Status);
    }
    return Status;
}

// One attempt at an open. Directory is the path that Name lies below, NULL when Name is a whole path.
NTSTATUS OpenOnce(PIRP_CONTEXT IrpContext, const RELATED_OPEN &Related, const PATH_SOURCE &Source,
                  PCUNICODE_STRING Directory, PUNICODE_STRING Name, PFCB *Fcb, PINSTANCE_CONTEXT *Instance,
                  PULONG OpenCount, PULONG EntryType, ResourceHold &Hold, FCB_BEFORE_OPEN *Before) {
    FOUND_FCB Found;
    const NTSTATUS Status = FindByName(IrpContext, Source, Directory, Name, Found, Hold);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Hold.Holds(&Found.Fcb->Resource);
    if (Before != nullptr) {
        *Before = {Found.Fcb->OpenFlags, Found.Fcb->VolumeResolved, Found.Fcb->VolumeRoot};
    }
    if (Found.FileStatus == STATUS_SUCCESS) {
        *EntryType = ENTRY_TYPE_FILE;
    } else if (Found.FileStatus == STATUS_FILE_IS_A_DIRECTORY) {
        *EntryType = ENTRY_TYPE_DIRECTORY;
    } else if (Found.FileStatus == STATUS_NO_SUCH_FILE) {
        NtFsdSetOpenFlags(Found.Fcb, FCB_STATE_NOT_FOUND_AT_OPEN);
    }
    Found.Instance->Fcb = Found.Fcb;
    NtFsdSameLock(Found.Fcb, Found.Instance.Get());
    NtFsdSetPathLeft(Found.Instance.Get(), Found.Fcb->FullPath.Buffer);
    if (Related.Fcb == nullptr || Name->Length == 0) {
        SplitAgainstVolume(IrpContext, Found.Fcb, Found.Instance.Get());
    } else {
        NameRelative(Related, Name, Found.Fcb, Found.Instance.Get());
    }
    *OpenCount = Found.Fcb->OpenCount;
    *Fcb = Found.Fcb;
    *Instance = Found.Instance.Detach();
    Attach(IrpContext, Found.Fcb, *Instance);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS PATH_SOURCE::Judge(NTSTATUS Status) const {
    if (Fcb == nullptr) {
        return Status;
    }
    const SharedHold Table(&FcbTableResource);
    return IsCurrent() ? Status : STATUS_RETRY;
}

NTSTATUS NtFsdCheckRelated(PFILE_OBJECT FileObject, PFCB *Fcb, PINSTANCE_CONTEXT *Instance) {
    *Fcb = nullptr;
    *Instance = nullptr;
    if (FileObject == nullptr) {
        return STATUS_SUCCESS;
    }
    if (!NtFsdIsFcb(FileObject->FsContext) || FileObject->FsContext2 == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    const auto Related = static_cast<PFCB>(FileObject->FsContext);
    if (NtFsdReadOpenType(Related) == OPEN_TYPE_DEVICE) {
        return STATUS_NOT_A_DIRECTORY;
    }
    *Fcb = Related;
    *Instance = static_cast<PINSTANCE_CONTEXT>(FileObject->FsContext2);
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdOpenFcb(PIRP_CONTEXT IrpContext, PFILE_OBJECT RelatedFileObject, PUNICODE_STRING Name, PFCB *Fcb,
                      PINSTANCE_CONTEXT *Instance, PULONG OpenCount, PULONG EntryType, ResourceHold &Hold,
                      FCB_BEFORE_OPEN *Before) {
    *Fcb = nullptr;
    *Instance = nullptr;
    RELATED_OPEN Related;
    const NTSTATUS Status = NtFsdCheckRelated(RelatedFileObject, &Related.Fcb, &Related.Instance);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    return NtFsdUnderCurrentPath(Related.Fcb, [&](const PATH_SOURCE &Source) {
        return OpenOnce(IrpContext, Related, Source, Source.Path(), Name, Fcb, Instance, OpenCount, EntryType, Hold,
                        Before);
    });
}

NTSTATUS NtFsdOpenComposedFcb(PIRP_CONTEXT IrpContext, const PATH_SOURCE &Source, PUNICODE_STRING Name, PFCB *Fcb,
                              PINSTANCE_CONTEXT *Instance, PULONG OpenCount, PULONG EntryType, ResourceHold &Hold,
                              FCB_BEFORE_OPEN *Before) {
    *Fcb = nullptr;
    *Instance = nullptr;
    return OpenOnce(IrpContext, {nullptr, nullptr}, Source, nullptr, Name, Fcb, Instance, OpenCount, EntryType, Hold,
                    Before);
}
