// Following links that the kernel will not follow beneath a directory although they stay inside the export: those that
// lead up from where the look-up starts, and absolute ones into the export.
#pragma once

#include <string_view>

#include "providers/directory/beneath.h"

namespace providers::directory {

// Opens Path (as for OpenBeneath) below the export's root, whose own absolute path is Absolute. Every step is taken
// from a directory that was reached from the root; nothing outside is touched. Returns the descriptor or -1 with errno:
// EXDEV for a link that leads out, ELOOP for one that leads round.
int OpenFollowing(int Root, std::string_view Absolute, std::string_view Path, int Flags);

} // namespace providers::directory
