// A request that waits for a change of a directory: what its queue (dir/notify_list.h) and its completion know of it.
#pragma once

#include "kernel/kernel.h"

struct IRP_CONTEXT;

// One waiting request on an FCB's NotifyList, guarded by the FCB's Resource.
struct NOTIFY_ENTRY {
    LIST_ENTRY Links;
    PFILE_OBJECT FileObject;
    PIRP Irp;
    IRP_CONTEXT *IrpContext;
    ULONG CompletionFilter;
};
static_assert(sizeof(NOTIFY_ENTRY) == 48);

inline NOTIFY_ENTRY *NtFsdNotifyEntryOf(PLIST_ENTRY Links) {
    return CONTAINING_RECORD(Links, NOTIFY_ENTRY, Links);
}
