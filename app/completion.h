// What the console offers for the word before the cursor: verbs, options, remote and local names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/session.h"

namespace app {

// The console's own words, beside the verbs.
inline constexpr const char *ConsoleWords[] = {"cd", "lcd", "pwd", "set", "trace", "requests", "quit"};

// The word that a line ends in.
struct LastWord {
    size_t Start = 0; // in the line, of its quotation mark where there is one
    std::string Text; // without quotation marks
    char Quote = 0;   // that is open at the line's end
};
LastWord FindLastWord(std::string_view Line);

// Full, which completes Word, as it is written in the line from Cursor on; Closed: nothing follows it. A name with
// blanks is put in quotation marks where that is still possible.
std::string Respell(const std::string &Full, const LastWord &Word, size_t Cursor, bool Closed);

// Everything that Word may be completed to; Before is the line up to it. Remote names are listed through the running
// driver, which may block on the Provider.
std::vector<std::string> Completions(Session &Running, std::string_view Before, const std::string &Word);

} // namespace app
