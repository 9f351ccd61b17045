// The words behind -o: all that mounts usually take, each known or refused by name.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace app::mount {

struct MountOptions {
    std::string Point;
    std::string Volume; // \\server\volume at the mount's root; empty: all exports, as /server/volume
    bool ReadOnly = false;
    bool Help = false; // asked for instead of a mount
    bool Foreground = false;
    std::optional<bool> DefaultPermissions;
    bool Quiet = false; // changes of modes and owners that cannot be kept are no errors
    bool Locks = true;
    bool LocalRanges = false; // the locks of fcntl hold in this mount alone, and the server does not know of them
    bool LocalWhole = false;  // those of flock
    bool Others = false;      // other users than the mount's may come in
    bool DirectIo = false;
    bool KeepCache = true;
    bool Verify = false; // the embedded kernel verifies the driver's conduct
    bool Debug = false;
    uid_t User = 0;
    gid_t Group = 0;
    mode_t FileMask = 022;
    mode_t DirectoryMask = 022;
    double EntryTimeout = 1;
    double AttributeTimeout = 1;
    double NegativeTimeout = 1;
    unsigned ReadAheadKib = 1024;
    unsigned MaxRead = 0;               // bytes of one read; 0: as many as the kernel likes
    unsigned Threads = 10;              // with fewer the kernel wakes one on another processor more often
    bool Rings = false;                 // requests over io_uring
    std::string FaultFile;              // tests: while this file is there, the server is away
    std::vector<std::string> ForKernel; // for the mount itself

    // Whether the kernel compares the modes that are shown with who asks. Unless the words say so or not, it does where
    // that can refuse something: to other users, or to the caller, who is alone otherwise. It costs a question for the
    // directory with each name that comes or goes.
    bool ComparesModes() const;
};

// Takes one comma-separated list, in which "\," is a comma of a value. UsageError with the word for what is not known,
// not offered or no number.
void ParseMountWords(const std::string &Words, MountOptions &Options);

// A line for each word, without the last one's end.
std::string MountWordsHelp();

// What holds before any word: the caller's user, group and umask.
MountOptions DefaultMountOptions();

} // namespace app::mount
