// The system's 16-bit text for people: messages, logs, listings.
#pragma once

#include <string>
#include <string_view>

namespace providers {

// Text as UTF-8; half of a surrogate pair becomes U+FFFD.
std::string ToUtf8(std::u16string_view Text);

} // namespace providers
