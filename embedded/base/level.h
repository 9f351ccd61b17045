// Whether the driver is verified.
#pragma once

#include <atomic>

namespace embedded {

enum class VerifierLevel { Off, On };

inline std::atomic<VerifierLevel> CurrentVerifierLevel{VerifierLevel::On};

// Checks that cost something ask first; those that are free stay on at every level.
inline bool Verifying() {
    return CurrentVerifierLevel.load(std::memory_order_relaxed) == VerifierLevel::On;
}

// May be switched while the kernel is at rest: no lock held, no call into the driver running.
inline void SetVerifierLevel(VerifierLevel Level) {
    CurrentVerifierLevel.store(Level, std::memory_order_relaxed);
}

} // namespace embedded
