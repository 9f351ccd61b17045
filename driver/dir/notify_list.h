// The requests that wait on an FCB for a change below it: ending them all.
#pragma once

#include "frame/irp_context.h"
#include "names/fcb_records.h"

// Completes every request that waits on Fcb with Status. Resource held exclusive, or no request in flight.
VOID NtFsdCompleteNotifyList(PFCB Fcb, NTSTATUS Status) HOLDING(Fcb->Resource);

// The same in two steps, so that nothing is completed under a lock: moves the requests that wait on Fcb to the end of
// Batch (Resource held exclusive, or no request in flight), then completes and frees them.
VOID NtFsdTakeNotifyList(PFCB Fcb, PLIST_ENTRY Batch) HOLDING(Fcb->Resource);
VOID NtFsdCompleteNotifyBatch(PLIST_ENTRY Batch, NTSTATUS Status);

// Whether anything waits on Fcb, for readers without the Resource, too. Whoever changes NotifyList calls
// NtFsdUpdateHasWaiters afterwards.
inline bool NtFsdReadHasWaiters(const FCB *Fcb) {
    return __atomic_load_n(&Fcb->HasWaiters, __ATOMIC_RELAXED) != FALSE;
}
inline VOID NtFsdUpdateHasWaiters(PFCB Fcb) HOLDING(Fcb->Resource) {
    __atomic_store_n(&Fcb->HasWaiters, IsListEmpty(&Fcb->NotifyList) ? FALSE : TRUE, __ATOMIC_RELAXED);
}
