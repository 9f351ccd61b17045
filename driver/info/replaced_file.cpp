#include "info/replaced_file.h"

#include "frame/status_translation.h"
#include "info/open_volume.h"
#include "names/paths.h"

namespace {

// An identifier of zeros is a Provider's that has none to give.
bool IsIdentified(const OPEN_VOLUME &Volume) {
    UCHAR Bits = 0;
    for (const UCHAR Byte : Volume.Identifier) {
        Bits |= Byte;
    }
    return Volume.HasIdentifier() && Bits != 0;
}

// The volume that the path of Fcb leads to: of its physical path, if it lies in a distributed name space.
NTSTATUS VolumeBehind(PRV_SECURITY Security, PFCB Fcb, PUNICODE_STRING Volume) {
    OwnedString Physical;
    const bool Distributed = NtFsdGetDFSPhysicalPath(Security, &Fcb->FullPath, Physical.Get()) == RVSTATUS::Success;
    return NtFsdTranslateResult(
        NtFsdQueryPathForVolume(Security, Distributed ? Physical->Buffer : Fcb->FullPath.Buffer, Volume));
}

// STATUS_SUCCESS when both paths lead into one volume by the Provider's word for where it begins: several volumes may
// begin below one \server\volume.
NTSTATUS CompareVolumePaths(PRV_SECURITY Security, PFCB Source, PFCB Target) {
    OwnedString SourceVolume;
    NTSTATUS Status = VolumeBehind(Security, Source, SourceVolume.Get());
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    OwnedString TargetVolume;
    Status = VolumeBehind(Security, Target, TargetVolume.Get());
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    return RtlEqualUnicodeString(SourceVolume.Get(), TargetVolume.Get(), TRUE) ? STATUS_SUCCESS
                                                                               : STATUS_NOT_SAME_DEVICE;
}

// The identifier of what bears Name below Directory. STATUS_NO_SUCH_FILE and STATUS_FILE_IS_A_DIRECTORY are answers,
// too.
NTSTATUS FileIdOf(PRV_SECURITY Security, RVHANDLE Directory, PCWSTR Name, PULONG64 FileId) {
    ProviderFile File(Security);
    ULONG Action;
    const NTSTATUS Status =
        NtFsdTranslateResult(RVFsdCreateFile(Security, Directory, Name, RV_QUERY_ACCESS, File.Out(), &Action));
    return NT_SUCCESS(Status) ? NtFsdTranslateResult(RVFsdGetFileId(Security, File.Get(), FileId)) : Status;
}

// Compares the files' identifiers. Without one of them it fails: the file to be replaced might be the one to be moved.
NTSTATUS CompareFiles(PRV_SECURITY Security, RVHANDLE Source, RVHANDLE TargetDirectory, PCWSTR NewName, bool *AreOne) {
    ULONG64 SourceId = 0;
    NTSTATUS Status = NtFsdTranslateResult(RVFsdGetFileId(Security, Source, &SourceId));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    ULONG64 TargetId = 0;
    Status = FileIdOf(Security, TargetDirectory, NewName, &TargetId);
    if (Status == STATUS_NO_SUCH_FILE || Status == STATUS_FILE_IS_A_DIRECTORY) {
        return STATUS_SUCCESS; // not the file, whatever the delete will say
    }
    *AreOne = NT_SUCCESS(Status) && TargetId == SourceId;
    return Status;
}

} // namespace

NTSTATUS NtFsdLookAtReplaced(PRV_SECURITY Security, PFCB SourceFcb, PINSTANCE_CONTEXT Source, PFCB TargetFcb,
                             PINSTANCE_CONTEXT Target, RVHANDLE TargetHandle, PCWSTR NewName, bool *IsItself) {
    *IsItself = false;
    OPEN_VOLUME SourceVolume;
    NTSTATUS Status = NtFsdVolumeOfOpen(Security, SourceFcb, Source, &SourceVolume);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    OPEN_VOLUME TargetVolume;
    Status = NtFsdVolumeOfOpen(Security, TargetFcb, Target, &TargetVolume);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    if (IsIdentified(SourceVolume) && IsIdentified(TargetVolume) &&
        memcmp(SourceVolume.Identifier, TargetVolume.Identifier, sizeof(SourceVolume.Identifier)) != 0) {
        return STATUS_NOT_SAME_DEVICE;
    }
    // Equal identifiers prove nothing alone: a cloned volume, or a server that lies, shows another's.
    Status = CompareVolumePaths(Security, SourceFcb, TargetFcb);
    // Without valid identifiers the files have none either.
    if (!NT_SUCCESS(Status) || !SourceVolume.HasIdentifier() || !TargetVolume.HasIdentifier()) {
        return Status;
    }
    return CompareFiles(Security, Source->FileHandle, TargetHandle, NewName, IsItself);
}
