// The names that the kernel knows: a node for each, with nothing of the server's open for it.
//
// A node is found by its parent and its name, ignoring case, so that two spellings are one file. It lives while the
// kernel refers to it, a handle of the server's is kept in it, or it has children. Its number is made from its parent's
// number and its name, so that it is the same whenever it is asked for; a name that is given to something else
// meanwhile gets another.
//
// Names are kept in UTF-8 as the kernel gave them; Path gives what the server is asked for. All functions lock.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "app/mount/remote.h"

namespace app::mount {

class NodeLocks;
struct Node;

// An open file of a program's, which its node keeps.
struct OpenFile {
    std::shared_ptr<Remote> Handle;
    Node *Of;
    bool Appends = false;
    bool ClosesUntold = false; // the kernel tells of its last close only
    std::mutex OwnersLock;
    std::set<uint64_t> Owners; // who locked through it, where the close of each is untold
};

// A volume, or the place of one at the mount's root.
struct Volume {
    std::u16string Path;        // \server\volume
    std::shared_mutex Renaming; // held shared while a path is built and used, exclusively while names change
    std::atomic<uint64_t> HiddenNumber{0};
};

// What a node has only while something is open in it, or after it lost its name.
struct OpenState {
    std::vector<std::unique_ptr<OpenFile>> Files;
    std::shared_ptr<NodeLocks> Locks;
    std::shared_ptr<Remote> Aside; // what lost its name, until the kernel forgets the node
};

struct Node {
    Node *Parent = nullptr; // null for the root, and for what was deleted
    Volume *In = nullptr;   // null above the volumes
    std::string Name;
    uint64_t Folded = 0; // hash of the name, ignoring case
    uint64_t Number = 0;
    uint64_t Lookups = 0; // of the kernel's
    uint32_t Children = 0;
    bool Directory = false;
    bool Deleted = false;
    LONG64 CachedWrite = 0;
    LONG64 CachedSize = 0;           // what the kernel's pages of the file belong to
    std::unique_ptr<OpenState> Open; // while programs have it open
    uint32_t Kept = 0;               // handles of the server's, until they are closed there
};

class Nodes {
public:
    Nodes();
    ~Nodes();
    Nodes(const Nodes &) = delete;
    Nodes &operator=(const Nodes &) = delete;

    Node *Root() {
        return Root_;
    }
    // The child of that name with one look-up of the kernel's more. A node of the other kind gives way to a new one.
    // Spelling is what the kernel calls it; another one than the node has is in *Other afterwards.
    Node *Lookup(Node *Parent, std::string_view Spelling, bool Directory, Volume *In = nullptr);
    // The child if it is known; null otherwise. For as long as nobody forgets it.
    Node *Find(Node *Parent, std::string_view Name);
    // The number that the child has or would get.
    uint64_t NumberOf(Node *Parent, std::string_view Name);
    void Forget(Node *Which, uint64_t Count);

    // The path for the server; empty for what was deleted or lies above the volumes.
    std::u16string Path(Node *Which);
    std::u16string PathBelow(Node *Parent, std::string_view Name);

    // The name is gone. The node is deleted, and stays for those who have it open.
    void Unlink(Node *Parent, std::string_view Name);
    // The name leads elsewhere now; what had the new name has none any more.
    void Rename(Node *Parent, std::string_view Name, Node *NewParent, std::string_view NewName);

    // Handle, which is open in the node: it counts as such until the server has closed it. Called while Renaming is
    // held as it was for the open, so that a deletion sees every handle that there is.
    std::shared_ptr<Remote> Keep(Node *Which, Remote Handle);
    // A program has it open, with a kept handle that is lent to what needs one; and has not any more.
    void AddOpen(std::unique_ptr<OpenFile> File);
    void DropOpen(OpenFile *File);
    // The file lost its name, and Handle is open in it, marked to be deleted. Whatever the kernel still asks of the
    // node is served through it, an open that was on its way too. It is closed when the kernel forgets the node.
    void KeepAside(Node *Which, Remote Handle);
    // An open handle with that access; null without one.
    std::shared_ptr<Remote> OpenHandle(Node *Which, ACCESS_MASK Access);
    bool IsOpen(Node *Which);
    // Whether it has lost its name.
    bool IsDeleted(Node *Which);
    // What the kernel's pages of the file belong to from now on; whether it is what they belonged to before.
    bool SetCached(Node *Which, LONG64 LastWrite, LONG64 Size);
    // Whether a file is open in the directory or below it.
    bool IsOpenBelow(Node *Directory);
    // How many kept handles were closed so far; waits until there are more, false when there are none by then.
    uint64_t Closes();
    bool AwaitClose(uint64_t Before, std::chrono::steady_clock::time_point Until);
    // The locks of an open file, made with the first.
    std::shared_ptr<NodeLocks> LocksOf(Node *Which, bool Make);

    // All that is open, for the end of the mount.
    std::vector<std::unique_ptr<OpenState>> TakeAll();

private:
    struct Key {
        Node *Parent;
        uint64_t Folded;
        std::string_view Name;
    };
    struct Hash {
        using is_transparent = void;
        size_t operator()(const Node *Which) const {
            return Of(Which->Parent, Which->Folded);
        }
        size_t operator()(const Key &Which) const {
            return Of(Which.Parent, Which.Folded);
        }
        static size_t Of(const Node *Parent, uint64_t Folded) {
            return reinterpret_cast<uintptr_t>(Parent) * 0x9E3779B97F4A7C15u ^ Folded;
        }
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(const Node *Left, const Node *Right) const {
            return Left == Right;
        }
        bool operator()(const Key &Left, const Node *Right) const;
        bool operator()(const Node *Left, const Key &Right) const {
            return (*this)(Right, Left);
        }
    };

    Node *FindLocked(Node *Parent, std::string_view Name, uint64_t Folded);
    uint64_t NumberLocked(uint64_t Natural);
    void DetachLocked(Node *Which);
    void ReleaseLocked(Node *Which);
    std::u16string PathLocked(const Node *Which) const;
    void Closed(Node *Which);

    std::mutex Lock_; // no kept handle is closed while it is held
    std::condition_variable Closing_;
    uint64_t Closes_ = 0;
    Node *Root_;
    std::unordered_set<Node *, Hash, Equal> Known_;
    size_t Most_ = 0; // known names at once, since memory was given back
    // Numbers that are not the natural ones of their names: by the natural number, and those that are in use.
    std::unordered_map<uint64_t, uint64_t> Given_;
    std::unordered_set<uint64_t> Taken_;
    uint64_t Fresh_ = 0;
};

// The spelling for the server of a name of the kernel's, and back. Bytes that no name of the server can hold become the
// private-use characters that stand for them.
std::u16string ServedName(std::string_view Name);
std::string LocalName(std::u16string_view Served);
// A hash of the name as names are compared.
uint64_t FoldedHash(std::string_view Name);
bool SameName(std::string_view Left, std::string_view Right);

} // namespace app::mount
