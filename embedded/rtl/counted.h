// Counted strings as views, and the comparison of names.
#pragma once

#include <string_view>

#include "kernel/kernel.h"

namespace embedded {

inline std::u16string_view View(PCUNICODE_STRING String) noexcept {
    return String == nullptr ? std::u16string_view{}
                             : std::u16string_view{String->Buffer, String->Length / sizeof(WCHAR)};
}

// A counted string over Text, which must outlive it and stay below 32768 characters.
inline UNICODE_STRING ToUnicodeString(std::u16string_view Text) noexcept {
    const auto Bytes = static_cast<USHORT>(Text.size() * sizeof(WCHAR));
    return UNICODE_STRING{Bytes, Bytes, const_cast<PWSTR>(Text.data())};
}

bool EqualNames(std::u16string_view Left, std::u16string_view Right, bool CaseInsensitive) noexcept;

} // namespace embedded
