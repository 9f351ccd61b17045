#include "embedded/rtl/counted.h"

#include <algorithm>

#include "embedded/rtl/upcase.h"

namespace embedded {

bool EqualNames(std::u16string_view Left, std::u16string_view Right, bool CaseInsensitive) noexcept {
    if (!CaseInsensitive || Left.size() != Right.size()) {
        return Left == Right;
    }
    const WCHAR *Upcase = UpcaseTable();
    return std::equal(Left.begin(), Left.end(), Right.begin(),
                      [Upcase](char16_t L, char16_t R) { return L == R || Upcase[L] == Upcase[R]; });
}

} // namespace embedded
