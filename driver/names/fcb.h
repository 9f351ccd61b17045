// FCBs and instance contexts: making and finding them, the prefix table, opens, decoding, borrowed handles.
//
// fcb_records.h draws the records and says which lock guards what and in which order locks are nested. Here each
// routine says which of them its caller holds.
#pragma once

#include "frame/irp_context.h"
#include "names/fcb_records.h"

// ---- Global objects ----------------------------------------------------------------------------------------------

extern UNICODE_PREFIX_TABLE FcbPrefixTable UNDER(FcbTableResource);
extern ULONG FcbPrefixCount UNDER(FcbTableResource);
extern LIST_ENTRY FcbList UNDER(FcbListResource);
extern ULONG FcbCount UNDER(FcbListResource);
extern PFCB DriverFcb;

// ---- FCB records (names/fcb.cpp) -----------------------------------------------------------------------------------

// Makes an FCB for Path (NULL: no path) and puts it into FcbList. FileObject, when given, has its SectionObjectPointer
// pointed into it. Takes FcbListResource. Returns NULL when no memory or resource can be had, with nothing left behind.
PFCB NtFsdAllocFcb(PFILE_OBJECT FileObject, PCUNICODE_STRING Path);

// The record of the FCB's path as of now, and how often that has changed; for readers without the Resource, too.
// Written with FcbTableResource and the Resource held exclusively, the record first.
inline PATH_RECORD *NtFsdReadCurrentPath(const FCB *Fcb) {
    return __atomic_load_n(&Fcb->CurrentPath, __ATOMIC_ACQUIRE);
}
inline VOID NtFsdSetCurrentPath(PFCB Fcb, PATH_RECORD *Record) HOLDING(FcbTableResource, Fcb->Resource) {
    __atomic_store_n(&Fcb->CurrentPath, Record, __ATOMIC_RELEASE);
}
inline ULONG NtFsdReadPathChanges(const FCB *Fcb) {
    return __atomic_load_n(&Fcb->PathChanges, __ATOMIC_ACQUIRE);
}
inline VOID NtFsdCountPathChange(PFCB Fcb) HOLDING(FcbTableResource, Fcb->Resource) {
    __atomic_store_n(&Fcb->PathChanges, Fcb->PathChanges + 1, __ATOMIC_RELEASE);
}

// The FCB's path as of now, for a reader without the Resource. Valid while the caller's open keeps the FCB.
inline PCUNICODE_STRING NtFsdStablePath(PFCB Fcb) {
    return &NtFsdReadCurrentPath(Fcb)->Path;
}

// The path of an FCB that another path is composed of, to tell afterwards whether a rename has come in between.
struct PATH_SOURCE {
    PFCB Fcb;      // NULL: the other path stands for itself
    ULONG Changes; // read before Record
    PATH_RECORD *Record;

    PCUNICODE_STRING Path() const {
        return Fcb != nullptr ? &Record->Path : nullptr;
    }
    // FcbTableResource held.
    bool IsCurrent() const HOLDING_SHARED(FcbTableResource) {
        return Fcb == nullptr || NtFsdReadPathChanges(Fcb) == Changes;
    }
    // What Status of a question under the composed path means: STATUS_RETRY when it was asked under a name that a
    // rename has taken away meanwhile, else Status itself. Takes FcbTableResource, which a rename holds from before its
    // move until the new path is in force.
    NTSTATUS Judge(NTSTATUS Status) const;
};
inline PATH_SOURCE NtFsdPathSource(PFCB Fcb) {
    if (Fcb == nullptr) {
        return {nullptr, 0, nullptr};
    }
    const ULONG Changes = NtFsdReadPathChanges(Fcb);
    return {Fcb, Changes, NtFsdReadCurrentPath(Fcb)};
}

// Runs Attempt(Source) under the current path of Related (NULL: none) until no rename of it has come in between, which
// the attempt says with STATUS_RETRY, having done nothing.
template <typename ATTEMPT>
NTSTATUS NtFsdUnderCurrentPath(PFCB Related, ATTEMPT &&Attempt) {
    NTSTATUS Status;
    do {
        Status = Attempt(NtFsdPathSource(Related));
    } while (Status == STATUS_RETRY);
    return Status;
}

// TRUE when Fcb is the root of a volume as far as the driver knows, however its opens name it: such a one is neither
// renamed nor deleted. Resource held.
bool NtFsdIsVolumeRoot(const FCB *Fcb) HOLDING_SHARED(Fcb->Resource);

// Frees the paths and the block of an FCB that is not set up, or not any more; NULL is ignored.
VOID NtFsdFreeFcbMemory(PFCB Fcb);

// Frees Fcb, which is in no table and no list, with its resources and its lock table. Nobody holds or waits for any.
VOID NtFsdFreeFcb(PFCB Fcb);

// Tears Fcb down: out of the prefix table (the caller holds FcbTableResource then), resources, lock table, list,
// memory. Hold is the caller's hold of Fcb's Resource, which is released and gone.
VOID NtFsdDeleteFcb(PFCB Fcb, ResourceHold &Hold) HOLDING(FcbTableResource, Fcb->Resource);

// Initialises the lock table of a file FCB, once in its life. Resource held exclusive.
VOID NtFsdInitializeFcbFileLock(PFCB Fcb) HOLDING(Fcb->Resource);

// ---- Directories with something open below (names/parents.cpp). FcbTableResource held exclusive.

// Counts one FCB in below the directory of Path and every directory above that. *Parent is what is to be released; NULL
// below a volume itself. STATUS_INSUFFICIENT_RESOURCES counts nothing.
NTSTATUS NtFsdHoldParent(PCUNICODE_STRING Path, PARENT_RECORD **Parent) HOLDING(FcbTableResource);
VOID NtFsdReleaseParent(PARENT_RECORD *Parent) HOLDING(FcbTableResource);

// TRUE when the path of an FCB in the prefix table lies below Path, the path of a directory below a volume. Costs what
// Path is long, however many are open.
bool NtFsdHasFcbBelow(PCUNICODE_STRING Path) HOLDING(FcbTableResource);

// ---- The prefix table (names/fcb_table.cpp) ------------------------------------------------------------------------

// The FCB with the longest path that is a component prefix of Path, ignoring case, or NULL. Remaining (aliasing Path)
// receives what is left of Path after it; it is empty for an exact match. FcbTableResource held.
PFCB NtFsdFindFcb(PUNICODE_STRING Path, PUNICODE_STRING Remaining) HOLDING_SHARED(FcbTableResource);

// Sets up the prefix table, at start.
VOID NtFsdInitializeFcbTable();

// Takes Fcb out of the prefix table if it is in it. FcbTableResource and its Resource held, or no request in flight.
VOID NtFsdRemovePrefix(PFCB Fcb) HOLDING(FcbTableResource, Fcb->Resource);

// Finds the FCB of exactly Path or creates it. On success Hold holds its Resource exclusive and OpenCount is one
// higher. STATUS_RETRY, with nothing done, when Source, which Path was composed of, has another path by now.
NTSTATUS NtFsdOpenOrCreateFcb(PIRP_CONTEXT IrpContext, PUNICODE_STRING Path, const PATH_SOURCE &Source, PFCB *Fcb,
                              BOOLEAN *Created, ResourceHold &Hold);

// A path that an FCB is to take, made before anything is changed so that taking it cannot fail for memory.
class [[nodiscard]] NewPathRecord {
public:
    NewPathRecord() = default;
    NewPathRecord(const NewPathRecord &) = delete;
    NewPathRecord &operator=(const NewPathRecord &) = delete;
    ~NewPathRecord();
    // Copies Path, once, for Fcb, and counts it in below its directory. STATUS_INSUFFICIENT_RESOURCES, also when Fcb
    // keeps too many old paths, or STATUS_NAME_TOO_LONG. FcbTableResource held exclusive.
    NTSTATUS Make(const FCB *Fcb, PCUNICODE_STRING Path) HOLDING(FcbTableResource);
    // Counts it out again, unless an FCB has taken it. FcbTableResource held exclusive.
    VOID Drop() HOLDING(FcbTableResource) {
        NtFsdReleaseParent(DetachParent());
    }
    PARENT_RECORD *DetachParent() {
        PARENT_RECORD *Parent = Parent_;
        Parent_ = nullptr;
        return Parent;
    }
    PUNICODE_STRING Path() const {
        return &Record_->Path;
    }
    PATH_RECORD *Detach() {
        return Record_.Detach();
    }

private:
    PoolPointer<PATH_RECORD> Record_;
    PARENT_RECORD *Parent_ = nullptr;
};

// Re-keys Fcb under NewPath. The caller holds FcbTableResource and Fcb's Resource exclusive. Every instance keeps a
// valid PathLeft. When the new key cannot be inserted the FCB stays out of the table.
VOID NtFsdRenameFcb(PFCB Fcb, NewPathRecord &NewPath) HOLDING(FcbTableResource, Fcb->Resource);

// Trace of the FCBs that have notification requests waiting. FcbTableResource held.
VOID NtFsdDumpPrefixTable() HOLDING_SHARED(FcbTableResource);

// ---- Opens (names/open_fcb.cpp)

// What an open that finds its FCB may change in it before it is known to succeed.
struct FCB_BEFORE_OPEN {
    ULONG OpenFlags;
    UCHAR VolumeResolved;
    UCHAR VolumeRoot;
};

// Finds or makes the FCB and the instance context of an open of Name, relative to RelatedFileObject when given, and
// attaches them to the IrpContext's file object. On success Hold holds the FCB's Resource exclusive. *EntryType (which
// the caller initialises) says what the probe found. Failures: STATUS_OBJECT_NAME_INVALID (wildcards, too long, empty
// component), STATUS_INVALID_HANDLE or STATUS_NOT_A_DIRECTORY (related file object), the probe's, or resources. A
// related directory that is renamed meanwhile makes it begin anew. Before (may be NULL) receives what a failing open
// has to put back.
NTSTATUS NtFsdOpenFcb(PIRP_CONTEXT IrpContext, PFILE_OBJECT RelatedFileObject, PUNICODE_STRING Name, PFCB *Fcb,
                      PINSTANCE_CONTEXT *Instance, PULONG OpenCount, PULONG EntryType, ResourceHold &Hold,
                      FCB_BEFORE_OPEN *Before = nullptr);
// The same once, for a Name that the caller has composed of Source: STATUS_RETRY, with nothing done, when that has been
// renamed meanwhile.
NTSTATUS NtFsdOpenComposedFcb(PIRP_CONTEXT IrpContext, const PATH_SOURCE &Source, PUNICODE_STRING Name, PFCB *Fcb,
                              PINSTANCE_CONTEXT *Instance, PULONG OpenCount, PULONG EntryType, ResourceHold &Hold,
                              FCB_BEFORE_OPEN *Before);

// Proves that a related file object (NULL: there is none) is an open of a path of ours before anything of it is read.
// STATUS_INVALID_HANDLE when it is none, STATUS_NOT_A_DIRECTORY for the control device.
NTSTATUS NtFsdCheckRelated(PFILE_OBJECT FileObject, PFCB *Fcb, PINSTANCE_CONTEXT *Instance);

// ---- The end of an open (names/dereference.cpp)

// Drops the open of Instance: carries out a pending delete when it is the FCB's last, frees the instance, tears the FCB
// down when none is left. The caller holds FcbTableResource, and Fcb's Resource in Hold; when *FcbFreed (may be NULL)
// is TRUE that hold is gone. Returns the translated status of the delete, or STATUS_SUCCESS.
NTSTATUS TwSupDereference(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, BOOLEAN *FcbFreed,
                          ResourceHold &Hold) HOLDING(FcbTableResource, Fcb->Resource);

// Frees an instance with its listing buffers. Unlinked by the caller.
VOID NtFsdFreeInstance(PINSTANCE_CONTEXT Instance);

// While one exists, the Provider is asked with IrpContext in the name of whoever wished for Fcb's pending deletion:
// what the owner may not delete stays, though the last to close could delete it. Resource held exclusive.
class [[nodiscard]] ActForDeletionOwner {
public:
    ActForDeletionOwner(PIRP_CONTEXT IrpContext, const FCB *Fcb) HOLDING(Fcb->Resource)
        : IrpContext_(IrpContext), Own_(IrpContext->SecurityContext) {
        IrpContext->SecurityContext =
            (Fcb->OpenFlags & FCB_STATE_DELETE_DISPOSITION) ? Fcb->DispositionOwner : Fcb->DeleteOnCloseOwner;
    }
    ActForDeletionOwner(const ActForDeletionOwner &) = delete;
    ActForDeletionOwner &operator=(const ActForDeletionOwner &) = delete;
    ~ActForDeletionOwner() {
        IrpContext_->SecurityContext = Own_;
    }

private:
    PIRP_CONTEXT IrpContext_;
    RV_SECURITY_CONTEXT Own_;
};

// Tells the analysis that what is held of Fcb is the lock of Instance, an open of Fcb.
inline VOID NtFsdSameLock(const FCB *Fcb, const INSTANCE_CONTEXT *Instance) HOLDING(Fcb->Resource)
    HELD_FROM_HERE(Instance->Fcb->Resource) {
    NtFsdRequire(Instance->Fcb == Fcb);
}

// ---- What is also read without the lock that it is written under ---------------------------------------------------
//
// Written with the FCB's Resource held exclusively.

// What kind of object Fcb is. It stays what it is while an open of it is there.
inline ULONG NtFsdReadOpenType(const FCB *Fcb) {
    return __atomic_load_n(&Fcb->OpenType, __ATOMIC_RELAXED);
}
inline VOID NtFsdSetOpenType(PFCB Fcb, ULONG OpenType) HOLDING(Fcb->Resource) {
    if (NtFsdReadOpenType(Fcb) != OpenType) {
        __atomic_store_n(&Fcb->OpenType, OpenType, __ATOMIC_RELAXED);
    }
}

// The FCB_STATE bits; decoding a file object reads them.
inline ULONG NtFsdReadOpenFlags(const FCB *Fcb) {
    return __atomic_load_n(&Fcb->OpenFlags, __ATOMIC_RELAXED);
}
inline VOID NtFsdSetOpenFlags(PFCB Fcb, ULONG Bits) HOLDING(Fcb->Resource) {
    __atomic_store_n(&Fcb->OpenFlags, Fcb->OpenFlags | Bits, __ATOMIC_RELAXED);
}
inline VOID NtFsdClearOpenFlags(PFCB Fcb, ULONG Bits) HOLDING(Fcb->Resource) {
    __atomic_store_n(&Fcb->OpenFlags, Fcb->OpenFlags & ~Bits, __ATOMIC_RELAXED);
}

// A relative open reads that of its directory.
inline UCHAR NtFsdReadVolumeResolved(const FCB *Fcb) {
    return __atomic_load_n(&Fcb->VolumeResolved, __ATOMIC_RELAXED);
}
inline VOID NtFsdSetVolumeResolved(PFCB Fcb, UCHAR Resolved) HOLDING(Fcb->Resource) {
    __atomic_store_n(&Fcb->VolumeResolved, Resolved, __ATOMIC_RELAXED);
}

// Of an open that another is named relative to.
inline RVHANDLE NtFsdReadDirHandle(const INSTANCE_CONTEXT *Instance) {
    return __atomic_load_n(&Instance->DirHandle, __ATOMIC_RELAXED);
}
inline VOID NtFsdSetDirHandle(PINSTANCE_CONTEXT Instance, RVHANDLE Handle) HOLDING(Instance->Fcb->Resource) {
    __atomic_store_n(&Instance->DirHandle, Handle, __ATOMIC_RELAXED);
}
inline PWSTR NtFsdReadPathLeft(const INSTANCE_CONTEXT *Instance) {
    return __atomic_load_n(&Instance->PathLeft, __ATOMIC_ACQUIRE);
}
inline VOID NtFsdSetPathLeft(PINSTANCE_CONTEXT Instance, PWSTR Path) HOLDING(Instance->Fcb->Resource) {
    __atomic_store_n(&Instance->PathLeft, Path, __ATOMIC_RELEASE);
}

// TRUE for an open of a file without a handle of it: the parent of a rename's target that turned out to be a file. It
// can only be closed and asked for its volume; the Provider must never be asked with handle 0.
inline bool NtFsdLacksFileHandle(const FCB *Fcb, const INSTANCE_CONTEXT *Instance) {
    return NtFsdReadOpenType(Fcb) == OPEN_TYPE_FILE && Instance->FileHandle == 0;
}

// ---- Use of an open (names/open_use.cpp)

// The file-object check of every request: fetches FCB and instance and tests signature, deletion and type
// (ExpectedOpenType 0 = any). STATUS_INVALID_HANDLE, STATUS_INVALID_PARAMETER, STATUS_DELETE_PENDING or STATUS_SUCCESS.
NTSTATUS NtFsdDecodeFileObject(PFILE_OBJECT FileObject, PFCB *Fcb, PINSTANCE_CONTEXT *Instance, ULONG ExpectedOpenType);

// TRUE when the record at FsContext is an FCB of this driver.
inline bool NtFsdIsFcb(const void *FsContext) {
    return FsContext != nullptr && static_cast<const FCB *>(FsContext)->NodeTypeCode == NODE_TYPE_FCB;
}

// Opens the directory's own handle for an instance that a create made without one (it created the directory but did not
// open it), so that no request acts on the parent's handle. Resource held exclusive. A no-op when there is a DirHandle
// or the instance is a volume root. Returns the translated status of the open.
NTSTATUS NtFsdEnsureDirectoryHandle(PIRP_CONTEXT IrpContext, PINSTANCE_CONTEXT Instance)
    HOLDING(Instance->Fcb->Resource);

// Acquires Fcb's Resource for a request that uses the open's handle: shared, or exclusive when asked for or when a
// directory's own handle has to be opened first, which is done. STATUS_CANT_WAIT when it is busy and the request may
// not wait (nothing is held then); with any other failure, which is the handle's, the Resource is held.
NTSTATUS NtFsdAcquireForHandle(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, bool Exclusive,
                               ResourceHold &Hold);

// ---- Borrowed handles (names/borrow.cpp)

// The handle that names below Instance's open are relative to: its own directory or, for a volume root, its volume. 0
// when it has neither; then the full path is right.
RVHANDLE NtFsdHandleToLend(PINSTANCE_CONTEXT Instance);

// Enters Borrower, whose BaseHandle is a handle of Lender's. Both opens are alive: the create that makes Borrower holds
// Lender's file object.
VOID NtFsdBorrowFrom(PINSTANCE_CONTEXT Lender, PINSTANCE_CONTEXT Borrower);

// Names the object of Instance by the whole FullPath of its FCB.
VOID NtFsdNameByFullPath(PINSTANCE_CONTEXT Instance) HOLDING(Instance->Fcb->Resource);

// Ends whatever Instance borrows, before it is freed.
VOID NtFsdEndBorrowing(PINSTANCE_CONTEXT Instance);

// Gives every open that borrows from Lender, whose handles are about to be closed, its full path instead of the handle.
// FcbTableResource held exclusive, and no FCB's Resource: each borrower's FCB is taken in turn. FALSE when one was busy
// and Wait is FALSE; those before it are rebased, and calling again goes on.
bool NtFsdRebaseBorrowers(PINSTANCE_CONTEXT Lender, BOOLEAN Wait);
