// Device and file system controls: the multiple UNC provider's prefix claim; everything else is refused.

#include "control/our_device.h"
#include "frame/async_queue.h"
#include "frame/configuration.h"
#include "frame/diagnostics.h"
#include "frame/memory.h"
#include "names/paths.h"
#include "provider/binding.h"

namespace {

constexpr UNICODE_STRING REFUSED_NAMES[] = {ConstantString(WTEXT("\\SYSTEM.INI")),
                                            ConstantString(WTEXT("\\LOCALHOST"))};

// A query path taken apart; all lengths in bytes.
struct CLAIM_PATH {
    UNICODE_STRING Name; // a view, of an even length
    USHORT ServerPrefixLength;
    USHORT VolumeLength;
};

// Measures \\server and \\server\share. Without a share both are the whole name.
CLAIM_PATH SplitName(PCUNICODE_STRING PathName) {
    CLAIM_PATH Path = {*PathName, 0, 0};
    Path.Name.Length = static_cast<USHORT>(PathName->Length & ~1u);
    const VOLUME_POSITION Volume = NtFsdFindVolume(Path.Name);
    const bool HasShare = Volume.End > Volume.Start;
    Path.ServerPrefixLength = HasShare ? static_cast<USHORT>(Volume.ServerEnd * sizeof(WCHAR)) : Path.Name.Length;
    Path.VolumeLength = HasShare ? static_cast<USHORT>(Volume.End * sizeof(WCHAR)) : Path.Name.Length;
    return Path;
}

// Everything that deciding a claim needs.
struct CLAIM {
    const CLAIM_PATH &Path;
    const UNICODE_STRING &VolumePath;
    RVSTATUS Result;
    QUERY_PATH_RESPONSE *Response;
};

// The first Bytes of Text, for a message; Text may be shorter, or nothing.
WideText FirstBytes(const UNICODE_STRING &Text, ULONG Bytes) {
    return {Text.Buffer, (Bytes < Text.Length ? Bytes : Text.Length) / static_cast<ULONG>(sizeof(WCHAR))};
}

NTSTATUS ClaimSuccess(const CLAIM &Claim) {
    const ULONG Length = g_bUNCPathFilterBehavior ? Claim.Path.ServerPrefixLength : Claim.VolumePath.Length;
    Claim.Response->LengthAccepted = Length;
    NtFsdDebugPrint(TRACE_CONTROL, 0,
                    "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX successfully claiming \"%.*ws\" of \"%wZ\" (%u bytes).\n",
                    Length / 2, FirstBytes(Claim.VolumePath, Length), &Claim.Path.Name, Length);
    return STATUS_SUCCESS;
}

// With the filter switch on a known server is claimed whatever became of the volume: ResultName says what.
NTSTATUS ClaimServer(const CLAIM &Claim, PCSTR ResultName) {
    const ULONG Length = Claim.Path.ServerPrefixLength;
    Claim.Response->LengthAccepted = Length;
    NtFsdDebugPrint(TRACE_CONTROL, 0,
                    "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX for \"%wZ\" returned %s (0x%08X), but successfully claiming "
                    "\"%.*ws\" of \"%wZ\" (%u bytes).\n",
                    &Claim.Path.Name, ResultName, static_cast<ULONG>(Claim.Result), Length / 2,
                    FirstBytes(Claim.Path.Name, Length), &Claim.Path.Name, Length);
    return STATUS_SUCCESS;
}

NTSTATUS Refuse(const CLAIM &Claim, PCSTR ResultName, NTSTATUS Status, PCSTR StatusName) {
    NtFsdDebugPrint(TRACE_CONTROL, 0,
                    "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX failed \"%wZ\" with %s (0x%08X); setting status %s (0x%08X).\n",
                    &Claim.VolumePath, ResultName, static_cast<ULONG>(Claim.Result), StatusName, Status);
    return Status;
}

NTSTATUS RefuseUnexpected(const CLAIM &Claim) {
    NtFsdDebugPrint(TRACE_CONTROL, 0,
                    "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX failed \"%wZ\" with unexpected status 0x%08X; setting Windows "
                    "status STATUS_BAD_NETWORK_PATH (0x%08X).\n",
                    &Claim.VolumePath, static_cast<ULONG>(Claim.Result), STATUS_BAD_NETWORK_PATH);
    return STATUS_BAD_NETWORK_PATH;
}

NTSTATUS RefuseVolume(const CLAIM &Claim, PCSTR ResultName) {
    return g_bUNCPathFilterBehavior ? ClaimServer(Claim, ResultName)
                                    : Refuse(Claim, ResultName, STATUS_BAD_NETWORK_NAME, "STATUS_BAD_NETWORK_NAME");
}

NTSTATUS DecideClaim(const CLAIM &Claim) {
    switch (RvCode(Claim.Result)) {
    case 0:
        return RvIsError(Claim.Result) ? RefuseUnexpected(Claim) : ClaimSuccess(Claim);
    case RVFS_UNKNOWN_SERVER:
        return Refuse(Claim, "RVFS_UNKNOWN_SERVER", STATUS_BAD_NETWORK_PATH, "STATUS_BAD_NETWORK_PATH");
    case RVFS_NOT_AUTHENTICATED:
        return Refuse(Claim, "RVFS_NOT_AUTHENTICATED", STATUS_LOGON_FAILURE, "STATUS_LOGON_FAILURE");
    case RV_STATUS_ACCESS_DENIED:
        return Refuse(Claim, "RV_STATUS_ACCESS_DENIED", STATUS_LOGON_FAILURE, "STATUS_LOGON_FAILURE");
    case RVFS_UNRECOGNIZED_VOLUME:
        return RefuseVolume(Claim, "RVFS_UNRECOGNIZED_VOLUME");
    case RVFS_PATH_NOT_FOUND:
        return RefuseVolume(Claim, "RVFS_PATH_NOT_FOUND");
    default:
        return RefuseUnexpected(Claim);
    }
}

// The claim proper: asks the Provider for the volume of the name's \server\share.
NTSTATUS ClaimPrefix(PIRP_CONTEXT IrpContext, const QUERY_PATH_REQUEST_EX *Request, QUERY_PATH_RESPONSE *Response) {
    UNICODE_STRING PathName = Request->PathName;
    NtFsdDebugPrint(TRACE_CONTROL, 0, "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX called with Query Path \"%wZ\".\n", &PathName);
    Response->LengthAccepted = 0;
    const CLAIM_PATH Path = SplitName(&PathName);
    for (const UNICODE_STRING &Refused : REFUSED_NAMES) {
        if (RtlEqualUnicodeString(&Path.Name, &Refused, TRUE)) {
            NtFsdDebugPrint(TRACE_CONTROL, 0,
                            "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX matched request \"%wZ\" against \"%wZ\"; "
                            "STATUS_BAD_NETWORK_NAME.\n",
                            &PathName, &Refused);
            return STATUS_BAD_NETWORK_NAME;
        }
    }
    OwnedString Volume;
    const NTSTATUS Status = NtFsdUpdateUnicodeString(Volume.Get(), &Path.Name);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_CONTROL, 0,
                        "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX failed to duplicate Query Path \"%wZ\"; status 0x%08X.\n",
                        &PathName, Status);
        return Status;
    }
    NtFsdCutString(Volume.Get(), Path.VolumeLength / sizeof(WCHAR));

    OwnedString VolumePath;
    const RVSTATUS Result = NtFsdQueryPathForVolume(&IrpContext->SecurityContext, Volume->Buffer, VolumePath.Get());
    NtFsdDebugPrint(TRACE_CONTROL, 0,
                    "[RVFSD] IOCTL_REDIR_QUERY_PATH_EX RVFsdQueryPathForVolume for \"%wZ\" from \"%wZ\" returned "
                    "\"%wZ\"; status 0x%08X.\n",
                    Volume.Get(), &PathName, VolumePath.Get(), static_cast<ULONG>(Result));
    return DecideClaim({Path, *VolumePath.Get(), Result, Response});
}

NTSTATUS QueryPath(PIRP_CONTEXT IrpContext, PIRP Irp, PIO_STACK_LOCATION IrpSp) {
    const ULONG InputLength = IrpSp->Parameters.DeviceIoControl.InputBufferLength;
    const ULONG OutputLength = IrpSp->Parameters.DeviceIoControl.OutputBufferLength;
    static_assert(sizeof(QUERY_PATH_REQUEST_EX) == 80 && sizeof(QUERY_PATH_RESPONSE) == 4);
    const bool TooSmall = InputLength < sizeof(QUERY_PATH_REQUEST_EX) || OutputLength < sizeof(QUERY_PATH_RESPONSE);
    if (TooSmall) {
        NtFsdDebugPrint(TRACE_CONTROL, 0,
                        "IOCTL_REDIR_QUERY_PATH_EX called with insufficient buffer size; input %u bytes, output %u "
                        "bytes.\n",
                        InputLength, OutputLength);
    }
    if (Irp->RequestorMode != KernelMode) {
        NtFsdDebugPrint(TRACE_CONTROL, 0,
                        "IOCTL_REDIR_QUERY_PATH_EX called as user-mode IOCTL; returning "
                        "STATUS_INVALID_DEVICE_REQUEST.\n");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (TooSmall) {
        return STATUS_INVALID_PARAMETER;
    }
    return ClaimPrefix(IrpContext,
                       static_cast<const QUERY_PATH_REQUEST_EX *>(IrpSp->Parameters.DeviceIoControl.Type3InputBuffer),
                       static_cast<QUERY_PATH_RESPONSE *>(Irp->UserBuffer));
}

NTSTATUS Finish(PIRP_CONTEXT IrpContext, PIRP Irp, NTSTATUS Status) {
    IoGetCurrentIrpStackLocation(Irp)->Control &= static_cast<UCHAR>(~SL_PENDING_RETURNED);
    NtFsdCompleteAtOnce(Irp, Status, 0, IO_NETWORK_INCREMENT);
    NtFsdDeleteIrpContext(IrpContext);
    NtFsdDebugPrint(TRACE_CONTROL, 0, "NtFsdCommonDeviceControl() returning 0x%x\n", Status);
    return Status;
}

} // namespace

NTSTATUS NtFsdCommonDeviceControl(PIRP_CONTEXT IrpContext, PIRP Irp) {
    NtFsdDebugPrint(TRACE_CONTROL, 0, "NtFsdCommonDeviceControl() entered\n");
    if (!NT_SUCCESS(NtFsdEnsureFrameworkBound())) {
        NtFsdDebugPrint(TRACE_CONTROL, 0, "Unable to Initialize Orrery\n");
        return Finish(IrpContext, Irp, STATUS_UNSUCCESSFUL);
    }
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    switch (IrpSp->Parameters.DeviceIoControl.IoControlCode) {
    case FSCTL_GET_COMPRESSION:
    case FSCTL_SET_COMPRESSION:
        return NtFsdPostRequest(IrpContext);
    case IOCTL_REDIR_QUERY_PATH_EX:
        return Finish(IrpContext, Irp, QueryPath(IrpContext, Irp, IrpSp));
    default:
        return Finish(IrpContext, Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}
