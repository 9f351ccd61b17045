// Change notification: requests that wait on a directory's FCB until an entry appears or vanishes.
#pragma once

#include "names/fcb.h"

// Reports that the entry named by Fcb appeared in or vanished from its parent: takes the parent's waiting requests,
// which are completed with STATUS_NOTIFY_ENUM_DIR when the request of IrpContext is completed and holds no lock any
// more. The caller holds Fcb's Resource exactly once, in Hold, and may hold FcbTableResource; the Resource is dropped
// and retaken, so nothing read before the call holds afterwards. Action is always 1.
NTSTATUS NtFsdNotifyChange(PIRP_CONTEXT IrpContext, PFCB Fcb, ULONG Action, ResourceHold &Hold) HOLDING(Fcb->Resource);

// The parent's path of an FCB path into the empty string Parent. STATUS_OBJECT_PATH_INVALID when it has none.
NTSTATUS NtFsdGetParentName(PCUNICODE_STRING Name, PUNICODE_STRING Parent);
