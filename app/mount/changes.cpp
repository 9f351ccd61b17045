// Names that come, go and move, and what is refused.
//
// The driver deletes a file with its last handle, refuses to delete what is read-only, and replaces by deleting first.
// Programs expect a name to be gone at once, and nothing to be lost when a replacement fails. So a file that is open,
// and one that is to be replaced, is moved aside first, to a name that the mount does not show.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include "app/mount/file_system.h"
#include "app/mount/request_rings.h"

namespace app::mount {

// What stood under the new name of a rename, to be put back when it fails.
struct Displaced {
    Remote Holder;             // the file, moved aside
    bool WasDirectory = false; // an empty directory, deleted
    bool Any = false;
};

namespace {

constexpr ACCESS_MASK ToDelete = DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES;

// Marks what is open to be deleted. A read-only bit is in the way: it is taken off, and put back when it was in vain.
int Mark(Remote &Handle) {
    int Error = Handle.SetDelete(true);
    Facts Now;
    if (Error == 0 || Handle.Query(&Now) != 0 || !Now.IsReadOnly()) {
        return Error;
    }
    Error = Handle.SetReadOnly(Now, false);
    if (Error == 0) {
        Error = Handle.SetDelete(true);
        if (Error != 0) {
            Handle.SetReadOnly(Now, true);
        }
    }
    return Error;
}

} // namespace

int FileSystem::MakeNode(fuse_req_t Request, fuse_ino_t ParentInode, const char *Name, mode_t Mode, dev_t) {
    Node *Parent = NodeOf(ParentInode);
    if (!S_ISREG(Mode) || Parent->In == nullptr || IsHidden(Parent, Name)) {
        return EPERM;
    }
    if (const int Error = CheckName(Name); Error != 0) {
        return Error;
    }
    ++Changes_;
    const std::shared_lock Hold(Parent->In->Renaming);
    Remote Handle;
    Facts Found;
    int Error = Handle.Open(Nodes_.PathBelow(Parent, Name),
                            {.Disposition = FILE_CREATE,
                             .Options = FILE_NON_DIRECTORY_FILE,
                             .Attributes = (Mode & 0222) == 0 ? ULONG{FILE_ATTRIBUTE_READONLY} : 0});
    if (Error == 0) {
        Error = Handle.Query(&Found);
    }
    if (Error != 0) {
        return Error;
    }
    ++Changes_;
    Spellings_->Changed(ParentInode, Name);
    const fuse_entry_param Answer = Entry(Nodes_.Lookup(Parent, Name, false), Found);
    fuse_reply_entry(Request, &Answer);
    return 0;
}

int FileSystem::MakeDirectory(fuse_req_t Request, fuse_ino_t ParentInode, const char *Name, mode_t) {
    Node *Parent = NodeOf(ParentInode);
    if (Parent->In == nullptr || IsHidden(Parent, Name)) {
        return EPERM;
    }
    if (const int Error = CheckName(Name); Error != 0) {
        return Error;
    }
    ++Changes_;
    const std::shared_lock Hold(Parent->In->Renaming);
    Remote Handle;
    Facts Found;
    const std::u16string Path = Nodes_.PathBelow(Parent, Name);
    int Error = Path.empty() ? ESTALE : Handle.Open(Path, {.Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE});
    if (Error == 0) {
        Error = Handle.Query(&Found);
    }
    if (Error != 0) {
        return Error;
    }
    ++Changes_;
    Spellings_->Changed(ParentInode, Name);
    const fuse_entry_param Answer = Entry(Nodes_.Lookup(Parent, Name, true), Found);
    fuse_reply_entry(Request, &Answer);
    return 0;
}

int FileSystem::Delete(const std::u16string &Path, bool Directory) {
    Remote Handle;
    int Error =
        Path.empty()
            ? ENOENT
            : Handle.Open(Path, {.Access = ToDelete,
                                 .Options = Directory ? ULONG{FILE_DIRECTORY_FILE} : ULONG{FILE_NON_DIRECTORY_FILE}});
    if (Error == 0) {
        Error = Mark(Handle);
    }
    const int Closed = Handle.Close(); // which carries the deletion out
    return Error != 0 ? Error : Closed;
}

// Moves a file aside and leaves it open in Holder, to be read and written too where it can be, for those who still come
// for it. Into the volume's root, so that its directory can be removed; where nobody may create anything there, into
// the first directory below where somebody may. Those above cannot be changed then, so that what holds it is not
// removed.
int FileSystem::Hide(Node *Parent, const std::string &Name, std::u16string *Hidden, Remote *Holder) {
    int Error = EACCES;
    for (const ACCESS_MASK Data : {FILE_READ_DATA | FILE_WRITE_DATA, FILE_READ_DATA, 0}) {
        if (Error == EACCES || Error == EBUSY) {
            Error = Holder->Open(Nodes_.PathBelow(Parent, Name),
                                 {.Access = ToDelete | Data, .Options = FILE_NON_DIRECTORY_FILE});
        }
    }
    if (Error != 0) {
        return Error;
    }
    const std::string Aside = fmt::format("{}{}", HiddenPrefix_, ++Parent->In->HiddenNumber);
    const std::u16string Directory = Nodes_.Path(Parent);
    size_t End = Parent->In->Path.size();
    do {
        *Hidden = Directory.substr(0, End) + u"\\" + ServedName(Aside);
        Error = Holder->Rename(*Hidden, false);
        End = End < Directory.size() ? std::min(Directory.find(u'\\', End + 1), Directory.size()) : Directory.npos;
    } while (Error != 0 && End != Directory.npos);
    return Error;
}

int FileSystem::Unlink(fuse_req_t Request, fuse_ino_t ParentInode, const char *Name) {
    Node *Parent = NodeOf(ParentInode);
    if (Parent->In == nullptr) {
        return EPERM;
    }
    ++Changes_;
    {
        const std::unique_lock Hold(Parent->In->Renaming);
        Node *Child = Nodes_.Find(Parent, Name);
        if (Child != nullptr && Nodes_.IsOpen(Child)) {
            Remote Holder;
            std::u16string Hidden;
            if (const int Error = Hide(Parent, Name, &Hidden, &Holder); Error != 0) {
                return Error;
            }
            if (const int Error = Mark(Holder); Error != 0) {
                Holder.Rename(Nodes_.PathBelow(Parent, Name), false);
                return Error;
            }
            Nodes_.KeepAside(Child, std::move(Holder));
        } else if (const int Error = Delete(Nodes_.PathBelow(Parent, Name), false); Error != 0) {
            return Error;
        }
        Nodes_.Unlink(Parent, Name);
    }
    ++Changes_;
    Spellings_->Changed(ParentInode, Name);
    fuse_reply_err(Request, 0);
    return 0;
}

int FileSystem::RemoveDirectory(fuse_req_t Request, fuse_ino_t ParentInode, const char *Name) {
    Node *Parent = NodeOf(ParentInode);
    if (Parent->In == nullptr) {
        return EPERM;
    }
    ++Changes_;
    {
        const std::unique_lock Hold(Parent->In->Renaming);
        if (const int Error = Delete(Nodes_.PathBelow(Parent, Name), true); Error != 0) {
            return Error;
        }
        Nodes_.Unlink(Parent, Name);
    }
    ++Changes_;
    Spellings_->Changed(ParentInode, Name);
    fuse_reply_err(Request, 0);
    return 0;
}

// Frees the new name. A file is moved aside, an empty directory deleted.
int FileSystem::MakeWay(Node *To, const std::string &NewName, bool Directory, unsigned Flags, Displaced *Old) {
    Facts There;
    const std::u16string Path = Nodes_.PathBelow(To, NewName);
    if (const int Error = AskPath(Path, &There); Error != 0) {
        return Error == ENOENT ? 0 : Error;
    }
    if ((Flags & RENAME_NOREPLACE) != 0) {
        return EEXIST;
    }
    if (Directory != There.IsDirectory()) {
        return Directory ? ENOTDIR : EISDIR;
    }
    std::u16string Hidden;
    const int Error = Directory ? Delete(Path, true) : Hide(To, NewName, &Hidden, &Old->Holder);
    Old->Any = Error == 0;
    Old->WasDirectory = Directory;
    return Error;
}

void FileSystem::PutBack(Node *To, const std::string &NewName, Displaced *Old) {
    const std::u16string Path = Nodes_.PathBelow(To, NewName);
    if (Old->Any && Old->WasDirectory) {
        Remote Made;
        if (Made.Open(Path, {.Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE}) != 0) {
            fmt::print(stderr, "rvfsd: {}: an empty directory could not be put back after a failed rename\n", NewName);
        }
    } else if (Old->Any && Old->Holder.Rename(Path, false) != 0) {
        fmt::print(stderr, "rvfsd: {}: a file could not be put back after a failed rename\n", NewName);
    }
}

// *OpenBelow: it is a directory with something open below it, which the driver does not rename.
int FileSystem::Move(Node *From, const std::string &Name, Node *To, const std::string &NewName, unsigned Flags,
                     bool *OpenBelow) {
    *OpenBelow = false;
    const bool Respelled = From == To && SameName(Name, NewName);
    if (Respelled && Name == NewName) {
        return 0;
    }
    Facts What;
    Remote Source;
    if (const int Error = Source.Open(Nodes_.PathBelow(From, Name), {.Access = DELETE | FILE_READ_ATTRIBUTES});
        Error != 0) {
        return Error;
    }
    if (const int Error = Source.Query(&What); Error != 0) {
        return Error;
    }
    if (What.IsDirectory()) {
        Node *Known = Nodes_.Find(From, Name);
        *OpenBelow = Known != nullptr && Nodes_.IsOpenBelow(Known);
        if (*OpenBelow) {
            return EBUSY;
        }
    }
    Displaced Old;
    if (const int Error = Respelled ? 0 : MakeWay(To, NewName, What.IsDirectory(), Flags, &Old); Error != 0) {
        return Error;
    }
    if (const int Error = Source.Rename(Nodes_.PathBelow(To, NewName), false); Error != 0) {
        PutBack(To, NewName, &Old);
        return Error;
    }
    if (Old.Holder) {
        // The new file is in place; what was there goes with its last handle. An open of it may be on its way.
        if (const int Error = Mark(Old.Holder); Error != 0) {
            fmt::print(stderr, "rvfsd: {}: what it replaced could not be deleted: error {}\n", NewName, Error);
        } else if (Node *Replaced = Nodes_.Find(To, NewName); Replaced != nullptr) {
            Nodes_.KeepAside(Replaced, std::move(Old.Holder));
        }
    }
    return 0;
}

int FileSystem::Rename(fuse_req_t Request, fuse_ino_t ParentInode, const char *Name, fuse_ino_t NewParentInode,
                       const char *NewName, unsigned Flags) {
    Node *From = NodeOf(ParentInode);
    Node *To = NodeOf(NewParentInode);
    if (const int Error = CheckName(NewName); Error != 0) {
        return Error;
    }
    if (From->In == nullptr || To->In == nullptr || IsHidden(To, NewName)) {
        return EPERM;
    }
    if (From->In != To->In) {
        return EXDEV;
    }
    if ((Flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) {
        return EINVAL;
    }
    ++Changes_;
    // What lies open below a directory may have been closed by its program: the kernel tells that a moment later.
    const auto Until = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    for (uint64_t Closes = Nodes_.Closes();; Closes = Nodes_.Closes()) {
        std::unique_lock Hold(From->In->Renaming);
        bool OpenBelow;
        const int Error = Move(From, Name, To, NewName, Flags, &OpenBelow);
        if (Error == 0) {
            Nodes_.Rename(From, Name, To, NewName);
            break;
        }
        Hold.unlock();
        const RequestRings::Away Away;
        if (!OpenBelow || !Nodes_.AwaitClose(Closes, Until)) {
            return Error;
        }
    }
    ++Changes_;
    Spellings_->Changed(ParentInode, Name);
    Spellings_->Changed(NewParentInode, NewName);
    fuse_reply_err(Request, 0);
    return 0;
}

int FileSystem::SymbolicLink(fuse_req_t, const char *, fuse_ino_t, const char *) {
    return EPERM;
}

int FileSystem::HardLink(fuse_req_t, fuse_ino_t, fuse_ino_t, const char *) {
    return EPERM;
}

} // namespace app::mount
