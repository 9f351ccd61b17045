// Ctrl-C and its like as a question that work asks between two steps, so that what was begun is undone and the driver
// is stopped as always. The flag belongs to the process; the main thread is the one that is interrupted in system
// calls.
#pragma once

#include <stdexcept>

namespace app {

// The work was given up because of a signal. Passes through Guarded: the verbs that follow are not begun.
struct Interrupted : std::runtime_error {
    Interrupted() : std::runtime_error("interrupted") {
    }
};

// The exit code of a command that was interrupted, as shells give it.
inline constexpr int InterruptedCode = 130;

// From now on SIGINT, SIGTERM and SIGHUP raise the flag; a second one before the flag is lowered ends the process.
void CatchInterrupts();
bool WasInterrupted();
void LowerInterrupt();
// Throws Interrupted while the flag is up.
void CheckInterrupt();

} // namespace app
