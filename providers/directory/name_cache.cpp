#include "providers/directory/name_cache.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <map>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "providers/directory/names.h"

namespace providers::directory {
namespace {

constexpr size_t MaxEntries = 1u << 20;
constexpr size_t MaxDirectories = 8192;
// Two changes closer together than this may leave one time stamp.
constexpr int64_t StampGranularity = 100'000'000;

// File systems on which every change passes through this kernel.
constexpr std::array<unsigned, 8> LocalFileSystems = {
    0xEF53 /* ext */,      0x58465342 /* xfs */, 0x9123683E /* btrfs */, 0x01021994 /* tmpfs */,
    0xF2F52010 /* f2fs */, 0x2FC12FC1 /* zfs */, 0x858458F6 /* ramfs */, 0xCA451A4E /* bcachefs */};

bool IsLocal(int Fd) {
    struct statfs Info;
    return fstatfs(Fd, &Info) == 0 && std::find(LocalFileSystems.begin(), LocalFileSystems.end(),
                                                static_cast<unsigned>(Info.f_type)) != LocalFileSystems.end();
}

int64_t Nanoseconds(const timespec &Time) {
    return static_cast<int64_t>(Time.tv_sec) * 1'000'000'000 + Time.tv_nsec;
}

bool SameTime(const timespec &Left, const timespec &Right) {
    return Left.tv_sec == Right.tv_sec && Left.tv_nsec == Right.tv_nsec;
}

} // namespace

NameCache::NameCache(Opener Open, void *Context, bool UseNotifications)
    : Open_(Open), Context_(Context), Notify_(UseNotifications ? inotify_init1(IN_NONBLOCK | IN_CLOEXEC) : -1) {
}

size_t NameCache::Scans() {
    const std::lock_guard Hold(Mutex_);
    return Scans_;
}

void NameCache::Forget() {
    const std::lock_guard Hold(Mutex_);
    for (auto &[Key, Dir] : Directories_) {
        Dir->Stale = true;
    }
}

void NameCache::Drain() {
    if (!Notify_) {
        return;
    }
    alignas(inotify_event) char Buffer[32768];
    for (;;) {
        const ssize_t Size = read(Notify_.Get(), Buffer, sizeof Buffer);
        if (Size <= 0) {
            if (Size < 0 && errno == EINTR) {
                continue;
            }
            return;
        }
        for (ssize_t At = 0; At < Size;) {
            const auto *Event = reinterpret_cast<const inotify_event *>(Buffer + At);
            ApplyEvent(Event->wd, Event->mask, Event->len != 0 ? Event->name : "");
            At += static_cast<ssize_t>(sizeof(inotify_event) + Event->len);
        }
        if (static_cast<size_t>(Size) < sizeof Buffer - sizeof(inotify_event) - NAME_MAX - 1) {
            return;
        }
    }
}

void NameCache::ApplyEvent(int Watch, uint32_t Mask, const char *Name) {
    if ((Mask & IN_Q_OVERFLOW) != 0) {
        for (auto &[Key, Dir] : Directories_) {
            Dir->Stale = true;
        }
        return;
    }
    const auto Found = Watched_.find(Watch);
    if (Found == Watched_.end()) {
        return;
    }
    const NamesPtr Dir = Found->second;
    if ((Mask & (IN_IGNORED | IN_UNMOUNT | IN_DELETE_SELF)) != 0) {
        Drop(Dir->Key);
    } else if ((Mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        Add(*Dir, Name, (Mask & IN_ISDIR) != 0 ? DT_DIR : DT_UNKNOWN);
    } else if ((Mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        Remove(*Dir, Name);
    }
}

void NameCache::Add(Names &Dir, std::string_view Native, unsigned char Type) {
    if (Dir.Stale) {
        return;
    }
    std::u16string Served = ServedName(Native);
    const auto [At, Inserted] = Dir.ByFold.try_emplace(Fold(Served));
    if (!Inserted && At->second.Native != Native) {
        Dir.Stale = true;
        return;
    }
    if (Inserted) {
        ++Entries_;
        if (Dir.Collisions) {
            Dir.Stale = true; // the new name may be one of the made-up spellings
        }
    }
    At->second = {std::move(Served), std::string(Native), {}, Type};
    if (Inserted && Dir.KnowsShort) {
        AddShort(Dir, At->second);
    }
}

void NameCache::Remove(Names &Dir, std::string_view Native) {
    if (Dir.Stale || Dir.Collisions) {
        Dir.Stale = true;
        return;
    }
    const auto At = Dir.ByFold.find(Fold(ServedName(Native)));
    if (At != Dir.ByFold.end() && At->second.Native == Native) {
        if (Dir.KnowsShort) {
            RemoveShort(Dir, At->second);
        }
        Dir.ByFold.erase(At);
        --Entries_;
    }
}

void NameCache::Drop(const ObjectKey &Key) {
    const auto At = Directories_.find(Key);
    if (At == Directories_.end()) {
        return;
    }
    const NamesPtr Dir = At->second;
    Directories_.erase(At);
    Ages_.erase(Dir->Age);
    Entries_ -= Dir->ByFold.size();
    if (Dir->Watch >= 0) {
        Watched_.erase(Dir->Watch);
        // Fails for a directory that is gone, whose watch went with it.
        inotify_rm_watch(Notify_.Get(), Dir->Watch);
    }
}

void NameCache::Trim(const Names &Keep) {
    while ((Entries_ > MaxEntries || Directories_.size() > MaxDirectories) && !(Ages_.back() == Keep.Key)) {
        Drop(Ages_.back());
    }
}

// A directory whose names are known to be right without looking at it.
NameCache::NamesPtr NameCache::FindFresh(const ObjectKey &Key) {
    const auto At = Directories_.find(Key);
    if (At == Directories_.end() || At->second->Watch < 0 || At->second->Stale) {
        return nullptr;
    }
    Ages_.splice(Ages_.begin(), Ages_, At->second->Age);
    return At->second;
}

void NameCache::Watch(int Fd, Names &Dir) {
    if (!Notify_ || Dir.Watch >= 0 || !IsLocal(Fd)) {
        return;
    }
    // The link of a descriptor leads to the very directory that is open, whatever its path is by now.
    Dir.Watch = inotify_add_watch(Notify_.Get(), fmt::format("/proc/self/fd/{}", Fd).c_str(),
                                  IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_ONLYDIR);
    if (Dir.Watch >= 0) {
        Watched_[Dir.Watch] = Directories_[Dir.Key];
    }
}

RVSTATUS NameCache::Scan(int Fd, Names &Dir) {
    int Own = openat(Fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (Own < 0 && errno == EACCES) {
        // It may be read and not be searched, not even for ".".
        Own = open(fmt::format("/proc/self/fd/{}", Fd).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    DIR *Stream = Own < 0 ? nullptr : fdopendir(Own);
    if (Stream == nullptr) {
        const int Error = errno;
        if (Own >= 0) {
            close(Own);
        }
        return StatusFromErrno(Error);
    }
    const std::unique_ptr<DIR, int (*)(DIR *)> Closer(Stream, closedir);
    ++Scans_;
    Entries_ -= Dir.ByFold.size();
    Dir.ByFold.clear();
    Dir.ByShort.clear();
    Dir.KnowsShort = false;
    Dir.Collisions = false;
    Dir.Stale = false;
    std::map<std::u16string, std::map<std::string, unsigned char>> Same;
    errno = 0;
    while (const dirent *Item = readdir(Stream)) {
        const std::string_view Native(Item->d_name);
        if (Native == "." || Native == "..") {
            continue;
        }
        std::u16string Served = ServedName(Native);
        std::u16string Folded = Fold(Served);
        const auto [At, Inserted] = Dir.ByFold.try_emplace(std::move(Folded));
        if (Inserted) {
            At->second = {std::move(Served), std::string(Native), {}, Item->d_type};
        } else if (At->second.Native != Native) {
            auto &Group = Same[At->first];
            Group.emplace(At->second.Native, At->second.Type);
            Group.emplace(Native, Item->d_type);
        }
    }
    const int Error = errno;
    for (const auto &[Folded, Group] : Same) {
        Dir.Collisions = true;
        auto Member = Group.begin();
        Dir.ByFold[Folded] = {ServedName(Member->first), Member->first, {}, Member->second};
        unsigned K = 2;
        for (++Member; Member != Group.end(); ++Member) {
            std::u16string Spelling;
            do {
                Spelling = SpellingForCollision(ServedName(Member->first), K++);
            } while (Dir.ByFold.contains(Fold(Spelling)));
            std::u16string Key = Fold(Spelling);
            Dir.ByFold[std::move(Key)] = {std::move(Spelling), Member->first, {}, Member->second};
        }
    }
    Entries_ += Dir.ByFold.size();
    return StatusFromErrno(Error);
}

// The names of the directory open as Fd, from the cache or read anew.
RVSTATUS NameCache::Read(int Fd, NamesPtr &Out) {
    struct stat Stat;
    if (fstat(Fd, &Stat) != 0) {
        return StatusFromErrno(errno);
    }
    const ObjectKey Key = KeyOf(Stat);
    if ((Out = FindFresh(Key))) {
        return RVSTATUS::Success;
    }
    NamesPtr &Slot = Directories_[Key];
    if (!Slot) {
        Slot = std::make_shared<Names>();
        Slot->Key = Key;
        Slot->Age = Ages_.insert(Ages_.begin(), Key);
        Slot->Stale = true;
    }
    const NamesPtr Dir = Slot;
    const bool SameStamp = SameTime(Stat.st_mtim, Dir->Seen.Modified) && SameTime(Stat.st_ctim, Dir->Seen.Changed);
    const bool Settled = Nanoseconds(Dir->ScannedAt) - Nanoseconds(Stat.st_mtim) > StampGranularity;
    if (Dir->Stale || Dir->Watch >= 0 || !SameStamp || !Settled) {
        // The watch comes first: what changes during the reading is then reported and applied again.
        Watch(Fd, *Dir);
        clock_gettime(CLOCK_REALTIME, &Dir->ScannedAt);
        const RVSTATUS Status = Scan(Fd, *Dir);
        if (RvIsError(Status)) {
            Drop(Key);
            return Status;
        }
        Dir->Seen = {Stat.st_mtim, Stat.st_ctim};
    }
    Ages_.splice(Ages_.begin(), Ages_, Dir->Age);
    Trim(*Dir);
    Out = Dir;
    return RVSTATUS::Success;
}

RVSTATUS NameCache::Enter(const DirectoryRef &Base, const std::string &Path, NamesPtr &Out) {
    if (Path.empty()) {
        return Read(Base.Fd, Out);
    }
    const UniqueFd Fd(Open_(Context_, Base, Path, O_PATH | O_DIRECTORY));
    if (!Fd) {
        return StatusFromLookup(errno);
    }
    return Read(Fd.Get(), Out);
}

// For a directory that may be searched but not read: only the exact spelling can be tried.
RVSTATUS NameCache::Probe(const DirectoryRef &Base, Resolved &Out, bool Last) {
    const UniqueFd Fd(Open_(Context_, Base, Out.Parent, O_PATH | O_DIRECTORY));
    struct stat Stat;
    if (!Fd) {
        return StatusFromLookup(errno);
    }
    Out.Exists = fstatat(Fd.Get(), Out.Name.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) == 0;
    if (!Out.Exists && errno != ENOENT) {
        return StatusFromErrno(errno);
    }
    Out.Type = DT_UNKNOWN;
    return Out.Exists || Last ? RVSTATUS::Success : Failure(RVFS_PATH_NOT_FOUND);
}

void NameCache::AddShort(Names &Dir, Entry &Item) {
    if (std::u16string Short = ShortName(Item.Served); !Short.empty()) {
        Dir.ByShort.emplace(std::move(Short), &Item);
    }
}

void NameCache::RemoveShort(Names &Dir, const Entry &Item) {
    const auto [First, End] = Dir.ByShort.equal_range(ShortName(Item.Served));
    const auto Own = std::find_if(First, End, [&Item](const auto &Each) { return Each.second == &Item; });
    if (Own != End) {
        Dir.ByShort.erase(Own);
    }
}

// The only entry with this short name; one that several have, or that is somebody's own name, leads to none.
NameCache::Entry *NameCache::FindByShort(Names &Dir, const std::u16string &Short) {
    if (!Dir.KnowsShort) {
        for (auto &[Folded, Item] : Dir.ByFold) {
            AddShort(Dir, Item);
        }
        Dir.KnowsShort = true;
    }
    const auto [First, End] = Dir.ByShort.equal_range(Short);
    return First != End && std::next(First) == End && !Dir.ByFold.contains(Short) ? First->second : nullptr;
}

// The entry served under the name, or the only one with it as short name.
NameCache::Entry *NameCache::FindEntry(Names &Dir, std::u16string_view Name) {
    const std::u16string Folded = Fold(Name);
    if (const auto Found = Dir.ByFold.find(Folded); Found != Dir.ByFold.end()) {
        return &Found->second;
    }
    const bool MayBeShort = Folded.size() <= 12 && Folded.find(u'~') != std::u16string::npos;
    return MayBeShort ? FindByShort(Dir, Folded) : nullptr;
}

RVSTATUS NameCache::Resolve(const DirectoryRef &Base, std::u16string_view Path, Resolved &Out) {
    const std::lock_guard Hold(Mutex_);
    Drain();
    Out = {};
    Out.Exists = true;
    Out.Type = DT_DIR;
    ObjectKey Key = Base.Key;
    NamesPtr Holder; // keeps the entry alive whose directory is being entered
    Entry *Inside = nullptr;
    for (;;) {
        Path.remove_prefix(std::min(Path.find_first_not_of(u'\\'), Path.size()));
        if (Path.empty()) {
            return RVSTATUS::Success;
        }
        const std::u16string_view Component = Path.substr(0, Path.find(u'\\'));
        Path.remove_prefix(Component.size());
        const bool Last = Path.find_first_not_of(u'\\') == std::u16string_view::npos;
        if (!Out.Name.empty()) {
            Out.Parent = Out.Path();
        }
        NamesPtr Dir = Key.Inode != 0 ? FindFresh(Key) : nullptr;
        if (!Dir) {
            const RVSTATUS Status = Enter(Base, Out.Parent, Dir);
            if (Status == Failure(CODE_NO_SUCH_FILE) || Status == Failure(RVFS_NOT_A_DIRECTORY)) {
                return Failure(RVFS_PATH_NOT_FOUND);
            }
            if (RvIsError(Status) && Status != RVSTATUS::AccessDenied) {
                return Status;
            }
            // A directory that was read anew as its own child has replaced the entry.
            if (Dir && Dir != Holder && Inside != nullptr && Inside->Type == DT_DIR) {
                Inside->Child = Dir->Key;
            }
        }
        std::optional<std::string> Native;
        Entry *const Known = Dir ? FindEntry(*Dir, Component) : nullptr;
        if (Known != nullptr) {
            Inside = Known;
            Out.Name = Inside->Native;
            Out.Served = Inside->Served;
            Out.Type = Inside->Type;
            Key = Inside->Child;
        } else {
            Native = NativeName(Component);
            if (!Native) {
                return Failure(CODE_NAME_INVALID);
            }
            Out.Name = *Native;
            Out.Served = Component;
            Out.Type = DT_UNKNOWN;
            Out.Exists = false;
            Inside = nullptr;
            Key = {};
            if (!Dir) {
                if (const RVSTATUS Status = Probe(Base, Out, Last); RvIsError(Status)) {
                    return Status;
                }
            } else if (!Last) {
                return Failure(RVFS_PATH_NOT_FOUND);
            }
        }
        if (Last) {
            return RVSTATUS::Success;
        }
        Holder = Dir;
    }
}

RVSTATUS NameCache::List(const DirectoryRef &Dir, bool WithShort, const Filter &Wanted,
                         std::vector<ListedName> &Listed) {
    std::vector<std::pair<std::u16string, ListedName>> Sorted;
    {
        const std::lock_guard Hold(Mutex_);
        Drain();
        NamesPtr Found = FindFresh(Dir.Key);
        if (!Found) {
            if (const RVSTATUS Status = Enter(Dir, "", Found); RvIsError(Status)) {
                return Status;
            }
        }
        for (const auto &[Folded, Item] : Found->ByFold) {
            std::u16string Short = WithShort ? ShortName(Item.Served) : std::u16string();
            if (!Short.empty() && FindByShort(*Found, Short) != &Item) {
                Short.clear();
            }
            if (Wanted(Folded, Short)) {
                Sorted.emplace_back(Folded, ListedName{Item.Served, Item.Native, std::move(Short), Item.Type});
            }
        }
    }
    std::sort(Sorted.begin(), Sorted.end(),
              [](const auto &Left, const auto &Right) { return Left.first < Right.first; });
    Listed.clear();
    Listed.reserve(Sorted.size());
    for (auto &[Folded, Item] : Sorted) {
        Listed.push_back(std::move(Item));
    }
    return RVSTATUS::Success;
}

} // namespace providers::directory
