// Directories: create, open, information, delete; and what files share with them: delete and move by name.
// Slots 10 to 15, 17, 20 and 21.
#include <cerrno>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
        Place At;
        if (const RVSTATUS Status = State::Of(Self).Locate(Base, Path, At); RvIsError(Status)) {
            return Status;
        }
        const std::lock_guard Hold(At.Volume->Changes);
        Resolved Found;
        if (const RVSTATUS Status = At.Volume->Names.Resolve(At.Ref, At.Path, Found); RvIsError(Status)) {
            return Status;
        }
        if (Found.Exists) {
            return Failure(CODE_EXISTS);
        }
        if (At.Volume->Options.ReadOnly) {
            return RVSTATUS::AccessDenied;
        }
        UniqueFd Parent;
        if (const RVSTATUS Status = OpenParent(At, Found, Parent); RvIsError(Status)) {
            return Status;
        }
        if (mkdirat(Parent.Get(), Found.Name.c_str(), 0777) == 0) {
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
    return State::Of(Self).Open.Close(Directory, KIND_DIRECTORY) ? RVSTATUS::Success : RVSTATUS::InvalidHandle;
}

RVSTATUS NTAPI GetDirectoryInformation(RVIOM_FSD *Self, Sec, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation,
                                       LONG64 *LastWrite, LONG64 *LastAccess) {
    return Guarded([&] {
        const auto Found = State::Of(Self).Open.Acquire(Directory, KIND_FOLDER);
        if (!Found) {
            return RVSTATUS::InvalidHandle;
        }
        Metadata Data;
        const RVSTATUS Status = ReadMetadata(Found->Fd.Get(), Data);
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
        return ChangeMetadata(Found->Fd.Get(), {Attributes, Creation, LastWrite, LastAccess});
    });
}

// A link to a directory is taken for the directory: it is the link that goes then.
bool LeadsToDirectory(const Place &At, const Resolved &Found, const struct stat &Stat) {
    if (!S_ISLNK(Stat.st_mode)) {
        return S_ISDIR(Stat.st_mode);
    }
    return static_cast<bool>(UniqueFd(At.Volume->Open(At.Ref, Found.Path(), O_PATH | O_DIRECTORY)));
}

RVSTATUS CheckErasable(State &Provider, int Parent, const Resolved &Found) {
    Metadata Data;
    if (const RVSTATUS Status = ReadEntryMetadata(Parent, Found.Name.c_str(), Data); RvIsError(Status)) {
        return Status;
    }
    if ((Data.Attributes & RV_ATTR_READONLY) != 0) {
        return RVSTATUS::AccessDenied;
    }
    return Provider.Nodes.CheckDelete(Data.Key);
}

RVSTATUS Delete(State &Provider, RVHANDLE Base, PCWSTR Path, Kind Wanted) {
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
    UniqueFd Parent;
    if (const RVSTATUS Status = OpenParent(At, Found, Parent); RvIsError(Status)) {
        return Status;
    }
    struct stat Stat;
    if (fstatat(Parent.Get(), Found.Name.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) != 0) {
        return StatusFromErrno(errno);
    }
    if (LeadsToDirectory(At, Found, Stat) != (Wanted == Kind::Directory)) {
        return Failure(Wanted == Kind::Directory ? USHORT{RVFS_NOT_A_DIRECTORY} : CODE_IS_A_DIRECTORY);
    }
    if (const RVSTATUS Status = CheckErasable(Provider, Parent.Get(), Found); RvIsError(Status)) {
        return Status;
    }
    // The flag makes sure that what became a directory, or a file, meanwhile is not deleted as the other kind.
    if (unlinkat(Parent.Get(), Found.Name.c_str(), S_ISDIR(Stat.st_mode) ? AT_REMOVEDIR : 0) != 0) {
        return StatusFromErrno(errno == EEXIST ? ENOTEMPTY : errno);
    }
    if (S_ISREG(Stat.st_mode) && Stat.st_nlink == 1) {
        static_cast<void>(At.Volume->Charge(-Stat.st_size));
    }
    return RVSTATUS::Success;
}

RVSTATUS NTAPI DeleteDirectory(RVIOM_FSD *Self, Sec, RVHANDLE Base, PCWSTR Path) {
    return Guarded([&] { return Delete(State::Of(Self), Base, Path, Kind::Directory); });
}

RVSTATUS NTAPI DeleteFile(RVIOM_FSD *Self, Sec, RVHANDLE Base, PCWSTR Path) {
    return Guarded([&] { return Delete(State::Of(Self), Base, Path, Kind::File); });
}

// Renames without replacing anything. File systems that do not know the flag: a link made first for files, and for
// directories the kernel's own refusal of a target that is not empty, after a look.
int RenameToFree(int From, const char *OldName, int To, const char *NewName, bool Directory) {
    if (renameat2(From, OldName, To, NewName, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    struct stat There;
    struct stat Here;
    if (errno == EEXIST) {
        // A file system that itself ignores case finds the source under the new spelling.
        const bool Same = fstatat(To, NewName, &There, AT_SYMLINK_NOFOLLOW) == 0 &&
                          fstatat(From, OldName, &Here, AT_SYMLINK_NOFOLLOW) == 0 && KeyOf(There) == KeyOf(Here) &&
                          There.st_nlink == 1;
        return !Same ? EEXIST : renameat(From, OldName, To, NewName) == 0 ? 0 : errno;
    }
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

RVSTATUS Rename(const Place &Source, const Resolved &Old, const Place &Target, const Resolved &New, Kind Wanted) {
    UniqueFd From;
    UniqueFd To;
    if (const RVSTATUS Status = OpenParent(Source, Old, From); RvIsError(Status)) {
        return Status;
    }
    if (const RVSTATUS Status = OpenParent(Target, New, To); RvIsError(Status)) {
        return Status;
    }
    struct stat Stat;
    struct stat FromStat;
    struct stat ToStat;
    if (fstatat(From.Get(), Old.Name.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) != 0 || fstat(From.Get(), &FromStat) != 0 ||
        fstat(To.Get(), &ToStat) != 0) {
        return StatusFromErrno(errno);
    }
    if (LeadsToDirectory(Source, Old, Stat) != (Wanted == Kind::Directory)) {
        return Failure(Wanted == Kind::Directory ? USHORT{RVFS_NOT_A_DIRECTORY} : CODE_IS_A_DIRECTORY);
    }
    // A target that is the source itself under another case is no obstacle.
    const bool Itself = New.Exists && KeyOf(FromStat) == KeyOf(ToStat) && New.Name == Old.Name;
    if (New.Exists && !Itself) {
        return Failure(CODE_EXISTS);
    }
    std::string Name = New.Name;
    if (Itself) {
        const size_t Cut = Target.Path.find_last_not_of(u'\\');
        const std::u16string_view Trimmed = Target.Path.substr(0, Cut + 1);
        const size_t Slash = Trimmed.rfind(u'\\');
        const auto Spelled = NativeName(Slash == Trimmed.npos ? Trimmed : Trimmed.substr(Slash + 1));
        if (!Spelled) {
            return Failure(CODE_NAME_INVALID);
        }
        Name = *Spelled;
        if (Name == Old.Name) {
            return RVSTATUS::Success;
        }
    }
    return StatusFromErrno(RenameToFree(From.Get(), Old.Name.c_str(), To.Get(), Name.c_str(), S_ISDIR(Stat.st_mode)));
}

RVSTATUS Move(State &Provider, RVHANDLE SourceBase, PCWSTR SourcePath, RVHANDLE TargetBase, PCWSTR TargetName,
              Kind Wanted) {
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
    const std::lock_guard Hold(Source.Volume->Changes);
    Resolved Old;
    Resolved New;
    if (const RVSTATUS Status = Source.Volume->Names.Resolve(Source.Ref, Source.Path, Old); RvIsError(Status)) {
        return Status;
    }
    if (!Old.Exists) {
        return Failure(CODE_NO_SUCH_FILE);
    }
    if (Old.Name.empty() || Source.Volume->Options.ReadOnly) {
        return RVSTATUS::AccessDenied;
    }
    if (const RVSTATUS Status = Target.Volume->Names.Resolve(Target.Ref, Target.Path, New); RvIsError(Status)) {
        return Status;
    }
    if (New.Name.empty()) {
        return Failure(CODE_EXISTS);
    }
    return Rename(Source, Old, Target, New, Wanted);
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
    for (int Attempt = 0; Attempt < Attempts; ++Attempt) {
        Resolved Found;
        if (Status = At.Volume->Names.Resolve(At.Ref, At.Path, Found); RvIsError(Status)) {
            return Status;
        }
        if (!Found.Exists) {
            return Failure(CODE_NO_SUCH_FILE);
        }
        UniqueFd Fd(At.Volume->Open(At.Ref, Found.Path(), O_PATH | O_DIRECTORY));
        struct stat Stat;
        if (Fd && fstat(Fd.Get(), &Stat) == 0) {
            Opened =
                std::make_unique<FolderObject>(Kind, At.Volume, std::move(Fd), KeyOf(Stat), PathFromRoot(At, Found));
            return RVSTATUS::Success;
        }
        const int Error = errno;
        Status = StatusFromLookup(Error);
        if (Error != ENOENT) {
            return Status;
        }
        // Known by name and not to be found: moved away just now, or a link that leads nowhere.
        if (Attempt != 0) {
            At.Volume->Names.Forget();
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
