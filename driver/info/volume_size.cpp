#include "info/volume_size.h"

#include "frame/diagnostics.h"
#include "names/paths.h"
#include "provider/provider_calls.h"

RVSTATUS NtQueryPhysicalTargetVolumeSizeInfo(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT,
                                             PULONG64 VolumeLength, PULONG64 FreeSpace, PULONG64 QuotaAllowed,
                                             PULONG64 FreeAfterQuota) {
    const PRV_SECURITY Security = &IrpContext->SecurityContext;
    *VolumeLength = *FreeSpace = *QuotaAllowed = *FreeAfterQuota = 0;
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                    "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo RVFsdQueryPathForVolume called for \"%wZ\".\n",
                    &Fcb->FullPath);
    OwnedString Path;
    RVSTATUS Status = NtFsdResolvePath(Security, &Fcb->FullPath, Path.Get(), "NtQueryPhysicalTargetVolumeSizeInfo");
    if (RvIsError(Status)) {
        NtFsdDebugPrint(
            TRACE_VOLUME_INFO, 0,
            "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo RVFsdQueryPathForVolume for \"%wZ\" failed; status "
            "0x%08X.\n",
            &Fcb->FullPath, static_cast<ULONG>(Status));
        return Status;
    }
    NtFsdCutAfterVolume(Path.Get());
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                    "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo determined target volume \"%ws\" for \"%wZ\".\n",
                    Path->Buffer, &Fcb->FullPath);

    ProviderVolume Volume(Security);
    Status = RVFsdOpenVolume(Security, Path->Buffer, Volume.Out());
    if (RvIsError(Status)) {
        NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                        "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo RVFsdOpenVolume for \"%wZ\" failed; status "
                        "0x%08X.\n",
                        &Fcb->FullPath, static_cast<ULONG>(Status));
        return Status;
    }
    Status = RVFsdGetVolumeSize(Security, Volume.Get(), VolumeLength, FreeSpace, QuotaAllowed, FreeAfterQuota);
    if (RvIsError(Status)) {
        NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                        "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo RVFsdGetVolumeSize for \"%wZ\" failed; status "
                        "0x%08X.\n",
                        &Fcb->FullPath, static_cast<ULONG>(Status));
    }
    return Status;
}
