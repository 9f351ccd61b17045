#include "providers/scripted/tree.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace providers {

namespace {

// Separators are single backslashes: the first is dropped, and an empty component stays visible.
std::vector<std::u16string> Split(std::u16string_view Path) {
    std::vector<std::u16string> Components;
    if (!Path.empty() && Path[0] == u'\\') {
        Path.remove_prefix(1);
    }
    while (!Path.empty()) {
        const size_t End = std::min(Path.find(u'\\'), Path.size());
        Components.emplace_back(Path.substr(0, End));
        if (End + 1 == Path.size()) {
            Components.emplace_back();
        }
        Path.remove_prefix(std::min(End + 1, Path.size()));
    }
    return Components;
}

const char *NameOf(HandleKind Kind) {
    static const char *const Names[] = {"volume", "directory", "file"};
    return Names[static_cast<unsigned>(Kind)];
}

} // namespace

// ---- Building and looking ------------------------------------------------------------------------------------

LONG64 Tree::Now() {
    constexpr LONG64 SomeDay = 133000000000000000;
    return SomeDay;
}

std::shared_ptr<Node> Tree::MakeNode(std::u16string_view Name, bool Directory) {
    auto Made = std::make_shared<Node>();
    Made->Name = Name;
    Made->Directory = Directory;
    Made->Id = ++LastId_;
    Made->Creation = Made->LastWrite = Made->LastAccess = Now();
    return Made;
}

Volume &Tree::AddVolume(std::u16string_view Path) {
    const auto Components = Split(Path);
    Servers_.insert(FoldCase(Components.at(0)));
    Volume &Made = Volumes_[{FoldCase(Components.at(0)), FoldCase(Components.at(1))}];
    if (Made.Root == nullptr) {
        Made.Server = Components[0];
        Made.Name = Components[1];
        Made.Root = MakeNode(u"", true);
        Made.Root->Home = &Made;
    }
    return Made;
}

Node &Tree::AddDirectory(std::u16string_view Path) {
    const auto Components = Split(Path);
    Node *At = AddVolume(Path).Root.get();
    for (size_t Index = 2; Index < Components.size(); Index++) {
        if (At->Child(Components[Index]) == nullptr) {
            At->Attach(MakeNode(Components[Index], true));
        }
        At = At->Child(Components[Index]).get();
    }
    return *At;
}

Node &Tree::AddFile(std::u16string_view Path, std::string_view Content) {
    const size_t Last = Path.rfind(u'\\');
    Node &Parent = AddDirectory(Path.substr(0, Last));
    auto Made = MakeNode(Path.substr(Last + 1), false);
    Made->Content.Write(0, Content.size(), reinterpret_cast<const UCHAR *>(Content.data()));
    if (const auto Old = Parent.Child(Made->Name)) {
        Parent.Detach(*Old);
    }
    Parent.Attach(Made);
    return *Made;
}

Node *Tree::Find(std::u16string_view Path) {
    const auto Components = Split(Path);
    Volume *Found = nullptr;
    if (RvIsError(VolumeOf(Components, &Found))) {
        return nullptr;
    }
    return Walk(Found->Root, Components, 2).Target.get();
}

Volume *Tree::FindVolume(std::u16string_view Path) {
    Volume *Found = nullptr;
    return RvIsError(VolumeOf(Split(Path), &Found)) ? nullptr : Found;
}

std::string Tree::ContentOf(std::u16string_view Path) {
    const Node *File = Find(Path);
    if (File == nullptr) {
        return "(missing)";
    }
    std::string Bytes(File->Content.Size(), '\0');
    File->Content.Read(0, Bytes.size(), reinterpret_cast<UCHAR *>(Bytes.data()));
    return Bytes;
}

void Tree::AddDistributedLink(std::u16string_view Link, std::u16string_view Physical) {
    Links_.emplace_back(Link, Physical);
}

void Tree::SetSharing(bool Enforced) {
    Sharing_ = Enforced;
}

// ---- Handles -------------------------------------------------------------------------------------------------

void Tree::Violation(std::string Text) {
    Violations_.push_back(fmt::format("{}: {}", NameOf(Current_), Text));
}

std::vector<std::string> Tree::OpenHandles() const {
    std::vector<std::string> Lines;
    for (const auto &[Handle, Open] : Handles_) {
        Lines.push_back(fmt::format("{} {} \"{}\"", NameOf(Open.Kind), Handle, ToUtf8(Open.Path)));
    }
    return Lines;
}

RVHANDLE Tree::Open(HandleKind Kind, std::shared_ptr<Node> Target, std::u16string Path) {
    const RVHANDLE Handle = ++LastHandle_;
    Handles_[Handle] = {Kind, std::move(Target), std::move(Path)};
    return Handle;
}

Tree::OpenHandle *Tree::HandleOf(RVHANDLE Handle, std::initializer_list<HandleKind> Kinds) {
    const auto Found = Handles_.find(Handle);
    if (Found == Handles_.end()) {
        const bool Once = Handle != 0 && Handle <= LastHandle_;
        Violation(fmt::format("handle {} is {}", Handle, Once ? "closed" : "unknown"));
        return nullptr;
    }
    if (std::find(Kinds.begin(), Kinds.end(), Found->second.Kind) == Kinds.end()) {
        Violation(fmt::format("handle {} is a {} handle", Handle, NameOf(Found->second.Kind)));
        return nullptr;
    }
    return &Found->second;
}

Tree::OpenHandle *Tree::FileOf(RVHANDLE Handle) {
    return HandleOf(Handle, {HandleKind::File});
}

void Tree::Forget(RVHANDLE Handle) {
    const auto Found = Handles_.find(Handle);
    if (Found == Handles_.end()) {
        return;
    }
    Node &Target = *Found->second.Target;
    std::erase(Target.Opens, Handle);
    std::erase_if(Target.Locks, [&](const LockedRange &Range) { return Range.Owner == Handle; });
    Handles_.erase(Found);
}

RVSTATUS Tree::Close(HandleKind Kind, RVHANDLE Handle) {
    if (HandleOf(Handle, {Kind}) == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    Forget(Handle);
    return RVSTATUS::Success;
}

// ---- Paths ---------------------------------------------------------------------------------------------------

RVSTATUS Tree::VolumeOf(const std::vector<std::u16string> &Components, Volume **Found) {
    if (Components.empty()) {
        return ProviderError(CodePathInvalid);
    }
    const auto Server = Servers_.find(FoldCase(Components[0]));
    if (Server == Servers_.end()) {
        return ProviderError(RVFS_UNKNOWN_SERVER);
    }
    if (Components.size() < 2) {
        return ProviderError(RVFS_UNRECOGNIZED_VOLUME);
    }
    const auto Entry = Volumes_.find({*Server, FoldCase(Components[1])});
    if (Entry == Volumes_.end()) {
        return ProviderError(RVFS_UNRECOGNIZED_VOLUME);
    }
    *Found = &Entry->second;
    return RVSTATUS::Success;
}

Tree::Place Tree::Walk(std::shared_ptr<Node> Start, const std::vector<std::u16string> &Components, size_t First) {
    Place Here;
    Here.Target = std::move(Start);
    for (size_t Index = First; Index < Components.size(); Index++) {
        if (Components[Index].empty()) {
            return {ProviderError(CodePathInvalid), {}, {}, {}};
        }
        if (Here.Target == nullptr || !Here.Target->Directory) {
            return {ProviderError(RVFS_PATH_NOT_FOUND), {}, {}, {}};
        }
        Here.Parent = Here.Target;
        Here.Target = Here.Parent->Child(Components[Index]);
        Here.Leaf = Components[Index];
    }
    return Here;
}

namespace {

// The verifying of paths hands on what a client sent, which begins with two backslashes.
std::u16string_view WithOneBackslash(PCWSTR Path) {
    std::u16string_view Whole = Path;
    if (Whole.starts_with(u"\\\\")) {
        Whole.remove_prefix(1);
    }
    return Whole;
}

} // namespace

Tree::Place Tree::Resolve(RVHANDLE Base, PCWSTR Path) {
    const std::u16string_view Whole = Path == nullptr ? std::u16string_view() : WithOneBackslash(Path);
    if (Path == nullptr) {
        Violation("the path is null");
        return {RVSTATUS::InvalidParameter, {}, {}, {}};
    }
    const bool Rooted = !Whole.empty() && Whole[0] == u'\\';
    if (Base != 0) {
        OpenHandle *From = HandleOf(Base, {HandleKind::Volume, HandleKind::Directory});
        if (From == nullptr) {
            return {RVSTATUS::InvalidHandle, {}, {}, {}};
        }
        if (Rooted) {
            Violation(fmt::format("a path below a handle begins with a backslash: \"{}\"", ToUtf8(Whole)));
            return {RVSTATUS::InvalidParameter, {}, {}, {}};
        }
        if (From->Target->Unlinked) {
            return {ProviderError(RVFS_PATH_NOT_FOUND), {}, {}, {}};
        }
        return Walk(From->Target, Split(Whole), 0);
    }
    if (!Rooted || (Whole.size() > 1 && Whole[1] == u'\\')) {
        Violation(fmt::format("an absolute path does not begin with one backslash: \"{}\"", ToUtf8(Whole)));
        return {RVSTATUS::InvalidParameter, {}, {}, {}};
    }
    const auto Components = Split(Whole);
    Volume *Found = nullptr;
    if (const RVSTATUS Status = VolumeOf(Components, &Found); RvIsError(Status)) {
        return {Status, {}, {}, {}};
    }
    return Walk(Found->Root, Components, 2);
}

RVSTATUS Tree::QueryPathForVolume(PCWSTR FullPath, PWSTR Buffer) {
    if (FullPath == nullptr || Buffer == nullptr) {
        Violation("a null path or buffer");
        return RVSTATUS::InvalidParameter;
    }
    const std::u16string_view Whole = WithOneBackslash(FullPath);
    const auto Components = Split(Whole);
    Volume *Found = nullptr;
    const RVSTATUS Status = VolumeOf(Components, &Found);
    // A server alone is a prefix too; it just has no volume.
    const bool ServerAlone = Components.size() == 1 && Status == ProviderError(RVFS_UNRECOGNIZED_VOLUME);
    if (RvIsError(Status) && !ServerAlone) {
        return Status;
    }
    size_t Units = 1 + Components[0].size();
    if (!ServerAlone) {
        Units += 1 + Components[1].size();
    }
    Whole.copy(Buffer, Units);
    Buffer[Units] = 0;
    return RVSTATUS::Success;
}

RVSTATUS Tree::GetPhysicalPath(PUNICODE_STRING Path, PUNICODE_STRING Physical) {
    const std::u16string_view Whole(Path->Buffer, Path->Length / 2);
    for (const auto &[Link, Target] : Links_) {
        const bool Below = Whole.size() == Link.size() || (Whole.size() > Link.size() && Whole[Link.size()] == u'\\');
        if (!Below || FoldCase(Whole.substr(0, Link.size())) != FoldCase(Link)) {
            continue;
        }
        const std::u16string Answer = Target + std::u16string(Whole.substr(Link.size()));
        if ((Answer.size() + 1) * 2 > Physical->MaximumLength) {
            return ProviderError(0x0007);
        }
        std::memcpy(Physical->Buffer, Answer.c_str(), (Answer.size() + 1) * 2);
        Physical->Length = static_cast<USHORT>(Answer.size() * 2);
        return RVSTATUS::Success;
    }
    return RVSTATUS::NotDistributedPath;
}

// ---- Volumes -------------------------------------------------------------------------------------------------

RVSTATUS Tree::OpenVolume(PCWSTR Path, RVHANDLE *Handle) {
    const Place Here = Resolve(0, Path);
    if (RvIsError(Here.Status)) {
        return Here.Status;
    }
    if (Here.Parent != nullptr) {
        return ProviderError(RVFS_UNRECOGNIZED_VOLUME);
    }
    if (Here.Target->Denied) {
        return RVSTATUS::AccessDenied;
    }
    *Handle = Open(HandleKind::Volume, Here.Target, Path);
    return RVSTATUS::Success;
}

RVSTATUS Tree::GetVolumeInformation(RVHANDLE Handle, ULONG *Flags, UCHAR *Identifier) {
    const OpenHandle *Opened = HandleOf(Handle, {HandleKind::Volume});
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    const Volume &Home = *Opened->Target->Home;
    if (Flags != nullptr) {
        *Flags = Home.Flags;
    }
    if (Identifier != nullptr) {
        std::memcpy(Identifier, Home.Identifier, sizeof(Home.Identifier));
    }
    return RVSTATUS::Success;
}

RVSTATUS Tree::GetVolumeSize(RVHANDLE Handle, const Outputs &Out) {
    const OpenHandle *Opened = HandleOf(Handle, {HandleKind::Volume});
    if (Opened == nullptr) {
        return RVSTATUS::InvalidHandle;
    }
    const Volume &Home = *Opened->Target->Home;
    const std::pair<ULONG64 *, ULONG64> Figures[] = {{Out.VolumeLength, Home.Length},
                                                     {Out.Free, Home.Free},
                                                     {Out.QuotaAllowed, Home.QuotaAllowed},
                                                     {Out.FreeAfterQuota, Home.FreeAfterQuota}};
    for (const auto &[At, Figure] : Figures) {
        if (At != nullptr) {
            *At = Figure;
        }
    }
    return RVSTATUS::Success;
}

} // namespace providers
