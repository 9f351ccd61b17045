#include "names/paths.h"

#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "provider/provider_calls.h"

namespace {

constexpr USHORT PATH_BUFFER_BYTES = RV_PATH_BUFFER_BYTES;

// Gives String a buffer for a path answer. Zeroed: a Provider that fills a counted string may leave out the terminator.
bool AllocatePathBuffer(PUNICODE_STRING String) {
    *String = {0, PATH_BUFFER_BYTES, static_cast<PWSTR>(TwAllocMemory(PATH_BUFFER_BYTES))};
    if (String->Buffer == nullptr) {
        String->MaximumLength = 0;
        return false;
    }
    return true;
}

} // namespace

RVSTATUS NtFsdQueryPathForVolume(RV_SECURITY_CONTEXT *SecurityContext, PCWSTR Path, PUNICODE_STRING VolumePath) {
    if (!AllocatePathBuffer(VolumePath)) {
        NtFsdDebugPrint(
            TRACE_GENERAL, 0,
            "[RVFSD] NtFsdQueryPathForVolume for \"%ws\" unable to alloc %hu bytes; STATUS_INSUFFICIENT_RESOURCES.\n",
            Path, static_cast<ULONG>(PATH_BUFFER_BYTES));
        return RVSTATUS::BufferAllocation;
    }
    const RVSTATUS Result = RVFsdQueryPathForVolume(SecurityContext, Path, VolumePath->Buffer);
    if (RvIsError(Result)) {
        NtFsdFreeUnicodeString(VolumePath);
        NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD] NtFsdQueryPathForVolume for \"%ws\" failed; status 0x%08X.\n", Path,
                        static_cast<ULONG>(Result));
        return Result;
    }
    VolumePath->Length = static_cast<USHORT>(WideLength(VolumePath->Buffer, PATH_BUFFER_BYTES / 2 - 1) * sizeof(WCHAR));
    NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD] NtFsdQueryPathForVolume for \"%ws\" returned \"%wZ\"; status 0x%08X.\n",
                    Path, VolumePath, static_cast<ULONG>(Result));
    return Result;
}

RVSTATUS NtFsdGetDFSPhysicalPath(RV_SECURITY_CONTEXT *SecurityContext, PUNICODE_STRING Path,
                                 PUNICODE_STRING PhysicalPath) {
    if (!AllocatePathBuffer(PhysicalPath)) {
        NtFsdDebugPrint(
            TRACE_GENERAL, 0,
            "[RVFSD] NtFsdGetDFSPhysicalPath for \"%wZ\" unable to alloc %hu bytes; STATUS_INSUFFICIENT_RESOURCES.\n",
            Path, static_cast<ULONG>(PATH_BUFFER_BYTES));
        return RVSTATUS::BufferAllocation;
    }
    const RVSTATUS Result = RVFsdGetDFSPhysicalPath(SecurityContext, Path, PhysicalPath);
    if (RvIsError(Result)) {
        NtFsdFreeUnicodeString(PhysicalPath);
        NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD] NtFsdGetDFSPhysicalPath for \"%wZ\" failed; status 0x%08X.\n", Path,
                        static_cast<ULONG>(Result));
        return Result;
    }
    PhysicalPath->Length =
        static_cast<USHORT>(WideLength(PhysicalPath->Buffer, PATH_BUFFER_BYTES / 2 - 1) * sizeof(WCHAR));
    NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD] NtFsdGetDFSPhysicalPath for \"%wZ\" returned \"%wZ\"; status 0x%08X.\n",
                    Path, PhysicalPath, static_cast<ULONG>(Result));
    return Result;
}

RVSTATUS NtFsdResolvePath(RV_SECURITY_CONTEXT *SecurityContext, PUNICODE_STRING Path, PUNICODE_STRING Resolved,
                          PCSTR Asker) {
    const RVSTATUS Status = NtFsdGetDFSPhysicalPath(SecurityContext, Path, Resolved);
    if (Status == RVSTATUS::Success) {
        return Status;
    }
    if (Status != RVSTATUS::NotDistributedPath) {
        NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "[RVFSD] %s RVFsdGetDFSPhysicalPath for \"%wZ\" failed; status 0x%08X.\n",
                        Asker, Path, static_cast<ULONG>(Status));
    }
    NtFsdFreeUnicodeString(Resolved); // a warning came with a path
    return NtFsdQueryPathForVolume(SecurityContext, Path->Buffer, Resolved);
}

namespace {

// The volume root at Path: opened and closed again.
NTSTATUS VerifyVolumeRoot(PIRP_CONTEXT IrpContext, PCUNICODE_STRING Path) {
    RV_SECURITY_CONTEXT *Security = &IrpContext->SecurityContext;
    OwnedString VolumePath;
    const NTSTATUS Translated = NtFsdTranslateResult(NtFsdQueryPathForVolume(Security, Path->Buffer, VolumePath.Get()));
    if (Translated != STATUS_SUCCESS) {
        NtFsdDebugPrint(TRACE_FACTORY, 0,
                        "NtFsdVerifyFile RVFsdQueryPathForVolume for \"%wZ\" failed; status 0x%08X.\n", Path,
                        Translated);
        return STATUS_BAD_NETWORK_PATH;
    }
    ProviderVolume Volume(Security);
    const RVSTATUS Opened = RVFsdOpenVolume(Security, VolumePath->Buffer, Volume.Out());
    if (Opened != RVSTATUS::Success) {
        NtFsdDebugPrint(TRACE_FACTORY, 0, "NtFsdVerifyFile RVFsdOpenVolume for \"%wZ\" failed; status 0x%08X.\n", Path,
                        static_cast<ULONG>(Opened));
        return STATUS_BAD_NETWORK_PATH;
    }
    return STATUS_SUCCESS;
}

// Anything below a volume: the query open tells what is there.
NTSTATUS VerifyBelowVolume(PIRP_CONTEXT IrpContext, PCUNICODE_STRING Path, NTSTATUS *FileStatus) {
    RV_SECURITY_CONTEXT *Security = &IrpContext->SecurityContext;
    ProviderFile File(Security);
    ULONG Action;
    const RVSTATUS Result = RVFsdCreateFile(Security, 0, Path->Buffer, RV_QUERY_ACCESS, File.Out(), &Action);
    NtFsdDebugPrint(TRACE_GENERAL, 0, "RVFsdCreateFile (Query Access) returned 0x%08X for \"%wZ\".\n",
                    static_cast<ULONG>(Result), Path);
    const NTSTATUS Status = NtFsdTranslateResult(Result);
    switch (Status) {
    case STATUS_NO_MORE_ENTRIES:
        return STATUS_ACCESS_DENIED;
    case STATUS_SUCCESS:
    case STATUS_NO_SUCH_FILE:
    case STATUS_ACCESS_DENIED:
    case STATUS_FILE_IS_A_DIRECTORY:
        *FileStatus = Status;
        return STATUS_SUCCESS;
    default:
        return Status;
    }
}

// The view of a path with one of two leading backslashes and one trailing backslash dropped.
UNICODE_STRING NormalizedView(PCWSTR Path, ULONG PathLength) {
    ULONG Units = PathLength / sizeof(WCHAR);
    if (Units >= 2 && Path[0] == SEPARATOR && Path[1] == SEPARATOR) {
        ++Path;
        --Units;
    }
    if (Units >= 1 && Path[Units - 1] == SEPARATOR) {
        --Units;
    }
    const USHORT Bytes = static_cast<USHORT>(Units * sizeof(WCHAR));
    return {Bytes, Bytes, const_cast<PWSTR>(Path)};
}

} // namespace

NTSTATUS NtFsdVerifyFile(PIRP_CONTEXT IrpContext, PCWSTR Path, ULONG PathLength, NTSTATUS *FileStatus) {
    const WideText Text = {Path, PathLength / static_cast<ULONG>(sizeof(WCHAR))};
    NtFsdDebugPrint(TRACE_FACTORY, 0, "NtFsdVerifyFile: \"%ws\" (%u).\n", Text, PathLength);
    NTSTATUS Unused;
    NTSTATUS *Found = FileStatus != nullptr ? FileStatus : &Unused;
    *Found = STATUS_SUCCESS;
    if (PathLength > 0xFFFF) {
        NtFsdDebugPrint(TRACE_FACTORY, 0, "NtFsdVerifyFile duplicate string failed; status 0x%08X.\n",
                        STATUS_NAME_TOO_LONG);
        return STATUS_NAME_TOO_LONG;
    }

    const UNICODE_STRING View = NormalizedView(Path, PathLength);
    OwnedString Copy;
    const NTSTATUS Status = NtFsdUpdateUnicodeString(Copy.Get(), &View);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FACTORY, 0, "NtFsdVerifyFile duplicate string failed; status 0x%08X.\n", Status);
        return Status;
    }
    const ULONG Components = NtFsdCountPathComponents(Copy.Get(), 3);
    if (Components < 2) {
        // A server alone names no object that could be opened.
        NtFsdDebugPrint(TRACE_FACTORY, 0, "NtFsdVerifyFile unable to parse path \"%wZ\".\n", Copy.Get());
        *Found = STATUS_BAD_NETWORK_PATH;
        return STATUS_BAD_NETWORK_PATH;
    }
    if (Components == 2) {
        const NTSTATUS Root = VerifyVolumeRoot(IrpContext, Copy.Get());
        *Found = NT_SUCCESS(Root) ? STATUS_FILE_IS_A_DIRECTORY : Root;
        return Root;
    }
    return VerifyBelowVolume(IrpContext, Copy.Get(), Found);
}
