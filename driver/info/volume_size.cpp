#include "info/volume_size.h"

#include "frame/diagnostics.h"
#include "info/volume_path.h"
#include "names/paths.h"
#include "provider/provider_calls.h"

namespace {

// The path of Fcb as the Provider resolves it: physical if it lies in a distributed namespace, its volume path if not.
RVSTATUS ResolvePath(PRV_SECURITY Security, PFCB Fcb, PUNICODE_STRING Path) {
    RVSTATUS Status = NtFsdGetDFSPhysicalPath(Security, &Fcb->FullPath, Path);
    if (Status == RVSTATUS::Success) {
        return Status;
    }
    if (Status != RVSTATUS::NotDistributedPath) {
        NtFsdDebugPrint(
            TRACE_VOLUME_INFO, 0,
            "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo RVFsdGetDFSPhysicalPath for \"%wZ\" failed; status "
            "0x%08X.\n",
            &Fcb->FullPath, static_cast<ULONG>(Status));
    }
    NtFsdFreeUnicodeString(Path); // a warning came with a path
    Status = NtFsdQueryPathForVolume(Security, Fcb->FullPath.Buffer, Path);
    if (RvIsError(Status)) {
        NtFsdDebugPrint(
            TRACE_VOLUME_INFO, 0,
            "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo RVFsdQueryPathForVolume for \"%wZ\" failed; status "
            "0x%08X.\n",
            &Fcb->FullPath, static_cast<ULONG>(Status));
    }
    return Status;
}

} // namespace

RVSTATUS NtQueryPhysicalTargetVolumeSizeInfo(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT,
                                             PULONG64 VolumeLength, PULONG64 FreeSpace, PULONG64 QuotaAllowed,
                                             PULONG64 FreeAfterQuota) {
    const PRV_SECURITY Security = &IrpContext->SecurityContext;
    *VolumeLength = *FreeSpace = *QuotaAllowed = *FreeAfterQuota = 0;
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                    "[RVFSD] NtQueryPhysicalTargetVolumeSizeInfo RVFsdQueryPathForVolume called for \"%wZ\".\n",
                    &Fcb->FullPath);
    OwnedString Path;
    RVSTATUS Status = ResolvePath(Security, Fcb, Path.Get());
    if (RvIsError(Status)) {
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
