// What is in force: from configuration files and the command line, the later winning, and where each of it comes from.
#pragma once

#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/session.h"

namespace app {

struct Setting {
    std::string Kind; // export, quota, switch, trace, log, image, calls, use, session, journal,
                      // provider, provider options
    std::string Name; // of the export or the switch; empty for the others
    std::string Value;
    std::string From; // a file, "command line" or "default"
};

// The settings of the configuration files and of Text, one of a kind and name. UsageError with the file and the key for
// what makes no sense.
std::vector<Setting> Configure(const GlobalOptions &Text);

// What a session makes of Settings. UsageError for a value that is none.
SessionOptions SessionOf(const std::vector<Setting> &Settings);

// What config shows; set once, by main.
void SetInForce(std::vector<Setting> Settings);

void AddConfigVerb(VerbList &List); // config

} // namespace app
