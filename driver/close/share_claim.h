// The share access that a file object claims in its FCB.
#pragma once

#include "names/fcb.h"

// Takes FileObject's claim out of Fcb's share access, once: a second call finds no claim. Resource held exclusive.
inline VOID NtFsdRemoveShareClaim(PFCB Fcb, PFILE_OBJECT FileObject) {
    IoRemoveShareAccess(FileObject, &Fcb->ShareAccess);
    // The removal goes by these flags and leaves them as they are.
    FileObject->ReadAccess = FALSE;
    FileObject->WriteAccess = FALSE;
    FileObject->DeleteAccess = FALSE;
}
