#include "app/mount/remote.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "app/mount/status_errno.h"
#include "embedded/io/io.h"
#include "providers/failures/failures.h"

namespace app::mount {

namespace {

using providers::Failures;

constexpr size_t LargestTransfer = 1 << 20;
constexpr ULONG ListBytes = 1 << 16;

// Creates hide what the server said behind a few statuses of their own: a new file that it refuses for whatever reason
// "exists", any other "is not there", also when the server does not answer for its name. What the Provider's last
// refusal in this thread was is the truth then, unless it tells no more than what was looked for on the way: that
// something is missing, or of the other kind.
int ErrnoOfCreate(NTSTATUS Status, ULONG Disposition) {
    const int Told = ErrnoOf(Status);
    if (Told != (Disposition == FILE_CREATE ? EEXIST : ENOENT)) {
        return Told;
    }
    const int Behind = ErrnoOfProvider(Failures::Last());
    const bool OnTheWay = Behind == 0 || Behind == ENOENT || Behind == EISDIR || Behind == ENOTDIR || Behind == EEXIST;
    return OnTheWay ? Told : Behind;
}

struct NetworkOpen {
    LARGE_INTEGER CreationTime, LastAccessTime, LastWriteTime, ChangeTime, AllocationSize, EndOfFile;
    ULONG FileAttributes, Reserved;
};
static_assert(sizeof(NetworkOpen) == 56);

template <typename T>
T At(const UCHAR *Record, size_t Offset) {
    T Value;
    memcpy(&Value, Record + Offset, sizeof(Value));
    return Value;
}

} // namespace

Remote::~Remote() {
    Close();
}

int Remote::Open(const std::u16string &Path, const Asked &What) {
    Close();
    std::u16string Name;
    Name.reserve(7 + Path.size());
    Name.append(u"\\??\\UNC").append(Path);
    if (Name.size() > 0x7FFE) {
        return ENAMETOOLONG;
    }
    const auto Bytes = static_cast<USHORT>(Name.size() * sizeof(WCHAR));
    UNICODE_STRING ObjectName = {Bytes, Bytes, Name.data()};
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &ObjectName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    embedded::CreateParameters Parameters;
    Parameters.ObjectAttributes = &Attributes;
    Parameters.DesiredAccess = What.Access | SYNCHRONIZE;
    Parameters.FileAttributes = What.Attributes;
    Parameters.ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    Parameters.Disposition = What.Disposition;
    Parameters.Options = What.Options | FILE_SYNCHRONOUS_IO_NONALERT;
    Failures::Forget();
    const embedded::CreateResult Result = embedded::CreateFile(Parameters);
    if (!NT_SUCCESS(Result.Status)) {
        return ErrnoOfCreate(Result.Status, What.Disposition);
    }
    Handle_ = Result.Handle;
    Access_ = What.Access;
    return 0;
}

int Remote::Close() {
    const HANDLE Handle = std::exchange(Handle_, nullptr);
    return Handle == nullptr ? 0 : ErrnoOf(embedded::CloseHandleTelling(Handle));
}

int Remote::Query(Facts *Found) {
    NetworkOpen Answer = {};
    IO_STATUS_BLOCK IoStatus = {};
    Failures::Forget();
    const NTSTATUS Status =
        NtQueryInformationFile(Handle_, &IoStatus, &Answer, sizeof(Answer), FileNetworkOpenInformation);
    if (!NT_SUCCESS(Status)) {
        return ErrnoOf(Status);
    }
    *Found = {Answer.CreationTime.QuadPart, Answer.LastAccessTime.QuadPart, Answer.LastWriteTime.QuadPart,
              Answer.EndOfFile.QuadPart, Answer.FileAttributes};
    if (Found->Creation != 0 || Found->LastAccess != 0 || Found->LastWrite != 0) {
        return 0;
    }
    for (const char *Operation : {"RVFsdGetFileInformation", "RVFsdGetDirectoryInformation"}) {
        if (const RVSTATUS Behind = Failures::Last(Operation); RvIsError(Behind)) {
            return ErrnoOfProvider(Behind);
        }
    }
    return EIO;
}

int Remote::Read(ULONG64 Offset, void *Buffer, size_t Length, size_t *Done) {
    for (*Done = 0; *Done < Length;) {
        IO_STATUS_BLOCK IoStatus = {};
        LARGE_INTEGER Start;
        Start.QuadPart = static_cast<LONG64>(Offset + *Done);
        const size_t Part = std::min(Length - *Done, LargestTransfer);
        const NTSTATUS Status =
            NtReadFile(Handle_, nullptr, nullptr, nullptr, &IoStatus, static_cast<char *>(Buffer) + *Done,
                       static_cast<ULONG>(Part), &Start, nullptr);
        if (Status == STATUS_END_OF_FILE) {
            return 0;
        }
        if (!NT_SUCCESS(Status)) {
            return *Done != 0 ? 0 : ErrnoOf(Status);
        }
        *Done += IoStatus.Information;
        if (IoStatus.Information < Part) {
            return 0;
        }
    }
    return 0;
}

int Remote::Write(ULONG64 Offset, const void *Buffer, size_t Length, bool AtEnd, size_t *Done) {
    for (*Done = 0; *Done < Length;) {
        IO_STATUS_BLOCK IoStatus = {};
        LARGE_INTEGER Start;
        Start.QuadPart = AtEnd ? -1 : static_cast<LONG64>(Offset + *Done);
        const size_t Part = std::min(Length - *Done, LargestTransfer);
        const NTSTATUS Status = NtWriteFile(Handle_, nullptr, nullptr, nullptr, &IoStatus,
                                            const_cast<char *>(static_cast<const char *>(Buffer)) + *Done,
                                            static_cast<ULONG>(Part), &Start, nullptr);
        if (!NT_SUCCESS(Status)) {
            return *Done != 0 ? 0 : ErrnoOf(Status);
        }
        if (IoStatus.Information == 0) {
            return *Done != 0 ? 0 : ENOSPC;
        }
        *Done += IoStatus.Information;
    }
    return 0;
}

int Remote::Flush() {
    IO_STATUS_BLOCK IoStatus = {};
    return ErrnoOf(NtFlushBuffersFile(Handle_, &IoStatus));
}

int Remote::SetSize(ULONG64 Size) {
    IO_STATUS_BLOCK IoStatus = {};
    return ErrnoOf(NtSetInformationFile(Handle_, &IoStatus, &Size, sizeof(Size), FileEndOfFileInformation));
}

int Remote::SetBasic(LONG64 LastAccess, LONG64 LastWrite, ULONG Attributes) {
    FILE_BASIC_INFORMATION Record = {};
    Record.LastAccessTime.QuadPart = LastAccess;
    Record.LastWriteTime.QuadPart = LastWrite;
    Record.FileAttributes = Attributes;
    IO_STATUS_BLOCK IoStatus = {};
    return ErrnoOf(NtSetInformationFile(Handle_, &IoStatus, &Record, sizeof(Record), FileBasicInformation));
}

int Remote::SetReadOnly(const Facts &Now, bool ReadOnly) {
    ULONG Wanted = Now.Attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE);
    Wanted |= ReadOnly ? FILE_ATTRIBUTE_READONLY : 0;
    return SetBasic(0, 0, Wanted != 0 ? Wanted : FILE_ATTRIBUTE_NORMAL); // 0 would leave them as they are
}

int Remote::SetDelete(bool Delete) {
    UCHAR Value = Delete ? 1 : 0;
    IO_STATUS_BLOCK IoStatus = {};
    return ErrnoOf(NtSetInformationFile(Handle_, &IoStatus, &Value, sizeof(Value), FileDispositionInformation));
}

int Remote::Rename(const std::u16string &NewPath, bool Replace) {
    const std::u16string Target = u"\\??\\UNC" + NewPath;
    if (Target.size() > 0x7FFE) {
        return ENAMETOOLONG;
    }
    // Replace at 0, root directory at 8, length of the name at 16, the name at 20.
    constexpr size_t NameOffset = 20;
    const auto NameBytes = static_cast<ULONG>(Target.size() * sizeof(WCHAR));
    std::vector<UCHAR> Record(std::max<size_t>(NameOffset + NameBytes, 24));
    Record[0] = Replace ? 1 : 0;
    memcpy(Record.data() + 16, &NameBytes, sizeof(NameBytes));
    memcpy(Record.data() + NameOffset, Target.data(), NameBytes);
    IO_STATUS_BLOCK IoStatus = {};
    return ErrnoOf(NtSetInformationFile(Handle_, &IoStatus, Record.data(), static_cast<ULONG>(Record.size()),
                                        FileRenameInformation));
}

int Remote::Lock(ULONG64 Offset, ULONG64 Length, bool Exclusive) {
    LARGE_INTEGER Start, Size;
    Start.QuadPart = static_cast<LONG64>(Offset);
    Size.QuadPart = static_cast<LONG64>(Length);
    IO_STATUS_BLOCK IoStatus = {};
    return ErrnoOf(
        NtLockFile(Handle_, nullptr, nullptr, nullptr, &IoStatus, &Start, &Size, 1, TRUE, Exclusive ? TRUE : FALSE));
}

int Remote::Unlock(ULONG64 Offset, ULONG64 Length) {
    LARGE_INTEGER Start, Size;
    Start.QuadPart = static_cast<LONG64>(Offset);
    Size.QuadPart = static_cast<LONG64>(Length);
    IO_STATUS_BLOCK IoStatus = {};
    return ErrnoOf(NtUnlockFile(Handle_, &IoStatus, &Start, &Size, 1));
}

int Remote::QuerySpace(Space *Found) {
    struct {
        LARGE_INTEGER Total, Available, Free;
        ULONG SectorsPerUnit, BytesPerSector;
    } Answer = {};
    IO_STATUS_BLOCK IoStatus = {};
    const NTSTATUS Status =
        NtQueryVolumeInformationFile(Handle_, &IoStatus, &Answer, sizeof(Answer), FileFsFullSizeInformation);
    if (!NT_SUCCESS(Status)) {
        return ErrnoOf(Status);
    }
    *Found = {static_cast<ULONG64>(Answer.SectorsPerUnit) * Answer.BytesPerSector,
              static_cast<ULONG64>(Answer.Total.QuadPart), static_cast<ULONG64>(Answer.Free.QuadPart),
              static_cast<ULONG64>(Answer.Available.QuadPart)};
    return 0;
}

int Remote::List(const std::function<void(std::u16string_view, const Facts &)> &Each) {
    constexpr size_t NameAt = 64;
    std::vector<UCHAR> Buffer(ListBytes);
    for (bool Restart = true;; Restart = false) {
        IO_STATUS_BLOCK IoStatus = {};
        // The driver ends a listing at an error of the Provider as at its end: only the Provider's own end is one.
        Failures::Forget();
        const NTSTATUS Status = NtQueryDirectoryFile(Handle_, nullptr, nullptr, nullptr, &IoStatus, Buffer.data(),
                                                     ListBytes, FileDirectoryInformation, FALSE, nullptr, Restart);
        const RVSTATUS Behind = Failures::Last("RVFsdEnumerateDirectory");
        if (RvIsError(Behind) && ErrnoOfProvider(Behind) != ENOENT) {
            return ErrnoOfProvider(Behind);
        }
        if (Status == STATUS_NO_MORE_FILES || (Restart && Status == STATUS_NO_SUCH_FILE)) {
            return 0;
        }
        if (!NT_SUCCESS(Status)) {
            return ErrnoOf(Status);
        }
        for (size_t Next = 0; Next + NameAt <= IoStatus.Information;) {
            const UCHAR *Record = Buffer.data() + Next;
            const std::u16string_view Name(reinterpret_cast<const char16_t *>(Record + NameAt),
                                           At<ULONG>(Record, 60) / sizeof(char16_t));
            if (Name != u"." && Name != u"..") {
                Each(Name, {At<LONG64>(Record, 8), At<LONG64>(Record, 16), At<LONG64>(Record, 24),
                            At<LONG64>(Record, 40), At<ULONG>(Record, 56)});
            }
            if (At<ULONG>(Record, 0) == 0) {
                break;
            }
            Next += At<ULONG>(Record, 0);
        }
    }
}

} // namespace app::mount
