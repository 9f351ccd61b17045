#include "frame/diagnostics.h"
#include "io/io.h"

namespace {

ULONG64 EndOf(LONG64 Offset, ULONG64 Length) {
    const ULONG64 Start = static_cast<ULONG64>(Offset);
    const ULONG64 End = Start + Length;
    return End < Start ? ~0ull : End;
}

// What FileSize has to become: exactly the end when nothing was transferred, otherwise never less than it is.
LONG64 TargetSize(PFCB Fcb, ULONG64 End, ULONG64 Length) {
    const ULONG64 Current = static_cast<ULONG64>(Fcb->Header.FileSize.QuadPart);
    return static_cast<LONG64>(Length == 0 || End > Current ? End : Current);
}

// Resource held exclusive.
void SetSizes(PFCB Fcb, LONG64 Size) {
    NtFsdDebugPrint(TRACE_GENERAL, 0,
                    "RvFsdUpdateFCBFileSize updating size 0x%I64X to 0x%I64X on \"%wZ\" (FCB 0x%p).\n",
                    Fcb->Header.FileSize.QuadPart, Size, &Fcb->FullPath, Fcb);
    Fcb->Header.AllocationSize.QuadPart = Size;
    Fcb->Header.FileSize.QuadPart = Size;
    Fcb->Header.ValidDataLength.QuadPart = Size;
}

// Sets the sizes from under the caller's single shared hold, which is dropped for an exclusive one and given back
// shared.
void UpdateFromShared(PFCB Fcb, ULONG64 End, ULONG64 Length) {
    ResourceHold Hold;
    Hold.Adopt(&Fcb->Resource);
    Hold.Release();
    if (!Hold.AcquireExclusive(&Fcb->Resource, TRUE)) {
        Hold.AcquireShared(&Fcb->Resource, TRUE);
        Hold.Detach();
        return;
    }
    // Others may have moved the size while nobody here held it.
    const LONG64 Target = TargetSize(Fcb, End, Length);
    if (Target != Fcb->Header.FileSize.QuadPart) {
        SetSizes(Fcb, Target);
    }
    ExConvertExclusiveToSharedLite(Hold.Detach());
}

} // namespace

NTSTATUS RvFsdUpdateFCBFileSize(PFCB Fcb, BOOLEAN ExclusiveHeld, LONG64 Offset, ULONG64 Length) {
    const ULONG64 End = EndOf(Offset, Length);
    if (End > static_cast<ULONG64>(LARGEST_OFFSET)) {
        return STATUS_SUCCESS;
    }
    const LONG64 Target = TargetSize(Fcb, End, Length);
    if (Target == Fcb->Header.FileSize.QuadPart) {
        return STATUS_SUCCESS;
    }
    // A shared acquire by the exclusive owner nests in the exclusive hold, which is the owner's to keep.
    if (ExclusiveHeld || ExIsResourceAcquiredExclusiveLite(&Fcb->Resource)) {
        SetSizes(Fcb, Target);
        return STATUS_SUCCESS;
    }
    // A second shared hold of this thread would make it wait for itself: the size then stays as it is.
    if (ExIsResourceAcquiredSharedLite(&Fcb->Resource) == 1) {
        UpdateFromShared(Fcb, End, Length);
    }
    return STATUS_SUCCESS;
}
