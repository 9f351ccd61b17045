#include "providers/directory/range_locks.h"

#include <algorithm>
#include <cerrno>

#include "providers/directory/system_calls.h"

namespace providers::directory {
namespace {

// Bytes that no file has stand for what an open denies: reading, writing, deleting.
constexpr off_t DeniedAt = 0x7FFFFFFFFFFFFF00;
constexpr unsigned Kinds = 3;

struct flock Range(short Type, off_t First, off_t Length) {
    struct flock Lock {};
    Lock.l_type = Type;
    Lock.l_whence = SEEK_SET;
    Lock.l_start = First;
    Lock.l_len = Length;
    return Lock;
}

int Set(int Fd, short Type, off_t First, off_t Length) {
    struct flock Lock = Range(Type, First, Length);
    while (LockDescription(Fd, F_OFD_SETLK, Lock) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

} // namespace

RVSTATUS SetRange(int Fd, RangeLock Kind, ULONG64 Offset, ULONG64 Length) {
    if (Fd < 0 || Length == 0 || Offset >= static_cast<ULONG64>(DeniedAt)) {
        return RVSTATUS::Success;
    }
    const auto First = static_cast<off_t>(Offset);
    const auto Count = static_cast<off_t>(std::min(Length, static_cast<ULONG64>(DeniedAt) - Offset));
    if (Kind == RangeLock::None) {
        Set(Fd, F_UNLCK, First, Count); // of a descriptor without locks it fails, and there is nothing to give back
        return RVSTATUS::Success;
    }
    const bool Exclusive = Kind == RangeLock::Exclusive;
    int Error = Set(Fd, Exclusive ? F_WRLCK : F_RDLCK, First, Count);
    if (Error == EBADF) {
        Error = Set(Fd, Exclusive ? F_RDLCK : F_WRLCK, First, Count);
    }
    return Error == EAGAIN || Error == EACCES ? Failure(CODE_LOCK_NOT_GRANTED) : RVSTATUS::Success;
}

RVSTATUS NoteShares(int Fd, ULONG &Noted, ULONG Access, ULONG ShareMode) {
    if (Fd < 0) {
        return RVSTATUS::Success;
    }
    for (unsigned Kind = 0; Kind < Kinds; ++Kind) {
        const ULONG Bit = 1u << Kind;
        const short Type = (ShareMode & Bit) == 0 ? F_RDLCK : F_UNLCK;
        if (((Noted ^ ShareMode) & Bit) != 0 && Set(Fd, Type, DeniedAt + Kind, 1) == 0) {
            Noted ^= Bit;
        }
    }
    // Nearly always nothing is denied, and one question tells.
    struct flock Any = Range(F_WRLCK, DeniedAt, Kinds);
    if (LockDescription(Fd, F_OFD_GETLK, Any) != 0 || Any.l_type == F_UNLCK) {
        return RVSTATUS::Success;
    }
    for (unsigned Kind = 0; Kind < Kinds; ++Kind) {
        struct flock Other = Range(F_WRLCK, DeniedAt + Kind, 1);
        // A program's own lock of the whole file denies nothing.
        if ((Access & (1u << Kind)) != 0 && LockDescription(Fd, F_OFD_GETLK, Other) == 0 && Other.l_type == F_RDLCK &&
            Other.l_start >= DeniedAt && Other.l_len > 0 && Other.l_len <= Kinds) {
            return Failure(CODE_SHARING_VIOLATION);
        }
    }
    return RVSTATUS::Success;
}

} // namespace providers::directory
