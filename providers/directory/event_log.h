// What the kernel reports of changes in watched directories, kept apart by directory until it is asked for.
//
// Lock: one mutex, a leaf, under which nothing waits: reports are read without blocking. Safe for concurrent calls.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "providers/directory/beneath.h"

namespace providers::directory {

// An entry that came or went, in the order in which it happened. Of two that were exchanged it is told that the first
// went, the second came, the second went and the first came: only the directory itself can say whether one that was
// moved away is there.
struct NameChange {
    bool Came;
    bool Moved;         // of one that went
    unsigned char Type; // DT_DIR or DT_UNKNOWN; of one that came
    std::string Name;
};

// Whether every change in the directory open as Fd passes through this kernel, which then tells of it.
bool TellsChanges(int Fd);

class EventLog {
public:
    // Without notifications nothing can be watched.
    explicit EventLog(bool UseNotifications);

    // Watches the directory open as Fd from now on. Returns the watch, or -1 where changes would not be told: file
    // systems of other machines, no watches left.
    int Watch(int Fd);
    void Unwatch(int Watch);

    // Adds to Changes what happened in the directory up to now. False when something of it was lost or the watch has
    // ended: the directory has to be read again.
    bool Take(int Watch, std::vector<NameChange> &Changes);

private:
    struct Pending {
        std::vector<NameChange> Changes;
        bool Lost = false;
    };

    void Read();
    void Apply(int Watch, uint32_t Mask, std::string_view Name);

    const UniqueFd Notify_;
    std::mutex Mutex_;
    std::unordered_map<int, Pending> Watched_; // guarded by Mutex_
};

} // namespace providers::directory
