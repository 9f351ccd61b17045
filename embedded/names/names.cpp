#include "embedded/names/names.h"

#include <algorithm>
#include <mutex>

#include "embedded/names/tree.h"
#include "embedded/rtl/upcase.h"
#include "embedded/verifier/leaks.h"

namespace embedded {

bool NameLess::operator()(std::u16string_view Left, std::u16string_view Right) const noexcept {
    const WCHAR *Upcase = UpcaseTable();
    return std::lexicographical_compare(Left.begin(), Left.end(), Right.begin(), Right.end(),
                                        [Upcase](char16_t L, char16_t R) { return Upcase[L] < Upcase[R]; });
}

Tree &TheTree() {
    static Tree &Instance = *new Tree;
    return Instance;
}

namespace {

bool HasNameBelow(ObjectType Type) {
    return Type == ObjectType::Device || Type == ObjectType::UncProvider || Type == ObjectType::Mup ||
           Type == ObjectType::SystemVolume;
}

// Takes the first component off Rest, which begins with a backslash.
std::u16string_view TakeComponent(std::u16string_view &Rest) {
    Rest.remove_prefix(1);
    const std::u16string_view Component = Rest.substr(0, std::min(Rest.find(u'\\'), Rest.size()));
    Rest.remove_prefix(Component.size());
    return Component;
}

constexpr unsigned MaximumLinks = 32;

// What \?? means for the calling thread: the directory of its logon session, or the global one.
DirectoryObject *DosDevicesOfCaller(const Tree &In) {
    auto *Own = static_cast<DirectoryObject *>(EffectiveToken().Session->DosDevices.Get());
    return Own != nullptr ? Own : In.Global.Get();
}

// Goes down Rest from the root as far as there are directories. What a logon session's own directory does not have is
// looked for in the global one.
NTSTATUS GoDown(Tree &In, bool CaseInsensitive, std::u16string_view *Rest, Object **Reached) {
    Object *Current = In.Root.Get();
    bool DosDevices = false;
    while (!Rest->empty() && Current->Type() == ObjectType::Directory) {
        const std::u16string_view Component = TakeComponent(*Rest);
        if (Component.empty()) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (Current == In.Root.Get() && Component == u"??") {
            Current = DosDevicesOfCaller(In);
            DosDevices = true;
            continue;
        }
        Object *Next = static_cast<DirectoryObject *>(Current)->Find(Component, CaseInsensitive);
        if (Next == nullptr && std::exchange(DosDevices, false)) {
            Next = In.Global->Find(Component, CaseInsensitive);
        }
        if (Next == nullptr) {
            return Rest->empty() ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
        }
        Current = Next;
        DosDevices = false;
    }
    *Reached = Current;
    return STATUS_SUCCESS;
}

// The tree's mutex is held. After a link Path is the link's target with the rest, in Parsed->Buffer. With OpenLink a
// link that ends the path is what is looked for.
NTSTATUS Walk(Tree &In, std::u16string_view Path, bool CaseInsensitive, ParsedName *Parsed, bool OpenLink = false) {
    for (unsigned Links = 0; Links <= MaximumLinks; ++Links) {
        if (Path.empty() || Path.front() != u'\\') {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        Object *Current = nullptr;
        std::u16string_view Rest = Path == u"\\" ? std::u16string_view{} : Path;
        if (const NTSTATUS Status = GoDown(In, CaseInsensitive, &Rest, &Current); !NT_SUCCESS(Status)) {
            return Status;
        }
        if (Current->Type() != ObjectType::SymbolicLink || (OpenLink && Rest.empty())) {
            if (!Rest.empty() && !HasNameBelow(Current->Type())) {
                return STATUS_OBJECT_TYPE_MISMATCH;
            }
            Parsed->Remaining = Rest;
            Parsed->Target = ObjectRef::Share(Current);
            return STATUS_SUCCESS;
        }
        std::u16string Substituted = static_cast<SymbolicLinkObject *>(Current)->Target;
        Substituted.append(Rest);
        Parsed->Buffer = std::move(Substituted);
        Path = Parsed->Buffer;
        CaseInsensitive = true;
    }
    return STATUS_NAME_TOO_LONG;
}

// Takes Target, which has left its directory, out of the books; the tree's mutex is held exclusively.
void Forget(Object &Target) {
    if (Target.Type() == ObjectType::SymbolicLink) {
        static_cast<SymbolicLinkObject &>(Target).Parent = nullptr;
    } else if (Target.Type() == ObjectType::Directory) {
        for (const auto &[Name, Child] : static_cast<DirectoryObject &>(Target).Children) {
            Forget(*Child.Get());
        }
    }
}

} // namespace

NTSTATUS WalkToParent(Tree &In, std::u16string_view Path, Ref<DirectoryObject> *Parent, std::u16string_view *Leaf) {
    const size_t Slash = Path.rfind(u'\\');
    if (Slash == Path.npos || Slash + 1 == Path.size()) {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    ParsedName Parsed;
    const NTSTATUS Status = Walk(In, Slash == 0 ? std::u16string_view(u"\\") : Path.substr(0, Slash), true, &Parsed);
    if (!NT_SUCCESS(Status)) {
        return Status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_OBJECT_PATH_NOT_FOUND : Status;
    }
    if (Parsed.Target->Type() != ObjectType::Directory) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *Parent = std::move(Parsed.Target).As<DirectoryObject>();
    *Leaf = Path.substr(Slash + 1);
    return STATUS_SUCCESS;
}

NTSTATUS Enter(DirectoryObject &Parent, std::u16string_view Name, Object &Target) {
    if (!Parent.Children.try_emplace(std::u16string(Name), ObjectRef::Share(&Target)).second) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    if (Target.Type() == ObjectType::SymbolicLink) {
        auto &Link = static_cast<SymbolicLinkObject &>(Target);
        Link.Parent = &Parent;
        Link.Name = Name;
    }
    return STATUS_SUCCESS;
}

NTSTATUS LookupName(std::u16string_view Path, bool CaseInsensitive, ParsedName *Parsed, bool OpenLink) noexcept {
    Tree &In = TheTree();
    std::shared_lock Lock(In.Mutex);
    return In.Root ? Walk(In, Path, CaseInsensitive, Parsed, OpenLink) : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS InsertName(std::u16string_view Path, Object &Target) noexcept {
    Tree &In = TheTree();
    std::unique_lock Lock(In.Mutex);
    Ref<DirectoryObject> Parent;
    std::u16string_view Leaf;
    if (const NTSTATUS Status = WalkToParent(In, Path, &Parent, &Leaf); !NT_SUCCESS(Status)) {
        return Status;
    }
    return Enter(*Parent.Get(), Leaf, Target);
}

bool RemoveName(std::u16string_view Path) noexcept {
    Tree &In = TheTree();
    ObjectRef Removed; // dropped after the lock
    std::unique_lock Lock(In.Mutex);
    Ref<DirectoryObject> Parent;
    std::u16string_view Leaf;
    if (!NT_SUCCESS(WalkToParent(In, Path, &Parent, &Leaf))) {
        return false;
    }
    const auto Found = Parent->Children.find(Leaf);
    if (Found == Parent->Children.end()) {
        return false;
    }
    Removed = std::move(Found->second);
    Parent->Children.erase(Found);
    Forget(*Removed.Get());
    Lock.unlock();
    return true;
}

NTSTATUS CreateDirectory(std::u16string_view Path) noexcept {
    size_t End = 0;
    do {
        End = std::min(Path.find(u'\\', End + 1), Path.size());
        const auto Directory = Ref<DirectoryObject>::Adopt(new DirectoryObject);
        const NTSTATUS Status = InsertName(Path.substr(0, End), *Directory.Get());
        if (!NT_SUCCESS(Status) && Status != STATUS_OBJECT_NAME_COLLISION) {
            return Status;
        }
    } while (End < Path.size());
    return STATUS_SUCCESS;
}

ObjectRef CreateSessionDirectory(std::u16string_view Path, Security Access) noexcept {
    auto Directory = Ref<DirectoryObject>::Adopt(new DirectoryObject(std::move(Access)));
    if (!NT_SUCCESS(InsertName(Path, *Directory.Get()))) {
        return {};
    }
    static_cast<void>(CreateSymbolicLink(std::u16string(Path) + u"\\Global", GlobalDosDevices));
    return std::move(Directory).As<Object>();
}

void InitializeNameSpace() {
    {
        Tree &In = TheTree();
        std::unique_lock Lock(In.Mutex);
        In.Root = Ref<DirectoryObject>::Adopt(new DirectoryObject);
        In.Global = Ref<DirectoryObject>::Adopt(new DirectoryObject(
            {true, MakeAcl({{true, GENERIC_ALL, AdministratorsSid}, {true, GENERIC_ALL, SystemSid}})}));
        static_cast<void>(Enter(*In.Root.Get(), GlobalDosDevices.substr(1), *In.Global.Get()));
    }
    for (const std::u16string_view Directory : {u"\\Device", u"\\FileSystem", u"\\Sessions\\0\\DosDevices"}) {
        static_cast<void>(CreateDirectory(Directory));
    }
    static_cast<void>(CreateSymbolicLink(u"\\DosDevices", u"\\??"));
    RegisterLeakCheck("symbolic links", DescribeDriversLinks);
}

void ResetNameSpace() noexcept {
    Tree &In = TheTree();
    Ref<DirectoryObject> Old, Global; // the objects go with no lock held
    std::unique_lock Lock(In.Mutex);
    Old = std::exchange(In.Root, {});
    Global = std::exchange(In.Global, {});
    if (Old) {
        Forget(*Old.Get());
    }
    Lock.unlock();
}

} // namespace embedded
