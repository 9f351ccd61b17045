#include "providers/directory/metadata.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "providers/directory/record_memory.h"

namespace providers::directory {
namespace {

constexpr char RecordName[] = "user.rvfsd.attributes";
constexpr LONG64 UnitsPerSecond = 10'000'000;
constexpr LONG64 SecondsFrom1601 = 11'644'473'600;
constexpr ULONG Kept = RV_ATTR_SETTABLE;

// The extended attribute's value.
struct Record {
    uint32_t Version = 1;
    uint32_t Attributes = 0;
    uint32_t WriteBits = 0; // write permissions that READONLY took away
    uint32_t HasCreation = 0;
    int64_t Creation = 0;

    bool operator==(const Record &) const = default;
};
static_assert(sizeof(Record) == 24);

// A descriptor's link: leads to the open object itself and serves O_PATH descriptors too.
class LinkOf {
public:
    explicit LinkOf(int Fd) {
        *std::to_chars(Text_ + strlen(Text_), std::end(Text_) - 1, Fd).ptr = 0;
    }
    const char *c_str() const {
        return Text_;
    }

private:
    char Text_[32] = "/proc/self/fd/";
};

// A time beyond what the platform can say becomes the nearest that it can.
LONG64 UnitsOf(int64_t Seconds, uint32_t Nanoseconds) {
    if (Seconds < -SecondsFrom1601) {
        return 0;
    }
    if (Seconds >= INT64_MAX / UnitsPerSecond - SecondsFrom1601) {
        return INT64_MAX;
    }
    return (Seconds + SecondsFrom1601) * UnitsPerSecond + Nanoseconds / 100;
}

timespec TimespecOf(LONG64 Units) {
    return {static_cast<time_t>(Units / UnitsPerSecond - SecondsFrom1601),
            static_cast<long>(Units % UnitsPerSecond * 100)};
}

void Parse(const void *Value, ssize_t Size, Record &Out) {
    Record Read;
    if (Size == sizeof Read) {
        memcpy(&Read, Value, sizeof Read);
        if (Read.Version == 1) {
            Out = Read;
        }
    }
}

// The record of the entry Name of the directory Fd, or of a link itself; its size alone when Size is 0. By the kernel's
// own call where there is one.
ssize_t CallForEntryRecord(int Fd, const char *Name, void *Value, size_t Size) {
    struct {
        uint64_t Value;
        uint32_t Size;
        uint32_t Flags;
    } Arguments = {reinterpret_cast<uint64_t>(Value), static_cast<uint32_t>(Size), 0};
    constexpr long GetXAttrAt = 464;
    static std::atomic<bool> Missing = false;
    if (!Missing.load(std::memory_order_relaxed)) {
        const long Read = syscall(GetXAttrAt, Fd, Name, AT_SYMLINK_NOFOLLOW, RecordName, &Arguments, sizeof Arguments);
        if (Read >= 0 || errno != ENOSYS) {
            return Read;
        }
        Missing = true;
    }
    return lgetxattr(fmt::format("/proc/self/fd/{}/{}", Fd, Name).c_str(), RecordName, Value, Size);
}

// As above with Size above 0. Among entries that have none it is cheaper to ask whether there is one: the kernel makes
// no room for it.
ssize_t ReadEntryRecord(int Fd, const char *Name, void *Value, size_t Size) {
    constexpr unsigned Several = 16;
    static thread_local unsigned Without = 0; // the last ones
    if (Without >= Several) {
        if (const ssize_t Found = CallForEntryRecord(Fd, Name, nullptr, 0); Found <= 0) {
            return Found;
        }
    }
    const ssize_t Read = CallForEntryRecord(Fd, Name, Value, Size);
    Without = Read > 0 ? 0 : Without + 1;
    return Read;
}

// An object without the record, or on a file system that keeps none, has the default one.
Record ReadRecord(int Fd) {
    Record Out;
    char Value[sizeof(Record)];
    Parse(Value, getxattr(LinkOf(Fd).c_str(), RecordName, Value, sizeof Value), Out);
    return Out;
}

// The record of the object that was last changed at that time, in nanoseconds: as it is remembered, or as
// Read(value, size) reads it.
template <class Reader>
Record RecordOf(const ObjectKey &Key, int64_t Changed, Reader Read) {
    Record Out;
    if (KeptAttributes Known; Recall(Key, Changed, Known)) {
        Out.Attributes = Known.Attributes;
        Out.WriteBits = Known.WriteBits;
        Out.HasCreation = Known.HasCreation ? 1 : 0;
        Out.Creation = Known.Creation;
        return Out;
    }
    char Value[sizeof(Record)];
    const int64_t Began = TimeOfReading();
    const ssize_t Size = Read(Value, sizeof Value);
    const bool Told = Size >= 0 || errno == ENODATA || errno == EOPNOTSUPP;
    Parse(Value, Size, Out);
    if (Told) {
        Remember(Key, Changed, Began, {Out.Attributes, Out.WriteBits, Out.HasCreation != 0, Out.Creation});
    }
    return Out;
}

template <class Reader>
Record RecordOf(const struct statx &Stat, Reader Read) {
    return RecordOf({makedev(Stat.stx_dev_major, Stat.stx_dev_minor), Stat.stx_ino},
                    Stat.stx_ctime.tv_sec * 1'000'000'000 + Stat.stx_ctime.tv_nsec, Read);
}

int WriteRecord(int Fd, const Record &Value) {
    const LinkOf Link(Fd);
    if (Value == Record{}) {
        return removexattr(Link.c_str(), RecordName) == 0 || errno == ENODATA || errno == EOPNOTSUPP ? 0 : errno;
    }
    return setxattr(Link.c_str(), RecordName, &Value, sizeof Value, 0) == 0 ? 0 : errno;
}

// The kernel wants write permission for the record; a read-only file of ours gets it for that moment.
int WriteRecordAnyway(int Fd, mode_t Mode, const Record &Value) {
    const int Error = WriteRecord(Fd, Value);
    if (Error != EACCES || !IsReadOnlyMode(Mode) || chmod(LinkOf(Fd).c_str(), (Mode & 07777) | S_IWUSR) != 0) {
        return Error;
    }
    const int Second = WriteRecord(Fd, Value);
    return chmod(LinkOf(Fd).c_str(), Mode & 07777) == 0 || Second != 0 ? Second : errno;
}

void Fill(const struct statx &Stat, const Record &Own, Metadata &Out) {
    const bool Directory = S_ISDIR(Stat.stx_mode);
    Out.Attributes = Own.Attributes & RV_ATTR_SETTABLE;
    if (Directory) {
        Out.Attributes |= RV_ATTR_DIRECTORY;
    } else {
        Out.Attributes &= ~static_cast<ULONG>(RV_ATTR_READONLY);
        Out.Attributes |= IsReadOnlyMode(Stat.stx_mode) ? RV_ATTR_READONLY : 0u;
    }
    Out.LastWrite = UnitsOf(Stat.stx_mtime.tv_sec, Stat.stx_mtime.tv_nsec);
    Out.LastAccess = UnitsOf(Stat.stx_atime.tv_sec, Stat.stx_atime.tv_nsec);
    const LONG64 Born =
        (Stat.stx_mask & STATX_BTIME) != 0 ? UnitsOf(Stat.stx_btime.tv_sec, Stat.stx_btime.tv_nsec) : Out.LastWrite;
    Out.Creation = Own.HasCreation != 0 ? Own.Creation : Born;
    Out.EndOfFile = Directory ? 0 : Stat.stx_size;
    Out.Allocated = Stat.stx_blocks * 512;
    Out.Key = {makedev(Stat.stx_dev_major, Stat.stx_dev_minor), Stat.stx_ino};
    Out.Mode = Stat.stx_mode;
    Out.Owner = Stat.stx_uid;
    Out.Links = Stat.stx_nlink;
}

bool Changes(const LONG64 *Time) {
    return Time != nullptr && *Time != 0 && *Time != -1;
}

// Clears or gives back the write permissions of a file, remembering in the record what was taken.
int ChangeReadOnly(int Fd, mode_t Mode, bool ReadOnly, Record &Value) {
    if (ReadOnly == IsReadOnlyMode(Mode)) {
        return 0;
    }
    mode_t Wanted = Mode & 07555;
    if (ReadOnly) {
        Value.WriteBits = Mode & 0222;
    } else {
        Wanted |= S_IWUSR | (Value.WriteBits & 0222);
        Value.WriteBits = 0;
    }
    return chmod(LinkOf(Fd).c_str(), Wanted) == 0 ? 0 : errno;
}

RVSTATUS ChangeAttributes(int Fd, const MetadataChange &Change, mode_t Mode, Record &Value) {
    const Record Before = Value;
    const bool Directory = S_ISDIR(Mode);
    if (Changes(Change.Creation)) {
        Value.HasCreation = 1;
        Value.Creation = *Change.Creation;
    }
    bool ReadOnly = IsReadOnlyMode(Mode);
    if (Change.Attributes != nullptr) {
        ReadOnly = !Directory && (*Change.Attributes & RV_ATTR_READONLY) != 0;
        Value.Attributes = *Change.Attributes & (Directory ? Kept : Kept & ~static_cast<ULONG>(RV_ATTR_READONLY));
    }
    // Writing the record needs write permission: take it away last, give it back first.
    if (!Directory && !ReadOnly) {
        if (const int Error = ChangeReadOnly(Fd, Mode, false, Value); Error != 0) {
            return StatusFromErrno(Error);
        }
    }
    const bool Taking = !Directory && ReadOnly && !IsReadOnlyMode(Mode);
    if (Taking) {
        Value.WriteBits = Mode & 0222;
    }
    if (!(Value == Before)) {
        const int Error = WriteRecordAnyway(Fd, Mode, Value);
        // Only what was asked for must be kept; remembered permissions and ARCHIVE are a convenience.
        const bool Needed = (Value.Attributes & ~static_cast<ULONG>(RV_ATTR_ARCHIVE)) != 0 || Changes(Change.Creation);
        if (Error != 0 && (Error != EOPNOTSUPP || Needed)) {
            return StatusFromErrno(Error);
        }
    }
    return Taking ? StatusFromErrno(ChangeReadOnly(Fd, Mode, true, Value)) : RVSTATUS::Success;
}

// Rounding to what a file system keeps is no loss; more is.
bool IsKept(const timespec &Wanted, const timespec &Found) {
    constexpr time_t CoarsestSeconds = 2 * 24 * 60 * 60;
    return Wanted.tv_nsec == UTIME_OMIT || std::abs(Wanted.tv_sec - Found.tv_sec) <= CoarsestSeconds;
}

// The kernel takes a time beyond what the file system can keep for the nearest that it can. That is not what was asked
// for: the file gets its times back.
RVSTATUS ChangeTimes(int Fd, const MetadataChange &Change) {
    const timespec Leave{0, UTIME_OMIT};
    const bool Access = Changes(Change.LastAccess);
    const bool Write = Changes(Change.LastWrite);
    const timespec Wanted[2] = {Access ? TimespecOf(*Change.LastAccess) : Leave,
                                Write ? TimespecOf(*Change.LastWrite) : Leave};
    const LinkOf Link(Fd);
    struct stat Before;
    struct stat After;
    if (fstat(Fd, &Before) != 0 || utimensat(AT_FDCWD, Link.c_str(), Wanted, 0) != 0 || fstat(Fd, &After) != 0) {
        return StatusFromErrno(errno);
    }
    if (IsKept(Wanted[0], After.st_atim) && IsKept(Wanted[1], After.st_mtim)) {
        return RVSTATUS::Success;
    }
    const timespec Old[2] = {Access ? Before.st_atim : Leave, Write ? Before.st_mtim : Leave};
    return utimensat(AT_FDCWD, Link.c_str(), Old, 0) == 0 ? RVSTATUS::InvalidParameter : StatusFromErrno(errno);
}

} // namespace

RVSTATUS ReadStatus(int Fd, struct statx &Out) {
    return statx(Fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &Out) == 0 ? RVSTATUS::Success
                                                                                    : StatusFromErrno(errno);
}

Metadata MetadataOf(int Fd, bool NamesOnly, const struct statx &Stat) {
    const auto Read = [&](void *Value, size_t Size) {
        return NamesOnly ? getxattr(LinkOf(Fd).c_str(), RecordName, Value, Size)
                         : fgetxattr(Fd, RecordName, Value, Size);
    };
    Metadata Out;
    Fill(Stat, RecordOf(Stat, Read), Out);
    return Out;
}

RVSTATUS ReadMetadata(int Fd, bool NamesOnly, Metadata &Out) {
    struct statx Stat;
    const RVSTATUS Status = ReadStatus(Fd, Stat);
    if (!RvIsError(Status)) {
        Out = MetadataOf(Fd, NamesOnly, Stat);
    }
    return Status;
}

RVSTATUS ReadEntryMetadata(int Fd, const char *Name, Metadata &Out) {
    struct statx Stat;
    if (statx(Fd, Name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &Stat) != 0) {
        return StatusFromErrno(errno);
    }
    Record Value;
    if (!S_ISLNK(Stat.stx_mode)) {
        Value = RecordOf(Stat, [&](void *Bytes, size_t Size) { return ReadEntryRecord(Fd, Name, Bytes, Size); });
    }
    Fill(Stat, Value, Out);
    return RVSTATUS::Success;
}

ULONG KeptAttributesOf(int Fd, const char *Name, const struct stat &Stat) {
    const Record Value = RecordOf(KeyOf(Stat), Stat.st_ctim.tv_sec * 1'000'000'000 + Stat.st_ctim.tv_nsec,
                                  [&](void *Bytes, size_t Size) { return ReadEntryRecord(Fd, Name, Bytes, Size); });
    return Value.Attributes & RV_ATTR_SETTABLE;
}

RVSTATUS ChangeMetadata(int Fd, const MetadataChange &Change) {
    for (const LONG64 *Time : {Change.Creation, Change.LastWrite, Change.LastAccess}) {
        if (Changes(Time) && *Time < 0) {
            return RVSTATUS::InvalidParameter;
        }
    }
    if (Changes(Change.LastWrite) || Changes(Change.LastAccess)) {
        if (const RVSTATUS Status = ChangeTimes(Fd, Change); RvIsError(Status)) {
            return Status;
        }
    }
    if (Change.Attributes == nullptr && !Changes(Change.Creation)) {
        return RVSTATUS::Success;
    }
    struct stat Stat;
    if (fstat(Fd, &Stat) != 0) {
        return StatusFromErrno(errno);
    }
    Record Value = ReadRecord(Fd);
    const RVSTATUS Status = ChangeAttributes(Fd, Change, Stat.st_mode, Value);
    Forget(KeyOf(Stat));
    return Status;
}

} // namespace providers::directory
