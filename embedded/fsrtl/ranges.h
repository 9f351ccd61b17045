// Granted byte-range locks: their ranges, owners and the search for overlaps. Private to the lock tables.
//
// No locking of its own: a table's mutex guards what it holds.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

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

// The locks of one kind in blocks of neighbours, ordered by start, then number. Each block knows the furthest end of
// its own ranges, and the furthest end of those in it and in all blocks before it: a search looks only at blocks in
// which something may overlap.
class LocksByRange {
public:
    // Throws bad_alloc, having changed nothing that is seen.
    void Add(GrantedLocks::iterator Granted) {
        const Entry New = {Granted->second.Bytes.Start, Granted->first, EndOf(Granted->second.Bytes), Granted};
        if (Blocks_.empty()) {
            Blocks_.push_back({MakeEntries(), New.Key(), 0, 0});
        }
        size_t At = BlockOf(New.Key());
        if (Blocks_[At].Entries->size() == MostEntries) {
            Divide(At);
            At = BlockOf(New.Key());
        }
        std::vector<Entry> &Entries = *Blocks_[At].Entries;
        Entries.insert(std::upper_bound(Entries.begin(), Entries.end(), New, Earlier), New);
        Renew(At, At + 1);
    }

    void Remove(GrantedLocks::iterator Granted) {
        const Entry Old = {Granted->second.Bytes.Start, Granted->first, 0, Granted};
        const size_t At = BlockOf(Old.Key());
        std::vector<Entry> &Entries = *Blocks_[At].Entries;
        Entries.erase(std::lower_bound(Entries.begin(), Entries.end(), Old, Earlier));
        if (Entries.empty()) {
            Blocks_.erase(Blocks_.begin() + static_cast<ptrdiff_t>(At));
            Renew(At, Blocks_.size());
        } else {
            Renew(At, At + 1);
        }
    }

    // Whether Counts accepts a lock that overlaps Wanted.
    template <typename Predicate>
    bool AnyOverlap(const Range &Wanted, Predicate Counts) const {
        if (Blocks_.empty()) {
            return false;
        }
        const Entry Last = {EndOf(Wanted), ~LockId{0}, 0, {}};
        for (size_t At = BlockOf(Last.Key()) + 1; At-- > 0 && Blocks_[At].FarthestSoFar >= Wanted.Start;) {
            if (Blocks_[At].Farthest < Wanted.Start) {
                continue;
            }
            const std::vector<Entry> &Entries = *Blocks_[At].Entries;
            for (auto Each = std::upper_bound(Entries.begin(), Entries.end(), Last, Earlier);
                 Each != Entries.begin();) {
                --Each;
                if (Each->End >= Wanted.Start && Overlap(Each->Granted->second.Bytes, Wanted) &&
                    Counts(Each->Granted->second)) {
                    return true;
                }
            }
        }
        return false;
    }

    // The oldest lock of just these bytes and this owner.
    std::optional<GrantedLocks::iterator> Find(const Range &Bytes, const Owner &By) const {
        const Entry First = {Bytes.Start, 0, 0, {}};
        for (size_t At = Blocks_.empty() ? 0 : BlockOf(First.Key());
             At < Blocks_.size() && Blocks_[At].First.first <= Bytes.Start; ++At) {
            const std::vector<Entry> &Entries = *Blocks_[At].Entries;
            for (auto Each = std::lower_bound(Entries.begin(), Entries.end(), First, Earlier);
                 Each != Entries.end() && Each->Start == Bytes.Start; ++Each) {
                const Lock &Here = Each->Granted->second;
                if (Here.Bytes == Bytes && Here.By == By) {
                    return Each->Granted;
                }
            }
        }
        return std::nullopt;
    }

private:
    using Place = std::pair<ULONGLONG, LockId>;
    struct Entry {
        ULONGLONG Start;
        LockId Id;
        ULONGLONG End;
        GrantedLocks::iterator Granted;

        Place Key() const {
            return {Start, Id};
        }
    };
    struct Block {
        std::unique_ptr<std::vector<Entry>> Entries;
        Place First;
        ULONGLONG Farthest;
        ULONGLONG FarthestSoFar; // of this block and those before it
    };
    static constexpr size_t MostEntries = 64;

    // Of a range of no bytes: its place.
    static ULONGLONG EndOf(const Range &Bytes) {
        return Bytes.Length == 0 ? Bytes.Start : Bytes.LastByte();
    }
    static bool Earlier(const Entry &One, const Entry &Two) {
        return One.Key() < Two.Key();
    }
    static std::unique_ptr<std::vector<Entry>> MakeEntries() {
        auto Entries = std::make_unique<std::vector<Entry>>();
        Entries->reserve(MostEntries);
        return Entries;
    }
    // The last block that begins at Key or before it; the first one when all begin later.
    size_t BlockOf(const Place &Key) const {
        const auto Behind =
            std::upper_bound(Blocks_.begin(), Blocks_.end(), Key,
                             [](const Place &Wanted, const Block &Each) { return Wanted < Each.First; });
        return Behind == Blocks_.begin() ? 0 : static_cast<size_t>(Behind - Blocks_.begin()) - 1;
    }
    // Puts the second half of a full block into one of its own.
    void Divide(size_t At) {
        auto Half = MakeEntries();
        Blocks_.reserve(Blocks_.size() + 1);
        std::vector<Entry> &Entries = *Blocks_[At].Entries;
        Half->assign(Entries.begin() + MostEntries / 2, Entries.end());
        Entries.resize(MostEntries / 2);
        const Place First = Half->front().Key();
        Blocks_.insert(Blocks_.begin() + static_cast<ptrdiff_t>(At) + 1, Block{std::move(Half), First, 0, 0});
        Renew(At, Blocks_.size());
    }
    // What is known of the blocks from At to End, and of those behind as far as it changes.
    void Renew(size_t At, size_t End) {
        for (; At < Blocks_.size(); ++At) {
            Block &Here = Blocks_[At];
            if (At < End) {
                Here.First = Here.Entries->front().Key();
                Here.Farthest = 0;
                for (const Entry &Each : *Here.Entries) {
                    Here.Farthest = std::max(Here.Farthest, Each.End);
                }
            }
            const ULONGLONG SoFar = std::max(Here.Farthest, At == 0 ? 0 : Blocks_[At - 1].FarthestSoFar);
            if (At >= End && SoFar == Here.FarthestSoFar) {
                return;
            }
            Here.FarthestSoFar = SoFar;
        }
    }

    std::vector<Block> Blocks_;
};

} // namespace embedded
