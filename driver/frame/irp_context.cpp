#include "frame/irp_context.h"

#include "dir/notify.h"
#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/memory.h"
#include "provider/binding.h"

DRIVER_GLOBAL NPAGED_LOOKASIDE_LIST g_IrpContextLookasideList = {};

void NtFsdFillIrpContext(PIRP_CONTEXT Context, PIRP Irp, BOOLEAN Wait, ULONG Flags) {
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
    NtFsdFillIrpContext(Context, Irp, Wait, Flags);
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

// Behind them stand the kinds of what is in flight without being a request.
constexpr PCSTR MajorFunctionNames[] = {
    "IRP_MJ_CREATE",
    "IRP_MJ_CREATE_NAMED_PIPE",
    "IRP_MJ_CLOSE",
    "IRP_MJ_READ",
    "IRP_MJ_WRITE",
    "IRP_MJ_QUERY_INFORMATION",
    "IRP_MJ_SET_INFORMATION",
    "IRP_MJ_QUERY_EA",
    "IRP_MJ_SET_EA",
    "IRP_MJ_FLUSH_BUFFERS",
    "IRP_MJ_QUERY_VOLUME_INFORMATION",
    "IRP_MJ_SET_VOLUME_INFORMATION",
    "IRP_MJ_DIRECTORY_CONTROL",
    "IRP_MJ_FILE_SYSTEM_CONTROL",
    "IRP_MJ_DEVICE_CONTROL",
    "IRP_MJ_INTERNAL_DEVICE_CONTROL",
    "IRP_MJ_SHUTDOWN",
    "IRP_MJ_LOCK_CONTROL",
    "IRP_MJ_CLEANUP",
    "IRP_MJ_CREATE_MAILSLOT",
    "IRP_MJ_QUERY_SECURITY",
    "IRP_MJ_SET_SECURITY",
    "IRP_MJ_POWER",
    "IRP_MJ_SYSTEM_CONTROL",
    "IRP_MJ_DEVICE_CHANGE",
    "IRP_MJ_QUERY_QUOTA",
    "IRP_MJ_SET_QUOTA",
    "IRP_MJ_PNP",
    "call",
    "worker",
};
static_assert(RTL_NUMBER_OF(MajorFunctionNames) == IN_FLIGHT_KINDS);

NTSTATUS FinalStatus(PIRP_CONTEXT IrpContext, NTSTATUS Status) {
    if (IrpContext != nullptr && (IrpContext->Flags & IRP_CONTEXT_FLAG_ANSWER_CANCELLED)) {
        return STATUS_CANCELLED;
    }
    // A finished request has neither status, but a Provider's raw status may be one of them.
    return Status == STATUS_PENDING || Status == -1 ? STATUS_UNSUCCESSFUL : Status;
}

} // namespace

PCSTR NtFsdMajorFunctionName(UCHAR MajorFunction) {
    return MajorFunction < RTL_NUMBER_OF(MajorFunctionNames) ? MajorFunctionNames[MajorFunction] : "";
}

NTSTATUS NtFsdCompleteRequest(PIRP_CONTEXT IrpContext, PIRP Irp, NTSTATUS Status) {
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCompleteRequest() entered\n");
    const NTSTATUS Final = FinalStatus(IrpContext, Status);
    if (IrpContext != nullptr) {
        NtFsdCompleteChanged(IrpContext);
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
                        LowPart(reinterpret_cast<ULONG_PTR>(IrpContext)));
    }
    if (IrpContext != nullptr) {
        NtFsdDeleteIrpContext(IrpContext);
    }
    NtFsdDebugPrint(TRACE_GENERAL, 0, "NtFsdCompleteRequest() returning VOID\n");
    return Final;
}

BOOLEAN NtFsdIsIrpTopLevel(PIRP Irp) {
    if (IoGetTopLevelIrp() != nullptr) {
        return FALSE;
    }
    IoSetTopLevelIrp(Irp);
    return TRUE;
}
