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

// Has Ask() fill *Answer with what the Provider says of Path, for Routine.
template <typename F>
RVSTATUS AskForPath(PCSTR Routine, PCWSTR Path, PUNICODE_STRING Answer, F Ask) {
    if (!AllocatePathBuffer(Answer)) {
        NtFsdDebugPrint(TRACE_GENERAL, 0,
                        "[RVFSD] %s for \"%ws\" unable to alloc %hu bytes; STATUS_INSUFFICIENT_RESOURCES.\n", Routine,
                        Path, static_cast<ULONG>(PATH_BUFFER_BYTES));
        return RVSTATUS::BufferAllocation;
    }
    const RVSTATUS Result = Ask();
    if (RvIsError(Result)) {
        NtFsdFreeUnicodeString(Answer);
        NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD] %s for \"%ws\" failed; status 0x%08X.\n", Routine, Path,
                        static_cast<ULONG>(Result));
        return Result;
    }
    Answer->Length = static_cast<USHORT>(WideLength(Answer->Buffer, PATH_BUFFER_BYTES / 2 - 1) * sizeof(WCHAR));
    NtFsdDebugPrint(TRACE_GENERAL, 0, "[RVFSD] %s for \"%ws\" returned \"%wZ\"; status 0x%08X.\n", Routine, Path,
                    Answer, static_cast<ULONG>(Result));
    return Result;
}

} // namespace

RVSTATUS NtFsdQueryPathForVolume(RV_SECURITY_CONTEXT *SecurityContext, PCWSTR Path, PUNICODE_STRING VolumePath) {
    return AskForPath("NtFsdQueryPathForVolume", Path, VolumePath,
                      [&] { return RVFsdQueryPathForVolume(SecurityContext, Path, VolumePath->Buffer); });
}

RVSTATUS NtFsdGetDFSPhysicalPath(RV_SECURITY_CONTEXT *SecurityContext, PUNICODE_STRING Path,
                                 PUNICODE_STRING PhysicalPath) {
    return AskForPath("NtFsdGetDFSPhysicalPath", Path->Buffer, PhysicalPath,
                      [&] { return RVFsdGetDFSPhysicalPath(SecurityContext, Path, PhysicalPath); });
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

RVSTATUS NtFsdOpenVolumeOfPath(RV_SECURITY_CONTEXT *SecurityContext, PCWSTR Path, PUNICODE_STRING VolumePath,
                               RVHANDLE *Volume) {
    const RVSTATUS Status = NtFsdQueryPathForVolume(SecurityContext, Path, VolumePath);
    return RvIsError(Status) ? Status : RVFsdOpenVolume(SecurityContext, VolumePath->Buffer, Volume);
}

NTSTATUS NtFsdVerifyVolume(RV_SECURITY_CONTEXT *SecurityContext, PCUNICODE_STRING Path, PCSTR Asker, PCSTR End) {
    OwnedString VolumePath;
    const NTSTATUS Translated =
        NtFsdTranslateResult(NtFsdQueryPathForVolume(SecurityContext, Path->Buffer, VolumePath.Get()));
    if (Translated != STATUS_SUCCESS) {
        NtFsdDebugPrint(TRACE_FACTORY, 0, "%s RVFsdQueryPathForVolume for \"%wZ\" failed; status 0x%08X%s\n", Asker,
                        Path, Translated, End);
        return STATUS_BAD_NETWORK_PATH;
    }
    ProviderVolume Volume(SecurityContext);
    const RVSTATUS Opened = RVFsdOpenVolume(SecurityContext, VolumePath->Buffer, Volume.Out());
    if (Opened != RVSTATUS::Success) {
        NtFsdDebugPrint(TRACE_FACTORY, 0, "%s RVFsdOpenVolume for \"%wZ\" failed; status 0x%08X%s\n", Asker, Path,
                        static_cast<ULONG>(Opened), End);
        return STATUS_BAD_NETWORK_PATH;
    }
    return STATUS_SUCCESS;
}

namespace {

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
    UNICODE_STRING View = ViewOf(const_cast<PWSTR>(Path), PathLength / sizeof(WCHAR));
    if (UnitsOf(View) >= 2 && Path[0] == SEPARATOR && Path[1] == SEPARATOR) {
        View = ViewOf(View.Buffer + 1, UnitsOf(View) - 1);
    }
    return NtFsdWithoutSlash(View);
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
        const NTSTATUS Root = NtFsdVerifyVolume(&IrpContext->SecurityContext, Copy.Get(), "NtFsdVerifyFile", ".");
        *Found = NT_SUCCESS(Root) ? STATUS_FILE_IS_A_DIRECTORY : Root;
        return Root;
    }
    return VerifyBelowVolume(IrpContext, Copy.Get(), Found);
}
