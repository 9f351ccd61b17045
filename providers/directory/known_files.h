// Regular files that are opened again and again: that a name still leads to a file is known without a question about
// it, and the very file is opened by its file handle, which never leads to another one, nor to a pipe in its place.
//
// The kernel tells what becomes of names: the directory that holds one is watched, as is each one on the way, which was
// reached from the one above it and is no link. It tells of mounts, too. One call asks whether there is anything to
// hear. What is not remembered gets an ordinary look, and while another thread works in what it heard the name is
// looked at. All names were seen to be beneath the root, under the root's own mount.
//
// A file is remembered when it is met for the third time, in a table of fixed size for the process, at most 256 bytes a
// name; another name may take its place. A path that is too long for that gets a look each time, which opens nothing.
// No descriptor is kept for a name. Handles are for servers that may search every directory (CAP_DAC_READ_SEARCH), so
// that nothing is told here that would be refused to a look by path.
//
// Locks: a mutex for the directories, held while they are gone to, then one of some for a name's place in the table;
// nothing is locked after them. Safe for concurrent calls.
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

    // Whether Path, in bytes below the root, still leads to the file that is remembered for it. Of its status the
    // device and the inode's number are filled in then, and the mode that it had when it was met last. An ordinary look
    // is needed when not.
    bool Look(const std::string &Path, struct stat &Stat, FileHandle &Handle);
    // Path has led to the file that is open as Fd, by an ordinary look.
    void Note(const std::string &Path, int Fd, const struct stat &Stat);
    // The file that was remembered for Path could not be opened, or is not as it was.
    void Forget(std::string_view Path);

    // Opens that very file. Returns the descriptor or -1 with errno: ESTALE when it is not there any more.
    int Open(const FileHandle &Handle, int Flags) const;

    // Whether Directory, in bytes below the root, is known to be reached without links, as the root itself is. False
    // always where directories are not watched.
    bool IsPlain(std::string_view Directory);

private:
    struct Watched {
        std::string Directory;                    // in bytes below the root
        std::set<std::string, std::less<>> Steps; // its entries that are on a way
    };

    bool TakeNews();
    void HearOthers();
    void ReadEvents();
    bool Apply(int Watch, uint32_t Mask, std::string_view Name) noexcept;
    void ForgetDirectories();
    bool Prove(std::string_view Directory);
    bool WatchDirectory(int Fd, std::string_view Directory, const std::string &Step);
    bool IsStill(const std::string &Path, const ObjectKey &Key, mode_t &Mode) const;
    void StoreKnown(const std::string &Path, const ObjectKey &Key, const FileHandle &Handle);
    uint64_t HashOf(std::string_view Path) const;

    const int Root_;
    ObjectKey RootKey_;
    uint64_t Mount_ = 0;
    UniqueFd Notify_; // empty where nothing can be known
    UniqueFd Mounts_;
    UniqueFd News_; // readable when one of those two has something to tell

    std::atomic<uint32_t> Epoch_; // another one, that nothing else in the process had, once directories are forgotten
    std::atomic<unsigned> Taking_ = 0;  // threads that ask for news, or work in what they heard by that
    std::atomic<unsigned> Reading_ = 0; // threads that take events of directories, or work them in
    std::mutex Mutex_;                  // guards what follows
    std::set<std::string, std::less<>> Plain_;
    std::unordered_map<int, Watched> Watched_; // by their watch
    size_t Steps_ = 0;                         // in Watched_
};

} // namespace providers::directory
