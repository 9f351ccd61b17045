// What the console offers for the word before the cursor: verbs, options, remote and local names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/session.h"

namespace app {

// The console's own words, beside the verbs.
inline constexpr const char *ConsoleWords[] = {"help", "set", "trace", "requests", "quit"};

// Everything that Word may be completed to; Before is the line up to it. Remote names are listed through the running
// driver, which may block on the Provider. Names with blanks are left out: they need quotation marks.
std::vector<std::string> Completions(Session &Running, std::string_view Before, const std::string &Word);

} // namespace app
