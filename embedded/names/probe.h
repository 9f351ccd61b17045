// What tests look at and plant: the security of names, the end of a logon session.
#pragma once

#include <string_view>

#include "embedded/se/se.h"

namespace embedded {

// The security of the object of that name, a directory or a link: the bytes of its DACL, empty when it has none. The
// status of a link that is not there.
NTSTATUS QueryNameSecurity(std::u16string_view Path, Security *Access) noexcept;

// The session ends: its directory goes with all links in it, and nobody finds it as a linked session any more. Tokens
// that are still held stay usable.
void LogOff(const TokenObject &Token) noexcept;

} // namespace embedded
