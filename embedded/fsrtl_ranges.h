// Granted byte-range locks: their ranges, owners and the search for overlaps. Private to the lock tables.
//
// No locking of its own: a table's mutex guards what it holds.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "kernel/linux/objects.h"

namespace embedded {

struct Range {
    ULONGLONG Start;
    ULONGLONG Length;

    // Meaningless for a range of no bytes.
    ULONGLONG LastByte() const {
        return Start + Length - 1;
    }
    bool Wraps() const {
        return Length != 0 && LastByte() < Start;
    }
    bool operator==(const Range &) const = default;
};

inline bool Overlap(const Range &One, const Range &Two) {
    if (One.Length == 0 && Two.Length == 0) {
        return false;
    }
    if (One.Length == 0) {
        return Two.Start < One.Start && One.Start <= Two.LastByte();
    }
    if (Two.Length == 0) {
        return Overlap(Two, One);
    }
    return One.Start <= Two.LastByte() && Two.Start <= One.LastByte();
}

struct Owner {
    PFILE_OBJECT FileObject;
    PEPROCESS Process;
    ULONG Key;
    bool operator==(const Owner &) const = default;
};

struct Lock {
    Range Bytes;
    Owner By;
    bool Exclusive;
};

inline FILE_LOCK_INFO Describe(const Lock &Of) {
    FILE_LOCK_INFO Info{};
    Info.StartingByte.QuadPart = static_cast<LONGLONG>(Of.Bytes.Start);
    Info.Length.QuadPart = static_cast<LONGLONG>(Of.Bytes.Length);
    Info.EndingByte.QuadPart = static_cast<LONGLONG>(Of.Bytes.LastByte());
    Info.ExclusiveLock = Of.Exclusive;
    Info.Key = Of.By.Key;
    Info.FileObject = Of.By.FileObject;
    Info.ProcessId = Of.By.Process;
    return Info;
}

// Numbers locks in the order in which they were granted; never used twice, so a number kept over a callback still
// means the same lock or none.
using LockId = ULONG64;
using GrantedLocks = std::map<LockId, Lock>;

// The locks of one kind, in a tree that knows of each subtree where its ranges end at the most: a search looks at what
// may overlap, and at none of the rest. Ordered by start, then number; balanced by drawn priorities.
class LocksByRange {
public:
    LocksByRange() = default;
    LocksByRange(const LocksByRange &) = delete;
    LocksByRange &operator=(const LocksByRange &) = delete;
    ~LocksByRange() {
        Free(Root_);
    }

    // Throws bad_alloc, having changed nothing.
    void Add(GrantedLocks::iterator Granted) {
        Random_ = Random_ * 6364136223846793005 + 1442695040888963407;
        auto *New = new Node{Granted, EndOf(Granted->second.Bytes), Random_ >> 32, nullptr, nullptr};
        const auto [Before, Behind] = Split(Root_, Key(New));
        Root_ = Merge(Merge(Before, New), Behind);
    }

    void Remove(GrantedLocks::iterator Granted) {
        const Place At = {Granted->second.Bytes.Start, Granted->first};
        auto [Before, Rest] = Split(Root_, At);
        auto [Old, Behind] = Split(Rest, {At.first, At.second + 1});
        delete Old;
        Root_ = Merge(Before, Behind);
    }

    // Whether Counts accepts a lock that overlaps Wanted.
    template <typename Predicate>
    bool AnyOverlap(const Range &Wanted, Predicate Counts) const {
        return Search(Root_, Wanted, Counts);
    }

    std::optional<GrantedLocks::iterator> Find(const Range &Bytes, const Owner &By) const {
        std::optional<GrantedLocks::iterator> Found;
        FindFrom(Root_, Bytes, By, &Found);
        return Found;
    }

private:
    using Place = std::pair<ULONGLONG, LockId>;
    struct Node {
        GrantedLocks::iterator Granted;
        ULONGLONG FarthestEnd;
        ULONG64 Priority;
        Node *Left;
        Node *Right;

        ULONGLONG Start() const {
            return Granted->second.Bytes.Start;
        }
        ULONGLONG End() const {
            return EndOf(Granted->second.Bytes);
        }
    };

    // Of a range of no bytes: its place.
    static ULONGLONG EndOf(const Range &Bytes) {
        return Bytes.Length == 0 ? Bytes.Start : Bytes.LastByte();
    }
    static Place Key(const Node *Of) {
        return {Of->Start(), Of->Granted->first};
    }
    static Node *Renew(Node *Of) {
        Of->FarthestEnd = Of->End();
        for (const Node *Below : {Of->Left, Of->Right}) {
            Of->FarthestEnd = Below == nullptr ? Of->FarthestEnd : std::max(Of->FarthestEnd, Below->FarthestEnd);
        }
        return Of;
    }
    // Those before At, and the rest.
    static std::pair<Node *, Node *> Split(Node *Of, const Place &At) {
        if (Of == nullptr) {
            return {nullptr, nullptr};
        }
        if (Key(Of) < At) {
            const auto [Before, Behind] = Split(Of->Right, At);
            Of->Right = Before;
            return {Renew(Of), Behind};
        }
        const auto [Before, Behind] = Split(Of->Left, At);
        Of->Left = Behind;
        return {Before, Renew(Of)};
    }
    static Node *Merge(Node *Before, Node *Behind) {
        if (Before == nullptr || Behind == nullptr) {
            return Before == nullptr ? Behind : Before;
        }
        if (Before->Priority > Behind->Priority) {
            Before->Right = Merge(Before->Right, Behind);
            return Renew(Before);
        }
        Behind->Left = Merge(Before, Behind->Left);
        return Renew(Behind);
    }
    template <typename Predicate>
    static bool Search(const Node *Of, const Range &Wanted, Predicate Counts) {
        if (Of == nullptr || Of->FarthestEnd < Wanted.Start) {
            return false;
        }
        if (Search(Of->Left, Wanted, Counts)) {
            return true;
        }
        if (Of->Start() > EndOf(Wanted)) {
            return false;
        }
        const Lock &Here = Of->Granted->second;
        return (Overlap(Here.Bytes, Wanted) && Counts(Here)) || Search(Of->Right, Wanted, Counts);
    }
    // The oldest lock of just these bytes and this owner.
    static void FindFrom(const Node *Of, const Range &Bytes, const Owner &By,
                         std::optional<GrantedLocks::iterator> *Found) {
        if (Of == nullptr || *Found) {
            return;
        }
        if (Of->Start() >= Bytes.Start) {
            FindFrom(Of->Left, Bytes, By, Found);
        }
        const Lock &Here = Of->Granted->second;
        if (!*Found && Here.Bytes == Bytes && Here.By == By) {
            *Found = Of->Granted;
        }
        if (Of->Start() <= Bytes.Start) {
            FindFrom(Of->Right, Bytes, By, Found);
        }
    }
    static void Free(Node *Of) {
        if (Of != nullptr) {
            Free(Of->Left);
            Free(Of->Right);
            delete Of;
        }
    }

    Node *Root_ = nullptr;
    ULONG64 Random_ = 1;
};

} // namespace embedded
