// Cleanup (the last handle of a file object goes) and close (its last reference goes).
#pragma once

#include "names/fcb.h"

// Gives back what belongs to the handle: its unclean count, share access, byte-range locks, a directory's waiting
// notifications. Completes the IRP, or posts it.
NTSTATUS NtFsdCommonCleanup(PIRP_CONTEXT IrpContext);

// Ends the open: Provider handles, a pending delete, the instance, the FCB when it was the last. Completes the IRP, or
// posts it (then STATUS_PENDING).
NTSTATUS NtFsdCommonClose(PIRP_CONTEXT IrpContext);

// Frees the instance of a file object that has one but no FCB. Takes FcbTableResource.
VOID NtFsdFreeOrphanInstance(PFILE_OBJECT FileObject);

// Closes the Provider handles of every open and takes every FCB out of the prefix table, for teardown; no pending
// delete is carried out. Waiting notifications and locks end with STATUS_CANCELLED. FCBs and instances stay, off
// FcbList, for the file objects that still refer to them. No request is in flight; FcbListResource is still valid.
VOID NtFsdDetachOpens();

// NtFsdForgetShareClaim for the file object of an open that is in Instance's FCB, if it still has one: once requests
// are refused, a close takes it without the FCB's Resource. Resource held exclusive.
VOID NtFsdForgetClaimOfOpen(PINSTANCE_CONTEXT Instance);

// Ends an open that outlived teardown: frees its instance and its FCB without Provider, table or framework. May also be
// called between the stop of requests and NtFsdDetachOpens, which then frees the open.
VOID NtFsdCloseAfterTeardown(PFILE_OBJECT FileObject);

// Takes the control device's FCB out of use. Returns it, the caller's to delete, when no file object points to it;
// otherwise NULL: it goes with the last of their closes. Part of teardown, with no request in flight; FcbListResource
// is valid.
PFCB NtFsdTakeDeviceFcb();

// The FCB of a file object once requests are refused, while teardown runs or after it; NULL for the control device and
// for anything that is not open. Valid as long as the file object is.
PFCB NtFsdFcbAfterTeardown(PFILE_OBJECT FileObject);
