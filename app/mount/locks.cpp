#include "app/mount/locks.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace app::mount {

namespace {

// Where the whole-file locks are held at the server, and what no byte-range lock reaches there.
constexpr uint64_t WholeFilePlace = uint64_t{1} << 62;

bool Overlap(uint64_t First, uint64_t Last, uint64_t OtherFirst, uint64_t OtherLast) {
    return First <= OtherLast && OtherFirst <= Last;
}

} // namespace

const LockRange *NodeLocks::Against(const Table &Held, const LockRange &Wanted) {
    for (const LockRange &Each : Held) {
        if (Each.WholeFile == Wanted.WholeFile && Each.Owner != Wanted.Owner && (Each.Exclusive || Wanted.Exclusive) &&
            Overlap(Each.First, Each.Last, Wanted.First, Wanted.Last)) {
            return &Each;
        }
    }
    return nullptr;
}

// Takes Range out of what its owner holds, splitting what reaches beyond it.
void NodeLocks::Remove(Table &Held, const LockRange &Range) {
    Table Left;
    for (const LockRange &Each : Held) {
        if (Each.WholeFile != Range.WholeFile || Each.Owner != Range.Owner ||
            !Overlap(Each.First, Each.Last, Range.First, Range.Last)) {
            Left.push_back(Each);
            continue;
        }
        if (Each.First < Range.First) {
            Left.push_back(Each);
            Left.back().Last = Range.First - 1;
        }
        if (Each.Last > Range.Last) {
            Left.push_back(Each);
            Left.back().First = Range.Last + 1;
        }
    }
    Held = std::move(Left);
}

// What the server has to hold: the ranges cut where any of them begins or ends, and neighbours of one kind joined.
std::vector<NodeLocks::Segment> NodeLocks::Needed() const {
    std::vector<uint64_t> Cuts;
    Table Ranges = Held_;
    for (LockRange &Each : Ranges) {
        if (Each.WholeFile) {
            Each.First = Each.Last = WholeFilePlace;
        } else {
            Each.Last = std::min(Each.Last, WholeFilePlace - 1);
        }
        if (Each.First <= Each.Last) {
            Cuts.push_back(Each.First);
            Cuts.push_back(Each.Last + 1);
        }
    }
    std::sort(Cuts.begin(), Cuts.end());
    Cuts.erase(std::unique(Cuts.begin(), Cuts.end()), Cuts.end());
    std::vector<Segment> Segments;
    for (size_t Index = 0; Index + 1 < Cuts.size(); ++Index) {
        Segment Next = {Cuts[Index], Cuts[Index + 1] - 1, false};
        bool Any = false;
        for (const LockRange &Each : Ranges) {
            if (Overlap(Each.First, Each.Last, Next.First, Next.Last)) {
                Any = true;
                Next.Exclusive = Next.Exclusive || Each.Exclusive;
            }
        }
        if (!Any) {
            continue;
        }
        if (!Segments.empty() && Segments.back().Last + 1 == Next.First && Next.First != WholeFilePlace &&
            Segments.back().Exclusive == Next.Exclusive) {
            Segments.back().Last = Next.Last;
        } else {
            Segments.push_back(Next);
        }
    }
    return Segments;
}

// Brings the server to what is needed now. After a failure it holds what it held before, as far as it still gives it.
int NodeLocks::TellServer(const Opener *Open) {
    const std::vector<Segment> Wanted = Needed();
    if (Wanted == AtServer_) {
        return 0;
    }
    if (!Server_) {
        const int Error = Open != nullptr ? (*Open)(&Server_) : ESTALE;
        if (Error != 0) {
            return Error == ESTALE || Error == ENOENT ? 0 : Error;
        }
    }
    std::vector<Segment> Old;
    for (const Segment &Each : AtServer_) {
        if (std::find(Wanted.begin(), Wanted.end(), Each) == Wanted.end()) {
            Server_->Unlock(Each.First, Each.Last - Each.First + 1);
            Old.push_back(Each);
        }
    }
    std::vector<Segment> New;
    for (const Segment &Each : Wanted) {
        if (std::find(AtServer_.begin(), AtServer_.end(), Each) != AtServer_.end()) {
            continue;
        }
        if (const int Error = Server_->Lock(Each.First, Each.Last - Each.First + 1, Each.Exclusive); Error != 0) {
            for (const Segment &Undo : New) {
                Server_->Unlock(Undo.First, Undo.Last - Undo.First + 1);
            }
            std::erase_if(AtServer_, [&](const Segment &One) {
                return std::find(Old.begin(), Old.end(), One) != Old.end() &&
                       Server_->Lock(One.First, One.Last - One.First + 1, One.Exclusive) != 0;
            });
            return Error == EAGAIN ? EAGAIN : ENOLCK;
        }
        New.push_back(Each);
    }
    AtServer_ = Wanted;
    return 0;
}

int NodeLocks::TryLocked(const LockRange &Wanted, const Opener &Open) {
    if (Against(Held_, Wanted) != nullptr) {
        return EAGAIN;
    }
    Table Before = Held_;
    Remove(Held_, Wanted);
    Held_.push_back(Wanted);
    const int Error = TellServer(&Open);
    if (Error != 0) {
        Held_ = std::move(Before);
    }
    return Error;
}

// Who waits and can have the lock now gets it, in the order in which they came.
std::vector<std::pair<NodeLocks::Granted, int>> NodeLocks::ServeLocked() {
    std::vector<std::pair<Granted, int>> Served;
    for (size_t Index = 0; Index < Waiting_.size();) {
        const int Error = TryLocked(Waiting_[Index].Wanted, Waiting_[Index].Open);
        if (Error == EAGAIN) {
            ++Index;
            continue;
        }
        Served.emplace_back(std::move(Waiting_[Index].Done), Error);
        Waiting_.erase(Waiting_.begin() + static_cast<std::ptrdiff_t>(Index));
    }
    return Served;
}

void NodeLocks::Answer(std::vector<std::pair<Granted, int>> Served) {
    for (const auto &[Done, Error] : Served) {
        Done(Error);
    }
}

int NodeLocks::Lock(const LockRange &Wanted, const Opener &Open) {
    std::vector<std::pair<Granted, int>> Served;
    int Error;
    {
        const std::lock_guard Hold(Lock_);
        Error = TryLocked(Wanted, Open);
        if (Error == 0 && !Wanted.Exclusive) {
            Served = ServeLocked(); // what was exclusive may be shared now
        }
    }
    Answer(std::move(Served));
    return Error;
}

void NodeLocks::LockWaiting(const LockRange &Wanted, const Opener &Open, const void *Ticket, Granted Done) {
    std::vector<std::pair<Granted, int>> Served;
    {
        const std::lock_guard Hold(Lock_);
        Waiting_.push_back({Wanted, Open, Ticket, std::move(Done)});
        Served = ServeLocked();
    }
    Answer(std::move(Served));
}

bool NodeLocks::Cancel(const void *Ticket) {
    Granted Done;
    {
        const std::lock_guard Hold(Lock_);
        const auto At = std::find_if(Waiting_.begin(), Waiting_.end(),
                                     [Ticket](const Waiter &Each) { return Each.Ticket == Ticket; });
        if (At == Waiting_.end()) {
            return false;
        }
        Done = std::move(At->Done);
        Waiting_.erase(At);
    }
    Done(EINTR);
    return true;
}

void NodeLocks::Unlock(const LockRange &Range) {
    std::vector<std::pair<Granted, int>> Served;
    {
        const std::lock_guard Hold(Lock_);
        Remove(Held_, Range);
        TellServer(nullptr);
        Served = ServeLocked();
    }
    Answer(std::move(Served));
}

void NodeLocks::UnlockAll(uint64_t Owner, bool WholeFile) {
    LockRange All;
    All.Owner = Owner;
    All.WholeFile = WholeFile;
    Unlock(All);
}

bool NodeLocks::Conflict(const LockRange &Wanted, const Opener &Open, LockRange *Found) {
    const std::lock_guard Hold(Lock_);
    if (const LockRange *Other = Against(Held_, Wanted); Other != nullptr) {
        *Found = *Other;
        return true;
    }
    // Others at the server: by trying, which changes nothing in the end.
    const Table Before = Held_;
    const int Error = TryLocked(Wanted, Open);
    if (Error == EAGAIN) {
        *Found = Wanted;
        Found->Exclusive = true;
        Found->Process = 0;
        return true;
    }
    Held_ = Before;
    TellServer(nullptr);
    return false;
}

bool NodeLocks::Retry() {
    std::vector<std::pair<Granted, int>> Served;
    bool More;
    {
        const std::lock_guard Hold(Lock_);
        Served = ServeLocked();
        More = !Waiting_.empty();
    }
    Answer(std::move(Served));
    return More;
}

std::shared_ptr<Remote> NodeLocks::Transfers() {
    const std::lock_guard Hold(Lock_);
    return AtServer_.empty() ? nullptr : Server_;
}

int NodeLocks::Write(uint64_t Offset, const void *Buffer, size_t Length, bool AtEnd, size_t *Done) {
    const std::lock_guard Hold(Lock_);
    int Error = Server_->Write(Offset, Buffer, Length, AtEnd, Done);
    if (Error != EACCES) {
        return Error;
    }
    std::vector<Segment> Lifted;
    for (const Segment &Each : AtServer_) {
        if (!Each.Exclusive && (AtEnd || Overlap(Each.First, Each.Last, Offset, Offset + Length - 1))) {
            Server_->Unlock(Each.First, Each.Last - Each.First + 1);
            Lifted.push_back(Each);
        }
    }
    if (Lifted.empty()) {
        return Error;
    }
    Error = Server_->Write(Offset, Buffer, Length, AtEnd, Done);
    std::erase_if(AtServer_, [&](const Segment &Each) {
        return std::find(Lifted.begin(), Lifted.end(), Each) != Lifted.end() &&
               Server_->Lock(Each.First, Each.Last - Each.First + 1, false) != 0;
    });
    return Error;
}

} // namespace app::mount
