// The records of FCBs and instance contexts: one FCB per path shared by all opens of it, one instance context per open.
//
//     FcbPrefixTable --(FullPath, ignoring case)--> FCB <---- FILE_OBJECT.FsContext
//                                                    |              |
//     FcbList ------------------------------------> FCB         FsContext2
//                                                    |              |
//                                              InstanceList ---> INSTANCE_CONTEXT (Provider handles, PathLeft)
//
// The order of locks stands in frame/locks.h. Here:
//   FcbTableResource guards FcbPrefixTable and FcbPrefixCount. OpenCount and what a rename changes (FullPath and the
//   current path, BaseHandle and PathLeft of the opens) are changed with it and the FCB's Resource, both exclusive, so
//   that either keeps them still.
//   An FCB's Resource guards its fields, its InstanceList and its instances. The FCB lives while OpenCount is not 0, so
//   whoever has an instance may drop the Resource and take it again.
//   FcbListResource guards FcbList and FcbCount.
// All acquisitions for opens wait. PagingIoResource exists for the header and is never taken by the driver.
//
// FullPath may be read with the Resource held. Without it NtFsdStablePath gives a path that stays as it is until the
// FCB goes: a replaced path is kept, so that traces and the PathLeft of other instances never reach freed memory. One
// that comes back uses its old record again: renaming to and fro takes no memory. An FCB that keeps MOST_OLD_PATH_BYTES
// of old paths takes no new ones.
#pragma once

#include "frame/locks.h"
#include "names/strings.h"
#include "provider/provider_interface.h"

extern ERESOURCE FcbTableResource BEFORE(BelowTable);
extern ERESOURCE FcbListResource BEHIND(BelowSearches) BEFORE(BelowLeaves);
extern KSPIN_LOCK g_BorrowLock BEHIND(BelowLeaves) BEFORE(BelowSpinLocks);    // names/borrow.cpp
extern KSPIN_LOCK g_OutlivingLock BEHIND(BelowLeaves) BEFORE(BelowSpinLocks); // close/after_teardown.cpp

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

// A path that an FCB has or had. Its text never changes once it is reachable; lives until its FCB goes.
struct PATH_RECORD {
    PATH_RECORD *Older;
    UNICODE_STRING Path; // owned
};

inline constexpr ULONG MOST_OLD_PATH_BYTES = 1024 * 1024;

struct PARENT_RECORD;

struct FCB {
    // Unchanged after creation.
    FSRTL_ADVANCED_FCB_HEADER Header; // its sizes: under Resource
    SECTION_OBJECT_POINTERS SectionObjectPointers;
    ULONG NodeTypeCode;
    LIST_ENTRY FcbLinks UNDER(FcbListResource);
    FAST_MUTEX HeaderMutex;
    ERESOURCE Resource BEHIND(BelowTable) BEFORE(BelowFcbs);
    ERESOURCE PagingIoResource;
    // Under Resource.
    LIST_ENTRY NotifyList UNDER(Resource);
    PNOTIFY_SYNC NotifySync UNDER(Resource);
    ULONG OpenType UNDER(Resource);  // OPEN_TYPE
    ULONG OpenFlags UNDER(Resource); // FCB_STATE
    ULONG OpenCount UNDER(Resource); // changed under FcbTableResource and Resource
    ULONG UncleanCount UNDER(Resource);
    UNICODE_STRING FullPath UNDER(Resource); // owned; changed under FcbTableResource and Resource
    UCHAR VolumeResolved UNDER(Resource);
    SHARE_ACCESS ShareAccess UNDER(Resource);
    USHORT PrefixState UNDER(FcbTableResource);
    UNICODE_PREFIX_TABLE_ENTRY PrefixEntry UNDER(FcbTableResource);
    LIST_ENTRY InstanceList UNDER(Resource);
    FILE_LOCK FileLock; // its own lock
    // Ours.
    UCHAR FileLockInitialized UNDER(Resource);
    UCHAR HasWaiters UNDER(Resource);       // whether NotifyList holds anything, for readers without Resource
    UCHAR VolumeRoot UNDER(Resource);       // an open found that FullPath is the path of a volume
    LIST_ENTRY *LockGrants UNDER(Resource); // while an unlock is under way: collects the waiting locks that it grants
    LIST_ENTRY LockRequests
        UNDER(g_LockRequestsLock); // locks that may wait, until the server is told of them (io/lock_table.h)
    PATH_RECORD FirstPath;
    PATH_RECORD *CurrentPath UNDER(FcbTableResource); // FullPath is its Path
    PARENT_RECORD *Parent UNDER(FcbTableResource);    // counts it while it is in the prefix table
    ULONG PathChanges UNDER(FcbTableResource);        // how often FullPath has changed; written after CurrentPath
    ULONG OldPathBytes UNDER(FcbTableResource);       // of the paths that FullPath was before
    // Whose wish the pending deletion is, by the flag that asks for it.
    RV_SECURITY_CONTEXT DeleteOnCloseOwner UNDER(Resource);
    RV_SECURITY_CONTEXT DispositionOwner UNDER(Resource);
};
typedef FCB *PFCB;
READ_PLACE(FcbListResource, FcbListResource);
READ_PLACE(FcbResource, Fcb.Resource, FCB &Fcb);

// One open. What stands under no lock is set by the open's create, before its file object can be used, and stays; the
// close clears VolumeHandle.
struct INSTANCE_CONTEXT {
    ULONG NodeTypeCode;
    PFILE_OBJECT FileObject UNDER(g_OutlivingLock); // NULL once its close has come
    LIST_ENTRY Links UNDER(Fcb->Resource);
    RVHANDLE RelatedHandle UNDER(Fcb->Resource); // names below this open are relative to it
    RVHANDLE BaseHandle UNDER(Fcb->Resource);    // PathLeft is relative to it; 0: PathLeft is absolute
    RVHANDLE FileHandle;
    RVHANDLE DirHandle UNDER(Fcb->Resource);
    RVHANDLE VolumeHandle;
    PWSTR PathLeft UNDER(Fcb->Resource); // into the FCB's FullPath buffer
    ULONG LockKey UNDER(Fcb->Resource);
    ULONG ProviderAccess;
    ULONG ShareMode;
    ULONG ProviderOptions UNDER(Fcb->Resource);
    UCHAR TargetMissing;
    UCHAR DiskFullLatched UNDER(Fcb->Resource);
    LONG64 DiskFullTime UNDER(Fcb->Resource);
    ULONG64 DiskFullAvailable UNDER(Fcb->Resource);
    UCHAR TrailingSlash;
    // Directory listing. EnumBuffer and SearchMask are owned; SearchInitialized is also read without the lock.
    UCHAR SearchInitialized UNDER(SearchLock);
    UCHAR Wildcard UNDER(SearchLock);
    ULONG DotEntries UNDER(SearchLock);
    PVOID EnumBuffer UNDER(SearchLock);
    ULONG SearchMaskLength UNDER(SearchLock);
    PWSTR SearchMask UNDER(SearchLock);
    PVOID NextEntry UNDER(SearchLock);
    ULONG EnumBufferSize UNDER(SearchLock);
    ULONG InfoCount UNDER(SearchLock);
    UCHAR MoreEntries UNDER(SearchLock);
    ULONG ResumeKey UNDER(SearchLock);
    UCHAR UseShortNames UNDER(SearchLock);
    ULONG ShortNameOption UNDER(SearchLock);
    // Ours. An open named relative to another borrows that open's handle as its BaseHandle and RelatedHandle;
    // BorrowLinks has it in Borrowers of the open that owns it (names/borrow.cpp).
    FCB *Fcb;
    LIST_ENTRY Borrowers UNDER(g_BorrowLock);
    LIST_ENTRY BorrowLinks UNDER(g_BorrowLock);
    // Ours, of the listing. SearchLock serialises the queries of one open, which share the FCB's Resource.
    KEVENT SearchLock BEHIND(BelowFcbs) BEFORE(BelowSearches);
    UCHAR ExactAnswered UNDER(SearchLock); // a search without wildcards has handed out its entry
    UCHAR BatchBroken UNDER(SearchLock);   // what follows the records counted in InfoCount is no record
    UCHAR IsTarget;                        // opened as the directory of a rename's target
    RV_SECURITY_CONTEXT Opener;
};
typedef INSTANCE_CONTEXT *PINSTANCE_CONTEXT;
READ_PLACE(SearchLock, Instance.SearchLock, INSTANCE_CONTEXT &Instance);

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
