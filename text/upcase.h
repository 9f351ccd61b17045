// Upper case of UTF-16 units as the platform's up-case table has it: one unit to one unit, no locale.
//
// The table is built on first use and never changes, so any thread may read it without a lock.
#pragma once

namespace text {

// The table of 65,536 units, indexed by unit. Loops fetch it once instead of calling UpcaseUnit for every unit.
const char16_t *UpcaseTable();

inline char16_t UpcaseUnit(char16_t Unit) {
    return UpcaseTable()[Unit];
}

} // namespace text
