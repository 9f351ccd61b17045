// Which object is meant by a deletion that comes after its handle was closed, and only by name.
//
// A file's is noted when its deletion is reserved for a handle; a directory's when its handle is closed by the thread
// that deletes it next. Whoever has taken the name meanwhile is not deleted. What was deleted under a name is noted for
// the thread that gives the name again, so a file is replaced, until that thread opens, makes or deletes something
// else.
//
// Lock: one mutex, a leaf. Safe for concurrent calls.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "providers/directory/beneath.h"

namespace providers::directory {

// Whether two paths are the same but for the case, as paths are compared here. They are native and from the export's
// root.
bool SamePath(std::string_view One, std::string_view Other);

class PendingDeletes {
public:
    void Reserve(std::string_view Path, const ObjectKey &Key);
    void Cancel(std::string_view Path, const ObjectKey &Key);
    // The object has another path now.
    void Moved(std::string_view From, std::string_view To, const ObjectKey &Key);
    void DirectoryClosed(std::string_view Path, const ObjectKey &Key);

    // Whether an entry that is this object may be deleted under this path, as a directory or as a file. What was noted
    // for the path is forgotten.
    bool Take(std::string_view Path, const ObjectKey &Key, bool AsDirectory);

    // A file of exactly this path was deleted.
    void Deleted(std::string Path);
    // Whether this is what the calling thread deleted last; true once.
    bool TakeDeleted(std::string_view Path);
    // The calling thread does something else.
    static void ForgetDeleted();

private:
    std::atomic<size_t> Count_ = 0;
    std::mutex Mutex_;
    std::unordered_map<std::u16string, ObjectKey> Reserved_; // by folded path; guarded by Mutex_
};

} // namespace providers::directory
