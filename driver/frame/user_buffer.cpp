#include "frame/diagnostics.h"
#include "frame/irp_context.h"

PVOID NtFsdMapUserBuffer(PIRP_CONTEXT IrpContext) {
    const PMDL Mdl = IrpContext->Irp->MdlAddress;
    if (Mdl == nullptr) {
        return IrpContext->Irp->UserBuffer;
    }
    if (Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
        return Mdl->MappedSystemVa;
    }
    return MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);
}

NTSTATUS NtFsdLockUserBuffer(PIRP_CONTEXT IrpContext, LOCK_OPERATION Operation, ULONG Length) {
    const PIRP Irp = IrpContext->Irp;
    PMDL Mdl = Irp->MdlAddress;
    // Flags that stand belong to an MDL of ours from an earlier turn of this request, which is still ours to undo.
    if (Mdl == nullptr || Mdl != IrpContext->UserBufferMdl) {
        IrpContext->UserBufferFlags = 0;
    }
    if (Mdl == nullptr) {
        Mdl = IoAllocateMdl(Irp->UserBuffer, Length, FALSE, FALSE, Irp);
        if (Mdl == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        IrpContext->UserBufferFlags |= USER_BUFFER_MDL_ALLOCATED;
        NtFsdDebugPrint(TRACE_GENERAL, 0, "Allocate User MDL! 0x%p\n", Mdl);
    } else {
        NtFsdDebugPrint(TRACE_GENERAL, 0, "MDL Present in Irp!\n");
    }
    IrpContext->UserBufferMdl = Mdl;
    if (Mdl->MdlFlags & MDL_PAGES_LOCKED) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS Status = KernelProbeAndLockPages(Mdl, Irp->RequestorMode, Operation);
    if (NT_SUCCESS(Status)) {
        IrpContext->UserBufferFlags |= USER_BUFFER_PAGES_LOCKED;
        return STATUS_SUCCESS;
    }
    const SHORT MdlFlags = Mdl->MdlFlags;
    if (IrpContext->UserBufferFlags & USER_BUFFER_MDL_ALLOCATED) {
        IoFreeMdl(Mdl);
        Irp->MdlAddress = nullptr;
        IrpContext->UserBufferFlags &= ~static_cast<ULONG>(USER_BUFFER_MDL_ALLOCATED);
    }
    NtFsdDebugPrint(TRACE_ERROR, 0, "Failed probing and locking Mdl in MapUserBuffer!\n");
    NtFsdDebugPrint(TRACE_ERROR, 0, "Mdl Flags of failed lock.  0x%X\n", static_cast<ULONG>(MdlFlags));
    NtFsdDebugPrint(TRACE_ERROR, 0, "Probe and Lock status = 0x%X!\n", Status);
    return Status;
}

VOID NtFsdUnlockUserBuffer(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    if (Irp->MdlAddress == nullptr || Irp->MdlAddress != IrpContext->UserBufferMdl) {
        return;
    }
    if (IrpContext->UserBufferFlags & USER_BUFFER_PAGES_LOCKED) {
        MmUnlockPages(Irp->MdlAddress);
        Irp->MdlAddress->MdlFlags &= static_cast<SHORT>(~MDL_PAGES_LOCKED);
        IrpContext->UserBufferFlags &= ~static_cast<ULONG>(USER_BUFFER_PAGES_LOCKED);
    }
    if (IrpContext->UserBufferFlags & USER_BUFFER_MDL_ALLOCATED) {
        IoFreeMdl(Irp->MdlAddress);
        Irp->MdlAddress = nullptr;
        IrpContext->UserBufferFlags &= ~static_cast<ULONG>(USER_BUFFER_MDL_ALLOCATED);
    }
}
