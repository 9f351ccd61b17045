// Opening, creating and closing files, and the access of an open one: slots 18, 19 and 50.
#include <atomic>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "providers/directory/last_look.h"
#include "providers/directory/names.h"
#include "providers/directory/state.h"

namespace providers::directory {
namespace {

using State = DirectoryProvider::State;
using Sec = RV_SECURITY_CONTEXT *;

constexpr int Attempts = 8;
constexpr ULONG ActionReplaced = 3;
constexpr ULONG ReadData = RV_ACCESS_READ | RV_ACCESS_EXECUTE;

// One request of slot 18.
struct Request {
    ULONG Access;
    ULONG Share;
    ULONG Disposition;
    ULONG Options;
    ULONG Attributes;

    bool Query() const {
        return Disposition == RV_DISPOSITION_QUERY;
    }
    bool Creates() const {
        return Disposition == RV_DISPOSITION_CREATE_NEW || Disposition == RV_DISPOSITION_CREATE_OR_REPLACE ||
               Disposition == RV_DISPOSITION_OPEN_OR_CREATE;
    }
    bool Replaces() const {
        return Disposition == RV_DISPOSITION_CREATE_OR_REPLACE || Disposition == RV_DISPOSITION_OVERWRITE_EXISTING;
    }
    // Access that the open of an existing file makes use of: replacing writes.
    ULONG Uses() const {
        return Query() ? 0 : Access | (Replaces() ? RV_ACCESS_WRITE : 0u);
    }
};

struct Result {
    std::unique_ptr<FileObject> File;
    ULONG Action = 0;
    bool Again = false; // the tree changed under the operation: start over
};

// Open flags for the access bits; a descriptor that only names the file when no data is to be moved.
int FlagsFor(ULONG Access, ULONG Options) {
    const bool Read = (Access & ReadData) != 0;
    const bool Write = (Access & RV_ACCESS_WRITE) != 0;
    if (!Read && !Write) {
        return O_PATH;
    }
    // Nothing but regular files is served; without O_NONBLOCK a pipe put in place of one would block the open.
    return (Read && Write ? O_RDWR
            : Write       ? O_WRONLY
                          : O_RDONLY) |
           O_NONBLOCK | O_NOCTTY | ((Options & RV_OPTION_WRITE_THROUGH) != 0 ? O_DSYNC : 0);
}

RVSTATUS CheckKind(const Looked &There, const Request &Wanted) {
    if (S_ISDIR(There.Stat.st_mode)) {
        return Failure(CODE_IS_A_DIRECTORY);
    }
    // Of a link that cannot be followed and of what is no regular file there are no data.
    const bool Data = (Wanted.Uses() & (ReadData | RV_ACCESS_WRITE)) != 0;
    if (Data && There.Error != 0) {
        return There.Error == ENOENT && Wanted.Creates() ? Failure(CODE_EXISTS) : StatusFromLookup(There.Error);
    }
    if (Data && !S_ISREG(There.Stat.st_mode)) {
        return RVSTATUS::AccessDenied;
    }
    return (Wanted.Uses() & RV_ACCESS_WRITE) != 0 && IsReadOnlyMode(There.Stat.st_mode) ? RVSTATUS::AccessDenied
                                                                                        : RVSTATUS::Success;
}

// Empties a file that is to be replaced and gives it the new attributes.
RVSTATUS Empty(const FileObject &File, const Request &Wanted) {
    const std::lock_guard Hold(File.Node->SizeMutex());
    struct stat Stat;
    if (fstat(File.Fd(), &Stat) != 0 || ftruncate(File.Fd(), 0) != 0) {
        return StatusFromErrno(errno);
    }
    static_cast<void>(File.Volume->Charge(-Stat.st_size));
    const AfterChange Count(*File.Volume);
    const RVSTATUS Changed =
        Wanted.Attributes != 0 ? ChangeMetadata(File.Fd(), {&Wanted.Attributes}) : RVSTATUS::Success;
    File.Node->NoteWrite();
    return Changed;
}

// Enters the file among the opens of its inode.
RVSTATUS Join(FileObject &File, ULONG Uses, const Request &Wanted) {
    File.Node = File.Nodes.Acquire(File.Key);
    return File.Node->Share(&File, File.LockFd(), Uses, Wanted.Share);
}

// Whether Fd, the lowest that was free, is the highest that there may be.
bool IsLastDescriptor(int Fd) {
    static std::atomic<rlim_t> Known = 0;
    if (static_cast<rlim_t>(Fd) + 1 < Known) {
        return false;
    }
    rlimit Limit{};
    if (getrlimit(RLIMIT_NOFILE, &Limit) != 0) {
        return false;
    }
    Known = Limit.rlim_cur;
    return static_cast<rlim_t>(Fd) + 1 >= Limit.rlim_cur;
}

// Makes There's descriptor one with those flags, of the very file. False with errno; a known file whose handle leads to
// nothing any more is forgotten, and the next look is an ordinary one.
bool OpenLooked(const Place &At, const std::string &FromRoot, Looked &There, const Request &Wanted, int Flags) {
    if (There.IsKnown()) {
        if (Wanted.Query()) {
            return true;
        }
        There.Fd = UniqueFd(At.Volume->Known.Open(There.Handle, Flags));
        if (!There.Fd) {
            const int Error = errno;
            At.Volume->Known.Forget(FromRoot);
            errno = Error;
        }
        return static_cast<bool>(There.Fd);
    }
    if ((Flags & O_PATH) == 0) {
        UniqueFd Opened(OpenAgain(There.Fd.Get(), Flags));
        if (!Opened) {
            return false;
        }
        There.Fd = std::move(Opened);
    }
    return true;
}

// A known file was opened and joined by what is remembered of it: what it is by now. The driver asks for the same next.
RVSTATUS CheckKnown(FileObject &File, const Request &Wanted, Looked &There, Result &Out) {
    const struct statx *Now = nullptr;
    if (const RVSTATUS Status = ReadAndKeepStatus(File, Now); RvIsError(Status)) {
        return Status;
    }
    if (Now->stx_nlink != 1) {
        File.Volume->Known.Forget(File.FromRoot);
        Out.Again = Now->stx_nlink == 0;
    }
    There.Stat.st_mode = Now->stx_mode;
    return Out.Again ? Failure(CODE_NO_SUCH_FILE) : CheckKind(There, Wanted);
}

// FromRoot is the path of what was looked at.
RVSTATUS OpenExisting(State &Provider, const Place &At, std::string &&FromRoot, Looked &There, const Request &Wanted,
                      Result &Out) {
    if (Wanted.Disposition == RV_DISPOSITION_CREATE_NEW) {
        return Failure(CODE_EXISTS);
    }
    const bool IsKnown = static_cast<bool>(There.Handle); // by what is remembered; a query may have opened it since
    if (const RVSTATUS Status = CheckKind(There, Wanted); RvIsError(Status)) {
        if (IsKnown) {
            At.Volume->Known.Forget(FromRoot); // its mode may be another one by now
            Out.Again = true;
        }
        if (Wanted.Query() && S_ISDIR(There.Stat.st_mode)) {
            NoteDirectory(At, There, std::move(FromRoot));
        }
        return Status;
    }
    if (At.Volume->Options.ReadOnly && (Wanted.Uses() & RV_ACCESS_WRITE) != 0) {
        return RVSTATUS::AccessDenied;
    }
    const int Flags = FlagsFor(Wanted.Uses(), Wanted.Options);
    if (!OpenLooked(At, FromRoot, There, Wanted, Flags)) {
        Out.Again = static_cast<bool>(There.Handle);
        return StatusFromErrno(errno);
    }
    auto File = std::make_unique<FileObject>(At.Volume, std::move(There.Fd), Flags, KeyOf(There.Stat),
                                             std::move(FromRoot), Provider.Nodes);
    if (Wanted.Query()) {
        File->Handle = There.Handle;
        File->Unopened = !File->Own;
        if (File->Own && IsLastDescriptor(File->Fd())) {
            return StatusFromErrno(EMFILE); // the open that follows takes two, and could not say why it fails
        }
        NoteQuery(At, There, *File);
    } else {
        if (const RVSTATUS Status = Join(*File, Wanted.Uses(), Wanted); RvIsError(Status)) {
            return Status;
        }
        if (const RVSTATUS Status = IsKnown ? CheckKnown(*File, Wanted, There, Out) : RVSTATUS::Success;
            RvIsError(Status)) {
            return Status;
        }
        File->Access = Wanted.Access;
    }
    Out.Action = RV_CREATE_ACTION_OPENED;
    if (Wanted.Replaces()) {
        if (const RVSTATUS Status = Empty(*File, Wanted); RvIsError(Status)) {
            return Status;
        }
        // From here on only what was asked for counts; it is less, so it cannot be refused.
        static_cast<void>(File->Node->Share(File.get(), File->LockFd(), Wanted.Access, Wanted.Share));
        Out.Action = ActionReplaced;
    }
    Out.File = std::move(File);
    return RVSTATUS::Success;
}

RVSTATUS CreateNew(State &Provider, const Place &At, Resolved &Missing, const Request &Wanted, Result &Out) {
    if (At.Volume->Options.ReadOnly) {
        return RVSTATUS::AccessDenied;
    }
    NewName New;
    if (const RVSTATUS Status = LockNewName(At, Missing, New); RvIsError(Status)) {
        return Status;
    }
    if (New.Found.Exists) {
        Out.Again = true; // someone else was first
        return Failure(CODE_EXISTS);
    }
    const AfterChange Count(*At.Volume);
    const int Parent = HolderOf(At, Missing);
    const int Flags = O_RDWR | O_NOCTTY | ((Wanted.Options & RV_OPTION_WRITE_THROUGH) != 0 ? O_DSYNC : 0);
    UniqueFd Fd(openat(Parent, Missing.Name.c_str(), Flags | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!Fd) {
        Out.Again = errno == EEXIST;
        return errno == ENOENT ? Failure(RVFS_PATH_NOT_FOUND) : StatusFromErrno(errno);
    }
    struct stat Stat;
    RVSTATUS Status = fstat(Fd.Get(), &Stat) == 0 ? RVSTATUS::Success : StatusFromErrno(errno);
    if (!RvIsError(Status) && Wanted.Attributes != 0) {
        Status = ChangeMetadata(Fd.Get(), {&Wanted.Attributes});
    }
    if (RvIsError(Status)) {
        // A file without what was asked for is not the one that was asked for.
        unlinkat(Parent, Missing.Name.c_str(), 0);
        return Status;
    }
    auto File = std::make_unique<FileObject>(At.Volume, std::move(Fd), Flags, KeyOf(Stat), PathFromRoot(At, Missing),
                                             Provider.Nodes);
    if (Status = Join(*File, Wanted.Access, Wanted); RvIsError(Status)) {
        return Status;
    }
    File->Access = Wanted.Access;
    Out.File = std::move(File);
    Out.Action = RV_CREATE_ACTION_CREATED;
    return RVSTATUS::Success;
}

// What the path leads to, as LookThrough has it or as a known file, and so that it will be one when it is met again.
int LookForFile(const Place &At, const std::string &Path, Looked &There) {
    KnownFiles &Known = At.Volume->Known;
    if (!IsBelowRoot(At)) {
        return LookThrough(At, Path, There);
    }
    if (Known.Look(Path, There.Stat, There.Handle)) {
        return 0;
    }
    There.Handle = {};
    const int Error = LookThrough(At, Path, There);
    if (Error == 0) {
        Known.Note(Path, There.Fd.Get(), There.Stat);
    }
    return Error;
}

// Whether the directory that holds Path is no link and is reached without one: what is known of it may be told.
bool IsReachedPlainly(KnownFiles &Known, std::string_view Path) {
    const std::string_view Directory = Path.substr(0, Path.find('/') == Path.npos ? 0 : Path.rfind('/'));
    // ResolveKnown itself has seen that the last one is no link.
    return Known.IsPlain(Directory.find('/') == Directory.npos ? std::string_view() : Directory);
}

// What At.Path leads to: as it is spelled, in bytes Exact if it can be that of an entry, which is used up, or else in
// any case, for which what the file system does not know is looked up. There is what was found; an error with
// Found.Exists is that of a name that is known and could not be looked at.
RVSTATUS FindEntry(const Place &At, std::optional<std::string> &Exact, bool Creates, Resolved &Found, Looked &There) {
    NameCache &Names = At.Volume->Names;
    const bool MayBeKnown = Exact && At.Volume->How == Confinement::Kernel;
    const bool AskFirst = MayBeKnown && Names.WasOtherwiseSpelled(At.Ref, *Exact);
    if (AskFirst && Names.ResolveKnown(At.Ref, At.Path, *Exact, Found)) {
        if (Found.Exists && Found.Path() != *Exact) {
            const int Error = LookForFile(At, Found.Path(), There);
            return StatusFromLookup(Error == 0 ? 0 : LookAt(At, Found.Path(), There));
        }
        if (!Found.Exists && !Creates && IsBelowRoot(At) && IsReachedPlainly(At.Volume->Known, *Exact)) {
            return RVSTATUS::Success;
        }
    }
    // What is not there may be a link that leads nowhere: the look-up knows.
    int Error = Exact ? LookForFile(At, *Exact, There) : ENOENT;
    if (Error != 0 && Error != ENOENT) {
        Error = LookAt(At, *Exact, There);
    }
    if (Error == 0) {
        if (AskFirst) {
            Names.NoteOtherwiseSpelled(At.Ref, *Exact, false);
        }
        Found = {};
        Found.Name = std::move(*Exact);
        Found.Exists = true;
        return RVSTATUS::Success;
    }
    Found.Exists = false;
    if (Error != ENOENT && Error != ENOTDIR) {
        return StatusFromLookup(Error);
    }
    const bool Missing = Exact && Error == ENOENT;
    if (!Missing || !MayBeKnown || Creates || !Names.ResolveKnown(At.Ref, At.Path, *Exact, Found)) {
        if (const RVSTATUS Status = Names.Resolve(At.Ref, At.Path, Found, Missing); RvIsError(Status)) {
            Found.Exists = false; // whatever a directory before it was
            return Status;
        }
    }
    if (Missing) {
        Names.NoteOtherwiseSpelled(At.Ref, *Exact, true);
    }
    return Found.Exists ? StatusFromLookup(LookAt(At, Found.Path(), There)) : RVSTATUS::Success;
}

// One attempt: what the caller has just asked about, then what there is.
RVSTATUS OpenOnce(State &Provider, const Place &At, const Request &Wanted, Result &Out) {
    Looked There;
    if (std::string Seen; TakeLook(At, Wanted.Query(), There, Seen)) {
        return OpenExisting(Provider, At, std::move(Seen), There, Wanted, Out);
    }
    if (Wanted.Query() && WasMissing(At)) {
        return Failure(CODE_NO_SUCH_FILE);
    }
    if (Wanted.Query() && IsAboveMissing(At)) {
        return Failure(CODE_IS_A_DIRECTORY);
    }
    if (Wanted.Query()) {
        BeginQuery(At);
    }
    Resolved Found;
    std::optional<std::string> Exact = NativePath(At.Path);
    if (Exact && Exact->empty()) {
        return Wanted.Disposition == RV_DISPOSITION_CREATE_NEW ? Failure(CODE_EXISTS) : Failure(CODE_IS_A_DIRECTORY);
    }
    const auto Create = [&] {
        const RVSTATUS Status = CreateNew(Provider, At, Found, Wanted, Out);
        if (!RvIsError(Status) && Exact) {
            At.Volume->Names.NoteOtherwiseSpelled(At.Ref, *Exact, false); // it was missing until now
        }
        return Status;
    };
    if (Exact && Wanted.Creates() && TakeMissing(At) && At.Volume->Names.OpenHolder(At.Ref, *Exact, Found)) {
        return Create();
    }
    if (const RVSTATUS Status = FindEntry(At, Exact, Wanted.Creates(), Found, There); RvIsError(Status)) {
        Out.Again = Found.Exists && There.Error == ENOENT; // it went just now
        return Status;
    }
    if (Found.Exists) {
        return OpenExisting(Provider, At, PathFromRoot(At, std::move(Found)), There, Wanted, Out);
    }
    if (Wanted.Query()) {
        NoteMissing(At);
    }
    return Wanted.Creates() ? Create() : Failure(CODE_NO_SUCH_FILE);
}

RVSTATUS OpenOrCreate(State &Provider, const Place &At, const Request &Wanted, Result &Out) {
    RVSTATUS Status = Failure(CODE_NO_SUCH_FILE);
    for (int Attempt = 0; Attempt < Attempts; ++Attempt) {
        Status = OpenOnce(Provider, At, Wanted, Out);
        if (!Out.Again) {
            return Status;
        }
        Out = {};
    }
    // The last attempt's answer; a name that comes and goes all the time is in the way of a create.
    return Wanted.Creates() ? Failure(CODE_EXISTS) : Status;
}

RVSTATUS NTAPI CreateFile(RVIOM_FSD *Self, Sec, RVHANDLE Base, PCWSTR Path, ULONG Access, ULONG Share,
                          ULONG Disposition, ULONG Options, ULONG Attributes, RVHANDLE *File, ULONG *CreateAction) {
    return Guarded([&] {
        Store(File, 0u);
        Store(CreateAction, 0u);
        if (File == nullptr || Disposition > RV_DISPOSITION_OVERWRITE_EXISTING) {
            return RVSTATUS::InvalidParameter;
        }
        Place At;
        if (const RVSTATUS Status = State::Of(Self).Locate(Base, Path, At); RvIsError(Status)) {
            return Status;
        }
        Result Opened;
        const Request Wanted{Access, Share, Disposition, Options, Attributes & RV_ATTR_SETTABLE};
        if (!Wanted.Query()) {
            PendingDeletes::ForgetDeleted();
        }
        if (const RVSTATUS Status = OpenOrCreate(State::Of(Self), At, Wanted, Opened); RvIsError(Status)) {
            return Status;
        }
        if ((Options & RV_OPTION_RESERVE_DELETE) != 0) {
            Opened.File->DeleteReserved = true;
            At.Volume->Doomed.Reserve(Opened.File->FromRoot, Opened.File->Key);
        }
        Store(CreateAction, Opened.Action);
        return State::Of(Self).Publish(std::move(Opened.File), File);
    });
}

RVSTATUS NTAPI CloseFile(RVIOM_FSD *Self, Sec, RVHANDLE File) {
    return State::Of(Self).Open.Close(File, KIND_FILE) ? RVSTATUS::Success : RVSTATUS::InvalidHandle;
}

// Re-opens the very file that is open, with the flags for more access, under the same descriptor number.
RVSTATUS Reopen(FileObject &File, ULONG Access, ULONG Options) {
    const int Flags = FlagsFor(Access, Options);
    const UniqueFd Fd(OpenAgain(File.Fd(), Flags));
    if (!Fd || dup3(Fd.Get(), File.Fd(), O_CLOEXEC) < 0) {
        return StatusFromErrno(errno);
    }
    File.OpenFlags = Flags;
    return RVSTATUS::Success;
}

RVSTATUS CheckReservation(const FileObject &File, const struct stat &Stat) {
    if (File.Volume->Options.ReadOnly || IsReadOnlyMode(Stat.st_mode)) {
        return RVSTATUS::AccessDenied;
    }
    return File.Node->CheckDelete(&File);
}

bool Covers(int Flags, ULONG Access) {
    const int Mode = Flags & O_ACCMODE;
    const bool Named = (Flags & O_PATH) != 0;
    const bool Read = !Named && Mode != O_WRONLY;
    const bool Write = !Named && Mode != O_RDONLY;
    return (Read || (Access & ReadData) == 0) && (Write || (Access & RV_ACCESS_WRITE) == 0);
}

RVSTATUS ChangeAccess(FileObject &File, ULONG Access, ULONG Share, ULONG Options) {
    const std::lock_guard Hold(File.AccessMutex);
    RVSTATUS Again = RVSTATUS::Success;
    const bool Reserve = (Options & RV_OPTION_RESERVE_DELETE) != 0;
    const bool MoreWriting = (Access & ~File.Access.load() & RV_ACCESS_WRITE) != 0;
    const bool Data = (Access & (ReadData | RV_ACCESS_WRITE)) != 0;
    struct stat Stat;
    if ((Data || Reserve) && fstat(File.Fd(), &Stat) != 0) {
        return StatusFromErrno(errno);
    }
    if (Data && !S_ISREG(Stat.st_mode)) {
        return RVSTATUS::AccessDenied;
    }
    if (MoreWriting && (File.Volume->Options.ReadOnly || IsReadOnlyMode(Stat.st_mode))) {
        return RVSTATUS::AccessDenied;
    }
    if (Reserve) {
        if (const RVSTATUS Status = CheckReservation(File, Stat); RvIsError(Status)) {
            return Status;
        }
    }
    if (!Covers(File.OpenFlags, Access)) {
        if (const RVSTATUS Status = Reopen(File, Access | File.Access.load(), Options); RvIsError(Status)) {
            return Status;
        }
        Again = File.Node->SetAgain(&File, File.LockFd());
    }
    if (const RVSTATUS Status = File.Node->Share(&File, File.LockFd(), Access, Share); RvIsError(Status)) {
        return Status;
    }
    if (RvIsError(Again)) {
        return Again; // somebody else's lock came between
    }
    File.Access = Access;
    if (Reserve) {
        File.Volume->Doomed.Reserve(File.PathNow(), File.Key);
    } else if (File.DeleteReserved) {
        File.Volume->Doomed.Cancel(File.PathNow(), File.Key);
    }
    File.DeleteReserved = Reserve;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI ModifyFileAccess(RVIOM_FSD *Self, Sec, RVHANDLE Handle, ULONG Access, ULONG Share, ULONG Options) {
    return Guarded([&] {
        const auto Found = State::Of(Self).Open.Acquire(Handle, KIND_FILE);
        if (!Found) {
            return RVSTATUS::InvalidHandle;
        }
        auto &File = static_cast<FileObject &>(*Found);
        // A query open has no access that could be changed.
        return File.Node == nullptr ? RVSTATUS::AccessDenied : ChangeAccess(File, Access, Share, Options);
    });
}

} // namespace

void FillFileSlots(RVIOM_FSD_TABLE &Table) {
    Table.RVFsdCreateFile = &CreateFile;
    Table.RVFsdCloseFile = &CloseFile;
    Table.RVFsdModifyFileAccess = &ModifyFileAccess;
}

} // namespace providers::directory
