// Handles for a Provider's open objects: never 0, never used twice, of one number space for volumes, directories and
// files, since several operations take a handle of any kind.
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

#include "provider/provider_interface.h"

namespace rvfsd {

template <class Object>
class HandleTable {
public:
    RVHANDLE Open(std::shared_ptr<Object> Opened) {
        const std::lock_guard Hold(Lock_);
        Objects_.emplace(++Last_, std::move(Opened));
        return Last_;
    }
    // Null for a handle that is not open. The object stays as long as the caller needs it, also over a Close.
    std::shared_ptr<Object> Find(RVHANDLE Handle) const {
        const std::lock_guard Hold(Lock_);
        const auto At = Objects_.find(Handle);
        return At == Objects_.end() ? nullptr : At->second;
    }
    // False for a handle that is not open.
    bool Close(RVHANDLE Handle) {
        std::shared_ptr<Object> Last; // goes after the lock
        const std::lock_guard Hold(Lock_);
        const auto At = Objects_.find(Handle);
        if (At == Objects_.end()) {
            return false;
        }
        Last = std::move(At->second);
        Objects_.erase(At);
        return true;
    }

private:
    mutable std::mutex Lock_;
    std::unordered_map<RVHANDLE, std::shared_ptr<Object>> Objects_;
    RVHANDLE Last_ = 0;
};

} // namespace rvfsd
