#include "providers/directory/directory_provider.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "provider/framework.h"
#include "providers/directory/directory_reader.h"
#include "providers/directory/follow.h"
#include "providers/directory/names.h"
#include "providers/directory/record_memory.h"
#include "providers/directory/state.h"
#include "providers/directory/units.h"

namespace providers::directory {
namespace {

constexpr char16_t Separator = u'\\';

int OpenForNames(void *Context, const DirectoryRef &Base, const std::string &Path, int Flags) {
    return static_cast<const Export *>(Context)->Open(Base, Path, Flags);
}

uint64_t Mix(uint64_t Value) {
    Value = (Value ^ (Value >> 30)) * 0xBF58476D1CE4E5B9u;
    Value = (Value ^ (Value >> 27)) * 0x94D049BB133111EBu;
    return Value ^ (Value >> 31);
}

// Stable over restarts and remounts where the file system has an identifier of its own.
void MakeIdentifier(int Root, const ObjectKey &Key, UCHAR *Identifier) {
    struct statfs Info {};
    uint64_t FileSystem = 0;
    if (fstatfs(Root, &Info) == 0) {
        memcpy(&FileSystem, &Info.f_fsid, sizeof FileSystem);
    }
    if (FileSystem == 0) {
        FileSystem = Key.Device;
    }
    uint64_t Words[2] = {Mix(FileSystem ^ Mix(Key.Inode)), Mix(Key.Inode ^ Mix(~FileSystem))};
    if (static_cast<uint32_t>(Words[0]) == 0) {
        Words[0] |= 1; // the first 32 bits serve as serial number, which must not be 0
    }
    memcpy(Identifier, Words, sizeof Words);
}

// Sum of the sizes of the files below the directory; links are not followed and other file systems not entered. One
// directory is open at a time. Returns what could not be counted, empty when all was.
std::string SizeOfTree(int Root, dev_t Device, int64_t &Total) {
    std::vector<std::string> Left{""};
    Total = 0;
    while (!Left.empty()) {
        const std::string Path = std::move(Left.back());
        Left.pop_back();
        const UniqueFd Fd(OpenBeneath(BestConfinement(), Root, Path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
        int Error = Fd ? 0 : errno;
        if (Error == 0) {
            Error = ReadDirectory(Fd.Get(), [&](std::string_view Name, unsigned char) {
                struct stat Stat;
                const std::string Entry(Name);
                if (fstatat(Fd.Get(), Entry.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) != 0) {
                    return;
                }
                if (S_ISREG(Stat.st_mode)) {
                    Total += Stat.st_size / static_cast<int64_t>(std::max<nlink_t>(Stat.st_nlink, 1));
                } else if (S_ISDIR(Stat.st_mode) && Stat.st_dev == Device) {
                    Left.push_back(Path.empty() ? Entry : Path + "/" + Entry);
                }
            });
        }
        if (Error != 0 && Error != ENOENT) {
            return fmt::format("its quota cannot be counted: {}: {}", Path.empty() ? "." : Path, strerror(Error));
        }
    }
    return {};
}

std::string WithoutLinks(int Fd) {
    std::error_code Error;
    return std::filesystem::read_symlink(fmt::format("/proc/self/fd/{}", Fd), Error).string();
}

uint64_t NextSerial() {
    static std::atomic<uint64_t> Last = 0;
    return ++Last;
}

// The export that the thread has found last, by the beginning of the path that named it.
struct VolumeFound {
    uint64_t In = 0; // the ServedVolumes'; 0 = none
    std::u16string Spelled;
    Export *Volume = nullptr;
};
thread_local VolumeFound LastFound;

RVPSTATUS NTAPI QueryInterface(RVP_OBJECT *Self, const GUID *Iid, PVOID *Out) {
    if (Out == nullptr || Iid == nullptr) {
        return RVPSTATUS::BadPointer;
    }
    *Out = nullptr;
    if (memcmp(Iid, &IID_Provider, sizeof(GUID)) != 0) {
        return RVPSTATUS::NoSuchClass;
    }
    DirectoryProvider::State::Of(reinterpret_cast<RVIOM_FSD *>(Self)).References.fetch_add(1);
    *Out = Self;
    return RVPSTATUS::Success;
}

ULONG NTAPI AddRef(RVIOM_FSD *Self) {
    return DirectoryProvider::State::Of(Self).References.fetch_add(1) + 1;
}

ULONG NTAPI Release(RVIOM_FSD *Self) {
    std::atomic<uint32_t> &References = DirectoryProvider::State::Of(Self).References;
    uint32_t Before = References.load();
    // One release too many must not make the count wrap.
    while (Before != 0 && !References.compare_exchange_weak(Before, Before - 1)) {
    }
    return Before == 0 ? 0 : Before - 1;
}

RVIOM_FSD_TABLE MakeTable() {
    RVIOM_FSD_TABLE Table{};
    Table.QueryInterface = reinterpret_cast<PVOID>(&QueryInterface);
    Table.AddRef = reinterpret_cast<PVOID>(&AddRef);
    Table.Release = &Release;
    FillVolumeSlots(Table);
    FillFolderSlots(Table);
    FillEnumerationSlots(Table);
    FillFileSlots(Table);
    FillTransferSlots(Table);
    return Table;
}

} // namespace

Export::Export(std::u16string_view ServerName, std::u16string_view VolumeName, std::filesystem::path Path, UniqueFd Fd,
               const ExportOptions &Chosen)
    : Server(ServerName), Volume(VolumeName), FoldedServer(Fold(Server)), FoldedVolume(Fold(Volume)),
      Directory(std::move(Path)), Absolute(WithoutLinks(Fd.Get())), Options(Chosen),
      How(Chosen.UseOpenat2 ? BestConfinement() : Confinement::Walk), Root(std::move(Fd)), Serial(NextSerial()),
      Names(&OpenForNames, this, Chosen.UseNotifications),
      Known(Root.Get(), Chosen.UseNotifications && How == Confinement::Kernel) {
    struct stat Stat {};
    if (fstat(Root.Get(), &Stat) == 0) {
        RootRef = {Root.Get(), KeyOf(Stat), ""};
    }
    MakeIdentifier(Root.Get(), RootRef.Key, Identifier);
    NoteFileSystem(Root.Get());
}

int Export::Open(const DirectoryRef &Base, const std::string &Path, int Flags) const {
    const int Opened = OpenBeneath(How, Base.Fd, Path, Flags);
    if (Opened >= 0 || errno != EXDEV || How == Confinement::Walk) {
        return Opened;
    }
    // A link leads up from the base or is absolute, and may still stay inside the export. That can be seen only from
    // the root, and is right only while the base is still where it was opened.
    if (!(Base.Key == RootRef.Key)) {
        const UniqueFd Again(OpenBeneath(How, Root.Get(), std::string(Base.FromRoot), O_PATH | O_DIRECTORY));
        struct stat Stat;
        if (!Again || fstat(Again.Get(), &Stat) != 0 || !(KeyOf(Stat) == Base.Key)) {
            errno = EXDEV;
            return -1;
        }
    }
    return OpenFollowing(Root.Get(), Absolute, fmt::format("{}/{}", Base.FromRoot, Path), Flags);
}

RVSTATUS Export::Charge(int64_t Bytes) {
    if (Options.QuotaBytes == 0) {
        return RVSTATUS::Success;
    }
    int64_t Before = Used.load();
    do {
        if (Bytes > 0 &&
            static_cast<uint64_t>(std::max<int64_t>(Before, 0)) + static_cast<uint64_t>(Bytes) > Options.QuotaBytes) {
            return Failure(CODE_QUOTA_EXCEEDED);
        }
    } while (!Used.compare_exchange_weak(Before, std::max<int64_t>(Before + Bytes, 0)));
    return RVSTATUS::Success;
}

RVSTATUS NeedHolderKey(const Place &At, Resolved &Found) {
    struct stat Stat;
    if (Found.HolderKey == ObjectKey()) {
        if (fstat(HolderOf(At, Found), &Stat) != 0) {
            return StatusFromErrno(errno);
        }
        Found.HolderKey = KeyOf(Stat);
    }
    return RVSTATUS::Success;
}

RVSTATUS LockNewName(const Place &At, Resolved &Found, NewName &Out) {
    if (const RVSTATUS Status = NeedHolderKey(At, Found); RvIsError(Status)) {
        return Status;
    }
    Out.Hold = At.Volume->Changes.Acquire(Found.HolderKey);
    return At.Volume->Names.Resolve({HolderOf(At, Found), Found.HolderKey, {}}, LastComponent(At.Path), Out.Found,
                                    true);
}

int LookThrough(const Place &At, const std::string &Path, Looked &Out) {
    Out.Fd = UniqueFd(At.Volume->Open(At.Ref, Path, O_PATH));
    Out.Error = Out.Fd && fstat(Out.Fd.Get(), &Out.Stat) == 0 ? 0 : errno;
    return Out.Error;
}

int LookAt(const Place &At, const std::string &Path, Looked &Out) {
    const int Error = LookThrough(At, Path, Out);
    if (Error != ENOENT && Error != ELOOP && Error != EXDEV && Error != ENOTDIR && Error != EACCES) {
        return Error;
    }
    // A link that leads nowhere, round or out is there itself.
    Out.Fd = UniqueFd(At.Volume->Open(At.Ref, Path, O_PATH | O_NOFOLLOW));
    return Out.Fd && fstat(Out.Fd.Get(), &Out.Stat) == 0 && S_ISLNK(Out.Stat.st_mode) ? 0 : Error;
}

std::string PathFromRoot(const Place &At, const Resolved &Found) {
    std::string Whole;
    Whole.reserve(At.Ref.FromRoot.size() + Found.Parent.size() + Found.Name.size() + 2);
    Whole = At.Ref.FromRoot;
    for (const std::string &Part : {std::cref(Found.Parent), std::cref(Found.Name)}) {
        if (!Whole.empty() && !Part.empty()) {
            Whole.push_back('/');
        }
        Whole += Part;
    }
    return Whole;
}

std::string PathFromRoot(const Place &At, Resolved &&Found) {
    return At.Ref.FromRoot.empty() && Found.Parent.empty() ? std::move(Found.Name)
                                                           : PathFromRoot(At, std::as_const(Found));
}

std::u16string_view TakeComponent(std::u16string_view &Path) {
    Path.remove_prefix(std::min(Path.find_first_not_of(Separator), Path.size()));
    const std::u16string_view Component = Path.substr(0, Path.find(Separator));
    Path.remove_prefix(Component.size());
    return Component;
}

std::u16string_view VolumePart(PCWSTR Path) {
    PCWSTR End = Path;
    for (int Component = 0; Component < 2; ++Component) {
        for (; *End == Separator; ++End) {
        }
        for (; *End != 0 && *End != Separator; ++End) {
        }
    }
    return {Path, static_cast<size_t>(End - Path)};
}

std::string FaultOfNames(std::u16string_view Server, std::u16string_view Volume) {
    constexpr std::u16string_view Forbidden = u"\\/:*?\"<>|";
    for (const std::u16string_view Name : {Server, Volume}) {
        if (Name.empty() || Name.find_first_of(Forbidden) != Name.npos || Name.size() > 255) {
            return "a server and a volume name are needed, as in \\\\server\\volume";
        }
    }
    return {};
}

ULONG64 FileIdOf(const Export &Volume, const ObjectKey &Key) {
    // A file system mounted inside the export has inode numbers of its own.
    return Key.Device == Volume.RootRef.Key.Device ? Key.Inode : Mix(Key.Inode ^ Mix(Key.Device));
}

} // namespace providers::directory

namespace providers {

using namespace directory;

DirectoryProvider::State::State() {
    static const RVIOM_FSD_TABLE Operations = MakeTable();
    Table = &Operations;
    PublishVolumes();
}

void DirectoryProvider::State::PublishVolumes() {
    auto Now = std::make_unique<ServedVolumes>();
    Now->Serial = NextSerial();
    for (const auto &Each : Exports) {
        Now->Exports.push_back(Each.get());
    }
    for (const auto &Each : Links) {
        Now->Links.push_back(Each.get());
    }
    Published.push_back(std::move(Now));
    Served.store(Published.back().get(), std::memory_order_release);
}

RVSTATUS DirectoryProvider::State::FindVolume(std::u16string_view Path, NamedVolume &Found) const {
    const ServedVolumes &Now = *Served.load(std::memory_order_acquire);
    VolumeFound &Mine = LastFound;
    if (Mine.In == Now.Serial && Same(Path.substr(0, Mine.Spelled.size()), Mine.Spelled) &&
        (Path.size() == Mine.Spelled.size() || Path[Mine.Spelled.size()] == Separator)) {
        Found = {Mine.Volume, nullptr, Path.substr(Mine.Spelled.size())};
        return RVSTATUS::Success;
    }
    const PCWSTR Begin = Path.data();
    const std::u16string_view Server = TakeComponent(Path);
    const std::u16string_view Volume = TakeComponent(Path);
    bool KnownServer = false;
    const auto IsNamed = [&](const auto &Candidate) {
        if (!FoldsTo(Server, Candidate.FoldedServer)) {
            return false;
        }
        KnownServer = true;
        return FoldsTo(Volume, Candidate.FoldedVolume);
    };
    for (Export *Candidate : Now.Exports) {
        if (IsNamed(*Candidate)) {
            Found = {Candidate, nullptr, Path};
            Mine.In = 0;
            Mine.Spelled.assign(Begin, Path.data());
            Mine.Volume = Candidate;
            Mine.In = Now.Serial;
            return RVSTATUS::Success;
        }
    }
    for (const Link *Candidate : Now.Links) {
        if (IsNamed(*Candidate)) {
            Found = {Candidate->Target, Candidate, Path};
            return RVSTATUS::Success;
        }
    }
    return Failure(KnownServer ? RVFS_UNRECOGNIZED_VOLUME : RVFS_UNKNOWN_SERVER);
}

RVSTATUS DirectoryProvider::State::Locate(RVHANDLE Base, PCWSTR Path, Place &Out) {
    if (Path == nullptr) {
        return RVSTATUS::InvalidParameter;
    }
    if (Base == 0) {
        NamedVolume Found;
        if (const RVSTATUS Status = FindVolume({Path, LengthOf(Path)}, Found); RvIsError(Status)) {
            return Status;
        }
        Out.Volume = Found.Volume;
        Out.Path = Found.Rest;
        if (Found.Through == nullptr) {
            Out.Ref = Out.Volume->RootRef;
            return RVSTATUS::Success;
        }
        const RVSTATUS Status = OpenLinked(*Found.Through, Out.LinkRoot);
        if (!RvIsError(Status)) {
            Out.Ref = Out.LinkRoot->Ref();
        }
        return Status;
    }
    Out.Base = Open.Acquire(Base, KIND_FOLDER);
    if (!Out.Base) {
        return RVSTATUS::InvalidHandle;
    }
    Out.Volume = Out.Base->Volume;
    Out.Ref = Out.Base->Ref();
    Out.Path = {Path, LengthOf(Path)};
    return RVSTATUS::Success;
}

RVSTATUS DirectoryProvider::State::Publish(std::unique_ptr<Object> New, RVHANDLE *Handle) {
    *Handle = Open.Insert(std::move(New));
    return *Handle != 0 ? RVSTATUS::Success : Failure(0x0504);
}

DirectoryProvider::DirectoryProvider() : State_(std::make_unique<State>()) {
}

DirectoryProvider::~DirectoryProvider() = default;

std::string DirectoryProvider::AddExport(std::u16string_view Server, std::u16string_view Volume,
                                         const std::filesystem::path &Directory, const ExportOptions &Options) {
    if (const std::string Fault = FaultOfNames(Server, Volume); !Fault.empty()) {
        return fmt::format("cannot export {}: {}", Directory.string(), Fault);
    }
    const UniqueFd Named(open(Directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!Named) {
        return fmt::format("cannot export {}: {}", Directory.string(), strerror(errno));
    }
    UniqueFd Root(openat(Named.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!Root) {
        return fmt::format("cannot export {}: it cannot be read: {}", Directory.string(), strerror(errno));
    }
    std::error_code Ignored;
    std::filesystem::path Shown = std::filesystem::absolute(Directory, Ignored);
    auto New = std::make_unique<Export>(Server, Volume, std::move(Shown), std::move(Root), Options);
    if (Options.QuotaBytes != 0) {
        int64_t Total = 0;
        const std::string Fault = SizeOfTree(New->Root.Get(), New->RootRef.Key.Device, Total);
        if (!Fault.empty()) {
            return fmt::format("cannot export {}: {}", Directory.string(), Fault);
        }
        New->Used = Total;
    }
    const std::lock_guard Hold(State_->ExportsMutex);
    for (const auto &Other : State_->Exports) {
        if (Other->FoldedServer == New->FoldedServer && Other->FoldedVolume == New->FoldedVolume) {
            return fmt::format("cannot export {}: its volume name already serves {}", Directory.string(),
                               Other->Directory.string());
        }
    }
    for (const auto &Other : State_->Links) {
        if (Other->FoldedServer == New->FoldedServer && Other->FoldedVolume == New->FoldedVolume) {
            return fmt::format("cannot export {}: its volume name is a link already", Directory.string());
        }
    }
    State_->Exports.push_back(std::move(New));
    State_->PublishVolumes();
    return {};
}

std::string DirectoryProvider::AddExport(std::u16string_view UncName, const std::filesystem::path &Directory,
                                         const ExportOptions &Options) {
    std::u16string_view Rest = UncName;
    const std::u16string_view Server = TakeComponent(Rest);
    const std::u16string_view Volume = TakeComponent(Rest);
    if (Rest.find_first_not_of(Separator) != Rest.npos) {
        return fmt::format("cannot export {}: the name must be \\\\server\\volume, without a path after it",
                           Directory.string());
    }
    return AddExport(Server, Volume, Directory, Options);
}

RVIOM_FSD *DirectoryProvider::Interface() {
    State_->References.fetch_add(1);
    return State_.get();
}

std::vector<DirectoryProvider::OpenHandle> DirectoryProvider::ListOpenHandles() const {
    std::vector<OpenHandle> All;
    State_->Open.ForEach([&](RVHANDLE Handle, const Object &Item) {
        const char *Kind = Item.Kind == KIND_VOLUME ? "volume" : Item.Kind == KIND_DIRECTORY ? "directory" : "file";
        const bool Unopened = Item.Kind == KIND_FILE && static_cast<const FileObject &>(Item).Unopened;
        All.push_back({Handle, Kind, (Item.Volume->Directory / Item.FromRoot).string(),
                       FileIdOf(*Item.Volume, Item.Key), Unopened ? -1 : Item.Fd()});
    });
    return All;
}

size_t DirectoryProvider::RaiseDescriptorLimit() {
    rlimit Limit{};
    if (getrlimit(RLIMIT_NOFILE, &Limit) != 0) {
        return 0;
    }
    rlimit Wanted{Limit.rlim_max, Limit.rlim_max};
    // Who may go beyond the hard limit gets what a million open files need.
    constexpr rlim_t Plenty = 1u << 20;
    if (const rlimit More{Plenty, Plenty}; Limit.rlim_max < Plenty && setrlimit(RLIMIT_NOFILE, &More) == 0) {
        return Plenty;
    }
    return setrlimit(RLIMIT_NOFILE, &Wanted) == 0 ? Wanted.rlim_cur : Limit.rlim_cur;
}

std::vector<DirectoryProvider::ExportInfo> DirectoryProvider::Exports() const {
    std::vector<ExportInfo> All;
    for (const Export *Item : State_->Served.load(std::memory_order_acquire)->Exports) {
        All.push_back({Item->Server, Item->Volume, Item->Directory, Item->Options, Item->Names.Scans()});
    }
    return All;
}

} // namespace providers
