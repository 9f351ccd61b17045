#include "frame/irp_context.h"

#include "dir/notify_entry.h"
#include "frame/configuration.h"
#include "frame/diagnostics.h"
#include "frame/memory.h"
#include "frame/request_kinds.h"
#include "provider/binding.h"

DRIVER_GLOBAL NPAGED_LOOKASIDE_LIST g_IrpContextLookasideList = {};

namespace {

// Context is zeroed or not. Flags are the initial flags.
void Fill(PIRP_CONTEXT Context, PIRP Irp, BOOLEAN Wait, ULONG Flags) {
    RtlZeroMemory(Context, sizeof(IRP_CONTEXT));
    Context->NodeByteSize = sizeof(IRP_CONTEXT);
    Context->Irp = Irp;
    Context->NodeTypeCode = NODE_TYPE_IRP_CONTEXT;
    Context->Flags = Flags;
    if (Irp != nullptr) {
        const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
        Context->MajorFunction = IrpSp->MajorFunction;
        Context->MinorFunction = IrpSp->MinorFunction;
        Context->FileObject = IrpSp->FileObject;
    }
    if (!g_bEnableAsyncIo || Wait) {
        Context->Flags |= IRP_CONTEXT_FLAG_WAIT;
        NtFsdDebugPrint(TRACE_ASYNC, 0, "IRP %p is synchronous\n", Irp);
    }
    if (Irp != nullptr && IoGetTopLevelIrp() != Irp) {
        Context->Flags |= IRP_CONTEXT_FLAG_RECURSIVE_CALL;
    }
    // Only a cleanup or close comes here without the interface, and then has nothing to ask the Provider for.
    if (g_pSecurityContextInterface != nullptr) {
        g_pSecurityContextInterface->Table->GetCallerContext(g_pSecurityContextInterface, &Context->SecurityContext);
    }
    Context->SecurityContextLength = 8;
    Context->OriginatingProcess = IoGetCurrentProcess();
    NtFsdDebugPrint(TRACE_GENERAL, 0, "IRP Context Size = %ld\n", static_cast<LONG>(sizeof(IRP_CONTEXT)));
    NtFsdDebugPrint(TRACE_GENERAL, 0, "Security Context = 0x%I64X\n", Context->SecurityContext.Words[0]);
}

} // namespace

PIRP_CONTEXT NtFsdMakeFrameContext(IRP_CONTEXT &Frame, PIRP Irp) {
    Fill(&Frame, Irp, TRUE, IRP_CONTEXT_FLAG_IN_FRAME);
    return &Frame;
}

PIRP_CONTEXT NtFsdCreateIrpContext(PIRP Irp, BOOLEAN Wait) {
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCreateIrpContext() entered\n");
    if (g_pSecurityContextInterface == nullptr) {
        return nullptr; // nobody can tell whose request it is
    }
    ULONG Flags = 0;
    auto Context = static_cast<PIRP_CONTEXT>(ExAllocateFromNPagedLookasideList(&g_IrpContextLookasideList));
    if (Context == nullptr) {
        Context = static_cast<PIRP_CONTEXT>(TwAllocBuffer(sizeof(IRP_CONTEXT)));
        Flags = IRP_CONTEXT_FLAG_FROM_POOL;
        if (Context == nullptr) {
            NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCreateIrpContext() unable to allocate IrpContext\n");
            return nullptr;
        }
    }
    Fill(Context, Irp, Wait, Flags);
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCreateIrpContext() returning IrpContext\n");
    return Context;
}

VOID NtFsdDeleteIrpContext(PIRP_CONTEXT IrpContext) {
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdDeleteIrpContext() entering\n");
    if (IrpContext->Flags & IRP_CONTEXT_FLAG_FROM_POOL) {
        ExFreePoolWithTag(IrpContext, 0);
    } else if (!(IrpContext->Flags & IRP_CONTEXT_FLAG_IN_FRAME)) {
        ExFreeToNPagedLookasideList(&g_IrpContextLookasideList, IrpContext);
    }
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdDeleteIrpContext() returning\n");
}

namespace {

NTSTATUS FinalStatus(PIRP_CONTEXT IrpContext, NTSTATUS Status) {
    if (IrpContext != nullptr && (IrpContext->Flags & IRP_CONTEXT_FLAG_ANSWER_CANCELLED)) {
        return STATUS_CANCELLED;
    }
    // A finished request has neither status, but a Provider's raw status may be one of them.
    return Status == STATUS_PENDING || Status == -1 ? STATUS_UNSUCCESSFUL : Status;
}

// Completes the waiters that NtFsdNotifyChange took for IrpContext's request. No lock is held: a waiter may ask again
// at once, and its completion may be the last reference to the watched directory's file object, so that its close runs
// in here.
void CompleteChanged(PIRP_CONTEXT IrpContext) {
    const PLIST_ENTRY Changed = &IrpContext->ChangedWaiters;
    while (Changed->Flink != nullptr && !IsListEmpty(Changed)) {
        const PoolPointer<NOTIFY_ENTRY> Entry(NtFsdNotifyEntryOf(RemoveHeadList(Changed)));
        Entry->IrpContext->Information = 0;
        Ignore(NtFsdCompleteRequest(Entry->IrpContext, Entry->Irp, STATUS_NOTIFY_ENUM_DIR), "it is the waiter's");
    }
}

} // namespace

NTSTATUS NtFsdCompleteRequest(PIRP_CONTEXT IrpContext, PIRP Irp, NTSTATUS Status) {
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCompleteRequest() entered\n");
    const NTSTATUS Final = FinalStatus(IrpContext, Status);
    if (IrpContext != nullptr) {
        CompleteChanged(IrpContext);
        if (IrpContext->UserBufferFlags != 0) {
            NtFsdUnlockUserBuffer(IrpContext); // locked for a worker that did not come to use it
        }
    }
    if (Irp != nullptr) {
        // A cancel routine that runs for this IRP holds the lock: once it was ours, that routine has ended.
        KIRQL Irql;
        IoAcquireCancelSpinLock(&Irql);
        IoReleaseCancelSpinLock(Irql);
        Irp->IoStatus.Information = IrpContext != nullptr ? IrpContext->Information : 0;
        Irp->IoStatus.Status = Final;
        if (IrpContext != nullptr) {
            NtFsdDebugPrint(TRACE_ERROR, 0, "Function = %s -  IRP Status = 0x%X, Information = 0x%X\n",
                            NtFsdMajorFunctionName(IrpContext->MajorFunction), Final, LowPart(IrpContext->Information));
        }
        IofCompleteRequest(Irp, 1);
    } else {
        NtFsdDebugPrint(TRACE_ERROR, 0, "*** Complete IRP No IRP Specified IRP = 0x%X :: Context = 0x%X****\n", 0,
                        LowPart(IrpContext));
    }
    if (IrpContext != nullptr) {
        NtFsdDeleteIrpContext(IrpContext);
    }
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCompleteRequest() returning VOID\n");
    return Final;
}

NTSTATUS NtFsdCompleteAtOnce(PIRP Irp, NTSTATUS Status, ULONG_PTR Information, CCHAR PriorityBoost) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IofCompleteRequest(Irp, PriorityBoost);
    return Status;
}

BOOLEAN NtFsdIsIrpTopLevel(PIRP Irp) {
    if (IoGetTopLevelIrp() != nullptr) {
        return FALSE;
    }
    IoSetTopLevelIrp(Irp);
    return TRUE;
}
