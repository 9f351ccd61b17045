// What the operations of the directory Provider share: exports, open objects, and the way from a handle and a path to
// them. Internal to the Provider.
//
// Lock order: the exports' mutex, then a directory's lock of DirectoryLocks, of which no operation holds two, then
// a DirectoryIndex's mutex, then the EventLog's. A folder's ListingMutex comes before a DirectoryIndex's, a FileNode's
// SizeMutex before the rest, a KnownFiles' mutex before its table's, a FileNodes' before a node's. All others are
// leaves. Only a directory's lock, an index's mutex and that of KnownFiles are held while the file system is waited
// for.
#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <new>

#include <fcntl.h>

#include "providers/directory/directory_locks.h"
#include "providers/directory/directory_provider.h"
#include "providers/directory/file_nodes.h"
#include "providers/directory/handle_table.h"
#include "providers/directory/known_files.h"
#include "providers/directory/metadata.h"
#include "providers/directory/name_cache.h"
#include "providers/directory/pending_deletes.h"

namespace providers::directory {

struct Export {
    Export(std::u16string_view ServerName, std::u16string_view VolumeName, std::filesystem::path Path, UniqueFd Fd,
           const ExportOptions &Chosen);

    // As OpenBeneath, below Base; a link that leads out of Base but not out of the export is followed, an absolute one
    // too.
    int Open(const DirectoryRef &Base, const std::string &Path, int Flags) const;

    // Takes Bytes more from the quota: CODE_QUOTA_EXCEEDED when it does not allow them. Negative gives back.
    RVSTATUS Charge(int64_t Bytes);

    // Unchanged after creation.
    const std::u16string Server;
    const std::u16string Volume;
    const std::u16string FoldedServer;
    const std::u16string FoldedVolume;
    const std::filesystem::path Directory;
    const std::string Absolute; // without links in it
    const ExportOptions Options;
    const Confinement How;
    const UniqueFd Root;
    DirectoryRef RootRef;
    UCHAR Identifier[16] = {};
    const uint64_t Serial; // of no other export of this process

    DirectoryLocks Changes; // by the directory in which a name is given
    PendingDeletes Doomed;
    NameCache Names;
    KnownFiles Known;
    std::atomic<int64_t> Used = 0; // bytes charged to the quota
    // Advanced when a name was taken away or given away, or attributes were set, through this export.
    std::atomic<uint64_t> ChangeCount = 0;
};

// Counts a change of an export once it was made, or not, so that whoever starts afterwards sees another count.
class AfterChange {
public:
    explicit AfterChange(Export &In) : In_(In) {
    }
    AfterChange(const AfterChange &) = delete;
    AfterChange &operator=(const AfterChange &) = delete;
    ~AfterChange() {
        In_.ChangeCount.fetch_add(1);
    }

private:
    Export &In_;
};

// A volume that is a directory of an export.
struct Link {
    std::u16string Server;
    std::u16string Volume;
    std::u16string FoldedServer;
    std::u16string FoldedVolume;
    Export *Target;
    std::u16string Path; // below the target's root, without separators at its ends

    // Where it leads, as \server\volume\path.
    std::u16string Physical() const;
};

// What is served at one time. Exports and links stay until the Provider goes.
struct ServedVolumes {
    uint64_t Serial = 0; // of no other one of this process
    std::vector<Export *> Exports;
    std::vector<const Link *> Links;
};

// What an absolute path names: an export, directly or through a link, and what follows the volume.
struct NamedVolume {
    Export *Volume;
    const Link *Through;
    std::u16string_view Rest;

    const std::u16string &Server() const {
        return Through != nullptr ? Through->Server : Volume->Server;
    }
    const std::u16string &Name() const {
        return Through != nullptr ? Through->Volume : Volume->Volume;
    }
};

enum KIND : unsigned { KIND_VOLUME = 1, KIND_DIRECTORY = 2, KIND_FILE = 4 };
inline constexpr unsigned KIND_FOLDER = KIND_VOLUME | KIND_DIRECTORY;
inline constexpr unsigned KIND_ANY = KIND_FOLDER | KIND_FILE;

// What a handle names.
struct Object {
    Object(unsigned ObjectKind, Export *In, UniqueFd Opened, ObjectKey ObjectKeyValue, std::string Path)
        : Kind(ObjectKind), Volume(In), Own(std::move(Opened)), Key(ObjectKeyValue), FromRoot(std::move(Path)) {
    }
    virtual ~Object() = default;
    unsigned KindMask() const {
        return Kind;
    }
    // The descriptor: its own, or for a volume that of the export's root. A query open's may be -1, see NeedDescriptor.
    int Fd() const {
        return Own || Kind != KIND_VOLUME ? Own.Get() : Volume->Root.Get();
    }
    DirectoryRef Ref() const {
        return {Fd(), Key, FromRoot};
    }

    // Unchanged until the object goes. A file's descriptor number stays, what it refers to may be re-opened.
    const unsigned Kind;
    Export *const Volume;
    UniqueFd Own;
    const ObjectKey Key;
    std::string FromRoot;
};

// An enumeration in progress: the names as they were when it began.
struct Listing {
    uint8_t Tag = 0;
    NameList Names;
};

struct FolderObject final : Object {
    using Object::Object;

    std::mutex ListingMutex;
    std::vector<Listing> Listings; // most recently used last; guarded by ListingMutex
    uint8_t LastTag = 0;           // guarded by ListingMutex
};

struct FileObject final : Object {
    FileObject(Export *In, UniqueFd Opened, int Flags, ObjectKey ObjectKeyValue, std::string Path, FileNodes &All)
        : Object(KIND_FILE, In, std::move(Opened), ObjectKeyValue, std::move(Path)), Nodes(All), OpenFlags(Flags) {
    }
    // Leaves its node; of a query open what was seen is kept (last_look.h).
    ~FileObject() override;

    // Whether the descriptor only names the file: nothing is read, written or locked through it.
    bool NamesOnly() const {
        return (OpenFlags.load(std::memory_order_relaxed) & O_PATH) != 0;
    }
    // A query open of a known file is made without a descriptor, and gets one here when something asks for more than
    // what is known.
    RVSTATUS NeedDescriptor() {
        return Unopened.load(std::memory_order_acquire) ? OpenByHandle() : RVSTATUS::Success;
    }
    RVSTATUS OpenByHandle();

    // What is at From goes to To. Called in FileNode::ForEachOwner.
    void NoteMoved(const std::string &From, const std::string &To) const {
        if (SamePath(MovedTo.empty() ? FromRoot : MovedTo, From)) {
            MovedTo = To;
        }
    }
    // Its path from the root by now, as moves through this export have made it.
    std::string PathNow() const;

    // The descriptor that locks are set on, as FileNode takes it.
    int LockFd() const {
        return NamesOnly() ? -1 : Fd();
    }

    FileNodes &Nodes;
    std::atomic<int> OpenFlags; // that the descriptor was opened with; changed under AccessMutex
    uint64_t Query = 0;         // of a query open whose look is remembered; see last_look.h
    uint64_t Status = 0;        // of an open whose status is remembered; see there
    FileNode *Node = nullptr;   // null for a query open; unchanged once the handle exists, as is Query
    std::atomic<ULONG> Access = 0;
    std::atomic<bool> DeleteReserved = false;
    std::mutex AccessMutex;      // one change of access at a time
    FileHandle Handle;           // of an open that was made without a descriptor
    mutable std::string MovedTo; // empty = it is where it was opened; guarded by its node
    std::atomic<bool> Unopened = false;
};

using Handles = HandleTable<Object>;

// Where an operation acts: an export and, below Ref, a path.
struct Place {
    Handles::Use Base;                // this or
    std::unique_ptr<Object> LinkRoot; // this keeps Ref's descriptor open, unless it is the export's own
    Export *Volume = nullptr;
    DirectoryRef Ref;
    std::u16string_view Path;
};

// Whether At.Path is relative to the export's root.
inline bool IsBelowRoot(const Place &At) {
    return At.Ref.FromRoot.empty() && At.Ref.Key == At.Volume->RootRef.Key;
}

// Runs an operation's body; no exception leaves it.
template <class Body>
RVSTATUS Guarded(Body Operation) noexcept {
    try {
        return Operation();
    } catch (const std::bad_alloc &) {
        return RVSTATUS::NoMemory;
    } catch (const std::exception &) {
        return RVSTATUS::Unsuccessful;
    }
}

// Stores Value where the caller wants it.
template <class Type, class Value>
void Store(Type *Where, Value What) {
    if (Where != nullptr) {
        *Where = static_cast<Type>(What);
    }
}

// The first component behind leading separators; Path becomes what follows it.
std::u16string_view TakeComponent(std::u16string_view &Path);

// The two first components of an absolute path, and the separators before them.
std::u16string_view VolumePart(PCWSTR Path);

// Why these cannot be the names of a server and a volume; empty when they can.
std::string FaultOfNames(std::u16string_view Server, std::u16string_view Volume);

// Opens a directory as an object of that kind.
RVSTATUS OpenFolder(const Place &At, unsigned Kind, std::unique_ptr<Object> &Opened);

// The directory that a link leads to, as a volume. RVFS_PATH_NOT_FOUND when it is not there any more.
RVSTATUS OpenLinked(const Link &Through, std::unique_ptr<Object> &Opened);

// The descriptor of the directory in which a look-up of At.Path ended. Valid as long as both arguments.
inline int HolderOf(const Place &At, const Resolved &Found) {
    return Found.Holder ? Found.Holder.Get() : At.Ref.Fd;
}

// Makes sure that Found.HolderKey is that directory's.
RVSTATUS NeedHolderKey(const Place &At, Resolved &Found);

// A name that is to be given in that directory, which is locked, and what the name is there by then.
struct NewName {
    DirectoryLocks::Hold Hold;
    Resolved Found; // relative to the directory
};
RVSTATUS LockNewName(const Place &At, Resolved &Found, NewName &Out);

// The path of an object below the export's root.
std::string PathFromRoot(const Place &At, const Resolved &Found);
std::string PathFromRoot(const Place &At, Resolved &&Found);

// What an entry is, asked without opening it for anything.
struct Looked {
    UniqueFd Fd;       // O_PATH; or
    FileHandle Handle; // of a known file, of whose status no more than KnownFiles::Look tells is there
    struct stat Stat {};
    int Error = 0;

    bool IsKnown() const {
        return Handle && !Fd;
    }
};
// What the path leads to. Returns an error number when it leads to nothing.
int LookThrough(const Place &At, const std::string &Path, Looked &Out);
// The same, or the link itself when what it leads to cannot be had (Out.Error is why, then, and 0 otherwise). Returns
// an error number when there is no entry.
int LookAt(const Place &At, const std::string &Path, Looked &Out);

// The 64-bit identifier of an object.
ULONG64 FileIdOf(const Export &Volume, const ObjectKey &Key);

void FillVolumeSlots(RVIOM_FSD_TABLE &Table);
void FillFolderSlots(RVIOM_FSD_TABLE &Table);
void FillEnumerationSlots(RVIOM_FSD_TABLE &Table);
void FillFileSlots(RVIOM_FSD_TABLE &Table);
void FillTransferSlots(RVIOM_FSD_TABLE &Table);

} // namespace providers::directory

namespace providers {

struct DirectoryProvider::State : RVIOM_FSD {
    State();

    // The volume that an absolute path names. Errors: RVFS_UNKNOWN_SERVER, RVFS_UNRECOGNIZED_VOLUME.
    RVSTATUS FindVolume(std::u16string_view Path, directory::NamedVolume &Found) const;

    // From a base handle (0 = Path is absolute) and a path.
    RVSTATUS Locate(RVHANDLE Base, PCWSTR Path, directory::Place &Out);

    // Serves what Exports and Links hold now. Called with ExportsMutex.
    void PublishVolumes();

    // Gives Object a handle. CODE 0x0504 when the table is full.
    RVSTATUS Publish(std::unique_ptr<directory::Object> New, RVHANDLE *Handle);

    static State &Of(RVIOM_FSD *Self) {
        return *static_cast<State *>(Self);
    }

    // Looked at without a lock; what was served before stays for those who look at it.
    std::atomic<const directory::ServedVolumes *> Served = nullptr;
    std::mutex ExportsMutex;                                                // one change at a time
    std::vector<std::unique_ptr<directory::Export>> Exports;                // guarded by ExportsMutex
    std::vector<std::unique_ptr<const directory::Link>> Links;              // guarded by ExportsMutex
    std::vector<std::unique_ptr<const directory::ServedVolumes>> Published; // guarded by ExportsMutex
    directory::FileNodes Nodes;                                             // outlives the open files
    directory::Handles Open;                                                // ends before the exports
    std::atomic<uint32_t> References = 0;
};

} // namespace providers
