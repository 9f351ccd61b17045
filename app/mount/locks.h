// The byte-range and whole-file locks that programs hold on one file, by POSIX's rules, and what the server is told.
//
// The table here decides between the programs of this mount. What they hold together is held at the server by one
// handle, so that other clients are kept out: exclusively where somebody writes, shared where all read. A change that
// the server refuses does not happen. While there is such a handle, the mount's transfers go through it, since a server
// may forbid other handles what is locked; a shared lock in the way of the mount's own write is lifted for that moment.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <sys/types.h>

#include "app/mount/remote.h"

namespace app::mount {

// First to Last, both within it. Owner is the kernel's word for who holds it.
struct LockRange {
    uint64_t First = 0;
    uint64_t Last = INT64_MAX;
    bool Exclusive = false;
    uint64_t Owner = 0;
    pid_t Process = 0;
    bool WholeFile = false; // flock's: a table of their own
};

class NodeLocks {
public:
    // Opens the handle that the server's locks are held by. ESTALE: nobody else can reach the file, the server is not
    // told.
    using Opener = std::function<int(std::shared_ptr<Remote> *)>;
    // Called without a lock held, once: 0, or why there is no lock.
    using Granted = std::function<void(int)>;

    // 0, EAGAIN, or why the server did not take it.
    int Lock(const LockRange &Wanted, const Opener &Open);
    // The same, answered through Done as soon as the lock can be had. Ticket names it for Cancel.
    void LockWaiting(const LockRange &Wanted, const Opener &Open, const void *Ticket, Granted Done);
    // True when it waited; it is answered with EINTR then.
    bool Cancel(const void *Ticket);
    void Unlock(const LockRange &Range);
    // All that Owner holds.
    void UnlockAll(uint64_t Owner, bool WholeFile);
    // A lock that is in the way of Wanted; false when there is none.
    bool Conflict(const LockRange &Wanted, const Opener &Open, LockRange *Found);
    // Those that wait for other clients ask again. True while somebody waits.
    bool Retry();

    // The handle for transfers while the server knows of locks; null otherwise.
    std::shared_ptr<Remote> Transfers();
    // A write through it.
    int Write(uint64_t Offset, const void *Buffer, size_t Length, bool AtEnd, size_t *Done);

private:
    struct Segment {
        uint64_t First;
        uint64_t Last;
        bool Exclusive;
        bool operator==(const Segment &) const = default;
    };
    struct Waiter {
        LockRange Wanted;
        Opener Open;
        const void *Ticket;
        Granted Done;
    };
    using Table = std::vector<LockRange>;

    static const LockRange *Against(const Table &Held, const LockRange &Wanted);
    static void Remove(Table &Held, const LockRange &Range);
    std::vector<Segment> Needed() const;
    int TellServer(const Opener *Open);
    int TryLocked(const LockRange &Wanted, const Opener &Open);
    std::vector<std::pair<Granted, int>> ServeLocked();
    static void Answer(std::vector<std::pair<Granted, int>> Served);

    std::mutex Lock_;
    Table Held_;
    std::vector<Segment> AtServer_;
    std::shared_ptr<Remote> Server_;
    std::vector<Waiter> Waiting_;
};

} // namespace app::mount
