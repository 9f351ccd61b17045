#include "info/open_volume.h"

#include "frame/status_translation.h"
#include "names/paths.h"

namespace {

// A warning is none, whatever it is translated from.
bool Succeeded(RVSTATUS Status) {
    return NT_SUCCESS(NtFsdTranslateResult(Status));
}

bool Ask(PRV_SECURITY Security, RVHANDLE Handle, OPEN_VOLUME *Volume) {
    if (Succeeded(RVFsdGetVolumeInformation(Security, Handle, &Volume->Flags, Volume->Identifier))) {
        return true;
    }
    *Volume = {};
    return false;
}

} // namespace

OPEN_VOLUME NtFsdVolumeOfOpen(PRV_SECURITY Security, PFCB Fcb, PINSTANCE_CONTEXT Instance) {
    OPEN_VOLUME Volume = {};
    if (Instance->VolumeHandle != 0 && Ask(Security, Instance->VolumeHandle, &Volume)) {
        return Volume;
    }
    OwnedString VolumePath;
    if (!Succeeded(NtFsdQueryPathForVolume(Security, Fcb->FullPath.Buffer, VolumePath.Get()))) {
        return Volume;
    }
    ProviderVolume Handle(Security);
    if (Succeeded(RVFsdOpenVolume(Security, VolumePath->Buffer, Handle.Out()))) {
        Ask(Security, Handle.Get(), &Volume);
    }
    return Volume;
}
