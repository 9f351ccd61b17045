#include "embedded/base/time.h"

#include <ctime>

namespace embedded {
namespace {

// From 1601 to 1970.
constexpr LONGLONG UnixEpoch = 116'444'736'000'000'000;

} // namespace

LONGLONG SteadyTicks() {
    return std::chrono::duration_cast<Ticks>(SteadyClock::now().time_since_epoch()).count();
}

LONGLONG RealTicks() {
    timespec Now;
    clock_gettime(CLOCK_REALTIME, &Now);
    return UnixEpoch + Now.tv_sec * 10'000'000 + Now.tv_nsec / 100;
}

TimeState &Time() {
    static TimeState &Instance = *new TimeState;
    return Instance;
}

} // namespace embedded
