// Open files: their data, their locks.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>

#include "app/mount/file_system.h"
#include "app/mount/request_rings.h"

namespace app::mount {

namespace {

constexpr size_t LargestTransfer = 1 << 20;

// One buffer a worker, for the life of the thread.
char *TransferBuffer(size_t Size) {
    thread_local std::unique_ptr<char[]> Buffer;
    thread_local size_t Have = 0;
    if (Have < Size) {
        Buffer = std::make_unique_for_overwrite<char[]>(std::max(Size, LargestTransfer));
        Have = std::max(Size, LargestTransfer);
    }
    return Buffer.get();
}

ACCESS_MASK AccessFor(int Flags) {
    const int Mode = Flags & O_ACCMODE;
    return FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | (Mode != O_WRONLY ? FILE_READ_DATA : 0) |
           (Mode != O_RDONLY ? FILE_WRITE_DATA : 0);
}

} // namespace

int FileSystem::Opened(fuse_req_t Request, Node *Of, std::shared_ptr<Remote> Handle, fuse_file_info *File,
                       const fuse_entry_param *NewEntry) {
    auto Made = std::make_unique<OpenFile>();
    Made->Handle = std::move(Handle);
    Made->Of = Of;
    Made->Appends = (File->flags & O_APPEND) != 0;
    // A close frees what its process has locked through any descriptor, so the closes of a locked file are told.
    const bool ClosesUntold = (File->flags & O_ACCMODE) == O_RDONLY && !Nodes_.LocksOf(Of, false);
    Made->ClosesUntold = ClosesUntold;
    OpenFile *Given = Made.get();
    Nodes_.AddOpen(std::move(Made));
    File->fh = reinterpret_cast<uint64_t>(Given);
    File->direct_io = Options_.DirectIo ? 1 : 0;
    File->noflush = ClosesUntold ? 1 : 0;
    const int Sent = NewEntry != nullptr ? fuse_reply_create(Request, NewEntry, File) : fuse_reply_open(Request, File);
    if (Sent == -ENOENT) { // the open was interrupted: nobody will release it
        Nodes_.DropOpen(Given);
        if (NewEntry != nullptr) {
            Nodes_.Forget(Of, 1);
        }
    }
    return 0;
}

int FileSystem::Open(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File) {
    Node *Which = NodeOf(Inode);
    if (Which->Directory || Which->In == nullptr) {
        return EISDIR;
    }
    const bool Empties = (File->flags & O_TRUNC) != 0;
    Changes_ += Empties;
    std::shared_ptr<Remote> Handle;
    const ACCESS_MASK Access = AccessFor(File->flags);
    int Error = OpenNode(Which,
                         {.Access = Access,
                          .Disposition = Empties ? ULONG{FILE_OVERWRITE} : ULONG{FILE_OPEN},
                          .Options = FILE_NON_DIRECTORY_FILE},
                         &Handle);
    if (Error == ESTALE) {
        // It lost its name since it was looked up, or is opened through a descriptor: what is open of it is shared.
        Handle = Nodes_.OpenHandle(Which, Access | (Empties ? FILE_WRITE_DATA : 0));
        Error = !Handle ? ESTALE : Empties ? Handle->SetSize(0) : 0;
    }
    if (Error != 0) {
        return Error;
    }
    if (Options_.KeepCache && !Options_.DirectIo) {
        // The kernel's pages stay when the file is what it was when they came.
        Facts Found;
        if (Handle->Query(&Found) == 0) {
            File->keep_cache = Nodes_.SetCached(Which, Found.LastWrite, Found.Size) ? 1 : 0;
        }
    }
    return Opened(Request, Which, std::move(Handle), File, nullptr);
}

int FileSystem::Create(fuse_req_t Request, fuse_ino_t ParentInode, const char *Name, mode_t Mode,
                       fuse_file_info *File) {
    Node *Parent = NodeOf(ParentInode);
    if (const int Error = CheckName(Name); Error != 0) {
        return Error;
    }
    if (Parent->In == nullptr || IsHidden(Parent, Name)) {
        return EPERM;
    }
    std::shared_ptr<Remote> Kept;
    Facts Found;
    ++Changes_;
    fuse_entry_param Answer;
    Node *Child;
    {
        const std::shared_lock Hold(Parent->In->Renaming);
        Remote Handle;
        const std::u16string Path = Nodes_.PathBelow(Parent, Name);
        if (Path.empty()) {
            return ESTALE;
        }
        const ULONG Disposition = (File->flags & O_EXCL) != 0    ? FILE_CREATE
                                  : (File->flags & O_TRUNC) != 0 ? FILE_OVERWRITE_IF
                                                                 : FILE_OPEN_IF;
        int Error = Handle.Open(Path, {.Access = AccessFor(File->flags),
                                       .Disposition = Disposition,
                                       .Options = FILE_NON_DIRECTORY_FILE,
                                       .Attributes = (Mode & 0222) == 0 ? ULONG{FILE_ATTRIBUTE_READONLY} : 0});
        if (Error == 0) {
            Error = Handle.Query(&Found);
        }
        if (Error != 0) {
            return Error;
        }
        Child = Nodes_.Lookup(Parent, Name, false);
        Kept = Nodes_.Keep(Child, std::move(Handle));
        Answer = Entry(Child, Found);
    }
    ++Changes_;
    Nodes_.SetCached(Child, Found.LastWrite, Found.Size);
    Spellings_->Changed(ParentInode, Name);
    return Opened(Request, Child, std::move(Kept), File, &Answer);
}

int FileSystem::Read(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, fuse_file_info *File) {
    OpenFile &From = FileOf(File);
    std::shared_ptr<Remote> Handle;
    if (const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(NodeOf(Inode), false)) {
        Handle = Locks->Transfers();
    }
    // A write to a part of a page may make the kernel read through a file that was opened to be written only.
    Remote &Through = Handle && Handle->Has(FILE_READ_DATA) ? *Handle : *From.Handle;
    char *Space = RequestRings::AnswerSpace(Size);
    char *Buffer = Space != nullptr ? Space : TransferBuffer(Size);
    size_t Done = 0;
    if (const int Error = Through.Read(static_cast<ULONG64>(Offset), Buffer, Size, &Done); Error != 0) {
        return Error;
    }
    fuse_reply_buf(Request, Buffer, Done);
    return 0;
}

int FileSystem::Write(fuse_req_t Request, fuse_ino_t Inode, const char *Buffer, size_t Size, off_t Offset,
                      fuse_file_info *File) {
    OpenFile &To = FileOf(File);
    // Pages that were changed through a mapping go where they belong, whatever the file was opened for.
    const bool AtEnd = To.Appends && !File->writepage;
    ++Changes_;
    size_t Done = 0;
    int Error;
    const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(NodeOf(Inode), false);
    if (const std::shared_ptr<Remote> Held = Locks ? Locks->Transfers() : nullptr; Held && Held->Has(FILE_WRITE_DATA)) {
        Error = Locks->Write(static_cast<uint64_t>(Offset), Buffer, Size, AtEnd, &Done);
    } else {
        Error = To.Handle->Write(static_cast<ULONG64>(Offset), Buffer, Size, AtEnd, &Done);
    }
    ++Changes_;
    if (Error != 0) {
        return Error;
    }
    fuse_reply_write(Request, Done);
    return 0;
}

// Writes have been told to the server when they returned, errors with them: a close has nothing to send. What it ends
// is what the closing process has locked.
int FileSystem::Flush(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File) {
    if (const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(NodeOf(Inode), false)) {
        Locks->UnlockAll(File->lock_owner, false);
    }
    fuse_reply_err(Request, 0);
    return 0;
}

int FileSystem::Release(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File) {
    OpenFile &Gone = FileOf(File);
    if (const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(NodeOf(Inode), false)) {
        if (File->flock_release) {
            Locks->UnlockAll(File->lock_owner, true);
        }
        const std::lock_guard Hold(Gone.OwnersLock);
        for (const uint64_t Owner : Gone.Owners) {
            Locks->UnlockAll(Owner, false);
        }
    }
    Nodes_.DropOpen(&Gone);
    fuse_reply_err(Request, 0);
    return 0;
}

int FileSystem::Sync(fuse_req_t Request, fuse_ino_t Inode, int, fuse_file_info *File) {
    Node *Which = NodeOf(Inode);
    std::shared_ptr<Remote> Handle = FileOf(File).Handle;
    if (!Handle->Has(FILE_WRITE_DATA)) {
        // The driver flushes through handles that may write.
        Handle = Nodes_.OpenHandle(Which, FILE_WRITE_DATA);
    }
    if (!Handle) {
        const Remote::Asked ToFlush = {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_DATA,
                                       .Options = FILE_NON_DIRECTORY_FILE};
        if (const int Error = OpenNode(Which, ToFlush, &Handle); Error != 0) {
            return Error;
        }
    }
    if (const int Error = Handle->Flush(); Error != 0) {
        return Error;
    }
    fuse_reply_err(Request, 0);
    return 0;
}

// Space can be had by writing only: what of the range is beyond the end is written with zeros.
int FileSystem::Allocate(fuse_req_t Request, fuse_ino_t, int Mode, off_t Offset, off_t Length, fuse_file_info *File) {
    if (Mode != 0) {
        return EOPNOTSUPP;
    }
    Remote &Handle = *FileOf(File).Handle;
    Facts Found;
    if (const int Error = Handle.Query(&Found); Error != 0) {
        return Error;
    }
    char *Zeros = TransferBuffer(LargestTransfer);
    memset(Zeros, 0, LargestTransfer);
    ++Changes_;
    constexpr int64_t LongAllocation = int64_t{4} << 30; // which a signal ends
    const int64_t Begun = std::max<int64_t>(Found.Size, Offset);
    const RequestRings::Away Away;
    for (int64_t At = Begun; At < Offset + Length;) {
        const auto Part = std::min<uint64_t>(LargestTransfer, static_cast<uint64_t>(Offset + Length - At));
        size_t Done = 0;
        const bool GivenUp = At - Begun >= LongAllocation && fuse_req_interrupted(Request) != 0;
        const int Error = GivenUp ? EINTR : Handle.Write(static_cast<ULONG64>(At), Zeros, Part, false, &Done);
        if (Error != 0) {
            Handle.SetSize(static_cast<ULONG64>(Found.Size)); // as it was: nothing half allocated
            return Error;
        }
        At += static_cast<int64_t>(Done);
    }
    ++Changes_;
    fuse_reply_err(Request, 0);
    return 0;
}

// ---- Locks ------------------------------------------------------------------------------------------------------

namespace {

LockRange RangeOf(const struct flock &Lock, uint64_t Owner) {
    const auto First = static_cast<uint64_t>(Lock.l_start);
    return {First, Lock.l_len == 0 ? uint64_t{INT64_MAX} : First + static_cast<uint64_t>(Lock.l_len) - 1,
            Lock.l_type == F_WRLCK, Owner, Lock.l_pid};
}

} // namespace

NodeLocks::Opener FileSystem::LockOpener(Node *Which) {
    return [this, Which](std::shared_ptr<Remote> *Handle) {
        Remote::Asked Both = {.Access = FILE_READ_ATTRIBUTES | FILE_READ_DATA | FILE_WRITE_DATA,
                              .Options = FILE_NON_DIRECTORY_FILE};
        const int Error = OpenNode(Which, Both, Handle);
        Both.Access = FILE_READ_ATTRIBUTES | FILE_READ_DATA;
        return Error == EACCES ? OpenNode(Which, Both, Handle) : Error;
    };
}

int FileSystem::GetLock(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File, struct flock *Lock) {
    if (!Options_.Locks) {
        return ENOLCK;
    }
    Node *Which = NodeOf(Inode);
    const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(Which, true);
    LockRange Found;
    struct flock Answer = *Lock;
    Answer.l_type = F_UNLCK;
    if (Locks && Locks->Conflict(RangeOf(*Lock, File->lock_owner), LockOpener(Which), &Found)) {
        Answer.l_type = Found.Exclusive ? F_WRLCK : F_RDLCK;
        Answer.l_start = static_cast<off_t>(Found.First);
        Answer.l_len = Found.Last == INT64_MAX ? 0 : static_cast<off_t>(Found.Last - Found.First + 1);
        Answer.l_pid = Found.Process;
    }
    fuse_reply_lock(Request, &Answer);
    return 0;
}

// Request is no more than a name here: it may have been answered.
void FileSystem::Interrupted(fuse_req_t Request, void *Self) {
    auto &Owner = *static_cast<FileSystem *>(Self);
    std::shared_ptr<NodeLocks> Locks;
    {
        const std::lock_guard Hold(Owner.WaitLock_);
        if (const auto At = Owner.Waits_.find(Request); At != Owner.Waits_.end()) {
            At->second.Interrupted = true;
            Locks = At->second.Locks;
        }
    }
    if (Locks) {
        Locks->Cancel(Request);
    }
}

// The request is answered when the lock is had, or when the program is interrupted; its worker goes on meanwhile.
void FileSystem::Wait(fuse_req_t Request, Node *Which, const LockRange &Wanted) {
    const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(Which, true);
    {
        const std::lock_guard Hold(WaitLock_);
        Waits_[Request] = {Locks};
    }
    fuse_req_interrupt_func(Request, Interrupted, this);
    Locks->LockWaiting(Wanted, LockOpener(Which), Request, [this, Request](int Error) {
        {
            const std::lock_guard Hold(WaitLock_);
            Waits_.erase(Request);
        }
        fuse_reply_err(Request, Error);
    });
    bool Early = false;
    {
        const std::lock_guard Hold(WaitLock_);
        const auto At = Waits_.find(Request);
        Early = At != Waits_.end() && At->second.Interrupted;
    }
    if (Early) {
        Locks->Cancel(Request);
    }
    Spellings_->Wake();
}

int FileSystem::SetLock(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File, struct flock *Lock, int Sleep) {
    if (!Options_.Locks) {
        return ENOLCK;
    }
    Node *Which = NodeOf(Inode);
    const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(Which, true);
    const LockRange Wanted = RangeOf(*Lock, File->lock_owner);
    if (Lock->l_type == F_UNLCK) {
        Locks->Unlock(Wanted);
        fuse_reply_err(Request, 0);
        return 0;
    }
    if (FileOf(File).ClosesUntold) {
        // What it locks goes when it is released.
        const std::lock_guard Hold(FileOf(File).OwnersLock);
        FileOf(File).Owners.insert(File->lock_owner);
    }
    const int Error = Locks->Lock(Wanted, LockOpener(Which));
    if (Error == EAGAIN && Sleep) {
        Wait(Request, Which, Wanted);
        return 0;
    }
    if (Error == 0) {
        fuse_reply_err(Request, 0);
    }
    return Error;
}

int FileSystem::WholeFileLock(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File, int Operation) {
    if (!Options_.Locks) {
        return ENOLCK;
    }
    Node *Which = NodeOf(Inode);
    const std::shared_ptr<NodeLocks> Locks = Nodes_.LocksOf(Which, true);
    LockRange Wanted;
    Wanted.Owner = File->lock_owner;
    Wanted.WholeFile = true;
    Wanted.Exclusive = (Operation & LOCK_EX) != 0;
    if ((Operation & LOCK_UN) != 0) {
        Locks->Unlock(Wanted);
        fuse_reply_err(Request, 0);
        return 0;
    }
    const int Error = Locks->Lock(Wanted, LockOpener(Which));
    if (Error == EAGAIN && (Operation & LOCK_NB) == 0) {
        Wait(Request, Which, Wanted);
        return 0;
    }
    if (Error == 0) {
        fuse_reply_err(Request, 0);
    }
    return Error;
}

} // namespace app::mount
