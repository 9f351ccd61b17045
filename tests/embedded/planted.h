// Planted faults: each breaks one rule in a child process, which must stop with the listed code.
#pragma once

#include <functional>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "embedded/mm/faults.h"

namespace embedded {

struct PlantedFault {
    const char *Name;
    ULONG Code;
    ULONG_PTR Parameter;
    const char *What;
    void (*Commit)();
    bool OfTheStack = false; // needs variables that lie on the thread's stack
};

inline void PrintTo(const PlantedFault &Fault, std::ostream *Stream) {
    *Stream << Fault.Name;
}

// The report's first line as a pattern.
inline std::string StopPattern(ULONG Code, ULONG_PTR Parameter, const char *What) {
    return fmt::format("STOP 0x{:08X} .0x{:016X}.*{}", Code, Parameter, What);
}

class PlantedFaults : public testing::TestWithParam<PlantedFault> {
protected:
    void SetUp() override {
        WatchFaults(); // a kernel does so when it boots, and most of these have none
    }
};

} // namespace embedded
