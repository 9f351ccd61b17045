#include "providers/directory/known_files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "providers/directory/directory_reader.h"
#include "providers/directory/event_log.h"

namespace providers::directory {
namespace {

constexpr size_t MostSteps = 2048;

// What is remembered of one name.
struct Remembered {
    enum class STATE : uint8_t { Free, Met, Known, Hopeless };

    uint64_t Path = 0; // its hash
    ObjectKey Key;
    FileHandle Handle;
    STATE State = STATE::Free;
};
constexpr size_t Places = 8192;
std::array<Remembered, Places> Table;
std::array<std::mutex, 64> TableMutexes;

Remembered &PlaceOf(uint64_t Path) {
    return Table[Path % Places];
}
std::mutex &MutexOf(uint64_t Path) {
    return TableMutexes[Path % Places % TableMutexes.size()];
}

std::string_view DirectoryOf(std::string_view Path) {
    const size_t Slash = Path.rfind('/');
    return Path.substr(0, Slash == Path.npos ? 0 : Slash);
}

uint64_t NextSerial() {
    static std::atomic<uint64_t> Last = 0;
    return ++Last;
}

// As the kernel takes and gives a handle.
struct KernelHandle {
    alignas(file_handle) unsigned char Bytes[sizeof(file_handle) + FileHandle::MostBytes];

    file_handle *Get() {
        return reinterpret_cast<file_handle *>(Bytes);
    }
};

bool HandleOf(int Fd, FileHandle &Out) {
    KernelHandle Kernel{};
    int Mount = 0;
    Kernel.Get()->handle_bytes = FileHandle::MostBytes;
    if (name_to_handle_at(Fd, "", Kernel.Get(), &Mount, AT_EMPTY_PATH) != 0) {
        return false;
    }
    Out.Bytes = Kernel.Get()->handle_bytes;
    Out.Type = Kernel.Get()->handle_type;
    memcpy(Out.Data.data(), Kernel.Get()->f_handle, Out.Bytes);
    return true;
}

// The directory that the thread has last found to be plain.
struct Proven {
    uint64_t Of = 0;
    uint64_t Epoch = 0;
    std::string Directory;
};
thread_local Proven Last;

} // namespace

bool NamesOneFile(const FileHandle &Handle) {
    constexpr int NumberAndGeneration = 1; // the type of the kernel's common layout
    constexpr unsigned Half = 4;           // bytes of each
    // tmpfs has a layout of its own under that type, which is longer.
    const bool HasGeneration = std::any_of(Handle.Data.begin() + Half, Handle.Data.begin() + 2 * Half,
                                           [](unsigned char Each) { return Each != 0; });
    return Handle && (Handle.Type != NumberAndGeneration || Handle.Bytes != 2 * Half || HasGeneration);
}

KnownFiles::KnownFiles(int Root, bool UseNotifications) : Root_(Root), Serial_(NextSerial()) {
    struct statx Stat;
    FileHandle Own;
    if (!UseNotifications || !TellsChanges(Root) ||
        statx(Root, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &Stat) != 0 ||
        (Stat.stx_mask & STATX_MNT_ID) == 0 || !HandleOf(Root, Own) || !UniqueFd(Open(Own, O_PATH))) {
        return;
    }
    struct stat Status;
    if (fstat(Root, &Status) == 0) {
        RootKey_ = KeyOf(Status);
        Mount_ = Stat.stx_mnt_id;
        Notify_ = UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    }
}

uint64_t KnownFiles::HashOf(std::string_view Path) const {
    return std::hash<std::string_view>()(Path) ^ ObjectKeyHash()(RootKey_);
}

int KnownFiles::Open(const FileHandle &Handle, int Flags) const {
    KernelHandle Kernel{};
    Kernel.Get()->handle_bytes = Handle.Bytes;
    Kernel.Get()->handle_type = Handle.Type;
    memcpy(Kernel.Get()->f_handle, Handle.Data.data(), Handle.Bytes);
    return open_by_handle_at(Root_, Kernel.Get(), Flags | O_CLOEXEC);
}

bool KnownFiles::Look(const std::string &Path, struct stat &Stat, FileHandle &Handle) {
    if (!Notify_) {
        return false;
    }
    const uint64_t Hash = HashOf(Path);
    ObjectKey Key;
    {
        const std::lock_guard Hold(MutexOf(Hash));
        const Remembered &At = PlaceOf(Hash);
        if (At.Path != Hash || At.State != Remembered::STATE::Known) {
            return false;
        }
        Key = At.Key;
        Handle = At.Handle;
    }
    struct statx Now;
    if (!IsPlain(DirectoryOf(Path)) ||
        statx(Root_, Path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_TYPE | STATX_MODE | STATX_NLINK | STATX_INO | STATX_MNT_ID, &Now) != 0) {
        return false;
    }
    // A link is followed by an ordinary look alone, which knows where it may lead. Of a file with several names the
    // kernel might open it by another one, in a directory that someone else watches.
    if (!S_ISREG(Now.stx_mode) || Now.stx_ino != Key.Inode ||
        makedev(Now.stx_dev_major, Now.stx_dev_minor) != Key.Device || Now.stx_mnt_id != Mount_ || Now.stx_nlink != 1) {
        const std::lock_guard Hold(MutexOf(Hash));
        Remembered &At = PlaceOf(Hash);
        if (At.Path == Hash && At.Key == Key) {
            At.State = Remembered::STATE::Hopeless;
        }
        return false;
    }
    Stat.st_mode = Now.stx_mode;
    Stat.st_dev = Key.Device;
    Stat.st_ino = Now.stx_ino;
    return true;
}

void KnownFiles::Note(const std::string &Path, int Fd, const struct stat &Stat) {
    if (!Notify_ || Path.size() >= PATH_MAX || !S_ISREG(Stat.st_mode) || Stat.st_nlink != 1 ||
        Stat.st_dev != RootKey_.Device) {
        return;
    }
    const uint64_t Hash = HashOf(Path);
    const ObjectKey Key = KeyOf(Stat);
    {
        const std::lock_guard Hold(MutexOf(Hash));
        Remembered &At = PlaceOf(Hash);
        if (At.Path != Hash || !(At.Key == Key) || At.State == Remembered::STATE::Free) {
            At = {Hash, Key, {}, Remembered::STATE::Met};
            return;
        }
        if (At.State == Remembered::STATE::Hopeless) {
            return;
        }
    }
    const uint64_t Epoch = Epoch_;
    Remembered Now{Hash, Key, {}, Remembered::STATE::Hopeless};
    if ((IsPlain(DirectoryOf(Path)) || Prove(DirectoryOf(Path))) && HandleOf(Fd, Now.Handle) &&
        NamesOneFile(Now.Handle)) {
        Now.State = Remembered::STATE::Known;
    } else if (Epoch_ != Epoch) {
        Now.State = Remembered::STATE::Met; // it may go better the next time
    }
    const std::lock_guard Hold(MutexOf(Hash));
    PlaceOf(Hash) = Now;
}

void KnownFiles::Forget(const std::string &Path) {
    const uint64_t Hash = HashOf(Path);
    const std::lock_guard Hold(MutexOf(Hash));
    if (PlaceOf(Hash).Path == Hash) {
        PlaceOf(Hash) = {};
    }
}

bool KnownFiles::IsPlain(std::string_view Directory) {
    if (!Notify_ || Directory.empty()) {
        return static_cast<bool>(Notify_);
    }
    int Waiting = 0;
    if (ioctl(Notify_.Get(), FIONREAD, &Waiting) != 0) {
        return false;
    }
    if (Waiting != 0 || Reading_.load() != 0) {
        const std::lock_guard Hold(Mutex_);
        ReadEvents();
    }
    const uint64_t Epoch = Epoch_.load();
    if (Last.Of == Serial_ && Last.Epoch == Epoch && Last.Directory == Directory) {
        return true;
    }
    const std::lock_guard Hold(Mutex_);
    if (Epoch_ != Epoch || !Plain_.contains(Directory)) {
        return false;
    }
    Last.Of = 0;
    Last.Directory = Directory;
    Last.Epoch = Epoch;
    Last.Of = Serial_;
    return true;
}

// Called with the mutex.
void KnownFiles::ForgetDirectories() {
    for (const auto &[Watch, Names] : Watched_) {
        inotify_rm_watch(Notify_.Get(), Watch); // fails for a directory that is gone
    }
    Watched_.clear();
    Plain_.clear();
    Steps_ = 0;
    ++Epoch_;
}

// Takes what the kernel has told. Called with the mutex.
void KnownFiles::ReadEvents() {
    ++Reading_;
    alignas(inotify_event) char Buffer[16384];
    for (;;) {
        const ssize_t Size = read(Notify_.Get(), Buffer, sizeof Buffer);
        if (Size < 0 && errno == EINTR) {
            continue;
        }
        bool Gone = false;
        for (ssize_t At = 0; At < Size;) {
            const auto *Event = reinterpret_cast<const inotify_event *>(Buffer + At);
            const auto Of = Watched_.find(Event->wd);
            const bool IsName = (Event->mask & (IN_MOVED_FROM | IN_DELETE)) != 0;
            Gone = Gone || (Event->mask & IN_Q_OVERFLOW) != 0 ||
                   (Of != Watched_.end() && (!IsName || Of->second.contains(std::string_view(Event->name))));
            At += static_cast<ssize_t>(sizeof(inotify_event) + Event->len);
        }
        if (Gone) {
            ForgetDirectories();
        }
        if (Size < static_cast<ssize_t>(sizeof Buffer - sizeof(inotify_event) - NAME_MAX - 1)) {
            break;
        }
    }
    --Reading_;
}

// Watches the directory open as Fd for its entry Component. Called with the mutex.
bool KnownFiles::WatchStep(int Fd, const std::string &Component) {
    if (!TellsChanges(Fd) || FoldsCase(Fd)) {
        return false; // the entry may go unseen, or under another spelling
    }
    // The link of a descriptor leads to the very directory that is open, whatever its path is by now.
    const int Watch = inotify_add_watch(Notify_.Get(), fmt::format("/proc/self/fd/{}", Fd).c_str(),
                                        IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR);
    if (Watch >= 0) {
        Steps_ += Watched_[Watch].insert(Component).second ? 1 : 0;
    }
    return Watch >= 0;
}

// Goes to the directory step by step, through no link, each step watched before it is taken. False when it is no plain
// directory, or cannot be watched; what was added for it stays until all is forgotten.
bool KnownFiles::Prove(std::string_view Directory) {
    const std::lock_guard Hold(Mutex_);
    if (Steps_ >= MostSteps) {
        ForgetDirectories();
    }
    const uint64_t Epoch = Epoch_;
    UniqueFd Reached;
    for (std::string_view Rest = Directory; !Rest.empty();) {
        const std::string Component(Rest.substr(0, Rest.find('/')));
        Rest.remove_prefix(std::min(Component.size() + 1, Rest.size()));
        const int At = Reached ? Reached.Get() : Root_;
        if (!WatchStep(At, Component)) {
            return false;
        }
        UniqueFd Next(openat(At, Component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!Next) {
            return false;
        }
        Reached = std::move(Next);
    }
    ReadEvents();
    if (Epoch_ != Epoch) {
        return false; // one of them went meanwhile
    }
    Plain_.emplace(Directory);
    return true;
}

} // namespace providers::directory
