#include "names/fcb.h"

// Guards Borrowers and BorrowLinks of all instances. A leaf; nothing is called under it.
DRIVER_GLOBAL KSPIN_LOCK g_BorrowLock = 0;

namespace {

void Unlink(PINSTANCE_CONTEXT Borrower) HOLDING(g_BorrowLock) {
    RemoveEntryList(&Borrower->BorrowLinks);
    InitializeListHead(&Borrower->BorrowLinks);
}

PINSTANCE_CONTEXT FirstBorrower(PINSTANCE_CONTEXT Lender) {
    const SpinLockHold Hold(g_BorrowLock);
    return IsListEmpty(&Lender->Borrowers) ? nullptr
                                           : CONTAINING_RECORD(Lender->Borrowers.Flink, INSTANCE_CONTEXT, BorrowLinks);
}

} // namespace

RVHANDLE NtFsdHandleToLend(PINSTANCE_CONTEXT Instance) {
    const RVHANDLE Directory = NtFsdReadDirHandle(Instance);
    if (Directory != 0) {
        return Directory;
    }
    const PWSTR PathLeft = NtFsdReadPathLeft(Instance);
    return *PathLeft == 0 ? Instance->VolumeHandle : 0;
}

VOID NtFsdBorrowFrom(PINSTANCE_CONTEXT Lender, PINSTANCE_CONTEXT Borrower) {
    const SpinLockHold Hold(g_BorrowLock);
    InsertTailList(&Lender->Borrowers, &Borrower->BorrowLinks);
}

VOID NtFsdEndBorrowing(PINSTANCE_CONTEXT Instance) {
    const SpinLockHold Hold(g_BorrowLock);
    Unlink(Instance);
    // Only an open that outlived teardown still has borrowers here; there are no handles left that they could use.
    while (!IsListEmpty(&Instance->Borrowers)) {
        Unlink(CONTAINING_RECORD(Instance->Borrowers.Flink, INSTANCE_CONTEXT, BorrowLinks));
    }
}

VOID NtFsdNameByFullPath(PINSTANCE_CONTEXT Instance) {
    if (Instance->DirHandle == 0) {
        Instance->RelatedHandle = 0;
    }
    Instance->BaseHandle = 0;
    NtFsdSetPathLeft(Instance, Instance->Fcb->FullPath.Buffer);
}

bool NtFsdRebaseBorrowers(PINSTANCE_CONTEXT Lender, BOOLEAN Wait) {
    // Instances and FCBs are freed under FcbTableResource only, which the caller holds: what the list shows stays.
    for (PINSTANCE_CONTEXT Borrower = FirstBorrower(Lender); Borrower != nullptr; Borrower = FirstBorrower(Lender)) {
        ResourceHold Hold;
        if (!Hold.AcquireExclusive(&Borrower->Fcb->Resource, Wait)) {
            return false;
        }
        NtFsdNameByFullPath(Borrower);
        const SpinLockHold List(g_BorrowLock);
        Unlink(Borrower);
    }
    return true;
}
