#include "providers/directory/directory_provider.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "provider/framework.h"
#include "providers/directory/names.h"
#include "providers/directory/state.h"

namespace providers::directory {
namespace {

constexpr char16_t Separator = u'\\';

int OpenForNames(void *Context, const DirectoryRef &Base, std::string_view Path, int Flags) {
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

// Sum of the sizes of the files below the directory; links are not followed and other file systems not entered.
int64_t SizeOfTree(int Parent, const char *Name, dev_t Device) {
    const int Fd = openat(Parent, Name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR *Stream = Fd < 0 ? nullptr : fdopendir(Fd);
    if (Stream == nullptr) {
        if (Fd >= 0) {
            close(Fd);
        }
        return 0;
    }
    const std::unique_ptr<DIR, int (*)(DIR *)> Closer(Stream, closedir);
    int64_t Total = 0;
    while (const dirent *Item = readdir(Stream)) {
        struct stat Stat;
        const std::string_view Entry(Item->d_name);
        if (Entry == "." || Entry == ".." || fstatat(Fd, Item->d_name, &Stat, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISREG(Stat.st_mode)) {
            Total += Stat.st_size / static_cast<int64_t>(std::max<nlink_t>(Stat.st_nlink, 1));
        } else if (S_ISDIR(Stat.st_mode) && Stat.st_dev == Device) {
            Total += SizeOfTree(Fd, Item->d_name, Device);
        }
    }
    return Total;
}

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
    : Server(ServerName), Volume(VolumeName), Directory(std::move(Path)), Options(Chosen),
      How(Chosen.UseOpenat2 ? BestConfinement() : Confinement::Walk), Root(std::move(Fd)),
      Names(&OpenForNames, this, Chosen.UseNotifications) {
    struct stat Stat {};
    if (fstat(Root.Get(), &Stat) == 0) {
        RootRef = {Root.Get(), KeyOf(Stat), ""};
    }
    MakeIdentifier(Root.Get(), RootRef.Key, Identifier);
    if (Options.QuotaBytes != 0) {
        Used = SizeOfTree(Root.Get(), ".", RootRef.Key.Device);
    }
}

int Export::Open(const DirectoryRef &Base, std::string_view Path, int Flags) const {
    const int Opened = OpenBeneath(How, Base.Fd, Path, Flags);
    if (Opened >= 0 || errno != EXDEV || Base.FromRoot.empty()) {
        return Opened;
    }
    // A link may lead up from the base and stay inside the export. That can be seen only from the root, and is right
    // only while the base is still where it was opened.
    const UniqueFd Again(OpenBeneath(How, Root.Get(), Base.FromRoot, O_PATH | O_DIRECTORY));
    struct stat Stat;
    if (!Again || fstat(Again.Get(), &Stat) != 0 || !(KeyOf(Stat) == Base.Key)) {
        errno = EXDEV;
        return -1;
    }
    return OpenBeneath(How, Root.Get(), fmt::format("{}/{}", Base.FromRoot, Path), Flags);
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

RVSTATUS OpenParent(const Place &At, const Resolved &Found, UniqueFd &Parent) {
    Parent = UniqueFd(At.Volume->Open(At.Ref, Found.Parent, O_PATH | O_DIRECTORY));
    if (Parent) {
        return RVSTATUS::Success;
    }
    return errno == ENOENT || errno == ENOTDIR ? Failure(RVFS_PATH_NOT_FOUND) : StatusFromLookup(errno);
}

std::string PathFromRoot(const Place &At, const Resolved &Found) {
    const std::string Below = Found.Path();
    return At.Ref.FromRoot.empty() || Below.empty() ? At.Ref.FromRoot + Below : At.Ref.FromRoot + "/" + Below;
}

std::u16string_view TakeComponent(std::u16string_view &Path) {
    Path.remove_prefix(std::min(Path.find_first_not_of(Separator), Path.size()));
    const std::u16string_view Component = Path.substr(0, Path.find(Separator));
    Path.remove_prefix(Component.size());
    return Component;
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
}

RVSTATUS DirectoryProvider::State::FindVolume(std::u16string_view Path, NamedVolume &Found) const {
    const std::u16string Server = Fold(TakeComponent(Path));
    const std::u16string Volume = Fold(TakeComponent(Path));
    bool KnownServer = false;
    const auto IsNamed = [&](const auto &Candidate) {
        if (Fold(Candidate.Server) != Server) {
            return false;
        }
        KnownServer = true;
        return Fold(Candidate.Volume) == Volume;
    };
    const std::shared_lock Hold(ExportsMutex);
    for (const ExportPtr &Candidate : Exports) {
        if (IsNamed(*Candidate)) {
            Found = {Candidate, nullptr, Path};
            return RVSTATUS::Success;
        }
    }
    for (const LinkPtr &Candidate : Links) {
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
        if (const RVSTATUS Status = FindVolume(Path, Found); RvIsError(Status)) {
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
    Out.Path = Path;
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
    UniqueFd Root(open(Directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!Root) {
        return fmt::format("cannot export {}: {}", Directory.string(), strerror(errno));
    }
    const UniqueFd Readable(openat(Root.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!Readable) {
        return fmt::format("cannot export {}: it cannot be read: {}", Directory.string(), strerror(errno));
    }
    std::error_code Ignored;
    std::filesystem::path Shown = std::filesystem::absolute(Directory, Ignored);
    auto New = std::make_shared<Export>(Server, Volume, std::move(Shown), std::move(Root), Options);
    const std::unique_lock Hold(State_->ExportsMutex);
    for (const ExportPtr &Other : State_->Exports) {
        if (Fold(Other->Server) == Fold(Server) && Fold(Other->Volume) == Fold(Volume)) {
            return fmt::format("cannot export {}: its volume name already serves {}", Directory.string(),
                               Other->Directory.string());
        }
    }
    for (const LinkPtr &Other : State_->Links) {
        if (Fold(Other->Server) == Fold(Server) && Fold(Other->Volume) == Fold(Volume)) {
            return fmt::format("cannot export {}: its volume name is a link already", Directory.string());
        }
    }
    State_->Exports.push_back(std::move(New));
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

uint32_t DirectoryProvider::InterfaceReferences() const {
    return State_->References.load();
}

size_t DirectoryProvider::OpenHandles() const {
    return State_->Open.Objects();
}

std::vector<DirectoryProvider::OpenHandle> DirectoryProvider::ListOpenHandles() const {
    std::vector<OpenHandle> All;
    State_->Open.ForEach([&](RVHANDLE Handle, const Object &Item) {
        const char *Kind = Item.Kind == KIND_VOLUME ? "volume" : Item.Kind == KIND_DIRECTORY ? "directory" : "file";
        All.push_back({Handle, Kind, (Item.Volume->Directory / Item.FromRoot).string()});
    });
    return All;
}

std::vector<DirectoryProvider::ExportInfo> DirectoryProvider::Exports() const {
    std::vector<ExportInfo> All;
    const std::shared_lock Hold(State_->ExportsMutex);
    for (const ExportPtr &Item : State_->Exports) {
        All.push_back({Item->Server, Item->Volume, Item->Directory, Item->Options, Item->Names.Scans()});
    }
    return All;
}

} // namespace providers
