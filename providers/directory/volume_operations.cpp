// Operations on volumes, and those that take a handle of any kind: slots 3 to 7, 27, 48 and 49.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "providers/directory/last_look.h"
#include "providers/directory/state.h"

namespace providers::directory {
namespace {

using State = DirectoryProvider::State;
using Sec = RV_SECURITY_CONTEXT *;

RVSTATUS OpenRoot(Export *In, std::unique_ptr<Object> &Opened) {
    Opened = std::make_unique<FolderObject>(KIND_VOLUME, In, UniqueFd(), In->RootRef.Key, std::string());
    return RVSTATUS::Success;
}

RVSTATUS NTAPI OpenVolume(RVIOM_FSD *Self, Sec, PCWSTR VolumePath, RVHANDLE *Volume) {
    return Guarded([&] {
        if (VolumePath == nullptr || Volume == nullptr) {
            return RVSTATUS::InvalidParameter;
        }
        *Volume = 0;
        NamedVolume Found;
        if (const RVSTATUS Status = State::Of(Self).FindVolume(VolumePath, Found); RvIsError(Status)) {
            return Status;
        }
        if (Found.Rest.find_first_not_of(u'\\') != Found.Rest.npos) {
            return Failure(RVFS_UNRECOGNIZED_VOLUME);
        }
        std::unique_ptr<Object> Opened;
        if (const RVSTATUS Status =
                Found.Through != nullptr ? OpenLinked(*Found.Through, Opened) : OpenRoot(Found.Volume, Opened);
            RvIsError(Status)) {
            return Status;
        }
        NoteVolumeOpened();
        return State::Of(Self).Publish(std::move(Opened), Volume);
    });
}

RVSTATUS NTAPI CloseVolume(RVIOM_FSD *Self, Sec, RVHANDLE Volume) {
    NoteVolumeClosed();
    return State::Of(Self).Open.Close(Volume, KIND_VOLUME) ? RVSTATUS::Success : RVSTATUS::InvalidHandle;
}

RVSTATUS NTAPI GetVolumeInformation(RVIOM_FSD *Self, Sec, RVHANDLE Volume, ULONG *Flags, UCHAR *Identifier, PVOID,
                                    PVOID) {
    const auto Found = State::Of(Self).Open.Acquire(Volume, KIND_VOLUME);
    if (!Found) {
        return RVSTATUS::InvalidHandle;
    }
    const Export &In = *Found->Volume;
    Store(Flags, RV_VOLUME_IDENTIFIER_VALID | (In.Options.QuotaBytes != 0 ? RV_VOLUME_USER_QUOTAS : 0u));
    if (Identifier != nullptr) {
        memcpy(Identifier, In.Identifier, sizeof In.Identifier);
    }
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetVolumeSize(RVIOM_FSD *Self, Sec, RVHANDLE Volume, ULONG64 *Length, ULONG64 *Free,
                             ULONG64 *QuotaAllowed, ULONG64 *FreeAfterQuota) {
    const auto Found = State::Of(Self).Open.Acquire(Volume, KIND_VOLUME);
    if (!Found) {
        return RVSTATUS::InvalidHandle;
    }
    struct statvfs Info;
    if (fstatvfs(Found->Fd(), &Info) != 0) {
        return StatusFromErrno(errno);
    }
    const ULONG64 Total = static_cast<ULONG64>(Info.f_blocks) * Info.f_frsize;
    const ULONG64 Available = static_cast<ULONG64>(Info.f_bavail) * Info.f_frsize;
    const Export &In = *Found->Volume;
    const ULONG64 Quota = In.Options.QuotaBytes;
    const auto Used = static_cast<ULONG64>(std::max<int64_t>(In.Used.load(), 0));
    Store(Length, Total);
    Store(Free, Available);
    Store(QuotaAllowed, Quota != 0 ? Quota : Total);
    // Without a quota the plain free space: callers compare with this figure in any case.
    Store(FreeAfterQuota, Quota == 0 ? Available : std::min(Available, Quota > Used ? Quota - Used : 0));
    return RVSTATUS::Success;
}

RVSTATUS NTAPI QueryPathForVolume(RVIOM_FSD *Self, Sec, PCWSTR FullPath, PWSTR Buffer) {
    return Guarded([&] {
        if (FullPath == nullptr || Buffer == nullptr) {
            return RVSTATUS::InvalidParameter;
        }
        Buffer[0] = 0;
        NamedVolume Found;
        if (const RVSTATUS Status = State::Of(Self).FindVolume(VolumePart(FullPath), Found); RvIsError(Status)) {
            return Status;
        }
        // At most 2 * (1 + 255) units: always fits. A link's own name: it is as long as what it stands for in FullPath.
        static_assert((2 * 256 + 1) * sizeof(WCHAR) <= RV_PATH_BUFFER_BYTES);
        PWSTR At = Buffer;
        for (const std::u16string *Name : {&Found.Server(), &Found.Name()}) {
            *At++ = u'\\';
            memcpy(At, Name->data(), Name->size() * sizeof(WCHAR));
            At += Name->size();
        }
        *At = 0;
        return RVSTATUS::Success;
    });
}

RVSTATUS NTAPI GetFileId(RVIOM_FSD *Self, Sec, RVHANDLE Handle, ULONG64 *FileId) {
    const auto Found = State::Of(Self).Open.Acquire(Handle, KIND_ANY);
    if (!Found) {
        return RVSTATUS::InvalidHandle;
    }
    Store(FileId, FileIdOf(*Found->Volume, Found->Key));
    return RVSTATUS::Success;
}

// An entry and the directory that holds it, as they can be asked about.
struct EntryPlace {
    UniqueFd Opened;
    int From = -1;
    std::string Entry; // below From, as is the directory
    std::string Holder;
};

// Looks at the entry of that path below the root. Where the way to its directory is known to be plain nothing is opened
// for it: the path leads to the same, and only questions are asked by it.
RVSTATUS LookAtErased(Export &In, const std::string &FromRoot, EntryPlace &Out, struct stat &Stat) {
    const size_t Slash = FromRoot.rfind('/');
    const std::string Parent = Slash == std::string::npos ? "" : FromRoot.substr(0, Slash);
    if (Parent.empty() || (FromRoot.size() < PATH_MAX && In.Known.IsPlain(Parent))) {
        Out.From = In.Root.Get();
        Out.Entry = FromRoot;
        Out.Holder = Parent.empty() ? "." : Parent;
        if (fstatat(Out.From, Out.Entry.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) == 0) {
            return RVSTATUS::Success;
        }
    }
    Out.Opened = UniqueFd(In.Open(In.RootRef, Parent, O_PATH | O_DIRECTORY));
    if (!Out.Opened) {
        return StatusFromLookup(errno);
    }
    Out.From = Out.Opened.Get();
    Out.Entry = FromRoot.substr(Slash + 1);
    Out.Holder = ".";
    return fstatat(Out.From, Out.Entry.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) == 0 ? RVSTATUS::Success
                                                                                 : StatusFromErrno(errno);
}

// The right to erase is a right on the directory that holds the name. The directory is looked up again; when the name
// leads to something else by now, the object of the handle is not there to be erased.
RVSTATUS MayErase(const Object &Item, bool &May) {
    May = false;
    if (Item.Volume->Options.ReadOnly) {
        return RVSTATUS::Success;
    }
    // A root is never erased itself; it is asked on behalf of the names in it.
    if (Item.Kind == KIND_VOLUME || Item.FromRoot.empty()) {
        May = faccessat(Item.Fd(), ".", W_OK | X_OK, AT_EACCESS) == 0;
        return May || errno == EACCES || errno == EROFS ? RVSTATUS::Success : StatusFromErrno(errno);
    }
    Export &In = *Item.Volume;
    EntryPlace At;
    struct stat Stat;
    if (const RVSTATUS Status = LookAtErased(In, Item.FromRoot, At, Stat); RvIsError(Status)) {
        return Status;
    }
    const uid_t Owner = Stat.st_uid;
    if (S_ISLNK(Stat.st_mode) && !(KeyOf(Stat) == Item.Key)) {
        // The object is what the link leads to.
        const UniqueFd Behind(In.Open(In.RootRef, Item.FromRoot, O_PATH));
        if (!Behind || fstat(Behind.Get(), &Stat) != 0) {
            return StatusFromLookup(errno);
        }
    }
    if (!(KeyOf(Stat) == Item.Key)) {
        return Failure(CODE_NO_SUCH_FILE);
    }
    if (faccessat(At.From, At.Holder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return errno == EACCES || errno == EROFS ? RVSTATUS::Success : StatusFromErrno(errno);
    }
    // In a sticky directory the names of others stay.
    static thread_local const uid_t Me = geteuid(); // a thread does not become another user once it serves
    May = Me == 0 || Me == Owner;
    if (!May && fstatat(At.From, At.Holder.c_str(), &Stat, 0) != 0) {
        return StatusFromErrno(errno);
    }
    May = May || (Stat.st_mode & S_ISVTX) == 0 || Me == Stat.st_uid;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetEffectiveRights(RVIOM_FSD *Self, Sec, RVHANDLE Handle, USHORT *Rights) {
    return Guarded([&] {
        const auto Found = State::Of(Self).Open.Acquire(Handle, KIND_ANY);
        if (!Found) {
            return RVSTATUS::InvalidHandle;
        }
        bool May = false;
        const RVSTATUS Status = MayErase(*Found, May);
        Store(Rights, May ? USHORT{RV_RIGHT_ERASE} : USHORT{0});
        return Status;
    });
}

// Only what is named through a link is part of a distributed name space. Whether the rest of the path is there is not
// asked: the name is what is translated.
RVSTATUS NTAPI GetPhysicalPath(RVIOM_FSD *Self, Sec, RVHANDLE, PUNICODE_STRING Path, PUNICODE_STRING Physical) {
    return Guarded([&] {
        if (Path == nullptr || Path->Buffer == nullptr || Physical == nullptr || Physical->Buffer == nullptr) {
            return RVSTATUS::InvalidParameter;
        }
        NamedVolume Found;
        const std::u16string_view Asked(Path->Buffer, Path->Length / sizeof(WCHAR));
        if (RvIsError(State::Of(Self).FindVolume(Asked, Found)) || Found.Through == nullptr) {
            return RVSTATUS::NotDistributedPath;
        }
        std::u16string Answer = Found.Through->Physical();
        for (std::u16string_view Name; !(Name = TakeComponent(Found.Rest)).empty();) {
            Answer.append(u"\\").append(Name);
        }
        const size_t Bytes = Answer.size() * sizeof(WCHAR);
        if (Bytes + sizeof(WCHAR) > Physical->MaximumLength) {
            return Failure(CODE_NAME_INVALID);
        }
        memcpy(Physical->Buffer, Answer.c_str(), Bytes + sizeof(WCHAR));
        Physical->Length = static_cast<USHORT>(Bytes);
        return RVSTATUS::Success;
    });
}

} // namespace

void FillVolumeSlots(RVIOM_FSD_TABLE &Table) {
    Table.RVFsdOpenVolume = &OpenVolume;
    Table.RVFsdCloseVolume = &CloseVolume;
    Table.RVFsdGetVolumeInformation = &GetVolumeInformation;
    Table.RVFsdGetVolumeSize = &GetVolumeSize;
    Table.RVFsdQueryPathForVolume = &QueryPathForVolume;
    Table.RVFsdGetFileId = &GetFileId;
    Table.RVFsdGetEffectiveRights = &GetEffectiveRights;
    Table.RVFsdGetDFSPhysicalPath = &GetPhysicalPath;
}

} // namespace providers::directory
