#include "app/mount/nodes.h"

#include <algorithm>
#include <utility>

#include <malloc.h>

#include "app/mount/locks.h"
#include "app/text.h"
#include "providers/directory/names.h"

namespace app::mount {

namespace {

uint64_t Mix(uint64_t Value) {
    Value ^= Value >> 31;
    Value *= 0x7FB5D329728EA185u;
    Value ^= Value >> 27;
    Value *= 0x81DADEF4BC2DD44Du;
    return Value ^ Value >> 33;
}

constexpr size_t Many = 10'000;

uint64_t NaturalNumber(const Node *Parent, uint64_t Folded) {
    const uint64_t Number = Mix(Parent->Number * 0x9E3779B97F4A7C15u + Folded);
    return Number > 1 ? Number : Number + 2; // 0 is none, 1 the root
}

} // namespace

std::u16string ServedName(std::string_view Name) {
    return providers::directory::ServedName(Name);
}

std::string LocalName(std::u16string_view Served) {
    std::optional<std::string> Name = providers::directory::NativeName(Served);
    return Name ? std::move(*Name) : Narrow(Served);
}

uint64_t FoldedHash(std::string_view Name) {
    uint64_t Hash = 0xCBF29CE484222325u;
    if (std::all_of(Name.begin(), Name.end(), [](char C) { return (C & 0x80) == 0; })) {
        for (const char C : Name) {
            Hash = (Hash ^ static_cast<uint64_t>(C >= 'a' && C <= 'z' ? C - 32 : C)) * 0x100000001B3u;
        }
        return Mix(Hash);
    }
    for (const char16_t Unit : providers::directory::Fold(ServedName(Name))) {
        // As above for what is ASCII, so that a name that folds into ASCII meets its like.
        Hash = (Hash ^ Unit) * 0x100000001B3u;
    }
    return Mix(Hash);
}

bool SameName(std::string_view Left, std::string_view Right) {
    return Left == Right ||
           providers::directory::Fold(ServedName(Left)) == providers::directory::Fold(ServedName(Right));
}

bool Nodes::Equal::operator()(const Key &Left, const Node *Right) const {
    return Left.Parent == Right->Parent && Left.Folded == Right->Folded && SameName(Left.Name, Right->Name);
}

Nodes::Nodes() : Root_(new Node) {
    Root_->Number = 1;
    Root_->Lookups = 1;
    Root_->Directory = true;
}

Nodes::~Nodes() {
    for (Node *Each : Known_) {
        delete Each;
    }
    delete Root_;
}

Node *Nodes::FindLocked(Node *Parent, std::string_view Name, uint64_t Folded) {
    const auto At = Known_.find(Key{Parent, Folded, Name});
    return At == Known_.end() ? nullptr : *At;
}

uint64_t Nodes::NumberLocked(uint64_t Natural) {
    if (const auto At = Given_.find(Natural); At != Given_.end()) {
        return At->second;
    }
    return Natural;
}

Node *Nodes::Lookup(Node *Parent, std::string_view Spelling, bool Directory, Volume *In) {
    const std::lock_guard Hold(Lock_);
    const uint64_t Folded = FoldedHash(Spelling);
    Node *Found = FindLocked(Parent, Spelling, Folded);
    if (Found != nullptr && Found->Directory != Directory) {
        DetachLocked(Found);
        Found = nullptr;
    }
    if (Found == nullptr) {
        const uint64_t Natural = NaturalNumber(Parent, Folded);
        uint64_t Number = NumberLocked(Natural);
        if (Number == Natural && Taken_.contains(Natural)) {
            do {
                Number = Mix(Natural + ++Fresh_);
            } while (Number < 2 || Taken_.contains(Number));
            Given_[Natural] = Number;
            Taken_.insert(Number);
        }
        Found = new Node;
        Found->Parent = Parent;
        Found->In = In != nullptr ? In : Parent->In;
        Found->Name = Spelling;
        Found->Folded = Folded;
        Found->Number = Number;
        Found->Directory = Directory;
        Known_.insert(Found);
        Most_ = std::max(Most_, Known_.size());
        ++Parent->Children;
    }
    ++Found->Lookups;
    return Found;
}

Node *Nodes::Find(Node *Parent, std::string_view Name) {
    const std::lock_guard Hold(Lock_);
    return FindLocked(Parent, Name, FoldedHash(Name));
}

uint64_t Nodes::NumberOf(Node *Parent, std::string_view Name) {
    const uint64_t Folded = FoldedHash(Name);
    const std::lock_guard Hold(Lock_);
    return NumberLocked(NaturalNumber(Parent, Folded));
}

void Nodes::ReleaseLocked(Node *Which) {
    while (Which != nullptr && Which != Root_ && Which->Lookups == 0 && Which->Children == 0 && Which->Kept == 0) {
        Node *Parent = Which->Parent;
        if (Which->Deleted) {
            Taken_.erase(Which->Number);
        }
        Known_.erase(Which);
        if (Parent != nullptr) {
            --Parent->Children;
        }
        delete Which;
        Which = Parent;
    }
}

void Nodes::Forget(Node *Which, uint64_t Count) {
    std::unique_ptr<OpenState> Last; // these end outside of our lock
    std::shared_ptr<Remote> Aside;
    {
        const std::lock_guard Hold(Lock_);
        Which->Lookups -= std::min(Count, Which->Lookups);
        if (Which->Lookups == 0 && Which->Open) {
            Aside = std::move(Which->Open->Aside);
            if (Which->Open->Files.empty()) {
                Last = std::move(Which->Open);
            }
        }
        ReleaseLocked(Which);
        if (Most_ < Many || Known_.size() > Most_ / 2) {
            return;
        }
        Most_ = Known_.size();
        Known_.rehash(0);
    }
    malloc_trim(0); // what many names took goes back to the system
}

std::u16string Nodes::PathLocked(const Node *Which) const {
    std::vector<const Node *> Chain;
    const Node *Top = Which;
    for (; Top != nullptr && (Top->Parent == nullptr ? false : Top->Parent->In != nullptr); Top = Top->Parent) {
        Chain.push_back(Top);
    }
    if (Top == nullptr || Top->In == nullptr || Top->Deleted) {
        return {};
    }
    std::u16string Path = Top->In->Path;
    for (auto Each = Chain.rbegin(); Each != Chain.rend(); ++Each) {
        Path.append(u"\\").append(ServedName((*Each)->Name));
    }
    return Path;
}

std::u16string Nodes::Path(Node *Which) {
    const std::lock_guard Hold(Lock_);
    return PathLocked(Which);
}

std::u16string Nodes::PathBelow(Node *Parent, std::string_view Name) {
    const std::lock_guard Hold(Lock_);
    std::u16string Path = PathLocked(Parent);
    return Path.empty() ? Path : Path.append(u"\\").append(ServedName(Name));
}

// The node loses its name; its number stays its own until it goes.
void Nodes::DetachLocked(Node *Which) {
    Known_.erase(Which);
    Node *Parent = Which->Parent;
    const uint64_t Natural = NaturalNumber(Parent, Which->Folded);
    Given_.erase(Natural);
    Which->Parent = nullptr;
    Which->Deleted = true;
    Taken_.insert(Which->Number);
    --Parent->Children;
    Known_.insert(Which);
    ReleaseLocked(Parent);
    ReleaseLocked(Which);
}

void Nodes::Unlink(Node *Parent, std::string_view Name) {
    const std::lock_guard Hold(Lock_);
    const uint64_t Folded = FoldedHash(Name);
    if (Node *Which = FindLocked(Parent, Name, Folded); Which != nullptr) {
        DetachLocked(Which);
        return;
    }
    const uint64_t Natural = NaturalNumber(Parent, Folded);
    if (const auto At = Given_.find(Natural); At != Given_.end()) {
        Taken_.erase(At->second);
        Given_.erase(At);
    }
}

void Nodes::Rename(Node *Parent, std::string_view Name, Node *NewParent, std::string_view NewName) {
    const std::lock_guard Hold(Lock_);
    const uint64_t Folded = FoldedHash(Name);
    const uint64_t NewFolded = FoldedHash(NewName);
    const uint64_t Natural = NaturalNumber(Parent, Folded);
    const uint64_t NewNatural = NaturalNumber(NewParent, NewFolded);
    Node *Which = FindLocked(Parent, Name, Folded);
    if (Node *Old = FindLocked(NewParent, NewName, NewFolded); Old != nullptr && Old != Which) {
        DetachLocked(Old);
    }
    const uint64_t Number = Which != nullptr ? Which->Number : NumberLocked(Natural);
    Given_.erase(Natural);
    if (const auto At = Given_.find(NewNatural); At != Given_.end()) {
        Taken_.erase(At->second);
        Given_.erase(At);
    }
    if (Number != NewNatural) {
        Given_[NewNatural] = Number;
        Taken_.insert(Number);
    } else {
        Taken_.erase(Number);
    }
    if (Which == nullptr) {
        return;
    }
    Known_.erase(Which);
    Which->Name = NewName;
    Which->Folded = NewFolded;
    if (Parent != NewParent) {
        Which->Parent = NewParent;
        ++NewParent->Children;
        --Parent->Children;
    }
    Known_.insert(Which);
    ReleaseLocked(Parent);
}

std::shared_ptr<Remote> Nodes::Keep(Node *Which, Remote Handle) {
    auto *Moved = new Remote(std::move(Handle));
    {
        const std::lock_guard Hold(Lock_);
        ++Which->Kept;
    }
    return {Moved, [this, Which](Remote *Last) {
                delete Last;
                Closed(Which);
            }};
}

void Nodes::Closed(Node *Which) {
    {
        const std::lock_guard Hold(Lock_);
        ++Closes_;
        --Which->Kept;
        ReleaseLocked(Which);
    }
    Closing_.notify_all();
}

uint64_t Nodes::Closes() {
    const std::lock_guard Hold(Lock_);
    return Closes_;
}

bool Nodes::AwaitClose(uint64_t Before, std::chrono::steady_clock::time_point Until) {
    std::unique_lock Hold(Lock_);
    return std::chrono::steady_clock::now() < Until &&
           Closing_.wait_until(Hold, Until, [this, Before] { return Closes_ != Before; });
}

void Nodes::AddOpen(std::unique_ptr<OpenFile> File) {
    const std::lock_guard Hold(Lock_);
    std::unique_ptr<OpenState> &Open = File->Of->Open;
    if (!Open) {
        Open = std::make_unique<OpenState>();
    }
    Open->Files.push_back(std::move(File));
}

void Nodes::DropOpen(OpenFile *File) {
    std::unique_ptr<OpenState> Last; // its locks and handles end outside of our lock
    std::unique_ptr<OpenFile> Gone;
    const std::lock_guard Hold(Lock_);
    std::unique_ptr<OpenState> &Open = File->Of->Open;
    const auto At = std::find_if(Open->Files.begin(), Open->Files.end(),
                                 [File](const std::unique_ptr<OpenFile> &Each) { return Each.get() == File; });
    Gone = std::move(*At);
    Open->Files.erase(At);
    if (Open->Files.empty() && !Open->Aside) {
        Last = std::move(Open);
    }
}

void Nodes::KeepAside(Node *Which, Remote Handle) {
    std::shared_ptr<Remote> Kept = Keep(Which, std::move(Handle)); // ends outside of our lock, where it is not kept
    const std::lock_guard Hold(Lock_);
    if (Which->Lookups == 0) {
        return; // nobody can ask for it any more
    }
    if (!Which->Open) {
        Which->Open = std::make_unique<OpenState>();
    }
    Which->Open->Aside = std::move(Kept);
}

std::shared_ptr<Remote> Nodes::OpenHandle(Node *Which, ACCESS_MASK Access) {
    const std::lock_guard Hold(Lock_);
    if (Which->Open) {
        for (const std::unique_ptr<OpenFile> &Each : Which->Open->Files) {
            if (Each->Handle->Has(Access)) {
                return Each->Handle;
            }
        }
        if (Which->Open->Aside && Which->Open->Aside->Has(Access)) {
            return Which->Open->Aside;
        }
    }
    return nullptr;
}

bool Nodes::SetCached(Node *Which, LONG64 LastWrite, LONG64 Size) {
    const std::lock_guard Hold(Lock_);
    const LONG64 WriteBefore = std::exchange(Which->CachedWrite, LastWrite);
    const LONG64 SizeBefore = std::exchange(Which->CachedSize, Size);
    return WriteBefore == LastWrite && SizeBefore == Size;
}

bool Nodes::IsOpen(Node *Which) {
    const std::lock_guard Hold(Lock_);
    return Which->Kept != 0;
}

bool Nodes::IsDeleted(Node *Which) {
    const std::lock_guard Hold(Lock_);
    return Which->Deleted;
}

bool Nodes::IsOpenBelow(Node *Directory) {
    const std::lock_guard Hold(Lock_);
    return std::any_of(Known_.begin(), Known_.end(), [Directory](const Node *Each) {
        const Node *Up = Each->Kept != 0 ? Each->Parent : nullptr;
        while (Up != nullptr && Up != Directory) {
            Up = Up->Parent;
        }
        return Up != nullptr;
    });
}

std::shared_ptr<NodeLocks> Nodes::LocksOf(Node *Which, bool Make) {
    const std::lock_guard Hold(Lock_);
    if (!Which->Open) {
        return nullptr;
    }
    if (!Which->Open->Locks && Make) {
        Which->Open->Locks = std::make_shared<NodeLocks>();
    }
    return Which->Open->Locks;
}

std::vector<std::unique_ptr<OpenState>> Nodes::TakeAll() {
    const std::lock_guard Hold(Lock_);
    std::vector<std::unique_ptr<OpenState>> All;
    for (Node *Each : Known_) {
        if (Each->Open) {
            All.push_back(std::move(Each->Open));
        }
    }
    return All;
}

} // namespace app::mount
