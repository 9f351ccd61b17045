// What a read and a write have in common.
#pragma once

#include "frame/status_translation.h"
#include "io/io.h"

// TRUE when Length bytes from Offset on stay inside what a signed offset can name.
inline bool IsTransferRange(LONG64 Offset, ULONG Length) {
    return Offset >= 0 && Offset <= LARGEST_OFFSET - static_cast<LONG64>(Length);
}

// The status of a finished transfer: a Provider that calls it pending has failed it, so that no count is reported.
inline NTSTATUS TransferStatus(RVSTATUS ProviderStatus) {
    const NTSTATUS Status = NtFsdTranslateResult(ProviderStatus);
    return Status == STATUS_PENDING ? STATUS_UNSUCCESSFUL : Status;
}

// TRUE when the request moves the file object's byte offset: paging I/O never does.
inline bool MovesByteOffset(PFILE_OBJECT FileObject, PIRP Irp) {
    return (NtFsdFileFlags(FileObject) & FO_SYNCHRONOUS_IO) != 0 && (Irp->Flags & IRP_PAGING_IO) == 0;
}
