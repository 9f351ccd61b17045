// What time it is. Who sets and moves it is ke's Clock.
//
// All times are in units of 100 ns; system time counts from 1601, interrupt time from the start of the kernel.
#pragma once

#include <atomic>
#include <chrono>

#include "kernel/kernel.h"

namespace embedded {

using SteadyClock = std::chrono::steady_clock;
using Ticks = std::chrono::duration<LONGLONG, std::ratio<1, 10'000'000>>;

// Of the host.
LONGLONG SteadyTicks();
LONGLONG RealTicks();

struct TimeState {
    std::atomic<bool> Manual{false};
    std::atomic<LONGLONG> RunOffset{SteadyTicks()}; // running: interrupt time = steady time - RunOffset
    std::atomic<LONGLONG> ManualNow{0};             // manual: the interrupt time
    std::atomic<LONGLONG> ManualOffset{0};          // manual: system time = interrupt time + ManualOffset
    std::atomic<LONGLONG> Boot{RealTicks()};
    const LONGLONG RealBoot = Boot;

    LONGLONG InterruptTime() const {
        return Manual ? ManualNow.load() : SteadyTicks() - RunOffset;
    }
    LONGLONG SystemTime() const {
        return Manual ? ManualNow + ManualOffset : RealTicks();
    }
};
TimeState &Time();

} // namespace embedded
