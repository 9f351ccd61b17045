#include "info/replaced_file.h"

#include "info/open_volume.h"

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

bool HasOneVolumeName(PFCB First, PFCB Second) {
    const UNICODE_STRING FirstPart = VolumePart(First->FullPath);
    const UNICODE_STRING SecondPart = VolumePart(Second->FullPath);
    return RtlEqualUnicodeString(&FirstPart, &SecondPart, TRUE);
}

// Whether something in Source's volume can be moved into Target's. Volumes without identifiers are told apart by name.
// A distributed path may have another volume's name and lead into the same one, and a volume may begin below another.
bool IsOneVolume(const OPEN_VOLUME &Source, const OPEN_VOLUME &Target, bool OneName) {
    return Source.HasIdentifier() && Target.HasIdentifier()
               ? memcmp(Source.Identifier, Target.Identifier, sizeof(Source.Identifier)) == 0
               : OneName;
}

// The identifier of what bears Name below Directory; 0 when there is none to be had.
ULONG64 FileIdOf(PRV_SECURITY Security, RVHANDLE Directory, PCWSTR Name) {
    ProviderFile File(Security);
    ULONG Action;
    ULONG64 FileId = 0;
    if (RvIsError(RVFsdCreateFile(Security, Directory, Name, RV_QUERY_ACCESS, File.Out(), &Action)) ||
        RvIsError(RVFsdGetFileId(Security, File.Get(), &FileId))) {
        return 0;
    }
    return FileId;
}

} // namespace

REPLACED NtFsdWhatIsReplaced(PRV_SECURITY Security, PFCB SourceFcb, PINSTANCE_CONTEXT Source, PFCB TargetFcb,
                             PINSTANCE_CONTEXT Target, PCWSTR NewName) {
    const OPEN_VOLUME SourceVolume = NtFsdVolumeOfOpen(Security, SourceFcb, Source);
    const OPEN_VOLUME TargetVolume = NtFsdVolumeOfOpen(Security, TargetFcb, Target);
    if (!IsOneVolume(SourceVolume, TargetVolume, HasOneVolumeName(SourceFcb, TargetFcb))) {
        return REPLACED::Unreachable;
    }
    if (!SourceVolume.HasIdentifier() || !TargetVolume.HasIdentifier()) {
        return REPLACED::Another; // nor have the files identifiers
    }
    ULONG64 SourceId = 0;
    if (RvIsError(RVFsdGetFileId(Security, Source->FileHandle, &SourceId)) || SourceId == 0) {
        return REPLACED::Another;
    }
    return FileIdOf(Security, Target->RelatedHandle, NewName) == SourceId ? REPLACED::Itself : REPLACED::Another;
}
