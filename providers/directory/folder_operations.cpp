// Directories: create, open, information, delete; and what files share with them: delete and move by name.
// Slots 10 to 15, 17, 20 and 21.
#include <cerrno>
#include <optional>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "providers/directory/last_look.h"
#include "providers/directory/names.h"
#include "providers/directory/state.h"

namespace providers::directory {
namespace {

using State = DirectoryProvider::State;
using Sec = RV_SECURITY_CONTEXT *;

enum class Kind : uint8_t { File, Directory };

// How often an operation starts over because the tree changed between look-up and act.
constexpr int Attempts = 8;

RVSTATUS NTAPI CreateDirectory(RVIOM_FSD *Self, Sec, RVHANDLE Base, PCWSTR Path) {
    return Guarded([&] {
        PendingDeletes::ForgetDeleted();
        ForgetLook();
        Place At;
        if (const RVSTATUS Status = State::Of(Self).Locate(Base, Path, At); RvIsError(Status)) {
            return Status;
        }
        Resolved Found;
        if (const RVSTATUS Status = At.Volume->Names.Resolve(At.Ref, At.Path, Found); RvIsError(Status)) {
            return Status;
        }
        NewName New;
        if (!Found.Exists) {
            if (const RVSTATUS Status = LockNewName(At, Found, New); RvIsError(Status)) {
                return Status;
            }
        }
        if (Found.Exists || New.Found.Exists) {
            return Failure(CODE_EXISTS);
        }
        if (At.Volume->Options.ReadOnly) {
            return RVSTATUS::AccessDenied;
        }
        const AfterChange Count(*At.Volume);
        if (mkdirat(HolderOf(At, Found), New.Found.Name.c_str(), 0777) == 0) {
            return RVSTATUS::Success;
        }
        return errno == ENOENT ? Failure(RVFS_PATH_NOT_FOUND) : StatusFromErrno(errno);
    });
}

RVSTATUS NTAPI OpenDirectory(RVIOM_FSD *Self, Sec, RVHANDLE Base, PCWSTR Path, RVHANDLE *Directory) {
    return Guarded([&] {
        if (Directory == nullptr) {
            return RVSTATUS::InvalidParameter;
        }
        *Directory = 0;
        Place At;
        if (const RVSTATUS Status = State::Of(Self).Locate(Base, Path, At); RvIsError(Status)) {
            return Status;
        }
        std::unique_ptr<Object> Opened;
        if (const RVSTATUS Status = OpenFolder(At, KIND_DIRECTORY, Opened); RvIsError(Status)) {
            return Status;
        }
        return State::Of(Self).Publish(std::move(Opened), Directory);
    });
}

RVSTATUS NTAPI CloseDirectory(RVIOM_FSD *Self, Sec, RVHANDLE Directory) {
    return Guarded([&] {
        Handles &Open = State::Of(Self).Open;
        if (const auto Found = Open.Acquire(Directory, KIND_DIRECTORY)) {
            Found->Volume->Doomed.DirectoryClosed(Found->FromRoot, Found->Key);
        }
        return Open.Close(Directory, KIND_DIRECTORY) ? RVSTATUS::Success : RVSTATUS::InvalidHandle;
    });
}

RVSTATUS NTAPI GetDirectoryInformation(RVIOM_FSD *Self, Sec, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation,
                                       LONG64 *LastWrite, LONG64 *LastAccess) {
    return Guarded([&] {
        const auto Found = State::Of(Self).Open.Acquire(Directory, KIND_FOLDER);
        if (!Found) {
            return RVSTATUS::InvalidHandle;
        }
        Metadata Data;
        const RVSTATUS Status = ReadMetadata(Found->Fd(), true, Data);
        if (!RvIsError(Status)) {
            Store(Attributes, Data.Attributes);
            Store(Creation, Data.Creation);
            Store(LastWrite, Data.LastWrite);
            Store(LastAccess, Data.LastAccess);
        }
        return Status;
    });
}

RVSTATUS NTAPI SetDirectoryInformation(RVIOM_FSD *Self, Sec, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation,
                                       LONG64 *LastWrite, LONG64 *LastAccess) {
    return Guarded([&] {
        const auto Found = State::Of(Self).Open.Acquire(Directory, KIND_FOLDER);
        if (!Found) {
            return RVSTATUS::InvalidHandle;
        }
        if (Found->Volume->Options.ReadOnly) {
            return RVSTATUS::AccessDenied;
        }
        const AfterChange Count(*Found->Volume);
        return ChangeMetadata(Found->Fd(), {Attributes, Creation, LastWrite, LastAccess});
    });
}

// The entry itself, as it was seen when its name was looked up or, failing that, is now. Returns an error number.
int LookAtEntry(const Place &At, const Resolved &Found, struct stat &Stat) {
    if (Found.Entry) {
        Stat = *Found.Entry;
        return 0;
    }
    return fstatat(HolderOf(At, Found), Found.Name.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

// A link to a directory is taken for the directory: it is the link that goes then.
bool LeadsToDirectory(const Place &At, const Resolved &Found, const struct stat &Stat) {
    if (!S_ISLNK(Stat.st_mode)) {
        return S_ISDIR(Stat.st_mode);
    }
    return static_cast<bool>(UniqueFd(At.Volume->Open(At.Ref, Found.Path(), O_PATH | O_DIRECTORY)));
}

// A file tells by its mode that it is read-only, a directory by what is kept with it.
RVSTATUS CheckErasable(State &Provider, int Parent, const std::string &Name, const struct stat &Stat) {
    if (S_ISDIR(Stat.st_mode)) {
        const ULONG Attributes = KeptAttributesOf(Parent, Name.c_str(), Stat);
        return (Attributes & RV_ATTR_READONLY) != 0 ? RVSTATUS::AccessDenied : RVSTATUS::Success;
    }
    return IsReadOnlyMode(Stat.st_mode) ? RVSTATUS::AccessDenied : Provider.Nodes.CheckDelete(KeyOf(Stat));
}

// What the handle named that this deletion comes from: behind a link what it leads to.
bool IsMeant(const Place &At, const Resolved &Found, const struct stat &Stat, Kind Wanted) {
    ObjectKey Key = KeyOf(Stat);
    if (S_ISLNK(Stat.st_mode)) {
        Looked Behind;
        Key = LookAt(At, Found.Path(), Behind) == 0 ? KeyOf(Behind.Stat) : Key;
    }
    return At.Volume->Doomed.Take(PathFromRoot(At, Found), Key, Wanted == Kind::Directory);
}

RVSTATUS Delete(State &Provider, RVHANDLE Base, PCWSTR Path, Kind Wanted) {
    PendingDeletes::ForgetDeleted();
    ForgetLook();
    Place At;
    if (const RVSTATUS Status = Provider.Locate(Base, Path, At); RvIsError(Status)) {
        return Status;
    }
    Resolved Found;
    if (const RVSTATUS Status = At.Volume->Names.Resolve(At.Ref, At.Path, Found); RvIsError(Status)) {
        return Status;
    }
    if (!Found.Exists) {
        return Failure(CODE_NO_SUCH_FILE);
    }
    if (Found.Name.empty() || At.Volume->Options.ReadOnly) {
        return RVSTATUS::AccessDenied;
    }
    const AfterChange Count(*At.Volume);
    const int Parent = HolderOf(At, Found);
    struct stat Stat;
    if (const int Error = LookAtEntry(At, Found, Stat); Error != 0) {
        return StatusFromErrno(Error);
    }
    if (LeadsToDirectory(At, Found, Stat) != (Wanted == Kind::Directory)) {
        return Failure(Wanted == Kind::Directory ? USHORT{RVFS_NOT_A_DIRECTORY} : CODE_IS_A_DIRECTORY);
    }
    if (!IsMeant(At, Found, Stat, Wanted)) {
        // The name leads to another object by now, and that is not to go.
        return Failure(Wanted == Kind::Directory ? USHORT{RVFS_PATH_NOT_FOUND} : CODE_NO_SUCH_FILE);
    }
    if (const RVSTATUS Status = CheckErasable(Provider, Parent, Found.Name, Stat); RvIsError(Status)) {
        return Status;
    }
    // The flag makes sure that what became a directory, or a file, meanwhile is not deleted as the other kind.
    if (unlinkat(Parent, Found.Name.c_str(), S_ISDIR(Stat.st_mode) ? AT_REMOVEDIR : 0) != 0) {
        return StatusFromErrno(errno == EEXIST ? ENOTEMPTY : errno);
    }
    if (S_ISREG(Stat.st_mode) && Stat.st_nlink == 1) {
        static_cast<void>(At.Volume->Charge(-Stat.st_size));
    }
    if (Wanted == Kind::File) {
        At.Volume->Doomed.Deleted(PathFromRoot(At, std::move(Found)));
    }
    return RVSTATUS::Success;
}

RVSTATUS NTAPI DeleteDirectory(RVIOM_FSD *Self, Sec, RVHANDLE Base, PCWSTR Path) {
    return Guarded([&] { return Delete(State::Of(Self), Base, Path, Kind::Directory); });
}

RVSTATUS NTAPI DeleteFile(RVIOM_FSD *Self, Sec, RVHANDLE Base, PCWSTR Path) {
    return Guarded([&] { return Delete(State::Of(Self), Base, Path, Kind::File); });
}

// Whether a file system that ignores case finds the entry that Old is of under this name too: nothing else leads to the
// same object twice.
bool IsSameEntry(const struct stat &Old, int Holder, const char *Name) {
    struct stat There;
    return fstatat(Holder, Name, &There, AT_SYMLINK_NOFOLLOW) == 0 && KeyOf(There) == KeyOf(Old) &&
           (S_ISDIR(Old.st_mode) || Old.st_nlink == 1);
}

// Gives an entry another spelling where the file system takes both for one name. A plain rename does nothing there and
// reports success, so the entry gets a third name in between. When it cannot get the new spelling then, it gets the old
// one back. Returns an error number.
int Respell(int Holder, const char *OldName, const char *NewName, ino_t Inode) {
    const std::string Between = fmt::format(".rvfsd-renamed-{:x}-{:x}", getpid(), Inode);
    if (renameat2(Holder, OldName, Holder, Between.c_str(), RENAME_NOREPLACE) != 0) {
        return errno;
    }
    if (renameat2(Holder, Between.c_str(), Holder, NewName, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    const int Error = errno;
    return renameat2(Holder, Between.c_str(), Holder, OldName, RENAME_NOREPLACE) == 0 ? Error : EIO;
}

// Renames without replacing anything. File systems that do not know the flag: a link made first for files, and for
// directories the kernel's own refusal of a target that is not empty, after a look.
int RenameToFree(int From, const char *OldName, int To, const char *NewName, bool Directory) {
    if (renameat2(From, OldName, To, NewName, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    struct stat There;
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    if (fstatat(To, NewName, &There, AT_SYMLINK_NOFOLLOW) == 0) {
        return EEXIST;
    }
    if (!Directory) {
        if (linkat(From, OldName, To, NewName, 0) == 0) {
            return unlinkat(From, OldName, 0) == 0 ? 0 : errno;
        }
        if (errno == EEXIST) {
            return EEXIST;
        }
    }
    // EINVAL of the move itself, such as a directory below itself, is met again here.
    return renameat(From, OldName, To, NewName) == 0 ? 0 : errno;
}

// The name that a rename of Old to itself, but for the case, is to leave.
RVSTATUS Respelled(const Place &Target, const Resolved &Old, std::string &Name) {
    const std::optional<std::string> Spelled = NativeName(LastComponent(Target.Path));
    Name = Spelled.value_or(Old.Name);
    return Spelled ? RVSTATUS::Success : Failure(CODE_NAME_INVALID);
}

// Stat is that of the entry From.
RVSTATUS Rename(const Place &Source, const Resolved &From, const struct stat &Stat, const Place &Target,
                const Resolved &To, const NewName &New, Kind Wanted) {
    const std::string &OldName = From.Name;
    const int OldHolder = HolderOf(Source, From);
    if (LeadsToDirectory(Source, From, Stat) != (Wanted == Kind::Directory)) {
        return Failure(Wanted == Kind::Directory ? USHORT{RVFS_NOT_A_DIRECTORY} : CODE_IS_A_DIRECTORY);
    }
    // A target that is the source itself under another case is no obstacle.
    const bool Within = New.Found.Exists && From.HolderKey == To.HolderKey;
    const bool Itself = Within && (New.Found.Name == OldName || IsSameEntry(Stat, OldHolder, New.Found.Name.c_str()));
    if (New.Found.Exists && !Itself) {
        return Failure(CODE_EXISTS);
    }
    std::string Name = New.Found.Name;
    if (Itself) {
        if (const RVSTATUS Status = Respelled(Target, From, Name); RvIsError(Status)) {
            return Status;
        }
        if (Name == OldName) {
            return RVSTATUS::Success;
        }
        if (IsSameEntry(Stat, OldHolder, Name.c_str())) {
            return StatusFromErrno(Respell(OldHolder, OldName.c_str(), Name.c_str(), Stat.st_ino));
        }
    }
    return StatusFromErrno(
        RenameToFree(OldHolder, OldName.c_str(), HolderOf(Target, To), Name.c_str(), S_ISDIR(Stat.st_mode)));
}

// Whether the calling thread has just deleted a file of exactly the name that is to be given.
bool TakesPlaceOfDeleted(const Place &Target, const Resolved &To) {
    const std::optional<std::string> Name = NativeName(LastComponent(Target.Path));
    Resolved Exact;
    Exact.Parent = To.Parent;
    Exact.Name = Name.value_or(std::string());
    return Target.Volume->Doomed.TakeDeleted(PathFromRoot(Target, std::move(Exact))) && Name;
}

RVSTATUS Move(State &Provider, RVHANDLE SourceBase, PCWSTR SourcePath, RVHANDLE TargetBase, PCWSTR TargetName,
              Kind Wanted) {
    ForgetLook();
    Place Source;
    Place Target;
    if (const RVSTATUS Status = Provider.Locate(SourceBase, SourcePath, Source); RvIsError(Status)) {
        return Status;
    }
    if (const RVSTATUS Status = Provider.Locate(TargetBase, TargetName, Target); RvIsError(Status)) {
        return Status;
    }
    if (Source.Volume != Target.Volume) {
        return Failure(CODE_NOT_SAME_VOLUME);
    }
    Export &In = *Source.Volume;
    const AfterChange Count(In);
    Resolved From;
    Resolved To;
    if (const RVSTATUS Status = In.Names.Resolve(Source.Ref, Source.Path, From); RvIsError(Status)) {
        return Status;
    }
    if (!From.Exists) {
        return Failure(CODE_NO_SUCH_FILE);
    }
    if (From.Name.empty() || In.Options.ReadOnly) {
        return RVSTATUS::AccessDenied;
    }
    RVSTATUS Status = In.Names.Resolve(Target.Ref, Target.Path, To);
    // A file that is replaced was deleted just now; that others differ from it in case alone was no obstacle to it, and
    // is none to what takes its place.
    const bool Replaces = Wanted == Kind::File && TakesPlaceOfDeleted(Target, To);
    if (RvIsError(Status) && !(Replaces && Status == Failure(CODE_EXISTS))) {
        return Status;
    }
    if (To.Name.empty()) {
        return Failure(CODE_EXISTS);
    }
    if (Status = NeedHolderKey(Source, From); RvIsError(Status)) {
        return Status;
    }
    NewName New;
    Status = LockNewName(Target, To, New);
    if (Replaces && (Status == Failure(CODE_EXISTS) || New.Found.Exists)) {
        New.Found.Exists = false; // the rename itself sees whether that very name is there again
        New.Found.Name = *NativeName(LastComponent(Target.Path));
    } else if (RvIsError(Status)) {
        return Status;
    }
    struct stat Stat;
    if (const int Error = LookAtEntry(Source, From, Stat); Error != 0) {
        return StatusFromErrno(Error);
    }
    Status = Rename(Source, From, Stat, Target, To, New, Wanted);
    if (!RvIsError(Status)) {
        const std::string Old = PathFromRoot(Source, From);
        const std::string Now = PathFromRoot(Target, To);
        Provider.Nodes.ForEachOwner(KeyOf(Stat), [&](const void *Owner) {
            const auto &File = *static_cast<const FileObject *>(Owner);
            if (File.Volume == &In) {
                File.NoteMoved(Old, Now);
            }
        });
        In.Doomed.Moved(Old, Now, KeyOf(Stat));
    }
    return Status;
}

RVSTATUS NTAPI MoveDirectory(RVIOM_FSD *Self, Sec, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
                             PCWSTR TargetName) {
    return Guarded([&] { return Move(State::Of(Self), SourceBase, Source, TargetBase, TargetName, Kind::Directory); });
}

RVSTATUS NTAPI MoveFile(RVIOM_FSD *Self, Sec, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
                        PCWSTR TargetName) {
    return Guarded([&] { return Move(State::Of(Self), SourceBase, Source, TargetBase, TargetName, Kind::File); });
}

} // namespace

RVSTATUS OpenFolder(const Place &At, unsigned Kind, std::unique_ptr<Object> &Opened) {
    RVSTATUS Status = Failure(CODE_NO_SUCH_FILE);
    Looked Before;
    std::string FromRoot;
    if (TakeLook(At, false, Before, FromRoot) && S_ISDIR(Before.Stat.st_mode)) {
        Opened = std::make_unique<FolderObject>(Kind, At.Volume, std::move(Before.Fd), KeyOf(Before.Stat),
                                                std::move(FromRoot));
        return RVSTATUS::Success;
    }
    if (WasMissing(At)) {
        return Status;
    }
    for (int Attempt = 0; Attempt < Attempts; ++Attempt) {
        // The exact spelling first, the look-up for what that does not open.
        Resolved Found;
        const std::optional<std::string> Exact = NativePath(At.Path);
        UniqueFd Fd(Exact ? At.Volume->Open(At.Ref, *Exact, O_PATH | O_DIRECTORY) : -1);
        if (Fd) {
            Found.Name = *Exact;
        } else {
            if (Status = At.Volume->Names.Resolve(At.Ref, At.Path, Found); RvIsError(Status)) {
                return Status;
            }
            if (!Found.Exists) {
                return Failure(CODE_NO_SUCH_FILE);
            }
            Fd = UniqueFd(At.Volume->Open(At.Ref, Found.Path(), O_PATH | O_DIRECTORY));
        }
        struct stat Stat;
        if (Fd && fstat(Fd.Get(), &Stat) == 0) {
            Opened =
                std::make_unique<FolderObject>(Kind, At.Volume, std::move(Fd), KeyOf(Stat), PathFromRoot(At, Found));
            return RVSTATUS::Success;
        }
        // Known by name and not to be found: moved away just now, or a link that leads nowhere.
        const int Error = errno;
        Status = StatusFromLookup(Error);
        if (Error != ENOENT || Found.Type == DT_LNK) {
            return Status;
        }
    }
    return Status;
}

void FillFolderSlots(RVIOM_FSD_TABLE &Table) {
    Table.RVFsdCreateDirectory = &CreateDirectory;
    Table.RVFsdOpenDirectory = &OpenDirectory;
    Table.RVFsdGetDirectoryInformation = &GetDirectoryInformation;
    Table.RVFsdSetDirectoryInformation = &SetDirectoryInformation;
    Table.RVFsdCloseDirectory = &CloseDirectory;
    Table.RVFsdDeleteDirectory = &DeleteDirectory;
    Table.RVFsdDeleteFile = &DeleteFile;
    Table.RVFsdMoveDirectory = &MoveDirectory;
    Table.RVFsdMoveFile = &MoveFile;
}

} // namespace providers::directory
