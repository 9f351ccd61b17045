// FCBs and instance contexts: one FCB per path shared by all opens of it, one instance context per open.
//
//     FcbPrefixTable --(FullPath, ignoring case)--> FCB <---- FILE_OBJECT.FsContext
//                                                    |              |
//     FcbList ------------------------------------> FCB         FsContext2
//                                                    |              |
//                                              InstanceList ---> INSTANCE_CONTEXT (Provider handles, PathLeft)
//
// Locks, in the order in which they may be nested:
//   1. FcbTableResource guards FcbPrefixTable and FcbPrefixCount; with the FCB's Resource it guards OpenCount.
//   2. An FCB's Resource guards its fields, its InstanceList and its instances. The FCB lives while OpenCount is above
//   0,
//      so whoever has an instance may drop the Resource and take it again.
//   3. A parent FCB's Resource may be taken while a child's is held: change notification only.
//   FcbListResource is a leaf: it guards FcbList and FcbCount.
// A routine that has an FCB's Resource and needs FcbTableResource releases the Resource first. All acquisitions for
// opens wait. PagingIoResource exists for the header and is never taken by the driver.
//
// FullPath may be read with the Resource held. Without it NtFsdStablePath gives a path that stays as it is until the
// FCB goes: a replaced path is kept, so that traces and the PathLeft of other instances never reach freed memory.
#pragma once

#include "frame/irp_context.h"
#include "frame/locks.h"
#include "names/strings.h"

enum OPEN_TYPE : ULONG {
    OPEN_TYPE_DEVICE = 1,
    OPEN_TYPE_DIRECTORY = 3,
    OPEN_TYPE_FILE = 4,
    OPEN_TYPE_UNKNOWN = 10,
};

enum FCB_STATE : ULONG {
    FCB_STATE_NOT_FOUND_AT_OPEN = 0x1,
    FCB_STATE_DELETED = 0x20,
    FCB_STATE_DELETE_ON_CLOSE = 0x400,
    FCB_STATE_FIRST_OPEN_FAILED = 0x2000,
    FCB_STATE_DELETE_DISPOSITION = 0x8000,
    FCB_STATE_EXECUTE_ACCESS = 0x1000000,
    FCB_STATE_IN_PREFIX_TABLE = 0x10000000,
};

// What the existence probe found, as creates keep it.
enum ENTRY_TYPE : ULONG {
    ENTRY_TYPE_UNKNOWN = 0,
    ENTRY_TYPE_FILE = 2,
    ENTRY_TYPE_DIRECTORY = 3,
};

inline constexpr SHORT NODE_TYPE_FCB_HEADER = 0x7705;
inline constexpr ULONG NODE_TYPE_FCB = 0x7704;
inline constexpr ULONG NODE_TYPE_INSTANCE = 0x7706;
inline constexpr USHORT PREFIX_STATE_NEVER_INSERTED = 0xFFFF;
inline constexpr USHORT PREFIX_STATE_INSERTED = 1;

// A path that an FCB has or had. Never changed once it is reachable; lives until its FCB goes.
struct PATH_RECORD {
    PATH_RECORD *Older;
    UNICODE_STRING Path; // owned
};

struct FCB {
    // Unchanged after creation.
    FSRTL_ADVANCED_FCB_HEADER Header; // its sizes: under Resource
    SECTION_OBJECT_POINTERS SectionObjectPointers;
    ULONG NodeTypeCode;
    LIST_ENTRY FcbLinks; // under FcbListResource
    FAST_MUTEX HeaderMutex;
    ERESOURCE Resource;
    ERESOURCE PagingIoResource;
    // Under Resource.
    LIST_ENTRY NotifyList;
    PNOTIFY_SYNC NotifySync;
    ULONG OpenType;  // OPEN_TYPE
    ULONG OpenFlags; // FCB_STATE
    ULONG OpenCount; // changed under FcbTableResource and Resource
    ULONG UncleanCount;
    UNICODE_STRING FullPath; // owned; changed under FcbTableResource and Resource
    UCHAR VolumeResolved;
    SHARE_ACCESS ShareAccess;
    USHORT PrefixState;
    UNICODE_PREFIX_TABLE_ENTRY PrefixEntry; // under FcbTableResource
    LIST_ENTRY InstanceList;
    FILE_LOCK FileLock; // its own lock
    // Ours.
    UCHAR FileLockInitialized;
    LIST_ENTRY *LockGrants; // while an unlock is under way: collects the waiting locks that it grants
    PATH_RECORD FirstPath;
    PATH_RECORD *CurrentPath; // FullPath is its Path
};
typedef FCB *PFCB;

// One open. Under the FCB's Resource, except where said.
struct INSTANCE_CONTEXT {
    ULONG NodeTypeCode;
    PFILE_OBJECT FileObject;
    LIST_ENTRY Links;
    RVHANDLE RelatedHandle; // names below this open are relative to it
    RVHANDLE BaseHandle;    // PathLeft is relative to it; 0: PathLeft is absolute
    RVHANDLE FileHandle;
    RVHANDLE DirHandle;
    RVHANDLE VolumeHandle;
    PWSTR PathLeft; // into the FCB's FullPath buffer
    ULONG LockKey;
    ULONG ProviderAccess;
    ULONG ShareMode;
    ULONG ProviderOptions;
    UCHAR TargetMissing;
    UCHAR DiskFullLatched;
    LONG64 DiskFullTime;
    ULONG64 DiskFullAvailable;
    UCHAR TrailingSlash;
    // Directory listing, under SearchLock. EnumBuffer and SearchMask are owned.
    UCHAR SearchInitialized;
    UCHAR Wildcard;
    ULONG DotEntries;
    PVOID EnumBuffer;
    ULONG SearchMaskLength;
    PWSTR SearchMask;
    PVOID NextEntry;
    ULONG EnumBufferSize;
    ULONG InfoCount;
    UCHAR MoreEntries;
    ULONG ResumeKey;
    UCHAR UseShortNames;
    ULONG ShortNameOption;
    // Ours. An open named relative to another borrows that open's handle as its BaseHandle and RelatedHandle;
    // BorrowLinks has it in Borrowers of the open that owns it. Under the borrow lock (names/borrow.cpp).
    FCB *Fcb;
    LIST_ENTRY Borrowers;
    LIST_ENTRY BorrowLinks;
    // Ours, of the listing. SearchLock serialises the queries of one open, which share the FCB's Resource.
    KEVENT SearchLock;
    UCHAR ExactAnswered; // a search without wildcards has handed out its entry
    UCHAR BatchBroken;   // what follows the records counted in InfoCount is no record
};
typedef INSTANCE_CONTEXT *PINSTANCE_CONTEXT;

// The fields keep the order in which they are listed: each begins after the one before it.
static_assert(offsetof(FCB, Header) == 0 && offsetof(FCB, SectionObjectPointers) == sizeof(FSRTL_ADVANCED_FCB_HEADER));
static_assert(offsetof(FCB, NodeTypeCode) < offsetof(FCB, FcbLinks) &&
              offsetof(FCB, FcbLinks) < offsetof(FCB, HeaderMutex));
static_assert(offsetof(FCB, HeaderMutex) < offsetof(FCB, Resource) &&
              offsetof(FCB, Resource) < offsetof(FCB, PagingIoResource));
static_assert(offsetof(FCB, PagingIoResource) < offsetof(FCB, NotifyList) &&
              offsetof(FCB, NotifyList) < offsetof(FCB, NotifySync));
static_assert(offsetof(FCB, NotifySync) < offsetof(FCB, OpenType) &&
              offsetof(FCB, OpenType) < offsetof(FCB, OpenFlags));
static_assert(offsetof(FCB, OpenFlags) < offsetof(FCB, OpenCount) &&
              offsetof(FCB, OpenCount) < offsetof(FCB, UncleanCount));
static_assert(offsetof(FCB, UncleanCount) < offsetof(FCB, FullPath) &&
              offsetof(FCB, FullPath) < offsetof(FCB, VolumeResolved));
static_assert(offsetof(FCB, VolumeResolved) < offsetof(FCB, ShareAccess) &&
              offsetof(FCB, ShareAccess) < offsetof(FCB, PrefixState));
static_assert(offsetof(FCB, PrefixState) < offsetof(FCB, PrefixEntry) &&
              offsetof(FCB, PrefixEntry) < offsetof(FCB, InstanceList) &&
              offsetof(FCB, InstanceList) < offsetof(FCB, FileLock));
static_assert(offsetof(INSTANCE_CONTEXT, NodeTypeCode) == 0 && offsetof(INSTANCE_CONTEXT, FileObject) == 8 &&
              offsetof(INSTANCE_CONTEXT, Links) == 16 && offsetof(INSTANCE_CONTEXT, RelatedHandle) == 32 &&
              offsetof(INSTANCE_CONTEXT, BaseHandle) == 40 && offsetof(INSTANCE_CONTEXT, FileHandle) == 48 &&
              offsetof(INSTANCE_CONTEXT, DirHandle) == 56 && offsetof(INSTANCE_CONTEXT, VolumeHandle) == 64 &&
              offsetof(INSTANCE_CONTEXT, PathLeft) == 72 && offsetof(INSTANCE_CONTEXT, LockKey) == 80 &&
              offsetof(INSTANCE_CONTEXT, ProviderAccess) == 84 && offsetof(INSTANCE_CONTEXT, ShareMode) == 88 &&
              offsetof(INSTANCE_CONTEXT, ProviderOptions) == 92 && offsetof(INSTANCE_CONTEXT, TargetMissing) == 96);
static_assert(offsetof(INSTANCE_CONTEXT, DiskFullLatched) == 97 && offsetof(INSTANCE_CONTEXT, DiskFullTime) == 104 &&
              offsetof(INSTANCE_CONTEXT, DiskFullAvailable) == 112 &&
              offsetof(INSTANCE_CONTEXT, TrailingSlash) == 120 &&
              offsetof(INSTANCE_CONTEXT, SearchInitialized) == 121 &&
              offsetof(INSTANCE_CONTEXT, ShortNameOption) == 180);

// ---- Global objects ----------------------------------------------------------------------------------------------

extern UNICODE_PREFIX_TABLE FcbPrefixTable;
extern ULONG FcbPrefixCount;
extern ERESOURCE FcbTableResource;
extern LIST_ENTRY FcbList;
extern ULONG FcbCount;
extern ERESOURCE FcbListResource;
extern PFCB DriverFcb;

// ---- FCB records (names/fcb.cpp) -----------------------------------------------------------------------------------

// Makes an FCB for Path (NULL: no path) and puts it into FcbList. FileObject, when given, has its SectionObjectPointer
// pointed into it. Takes FcbListResource. Returns NULL when no memory or resource can be had, with nothing left behind.
PFCB NtFsdAllocFcb(PFILE_OBJECT FileObject, PCUNICODE_STRING Path);

// The FCB's path as of now, for a reader without the Resource. Valid while the caller's open keeps the FCB.
inline PCUNICODE_STRING NtFsdStablePath(PFCB Fcb) {
    return &__atomic_load_n(&Fcb->CurrentPath, __ATOMIC_ACQUIRE)->Path;
}

// Frees the paths and the block; NULL is ignored.
VOID NtFsdFreeFcbMemory(PFCB Fcb);

// Tears Fcb down: out of the prefix table (the caller holds FcbTableResource then), resources, lock table, list,
// memory. Hold is the caller's hold of Fcb's Resource, which is released and gone.
VOID NtFsdDeleteFcb(PFCB Fcb, ResourceHold &Hold);

// Initialises the lock table of a file FCB, once in its life. Resource held exclusive.
VOID NtFsdInitializeFcbFileLock(PFCB Fcb);

// ---- The prefix table (names/fcb_table.cpp) ------------------------------------------------------------------------

// The FCB with the longest path that is a component prefix of Path, ignoring case, or NULL. Remaining (aliasing Path)
// receives what is left of Path after it; it is empty for an exact match. FcbTableResource held.
PFCB NtFsdFindFcb(PUNICODE_STRING Path, PUNICODE_STRING Remaining);

// Finds the FCB of exactly Path or creates it. On success Hold holds its Resource exclusive and OpenCount is one
// higher.
NTSTATUS NtFsdOpenOrCreateFcb(PIRP_CONTEXT IrpContext, PUNICODE_STRING Path, PFCB *Fcb, BOOLEAN *Created,
                              ResourceHold &Hold);

// A path that an FCB is to take, made before anything is changed so that taking it cannot fail for memory.
class [[nodiscard]] NewPathRecord {
public:
    NewPathRecord() = default;
    NewPathRecord(const NewPathRecord &) = delete;
    NewPathRecord &operator=(const NewPathRecord &) = delete;
    ~NewPathRecord();
    // Copies Path, once. STATUS_INSUFFICIENT_RESOURCES or STATUS_NAME_TOO_LONG.
    NTSTATUS Make(PCUNICODE_STRING Path);
    PUNICODE_STRING Path() const {
        return &Record_->Path;
    }
    PATH_RECORD *Detach() {
        return Record_.Detach();
    }

private:
    PoolPointer<PATH_RECORD> Record_;
};

// Re-keys Fcb under NewPath. The caller holds its Resource in Hold and holds it again afterwards; it was released in
// between, unless the caller holds FcbTableResource too. Every instance keeps a valid PathLeft. When the new key cannot
// be inserted the FCB stays out of the table.
VOID NtFsdRenameFcb(PFCB Fcb, NewPathRecord &NewPath, ResourceHold &Hold);
// The same for a path that is still to be copied: fails as Make does, with the old path still in force.
NTSTATUS NtFsdRenameFcb(PFCB Fcb, PCUNICODE_STRING NewPath, ResourceHold &Hold);

// TRUE when an FCB's path lies below Path. Walks the table. FcbTableResource held.
bool NtFsdHasFcbBelow(PCUNICODE_STRING Path);

// Trace of the FCBs that have notification requests waiting. FcbTableResource held.
VOID NtFsdDumpPrefixTable();

// ---- Opens (names/open_fcb.cpp)
// --------------------------------------------------------------------------------------

// Finds or makes the FCB and the instance context of an open of Name, relative to RelatedFileObject when given, and
// attaches them to the IrpContext's file object. On success Hold holds the FCB's Resource exclusive. *EntryType (which
// the caller initialises) says what the probe found. Failures: STATUS_OBJECT_NAME_INVALID (wildcards, too long, empty
// component), STATUS_INVALID_HANDLE or STATUS_NOT_A_DIRECTORY (related file object), the probe's, or resources.
NTSTATUS NtFsdOpenFcb(PIRP_CONTEXT IrpContext, PFILE_OBJECT RelatedFileObject, PUNICODE_STRING Name, PFCB *Fcb,
                      PINSTANCE_CONTEXT *Instance, PULONG OpenCount, PULONG EntryType, ResourceHold &Hold);

// Drops the open of Instance: carries out a pending delete when it is the FCB's last, frees the instance, tears the FCB
// down when none is left. The caller holds FcbTableResource, and Fcb's Resource in Hold; when *FcbFreed (may be NULL)
// is TRUE that hold is gone. Returns the translated status of the delete, or STATUS_SUCCESS.
NTSTATUS TwSupDereference(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, BOOLEAN *FcbFreed,
                          ResourceHold &Hold);

// Frees an instance with its listing buffers. Unlinked by the caller.
VOID NtFsdFreeInstance(PINSTANCE_CONTEXT Instance);

// Says what kind of object Fcb is. Fcb->Resource is held exclusively; requests on other opens read the kind without it,
// and it stays what it is while any of them is there.
inline VOID NtFsdSetOpenType(PFCB Fcb, ULONG OpenType) {
    if (__atomic_load_n(&Fcb->OpenType, __ATOMIC_RELAXED) != OpenType) {
        __atomic_store_n(&Fcb->OpenType, OpenType, __ATOMIC_RELAXED);
    }
}

// Changes of the FCB_STATE bits and of VolumeResolved, with the Resource held exclusively. Decoding a file object reads
// the bits without it, and a relative open reads VolumeResolved of its directory.
inline VOID NtFsdSetOpenFlags(PFCB Fcb, ULONG Bits) {
    __atomic_store_n(&Fcb->OpenFlags, Fcb->OpenFlags | Bits, __ATOMIC_RELAXED);
}
inline VOID NtFsdClearOpenFlags(PFCB Fcb, ULONG Bits) {
    __atomic_store_n(&Fcb->OpenFlags, Fcb->OpenFlags & ~Bits, __ATOMIC_RELAXED);
}
inline VOID NtFsdSetVolumeResolved(PFCB Fcb, UCHAR Resolved) {
    __atomic_store_n(&Fcb->VolumeResolved, Resolved, __ATOMIC_RELAXED);
}

// TRUE for an open of a file without a handle of it: the parent of a rename's target that turned out to be a file. It
// can only be closed; the Provider must never be asked with handle 0.
inline bool NtFsdLacksFileHandle(const FCB *Fcb, const INSTANCE_CONTEXT *Instance) {
    return __atomic_load_n(&Fcb->OpenType, __ATOMIC_RELAXED) == OPEN_TYPE_FILE && Instance->FileHandle == 0;
}

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
NTSTATUS NtFsdEnsureDirectoryHandle(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance);

// Acquires Fcb's Resource for a request that uses the open's handle: shared, or exclusive when a directory's own handle
// has to be opened first, which is done. STATUS_CANT_WAIT when it is busy and the request may not wait (nothing is held
// then); with any other failure the Resource is held.
NTSTATUS NtFsdAcquireForHandle(PIRP_CONTEXT IrpContext, PFCB Fcb, PINSTANCE_CONTEXT Instance, ResourceHold &Hold);

// ---- Borrowed handles (names/borrow.cpp)
// -------------------------------------------------------------------------------

// The handle that names below Instance's open are relative to: its own directory or, for a volume root, its volume. 0
// when it has neither; then the full path is right.
RVHANDLE NtFsdHandleToLend(PINSTANCE_CONTEXT Instance);

// Enters Borrower, whose BaseHandle is a handle of Lender's. Both opens are alive: the create that makes Borrower holds
// Lender's file object.
VOID NtFsdBorrowFrom(PINSTANCE_CONTEXT Lender, PINSTANCE_CONTEXT Borrower);

// Names the object of Instance by the whole FullPath of its FCB, whose Resource is held.
VOID NtFsdNameByFullPath(PINSTANCE_CONTEXT Instance);

// Ends whatever Instance borrows, before it is freed.
VOID NtFsdEndBorrowing(PINSTANCE_CONTEXT Instance);

// Gives every open that borrows from Lender, whose handles are about to be closed, its full path instead of the handle.
// FcbTableResource held exclusive, and no FCB's Resource: each borrower's FCB is taken in turn.
VOID NtFsdRebaseBorrowers(PINSTANCE_CONTEXT Lender);
