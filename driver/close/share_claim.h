// The share access that a file object claims in its FCB.
#pragma once

#include "names/fcb.h"

// Makes FileObject claim nothing. Its access flags are what the removal of a claim goes by.
inline VOID NtFsdForgetShareClaim(PFILE_OBJECT FileObject) {
    FileObject->ReadAccess = FALSE;
    FileObject->WriteAccess = FALSE;
    FileObject->DeleteAccess = FALSE;
}

// Takes FileObject's claim out of Fcb's share access, once: a second call finds no claim. Resource held exclusive.
inline VOID NtFsdRemoveShareClaim(PFCB Fcb, PFILE_OBJECT FileObject) HOLDING(Fcb->Resource) {
    IoRemoveShareAccess(FileObject, &Fcb->ShareAccess);
    NtFsdForgetShareClaim(FileObject); // the removal leaves the flags as they are
}
