#include "frame/fast_io.h"

#include "close/close.h"
#include "frame/diagnostics.h"
#include "frame/rundown.h"
#include "names/fcb.h"

namespace {

BOOLEAN NTAPI NtFsdFastIoCheckIfPossible(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, BOOLEAN, PIO_STATUS_BLOCK,
                                         PDEVICE_OBJECT) {
    NtFsdDebugPrint(TRACE_ENTRY, 0, "--++++++++++++++++++--+++NtFsdFastIoCheckIfPossible called!\n");
    return FALSE;
}

BOOLEAN NTAPI NtFsdFastQueryBasicInfo(PFILE_OBJECT, BOOLEAN, PFILE_BASIC_INFORMATION, PIO_STATUS_BLOCK,
                                      PDEVICE_OBJECT) {
    NtFsdDebugPrint(TRACE_ENTRY, 0, "--++++++++++++++++++--+++NtFsdFastQueryBasicInfo called!\n");
    return FALSE;
}

BOOLEAN NTAPI NtFsdFastQueryStdInfo(PFILE_OBJECT, BOOLEAN, PFILE_STANDARD_INFORMATION, PIO_STATUS_BLOCK,
                                    PDEVICE_OBJECT) {
    NtFsdDebugPrint(TRACE_ENTRY, 0, "--++++++++++++++++++--+++NtFsdFastQueryStdInfo called!\n");
    return FALSE;
}

// The FCB of a file object that a section can be made of, or NULL. The driver's own makes none: no section is made of
// the control device.
PFCB SectionFcb(PFILE_OBJECT FileObject) {
    PFCB Fcb;
    PINSTANCE_CONTEXT Instance;
    return NT_SUCCESS(NtFsdDecodeFileObject(FileObject, &Fcb, &Instance, 0)) && Fcb != DriverFcb ? Fcb : nullptr;
}

// The hold outlives the routine: NtFsdReleaseForCreateSection gives it back.
VOID NTAPI NtFsdAcquireForCreateSection(PFILE_OBJECT FileObject) {
    const RequestInFlight InFlight;
    const PFCB Fcb = InFlight ? SectionFcb(FileObject) : nullptr;
    if (Fcb != nullptr) {
        ResourceHold Hold;
        if (Hold.AcquireExclusive(Fcb->Header.Resource, TRUE)) {
            Hold.Detach();
        }
    }
}

VOID NTAPI NtFsdReleaseForCreateSection(PFILE_OBJECT FileObject) {
    const RequestInFlight InFlight;
    const PFCB Fcb = InFlight ? SectionFcb(FileObject) : NtFsdFcbAfterTeardown(FileObject);
    if (Fcb != nullptr && ExIsResourceAcquiredExclusiveLite(Fcb->Header.Resource)) {
        NtFsdReleaseResource(Fcb->Header.Resource);
        // Closing a section may close file objects, whose close needs the FCB table: only with the Resource released.
        MmForceSectionClosed(&Fcb->SectionObjectPointers, TRUE);
    }
}

constinit FAST_IO_DISPATCH FastIoDispatch DRIVER_GLOBAL = {
    .SizeOfFastIoDispatch = sizeof(FAST_IO_DISPATCH),
    .FastIoCheckIfPossible = NtFsdFastIoCheckIfPossible,
    .FastIoRead = FsRtlCopyRead,
    .FastIoWrite = FsRtlCopyWrite,
    .FastIoQueryBasicInfo = NtFsdFastQueryBasicInfo,
    .FastIoQueryStandardInfo = NtFsdFastQueryStdInfo,
    .AcquireFileForNtCreateSection = NtFsdAcquireForCreateSection,
    .ReleaseFileForNtCreateSection = NtFsdReleaseForCreateSection,
};
static_assert(sizeof(FAST_IO_DISPATCH) == 224);

} // namespace

PFAST_IO_DISPATCH NtFsdFastIoDispatch() {
    return &FastIoDispatch;
}
