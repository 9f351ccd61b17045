#include "providers/wide_text.h"

#include <unicode/ustring.h>

namespace providers {

std::string ToUtf8(std::u16string_view Text) {
    std::string Out(Text.size() * 3, '\0');
    int32_t Length = 0;
    UErrorCode Error = U_ZERO_ERROR;
    u_strToUTF8WithSub(Out.data(), static_cast<int32_t>(Out.size()), &Length, Text.data(),
                       static_cast<int32_t>(Text.size()), 0xFFFD, nullptr, &Error);
    Out.resize(static_cast<size_t>(Length));
    return Out;
}

} // namespace providers
