// Regular files that are opened again and again: what a name leads to is seen by one call that opens nothing, and the
// very file is opened by its file handle, which never leads to another one, nor to a pipe in its place.
//
// The kernel does not confine that look as it does an open. It is made only where the directories on the way are known
// to be no links: each was reached from the one above it, and the kernel tells when one of them goes from there. What
// is found then has to be the file that was found before, beneath the root, under the same mount.
//
// A file is remembered when it is met for the second time, in a table of fixed size for the process, 64 bytes a name;
// another name may take its place. No descriptor is kept for it. Handles are for servers that may search every
// directory (CAP_DAC_READ_SEARCH), so that nothing is told here that would be refused to a look by path.
//
// Locks: a mutex for the directories, one of some for a name's place in the table, all leaves. Safe for concurrent
// calls.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include <sys/stat.h>

#include "providers/directory/beneath.h"

namespace providers::directory {

// What the kernel opens a file by, as name_to_handle_at gives it.
struct FileHandle {
    static constexpr unsigned MostBytes = 24;

    uint32_t Bytes = 0; // 0 = none
    int32_t Type = 0;
    std::array<unsigned char, MostBytes> Data{};

    explicit operator bool() const {
        return Bytes != 0;
    }
};

// Whether the handle leads to no other file, however long it is kept. Of one that is an inode's number and its
// generation, ext4 and f2fs compare no generation that is 0, as that of a file that the tools made with the file
// system.
bool NamesOneFile(const FileHandle &Handle);

class KnownFiles {
public:
    // Root: the export's, readable; stays open as long as this lives.
    KnownFiles(int Root, bool UseNotifications);

    // Whether Path, in bytes below the root, still leads to the file that is remembered for it. Of its status the mode,
    // the device and the inode's number are filled in then. An ordinary look is needed when not.
    bool Look(const std::string &Path, struct stat &Stat, FileHandle &Handle);
    // Path has led to the file that is open as Fd, by an ordinary look that followed no link at its end.
    void Note(const std::string &Path, int Fd, const struct stat &Stat);
    // The file that was remembered for Path could not be opened.
    void Forget(const std::string &Path);

    // Opens that very file. Returns the descriptor or -1 with errno: ESTALE when it is not there any more.
    int Open(const FileHandle &Handle, int Flags) const;

    // Whether Directory, in bytes below the root, is known to be reached without links, as the root itself is. False
    // always where directories are not watched.
    bool IsPlain(std::string_view Directory);

private:
    void ReadEvents();
    void ForgetDirectories();
    bool Prove(std::string_view Directory);
    bool WatchStep(int Fd, const std::string &Component);
    uint64_t HashOf(std::string_view Path) const;

    const int Root_;
    ObjectKey RootKey_;
    uint64_t Mount_ = 0;
    const uint64_t Serial_; // of no other one of this process
    UniqueFd Notify_;       // empty where nothing can be known

    std::atomic<uint64_t> Epoch_ = 1;   // advanced when directories are forgotten
    std::atomic<unsigned> Reading_ = 0; // threads that take events
    std::mutex Mutex_;                  // guards what follows
    std::set<std::string, std::less<>> Plain_;
    std::unordered_map<int, std::set<std::string, std::less<>>> Watched_; // directories on the way, by their watch
    size_t Steps_ = 0;                                                    // names in Watched_
};

} // namespace providers::directory
