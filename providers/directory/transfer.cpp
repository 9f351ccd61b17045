// What is done with an open file: data, size, flush, locks and information. Slots 23 to 25, 28 to 32 and 34.
#include <algorithm>
#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

#include "providers/directory/last_look.h"
#include "providers/directory/state.h"

namespace providers::directory {
namespace {

using State = DirectoryProvider::State;
using Sec = RV_SECURITY_CONTEXT *;

// The most that the kernel moves in one call.
constexpr ULONG64 MaxTransfer = 0x7FFFF000;
constexpr ULONG64 MaxOffset = INT64_MAX;
constexpr ULONG ReadData = RV_ACCESS_READ | RV_ACCESS_EXECUTE;

// Runs Operation on the open file of a handle.
template <class Body>
RVSTATUS WithFile(RVIOM_FSD *Self, RVHANDLE Handle, Body Operation) {
    return Guarded([&] {
        const auto Found = State::Of(Self).Open.Acquire(Handle, KIND_FILE);
        if (!Found) {
            return RVSTATUS::InvalidHandle;
        }
        auto &File = static_cast<FileObject &>(*Found);
        const RVSTATUS Status = File.NeedDescriptor();
        return RvIsError(Status) ? Status : Operation(File);
    });
}

bool ValidRange(const LONG64 *Offset, ULONG64 Length) {
    return Offset != nullptr && *Offset >= 0 && Length <= MaxOffset - static_cast<ULONG64>(*Offset);
}

RVSTATUS NTAPI ReadFile(RVIOM_FSD *Self, Sec, RVHANDLE Handle, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
                        ULONG64 *Bytes) {
    return WithFile(Self, Handle, [&](FileObject &File) {
        Store(Bytes, 0u);
        if (!ValidRange(ByteOffset, Length) || (Buffer == nullptr && Length != 0)) {
            return RVSTATUS::InvalidParameter;
        }
        if ((File.Access.load(std::memory_order_relaxed) & ReadData) == 0) {
            return RVSTATUS::AccessDenied;
        }
        const auto Start = static_cast<ULONG64>(*ByteOffset);
        if (File.Volume->Options.EnforceLocks) {
            if (const RVSTATUS Status = File.Node->CheckTransfer(&File, false, Start, Length); RvIsError(Status)) {
                return Status;
            }
        }
        ULONG64 Done = 0;
        while (Done < Length) {
            const size_t Part = std::min(Length - Done, MaxTransfer);
            const ssize_t Count =
                pread(File.Fd(), static_cast<UCHAR *>(Buffer) + Done, Part, static_cast<off_t>(Start + Done));
            if (Count < 0 && errno == EINTR) {
                continue;
            }
            if (Count < 0) {
                return StatusFromErrno(errno);
            }
            Done += static_cast<ULONG64>(Count);
            if (static_cast<size_t>(Count) < Part) {
                break; // the end of the file
            }
        }
        Store(Bytes, Done);
        return RVSTATUS::Success;
    });
}

RVSTATUS WriteAll(const FileObject &File, ULONG64 Start, const UCHAR *Data, ULONG64 Length, ULONG64 &Done) {
    for (Done = 0; Done < Length;) {
        const ssize_t Count =
            pwrite(File.Fd(), Data + Done, std::min(Length - Done, MaxTransfer), static_cast<off_t>(Start + Done));
        if (Count < 0 && errno == EINTR) {
            continue;
        }
        if (Count <= 0) {
            return Count == 0 ? Failure(0x0509) : StatusFromErrno(errno);
        }
        Done += static_cast<ULONG64>(Count);
    }
    return RVSTATUS::Success;
}

RVSTATUS SetSize(const FileObject &File, ULONG64 Size) {
    while (ftruncate(File.Fd(), static_cast<off_t>(Size)) != 0) {
        if (errno != EINTR) {
            return StatusFromErrno(errno);
        }
    }
    return RVSTATUS::Success;
}

// Runs a change of the file that may leave it with size End, charging what it grows by.
template <class Body>
RVSTATUS WithQuota(const FileObject &File, ULONG64 End, bool MayShrink, Body Change) {
    if (File.Volume->Options.QuotaBytes == 0) {
        return Change();
    }
    const std::lock_guard Hold(File.Node->SizeMutex());
    struct stat Before;
    struct stat After;
    if (fstat(File.Fd(), &Before) != 0) {
        return StatusFromErrno(errno);
    }
    const int64_t Growth = static_cast<int64_t>(End) - Before.st_size;
    const int64_t Charged = Growth > 0 || MayShrink ? Growth : 0;
    if (const RVSTATUS Status = File.Volume->Charge(Charged); RvIsError(Status)) {
        return Status;
    }
    const RVSTATUS Status = Change();
    // What the change did not do is given back.
    if (fstat(File.Fd(), &After) == 0) {
        static_cast<void>(File.Volume->Charge(After.st_size - Before.st_size - Charged));
    }
    return Status;
}

RVSTATUS NTAPI WriteFile(RVIOM_FSD *Self, Sec, RVHANDLE Handle, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
                         ULONG64 *Bytes) {
    return WithFile(Self, Handle, [&](FileObject &File) {
        Store(Bytes, 0u);
        if (!ValidRange(ByteOffset, Length) || (Buffer == nullptr && Length != 0)) {
            return RVSTATUS::InvalidParameter;
        }
        if ((File.Access.load(std::memory_order_relaxed) & RV_ACCESS_WRITE) == 0) {
            return RVSTATUS::AccessDenied;
        }
        const auto Start = static_cast<ULONG64>(*ByteOffset);
        if (Length == 0) {
            const RVSTATUS Status = Buffer != nullptr
                                        ? RVSTATUS::Success
                                        : WithQuota(File, Start, true, [&] { return SetSize(File, Start); });
            File.Node->NoteWrite();
            return Status;
        }
        if (File.Volume->Options.EnforceLocks) {
            if (const RVSTATUS Status = File.Node->CheckTransfer(&File, true, Start, Length); RvIsError(Status)) {
                return Status;
            }
        }
        ULONG64 Done = 0;
        const RVSTATUS Status = WithQuota(File, Start + Length, false, [&] {
            return WriteAll(File, Start, static_cast<const UCHAR *>(Buffer), Length, Done);
        });
        File.Node->NoteWrite();
        Store(Bytes, Done);
        return Status;
    });
}

RVSTATUS NTAPI FlushFile(RVIOM_FSD *Self, Sec, RVHANDLE Handle) {
    return WithFile(Self, Handle, [](FileObject &File) {
        // A handle without data access has written nothing that could be flushed.
        if ((File.Access.load() & (ReadData | RV_ACCESS_WRITE)) == 0 || fsync(File.Fd()) == 0) {
            return RVSTATUS::Success;
        }
        return StatusFromErrno(errno);
    });
}

RVSTATUS NTAPI GetFileInformation(RVIOM_FSD *Self, Sec, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation,
                                  LONG64 *LastWrite, LONG64 *LastAccess, ULONG64 *EndOfFile, ULONG64 *Further,
                                  UCHAR *Byte1, UCHAR *Byte2, UCHAR *Byte3, UCHAR *Byte4, UCHAR *Byte5) {
    return WithFile(Self, Handle, [&](FileObject &File) {
        struct statx Now;
        const struct statx *Seen = TakeStatus(File);
        if (Seen == nullptr) {
            if (const RVSTATUS Status = ReadStatus(File.Fd(), Now); RvIsError(Status)) {
                return Status;
            }
            Seen = &Now;
        }
        const Metadata Data = MetadataOf(File.Fd(), File.NamesOnly(), *Seen);
        Store(Attributes, Data.Attributes);
        Store(Creation, Data.Creation);
        Store(LastWrite, Data.LastWrite);
        Store(LastAccess, Data.LastAccess);
        Store(EndOfFile, Data.EndOfFile);
        Store(Further, Data.Allocated);
        for (UCHAR *Byte : {Byte1, Byte2, Byte3, Byte4, Byte5}) {
            Store(Byte, 0u);
        }
        return RVSTATUS::Success;
    });
}

RVSTATUS NTAPI GetBasicFileInformation(RVIOM_FSD *Self, Sec Security, RVHANDLE Handle, ULONG *Attributes,
                                       LONG64 *Creation, LONG64 *LastWrite, LONG64 *LastAccess) {
    return GetFileInformation(Self, Security, Handle, Attributes, Creation, LastWrite, LastAccess, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr, nullptr);
}

RVSTATUS NTAPI GetFileSize(RVIOM_FSD *Self, Sec, RVHANDLE Handle, ULONG64 *EndOfFile) {
    return WithFile(Self, Handle, [&](FileObject &File) {
        struct stat Stat;
        if (fstat(File.Fd(), &Stat) != 0) {
            return StatusFromErrno(errno);
        }
        Store(EndOfFile, Stat.st_size);
        return RVSTATUS::Success;
    });
}

RVSTATUS NTAPI SetFileInformation(RVIOM_FSD *Self, Sec, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation,
                                  LONG64 *LastWrite, LONG64 *LastAccess) {
    return WithFile(Self, Handle, [&](FileObject &File) {
        if (File.Volume->Options.ReadOnly) {
            return RVSTATUS::AccessDenied;
        }
        const AfterChange Count(*File.Volume);
        const RVSTATUS Status = ChangeMetadata(File.Fd(), {Attributes, Creation, LastWrite, LastAccess});
        if (File.Node != nullptr) {
            File.Node->NoteWrite();
        }
        return Status;
    });
}

RVSTATUS NTAPI LockFile(RVIOM_FSD *Self, Sec, RVHANDLE Handle, UCHAR Exclusive, ULONG64 ByteOffset, ULONG64 Length) {
    return WithFile(Self, Handle, [&](FileObject &File) {
        return File.Node == nullptr ? RVSTATUS::AccessDenied
                                    : File.Node->Lock(&File, File.LockFd(), Exclusive != 0, ByteOffset, Length);
    });
}

RVSTATUS NTAPI UnlockFile(RVIOM_FSD *Self, Sec, RVHANDLE Handle, ULONG64 ByteOffset, ULONG64 Length) {
    return WithFile(Self, Handle, [&](FileObject &File) {
        return File.Node == nullptr ? Failure(CODE_RANGE_NOT_LOCKED)
                                    : File.Node->Unlock(&File, File.LockFd(), ByteOffset, Length);
    });
}

} // namespace

void FillTransferSlots(RVIOM_FSD_TABLE &Table) {
    Table.RVFsdReadFile = &ReadFile;
    Table.RVFsdWriteFile = &WriteFile;
    Table.RVFsdFlushFile = &FlushFile;
    Table.RVFsdGetFileInformation = &GetFileInformation;
    Table.RVFsdGetBasicFileInformation = &GetBasicFileInformation;
    Table.RVFsdGetFileSize = &GetFileSize;
    Table.RVFsdSetFileInformation = &SetFileInformation;
    Table.RVFsdLockFile = &LockFile;
    Table.RVFsdUnlockFile = &UnlockFile;
}

} // namespace providers::directory
