// Operations on names: open, create, delete, move, list.
#include "providers/scripted/tree.h"

namespace providers {

namespace {

// What an access word uses of the share bits (the platform's read 1, write 2, delete 4).
ULONG UsedShare(ULONG Access) {
    ULONG Used = 0;
    if (Access & (RV_ACCESS_READ | RV_ACCESS_EXECUTE)) {
        Used |= FILE_SHARE_READ;
    }
    if (Access & RV_ACCESS_WRITE) {
        Used |= FILE_SHARE_WRITE;
    }
    if (Access & RV_ACCESS_DELETE) {
        Used |= FILE_SHARE_DELETE;
    }
    return Used;
}

bool ValidName(std::u16string_view Name) {
    return Name.size() <= 255 && Name != u"." && Name != u".." &&
           Name.find_first_of(u"*?<>\"|/:") == std::u16string_view::npos;
}

bool IsWithin(const Node *Inner, const Node &Outer) {
    while (Inner != nullptr && Inner != &Outer) {
        Inner = Inner->Parent;
    }
    return Inner != nullptr;
}

} // namespace

// An open that uses neither data nor deletion takes no part in sharing.
bool Tree::SharingConflict(const Node &Target, ULONG Access, ULONG Share, RVHANDLE Except) const {
    const ULONG Mine = UsedShare(Access);
    if (!Sharing_ || Mine == 0) {
        return false;
    }
    return std::any_of(Target.Opens.begin(), Target.Opens.end(), [&](RVHANDLE Handle) {
        const OpenHandle &Other = Handles_.at(Handle);
        const ULONG Theirs = UsedShare(Other.Access);
        return Handle != Except && Theirs != 0 && ((Mine & ~Other.Share) != 0 || (Theirs & ~Share) != 0);
    });
}

RVSTATUS Tree::CreateDirectory(RVHANDLE Base, PCWSTR Path) {
    const Place Here = Resolve(Base, Path);
    if (RvIsError(Here.Status)) {
        return Here.Status;
    }
    if (Here.Target != nullptr) {
        return ProviderError(CodeNameCollision);
    }
    if (Here.Parent->Denied) {
        return RVSTATUS::AccessDenied;
    }
    if (!ValidName(Here.Leaf)) {
        return ProviderError(CodeNameInvalid);
    }
    Here.Parent->Attach(MakeNode(Here.Leaf, true));
    return RVSTATUS::Success;
}

RVSTATUS Tree::OpenDirectory(RVHANDLE Base, PCWSTR Path, RVHANDLE *Directory) {
    const Place Here = Resolve(Base, Path);
    if (RvIsError(Here.Status)) {
        return Here.Status;
    }
    if (Here.Target == nullptr) {
        return ProviderError(CodeNoSuchFile);
    }
    if (!Here.Target->Directory) {
        return ProviderError(RVFS_NOT_A_DIRECTORY);
    }
    if (Here.Target->Denied) {
        return RVSTATUS::AccessDenied;
    }
    *Directory = Open(HandleKind::Directory, Here.Target, Path);
    return RVSTATUS::Success;
}

RVSTATUS Tree::CreateFile(RVHANDLE Base, PCWSTR Path, ULONG Access, ULONG Share, ULONG Disposition, ULONG Options,
                          ULONG Attributes, RVHANDLE *File, ULONG *Action) {
    Place Here = Resolve(Base, Path);
    if (RvIsError(Here.Status)) {
        return Here.Status;
    }
    if (Disposition > RV_DISPOSITION_OVERWRITE_EXISTING) {
        Violation("unknown disposition");
        return RVSTATUS::InvalidParameter;
    }
    const bool Overwrites =
        Disposition == RV_DISPOSITION_CREATE_OR_REPLACE || Disposition == RV_DISPOSITION_OVERWRITE_EXISTING;
    const bool Creates = Disposition == RV_DISPOSITION_CREATE_NEW || Disposition == RV_DISPOSITION_OPEN_OR_CREATE ||
                         Disposition == RV_DISPOSITION_CREATE_OR_REPLACE;
    ULONG Done = RV_CREATE_ACTION_OPENED;
    if (Here.Target == nullptr) {
        if (!Creates) {
            return ProviderError(CodeNoSuchFile);
        }
        if (Here.Parent->Denied) {
            return RVSTATUS::AccessDenied;
        }
        if (!ValidName(Here.Leaf)) {
            return ProviderError(CodeNameInvalid);
        }
        Here.Target = MakeNode(Here.Leaf, false);
        Here.Target->Attributes = Attributes & RV_ATTR_SETTABLE;
        Here.Parent->Attach(Here.Target);
        Done = RV_CREATE_ACTION_CREATED;
    } else {
        Node &Found = *Here.Target;
        if (Found.Directory) {
            return ProviderError(CodeIsADirectory);
        }
        if (Disposition == RV_DISPOSITION_CREATE_NEW) {
            return ProviderError(CodeNameCollision);
        }
        const bool Changes = Overwrites || (Access & RV_ACCESS_WRITE) != 0;
        if (Found.Denied || (Changes && (Found.Attributes & RV_ATTR_READONLY) != 0)) {
            return RVSTATUS::AccessDenied;
        }
        const ULONG Needed = Access | (Overwrites ? static_cast<ULONG>(RV_ACCESS_WRITE) : 0u);
        if (SharingConflict(Found, Needed, Share, 0)) {
            return ProviderError(CodeSharingViolation);
        }
        if (Overwrites) {
            if (const RVSTATUS Status = Resize(Found, 0); RvIsError(Status)) {
                return Status;
            }
            Found.Attributes = Attributes & RV_ATTR_SETTABLE;
            Done = RV_CREATE_ACTION_CREATED + 1;
        }
    }
    *File = Open(HandleKind::File, Here.Target, Path);
    OpenHandle &Opened = Handles_[*File];
    Opened.Access = Access;
    Opened.Share = Share;
    Opened.Options = Options;
    Here.Target->Opens.push_back(*File);
    *Action = Done;
    return RVSTATUS::Success;
}

RVSTATUS Tree::Delete(bool Directory, RVHANDLE Base, PCWSTR Path) {
    const Place Here = Resolve(Base, Path);
    if (RvIsError(Here.Status)) {
        return Here.Status;
    }
    if (Here.Target == nullptr) {
        return ProviderError(CodeNoSuchFile);
    }
    Node &Found = *Here.Target;
    if (Found.Directory != Directory) {
        return ProviderError(Directory ? static_cast<USHORT>(RVFS_NOT_A_DIRECTORY)
                                       : static_cast<USHORT>(CodeIsADirectory));
    }
    if (Here.Parent == nullptr || Found.Denied || (Found.Attributes & RV_ATTR_READONLY) != 0 ||
        (Found.Rights & RV_RIGHT_ERASE) == 0) {
        return RVSTATUS::AccessDenied;
    }
    if (!Found.Children.empty()) {
        return ProviderError(CodeDirectoryNotEmpty);
    }
    if (SharingConflict(Found, RV_ACCESS_DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0)) {
        return ProviderError(CodeSharingViolation);
    }
    Found.Home->Free += Found.Content.Size();
    Found.Home->FreeAfterQuota += Found.Content.Size();
    Found.Unlinked = true;
    Here.Parent->Detach(Found);
    return RVSTATUS::Success;
}

RVSTATUS Tree::Move(bool Directory, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase, PCWSTR Target) {
    const Place From = Resolve(SourceBase, Source);
    if (RvIsError(From.Status)) {
        return From.Status;
    }
    const Place To = Resolve(TargetBase, Target);
    if (RvIsError(To.Status)) {
        return To.Status;
    }
    if (From.Target == nullptr) {
        return ProviderError(CodeNoSuchFile);
    }
    Node &Moved = *From.Target;
    if (Moved.Directory != Directory) {
        return ProviderError(Directory ? static_cast<USHORT>(RVFS_NOT_A_DIRECTORY)
                                       : static_cast<USHORT>(CodeIsADirectory));
    }
    if (From.Parent == nullptr || To.Parent == nullptr) {
        return RVSTATUS::AccessDenied;
    }
    if (To.Target != nullptr && To.Target != From.Target) {
        return ProviderError(CodeNameCollision);
    }
    if (To.Parent->Home != Moved.Home) {
        return ProviderError(CodeNotSameDevice);
    }
    if (IsWithin(To.Parent.get(), Moved)) {
        return ProviderError(CodePathInvalid);
    }
    if (!ValidName(To.Leaf)) {
        return ProviderError(CodeNameInvalid);
    }
    if (Moved.Denied || To.Parent->Denied || (Moved.Attributes & RV_ATTR_READONLY) != 0) {
        return RVSTATUS::AccessDenied;
    }
    auto Taken = From.Parent->Detach(Moved);
    Taken->Name = To.Leaf;
    To.Parent->Attach(std::move(Taken));
    return RVSTATUS::Success;
}

RVSTATUS Tree::Enumerate(RVHANDLE Directory, PCWSTR Mask, bool ShortNames, ULONG *ResumeKey, ULONG *BufferSize,
                         PVOID Buffer) {
    const OpenHandle *Opened = HandleOf(Directory, {HandleKind::Directory, HandleKind::Volume});
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    if (Buffer == nullptr || BufferSize == nullptr || ResumeKey == nullptr) {
        Violation("a null buffer, size or resume key");
        return RVSTATUS::InvalidParameter;
    }
    return ListDirectory(*Opened->Target, Mask, ShortNames, ResumeKey, BufferSize, Buffer);
}

} // namespace providers
