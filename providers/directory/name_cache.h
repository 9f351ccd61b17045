// The names of an export's directories, folded, so that a name in any case is found without scanning.
//
// One cache per export. A directory is read once and then kept right by the kernel's change notifications; they are
// drained before every look-up, so that a change made before the look-up, by whomever, is seen by it. Where
// notifications are not to be had (network file systems, no watches left) a directory's names are trusted only while
// its time stamps stand still and are older than their own granularity. Directories are dropped, least recently used
// first, when the cache holds too many names.
//
// Of names that differ only in case, the smallest by bytes is served as it is, the others under "~2", "~3", ... before
// the extension, each unused otherwise.
//
// Lock: one mutex, a leaf. Reading a directory happens under it. Safe for concurrent calls.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <dirent.h>

#include "providers/directory/beneath.h"
#include "providers/directory/errno_status.h"

namespace providers::directory {

// A directory from which a look-up starts.
struct DirectoryRef {
    int Fd = -1;
    ObjectKey Key;
    std::string FromRoot; // its path below the export's root when it was opened, '/' separated
};

// What a path leads to. Native paths are relative to the base of the look-up.
struct Resolved {
    std::string Parent;     // path of the directory that holds or would hold the object; empty = the base
    std::string Name;       // the entry's bytes; for a missing entry those it would get; empty = the base itself
    std::u16string Served;  // the name under which a listing gives it
    unsigned char Type = 0; // DT_*, DT_UNKNOWN when not known
    bool Exists = false;

    std::string Path() const {
        return Parent.empty() ? Name : Name.empty() ? Parent : Parent + "/" + Name;
    }
};

struct ListedName {
    std::u16string Served;
    std::string Native;
    std::u16string Short; // leads back to this entry; empty when it has none, or when it was not asked for
    unsigned char Type = DT_UNKNOWN;
};

class NameCache {
public:
    // Opens below the root; the path is relative to Base. As OpenBeneath.
    using Opener = int (*)(void *Context, const DirectoryRef &Base, std::string_view Path, int Flags);

    NameCache(Opener Open, void *Context, bool UseNotifications);

    // Looks Path (components separated by backslashes) up below Base. Success with Exists telling whether the last
    // component is there; an error when a directory before it is missing, no directory or not to be entered, or when a
    // name is not valid.
    RVSTATUS Resolve(const DirectoryRef &Base, std::u16string_view Path, Resolved &Out);

    // Decides over an entry by its folded name and its short name. Runs under the cache's mutex.
    using Filter = std::function<bool(std::u16string_view Folded, std::u16string_view Short)>;
    // The names of the directory Dir that Wanted accepts, sorted by their folded form.
    RVSTATUS List(const DirectoryRef &Dir, bool WithShort, const Filter &Wanted, std::vector<ListedName> &Names);

    // Forgets what is cached, after an operation met something that the cache does not know.
    void Forget();

    // Directories read from disk so far.
    size_t Scans();

private:
    struct Entry {
        std::u16string Served;
        std::string Native;
        ObjectKey Child; // the directory's own key, once it has been opened; Inode 0 = not known
        unsigned char Type = 0;
    };
    struct Stamp {
        timespec Modified{};
        timespec Changed{};
    };
    struct Names {
        ObjectKey Key;
        std::unordered_map<std::u16string, Entry> ByFold;
        std::unordered_multimap<std::u16string, Entry *> ByShort; // kept right once it was needed
        bool KnowsShort = false;
        std::list<ObjectKey>::iterator Age;
        Stamp Seen;
        timespec ScannedAt{};
        int Watch = -1;
        bool Collisions = false;
        bool Stale = false;
    };
    using NamesPtr = std::shared_ptr<Names>;

    void Drain();
    void ApplyEvent(int Watch, uint32_t Mask, const char *Name);
    void Add(Names &Dir, std::string_view Native, unsigned char Type);
    void Remove(Names &Dir, std::string_view Native);
    static void AddShort(Names &Dir, Entry &Item);
    static void RemoveShort(Names &Dir, const Entry &Item);
    static Entry *FindByShort(Names &Dir, const std::u16string &Short);
    static Entry *FindEntry(Names &Dir, std::u16string_view Name);
    NamesPtr FindFresh(const ObjectKey &Key);
    RVSTATUS Read(int Fd, NamesPtr &Out);
    RVSTATUS Scan(int Fd, Names &Dir);
    void Watch(int Fd, Names &Dir);
    void Drop(const ObjectKey &Key);
    void Trim(const Names &Keep);
    RVSTATUS Enter(const DirectoryRef &Base, const std::string &Path, NamesPtr &Out);
    RVSTATUS Probe(const DirectoryRef &Base, Resolved &Out, bool Last);

    Opener Open_;
    void *Context_;
    UniqueFd Notify_;
    std::mutex Mutex_;
    std::unordered_map<ObjectKey, NamesPtr, ObjectKeyHash> Directories_;
    std::unordered_map<int, NamesPtr> Watched_;
    std::list<ObjectKey> Ages_; // most recently used first
    size_t Entries_ = 0;
    size_t Scans_ = 0;
};

} // namespace providers::directory
