// Everything that is written about verbs, made of their descriptions: help, manual pages, the README's table,
// completion.
#pragma once

#include <filesystem>
#include <string>

#include "app/verbs/verbs.h"

namespace app {

std::string NoSuchVerb(const std::string &Word);

// The whole program's; with InConsole what the console has, without the program's options.
std::string ProgramHelp(const VerbList &List, bool InConsole);
std::string VerbHelp(const Verb &Which, bool InConsole);

// The table of verbs as Markdown.
std::string ReadmeTable(const VerbList &List);
// A completion script for bash, zsh or fish. UsageError for another shell.
std::string CompletionScript(const VerbList &List, const std::string &Shell);
// Writes man/rvfsd.1, man/rvfsd-GROUP.1 and rvfsd.SHELL into Directory. std::runtime_error when that fails.
void WriteManual(const VerbList &List, const std::filesystem::path &Directory);

void AddHelpVerbs(VerbList &List); // help, completion, manual

} // namespace app
