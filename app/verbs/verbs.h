// The verbs: each adds a subcommand and, when it was chosen, leaves in Chosen what to run over a session.
//
// A verb prints data on standard output and messages on standard error, and returns the exit code. StatusError,
// UsageError and Interrupted may leave it.
#pragma once

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "app/session.h"

namespace app {

using Command = std::function<int(Session &)>;

void AddDataVerbs(CLI::App &App, Command &Chosen);      // cat, put, cp
void AddOpenVerbs(CLI::App &App, Command &Chosen);      // open, claim
void AddInfoVerbs(CLI::App &App, Command &Chosen);      // stat, df, vol
void AddChangeVerbs(CLI::App &App, Command &Chosen);    // attrib, touch, truncate, rm, rmdir, mv
void AddDirectoryVerbs(CLI::App &App, Command &Chosen); // ls, find, watch
void AddTourVerb(CLI::App &App, Command &Chosen);       // tour

// All of them.
void AddVerbs(CLI::App &App, Command &Chosen);
// The verb of that name, or null.
const CLI::App *FindVerb(const CLI::App &App, const std::string &Name);

// Runs Action for one object: 0, or 1 after an error, which is told on standard error. UsageError and Interrupted pass.
int Guarded(const std::function<void()> &Action);

// Between the two, the waits of watch go on beside other verbs; the second ends them.
void BeginConsoleWaits();
void EndConsoleWaits();

// The console: verbs over one running driver until quit or end of input.
int RunConsole(Session &Running);

// Walks the road of one request and prints it: docs\a.txt of the first export.
int RunTour(Session &Running);

} // namespace app
