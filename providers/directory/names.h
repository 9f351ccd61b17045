// Names on both sides: the bytes of a directory entry and the 16-bit name under which it is served.
//
// Served names are UTF-16. What cannot stand in a served name is written with private-use units U+F000 + byte: control
// characters and " * : < > ? \ |, a full stop or blank at the end, and every byte that is not part of valid UTF-8. A
// real private-use character that would read back as such a unit is treated as undecodable bytes, so that reading and
// writing are exact inverses.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace providers::directory {

// The served name of a directory entry. Any bytes are accepted; the answer is never empty for a name that is not.
std::u16string ServedName(std::string_view Native);

// Whether a directory entry is served under its own bytes, one unit each.
bool IsServedAsItIs(std::string_view Native);

// The bytes of a served name, or nothing when no directory entry can be served under it: empty, "." and "..", longer
// than 255 bytes, a separator or forbidden character, a lone surrogate, or a spelling that ServedName never gives.
std::optional<std::string> NativeName(std::u16string_view Served);

// The components of a path (separated by backslashes, of which there may be too many) as bytes, joined by '/', when
// each can be the name of an entry.
std::optional<std::string> NativePath(std::u16string_view Served);

// The name in upper case, unit by unit within the 16-bit range, as the platform compares names.
std::u16string Fold(std::u16string_view Name);
// Appends Fold(ServedName(Native)) to Out.
void AppendFolded(std::string_view Native, std::u16string &Out);
// Whether Fold(Name) is Folded.
bool FoldsTo(std::u16string_view Name, std::u16string_view Folded);

// The text of an 8.3 name, of at most 12 units.
class ShortText {
public:
    std::u16string_view View() const {
        return {Units_, Size_};
    }
    operator std::u16string_view() const {
        return View();
    }
    bool empty() const {
        return Size_ == 0;
    }
    void push_back(char16_t Unit) {
        Units_[Size_++] = Unit;
    }

private:
    char16_t Units_[12];
    unsigned char Size_ = 0;
};

// A hash of a folded name.
uint32_t HashOfFolded(std::u16string_view Folded);

// What is found out about an entry's name in one walk over it.
struct NameFacts {
    uint32_t Hash; // of its folded form
    bool IsPlain;  // IsServedAsItIs
};
NameFacts FactsOf(std::string_view Native);

// What of a folded name's hash its 8.3 name tells: below 2^24, and as well spread.
constexpr uint32_t ShortEndingOf(uint32_t Hash) {
    return Hash % (36u * 36 * 36 * 36 * 9);
}

// An 8.3 name as ShortName makes it, in eight bytes; or none.
class ShortCode {
public:
    ShortCode() = default;
    // Base and Extension hold what was kept of them, zeros behind it; Ending is that of the name's hash.
    ShortCode(const char (&Base)[2], const char (&Extension)[3], uint32_t Ending);
    // Of a text in upper case; none for one that ShortName never makes.
    static ShortCode Of(std::u16string_view Folded);

    bool empty() const {
        return *this == ShortCode();
    }
    uint32_t Ending() const {
        return (Ending_[0] | uint32_t{Ending_[1]} << 8 | uint32_t{Ending_[2]} << 16) - 1;
    }
    ShortText Text() const;
    bool operator==(const ShortCode &) const = default;

private:
    char Base_[2] = {};
    char Extension_[3] = {};
    unsigned char Ending_[3] = {}; // one more than it, so that none is all zeros
};
static_assert(sizeof(ShortCode) == 8);

// An 8.3 name made from the entry's served name, upper case; empty for a name that is one already. Two names of a
// directory may get the same one: it is then of no use to either. Hash is that of the folded name, IsPlain is
// IsServedAsItIs.
ShortCode ShortCodeOf(std::string_view Native, uint32_t Hash, bool IsPlain);
ShortText ShortName(std::string_view Native);

// Whether Mask holds one of the wildcards: * and ?, and U+F8FC, U+F8FD, U+F8FF, which stand for the platform's < > ".
bool HasWildcards(std::u16string_view Mask);

// Whether every name matches Mask.
bool MatchesEverything(std::u16string_view Mask);

// Whether a served name matches a search mask, ignoring case. Both must be folded.
bool MatchesMask(std::u16string_view FoldedMask, std::u16string_view FoldedName);

} // namespace providers::directory
