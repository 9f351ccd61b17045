#include "providers/directory/known_files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "providers/directory/directory_reader.h"
#include "providers/directory/event_log.h"
#include "providers/directory/system_calls.h"

namespace providers::directory {
namespace {

constexpr size_t MostSteps = 2048;
constexpr uint8_t MeetingsBefore = 2; // a file that is met but twice costs no watch and no handle

// What is remembered of one name.
struct Remembered {
    enum class STATE : uint8_t { Free, Met, Known, Hopeless };

    uint64_t Hash = 0; // of the path
    std::string Path;  // a known name's, if it is not too long to be kept
    ObjectKey Key;
    FileHandle Handle;
    uint32_t Epoch = 0; // a known name's: since when its directory is watched
    uint16_t Mode = 0;
    STATE State = STATE::Free;
    uint8_t Meetings = 0;
};
constexpr size_t LongestPath = 143; // with what the heap adds 256 bytes a name
static_assert(sizeof(Remembered) == 96);
constexpr size_t Places = 8192;
std::array<Remembered, Places> Table;
std::array<std::mutex, 64> TableMutexes;
std::atomic<uint32_t> Forgotten = 0; // advanced when a known name has gone from its place, whatever took that

Remembered &PlaceOf(uint64_t Hash) {
    return Table[Hash % Places];
}
std::mutex &MutexOf(uint64_t Hash) {
    return TableMutexes[Hash % Places % TableMutexes.size()];
}

// Takes what is remembered from its place. Called with the place's mutex.
void Drop(Remembered &At) {
    const bool WasKnown = At.State == Remembered::STATE::Known;
    At = {};
    if (WasKnown) {
        ++Forgotten;
    }
}

std::string_view DirectoryOf(std::string_view Path) {
    const size_t Slash = Path.rfind('/');
    return Path.substr(0, Slash == Path.npos ? 0 : Slash);
}

uint32_t NextEpoch() {
    static std::atomic<uint32_t> Last = 0;
    return ++Last;
}

// As the kernel takes and gives a handle.
struct KernelHandle {
    alignas(file_handle) unsigned char Bytes[sizeof(file_handle) + FileHandle::MostBytes];

    file_handle *Get() {
        return reinterpret_cast<file_handle *>(Bytes);
    }
};

// Mount is the number of the mount that it is open under.
bool HandleOf(int Fd, FileHandle &Out, uint64_t &Mount) {
    KernelHandle Kernel{};
    int Number = 0;
    Kernel.Get()->handle_bytes = FileHandle::MostBytes;
    if (name_to_handle_at(Fd, "", Kernel.Get(), &Number, AT_EMPTY_PATH) != 0) {
        return false;
    }
    Out.Bytes = Kernel.Get()->handle_bytes;
    Out.Type = Kernel.Get()->handle_type;
    memcpy(Out.Data.data(), Kernel.Get()->f_handle, Out.Bytes);
    Mount = static_cast<uint64_t>(Number);
    return true;
}

// Whether the mount of that number is one of those that File tells of.
bool IsListed(const char *File, uint64_t Mount) {
    std::ifstream Lines(File);
    uint64_t Number = 0;
    for (std::string Rest; Lines >> Number && std::getline(Lines, Rest);) {
        if (Number == Mount) {
            return true;
        }
    }
    return false;
}

// Whether the entry at the end of Path, below Fd, is found by another spelling, too, so that the kernel may tell of it
// by one that is not known. True when there is none to try.
bool IsFoundInOtherCase(int Fd, std::string Path) {
    const auto IsLetter = [](char Each) { return (Each | 0x20) >= 'a' && (Each | 0x20) <= 'z'; };
    const auto Name = Path.begin() + static_cast<ptrdiff_t>(Path.rfind('/') + 1);
    const auto Letter = std::find_if(Name, Path.end(), IsLetter);
    struct stat Own;
    struct stat Other;
    if (Letter == Path.end()) {
        return std::any_of(Name, Path.end(), [](char Each) { return (Each & 0x80) != 0; });
    }
    if (fstatat(Fd, Path.c_str(), &Own, AT_SYMLINK_NOFOLLOW) != 0) {
        return true;
    }
    *Letter = static_cast<char>(*Letter ^ 0x20);
    return fstatat(Fd, Path.c_str(), &Other, AT_SYMLINK_NOFOLLOW) == 0 && KeyOf(Own) == KeyOf(Other);
}

bool AddTo(int Epoll, int Fd, uint32_t Events) {
    epoll_event Event{};
    Event.events = Events;
    Event.data.fd = Fd;
    return epoll_ctl(Epoll, EPOLL_CTL_ADD, Fd, &Event) == 0;
}

// The directory that the thread has last found to be plain.
struct Proven {
    uint32_t Epoch = 0;
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

KnownFiles::KnownFiles(int Root, bool UseNotifications) : Root_(Root), Epoch_(NextEpoch()) {
    struct stat Status;
    FileHandle Own;
    if (!UseNotifications || !TellsChanges(Root) || fstat(Root, &Status) != 0 || !HandleOf(Root, Own, Mount_) ||
        !UniqueFd(Open(Own, O_PATH))) {
        return;
    }
    RootKey_ = KeyOf(Status);
    UniqueFd Notify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    constexpr char Mounts[] = "/proc/self/mountinfo";
    UniqueFd OfMounts(open(Mounts, O_RDONLY | O_CLOEXEC));
    UniqueFd News(epoll_create1(EPOLL_CLOEXEC));
    // Of what is mounted in another name space nobody tells.
    if (Notify && OfMounts && News && IsListed(Mounts, Mount_) && AddTo(News.Get(), Notify.Get(), EPOLLIN) &&
        AddTo(News.Get(), OfMounts.Get(), EPOLLPRI)) {
        Notify_ = std::move(Notify);
        Mounts_ = std::move(OfMounts);
        News_ = std::move(News);
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
    return OpenByHandle(Root_, Kernel.Get(), Flags | O_CLOEXEC);
}

// Whether Path leads to that file now, reached under the root's mount and by no other name. Mode is its mode then.
bool KnownFiles::IsStill(const std::string &Path, const ObjectKey &Key, mode_t &Mode) const {
    struct statx Now;
    if (statx(Root_, Path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_TYPE | STATX_MODE | STATX_NLINK | STATX_INO | STATX_MNT_ID, &Now) != 0) {
        return false;
    }
    Mode = Now.stx_mode;
    // A link is followed by an ordinary look alone, which knows where it may lead. Of a file with several names the
    // kernel might open it by another one, in a directory that someone else watches.
    return S_ISREG(Now.stx_mode) && Now.stx_nlink == 1 && (Now.stx_mask & STATX_MNT_ID) != 0 &&
           Now.stx_mnt_id == Mount_ && Now.stx_ino == Key.Inode &&
           makedev(Now.stx_dev_major, Now.stx_dev_minor) == Key.Device;
}

bool KnownFiles::Look(const std::string &Path, struct stat &Stat, FileHandle &Handle) {
    if (!Notify_) {
        return false;
    }
    const uint32_t Before = Forgotten.load();
    const uint64_t Hash = HashOf(Path);
    ObjectKey Key;
    uint32_t Epoch = 0;
    bool IsNamed = false;
    {
        const std::lock_guard Hold(MutexOf(Hash));
        const Remembered &At = PlaceOf(Hash);
        if (At.Hash != Hash || At.State != Remembered::STATE::Known) {
            return false;
        }
        IsNamed = At.Path == Path;
        Key = At.Key;
        Epoch = At.Epoch;
        Handle = At.Handle;
        Stat.st_mode = At.Mode;
    }
    const bool IsSure = TakeNews();
    if (!IsSure) {
        HearOthers(); // a mount that they heard of is seen below
    }
    // A name that has gone meanwhile was seen to go, or its directory was.
    if (Epoch != Epoch_.load() || Before != Forgotten.load() ||
        ((!IsSure || !IsNamed) && !IsStill(Path, Key, Stat.st_mode))) {
        return false;
    }
    Stat.st_dev = Key.Device;
    Stat.st_ino = Key.Inode;
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
        if (At.Hash != Hash || !(At.Key == Key) || At.State == Remembered::STATE::Free) {
            Drop(At);
            At.Hash = Hash;
            At.Key = Key;
            At.State = Remembered::STATE::Met;
        }
        if (At.State == Remembered::STATE::Hopeless || ++At.Meetings <= MeetingsBefore) {
            return;
        }
        At.Meetings = MeetingsBefore;
    }
    FileHandle Handle;
    uint64_t Mount = 0;
    if (HandleOf(Fd, Handle, Mount) && NamesOneFile(Handle) && Mount == Mount_) {
        StoreKnown(Path, Key, Handle);
        return;
    }
    const std::lock_guard Hold(MutexOf(Hash));
    if (Remembered &At = PlaceOf(Hash); At.Hash == Hash && At.Key == Key) {
        Drop(At);
        At.Hash = Hash;
        At.Key = Key;
        At.State = Remembered::STATE::Hopeless;
    }
}

// The name is looked at once its directory is watched: what becomes of it afterwards is heard of.
void KnownFiles::StoreKnown(const std::string &Path, const ObjectKey &Key, const FileHandle &Handle) {
    const std::lock_guard Hold(Mutex_);
    const uint32_t Epoch = Epoch_;
    const bool IsWatched = Prove(DirectoryOf(Path));
    mode_t Mode = 0;
    if (IsWatched ? !IsStill(Path, Key, Mode) : Epoch_ != Epoch) {
        return; // it may go better the next time
    }
    const bool MayBeKnown = IsWatched && !IsFoundInOtherCase(Root_, Path);
    const uint64_t Hash = HashOf(Path);
    const std::lock_guard HoldPlace(MutexOf(Hash));
    using enum Remembered::STATE;
    Drop(PlaceOf(Hash));
    PlaceOf(Hash) = {Hash,
                     Path.size() <= LongestPath ? Path : std::string(),
                     Key,
                     Handle,
                     Epoch_.load(),
                     static_cast<uint16_t>(Mode),
                     MayBeKnown ? Known : Hopeless,
                     MeetingsBefore};
}

void KnownFiles::Forget(std::string_view Path) {
    const uint64_t Hash = HashOf(Path);
    const std::lock_guard Hold(MutexOf(Hash));
    if (PlaceOf(Hash).Hash == Hash) {
        Drop(PlaceOf(Hash));
    }
}

// Works in what the kernel has told. False when another thread is at it at the same moment, so that something may have
// been heard that is not worked in yet.
bool KnownFiles::TakeNews() {
    Taking_.fetch_add(1);
    epoll_event Told[2];
    const int Count = ReadyNow(News_.Get(), Told, std::size(Told));
    if (Count != 0) {
        const std::lock_guard Hold(Mutex_);
        const bool Mounted = Count < 0 || std::any_of(Told, Told + Count, [this](const epoll_event &Each) {
                                 return Each.data.fd == Mounts_.Get();
                             });
        if (Mounted) {
            ForgetDirectories();
        }
        ReadEvents();
    }
    return Taking_.fetch_sub(1) == 1 && Reading_.load() == 0;
}

// Waits until what others have heard of directories is worked in. Of mounts that is not said.
void KnownFiles::HearOthers() {
    int Waiting = 0;
    if (ioctl(Notify_.Get(), FIONREAD, &Waiting) != 0 || Waiting != 0 || Reading_.load() != 0) {
        const std::lock_guard Hold(Mutex_);
        ReadEvents();
    }
}

bool KnownFiles::IsPlain(std::string_view Directory) {
    if (!Notify_ || Directory.empty()) {
        return static_cast<bool>(Notify_);
    }
    if (!TakeNews()) {
        return false;
    }
    const uint32_t Epoch = Epoch_.load();
    if (Last.Epoch == Epoch && Last.Directory == Directory) {
        return true;
    }
    const std::lock_guard Hold(Mutex_);
    if (Epoch_ != Epoch || !Plain_.contains(Directory)) {
        return false;
    }
    Last.Epoch = 0;
    Last.Directory = Directory;
    Last.Epoch = Epoch;
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
    Epoch_ = NextEpoch();
}

// What one event says. Returns whether a directory may have gone from its place. Called with the mutex.
bool KnownFiles::Apply(int Watch, uint32_t Mask, std::string_view Name) noexcept {
    const auto Of = Watched_.find(Watch);
    if ((Mask & IN_Q_OVERFLOW) != 0) {
        return true;
    }
    if (Of == Watched_.end()) {
        return false;
    }
    if ((Mask & (IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE)) == 0 || Of->second.Steps.contains(Name)) {
        return true;
    }
    char Path[PATH_MAX]; // nothing may fail here
    const std::string &Directory = Of->second.Directory;
    const auto Made = fmt::format_to_n(Path, sizeof Path, "{}{}{}", Directory, Directory.empty() ? "" : "/", Name);
    if (Made.size > sizeof Path) {
        return false; // too long to be known
    }
    const uint64_t Hash = HashOf({Path, Made.size});
    const std::lock_guard Hold(MutexOf(Hash));
    if (PlaceOf(Hash).Hash == Hash && PlaceOf(Hash).State == Remembered::STATE::Known) {
        Drop(PlaceOf(Hash));
    }
    return false;
}

// Takes what the kernel has told of directories. Called with the mutex.
void KnownFiles::ReadEvents() {
    Reading_.fetch_add(1);
    alignas(inotify_event) char Buffer[16384];
    for (;;) {
        const ssize_t Size = read(Notify_.Get(), Buffer, sizeof Buffer);
        if (Size < 0 && errno == EINTR) {
            continue;
        }
        bool Gone = false;
        for (ssize_t At = 0; At < Size;) {
            const auto *Event = reinterpret_cast<const inotify_event *>(Buffer + At);
            // The name is padded with zeros.
            Gone = Apply(Event->wd, Event->mask, Event->len == 0 ? "" : Event->name) || Gone;
            At += static_cast<ssize_t>(sizeof(inotify_event) + Event->len);
        }
        if (Gone) {
            ForgetDirectories();
        }
        if (Size < static_cast<ssize_t>(sizeof Buffer - sizeof(inotify_event) - NAME_MAX - 1)) {
            break;
        }
    }
    Reading_.fetch_sub(1);
}

// Watches the directory open as Fd, in which Step is on a way, or nothing when that is empty. Called with the mutex.
bool KnownFiles::WatchDirectory(int Fd, std::string_view Directory, const std::string &Step) {
    if (!TellsChanges(Fd) || FoldsCase(Fd) || (!Step.empty() && IsFoundInOtherCase(Fd, Step))) {
        return false; // an entry may go unseen, or under another spelling
    }
    // The link of a descriptor leads to the very directory that is open, whatever its path is by now.
    const int Watch = inotify_add_watch(Notify_.Get(), fmt::format("/proc/self/fd/{}", Fd).c_str(),
                                        IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE | IN_ONLYDIR);
    if (Watch < 0) {
        return false;
    }
    const auto [At, IsNew] = Watched_.try_emplace(Watch);
    if (IsNew) {
        At->second.Directory = Directory;
    }
    if (!Step.empty() && At->second.Steps.insert(Step).second) {
        ++Steps_;
    }
    return At->second.Directory == Directory; // another one where it is mounted a second time
}

// Goes to the directory step by step, through no link, each step watched before it is taken, and watches it, too. False
// when it is no plain directory, or cannot be watched; what was added for it stays until all is forgotten. Called with
// the mutex.
bool KnownFiles::Prove(std::string_view Directory) {
    if (Plain_.contains(Directory)) {
        return true;
    }
    if (Steps_ >= MostSteps) {
        ForgetDirectories();
    }
    const uint32_t Epoch = Epoch_;
    UniqueFd Reached;
    for (size_t Length = 0;;) {
        const int At = Reached ? Reached.Get() : Root_;
        const size_t Start = Length == 0 ? 0 : std::min(Length + 1, Directory.size());
        const std::string Step(Directory.substr(Start, Directory.find('/', Start) - Start));
        if (!WatchDirectory(At, Directory.substr(0, Length), Step)) {
            return false;
        }
        if (Step.empty()) {
            break;
        }
        Reached = UniqueFd(openat(At, Step.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!Reached) {
            return false;
        }
        Length = Start + Step.size();
    }
    ReadEvents();
    if (Epoch_ != Epoch) {
        return false; // one of them went meanwhile
    }
    Plain_.emplace(Directory);
    return true;
}

} // namespace providers::directory
