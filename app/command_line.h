// The program's words: options of the whole program and one verb with its own, in any order.
#pragma once

#include <string>
#include <vector>

#include "app/verbs/verbs.h"

namespace app {

// What is for the whole program, as it was written.
struct GlobalOptions {
    std::vector<std::string> Exports;
    std::vector<std::string> Quotas;
    std::vector<std::string> Switches;
    std::string Trace;
    std::string Log;
    std::string Image;
    std::string Calls;
    std::vector<std::string> Uses;
    std::string Logon;
    std::string Journal;
    std::string Provider;
    std::string ProviderOptions;
    std::string Config;
    bool NoConfig = false;
    bool Json = false;
    bool Version = false;
    bool Help = false;
};

// Their description; Goes points into Text.
std::vector<Parameter> GlobalParameters(GlobalOptions &Text);

struct ParsedLine {
    const Verb *Chosen = nullptr; // of the list that was given; null: none was named
    bool WantsHelp = false;
};

// Reads Words into the places of Globals and of the verb that they name. UsageError for what nothing takes. A verb may
// be left out; whether it had to be named is the caller's to say.
ParsedLine ParseLine(std::vector<std::string> Words, const VerbList &List, const std::vector<Parameter> &Globals);

} // namespace app
