#include "providers/directory/name_cache.h"

#include <algorithm>
#include <cerrno>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "providers/directory/names.h"

namespace providers::directory {
namespace {

constexpr size_t MaxNames = 1u << 20;
constexpr size_t MaxDirectories = 8192;

// The first component; Path becomes what is behind it and its separators.
std::u16string_view TakeFirst(std::u16string_view &Path) {
    Path.remove_prefix(std::min(Path.find_first_not_of(u'\\'), Path.size()));
    const std::u16string_view Component = Path.substr(0, Path.find(u'\\'));
    Path.remove_prefix(Component.size());
    Path.remove_prefix(std::min(Path.find_first_not_of(u'\\'), Path.size()));
    return Component;
}

bool IsMissing(int Error) {
    return Error == ENOENT || Error == ENOTDIR;
}

RVSTATUS StatusOfParent(int Error) {
    return IsMissing(Error) ? Failure(RVFS_PATH_NOT_FOUND) : StatusFromLookup(Error);
}

} // namespace

std::u16string_view LastComponent(std::u16string_view Path) {
    Path = Path.substr(0, Path.find_last_not_of(u'\\') + 1);
    return Path.substr(Path.rfind(u'\\') + 1);
}

NameCache::NameCache(Opener Open, void *Context, bool UseNotifications)
    : Open_(Open), Context_(Context), Log_(UseNotifications) {
}

NameCache::IndexPtr NameCache::IndexOf(const ObjectKey &Key) {
    std::vector<IndexPtr> Dropped; // freed without the lock
    const std::lock_guard Hold(Mutex_);
    Kept &Found = Indices_[Key];
    if (Found.Index) {
        Ages_.splice(Ages_.begin(), Ages_, Found.Age);
    } else {
        Found.Index = std::make_shared<DirectoryIndex>(Log_, Names_, Scans_);
        Found.Age = Ages_.insert(Ages_.begin(), Key);
    }
    const IndexPtr Index = Found.Index;
    // As many as hold too much by now; what a dropped one held is given back when its last user is done.
    for (size_t Count = Ages_.size(); Count > 1 && Dropped.size() < 8 && (Count > MaxDirectories || Names_ > MaxNames);
         Count = Ages_.size()) {
        const auto Oldest = Indices_.find(Ages_.back());
        Dropped.push_back(std::move(Oldest->second.Index));
        Indices_.erase(Oldest);
        Ages_.pop_back();
    }
    return Index;
}

// The index of a directory that was read, or nothing.
NameCache::IndexPtr NameCache::KnownIndex(const ObjectKey &Key) {
    const std::lock_guard Hold(Mutex_);
    const auto Found = Indices_.find(Key);
    if (Found == Indices_.end() || !Found->second.Index->IsKnown()) {
        return nullptr;
    }
    Ages_.splice(Ages_.begin(), Ages_, Found->second.Age);
    return Found->second.Index;
}

// Looks one component up in the directory open as Fd, which is Known when that is not nullptr; Out's HolderKey, Name,
// Type, Exists and Marked become the answer.
RVSTATUS NameCache::Step(int Fd, const ObjectKey *Known, std::u16string_view Component, bool ExactMissing,
                         Resolved &Out) {
    const std::optional<std::string> Native = NativeName(Component);
    struct stat Stat;
    Out.HolderKey = {}; // not that of the directory above
    Out.Exists = false;
    Out.Marked = false;
    Out.Type = DT_UNKNOWN;
    Out.Entry.reset();
    if (!Native && Component.find(u'~') == Component.npos) {
        return Failure(CODE_NAME_INVALID);
    }
    // The entry as it is spelled; a link that leads nowhere is one, too.
    int Refused = 0;
    const auto Ask = [&] {
        Out.Name = *Native;
        Out.Exists = fstatat(Fd, Native->c_str(), &Stat, AT_SYMLINK_NOFOLLOW) == 0;
        Out.Type = DT_UNKNOWN;
        if (Out.Exists) {
            Out.Type = IFTODT(Stat.st_mode);
            Out.Entry = Stat;
        }
        // One that may be read and not be searched tells its names all the same.
        Refused = !Out.Exists && errno == EACCES ? EACCES : 0;
        return Out.Exists || errno == ENOENT || errno == EACCES ? RVSTATUS::Success : StatusOfParent(errno);
    };
    bool Asked = false;
    if (Native && !ExactMissing) {
        if (const RVSTATUS Status = Ask(); RvIsError(Status) || Out.Exists) {
            return Status;
        }
        Asked = true;
    }
    if (Known == nullptr && fstat(Fd, &Stat) != 0) {
        return StatusFromErrno(errno);
    }
    Out.HolderKey = Known != nullptr ? *Known : KeyOf(Stat);
    const IndexPtr Index = IndexOf(Out.HolderKey);
    if (Native && !Asked && !Index->IsKnown()) {
        if (const RVSTATUS Status = Ask(); RvIsError(Status) || Out.Exists) {
            return Status;
        }
        Asked = true;
    }
    FoundName Found;
    RVSTATUS Status = Index->Find(Fd, Component, Native ? *Native : std::string_view(), Found);
    if (Status == RVSTATUS::Success) {
        Out.Name = Found.Native;
        Out.Type = Found.Type;
        Out.Exists = true;
        Out.Marked = Found.Marked;
        return Status;
    }
    const bool Missing = Status == Failure(CODE_NO_SUCH_FILE) || Status == RVSTATUS::AccessDenied;
    if (!Missing || !Native) {
        return !Missing ? Status : Failure(CODE_NAME_INVALID);
    }
    Out.Name = *Native;
    Status = Asked || Found.Told ? RVSTATUS::Success : Ask();
    // One that may be searched and not be read has no other spellings than exact ones.
    return Refused != 0 ? StatusFromErrno(Refused) : Status;
}

// Component by component, each directory opened by the native path so far.
RVSTATUS NameCache::Walk(const DirectoryRef &Base, std::u16string_view Path, Resolved &Out) {
    UniqueFd Own;
    int Fd = Base.Fd;
    const ObjectKey *Known = &Base.Key;
    for (;;) {
        const std::u16string_view Component = TakeFirst(Path);
        const RVSTATUS Status = Step(Fd, Known, Component, false, Out);
        if (Path.empty()) {
            Out.Holder = std::move(Own); // also for a caller that goes on with a name that is not free
            return Status;
        }
        if (RvIsError(Status)) {
            return Status;
        }
        if (!Out.Exists) {
            return Failure(RVFS_PATH_NOT_FOUND);
        }
        Out.Parent = Out.Path();
        Out.Name.clear();
        Own = UniqueFd(Open_(Context_, Base, Out.Parent, O_PATH | O_DIRECTORY));
        if (!Own) {
            return StatusOfParent(errno);
        }
        Fd = Own.Get();
        Known = nullptr;
    }
}

RVSTATUS NameCache::Resolve(const DirectoryRef &Base, std::u16string_view Path, Resolved &Out, bool ExactMissing) {
    Out = {};
    Path.remove_prefix(std::min(Path.find_first_not_of(u'\\'), Path.size()));
    Path = Path.substr(0, Path.find_last_not_of(u'\\') + 1);
    if (Path.empty()) {
        Out.Exists = true;
        Out.Type = DT_DIR;
        return RVSTATUS::Success;
    }
    const size_t Slash = Path.rfind(u'\\');
    if (Slash == Path.npos) {
        return Step(Base.Fd, &Base.Key, Path, ExactMissing, Out);
    }
    const std::optional<std::string> Parent = NativePath(Path.substr(0, Slash));
    Out.Holder = UniqueFd(Parent ? Open_(Context_, Base, *Parent, O_PATH | O_DIRECTORY) : -1);
    if (Out.Holder) {
        Out.Parent = *Parent;
        return Step(Out.Holder.Get(), nullptr, Path.substr(Slash + 1), ExactMissing, Out);
    }
    if (Parent && !IsMissing(errno)) {
        return StatusFromLookup(errno);
    }
    return Walk(Base, Path, Out);
}

bool NameCache::ResolveKnown(const DirectoryRef &Base, std::u16string_view Path, const std::string &Exact,
                             Resolved &Out) {
    const size_t Slash = Exact.rfind('/');
    Out = {};
    Out.HolderKey = Base.Key;
    Out.Name = Exact.substr(Slash + 1);
    if (Slash != Exact.npos) {
        Out.Parent = Exact.substr(0, Slash);
        // This look may leave the root when a link takes the place of a directory meanwhile. It tells which names to
        // compare with and no more: what is found is opened beneath the root.
        struct stat Stat;
        if (fstatat(Base.Fd, Out.Parent.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(Stat.st_mode)) {
            return false;
        }
        Out.HolderKey = KeyOf(Stat);
    }
    const IndexPtr Index = KnownIndex(Out.HolderKey);
    FoundName Found;
    const RVSTATUS Status = Index ? Index->Find(-1, LastComponent(Path), Out.Name, Found) : RVSTATUS::Unsuccessful;
    if (Status == RVSTATUS::Success) {
        Out.Name = std::move(Found.Native);
        Out.Type = Found.Type;
        Out.Exists = true;
        Out.Marked = Found.Marked;
    }
    return Found.Told && (Out.Exists || Status == Failure(CODE_NO_SUCH_FILE));
}

size_t NameCache::HashOf(const DirectoryRef &Base, const std::string &Exact) {
    return std::hash<std::string_view>()(Exact) ^ ObjectKeyHash()(Base.Key);
}

bool NameCache::WasOtherwiseSpelled(const DirectoryRef &Base, const std::string &Exact) const {
    const size_t Hash = HashOf(Base, Exact);
    return Otherwise_[Hash % Otherwise_.size()].load(std::memory_order_relaxed) == static_cast<uint32_t>(Hash >> 32);
}

void NameCache::NoteOtherwiseSpelled(const DirectoryRef &Base, const std::string &Exact, bool IsSo) {
    const size_t Hash = HashOf(Base, Exact);
    Otherwise_[Hash % Otherwise_.size()].store(IsSo ? static_cast<uint32_t>(Hash >> 32) : 0, std::memory_order_relaxed);
}

bool NameCache::OpenHolder(const DirectoryRef &Base, const std::string &Exact, Resolved &Out) {
    const size_t Slash = Exact.rfind('/');
    Out = {};
    Out.Name = Exact.substr(Slash + 1);
    if (Slash == Exact.npos) {
        Out.HolderKey = Base.Key;
        return true;
    }
    Out.Parent = Exact.substr(0, Slash);
    Out.Holder = UniqueFd(Open_(Context_, Base, Out.Parent, O_PATH | O_DIRECTORY));
    return static_cast<bool>(Out.Holder);
}

RVSTATUS NameCache::List(const DirectoryRef &Dir, std::u16string_view FoldedMask, bool WithShort, NameList &Out) {
    return IndexOf(Dir.Key)->List(Dir.Fd, FoldedMask, WithShort, Out);
}

bool NameCache::LeadsTo(const DirectoryRef &Dir, std::u16string_view Short, std::string_view Native) {
    FoundName Found;
    return !RvIsError(IndexOf(Dir.Key)->Find(Dir.Fd, Short, {}, Found)) && Found.Native == Native;
}

} // namespace providers::directory
