#include "providers/directory/file_nodes.h"

#include <algorithm>

#include "providers/directory/range_locks.h"

namespace providers::directory {
namespace {

constexpr ULONG ShareRead = 0x1;
constexpr ULONG ShareWrite = 0x2;
constexpr ULONG ShareDelete = 0x4;
constexpr ULONG ShareAll = ShareRead | ShareWrite | ShareDelete;

// The share bits that other opens must grant for this access.
constexpr ULONG Needed(ULONG Access) {
    return ((Access & (RV_ACCESS_READ | RV_ACCESS_EXECUTE)) != 0 ? ShareRead : 0u) |
           ((Access & RV_ACCESS_WRITE) != 0 ? ShareWrite : 0u) | ((Access & RV_ACCESS_DELETE) != 0 ? ShareDelete : 0u);
}

// Last byte of a range that does not wrap.
constexpr ULONG64 LastByte(ULONG64 First, ULONG64 Length) {
    return First + (Length - 1);
}

constexpr bool Overlap(ULONG64 First, ULONG64 Length, ULONG64 OtherFirst, ULONG64 OtherLength) {
    return Length != 0 && OtherLength != 0 && First <= LastByte(OtherFirst, OtherLength) &&
           OtherFirst <= LastByte(First, Length);
}

} // namespace

RVSTATUS FileNode::Share(const void *Owner, int Fd, ULONG Access, ULONG ShareMode) {
    const std::lock_guard Hold(Mutex_);
    const ULONG Wanted = Needed(Access);
    ShareEntry *Own = nullptr;
    for (ShareEntry &Other : Shares_) {
        if (Other.Owner == Owner) {
            Own = &Other;
        } else if (Wanted != 0 && Needed(Other.Access) != 0 &&
                   ((Wanted & ~Other.Mode) != 0 || (Needed(Other.Access) & ~ShareMode) != 0)) {
            return Failure(CODE_SHARING_VIOLATION);
        }
    }
    const ULONG Before = Own != nullptr ? Own->Noted : ShareAll;
    ULONG Noted = Before;
    if (Wanted != 0 || Own != nullptr) {
        const ULONG Shared = Wanted != 0 ? ShareMode : ShareAll; // one without access denies nothing
        if (const RVSTATUS Status = NoteShares(Fd, Noted, Wanted, Shared); RvIsError(Status)) {
            if (Own != nullptr) {
                static_cast<void>(NoteShares(Fd, Noted, 0, Before));
                Own->Noted = Noted;
            }
            return Status;
        }
    }
    if (Own != nullptr) {
        *Own = {Owner, Access, ShareMode, Noted};
    } else {
        Shares_.push_back({Owner, Access, ShareMode, Noted});
    }
    return RVSTATUS::Success;
}

void FileNode::Leave(const void *Owner) {
    const std::lock_guard Hold(Mutex_);
    std::erase_if(Shares_, [Owner](const ShareEntry &Entry) { return Entry.Owner == Owner; });
    std::erase_if(Locks_, [Owner](const LockEntry &Entry) { return Entry.Owner == Owner; });
    LockCount_.store(static_cast<uint32_t>(Locks_.size()), std::memory_order_release);
}

RVSTATUS FileNode::CheckDelete(const void *Except) {
    const std::lock_guard Hold(Mutex_);
    const bool Refused = std::any_of(Shares_.begin(), Shares_.end(), [Except](const ShareEntry &Entry) {
        return Entry.Owner != Except && Needed(Entry.Access) != 0 && (Entry.Mode & ShareDelete) == 0;
    });
    return Refused ? Failure(CODE_SHARING_VIOLATION) : RVSTATUS::Success;
}

RVSTATUS FileNode::Lock(const void *Owner, int Fd, bool Exclusive, ULONG64 Offset, ULONG64 Length) {
    if (Length != 0 && LastByte(Offset, Length) < Offset) {
        return RVSTATUS::InvalidParameter;
    }
    const std::lock_guard Hold(Mutex_);
    for (const LockEntry &Other : Locks_) {
        const bool Compatible = !Exclusive && (!Other.Exclusive || Other.Owner == Owner);
        if (!Compatible && Overlap(Offset, Length, Other.First, Other.Length)) {
            return Failure(CODE_LOCK_NOT_GRANTED);
        }
    }
    Locks_.push_back({Owner, Exclusive, Offset, Length});
    if (const RVSTATUS Status = SetBelow(Owner, Fd, Offset, Length); RvIsError(Status)) {
        Locks_.pop_back();
        static_cast<void>(SetBelow(Owner, Fd, Offset, Length));
        return Status;
    }
    LockCount_.store(static_cast<uint32_t>(Locks_.size()), std::memory_order_release);
    return RVSTATUS::Success;
}

RVSTATUS FileNode::Unlock(const void *Owner, int Fd, ULONG64 Offset, ULONG64 Length) {
    const std::lock_guard Hold(Mutex_);
    const auto Found = std::find_if(Locks_.begin(), Locks_.end(), [&](const LockEntry &Entry) {
        return Entry.Owner == Owner && Entry.First == Offset && Entry.Length == Length;
    });
    if (Found == Locks_.end()) {
        return Failure(CODE_RANGE_NOT_LOCKED);
    }
    Locks_.erase(Found);
    static_cast<void>(SetBelow(Owner, Fd, Offset, Length)); // giving back cannot be refused
    LockCount_.store(static_cast<uint32_t>(Locks_.size()), std::memory_order_release);
    return RVSTATUS::Success;
}

// Makes the open file's range what all of its owner's locks say together: the file system keeps one kind a byte. Called
// with the mutex.
RVSTATUS FileNode::SetBelow(const void *Owner, int Fd, ULONG64 First, ULONG64 Length) {
    if (Length == 0) {
        return RVSTATUS::Success;
    }
    const ULONG64 Last = LastByte(First, Length);
    std::vector<ULONG64> Starts{First};
    for (const LockEntry &Each : Locks_) {
        if (Each.Owner == Owner && Overlap(First, Length, Each.First, Each.Length)) {
            Starts.push_back(std::max(First, Each.First));
            if (LastByte(Each.First, Each.Length) < Last) {
                Starts.push_back(LastByte(Each.First, Each.Length) + 1);
            }
        }
    }
    std::sort(Starts.begin(), Starts.end());
    Starts.erase(std::unique(Starts.begin(), Starts.end()), Starts.end());
    for (size_t At = 0; At < Starts.size(); ++At) {
        const ULONG64 End = At + 1 < Starts.size() ? Starts[At + 1] - 1 : Last;
        RangeLock Kind = RangeLock::None;
        for (const LockEntry &Each : Locks_) {
            if (Each.Owner == Owner && Overlap(Starts[At], 1, Each.First, Each.Length)) {
                Kind = std::max(Kind, Each.Exclusive ? RangeLock::Exclusive : RangeLock::Shared);
            }
        }
        // Length 0 would be a range of all there is.
        const ULONG64 Count = End - Starts[At] == UINT64_MAX ? UINT64_MAX : End - Starts[At] + 1;
        if (const RVSTATUS Status = SetRange(Fd, Kind, Starts[At], Count); RvIsError(Status)) {
            return Status;
        }
    }
    return RVSTATUS::Success;
}

RVSTATUS FileNode::SetAgain(const void *Owner, int Fd) {
    const std::lock_guard Hold(Mutex_);
    for (ShareEntry &Each : Shares_) {
        if (Each.Owner == Owner) {
            Each.Noted = ShareAll;
        }
    }
    for (const LockEntry &Each : Locks_) {
        if (Each.Owner == Owner) {
            if (const RVSTATUS Status = SetBelow(Owner, Fd, Each.First, Each.Length); RvIsError(Status)) {
                return Status;
            }
        }
    }
    return RVSTATUS::Success;
}

RVSTATUS FileNode::CheckLocks(const void *Owner, bool Write, ULONG64 Offset, ULONG64 Length) {
    const std::lock_guard Hold(Mutex_);
    const bool Conflict = std::any_of(Locks_.begin(), Locks_.end(), [&](const LockEntry &Entry) {
        // An owner may read and write under its own locks, but not write what it locked shared.
        const bool Forbids = Entry.Owner == Owner ? Write && !Entry.Exclusive : Write || Entry.Exclusive;
        return Forbids && Overlap(Offset, Length, Entry.First, Entry.Length);
    });
    return Conflict ? Failure(CODE_LOCK_CONFLICT) : RVSTATUS::Success;
}

FileNode *FileNodes::Acquire(const ObjectKey &Key) {
    Shard &Part = ShardOf(Key);
    const std::lock_guard Hold(Part.Mutex);
    auto At = Part.Nodes.find(Key);
    if (At == Part.Nodes.end()) {
        if (Part.Spare) {
            Part.Spare.key() = Key;
            At = Part.Nodes.insert(std::move(Part.Spare)).position;
        } else {
            At = Part.Nodes.try_emplace(Key).first;
        }
        At->second.Key_ = Key; // which Release reads without the lock
    }
    ++At->second.References_;
    return &At->second;
}

void FileNodes::Release(FileNode *Node) {
    Shard &Part = ShardOf(Node->Key_);
    const std::lock_guard Hold(Part.Mutex);
    if (--Node->References_ == 0) {
        auto Left = Part.Nodes.extract(ObjectKey(Node->Key_));
        constexpr size_t Few = 8;
        if (Node->Locks_.capacity() == 0 && Node->Shares_.capacity() <= Few) {
            Part.Spare = std::move(Left);
        }
    }
}

RVSTATUS FileNodes::CheckDelete(const ObjectKey &Key) {
    Shard &Part = ShardOf(Key);
    const std::lock_guard Hold(Part.Mutex);
    const auto Found = Part.Nodes.find(Key);
    return Found == Part.Nodes.end() ? RVSTATUS::Success : Found->second.CheckDelete();
}

} // namespace providers::directory
