#include "providers/directory/collision_names.h"

#include <cstdint>

#include "providers/directory/names.h"

namespace providers::directory {
namespace {

constexpr size_t MarkUnits = 7;
constexpr size_t MaxUnits = 255;

size_t StemOf(std::u16string_view Name) {
    const size_t Dot = Name.rfind(u'.');
    return Dot == std::u16string_view::npos || Dot == 0 ? Name.size() : Dot;
}

} // namespace

std::u16string MarkOf(std::string_view Native) {
    uint64_t Hash = 14695981039346656037u;
    for (const char Byte : Native) {
        Hash = (Hash ^ static_cast<unsigned char>(Byte)) * 1099511628211u;
    }
    Hash ^= Hash >> 32;
    std::u16string Mark(1, u'~');
    while (Mark.size() < MarkUnits) {
        Mark.push_back(u"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"[Hash % 36]);
        Hash /= 36;
    }
    return Mark;
}

std::u16string MarkedName(std::string_view Native) {
    std::u16string Name = ServedName(Native);
    // What is cut off a long name comes from the end of its stem, or of an extension that is all there is.
    size_t Stem = StemOf(Name);
    if (const size_t Whole = Name.size() + MarkUnits; Whole > MaxUnits) {
        const size_t Over = Whole - MaxUnits;
        if (Stem > Over) {
            Name.erase(Stem - Over, Over);
            Stem -= Over;
        } else {
            Name.resize(MaxUnits - MarkUnits);
            Stem = Name.size();
        }
    }
    return Name.insert(Stem, MarkOf(Native));
}

bool SplitMarked(std::u16string_view Name, std::u16string &Plain, std::u16string &Mark) {
    const size_t Stem = StemOf(Name);
    if (Stem < MarkUnits + 1 || Name[Stem - MarkUnits] != u'~') {
        return false;
    }
    Mark = Fold(Name.substr(Stem - MarkUnits, MarkUnits));
    if (Mark.find_first_not_of(u"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ", 1) != Mark.npos) {
        return false;
    }
    Plain = Fold(Name.substr(0, Stem - MarkUnits)) + Fold(Name.substr(Stem));
    return true;
}

bool HasMarkedName(std::string_view Native, std::u16string_view Plain, std::u16string_view Mark) {
    std::u16string Own;
    std::u16string OwnMark;
    return MarkOf(Native) == Mark && SplitMarked(MarkedName(Native), Own, OwnMark) && Own == Plain;
}

} // namespace providers::directory
