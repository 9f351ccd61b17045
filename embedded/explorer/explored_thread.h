// A thread of a race, or of the system, as the explorer keeps it.
#pragma once

#include <semaphore>
#include <string>
#include <thread>

#include "embedded/ke/ke.h"

namespace embedded {

enum class Phase { Ready, Blocked, Spinning, Ended };

struct ExploredThread {
    explicit ExploredThread(std::string Named) : Name(std::move(Named)) {
    }
    const std::string Name;
    KThread *Record = nullptr;
    std::thread Host; // of a race's own thread; one of the system has its host elsewhere
    std::binary_semaphore Go{0};

    // Of whoever runs, which is one at a time.
    Phase State = Phase::Ready;
    bool Woken = false; // a wake-up that came before the block
    LONGLONG Due = Clock::Never;
    const void *SpinLock = nullptr;
    const char *At = "its start";
    const void *Object = nullptr;
    uint64_t Priority = 0;
    bool Free = false; // the exploration is over; it goes on by itself
};

} // namespace embedded
