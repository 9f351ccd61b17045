// The control device: opens of the driver's device itself, counted per process.
#pragma once

#include "frame/irp_context.h"

extern ERESOURCE g_OurDeviceResource BEHIND(BelowSearches) BEFORE(BelowLeaves);
READ_PLACE(OurDeviceResource, g_OurDeviceResource);

// TRUE for a file object of the control device itself, which is opened without a name. Touches nothing but the file
// object.
inline bool NtFsdIsDeviceOpen(const FILE_OBJECT *FileObject) {
    return FileObject->FileName.Length == 0 && FileObject->RelatedFileObject == nullptr;
}

// Attaches FileObject to the driver FCB and counts the open for the current process. Works before the framework is
// bound. STATUS_INSUFFICIENT_RESOURCES when no process record can be had (nothing is attached then).
NTSTATUS NtFsdOpenOurDevice(PFILE_OBJECT FileObject);

// Detaches it; frees the process's record with its last open. Always STATUS_SUCCESS.
NTSTATUS NtFsdCloseOurDevice(PFILE_OBJECT FileObject);

// Frees every process record and the driver FCB and deletes g_OurDeviceResource. Called by teardown.
NTSTATUS NtFsdUnInitOurDevice();

// Serves device and file system controls: the prefix claim of the multiple UNC provider, and refusals.
NTSTATUS NtFsdCommonDeviceControl(PIRP_CONTEXT IrpContext, PIRP Irp);
