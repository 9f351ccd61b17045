// Path resolution: what the Provider says about a full path. None of these takes a lock; each may be called with FCB
// resources held.
#pragma once

#include "frame/irp_context.h"
#include "names/strings.h"

// Asks which leading part of Path (NUL-terminated, \server\volume\...) is the volume. VolumePath receives an owned
// buffer, freed by the caller; it is empty after an error. Returns the raw Provider status, warnings included; an
// answer that is not terminated within its buffer is RVSTATUS::Unsuccessful.
RVSTATUS NtFsdQueryPathForVolume(RV_SECURITY_CONTEXT *SecurityContext, PCWSTR Path, PUNICODE_STRING VolumePath);

// Asks for the physical path behind a path of a distributed namespace (NUL-terminated), in the same manner.
RVSTATUS NtFsdGetDFSPhysicalPath(RV_SECURITY_CONTEXT *SecurityContext, PUNICODE_STRING Path,
                                 PUNICODE_STRING PhysicalPath);

// Path as the Provider resolves it, in the same manner: physical if it lies in a distributed namespace, its volume's
// path if not. Asker names the routine in the trace of a namespace that does not answer.
RVSTATUS NtFsdResolvePath(RV_SECURITY_CONTEXT *SecurityContext, PUNICODE_STRING Path, PUNICODE_STRING Resolved,
                          PCSTR Asker);

// Asks for the volume of Path in the same manner and opens it. The raw status of the call that failed, or of the open.
RVSTATUS NtFsdOpenVolumeOfPath(RV_SECURITY_CONTEXT *SecurityContext, PCWSTR Path, PUNICODE_STRING VolumePath,
                               RVHANDLE *Volume);

// Tells whether the volume at Path can be opened, keeping nothing open: STATUS_SUCCESS or STATUS_BAD_NETWORK_PATH. The
// trace of a failure begins with Asker and ends with End.
NTSTATUS NtFsdVerifyVolume(RV_SECURITY_CONTEXT *SecurityContext, PCUNICODE_STRING Path, PCSTR Asker, PCSTR End);

// Tells what Path (PathLength bytes, need not be terminated) names, keeping nothing open. The returned status says
// whether the question could be asked; *FileStatus (may be NULL) is STATUS_SUCCESS for a file,
// STATUS_FILE_IS_A_DIRECTORY, STATUS_NO_SUCH_FILE or STATUS_ACCESS_DENIED, or a failure for a volume root that cannot
// be reached. A path of fewer than two components is refused with STATUS_BAD_NETWORK_PATH in both.
NTSTATUS NtFsdVerifyFile(PIRP_CONTEXT IrpContext, PCWSTR Path, ULONG PathLength, NTSTATUS *FileStatus);
