#include "text/upcase.h"

#include <array>
#include <unicode/uchar.h>

namespace text {
namespace {

constexpr size_t UnitCount = 0x10000;
using UnitTable = std::array<char16_t, UnitCount>;

char16_t UpperOf(UChar32 Unit) {
    if (Unit >= 0xD800 && Unit <= 0xDFFF) {
        return static_cast<char16_t>(Unit);
    }
    UChar32 Upper = u_toupper(Unit);
    // The platform never folds another letter onto ASCII: dotless i and long s are names of their own.
    bool FoldsOntoAscii = Unit >= 0x80 && Upper < 0x80;
    return static_cast<char16_t>(Upper > 0xFFFF || FoldsOntoAscii ? Unit : Upper);
}

const UnitTable *BuildTable() {
    auto *Table = new UnitTable;
    for (size_t Unit = 0; Unit < UnitCount; ++Unit) {
        (*Table)[Unit] = UpperOf(static_cast<UChar32>(Unit));
    }
    return Table;
}

} // namespace

const char16_t *UpcaseTable() {
    // Never freed: names are folded while the process ends, too.
    static const UnitTable *const Table = BuildTable();
    return Table->data();
}

} // namespace text
