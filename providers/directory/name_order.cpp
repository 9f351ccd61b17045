#include "providers/directory/name_order.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>

#include "providers/directory/names.h"

namespace providers::directory {
namespace {

// A name that is to be sorted.
struct Key {
    uint64_t Head; // what it begins with, behind what all begin with
    uint32_t At;   // in the text of the folded names
    uint32_t Size;
    uint32_t Index;
};

// Sorts by Head, the keys that have the same one staying in their order, digit by digit of those in which any two
// differ.
void SortByHead(std::vector<Key> &Keys) {
    constexpr unsigned DigitBits = 8;
    constexpr size_t Digits = size_t{1} << DigitBits;
    uint64_t Differing = 0;
    for (const Key &Each : Keys) {
        Differing |= Each.Head ^ Keys.front().Head;
    }
    std::vector<Key> Sorted(Keys.size());
    for (unsigned Shift = 0; Shift < 64; Shift += DigitBits) {
        if ((Differing >> Shift & (Digits - 1)) == 0) {
            continue;
        }
        std::array<size_t, Digits> Starts{};
        for (const Key &Each : Keys) {
            ++Starts[Each.Head >> Shift & (Digits - 1)];
        }
        for (size_t Before = 0; size_t & Each : Starts) {
            Before += std::exchange(Each, Before);
        }
        for (const Key &Each : Keys) {
            Sorted[Starts[Each.Head >> Shift & (Digits - 1)]++] = Each;
        }
        Keys.swap(Sorted);
    }
}

} // namespace

std::vector<SortedName> SortNames(uint32_t Count, size_t Bytes,
                                  std::string_view (*NativeOf)(const void *Context, uint32_t Index),
                                  const void *Context) {
    // The folded names one behind the other, and in each key the first units in which they differ at all.
    std::u16string Text;
    std::vector<Key> Keys;
    Keys.reserve(Count);
    Text.reserve(Bytes);
    for (uint32_t Index = 0; Index < Count; ++Index) {
        if (const std::string_view Native = NativeOf(Context, Index); !Native.empty()) {
            const size_t At = Text.size();
            AppendFolded(Native, Text);
            Keys.push_back({0, static_cast<uint32_t>(At), static_cast<uint32_t>(Text.size() - At), Index});
        }
    }
    const auto View = [&](const Key &Each) { return std::u16string_view(Text).substr(Each.At, Each.Size); };
    size_t Common = Keys.empty() ? 0 : Keys[0].Size;
    for (const Key &Each : Keys) {
        Common = std::min<size_t>(Common, Each.Size);
        while (memcmp(&Text[Keys[0].At], &Text[Each.At], Common * sizeof(char16_t)) != 0) {
            --Common;
        }
    }
    char16_t All = 0;
    for (const char16_t Unit : Text) {
        All = static_cast<char16_t>(All | Unit);
    }
    const unsigned UnitBits = All < 0x100 ? 8 : 16;
    for (Key &Each : Keys) {
        for (size_t Unit = Common; Unit < Common + 64 / UnitBits; ++Unit) {
            Each.Head = Each.Head << UnitBits | (Unit < Each.Size ? Text[Each.At + Unit] : 0u);
        }
    }
    SortByHead(Keys);
    const auto Less = [&](const Key &Left, const Key &Right) {
        const int Order = View(Left).compare(View(Right));
        return Order != 0 ? Order < 0 : NativeOf(Context, Left.Index) < NativeOf(Context, Right.Index);
    };
    for (auto First = Keys.begin(), End = First; First != Keys.end(); First = End) {
        while (End != Keys.end() && End->Head == First->Head) {
            ++End;
        }
        std::sort(First, End, Less);
    }
    std::vector<SortedName> Sorted;
    Sorted.reserve(Keys.size());
    for (size_t At = 0; At < Keys.size(); ++At) {
        const auto IsSame = [&](const Key &Other) {
            return Other.Head == Keys[At].Head && View(Other) == View(Keys[At]);
        };
        const bool Alone = (At == 0 || !IsSame(Keys[At - 1])) && (At + 1 == Keys.size() || !IsSame(Keys[At + 1]));
        Sorted.push_back({Keys[At].Index, Alone});
    }
    return Sorted;
}

} // namespace providers::directory
