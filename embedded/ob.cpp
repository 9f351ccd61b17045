#include "embedded/ob.h"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "embedded/upcase.h"
#include "embedded/verifier/report.h"

namespace embedded {

void Object::Reference() noexcept {
    if (References_.fetch_add(1, std::memory_order_relaxed) <= 0) [[unlikely]] {
        BugCheck(bugcheck::Verifier, bugcheck::ReferenceFromZero, reinterpret_cast<ULONG_PTR>(this), 0, 0,
                 "an object that is being deleted was referenced");
    }
}

void Object::Dereference() noexcept {
    const LONG Left = References_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (Left == 0) {
        OnLastReference();
    } else if (Left < 0) [[unlikely]] {
        BugCheck(0x18, reinterpret_cast<ULONG_PTR>(this), static_cast<ULONG_PTR>(Left), 0, 0,
                 "an object was dereferenced once too often");
    }
}

bool EqualNames(std::u16string_view Left, std::u16string_view Right, bool CaseInsensitive) noexcept {
    if (!CaseInsensitive || Left.size() != Right.size()) {
        return Left == Right;
    }
    const WCHAR *Upcase = UpcaseTable();
    return std::equal(Left.begin(), Left.end(), Right.begin(),
                      [Upcase](char16_t L, char16_t R) { return L == R || Upcase[L] == Upcase[R]; });
}

namespace {

// Names equal ignoring case cannot stand side by side, as in the real tree's usual configuration; an exact look-up
// still has to match the case.
class DirectoryObject final : public Object {
public:
    DirectoryObject() : Object(ObjectType::Directory) {
    }
    Object *Find(std::u16string_view Name, bool CaseInsensitive) const {
        for (const auto &[Key, Child] : Children) {
            if (EqualNames(Key, Name, CaseInsensitive)) {
                return Child.Get();
            }
        }
        return nullptr;
    }

    std::vector<std::pair<std::u16string, ObjectRef>> Children;
};

class SymbolicLinkObject final : public Object {
public:
    explicit SymbolicLinkObject(std::u16string_view To) : Object(ObjectType::SymbolicLink), Target(To) {
    }
    const std::u16string Target;
};

struct Tree {
    std::shared_mutex Mutex;
    Ref<DirectoryObject> Root;
};

Tree &TheTree() {
    static Tree &Instance = *new Tree;
    return Instance;
}

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

// The tree's mutex is held. After a link Path is the link's target with the rest, in Parsed->Buffer.
NTSTATUS Walk(Tree &In, std::u16string_view Path, bool CaseInsensitive, ParsedName *Parsed) {
    for (unsigned Links = 0; Links <= MaximumLinks; ++Links) {
        if (Path.empty() || Path.front() != u'\\') {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        Object *Current = In.Root.Get();
        std::u16string_view Rest = Path == u"\\" ? std::u16string_view{} : Path;
        while (!Rest.empty() && Current->Type() == ObjectType::Directory) {
            const std::u16string_view Component = TakeComponent(Rest);
            if (Component.empty()) {
                return STATUS_OBJECT_NAME_INVALID;
            }
            Current = static_cast<DirectoryObject *>(Current)->Find(Component, CaseInsensitive);
            if (Current == nullptr) {
                return Rest.empty() ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
            }
        }
        if (Current->Type() != ObjectType::SymbolicLink) {
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

// The directory that holds Path's last component, with links resolved; the tree's mutex is held.
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

} // namespace

NTSTATUS LookupName(std::u16string_view Path, bool CaseInsensitive, ParsedName *Parsed) noexcept {
    Tree &In = TheTree();
    std::shared_lock Lock(In.Mutex);
    return In.Root ? Walk(In, Path, CaseInsensitive, Parsed) : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS InsertName(std::u16string_view Path, Object &Target) noexcept {
    Tree &In = TheTree();
    std::unique_lock Lock(In.Mutex);
    Ref<DirectoryObject> Parent;
    std::u16string_view Leaf;
    if (const NTSTATUS Status = WalkToParent(In, Path, &Parent, &Leaf); !NT_SUCCESS(Status)) {
        return Status;
    }
    if (Parent->Find(Leaf, true) != nullptr) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    Parent->Children.emplace_back(std::u16string(Leaf), ObjectRef::Share(&Target));
    return STATUS_SUCCESS;
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
    auto &Children = Parent->Children;
    const auto Found = std::find_if(Children.begin(), Children.end(),
                                    [&](const auto &Child) { return EqualNames(Child.first, Leaf, true); });
    if (Found == Children.end()) {
        return false;
    }
    Removed = std::move(Found->second);
    Children.erase(Found);
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

NTSTATUS CreateSymbolicLink(std::u16string_view Path, std::u16string_view Target) noexcept {
    const auto Link = Ref<SymbolicLinkObject>::Adopt(new SymbolicLinkObject(Target));
    return InsertName(Path, *Link.Get());
}

NTSTATUS QuerySymbolicLink(std::u16string_view Path, std::u16string *Target) noexcept {
    Tree &In = TheTree();
    std::shared_lock Lock(In.Mutex);
    Ref<DirectoryObject> Parent;
    std::u16string_view Leaf;
    if (const NTSTATUS Status = WalkToParent(In, Path, &Parent, &Leaf); !NT_SUCCESS(Status)) {
        return Status;
    }
    const Object *Found = Parent->Find(Leaf, true);
    if (Found == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (Found->Type() != ObjectType::SymbolicLink) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *Target = static_cast<const SymbolicLinkObject *>(Found)->Target;
    return STATUS_SUCCESS;
}

void InitializeNameSpace() {
    {
        Tree &In = TheTree();
        std::unique_lock Lock(In.Mutex);
        In.Root = Ref<DirectoryObject>::Adopt(new DirectoryObject);
    }
    for (const std::u16string_view Directory : {u"\\Device", u"\\??", u"\\FileSystem", u"\\Sessions\\0\\DosDevices"}) {
        static_cast<void>(CreateDirectory(Directory));
    }
    static_cast<void>(CreateSymbolicLink(u"\\DosDevices", u"\\??"));
}

void ResetNameSpace() noexcept {
    Tree &In = TheTree();
    Ref<DirectoryObject> Old; // the objects go with no lock held
    std::unique_lock Lock(In.Mutex);
    Old = std::exchange(In.Root, {});
    Lock.unlock();
}

} // namespace embedded
