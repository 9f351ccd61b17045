#include "frame/diagnostics.h"
#include "info/set_information.h"
#include "info/volume_size.h"
#include "io/io.h"
#include "io/transfer.h"
#include "provider/binding.h"
#include "provider/provider_calls.h"

namespace {

// Refuses a size that the caller's space cannot hold, and remembers that for the writes that follow.
NTSTATUS CheckSpace(SET_INFORMATION &Change, ULONG64 NewSize) {
    ULONG64 VolumeLength;
    ULONG64 FreeSpace;
    ULONG64 QuotaAllowed;
    ULONG64 FreeAfterQuota;
    const RVSTATUS Result = NtQueryPhysicalTargetVolumeSizeInfo(
        Change.IrpContext, Change.Fcb, Change.Instance, &VolumeLength, &FreeSpace, &QuotaAllowed, &FreeAfterQuota);
    if (RvIsError(Result)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "NtFsdCommonFileSetFileSize NtQueryPhysicalTargetVolumeSizeInfo() failed; status 0x%08X.\n",
                        static_cast<ULONG>(Result));
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " Volume Length\t\t\t\t: %I64d\n", VolumeLength);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " Free Space on Volume\t    : %I64d\n", FreeSpace);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " Quota\tallowed             : %I64d\n", QuotaAllowed);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " Free Space after Quota\t: %I64d\n", FreeAfterQuota);
    if (NewSize <= FreeAfterQuota) {
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(
        TRACE_FILE_INFO, 0,
        "[RVFSD] NtFsdCommonFileSetFileSize for \"%wZ\" requested size %I64u exceeds available %I64u bytes; "
        "STATUS_DISK_FULL.\n",
        &Change.Fcb->FullPath, NewSize, FreeAfterQuota);
    Change.Hold.Holds(&Change.Instance->Fcb->Resource);
    Change.Instance->DiskFullLatched = TRUE;
    Change.Instance->DiskFullAvailable = FreeAfterQuota;
    Change.Instance->DiskFullTime = NtFsdSystemTime();
    return STATUS_DISK_FULL;
}

} // namespace

NTSTATUS NtFsdCommonFileSetFileSize(SET_INFORMATION &Change, LONG64 NewSize) {
    if (!Change.IsFile()) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (NewSize < 0) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS Status = CheckSpace(Change, static_cast<ULONG64>(NewSize));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    // A write of nothing without a buffer sets the size to its offset.
    LONG64 Offset = NewSize;
    ULONG64 Written = 0;
    Status =
        TransferStatus(RVFsdWriteFile(Change.Security(), Change.Instance->FileHandle, &Offset, 0, nullptr, &Written));
    if (NT_SUCCESS(Status)) {
        Ignore(RvFsdUpdateFCBFileSize(Change.Fcb, TRUE, NewSize, 0), "it cannot fail");
    }
    NtFsdSetFileFlags(Change.FileObject, FO_FILE_MODIFIED | FO_FILE_SIZE_CHANGED);
    return Status;
}
