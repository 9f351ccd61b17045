// The hash index of a Unicode prefix table, and the keys of names. Private to the prefix tables.
//
// An index owns its slots; it refers to entries and to the buffers of their names, which the caller keeps in place. No
// locking of its own: the callers of one table serialise themselves.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <sys/mman.h>

#include "embedded/rtl/upcase.h"
#include "kernel/linux/objects.h"

namespace embedded {

// ---- Names -------------------------------------------------------------------------------------------------

inline constexpr size_t UnitsPerWord = 4;

constexpr uint64_t InEachUnit(uint64_t Value) {
    return Value * 0x0001000100010001;
}

inline bool IsAscii(uint64_t Word) {
    return (Word & InEachUnit(0xFF80)) == 0;
}

// The upper case of four ASCII units at once: the top bit of a unit's low byte tells whether it is a small letter.
inline uint64_t UpcaseAscii(uint64_t Word) {
    uint64_t AtLeastA = Word + InEachUnit(0x80 - 'a');
    uint64_t PastZ = Word + InEachUnit(0x80 - 'z' - 1);
    return Word ^ ((AtLeastA & ~PastZ & InEachUnit(0x80)) >> 2);
}

inline uint64_t UpcaseUnits(const WCHAR *Units, size_t Count) {
    const WCHAR *Upcase = UpcaseTable();
    uint64_t Word = 0;
    for (size_t Index = 0; Index < Count; ++Index) {
        Word |= static_cast<uint64_t>(Upcase[Units[Index]]) << (16 * Index);
    }
    return Word;
}

// Four units of a name in upper case, the first in the low bits.
inline uint64_t UpcaseWord(const WCHAR *Units) {
    uint64_t Word;
    memcpy(&Word, Units, sizeof(Word));
    return IsAscii(Word) ? UpcaseAscii(Word) : UpcaseUnits(Units, UnitsPerWord);
}

inline bool HasBackslash(uint64_t Word) {
    uint64_t Difference = Word ^ InEachUnit(u'\\');
    return ((Difference - InEachUnit(1)) & ~Difference & InEachUnit(0x8000)) != 0;
}

inline bool EqualIgnoringCase(const WCHAR *One, const WCHAR *Two, size_t Count) {
    size_t Index = 0;
    for (; Index + UnitsPerWord <= Count; Index += UnitsPerWord) {
        if (UpcaseWord(One + Index) != UpcaseWord(Two + Index)) {
            return false;
        }
    }
    return UpcaseUnits(One + Index, Count - Index) == UpcaseUnits(Two + Index, Count - Index);
}

inline bool EqualUnits(const WCHAR *One, const WCHAR *Two, size_t Count) {
    // An empty name may have no buffer at all, which memcmp does not allow.
    return Count == 0 || memcmp(One, Two, Count * sizeof(WCHAR)) == 0;
}

inline uint64_t Mix(uint64_t State, uint64_t Word) {
    State = (State ^ Word) * 0x9E3779B97F4A7C15;
    return State ^ (State >> 29);
}

// The key of a name: the state after its whole words, its last up to three units, and its length.
inline uint64_t KeyOf(uint64_t State, uint64_t Partial, size_t Units) {
    uint64_t Hash = Mix(Mix(State, Partial), Units) * 0xD6E8FEB86659FD93;
    return (Hash & ~uint64_t(0xFFFF)) | (Units * sizeof(WCHAR));
}

// Depths from here on share one count.
inline constexpr size_t DepthLimit = 63;

// Calls Visit(Key, Units, Depth) for every prefix of a name that ends where a component ends, the shortest first and
// the whole name last. Depth is the number of backslashes in the prefix, at most DepthLimit.
template <typename Visitor>
void VisitPrefixes(const WCHAR *Name, size_t Count, Visitor &&Visit) {
    uint64_t State = 0;
    size_t Depth = 0;
    auto VisitWithin = [&](size_t Start, uint64_t Word, size_t End) {
        for (size_t Index = Start; Index < End; ++Index) {
            if (Name[Index] == u'\\') {
                uint64_t Partial = Word & ((uint64_t(1) << (16 * (Index - Start))) - 1);
                Visit(KeyOf(State, Partial, Index), Index, Depth);
                Depth = std::min(Depth + 1, DepthLimit);
            }
            if (Index == 0 && Name[0] == u'\\' && Count > 1 && Name[1] != u'\\') {
                // The lone backslash is a prefix of every rooted name, though no backslash follows it.
                Visit(KeyOf(0, u'\\', 1), 1, Depth);
            }
        }
    };
    size_t Index = 0;
    for (; Index + UnitsPerWord <= Count; Index += UnitsPerWord) {
        uint64_t Word = UpcaseWord(Name + Index);
        if (HasBackslash(Word)) {
            VisitWithin(Index, Word, Index + UnitsPerWord);
        }
        State = Mix(State, Word);
    }
    uint64_t Partial = UpcaseUnits(Name + Index, Count - Index);
    VisitWithin(Index, Partial, Count);
    Visit(KeyOf(State, Partial, Count), Count, Depth);
}

inline size_t UnitsOf(const UNICODE_STRING *String) {
    return String->Length / sizeof(WCHAR);
}

struct NameKey {
    uint64_t Key;
    size_t Depth;
};

inline NameKey WholeNameKey(const UNICODE_STRING *Name) {
    NameKey Last{};
    VisitPrefixes(Name->Buffer, UnitsOf(Name), [&](uint64_t Key, size_t, size_t Depth) { Last = {Key, Depth}; });
    return Last;
}

// ---- Index -------------------------------------------------------------------------------------------------

struct Slot {
    uint64_t Key;
    UNICODE_PREFIX_TABLE_ENTRY *Root; // nullptr: free
    const WCHAR *Buffer;
};

inline constexpr size_t SmallestCapacity = 8;
inline constexpr size_t HugePage = size_t(2) << 20;

// Zeroed slots, on huge pages where they fill some: a random look-up in a large table then misses the cache but
// hardly the TLB. nullptr without memory.
inline Slot *AllocateSlots(size_t Capacity) {
    size_t Bytes = Capacity * sizeof(Slot);
    if (Bytes < HugePage) {
        return static_cast<Slot *>(calloc(Capacity, sizeof(Slot)));
    }
    Bytes = (Bytes + HugePage - 1) / HugePage * HugePage;
    void *Memory = aligned_alloc(HugePage, Bytes);
    if (Memory != nullptr) {
        madvise(Memory, Bytes, MADV_HUGEPAGE);
        memset(Memory, 0, Bytes);
    }
    return static_cast<Slot *>(Memory);
}

// Open addressing with linear probing and backward-shift deletion: no tombstones, so removing and inserting one
// name for ever never degrades a large table.
class PrefixIndex {
public:
    explicit PrefixIndex(const UNICODE_PREFIX_TABLE *Owner) : Owner(Owner) {
    }
    PrefixIndex(const PrefixIndex &) = delete;
    PrefixIndex &operator=(const PrefixIndex &) = delete;
    ~PrefixIndex() {
        ReleaseSlots();
    }

    // Makes room for one more name; false without memory for it.
    bool Reserve() {
        return (Used_ + 1) * 4 <= Capacity() * 3 || Resize(Capacity() * 2) || Used_ + 1 < Capacity();
    }

    Slot *Find(uint64_t Key, const WCHAR *Name, size_t Units) {
        for (size_t Index = Home(Key);; Index = Next(Index)) {
            Slot &Candidate = Slots_[Index];
            if (Candidate.Root == nullptr) {
                return nullptr;
            }
            if (Candidate.Key == Key &&
                (EqualUnits(Candidate.Buffer, Name, Units) || EqualIgnoringCase(Candidate.Buffer, Name, Units))) {
                return &Candidate;
            }
        }
    }

    // The slot filed under Key that holds this very root, whatever its name has become.
    Slot *FindRoot(uint64_t Key, const UNICODE_PREFIX_TABLE_ENTRY *Root) {
        for (size_t Index = Home(Key);; Index = Next(Index)) {
            Slot &Candidate = Slots_[Index];
            if (Candidate.Root == nullptr || Candidate.Root == Root) {
                return Candidate.Root == nullptr ? nullptr : &Candidate;
            }
        }
    }

    void Add(NameKey Name, UNICODE_PREFIX_TABLE_ENTRY *Root) {
        Place({Name.Key, Root, Root->Prefix->Buffer});
        ++Used_;
        ++NamesAtDepth_[Name.Depth];
        Depths_ |= uint64_t(1) << Name.Depth;
    }

    void Remove(Slot *Victim, size_t Depth) {
        size_t Hole = static_cast<size_t>(Victim - Slots_);
        for (size_t Index = Next(Hole); Slots_[Index].Root != nullptr; Index = Next(Index)) {
            size_t FromHome = (Index - Home(Slots_[Index].Key)) & Mask_;
            size_t FromHole = (Index - Hole) & Mask_;
            if (FromHome >= FromHole) {
                Slots_[Hole] = Slots_[Index];
                Hole = Index;
            }
        }
        Slots_[Hole] = {};
        --Used_;
        if (--NamesAtDepth_[Depth] == 0) {
            Depths_ &= ~(uint64_t(1) << Depth);
        }
        if (Capacity() > SmallestCapacity && Used_ * 8 < Capacity()) {
            // Without memory the larger slots simply stay.
            Resize(Capacity() / 2);
        }
    }

    bool HasNamesAtDepth(size_t Depth) const {
        return (Depths_ >> Depth & 1) != 0;
    }
    void Prefetch(uint64_t Key) const {
        __builtin_prefetch(&Slots_[Home(Key)]);
    }
    bool Empty() const {
        return Used_ == 0;
    }

    // All entries in order of insertion.
    UNICODE_PREFIX_TABLE_ENTRY *First = nullptr;
    UNICODE_PREFIX_TABLE_ENTRY *Last = nullptr;

    // The list of all indexes.
    const UNICODE_PREFIX_TABLE *const Owner;
    PrefixIndex *Older = nullptr;
    PrefixIndex *Newer = nullptr;

private:
    size_t Capacity() const {
        return Mask_ + 1;
    }
    size_t Home(uint64_t Key) const {
        return Key >> Shift_;
    }
    size_t Next(size_t Index) const {
        return (Index + 1) & Mask_;
    }

    void Place(const Slot &New) {
        size_t Index = Home(New.Key);
        while (Slots_[Index].Root != nullptr) {
            Index = Next(Index);
        }
        Slots_[Index] = New;
    }

    bool Resize(size_t NewCapacity) {
        Slot *NewSlots = AllocateSlots(NewCapacity);
        if (NewSlots == nullptr) {
            return false;
        }
        Slot *OldSlots = Slots_;
        size_t OldCapacity = Capacity();
        Slots_ = NewSlots;
        Mask_ = NewCapacity - 1;
        Shift_ = 64 - static_cast<unsigned>(std::countr_zero(NewCapacity));
        for (size_t Index = 0; Index < OldCapacity; ++Index) {
            if (OldSlots[Index].Root != nullptr) {
                Place(OldSlots[Index]);
            }
        }
        if (OldSlots != Inline_) {
            free(OldSlots);
        }
        return true;
    }

    void ReleaseSlots() {
        if (Slots_ != Inline_) {
            free(Slots_);
        }
    }

    Slot *Slots_ = Inline_;
    size_t Mask_ = SmallestCapacity - 1;
    unsigned Shift_ = 64 - std::countr_zero(SmallestCapacity);
    size_t Used_ = 0;
    uint64_t Depths_ = 0;
    std::array<uint32_t, DepthLimit + 1> NamesAtDepth_{};
    Slot Inline_[SmallestCapacity]{};
};

} // namespace embedded
