#include "create/create_state.h"

namespace {

struct NAMED_BIT {
    ULONG Bit;
    PCSTR Name;
};

#define NAMED(Bit)                                                                                                     \
    { static_cast<ULONG>(Bit), #Bit }

constexpr NAMED_BIT STACK_FLAGS[] = {
    NAMED(SL_FORCE_ACCESS_CHECK),
    NAMED(SL_OPEN_PAGING_FILE),
    NAMED(SL_OPEN_TARGET_DIRECTORY),
    NAMED(SL_CASE_SENSITIVE),
};

constexpr NAMED_BIT ACCESS_BITS[] = {
    NAMED(FILE_READ_DATA),        NAMED(FILE_WRITE_DATA), NAMED(FILE_APPEND_DATA),       NAMED(FILE_READ_EA),
    NAMED(FILE_WRITE_EA),         NAMED(FILE_EXECUTE),    NAMED(FILE_DELETE_CHILD),      NAMED(FILE_READ_ATTRIBUTES),
    NAMED(FILE_WRITE_ATTRIBUTES), NAMED(DELETE),          NAMED(READ_CONTROL),           NAMED(WRITE_DAC),
    NAMED(WRITE_OWNER),           NAMED(SYNCHRONIZE),     NAMED(ACCESS_SYSTEM_SECURITY), NAMED(MAXIMUM_ALLOWED),
    NAMED(GENERIC_ALL),           NAMED(GENERIC_EXECUTE), NAMED(GENERIC_WRITE),          NAMED(GENERIC_READ),
};

constexpr NAMED_BIT OPTION_BITS[] = {
    NAMED(FILE_DIRECTORY_FILE),
    NAMED(FILE_WRITE_THROUGH),
    NAMED(FILE_SEQUENTIAL_ONLY),
    NAMED(FILE_NO_INTERMEDIATE_BUFFERING),
    NAMED(FILE_SYNCHRONOUS_IO_ALERT),
    NAMED(FILE_SYNCHRONOUS_IO_NONALERT),
    NAMED(FILE_NON_DIRECTORY_FILE),
    NAMED(FILE_CREATE_TREE_CONNECTION),
    NAMED(FILE_COMPLETE_IF_OPLOCKED),
    NAMED(FILE_NO_EA_KNOWLEDGE),
    NAMED(FILE_OPEN_REMOTE_INSTANCE),
    NAMED(FILE_RANDOM_ACCESS),
    NAMED(FILE_DELETE_ON_CLOSE),
    NAMED(FILE_OPEN_BY_FILE_ID),
    NAMED(FILE_OPEN_FOR_BACKUP_INTENT),
    NAMED(FILE_NO_COMPRESSION),
    NAMED(FILE_OPEN_REQUIRING_OPLOCK),
    NAMED(FILE_DISALLOW_EXCLUSIVE),
    NAMED(FILE_SESSION_AWARE),
    NAMED(FILE_RESERVE_OPFILTER),
    NAMED(FILE_OPEN_REPARSE_POINT),
    NAMED(FILE_OPEN_NO_RECALL),
    NAMED(FILE_OPEN_FOR_FREE_SPACE_QUERY),
};

constexpr NAMED_BIT ATTRIBUTE_BITS[] = {
    NAMED(FILE_ATTRIBUTE_READONLY),
    NAMED(FILE_ATTRIBUTE_HIDDEN),
    NAMED(FILE_ATTRIBUTE_SYSTEM),
    NAMED(FILE_ATTRIBUTE_DIRECTORY),
    NAMED(FILE_ATTRIBUTE_ARCHIVE),
    NAMED(FILE_ATTRIBUTE_DEVICE),
    NAMED(FILE_ATTRIBUTE_NORMAL),
    NAMED(FILE_ATTRIBUTE_TEMPORARY),
    NAMED(FILE_ATTRIBUTE_SPARSE_FILE),
    NAMED(FILE_ATTRIBUTE_REPARSE_POINT),
    NAMED(FILE_ATTRIBUTE_COMPRESSED),
    NAMED(FILE_ATTRIBUTE_OFFLINE),
    NAMED(FILE_ATTRIBUTE_NOT_CONTENT_INDEXED),
    NAMED(FILE_ATTRIBUTE_ENCRYPTED),
    NAMED(FILE_ATTRIBUTE_INTEGRITY_STREAM),
};

constexpr NAMED_BIT SHARE_BITS[] = {
    NAMED(FILE_SHARE_READ),
    NAMED(FILE_SHARE_WRITE),
    NAMED(FILE_SHARE_DELETE),
};

constexpr NAMED_BIT CONTEXT_FLAGS[] = {
    NAMED(IRP_CONTEXT_FLAG_WRITE_THROUGH),  NAMED(IRP_CONTEXT_FLAG_WAIT),        NAMED(IRP_CONTEXT_FLAG_RECURSIVE_CALL),
    NAMED(IRP_CONTEXT_FLAG_DEFERRED_WRITE), NAMED(IRP_CONTEXT_FLAG_VERIFY_READ), NAMED(IRP_CONTEXT_STACK_IO_CONTEXT),
    NAMED(IRP_CONTEXT_FLAG_IN_FSP),         NAMED(IRP_CONTEXT_FLAG_USER_IO),
};

#undef NAMED

template <SIZE_T N>
void DumpBits(ULONG Value, const NAMED_BIT (&Bits)[N]) {
    for (const NAMED_BIT &Row : Bits) {
        if ((Value & Row.Bit) != 0) {
            NtFsdDebugPrint(TRACE_CREATE, 0, "    %x = %s\n", Row.Bit, Row.Name);
        }
    }
}

void DumpFileObject(PFILE_OBJECT FileObject) {
    const WideText Name = {FileObject->FileName.Buffer,
                           static_cast<ULONG>(FileObject->FileName.Length / sizeof(WCHAR))};
    NtFsdDebugPrint(TRACE_CREATE, 0, "pFileObject                          = %p\n", FileObject);
    NtFsdDebugPrint(TRACE_CREATE, 0, "pFileObject->RelatedFileObject       = %p\n", FileObject->RelatedFileObject);
    NtFsdDebugPrint(TRACE_CREATE, 0, "pFileObject->FileName                = %ws\n", Name);
    NtFsdDebugPrint(TRACE_CREATE, 0, "pFileObject->FileName characters     = %u\n", Name.Units);
}

void DumpDisposition(ULONG Disposition) {
    NtFsdDebugPrint(TRACE_CREATE, 0, "CreateDisposition                    = %08lx\n", Disposition);
    if (Disposition < DISPOSITION_COUNT) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "    %x = %s\n", Disposition, DISPOSITIONS[Disposition].Name);
    }
}

} // namespace

VOID NtFsdDumpCreateParameters(PIRP_CONTEXT IrpContext, PIRP Irp, PIO_STACK_LOCATION IrpSp) {
    if (!TraceWanted(TRACE_CREATE_DUMP)) {
        return;
    }
    const auto &Parameters = IrpSp->Parameters.Create;
    const ULONG StackFlags = IrpSp->Flags;
    const ULONG DesiredAccess = Parameters.SecurityContext->DesiredAccess;
    const ULONG Options = Parameters.Options & 0xFFFFFF;
    const ULONG Attributes = Parameters.FileAttributes;
    const ULONG ShareAccess = Parameters.ShareAccess;

    NtFsdDebugPrint(TRACE_CREATE, 0, "pIrp                                 = %p\n", Irp);
    NtFsdDebugPrint(TRACE_CREATE, 0, "pIrp->Overlay.AllocationSize.LowPart = %08lx\n",
                    static_cast<ULONG>(Irp->Overlay.AllocationSize.LowPart));
    NtFsdDebugPrint(TRACE_CREATE, 0, "pIrp->Overlay.AllocationSize.HighPart= %08lx\n",
                    static_cast<ULONG>(Irp->Overlay.AllocationSize.HighPart));
    NtFsdDebugPrint(TRACE_CREATE, 0, "pIrp->AssociatedIrp.SystemBuffer     = %p\n", Irp->AssociatedIrp.SystemBuffer);
    DumpFileObject(IrpSp->FileObject);
    NtFsdDebugPrint(TRACE_CREATE, 0, "pIrpSp->Flags                        = %08lx\n", StackFlags);
    DumpBits(StackFlags, STACK_FLAGS);
    NtFsdDebugPrint(TRACE_CREATE, 0, "DesiredAccess                        = %08lx\n", DesiredAccess);
    DumpBits(DesiredAccess, ACCESS_BITS);
    NtFsdDebugPrint(TRACE_CREATE, 0, "CreateOptions                        = %08lx\n", Options);
    DumpBits(Options, OPTION_BITS);
    DumpDisposition(Parameters.Options >> 24);
    NtFsdDebugPrint(TRACE_CREATE, 0, "FileAttributes                       = %08lx\n", Attributes);
    DumpBits(Attributes, ATTRIBUTE_BITS);
    NtFsdDebugPrint(TRACE_CREATE, 0, "ShareAccess                          = %08lx\n", ShareAccess);
    DumpBits(ShareAccess, SHARE_BITS);
    NtFsdDebugPrint(TRACE_CREATE, 0, "EaLength                             = %08lx\n",
                    static_cast<ULONG>(Parameters.EaLength));
    NtFsdDebugPrint(TRACE_CREATE, 0, "pIrpContext->Flags                   = %08lx\n", IrpContext->Flags);
    DumpBits(IrpContext->Flags, CONTEXT_FLAGS);
}
