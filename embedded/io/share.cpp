// Share access: who reads, writes and deletes a file, and what each opener lets the others do. The caller holds the
// lock of the file's record.
#include "embedded/io/objects.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

namespace {

// Sets the file object's access flags; true when the access is one that counts for sharing.
bool NoteAccess(ACCESS_MASK DesiredAccess, PFILE_OBJECT File) {
    File->ReadAccess = (DesiredAccess & (FILE_EXECUTE | FILE_READ_DATA)) != 0;
    File->WriteAccess = (DesiredAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
    File->DeleteAccess = (DesiredAccess & DELETE) != 0;
    return File->ReadAccess || File->WriteAccess || File->DeleteAccess;
}

void NoteSharing(ULONG DesiredShareAccess, PFILE_OBJECT File) {
    File->SharedRead = (DesiredShareAccess & FILE_SHARE_READ) != 0;
    File->SharedWrite = (DesiredShareAccess & FILE_SHARE_WRITE) != 0;
    File->SharedDelete = (DesiredShareAccess & FILE_SHARE_DELETE) != 0;
}

struct Column {
    BOOLEAN FILE_OBJECT::*Flag;
    ULONG SHARE_ACCESS::*Count;
};

constexpr Column Columns[] = {
    {&FILE_OBJECT::ReadAccess, &SHARE_ACCESS::Readers},      {&FILE_OBJECT::WriteAccess, &SHARE_ACCESS::Writers},
    {&FILE_OBJECT::DeleteAccess, &SHARE_ACCESS::Deleters},   {&FILE_OBJECT::SharedRead, &SHARE_ACCESS::SharedRead},
    {&FILE_OBJECT::SharedWrite, &SHARE_ACCESS::SharedWrite}, {&FILE_OBJECT::SharedDelete, &SHARE_ACCESS::SharedDelete},
};

void Add(const FILE_OBJECT &File, SHARE_ACCESS &Share) {
    ++Share.OpenCount;
    for (const Column &Each : Columns) {
        Share.*Each.Count += File.*Each.Flag;
    }
}

} // namespace

VOID NTAPI IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                            PSHARE_ACCESS ShareAccess) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("IoSetShareAccess"));
    *ShareAccess = {};
    if (NoteAccess(DesiredAccess, FileObject)) {
        NoteSharing(DesiredShareAccess, FileObject);
        Add(*FileObject, *ShareAccess);
    }
}

NTSTATUS NTAPI IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                                  PSHARE_ACCESS ShareAccess, BOOLEAN Update) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("IoCheckShareAccess"));
    if (!NoteAccess(DesiredAccess, FileObject)) {
        return STATUS_SUCCESS;
    }
    NoteSharing(DesiredShareAccess, FileObject);
    const SHARE_ACCESS &Share = *ShareAccess;
    const FILE_OBJECT &File = *FileObject;
    if ((File.ReadAccess && Share.SharedRead < Share.OpenCount) ||
        (File.WriteAccess && Share.SharedWrite < Share.OpenCount) ||
        (File.DeleteAccess && Share.SharedDelete < Share.OpenCount) || (Share.Readers != 0 && !File.SharedRead) ||
        (Share.Writers != 0 && !File.SharedWrite) || (Share.Deleters != 0 && !File.SharedDelete)) {
        return STATUS_SHARING_VIOLATION;
    }
    if (Update) {
        Add(*FileObject, *ShareAccess);
    }
    return STATUS_SUCCESS;
}

VOID NTAPI IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("IoRemoveShareAccess"));
    if (!FileObject->ReadAccess && !FileObject->WriteAccess && !FileObject->DeleteAccess) {
        return;
    }
    bool Recorded = ShareAccess->OpenCount > 0;
    for (const Column &Each : Columns) {
        Recorded = Recorded && ShareAccess->*Each.Count >= FileObject->*Each.Flag;
    }
    if (!Recorded) {
        embedded::BugCheck(embedded::bugcheck::IoVerifier, embedded::bugcheck::OwnRule,
                           reinterpret_cast<ULONG_PTR>(FileObject), reinterpret_cast<ULONG_PTR>(ShareAccess), 0,
                           "share access was removed that was never recorded");
    }
    --ShareAccess->OpenCount;
    for (const Column &Each : Columns) {
        ShareAccess->*Each.Count -= FileObject->*Each.Flag;
    }
}
