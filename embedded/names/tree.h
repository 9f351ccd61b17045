// The name tree, for the files of this room.
#pragma once

#include <map>
#include <shared_mutex>

#include "embedded/se/se.h"

namespace embedded {

struct NameLess {
    using is_transparent = void;
    bool operator()(std::u16string_view Left, std::u16string_view Right) const noexcept;
};

class DirectoryObject final : public Object {
public:
    explicit DirectoryObject(Security Of = {}) : Object(ObjectType::Directory), Access(std::move(Of)) {
    }
    Object *Find(std::u16string_view Name, bool CaseInsensitive) const {
        const auto Found = Children.find(Name);
        return Found != Children.end() && (CaseInsensitive || Found->first == Name) ? Found->second.Get() : nullptr;
    }

    // Names equal ignoring case cannot stand side by side, as in the real tree's usual configuration; an exact look-up
    // still has to match the case.
    std::map<std::u16string, ObjectRef, NameLess> Children;
    const Security Access;
};

class SymbolicLinkObject final : public Object {
public:
    SymbolicLinkObject(std::u16string_view To, Security Of, bool Stays, bool Drivers)
        : Object(ObjectType::SymbolicLink), Target(To), Access(std::move(Of)), OfDriver(Drivers), Permanent(Stays) {
    }
    const std::u16string Target;
    const Security Access;
    const bool OfDriver; // made by a Zw service

    // Guarded by the tree's mutex.
    bool Permanent;
    DirectoryObject *Parent = nullptr; // null outside the tree
    std::u16string Name;

private:
    void OnLastHandleClosed() noexcept override;
};

struct Tree {
    std::shared_mutex Mutex;
    Ref<DirectoryObject> Root;
    Ref<DirectoryObject> Global; // \GLOBAL??
};
Tree &TheTree();

// The directory that holds Path's last component, with links resolved. The tree's mutex is held.
NTSTATUS WalkToParent(Tree &In, std::u16string_view Path, Ref<DirectoryObject> *Parent, std::u16string_view *Leaf);

// Enters Target in Parent; the tree's mutex is held exclusively. STATUS_OBJECT_NAME_COLLISION when the name is taken.
NTSTATUS Enter(DirectoryObject &Parent, std::u16string_view Name, Object &Target);

} // namespace embedded
