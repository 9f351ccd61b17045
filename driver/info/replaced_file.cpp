#include "info/replaced_file.h"

#include "frame/status_translation.h"
#include "info/open_volume.h"
#include "names/paths.h"

namespace {

// \server\volume, what a path begins with.
UNICODE_STRING VolumePart(const UNICODE_STRING &Path) {
    ULONG Separators = 0;
    UNICODE_STRING Part = {0, 0, Path.Buffer};
    for (; Part.Length < Path.Length; Part.Length += sizeof(WCHAR)) {
        Separators += Path.Buffer[Part.Length / sizeof(WCHAR)] == SEPARATOR ? 1 : 0;
        if (Separators == 3) {
            break;
        }
    }
    return Part;
}

bool BeginAlike(PFCB First, PFCB Second) {
    const UNICODE_STRING FirstPart = VolumePart(First->FullPath);
    const UNICODE_STRING SecondPart = VolumePart(Second->FullPath);
    return RtlEqualUnicodeString(&FirstPart, &SecondPart, TRUE);
}

// An identifier of zeros is a Provider's that has none to give.
bool IsIdentified(const OPEN_VOLUME &Volume) {
    UCHAR Bits = 0;
    for (const UCHAR Byte : Volume.Identifier) {
        Bits |= Byte;
    }
    return Volume.HasIdentifier() && Bits != 0;
}

// STATUS_SUCCESS when both paths lie in one volume by the Provider's word for where it begins: several volumes may
// begin below one \server\volume.
NTSTATUS CompareVolumePaths(PRV_SECURITY Security, PFCB Source, PFCB Target) {
    if (!BeginAlike(Source, Target)) {
        return STATUS_NOT_SAME_DEVICE;
    }
    OwnedString SourceVolume;
    NTSTATUS Status =
        NtFsdTranslateResult(NtFsdQueryPathForVolume(Security, Source->FullPath.Buffer, SourceVolume.Get()));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    OwnedString TargetVolume;
    Status = NtFsdTranslateResult(NtFsdQueryPathForVolume(Security, Target->FullPath.Buffer, TargetVolume.Get()));
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

// By the identifiers of the files. One that cannot be had leaves it open whether the file itself would be deleted.
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
                             PINSTANCE_CONTEXT Target, PCWSTR NewName, bool *IsItself) {
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
    // A distributed path may have another volume's name and lead into the same one.
    if (!IsIdentified(SourceVolume) || !IsIdentified(TargetVolume)) {
        Status = CompareVolumePaths(Security, SourceFcb, TargetFcb);
    } else if (memcmp(SourceVolume.Identifier, TargetVolume.Identifier, sizeof(SourceVolume.Identifier)) != 0) {
        Status = STATUS_NOT_SAME_DEVICE;
    }
    // Without valid identifiers the files have none either.
    if (!NT_SUCCESS(Status) || !SourceVolume.HasIdentifier() || !TargetVolume.HasIdentifier()) {
        return Status;
    }
    return CompareFiles(Security, Source->FileHandle, Target->RelatedHandle, NewName, IsItself);
}
