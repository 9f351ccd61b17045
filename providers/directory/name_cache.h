// From a path in any case to what it names, in an export.
//
// An exact spelling is asked of the file system first, and that answers most look-ups without a directory being read.
// For what it does not know the directory's index is asked (directory_index.h), which reads the directory once. Indices
// are kept by the directory they are of, wherever that is found, and dropped, least recently used first, when they hold
// too many names together. They hold no descriptor.
//
// Lock: one mutex, a leaf, held for the table of indices alone. Safe for concurrent calls.
#pragma once

#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include <sys/stat.h>

#include "providers/directory/beneath.h"
#include "providers/directory/directory_index.h"

namespace providers::directory {

// The last component of a path, without separators behind it.
std::u16string_view LastComponent(std::u16string_view Path);

// A directory from which a look-up starts.
struct DirectoryRef {
    int Fd = -1;
    ObjectKey Key;
    std::string_view FromRoot; // its path below the export's root when it was opened, '/' separated
};

// What a path leads to. Native paths are relative to the base of the look-up.
struct Resolved {
    UniqueFd Holder;        // the directory Parent, O_PATH; empty when that is the base
    ObjectKey HolderKey;    // that directory's, where it was asked for; all zero otherwise
    std::string Parent;     // path of the directory that holds or would hold the object; empty = the base
    std::string Name;       // the entry's bytes; for a missing entry those it would get; empty = the base itself
    unsigned char Type = 0; // DT_*, DT_UNKNOWN when not known
    bool Exists = false;
    bool Marked = false;              // named by its marked name
    std::optional<struct stat> Entry; // itself when it is a link; where that was asked for

    std::string Path() const {
        return Parent.empty() ? Name : Name.empty() ? Parent : Parent + "/" + Name;
    }
};

class NameCache {
public:
    // Opens below the root; the path is relative to Base. As OpenBeneath.
    using Opener = int (*)(void *Context, const DirectoryRef &Base, const std::string &Path, int Flags);

    NameCache(Opener Open, void *Context, bool UseNotifications);

    // Looks Path (components separated by backslashes) up below Base. Success with Exists telling whether the last
    // component is there; an error when a directory before it is missing, no directory or not to be entered, or when a
    // name is not valid. CODE_EXISTS for a component that is one spelling of several names and none of them exactly.
    // ExactMissing: the file system was just asked what the path, as it is spelled, leads to, and has nothing.
    RVSTATUS Resolve(const DirectoryRef &Base, std::u16string_view Path, Resolved &Out, bool ExactMissing = false);

    // As Resolve for a path of which the file system has nothing as it is spelled, Exact in bytes, when the directory
    // is known and nothing has to be opened for the answer: Out has no Holder then. False when only Resolve can tell.
    bool ResolveKnown(const DirectoryRef &Base, std::u16string_view Path, const std::string &Exact, Resolved &Out);
    // Whether that very path led to a name that is spelled otherwise, or to none, and most likely will again, and that
    // it did or does not any more. Of two paths that share a place one is forgotten.
    bool WasOtherwiseSpelled(const DirectoryRef &Base, const std::string &Exact) const;
    void NoteOtherwiseSpelled(const DirectoryRef &Base, const std::string &Exact, bool IsSo);
    // Opens the directory that holds Exact, for a name of which is known that it is missing in any case. False when it
    // cannot be opened.
    bool OpenHolder(const DirectoryRef &Base, const std::string &Exact, Resolved &Out);

    // The names of the directory Dir that FoldedMask takes, sorted by their folded form.
    RVSTATUS List(const DirectoryRef &Dir, std::u16string_view FoldedMask, bool WithShort, NameList &Out);
    // Whether the names of Dir were read and are kept right.
    bool Knows(const DirectoryRef &Dir) {
        return KnownIndex(Dir.Key) != nullptr;
    }
    // Whether Short leads to the entry Native of Dir.
    bool LeadsTo(const DirectoryRef &Dir, std::u16string_view Short, std::string_view Native);

    // Directories read from disk so far.
    size_t Scans() const {
        return Scans_;
    }
    // Names that are kept now.
    size_t Names() const {
        return Names_;
    }

private:
    using IndexPtr = std::shared_ptr<DirectoryIndex>;
    struct Kept {
        IndexPtr Index;
        std::list<ObjectKey>::iterator Age;
    };

    IndexPtr IndexOf(const ObjectKey &Key);
    IndexPtr KnownIndex(const ObjectKey &Key);
    RVSTATUS Step(int Fd, const ObjectKey *Known, std::u16string_view Component, bool ExactMissing, Resolved &Out);
    RVSTATUS Walk(const DirectoryRef &Base, std::u16string_view Path, Resolved &Out);

    static size_t HashOf(const DirectoryRef &Base, const std::string &Exact);

    const Opener Open_;
    void *const Context_;
    EventLog Log_;
    std::atomic<size_t> Names_ = 0;
    std::atomic<size_t> Scans_ = 0;
    std::array<std::atomic<uint32_t>, 1024>
        Otherwise_{}; // hashes of paths that were found under another spelling, or not at all
    std::mutex Mutex_;
    std::unordered_map<ObjectKey, Kept, ObjectKeyHash> Indices_; // guarded by Mutex_
    std::list<ObjectKey> Ages_;                                  // most recently used first; guarded by Mutex_
};

} // namespace providers::directory
