// The open of a rename's target directory.
#pragma once

#include "names/fcb.h"

// Opens the parent directory of the named path in its place, tells whether the final name exists (*Information) and
// leaves only that name in the file object. On success Hold holds the parent FCB's Resource exclusive; the instance has
// a DirHandle unless the Provider could not open the parent, which does not fail this open. Failures, with nothing held
// and *Information untouched: STATUS_INVALID_HANDLE or STATUS_NOT_A_DIRECTORY (related file object),
// STATUS_OBJECT_NAME_INVALID (empty component, embedded zero, too long), STATUS_OBJECT_PATH_NOT_FOUND, NtFsdOpenFcb's,
// or resources. The caller holds nothing.
NTSTATUS NtFsdOpenTargetDirectory(PIRP_CONTEXT IrpContext, PIO_STACK_LOCATION IrpSp, PFCB *Fcb,
                                  PINSTANCE_CONTEXT *Instance, PULONG_PTR Information, ResourceHold &Hold);
