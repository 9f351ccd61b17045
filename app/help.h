// What is written about verbs for people, made of their descriptions: help, manual pages, the README's table.
#pragma once

#include <filesystem>
#include <string>

#include "app/verbs/verbs.h"

namespace app {

// The whole program's; with InConsole what the console has, without the program's options.
std::string ProgramHelp(const VerbList &List, bool InConsole);
std::string VerbHelp(const Verb &Which, bool InConsole);

// The table of verbs as Markdown.
std::string ReadmeTable(const VerbList &List);
// Writes man/rvfsd.1, man/rvfsd-GROUP.1 and the completion scripts rvfsd.SHELL into Directory. std::runtime_error when
// that fails.
void WriteManual(const VerbList &List, const std::filesystem::path &Directory);

void AddHelpVerbs(VerbList &List); // help, completion, manual

} // namespace app
