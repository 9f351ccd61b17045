#include "providers/directory/event_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>

#include <dirent.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace providers::directory {
namespace {

// More than this of one directory is cheaper to read than to keep.
constexpr size_t MaxPending = 65'536;

// File systems on which every change passes through this kernel.
constexpr std::array<unsigned, 8> LocalFileSystems = {
    0xEF53 /* ext */,      0x58465342 /* xfs */, 0x9123683E /* btrfs */, 0x01021994 /* tmpfs */,
    0xF2F52010 /* f2fs */, 0x2FC12FC1 /* zfs */, 0x858458F6 /* ramfs */, 0xCA451A4E /* bcachefs */};

} // namespace

bool TellsChanges(int Fd) {
    struct statfs Info;
    return fstatfs(Fd, &Info) == 0 && std::find(LocalFileSystems.begin(), LocalFileSystems.end(),
                                                static_cast<unsigned>(Info.f_type)) != LocalFileSystems.end();
}

EventLog::EventLog(bool UseNotifications) : Notify_(UseNotifications ? inotify_init1(IN_NONBLOCK | IN_CLOEXEC) : -1) {
}

int EventLog::Watch(int Fd) {
    if (!Notify_ || !TellsChanges(Fd)) {
        return -1;
    }
    // The link of a descriptor leads to the very directory that is open, whatever its path is by now.
    const std::string Link = fmt::format("/proc/self/fd/{}", Fd);
    const std::lock_guard Hold(Mutex_);
    const int Watch = inotify_add_watch(Notify_.Get(), Link.c_str(),
                                        IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR);
    if (Watch >= 0) {
        Watched_[Watch] = {};
    }
    return Watch;
}

void EventLog::Unwatch(int Watch) {
    const std::lock_guard Hold(Mutex_);
    if (Watched_.erase(Watch) != 0) {
        // Fails for a directory that is gone, whose watch went with it.
        inotify_rm_watch(Notify_.Get(), Watch);
    }
}

bool EventLog::Take(int Watch, std::vector<NameChange> &Changes) {
    const std::lock_guard Hold(Mutex_);
    Read();
    const auto At = Watched_.find(Watch);
    if (At == Watched_.end() || At->second.Lost) {
        return false;
    }
    if (Changes.empty()) {
        Changes.swap(At->second.Changes);
    } else {
        std::move(At->second.Changes.begin(), At->second.Changes.end(), std::back_inserter(Changes));
        At->second.Changes.clear();
    }
    return true;
}

void EventLog::Read() {
    alignas(inotify_event) char Buffer[32768];
    for (;;) {
        const ssize_t Size = read(Notify_.Get(), Buffer, sizeof Buffer);
        if (Size < 0 && errno == EINTR) {
            continue;
        }
        for (ssize_t At = 0; At < Size;) {
            const auto *Event = reinterpret_cast<const inotify_event *>(Buffer + At);
            Apply(Event->wd, Event->mask, Event->len != 0 ? Event->name : "");
            At += static_cast<ssize_t>(sizeof(inotify_event) + Event->len);
        }
        if (Size < static_cast<ssize_t>(sizeof Buffer - sizeof(inotify_event) - NAME_MAX - 1)) {
            return;
        }
    }
}

void EventLog::Apply(int Watch, uint32_t Mask, std::string_view Name) {
    if ((Mask & IN_Q_OVERFLOW) != 0) {
        for (auto &[Each, Kept] : Watched_) {
            Kept = {{}, true};
        }
        return;
    }
    const auto At = Watched_.find(Watch);
    if (At == Watched_.end() || At->second.Lost) {
        return;
    }
    Pending &Kept = At->second;
    if ((Mask & (IN_IGNORED | IN_UNMOUNT)) != 0 || Kept.Changes.size() == MaxPending) {
        Kept = {{}, true};
    } else if ((Mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        Kept.Changes.push_back(
            {true, false,
             (Mask & IN_ISDIR) != 0 ? static_cast<unsigned char>(DT_DIR) : static_cast<unsigned char>(DT_UNKNOWN),
             std::string(Name)});
    } else if ((Mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        Kept.Changes.push_back({false, (Mask & IN_MOVED_FROM) != 0, DT_UNKNOWN, std::string(Name)});
    }
}

} // namespace providers::directory
