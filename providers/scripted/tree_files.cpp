// Operations on open handles: information, data, locks.
#include "providers/scripted/tree.h"

#include <limits>

namespace providers {

namespace {

bool Overlaps(const LockedRange &Range, ULONG64 Offset, ULONG64 Length) {
    return Range.Length != 0 && Length != 0 && Offset <= Range.Offset + (Range.Length - 1) &&
           Range.Offset <= Offset + (Length - 1);
}

template <class Field>
void Store(Field *At, Field Content) {
    if (At != nullptr) {
        *At = Content;
    }
}

} // namespace

RVSTATUS Tree::GetInformation(bool Directory, RVHANDLE Handle, const Outputs &Out) {
    const OpenHandle *Opened =
        Directory ? HandleOf(Handle, {HandleKind::Directory, HandleKind::Volume}) : FileOf(Handle);
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    const Node &Target = *Opened->Target;
    Store(Out.Attributes, Target.AttributeWord());
    Store(Out.Creation, Target.Creation);
    Store(Out.LastWrite, Target.LastWrite);
    Store(Out.LastAccess, Target.LastAccess);
    Store(Out.EndOfFile, Target.Content.Size());
    return RVSTATUS::Success;
}

RVSTATUS Tree::SetInformation(bool Directory, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite,
                              LONG64 *LastAccess) {
    OpenHandle *Opened = Directory ? HandleOf(Handle, {HandleKind::Directory, HandleKind::Volume}) : FileOf(Handle);
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    Node &Target = *Opened->Target;
    if (Target.Denied) {
        return RVSTATUS::AccessDenied;
    }
    if (Attributes != nullptr) {
        Target.Attributes = (Target.Attributes & ~RV_ATTR_SETTABLE) | (*Attributes & RV_ATTR_SETTABLE);
    }
    if (Creation != nullptr) {
        Target.Creation = *Creation;
    }
    if (LastWrite != nullptr) {
        Target.LastWrite = *LastWrite;
    }
    if (LastAccess != nullptr) {
        Target.LastAccess = *LastAccess;
    }
    return RVSTATUS::Success;
}

RVSTATUS Tree::GetFileId(RVHANDLE Handle, ULONG64 *FileId) {
    const OpenHandle *Opened = HandleOf(Handle, {HandleKind::File, HandleKind::Directory, HandleKind::Volume});
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    if ((Opened->Target->Home->Flags & RV_VOLUME_IDENTIFIER_VALID) == 0) {
        return RVSTATUS::Unsuccessful;
    }
    *FileId = Opened->Target->Id;
    return RVSTATUS::Success;
}

RVSTATUS Tree::GetEffectiveRights(RVHANDLE Handle, USHORT *Rights) {
    const OpenHandle *Opened = HandleOf(Handle, {HandleKind::File, HandleKind::Directory, HandleKind::Volume});
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    *Rights = Opened->Target->Rights;
    return RVSTATUS::Success;
}

RVSTATUS Tree::FlushFile(RVHANDLE File) {
    return FileOf(File) == nullptr ? RVSTATUS::InvalidHandle : RVSTATUS::Success;
}

// ---- Locks ---------------------------------------------------------------------------------------------------

RVSTATUS Tree::LockFile(RVHANDLE File, bool Exclusive, ULONG64 Offset, ULONG64 Length) {
    OpenHandle *Opened = FileOf(File);
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    for (const LockedRange &Range : Opened->Target->Locks) {
        if (Overlaps(Range, Offset, Length) && (Exclusive || Range.Exclusive)) {
            return ProviderError(CodeLockNotGranted);
        }
    }
    Opened->Target->Locks.push_back({File, Offset, Length, Exclusive});
    return RVSTATUS::Success;
}

RVSTATUS Tree::UnlockFile(RVHANDLE File, ULONG64 Offset, ULONG64 Length) {
    OpenHandle *Opened = FileOf(File);
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    auto &Locks = Opened->Target->Locks;
    const auto Found = std::find_if(Locks.begin(), Locks.end(), [&](const LockedRange &Range) {
        return Range.Owner == File && Range.Offset == Offset && Range.Length == Length;
    });
    if (Found == Locks.end()) {
        return ProviderError(CodeRangeNotLocked);
    }
    Locks.erase(Found);
    return RVSTATUS::Success;
}

bool Tree::LockConflict(const OpenHandle &File, RVHANDLE Handle, ULONG64 Offset, ULONG64 Length, bool Writing) const {
    const auto &Locks = File.Target->Locks;
    return std::any_of(Locks.begin(), Locks.end(), [&](const LockedRange &Range) {
        if (!Overlaps(Range, Offset, Length)) {
            return false;
        }
        return Range.Exclusive ? Range.Owner != Handle : Writing;
    });
}

// ---- Data ----------------------------------------------------------------------------------------------------

RVSTATUS Tree::Resize(Node &File, ULONG64 Size) {
    Volume &Home = *File.Home;
    const ULONG64 Old = File.Content.Size();
    if (Size > Old && Size - Old > Home.FreeAfterQuota) {
        return ProviderError(CodeDiskFull);
    }
    // What an unlinked file held was given back with its name. Modular: a shrinking file adds.
    if (!File.Unlinked) {
        Home.Free += Old - Size;
        Home.FreeAfterQuota += Old - Size;
    }
    File.Content.Resize(Size);
    File.LastWrite = Now();
    return RVSTATUS::Success;
}

RVSTATUS Tree::ReadFile(RVHANDLE File, const LONG64 *Offset, ULONG64 Length, PVOID Buffer, ULONG64 *Bytes) {
    const OpenHandle *Opened = FileOf(File);
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    if (Offset == nullptr || Bytes == nullptr || (Buffer == nullptr && Length != 0)) {
        Violation("a null offset, count or buffer");
        return RVSTATUS::InvalidParameter;
    }
    if (*Offset < 0) {
        return RVSTATUS::InvalidParameter;
    }
    if ((Opened->Access & (RV_ACCESS_READ | RV_ACCESS_EXECUTE)) == 0) {
        return RVSTATUS::AccessDenied;
    }
    const auto Start = static_cast<ULONG64>(*Offset);
    if (LockConflict(*Opened, File, Start, Length, false)) {
        return ProviderError(CodeLockConflict);
    }
    const SparseBytes &Content = Opened->Target->Content;
    const ULONG64 Count = Start >= Content.Size() ? 0 : std::min(Length, Content.Size() - Start);
    Content.Read(Start, Count, static_cast<UCHAR *>(Buffer));
    *Bytes = Count;
    return RVSTATUS::Success;
}

RVSTATUS Tree::WriteFile(RVHANDLE File, const LONG64 *Offset, ULONG64 Length, PVOID Buffer, ULONG64 *Bytes) {
    OpenHandle *Opened = FileOf(File);
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    if (Offset == nullptr || Bytes == nullptr || (Buffer == nullptr && Length != 0)) {
        Violation("a null offset, count or buffer");
        return RVSTATUS::InvalidParameter;
    }
    constexpr auto Largest = static_cast<ULONG64>(std::numeric_limits<LONG64>::max());
    if (*Offset < 0 || Length > Largest - static_cast<ULONG64>(*Offset)) {
        return RVSTATUS::InvalidParameter;
    }
    if ((Opened->Access & RV_ACCESS_WRITE) == 0) {
        return RVSTATUS::AccessDenied;
    }
    const auto Start = static_cast<ULONG64>(*Offset);
    Node &Target = *Opened->Target;
    *Bytes = 0;
    if (Buffer == nullptr) {
        return Resize(Target, Start);
    }
    if (Length == 0) {
        return RVSTATUS::Success;
    }
    if (LockConflict(*Opened, File, Start, Length, true)) {
        return ProviderError(CodeLockConflict);
    }
    if (const RVSTATUS Status = Resize(Target, std::max(Target.Content.Size(), Start + Length)); RvIsError(Status)) {
        return Status;
    }
    Target.Content.Write(Start, Length, static_cast<const UCHAR *>(Buffer));
    *Bytes = Length;
    return RVSTATUS::Success;
}

RVSTATUS Tree::ModifyFileAccess(RVHANDLE File, ULONG Access, ULONG Share, ULONG Options) {
    OpenHandle *Opened = FileOf(File);
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    // To reserve the deletion is to delete as far as the other opens are concerned.
    const bool Reserves = (Options & RV_OPTION_RESERVE_DELETE) != 0;
    const ULONG Needed = Access | (Reserves ? static_cast<ULONG>(RV_ACCESS_DELETE) : 0u);
    if (SharingConflict(*Opened->Target, Needed, Share, File)) {
        return ProviderError(CodeSharingViolation);
    }
    Opened->Access = Access;
    Opened->Share = Share;
    Opened->Options = Options;
    return RVSTATUS::Success;
}

} // namespace providers
