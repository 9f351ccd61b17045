// The file system that the kernel sees: each of its requests becomes requests of the driver's.
//
// A method answers its request and returns 0, or returns the errno that it is to be answered with. Any number run at
// once. Locks, in their order: a file's NodeLocks, or an open directory's and its listing's, a volume's Renaming, then
// those of Nodes, Spellings and Directories_, which are leaves. Renaming is held exclusively while names change and
// shared while a path is built and used.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

#include "app/mount/locks.h"
#include "app/mount/nodes.h"
#include "app/mount/options.h"
#include "app/mount/spellings.h"
#include "app/session.h"

namespace app::mount {

class FileSystem {
public:
    // Ready is called by the thread that has agreed with the kernel on what both do, once. UsageError when the volume
    // of the options is none of the session's.
    FileSystem(Session &Running, MountOptions Options, std::function<void()> Ready);
    ~FileSystem();
    FileSystem(const FileSystem &) = delete;
    FileSystem &operator=(const FileSystem &) = delete;

    static const fuse_lowlevel_ops &Operations();
    // Where invalidations go; null before and after the mount.
    void SetSession(fuse_session *To) {
        Kernel_ = To;
    }
    // Ends the thread that speaks to the kernel on its own. The kernel lets it wait for whoever changes the directory
    // that it names, so requests have to be served meanwhile, unless the connection has ended.
    void EndBackground() {
        Spellings_->Stop();
    }
    // Closes what programs have left open.
    void CloseAll();

private:
    struct Listing;
    struct Directory;

    // file_system.cpp
    void Init(fuse_conn_info *Connection);
    int Lookup(fuse_req_t Request, fuse_ino_t Parent, const char *Name);
    int GetAttributes(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File);
    int SetAttributes(fuse_req_t Request, fuse_ino_t Inode, struct stat *Wanted, int What, fuse_file_info *File);
    int StatFs(fuse_req_t Request, fuse_ino_t Inode);
    int Access(fuse_req_t Request, fuse_ino_t Inode, int Mask);
    // transfers.cpp
    int Open(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File);
    int Create(fuse_req_t Request, fuse_ino_t Parent, const char *Name, mode_t Mode, fuse_file_info *File);
    int Read(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, fuse_file_info *File);
    int Write(fuse_req_t Request, fuse_ino_t Inode, const char *Buffer, size_t Size, off_t Offset,
              fuse_file_info *File);
    int Flush(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File);
    int Release(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File);
    int Sync(fuse_req_t Request, fuse_ino_t Inode, int DataOnly, fuse_file_info *File);
    int Allocate(fuse_req_t Request, fuse_ino_t Inode, int Mode, off_t Offset, off_t Length, fuse_file_info *File);
    int GetLock(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File, struct flock *Lock);
    int SetLock(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File, struct flock *Lock, int Sleep);
    int WholeFileLock(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File, int Operation);
    // listing.cpp
    int OpenDirectory(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File);
    int ReadDirectory(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, fuse_file_info *File);
    int ReadDirectoryPlus(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, fuse_file_info *File);
    int ReleaseDirectory(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File);
    // changes.cpp
    int MakeNode(fuse_req_t Request, fuse_ino_t Parent, const char *Name, mode_t Mode, dev_t Device);
    int MakeDirectory(fuse_req_t Request, fuse_ino_t Parent, const char *Name, mode_t Mode);
    int Unlink(fuse_req_t Request, fuse_ino_t Parent, const char *Name);
    int RemoveDirectory(fuse_req_t Request, fuse_ino_t Parent, const char *Name);
    int Rename(fuse_req_t Request, fuse_ino_t Parent, const char *Name, fuse_ino_t NewParent, const char *NewName,
               unsigned Flags);
    int SymbolicLink(fuse_req_t Request, const char *Target, fuse_ino_t Parent, const char *Name);
    int HardLink(fuse_req_t Request, fuse_ino_t Inode, fuse_ino_t NewParent, const char *NewName);

    template <auto Method, typename... A>
    static void Call(fuse_req_t Request, A... Arguments);
    static FileSystem &Of(fuse_req_t Request) {
        return *static_cast<FileSystem *>(fuse_req_userdata(Request));
    }
    Node *NodeOf(fuse_ino_t Inode) {
        return Inode == FUSE_ROOT_ID ? Nodes_.Root() : reinterpret_cast<Node *>(Inode);
    }
    static OpenFile &FileOf(const fuse_file_info *File) {
        return *reinterpret_cast<OpenFile *>(File->fh);
    }

    // Why a program may not call something so: 0 when it may.
    int CheckName(std::string_view Name) const;
    mode_t ModeOf(bool Directory, bool ReadOnly) const;
    struct stat Describe(const Node *Which, const Facts &Found) const;
    struct stat Describe(uint64_t Number, const Facts &Found) const;
    // What the server says of the node, by whatever is open or by its path.
    int Ask(Node *Which, Facts *Found);
    int AskPath(const std::u16string &Path, Facts *Found);
    // The space of the node's volume; above the volumes, of the one that has most available.
    int AskSpace(const Node *Which, Space *Found);
    // Opens the node by its path and keeps it. ESTALE when it was deleted.
    int OpenNode(Node *Which, const Remote::Asked &What, std::shared_ptr<Remote> *Opened);
    void ReplyAttributes(fuse_req_t Request, Node *Which, const Facts &Found);
    fuse_entry_param Entry(Node *Which, const Facts &Found) const;
    int LookupAbove(fuse_req_t Request, Node *Parent, const char *Name);
    int SetSize(Node *Which, uint64_t Size);
    int CheckOwnership(Node *Which, const struct stat *Wanted, int What, const Facts &Now) const;

    int Opened(fuse_req_t Request, Node *Of, std::shared_ptr<Remote> Handle, fuse_file_info *File,
               const fuse_entry_param *NewEntry);
    NodeLocks::Opener LockOpener(Node *Which);
    void Wait(fuse_req_t Request, Node *Which, const LockRange &Wanted);
    static void Interrupted(fuse_req_t Request, void *Self);

    void DropDirectory(const fuse_file_info *File);
    std::shared_ptr<Listing> MakeListing(fuse_ino_t Of);
    void Keep(const std::shared_ptr<Listing> &Loaded);
    std::shared_ptr<Listing> Kept(fuse_ino_t Of);
    std::shared_ptr<Listing> Choose(fuse_ino_t Inode, off_t Offset, Directory &From);
    int Load(Node *Which, Listing &To);
    void Renew(Node *Which, Listing &Old, size_t Index);
    int ReadListing(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, Directory &From, bool Plus);
    size_t Pack(fuse_req_t Request, Node *Which, size_t Index, const Listing &From, bool Plus,
                std::vector<char> &Buffer);

    // With Renaming held exclusively.
    int Delete(const std::u16string &Path, bool Directory);
    int Hide(Node *Parent, const std::string &Name, std::u16string *Hidden, Remote *Holder);
    int Move(Node *From, const std::string &Name, Node *To, const std::string &NewName, unsigned Flags,
             bool *OpenBelow);
    int MakeWay(Node *To, const std::string &NewName, bool Directory, unsigned Flags, struct Displaced *Old);
    void PutBack(Node *To, const std::string &NewName, struct Displaced *Old);
    bool IsHidden(Node *Parent, std::string_view Name);

    Session &Running_;
    const MountOptions Options_;
    const std::function<void()> Ready_;
    std::vector<std::unique_ptr<Volume>> Volumes_;
    Nodes Nodes_;
    std::atomic<fuse_session *> Kernel_{nullptr};
    std::atomic<uint64_t> Changes_{0}; // counts what may make a listing old
    std::string HiddenPrefix_;         // of the names that deleted files have while they are open
    std::mutex WaitLock_;
    struct Waited {
        std::shared_ptr<NodeLocks> Locks;
        bool Interrupted = false; // before there was something to cancel
    };
    std::map<const void *, Waited> Waits_; // by request
    struct ByPlace {
        using is_transparent = void;
        bool operator()(const auto &Left, const auto &Right) const {
            return std::to_address(Left) < std::to_address(Right);
        }
    };
    std::atomic<uint32_t> ListingNumber_{0};
    std::mutex DirectoriesLock_;
    std::set<std::shared_ptr<Directory>, ByPlace> Directories_; // that programs have open
    // Listings that the kernel may have in its pages, the oldest first, and the last one of each directory.
    std::deque<std::shared_ptr<Listing>> Kept_;
    std::unordered_map<fuse_ino_t, std::shared_ptr<Listing>> LastKept_;
    size_t KeptEntries_ = 0;
    std::unique_ptr<Spellings> Spellings_;
};

} // namespace app::mount
