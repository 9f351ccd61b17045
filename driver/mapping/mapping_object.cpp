#include "mapping/mapping_object.h"

#include "frame/diagnostics.h"
#include "frame/rundown.h"
#include "frame/status_translation.h"
#include "mapping/read_once.h"
#include "mapping/rvpl_block.h"
#include "mapping/utf8.h"
#include "names/paths.h"
#include "provider/provider_calls.h"

namespace {

// A context without a request, for the calling user; freed by scope.
class CallerContext {
public:
    CallerContext() : Context_(NtFsdCreateIrpContext(nullptr, FALSE)) {
    }
    CallerContext(const CallerContext &) = delete;
    CallerContext &operator=(const CallerContext &) = delete;
    ~CallerContext() {
        if (Context_ != nullptr) {
            NtFsdDeleteIrpContext(Context_);
        }
    }
    PIRP_CONTEXT Get() const {
        return Context_;
    }

private:
    PIRP_CONTEXT Context_;
};

// The frame of every operation: runs Work(IrpContext) for the caller, in a critical region, and teardown waits for it.
// WithoutContext() runs instead when there is no memory for a context.
template <typename F, typename G>
NTSTATUS Serve(bool ArgumentMissing, F Work, G WithoutContext) {
    const RequestInFlight InFlight;
    if (!InFlight) {
        return STATUS_UNSUCCESSFUL;
    }
    if (ArgumentMissing) {
        return STATUS_INVALID_PARAMETER;
    }
    const CriticalRegion Region;
    const CallerContext Context;
    if (Context.Get() == nullptr) {
        WithoutContext();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return Work(Context.Get());
}

template <typename F>
NTSTATUS Serve(bool ArgumentMissing, F Work) {
    return Serve(ArgumentMissing, Work, [] {});
}

NTSTATUS VerifyDirectory(PIRP_CONTEXT IrpContext, PCUNICODE_STRING Path) {
    ProviderDirectory Directory(&IrpContext->SecurityContext);
    const NTSTATUS Status =
        NtFsdTranslateResult(RVFsdOpenDirectory(&IrpContext->SecurityContext, 0, Path->Buffer, Directory.Out()));
    if (Status == STATUS_SUCCESS) {
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(TRACE_FACTORY, 0, "RvxVerifyPath: RVFsdOpenDirectory for \"%wZ\" failed; status 0x%08X\n", Path,
                    Status);
    // A warning is no path that was opened, though it reads as a success.
    return NT_SUCCESS(Status) ? STATUS_UNSUCCESSFUL : Status;
}

NTSTATUS Verify(PIRP_CONTEXT IrpContext, PCSTR Utf8Path) {
    UNICODE_STRING Path;
    const RVPSTATUS Converted = UTF8ToUnicode(&Path, Utf8Path);
    if (RvpIsError(Converted)) {
        NtFsdDebugPrint(TRACE_FACTORY, 0, "RvxVerifyPath: UTF8ToUnicode failed.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const RvplBlock<WCHAR> Owner(Path.Buffer);
    const ULONG Components = NtFsdCountPathComponents(&Path);
    if (Components < 2) {
        NtFsdDebugPrint(TRACE_FACTORY, 0, "RvxVerifyPath: unable to parse path \"%wZ\"\n", &Path);
        return STATUS_BAD_NETWORK_PATH;
    }
    return Components == 2 ? NtFsdVerifyVolume(&IrpContext->SecurityContext, &Path, "RvxVerifyPath:", "")
                           : VerifyDirectory(IrpContext, &Path);
}

NTSTATUS Answer(const MAPPED_DEVICE &Record, QUERY_DRIVE *Request) {
    const size_t Length = strlen(Record.pPathData);
    const ULONG Given = Length > LONGEST_QUERIED_PATH ? LONGEST_QUERIED_PATH : static_cast<ULONG>(Length);
    Request->Reserved = 0;
    Request->MappingOptions = Record.MappingOptions;
    Request->DriveNumber = Record.DriveNumber;
    Request->PathLength = Given;
    RtlCopyMemory(Request->Path, Record.pPathData, Given);
    Request->Path[Given] = 0;
    return Length > LONGEST_QUERIED_PATH ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

} // namespace

NTSTATUS NTAPI RvxVerifyPath(RVFSD_MAPPING *, ULONG Number, PCSTR Utf8Path) {
    NtFsdDebugPrint(TRACE_FACTORY, 0, "RvxVerifyPath: \"%s\" (%u).\n", Utf8Path != nullptr ? Utf8Path : "", Number);
    return Serve(
        Utf8Path == nullptr, [Utf8Path](PIRP_CONTEXT IrpContext) { return Verify(IrpContext, Utf8Path); },
        [] { NtFsdDebugPrint(TRACE_FACTORY, 0, "RvxVerifyPath: NtFsdCreateIrpContext failed.\n"); });
}

NTSTATUS NTAPI RvxMapDrive(RVFSD_MAPPING *, const MAP_REQUEST *Request) {
    NtFsdDebugPrint(TRACE_FACTORY, 0, "Call to RvxMapDrive\n");
    return Serve(Request == nullptr, [Request](PIRP_CONTEXT IrpContext) { return RvMapDrive(IrpContext, Request); });
}

NTSTATUS NTAPI RvxUnMapDrive(RVFSD_MAPPING *, const ULONG *Request) {
    NtFsdDebugPrint(TRACE_FACTORY, 0, "Call to RvxUnMapDrive\n");
    return Serve(Request == nullptr, [Request](PIRP_CONTEXT IrpContext) {
        MAPPED_DEVICE *Record;
        ResourceHold Hold;
        const NTSTATUS Found = FindMappedDevice(IrpContext, ReadOnce(Request), &Record, TRUE, &Hold);
        return NT_SUCCESS(Found) ? FreeMappedDeviceRecord(Record) : STATUS_RESOURCE_NOT_OWNED;
    });
}

NTSTATUS NTAPI RvxQueryDrive(RVFSD_MAPPING *, QUERY_DRIVE *Request) {
    NtFsdDebugPrint(TRACE_FACTORY, 0, "Call to RvxQueryDrive\n");
    return Serve(Request == nullptr, [Request](PIRP_CONTEXT IrpContext) {
        MAPPED_DEVICE *Record;
        ResourceHold Hold; // until the record is read
        const NTSTATUS Found = FindMappedDevice(IrpContext, ReadOnce(&Request->DriveNumber), &Record, FALSE, &Hold);
        return NT_SUCCESS(Found) ? Answer(*Record, Request) : STATUS_RESOURCE_NOT_OWNED;
    });
}

NTSTATUS NTAPI RvxUnMapServer(RVFSD_MAPPING *, ULONG ConnectionId) {
    NtFsdDebugPrint(TRACE_FACTORY, 0, "Call to RvxUnMapServer\n");
    return Serve(false,
                 [ConnectionId](PIRP_CONTEXT IrpContext) { return UnmapServerMappings(IrpContext, ConnectionId); });
}

NTSTATUS NTAPI RvxTraceMessage(RVFSD_MAPPING *, PCSTR Text) {
    if (Text != nullptr) {
        NtFsdExternalPrint(Text);
    }
    return STATUS_SUCCESS;
}
