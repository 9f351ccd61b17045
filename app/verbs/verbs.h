// Every verb of the program. A verb prints data on standard output and messages on standard error.
#pragma once

#include <vector>

#include "app/verbs/verb.h"

namespace app {

using VerbList = std::vector<Verb>;

void AddFileVerbs(VerbList &List);    // cat, put, get, cp
void AddChangeVerbs(VerbList &List);  // attrib, touch, truncate, mkdir, rm, rmdir, mv
void AddListingVerbs(VerbList &List); // ls, find, tree, du
void AddWatchVerb(VerbList &List);    // watch
void AddInfoVerbs(VerbList &List);    // stat, df, vol
void AddOpenVerbs(VerbList &List);    // open, claim
void AddLockingVerbs(VerbList &List); // lock, unlock, flush, read
void AddTourVerb(VerbList &List);     // tour
void AddMappingVerbs(VerbList &List); // use, verify, session
void AddMountVerb(VerbList &List);    // mount

// Maps a letter as --use says: G:=\\server\volume.
void UseDrive(Drives &Of, const std::string &Text);
void AddProviderVerb(VerbList &List); // check-provider
void AddReportVerb(VerbList &List);   // report
void AddMonitorVerbs(VerbList &List); // monitor, stats

// All of them, and console; each call gives them places of their own for what they are told.
VerbList Verbs();
// The verb of that name, or null.
const Verb *FindVerb(const VerbList &List, const std::string &Name);
// What to tell whoever names none.
std::string NoSuchVerb(const std::string &Word);

// Between the two, the waits of watch go on beside other verbs; the second ends them.
void BeginConsoleWaits();
void EndConsoleWaits();
// Between the two, locks that lock has got stay until unlock gives them back; the second ends them all.
void BeginConsoleLocks();
void EndConsoleLocks();

// The console: verbs over one running driver until quit or end of input. The exit code of its last failure when it
// reads commands from a pipe or a file.
int RunConsole(Session &Running, bool EndAtFailure);

// Walks the road of one request and prints it: docs\a.txt of the first export.
int RunTour(Session &Running);

} // namespace app
