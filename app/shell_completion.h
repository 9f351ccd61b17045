// What shells are told of the verbs and options, made of their descriptions.
#pragma once

#include <string>

#include "app/verbs/verbs.h"

namespace app {

// A completion script for bash, zsh or fish. UsageError for another shell.
std::string CompletionScript(const VerbList &List, const std::string &Shell);

} // namespace app
