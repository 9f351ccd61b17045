#include "providers/directory/pending_deletes.h"

#include "providers/directory/names.h"

namespace providers::directory {
namespace {

std::u16string FoldedPath(std::string_view Path) {
    return Fold(ServedName(Path));
}

// The directory that this thread closed last.
struct Closed {
    const void *Of = nullptr;
    std::string Path;
    ObjectKey Key;
};
thread_local Closed LastClosed;

// The file that this thread deleted last, if that was the last thing it did to a name.
struct Gone {
    const void *Of = nullptr;
    std::string Path;
};
thread_local Gone LastDeleted;

} // namespace

bool SamePath(std::string_view One, std::string_view Other) {
    return One == Other || FoldedPath(One) == FoldedPath(Other);
}

void PendingDeletes::Reserve(std::string_view Path, const ObjectKey &Key) {
    const std::lock_guard Hold(Mutex_);
    Reserved_[FoldedPath(Path)] = Key;
    Count_ = Reserved_.size();
}

void PendingDeletes::Cancel(std::string_view Path, const ObjectKey &Key) {
    const std::lock_guard Hold(Mutex_);
    const auto At = Reserved_.find(FoldedPath(Path));
    if (At != Reserved_.end() && At->second == Key) {
        Reserved_.erase(At);
    }
    Count_ = Reserved_.size();
}

void PendingDeletes::Moved(std::string_view From, std::string_view To, const ObjectKey &Key) {
    if (Count_ == 0) {
        return;
    }
    const std::lock_guard Hold(Mutex_);
    const auto At = Reserved_.find(FoldedPath(From));
    if (At != Reserved_.end() && At->second == Key) {
        Reserved_.erase(At);
        Reserved_[FoldedPath(To)] = Key;
    }
    Count_ = Reserved_.size();
}

void PendingDeletes::DirectoryClosed(std::string_view Path, const ObjectKey &Key) {
    LastClosed = {this, std::string(Path), Key};
}

bool PendingDeletes::Take(std::string_view Path, const ObjectKey &Key, bool AsDirectory) {
    // A directory that was closed long ago says nothing of a file that has its name by now.
    const Closed Last = std::exchange(LastClosed, {});
    if (AsDirectory && Last.Of == this && Last.Path == Path && !(Last.Key == Key)) {
        return false;
    }
    if (Count_ == 0) {
        return true;
    }
    const std::lock_guard Hold(Mutex_);
    const auto At = Reserved_.find(FoldedPath(Path));
    if (At == Reserved_.end()) {
        return true;
    }
    const bool Same = At->second == Key;
    Reserved_.erase(At);
    Count_ = Reserved_.size();
    return Same;
}

void PendingDeletes::Deleted(std::string Path) {
    LastDeleted = {this, std::move(Path)};
}

bool PendingDeletes::TakeDeleted(std::string_view Path) {
    const Gone Last = std::exchange(LastDeleted, {});
    return Last.Of == this && Last.Path == Path;
}

void PendingDeletes::ForgetDeleted() {
    LastDeleted = {};
}

} // namespace providers::directory
