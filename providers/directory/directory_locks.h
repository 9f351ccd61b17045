// One lock for each directory in which a name is being given to something, so that no two names that differ only in
// case come into being. A directory that does not answer holds up those that change it and nobody else.
//
// Lock: a mutex for the table, a leaf; a directory's own is waited for without it.
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

#include "providers/directory/beneath.h"

namespace providers::directory {

class DirectoryLocks {
    struct Entry {
        std::mutex Mutex;
        unsigned Users = 0; // guarded by the table's mutex
    };

public:
    class [[nodiscard]] Hold {
    public:
        Hold() = default;
        Hold(Hold &&Other) noexcept
            : All_(std::exchange(Other.All_, nullptr)), Of_(std::exchange(Other.Of_, nullptr)), Key_(Other.Key_) {
        }
        Hold &operator=(Hold &&Other) noexcept {
            std::swap(All_, Other.All_);
            std::swap(Of_, Other.Of_);
            std::swap(Key_, Other.Key_);
            return *this;
        }
        ~Hold() {
            if (All_ != nullptr) {
                All_->Release(Key_, *Of_);
            }
        }

    private:
        friend class DirectoryLocks;
        Hold(DirectoryLocks *All, Entry *Of, const ObjectKey &Key) : All_(All), Of_(Of), Key_(Key) {
        }
        DirectoryLocks *All_ = nullptr;
        Entry *Of_ = nullptr;
        ObjectKey Key_;
    };

    Hold Acquire(const ObjectKey &Key) {
        Entry *Of = nullptr;
        {
            const std::lock_guard Guard(Mutex_);
            std::unique_ptr<Entry> &Found = Entries_[Key];
            if (!Found) {
                Found = std::make_unique<Entry>();
            }
            ++Found->Users;
            Of = Found.get();
        }
        Of->Mutex.lock();
        return {this, Of, Key};
    }

private:
    void Release(const ObjectKey &Key, Entry &Of) {
        Of.Mutex.unlock();
        const std::lock_guard Guard(Mutex_);
        if (--Of.Users == 0) {
            Entries_.erase(Key);
        }
    }

    std::mutex Mutex_;
    std::unordered_map<ObjectKey, std::unique_ptr<Entry>, ObjectKeyHash> Entries_; // guarded by Mutex_
};

} // namespace providers::directory
