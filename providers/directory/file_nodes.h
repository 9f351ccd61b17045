// What the opens of one file have to agree on: share modes and byte-range locks.
//
// A node exists while a handle with access is open on the file; the handle's descriptor keeps the inode from being
// reused. Locks: the table is sharded, each shard under a mutex; a node's lists under the node's own mutex, taken last.
// Nothing but locks and shares of the file itself, under its node's mutex, waits for the file system.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "providers/directory/beneath.h"
#include "providers/directory/errno_status.h"

namespace providers::directory {

class FileNode {
public:
    // Each Fd that is asked for is the open file's descriptor, or -1 when that only names the file: other processes see
    // nothing of such an open.

    // Grants or refuses Access under Share (the encodings of slot 18) to Owner against the other opens, and against
    // what other processes deny; a repeated call of the same owner replaces what it had. Refused:
    // CODE_SHARING_VIOLATION, nothing changes.
    RVSTATUS Share(const void *Owner, int Fd, ULONG Access, ULONG ShareMode);

    // Takes back Owner's share and all its locks.
    void Leave(const void *Owner);

    // Calls Visit(Owner) for each open, one call at a time for the file.
    template <class Visitor>
    void ForEachOwner(Visitor Visit) {
        const std::lock_guard Hold(Mutex_);
        for (const ShareEntry &Each : Shares_) {
            Visit(Each.Owner);
        }
    }

    // CODE_SHARING_VIOLATION when an open other than Except does not share deletion.
    RVSTATUS CheckDelete(const void *Except = nullptr);

    // Byte-range locks of Owner. A shared lock may cover the owner's own exclusive one; everything else that overlaps
    // an exclusive lock, and every exclusive lock that overlaps anything, is refused. They are set on the open file
    // too, so that other processes see them.
    RVSTATUS Lock(const void *Owner, int Fd, bool Exclusive, ULONG64 Offset, ULONG64 Length);
    RVSTATUS Unlock(const void *Owner, int Fd, ULONG64 Offset, ULONG64 Length);
    // Sets all of them on a file that was opened anew, on which nothing is noted.
    RVSTATUS SetAgain(const void *Owner, int Fd);

    // Whether Owner may read or write the range: CODE_LOCK_CONFLICT when another owner's lock forbids it.
    RVSTATUS CheckTransfer(const void *Owner, bool Write, ULONG64 Offset, ULONG64 Length) {
        return LockCount_.load(std::memory_order_acquire) == 0 ? RVSTATUS::Success
                                                               : CheckLocks(Owner, Write, Offset, Length);
    }

    // How often its data, size or attributes were changed by this process. Counted when they are there.
    uint32_t Writes() const {
        return Writes_.load(std::memory_order_acquire);
    }
    void NoteWrite() {
        Writes_.fetch_add(1, std::memory_order_release);
    }

    // Held around a change of size where the growth is charged to a quota.
    std::mutex &SizeMutex() {
        return SizeMutex_;
    }

private:
    friend class FileNodes;
    struct ShareEntry {
        const void *Owner;
        ULONG Access;
        ULONG Mode;
        ULONG Noted; // of Mode, for other processes
    };
    struct LockEntry {
        const void *Owner;
        bool Exclusive;
        ULONG64 First;
        ULONG64 Length;
    };

    RVSTATUS SetBelow(const void *Owner, int Fd, ULONG64 First, ULONG64 Length);
    RVSTATUS CheckLocks(const void *Owner, bool Write, ULONG64 Offset, ULONG64 Length);

    ObjectKey Key_;
    size_t References_ = 0; // guarded by the shard's mutex
    std::atomic<uint32_t> LockCount_ = 0;
    std::atomic<uint32_t> Writes_ = 0;
    std::mutex Mutex_;
    std::mutex SizeMutex_;
    std::vector<ShareEntry> Shares_;
    std::vector<LockEntry> Locks_;
};

class FileNodes {
public:
    // The file's node with one reference, made when it is the first.
    FileNode *Acquire(const ObjectKey &Key);
    void Release(FileNode *Node);

    // As FileNode's for a file that may have no node.
    RVSTATUS CheckDelete(const ObjectKey &Key);
    template <class Visitor>
    void ForEachOwner(const ObjectKey &Key, Visitor Visit) {
        Shard &Part = ShardOf(Key);
        const std::lock_guard Hold(Part.Mutex);
        if (const auto Found = Part.Nodes.find(Key); Found != Part.Nodes.end()) {
            Found->second.ForEachOwner(Visit);
        }
    }

private:
    struct Shard {
        using Table = std::unordered_map<ObjectKey, FileNode, ObjectKeyHash>;
        std::mutex Mutex;
        Table Nodes;            // stay where they are
        Table::node_type Spare; // of a file that is not open any more, with the memory of its lists
    };
    Shard &ShardOf(const ObjectKey &Key) {
        return Shards_[ObjectKeyHash{}(Key) >> 60];
    }

    std::array<Shard, 16> Shards_;
};

} // namespace providers::directory
