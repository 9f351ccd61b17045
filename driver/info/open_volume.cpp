#include "info/open_volume.h"

#include "frame/status_translation.h"
#include "names/paths.h"

namespace {

NTSTATUS Ask(PRV_SECURITY Security, RVHANDLE Handle, OPEN_VOLUME *Volume) {
    const NTSTATUS Status =
        NtFsdTranslateResult(RVFsdGetVolumeInformation(Security, Handle, &Volume->Flags, Volume->Identifier));
    if (!NT_SUCCESS(Status)) {
        *Volume = {};
    }
    return Status;
}

} // namespace

NTSTATUS NtFsdVolumeOfOpen(PRV_SECURITY Security, PFCB Fcb, PINSTANCE_CONTEXT Instance, OPEN_VOLUME *Volume) {
    *Volume = {};
    if (Instance->VolumeHandle != 0 && NT_SUCCESS(Ask(Security, Instance->VolumeHandle, Volume))) {
        return STATUS_SUCCESS;
    }
    OwnedString VolumePath;
    ProviderVolume Handle(Security);
    const NTSTATUS Status = NtFsdTranslateResult(
        NtFsdOpenVolumeOfPath(Security, NtFsdStablePath(Fcb)->Buffer, VolumePath.Get(), Handle.Out()));
    return NT_SUCCESS(Status) ? Ask(Security, Handle.Get(), Volume) : Status;
}
