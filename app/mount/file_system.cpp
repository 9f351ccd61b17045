// Attributes, look-ups, volumes, and the table of operations.

#include "app/mount/file_system.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <set>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/journal/asking_program.h"
#include "app/text.h"

namespace app::mount {

namespace {

constexpr LONG64 UnitsPerSecond = 10'000'000;
constexpr LONG64 SecondsFrom1601 = 11'644'473'600;
constexpr size_t LongestName = 255;

timespec TimeOf(LONG64 Units) {
    LONG64 Seconds = Units / UnitsPerSecond - SecondsFrom1601;
    return {static_cast<time_t>(Seconds), static_cast<long>(Units % UnitsPerSecond * 100)};
}

// 0 and -1 would leave a time as it is: what falls on them, or before, no server can keep.
bool UnitsOf(const timespec &Time, LONG64 *Units) {
    if (Time.tv_sec <= -SecondsFrom1601 || Time.tv_sec > INT64_MAX / UnitsPerSecond - SecondsFrom1601 - 1) {
        return false;
    }
    *Units = (Time.tv_sec + SecondsFrom1601) * UnitsPerSecond + Time.tv_nsec / 100;
    return *Units > 0;
}

// The volumes of the session, or the one that is to be the root.
std::u16string VolumeOf(const Session &Running, const std::string &Name) {
    const std::u16string Path = RemotePath(Name);
    for (const Export &Each : Running.Exports()) {
        if (SameName(Each.Name, ShowPath(Path))) {
            return RemotePath(Each.Name);
        }
    }
    throw UsageError(fmt::format("-o volume={}: no export of that name", Name));
}

} // namespace

FileSystem::FileSystem(Session &Running, MountOptions Options, std::function<void()> Ready)
    : Running_(Running), Options_(std::move(Options)), Ready_(std::move(Ready)),
      HiddenPrefix_(fmt::format(".rvfsd-deleted-{:x}-{:x}-", getpid(), time(nullptr))) {
    if (Options_.Volume.empty()) {
        for (const Export &Each : Running.Exports()) {
            Volumes_.push_back(std::make_unique<Volume>());
            Volumes_.back()->Path = RemotePath(Each.Name);
        }
    } else {
        Volumes_.push_back(std::make_unique<Volume>());
        Volumes_.back()->Path = VolumeOf(Running, Options_.Volume);
        Nodes_.Root()->In = Volumes_.back().get();
    }
    const double Kept = std::max(Options_.EntryTimeout, Options_.NegativeTimeout);
    Spellings_ = std::make_unique<Spellings>(
        [this](uint64_t Parent, const std::string &Name) {
            if (fuse_session *To = Kernel_) {
                fuse_lowlevel_notify_inval_entry(To, Parent, Name.c_str(), Name.size());
            }
        },
        [this] {
            std::set<std::shared_ptr<NodeLocks>> All;
            {
                const std::lock_guard Hold(WaitLock_);
                for (const auto &[Request, Each] : Waits_) {
                    All.insert(Each.Locks);
                }
            }
            bool More = false;
            for (const std::shared_ptr<NodeLocks> &Each : All) {
                if (Kernel_ == nullptr) {
                    return false;
                }
                More = Each->Retry() || More;
            }
            return More;
        },
        std::chrono::milliseconds(static_cast<int64_t>(std::min(Kept, 3600.0) * 1000) + 500));
}

FileSystem::~FileSystem() {
    Kernel_ = nullptr;
    Spellings_.reset();
    CloseAll();
}

void FileSystem::CloseAll() {
    Nodes_.TakeAll();
}

void FileSystem::Init(fuse_conn_info *Connection) {
    // Every transfer goes through a request's buffer: moving pages through pipes would only add a copy.
    Connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE |
                                               FUSE_CAP_WRITEBACK_CACHE);
    Connection->want |= Connection->capable & (FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO |
                                               FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_ATOMIC_O_TRUNC);
    // Those of nolock too are answered here, with an error: the kernel's own would keep nobody else out.
    Connection->want |= Connection->capable & (FUSE_CAP_POSIX_LOCKS | FUSE_CAP_FLOCK_LOCKS);
    if (Options_.Locks) {
        Connection->want &= ~((Options_.LocalRanges ? unsigned{FUSE_CAP_POSIX_LOCKS} : 0u) |
                              (Options_.LocalWhole ? unsigned{FUSE_CAP_FLOCK_LOCKS} : 0u));
    }
    if (Options_.ReadAheadKib != 0) {
        Connection->max_readahead = std::max(Connection->max_readahead, Options_.ReadAheadKib * 1024);
    }
    Connection->max_read = Options_.MaxRead; // as the mount was told, or libfuse ends it
    Connection->time_gran = 100;
    Ready_();
}

int FileSystem::CheckName(std::string_view Name) const {
    return Name.size() > LongestName ? ENAMETOOLONG : 0;
}

mode_t FileSystem::ModeOf(bool Directory, bool ReadOnly) const {
    if (Directory) {
        return S_IFDIR | (0777 & ~Options_.DirectoryMask);
    }
    return S_IFREG | (0777 & ~Options_.FileMask & ~(ReadOnly ? mode_t{0222} : mode_t{0}));
}

struct stat FileSystem::Describe(uint64_t Number, const Facts &Found) const {
    struct stat Stat = {};
    Stat.st_ino = Number;
    Stat.st_mode = ModeOf(Found.IsDirectory(), Found.IsReadOnly());
    Stat.st_nlink = 1;
    Stat.st_uid = Options_.User;
    Stat.st_gid = Options_.Group;
    Stat.st_size = Found.IsDirectory() ? 4096 : Found.Size;
    Stat.st_blocks = (Stat.st_size + 511) / 512;
    Stat.st_blksize = 4096;
    Stat.st_atim = TimeOf(Found.LastAccess);
    Stat.st_mtim = TimeOf(Found.LastWrite);
    Stat.st_ctim = Stat.st_mtim; // the driver tells no time of change
    return Stat;
}

struct stat FileSystem::Describe(const Node *Which, const Facts &Found) const {
    return Describe(Which->Number, Found);
}

int FileSystem::AskPath(const std::u16string &Path, Facts *Found) {
    if (Path.empty()) {
        return ESTALE; // the kernel looks the name up again, which may lead elsewhere now
    }
    Remote Handle;
    if (const int Error = Handle.Open(Path, {}); Error != 0) {
        return Error;
    }
    return Handle.Query(Found);
}

int FileSystem::OpenNode(Node *Which, const Remote::Asked &What, std::shared_ptr<Remote> *Opened) {
    const std::shared_lock Hold(Which->In->Renaming);
    Remote Handle;
    const std::u16string Path = Nodes_.Path(Which);
    if (const int Error = Path.empty() ? ESTALE : Handle.Open(Path, What); Error != 0) {
        return Error;
    }
    *Opened = Nodes_.Keep(Which, std::move(Handle));
    return 0;
}

int FileSystem::Ask(Node *Which, Facts *Found) {
    if (Which->In == nullptr || (Which->Directory && Nodes_.IsDeleted(Which))) {
        *Found = {};
        Found->Attributes = FILE_ATTRIBUTE_DIRECTORY;
        Found->LastAccess = Found->LastWrite = SecondsFrom1601 * UnitsPerSecond;
        return 0;
    }
    if (const std::shared_ptr<Remote> Handle = Nodes_.OpenHandle(Which, FILE_READ_ATTRIBUTES)) {
        return Handle->Query(Found);
    }
    const std::shared_lock Hold(Which->In->Renaming);
    return AskPath(Nodes_.Path(Which), Found);
}

void FileSystem::ReplyAttributes(fuse_req_t Request, Node *Which, const Facts &Found) {
    struct stat Stat = Describe(Which, Found);
    Stat.st_nlink = Nodes_.IsDeleted(Which) ? 0 : 1;
    fuse_reply_attr(Request, &Stat, Options_.AttributeTimeout);
}

fuse_entry_param FileSystem::Entry(Node *Which, const Facts &Found) const {
    fuse_entry_param Entry = {};
    Entry.ino = reinterpret_cast<fuse_ino_t>(Which);
    Entry.generation = 1;
    Entry.attr = Describe(Which, Found);
    Entry.attr_timeout = Options_.AttributeTimeout;
    Entry.entry_timeout = Options_.EntryTimeout;
    return Entry;
}

// Servers and volumes: names of the mount's own.
int FileSystem::LookupAbove(fuse_req_t Request, Node *Parent, const char *Name) {
    const bool OfServer = Parent == Nodes_.Root();
    const std::u16string Prefix = u"\\" + (OfServer ? std::u16string() : ServedName(Parent->Name) + u"\\");
    for (const std::unique_ptr<Volume> &Each : Volumes_) {
        const size_t End = OfServer ? Each->Path.find(u'\\', 1) : Each->Path.size();
        const std::u16string Top = Each->Path.substr(0, End);
        if (!SameName(Narrow(Top), Narrow(Prefix) + Name)) {
            continue;
        }
        Node *Found = Nodes_.Lookup(Parent, Name, true, OfServer ? nullptr : Each.get());
        Facts What;
        if (const int Error = Ask(Found, &What); Error != 0) {
            Nodes_.Forget(Found, 1);
            return Error;
        }
        const fuse_entry_param Answer = Entry(Found, What);
        fuse_reply_entry(Request, &Answer);
        return 0;
    }
    return ENOENT;
}

bool FileSystem::IsHidden(Node *Parent, std::string_view Name) {
    return Name.starts_with(HiddenPrefix_) && Parent->In != nullptr;
}

int FileSystem::Lookup(fuse_req_t Request, fuse_ino_t ParentInode, const char *Name) {
    Node *Parent = NodeOf(ParentInode);
    if (const int Error = CheckName(Name); Error != 0) {
        return Error;
    }
    if (Parent->In == nullptr) {
        return LookupAbove(Request, Parent, Name);
    }
    const std::shared_lock Hold(Parent->In->Renaming);
    Facts Found;
    int Error = IsHidden(Parent, Name) ? ENOENT : AskPath(Nodes_.PathBelow(Parent, Name), &Found);
    if (Error == ENOENT || Error == EINVAL) {
        fuse_entry_param Missing = {};
        Missing.entry_timeout = Options_.NegativeTimeout;
        if (Options_.NegativeTimeout > 0) {
            Spellings_->Note(ParentInode, Name);
        }
        fuse_reply_entry(Request, &Missing);
        return 0;
    }
    if (Error != 0) {
        return Error;
    }
    Node *Child = Nodes_.Lookup(Parent, Name, Found.IsDirectory());
    if (Child->Name != Name) {
        Spellings_->Note(ParentInode, Name);
        Spellings_->Note(ParentInode, Child->Name);
    }
    const fuse_entry_param Answer = Entry(Child, Found);
    fuse_reply_entry(Request, &Answer);
    return 0;
}

int FileSystem::GetAttributes(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *) {
    Node *Which = NodeOf(Inode);
    Facts Found;
    if (const int Error = Ask(Which, &Found); Error != 0) {
        return Error;
    }
    ReplyAttributes(Request, Which, Found);
    return 0;
}

// Modes and owners can be "changed" to what they are. Of a mode the read-only bit can be kept, as all write bits.
int FileSystem::CheckOwnership(Node *Which, const struct stat *Wanted, int What, const Facts &Now) const {
    const bool OtherUser = (What & FUSE_SET_ATTR_UID) != 0 && Wanted->st_uid != Options_.User;
    const bool OtherGroup = (What & FUSE_SET_ATTR_GID) != 0 && Wanted->st_gid != Options_.Group;
    const mode_t Mode = Wanted->st_mode & 07777;
    const bool OtherMode = (What & FUSE_SET_ATTR_MODE) != 0 && Mode != (ModeOf(Now.IsDirectory(), false) & 07777) &&
                           (Now.IsDirectory() || Mode != (ModeOf(false, true) & 07777));
    return (OtherUser || OtherGroup || OtherMode) && !Options_.Quiet && Which->In != nullptr ? EPERM : 0;
}

int FileSystem::SetSize(Node *Which, uint64_t Size) {
    // Through a handle of its own: after a size that did not fit, the driver refuses the writes of that handle for a
    // while.
    constexpr Remote::Asked ToWrite = {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_DATA,
                                       .Options = FILE_NON_DIRECTORY_FILE};
    std::shared_ptr<Remote> Handle;
    int Error = OpenNode(Which, ToWrite, &Handle);
    const bool IsOwn = Error == 0;
    if (!IsOwn) {
        Handle = Nodes_.OpenHandle(Which, FILE_WRITE_DATA);
        if (!Handle) {
            return Error;
        }
    }
    Facts Before;
    Error = Handle->Query(&Before);
    if (Error != 0) {
        return Error;
    }
    Error = Handle->SetSize(Size);
    if (Error != ENOSPC || Size <= static_cast<uint64_t>(Before.Size)) {
        return Error;
    }
    // The driver compares the whole new size with the free space. Whether the file can become so long, with nothing in
    // between, is for the server to say: it is asked for the last byte.
    std::shared_ptr<Remote> Again;
    if (!IsOwn || OpenNode(Which, ToWrite, &Again) != 0) {
        return Error;
    }
    const char Zero = 0;
    size_t Done = 0;
    return Again->Write(Size - 1, &Zero, 1, false, &Done);
}

int FileSystem::SetAttributes(fuse_req_t Request, fuse_ino_t Inode, struct stat *Wanted, int What, fuse_file_info *) {
    Node *Which = NodeOf(Inode);
    if (Which->In == nullptr) {
        return EPERM;
    }
    Facts Now;
    if (const int Error = Ask(Which, &Now); Error != 0) {
        return Error;
    }
    if (const int Error = CheckOwnership(Which, Wanted, What, Now); Error != 0) {
        return Error;
    }
    LONG64 Access = 0;
    LONG64 Modified = 0;
    timespec Clock = {};
    clock_gettime(CLOCK_REALTIME, &Clock);
    const bool Times = (What & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_ATIME_NOW)) != 0 &&
                       !UnitsOf((What & FUSE_SET_ATTR_ATIME_NOW) != 0 ? Clock : Wanted->st_atim, &Access);
    const bool Writes = (What & (FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW)) != 0 &&
                        !UnitsOf((What & FUSE_SET_ATTR_MTIME_NOW) != 0 ? Clock : Wanted->st_mtim, &Modified);
    if (Times || Writes) {
        return EINVAL;
    }
    const bool ReadOnly = (Wanted->st_mode & 0222) == 0;
    const bool Bit = (What & FUSE_SET_ATTR_MODE) != 0 && !Now.IsDirectory() && ReadOnly != Now.IsReadOnly();
    const bool Resizes = (What & FUSE_SET_ATTR_SIZE) != 0;
    if (!Bit && !Resizes && Access == 0 && Modified == 0) {
        ReplyAttributes(Request, Which, Now);
        return 0;
    }
    ++Changes_;
    if (Resizes) {
        if (Which->Directory) {
            return EISDIR;
        }
        if (const int Error = SetSize(Which, static_cast<uint64_t>(Wanted->st_size)); Error != 0) {
            return Error;
        }
    }
    if (Bit || Access != 0 || Modified != 0) {
        std::shared_ptr<Remote> Handle = Nodes_.OpenHandle(Which, FILE_WRITE_ATTRIBUTES);
        if (!Handle) {
            const int Error = OpenNode(Which, {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES}, &Handle);
            if (Error != 0) {
                return Error;
            }
        }
        int Error = Bit ? Handle->SetReadOnly(Now, ReadOnly) : 0;
        if (Error == 0 && (Access != 0 || Modified != 0)) {
            Error = Handle->SetBasic(Access, Modified, 0);
        }
        if (Error != 0) {
            return Error;
        }
    }
    ++Changes_;
    return GetAttributes(Request, Inode, nullptr);
}

int FileSystem::AskSpace(const Node *Which, Space *Found) {
    bool Any = false;
    int Failed = 0;
    for (const std::unique_ptr<Volume> &Each : Volumes_) {
        if (Which->In != nullptr && Which->In != Each.get()) {
            continue;
        }
        Remote Handle;
        Space Of;
        int Error = Handle.Open(Each->Path, {});
        if (Error == 0) {
            Error = Handle.QuerySpace(&Of);
        }
        if (Error != 0) {
            Failed = Error;
        } else if (!Any || Of.Available * Of.UnitBytes > Found->Available * Found->UnitBytes) {
            Any = true;
            *Found = Of;
        }
    }
    return Any ? 0 : Failed;
}

int FileSystem::StatFs(fuse_req_t Request, fuse_ino_t Inode) {
    struct statvfs Answer = {};
    Answer.f_bsize = Answer.f_frsize = 4096;
    Answer.f_namemax = LongestName;
    Space Found;
    if (const int Error = AskSpace(NodeOf(Inode), &Found); Error != 0) {
        return Error;
    }
    if (Found.UnitBytes != 0) {
        Answer.f_bsize = Answer.f_frsize = Found.UnitBytes;
    }
    Answer.f_blocks = Found.Total;
    Answer.f_bfree = Found.Free;
    Answer.f_bavail = Found.Available;
    fuse_reply_statfs(Request, &Answer);
    return 0;
}

// Asked only where the kernel does not compare the modes itself.
int FileSystem::Access(fuse_req_t Request, fuse_ino_t Inode, int Mask) {
    Node *Which = NodeOf(Inode);
    Facts Found;
    if (const int Error = Ask(Which, &Found); Error != 0) {
        return Error;
    }
    if ((Mask & W_OK) != 0 && (Which->In == nullptr || (!Found.IsDirectory() && Found.IsReadOnly()))) {
        return EACCES;
    }
    if ((Mask & X_OK) != 0 && (ModeOf(Found.IsDirectory(), false) & 0111) == 0) {
        return EACCES;
    }
    fuse_reply_err(Request, 0);
    return 0;
}

template <auto Method, typename... A>
void FileSystem::Call(fuse_req_t Request, A... Arguments) {
    const AskedBy Caller(fuse_req_ctx(Request)->pid);
    int Error;
    try {
        Error = (Of(Request).*Method)(Request, Arguments...);
    } catch (const std::bad_alloc &) {
        Error = ENOMEM;
    } catch (const std::exception &) {
        Error = EIO;
    }
    if (Error != 0) {
        fuse_reply_err(Request, Error);
    }
}

const fuse_lowlevel_ops &FileSystem::Operations() {
    static const fuse_lowlevel_ops Table = [] {
        fuse_lowlevel_ops To = {};
        To.init = [](void *Self, fuse_conn_info *Connection) { static_cast<FileSystem *>(Self)->Init(Connection); };
        To.lookup = Call<&FileSystem::Lookup>;
        To.forget = [](fuse_req_t Request, fuse_ino_t Inode, uint64_t Count) {
            const AskedBy Caller(0);
            Of(Request).Nodes_.Forget(Of(Request).NodeOf(Inode), Count);
            fuse_reply_none(Request);
        };
        To.forget_multi = [](fuse_req_t Request, size_t Count, fuse_forget_data *All) {
            const AskedBy Caller(0);
            for (size_t Index = 0; Index < Count; ++Index) {
                Of(Request).Nodes_.Forget(Of(Request).NodeOf(All[Index].ino), All[Index].nlookup);
            }
            fuse_reply_none(Request);
        };
        To.getattr = Call<&FileSystem::GetAttributes>;
        To.setattr = Call<&FileSystem::SetAttributes>;
        To.statfs = Call<&FileSystem::StatFs>;
        To.access = Call<&FileSystem::Access>;
        To.open = Call<&FileSystem::Open>;
        To.create = Call<&FileSystem::Create>;
        To.read = Call<&FileSystem::Read>;
        To.write = Call<&FileSystem::Write>;
        To.flush = Call<&FileSystem::Flush>;
        To.release = Call<&FileSystem::Release>;
        To.fsync = Call<&FileSystem::Sync>;
        To.fallocate = Call<&FileSystem::Allocate>;
        To.getlk = Call<&FileSystem::GetLock>;
        To.setlk = Call<&FileSystem::SetLock>;
        To.flock = Call<&FileSystem::WholeFileLock>;
        To.opendir = Call<&FileSystem::OpenDirectory>;
        To.readdir = Call<&FileSystem::ReadDirectory>;
        To.readdirplus = Call<&FileSystem::ReadDirectoryPlus>;
        To.releasedir = Call<&FileSystem::ReleaseDirectory>;
        To.mknod = Call<&FileSystem::MakeNode>;
        To.mkdir = Call<&FileSystem::MakeDirectory>;
        To.unlink = Call<&FileSystem::Unlink>;
        To.rmdir = Call<&FileSystem::RemoveDirectory>;
        To.rename = Call<&FileSystem::Rename>;
        To.symlink = Call<&FileSystem::SymbolicLink>;
        To.link = Call<&FileSystem::HardLink>;
        // What has no entry the kernel asks for once, and answers itself from then on: that there are no extended
        // attributes, and that names are with the server when the call that changed them returns.
        return To;
    }();
    return Table;
}

} // namespace app::mount
