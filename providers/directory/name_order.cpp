#include "providers/directory/name_order.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <string>
#include <utility>

#include "providers/directory/names.h"

namespace providers::directory {
namespace {

static_assert(std::endian::native == std::endian::little);

// A name that is to be sorted.
struct Key {
    uint64_t Head; // the units that are compared, the first one highest, zeros behind the name's end
    uint32_t Index;
    uint32_t WideAt; // one more than where its folded form is; 0 for a plain name, which is folded as it is looked at
};

constexpr uint64_t InEachByte(unsigned Value) {
    return Value * 0x0101010101010101u;
}

// Eight bytes, all below 0x7F, in upper case.
constexpr uint64_t FoldEight(uint64_t Bytes) {
    const uint64_t FromA = Bytes + InEachByte(0x80 - 'a');
    const uint64_t BeyondZ = Bytes + InEachByte(0x7F - 'z');
    return Bytes - ((FromA & ~BeyondZ & InEachByte(0x80)) >> 2);
}

// The eight units from At on of a plain name in its folded form.
uint64_t PlainHead(std::string_view Name, size_t At) {
    const size_t Left = Name.size() - At;
    uint64_t Bytes = 0;
    if (Left >= sizeof Bytes) {
        memcpy(&Bytes, Name.data() + At, sizeof Bytes);
    } else if (Left != 0 && Name.size() >= sizeof Bytes) {
        memcpy(&Bytes, Name.data() + Name.size() - sizeof Bytes, sizeof Bytes);
        Bytes >>= 8 * (sizeof Bytes - Left);
    } else {
        memcpy(&Bytes, Name.data() + At, Left);
    }
    return FoldEight(__builtin_bswap64(Bytes));
}

class Sorter {
public:
    Sorter(uint32_t Count, NameToSort (*NameOf)(const void *Context, uint32_t Index), const void *Context)
        : NameOf_(NameOf), Context_(Context) {
        Keys_.reserve(Count);
        char16_t All = 0;
        for (uint32_t Index = 0; Index < Count; ++Index) {
            const NameToSort Name = NameOf_(Context_, Index);
            if (Name.Native.empty()) {
                continue;
            }
            Keys_.push_back({0, Index, 0});
            if (!Name.IsPlain) {
                Keys_.back().WideAt = static_cast<uint32_t>(Wide_.size()) + 1;
                AppendFolded(Name.Native, Wide_);
                Wide_.append(HeadBytes, u'\0'); // no name holds it, so it ends this one
            }
        }
        for (const char16_t Unit : Wide_) {
            All = static_cast<char16_t>(All | Unit);
        }
        UnitBits_ = All < 0x100 ? 8 : 16;
        Units_ = 64 / UnitBits_;
        Scratch_.resize(Keys_.size());
        Sorted_.reserve(Keys_.size());
    }

    std::vector<SortedName> Sort() {
        SortFrom(Keys_.data(), Keys_.size(), 0);
        return std::move(Sorted_);
    }

private:
    static constexpr size_t HeadBytes = sizeof(uint64_t);
    static constexpr size_t FewKeys = 256;

    std::string_view Native(const Key &Each) const {
        return NameOf_(Context_, Each.Index).Native;
    }

    // The units from At on, which is not behind the name's end.
    uint64_t HeadOf(const Key &Each, size_t At) const {
        if (Each.WideAt == 0) {
            const uint64_t Bytes = PlainHead(Native(Each), At);
            if (UnitBits_ == 8) {
                return Bytes;
            }
            return (Bytes >> 56) << 48 | (Bytes >> 48 & 0xFF) << 32 | (Bytes >> 40 & 0xFF) << 16 | (Bytes >> 32 & 0xFF);
        }
        const char16_t *From = Wide_.data() + Each.WideAt - 1 + At;
        uint64_t Head = 0;
        for (size_t Unit = 0; Unit < Units_; ++Unit) {
            Head = Head << UnitBits_ | From[Unit];
        }
        return Head;
    }

    // How many units all of them begin with, if those before From are the same and none ends there; or fewer.
    size_t CommonTo(const Key *Keys, size_t Count, size_t From) const {
        std::array<uint64_t, 32> Heads; // of the first
        size_t Common = 0;
        for (uint64_t &Head : Heads) {
            Head = HeadOf(Keys[0], From + Common);
            Common += UnitsOf(Head);
            if (UnitsOf(Head) < Units_) {
                break;
            }
        }
        for (size_t Each = 1; Each < Count && Common != 0; ++Each) {
            for (size_t At = 0; At < Common; At += Units_) {
                const uint64_t Other = HeadOf(Keys[Each], From + At) ^ Heads[At / Units_];
                if (Other != 0) {
                    Common = std::min(Common, At + static_cast<size_t>(std::countl_zero(Other)) / UnitBits_);
                    break;
                }
            }
        }
        return Common;
    }

    // How many units there are before the name's end.
    size_t UnitsOf(uint64_t Head) const {
        return Units_ - static_cast<size_t>(std::min(std::countr_zero(Head), 64)) / UnitBits_;
    }

    // Sorts by Head, digit by digit of those in which any two differ.
    void SortByHead(Key *Keys, size_t Count) {
        if (Count < FewKeys) {
            std::sort(Keys, Keys + Count, [](const Key &Left, const Key &Right) { return Left.Head < Right.Head; });
            return;
        }
        constexpr unsigned DigitBits = 8;
        constexpr size_t Digits = size_t{1} << DigitBits;
        uint64_t Differing = 0;
        for (size_t Each = 0; Each < Count; ++Each) {
            Differing |= Keys[Each].Head ^ Keys[0].Head;
        }
        Key *From = Keys;
        Key *To = Scratch_.data();
        for (unsigned Shift = 0; Shift < 64; Shift += DigitBits) {
            if ((Differing >> Shift & (Digits - 1)) == 0) {
                continue;
            }
            std::array<size_t, Digits> Starts{};
            for (size_t Each = 0; Each < Count; ++Each) {
                ++Starts[From[Each].Head >> Shift & (Digits - 1)];
            }
            for (size_t Before = 0; size_t & Each : Starts) {
                Before += std::exchange(Each, Before);
            }
            for (size_t Each = 0; Each < Count; ++Each) {
                To[Starts[From[Each].Head >> Shift & (Digits - 1)]++] = From[Each];
            }
            std::swap(From, To);
        }
        if (From != Keys) {
            std::copy(From, From + Count, Keys);
        }
    }

    // Sorts names that have the same units before From, and none of which ends there, behind those that are sorted.
    void SortFrom(Key *Keys, size_t Count, size_t From) {
        if (Count == 1) {
            Sorted_.push_back({Keys->Index, true});
            return;
        }
        if (Count == 0) {
            return;
        }
        From += CommonTo(Keys, Count, From);
        for (size_t Each = 0; Each < Count; ++Each) {
            Keys[Each].Head = HeadOf(Keys[Each], From);
        }
        SortByHead(Keys, Count);
        for (Key *First = Keys, *End = First; First != Keys + Count; First = End) {
            while (End != Keys + Count && End->Head == First->Head) {
                ++End;
            }
            if (End - First == 1) {
                Sorted_.push_back({First->Index, true});
            } else if (UnitsOf(First->Head) == Units_) {
                SortFrom(First, static_cast<size_t>(End - First), From + Units_);
            } else {
                std::sort(First, End, [&](const Key &Left, const Key &Right) { return Native(Left) < Native(Right); });
                for (const Key *Same = First; Same != End; ++Same) {
                    Sorted_.push_back({Same->Index, false});
                }
            }
        }
    }

    NameToSort (*const NameOf_)(const void *Context, uint32_t Index);
    const void *const Context_;
    std::vector<Key> Keys_;
    std::vector<Key> Scratch_;
    std::u16string Wide_; // the folded forms of those that are not plain
    unsigned UnitBits_ = 8;
    size_t Units_ = HeadBytes; // of a head
    std::vector<SortedName> Sorted_;
};

} // namespace

std::vector<SortedName> SortNames(uint32_t Count, NameToSort (*NameOf)(const void *Context, uint32_t Index),
                                  const void *Context) {
    return Sorter(Count, NameOf, Context).Sort();
}

} // namespace providers::directory
