#include "app/interrupt.h"

#include <atomic>
#include <csignal>
#include <unistd.h>

namespace app {

namespace {

std::atomic<bool> Flag = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler uses it");

void OnSignal(int Signal) {
    if (Flag.exchange(true)) {
        _exit(128 + Signal);
    }
}

} // namespace

void CatchInterrupts() {
    // Without SA_RESTART: a wait for input ends.
    struct sigaction Action = {};
    Action.sa_handler = OnSignal;
    for (const int Signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(Signal, &Action, nullptr);
    }
}

bool WasInterrupted() {
    return Flag;
}

void LowerInterrupt() {
    Flag = false;
}

void CheckInterrupt() {
    if (Flag) {
        throw Interrupted();
    }
}

} // namespace app
