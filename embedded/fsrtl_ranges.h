// Granted byte-range locks: their ranges, owners and the search for overlaps. Private to the lock tables.
//
// No locking of its own: a table's mutex guards what it holds.
#pragma once

#include <algorithm>
#include <map>
#include <optional>

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

// The locks of one kind by their start. Where ranges overlap their starts are less than the longest range apart.
class LocksByStart {
public:
    using Place = std::multimap<ULONGLONG, GrantedLocks::iterator>::iterator;

    void Add(GrantedLocks::iterator Granted) {
        Locks_.emplace(Granted->second.Bytes.Start, Granted);
        Longest_ = std::max(Longest_, Granted->second.Bytes.Length);
    }

    void Remove(GrantedLocks::iterator Granted) {
        auto [First, End] = Locks_.equal_range(Granted->second.Bytes.Start);
        for (Place At = First; At != End; ++At) {
            if (At->second == Granted) {
                Locks_.erase(At);
                break;
            }
        }
        if (Locks_.empty()) {
            Longest_ = 0;
        }
    }

    // The first lock that overlaps Wanted and that Counts accepts.
    template <typename Predicate>
    bool AnyOverlap(const Range &Wanted, Predicate Counts) const {
        auto At = Locks_.lower_bound(Wanted.Start - std::min(Wanted.Start, Longest_));
        ULONGLONG Last = Wanted.Length == 0 ? Wanted.Start : Wanted.LastByte();
        for (; At != Locks_.end() && At->first <= Last; ++At) {
            const Lock &Granted = At->second->second;
            if (Overlap(Granted.Bytes, Wanted) && Counts(Granted)) {
                return true;
            }
        }
        return false;
    }

    std::optional<GrantedLocks::iterator> Find(const Range &Bytes, const Owner &By) const {
        auto [First, End] = Locks_.equal_range(Bytes.Start);
        for (auto At = First; At != End; ++At) {
            const Lock &Granted = At->second->second;
            if (Granted.Bytes == Bytes && Granted.By == By) {
                return At->second;
            }
        }
        return std::nullopt;
    }

private:
    std::multimap<ULONGLONG, GrantedLocks::iterator> Locks_;
    ULONGLONG Longest_ = 0;
};

} // namespace embedded
