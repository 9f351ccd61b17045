// The schedule explorer: runs the threads of a race one at a time and chooses at every point who goes next, so that all
// interleavings of few preemptions are tried, or many that are drawn by priorities, and one that fails can be repeated.
//
// A schedule is a text: "p2:0.0.1.0" are the choices of a walk through all schedules of at most two preemptions,
// "s17:3" the seed and the number of priority changes of a random one. RVFSD_SCHEDULE=text repeats one schedule only.
// Whatever stops the process during a schedule names it. A thread that waits for what nobody will do is reported with
// who holds what and who waits for what.
//
// The clock must be manual; it moves when a timed wait is chosen. Threads of the system that explored threads start are
// explored as well. One exploration at a time, by one thread, which does not take part.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace embedded {

// One race. Each schedule runs Before, the threads, and After, which tells what is wrong, or nothing.
struct Race {
    std::string Name;
    std::function<void()> Before;
    std::vector<std::function<void()>> Threads;
    std::function<std::string()> After;
};

struct ExploreOptions {
    unsigned Preemptions = 2;     // of the walk through all schedules
    size_t MostSchedules = 20000; // of that walk; reaching them is told
    size_t RandomSchedules = 2100;
    unsigned Depth = 2; // of the bugs that random schedules are drawn for: one change of priorities less
    uint64_t FirstSeed = 1;
};

struct ExploreResult {
    size_t Walked = 0;     // schedules of the walk
    bool Bounded = false;  // ... which ended at its limit: not all were tried
    size_t Random = 0;     // random schedules
    size_t MostPoints = 0; // of one schedule
    std::string Failure;   // empty: all was well
    std::string Schedule;  // the one that failed
};

// Stops at the first schedule that fails.
ExploreResult Explore(const Race &Of, const ExploreOptions &Options = {});

// Runs one schedule; what is wrong, or nothing.
std::string RunSchedule(const Race &Of, const std::string &Schedule);

// Options with the number of random schedules and the limit of the walk multiplied by RVFSD_EXPLORE, if that is set.
ExploreOptions OptionsFromEnvironment(ExploreOptions Options = {});

} // namespace embedded
