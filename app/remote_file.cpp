#include "app/remote_file.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "app/interrupt.h"
#include "app/text.h"
#include "embedded/io/io.h"
#include "frame/status_translation.h"
#include "providers/failures/failures.h"

namespace app {

namespace {

constexpr size_t LargestTransfer = 1 << 20;

UNICODE_STRING Counted(std::u16string_view Text) {
    const auto Bytes = static_cast<USHORT>(Text.size() * sizeof(WCHAR));
    return {Bytes, Bytes, const_cast<PWSTR>(Text.data())};
}

} // namespace

embedded::CreateResult OpenRemote(std::u16string_view Path, const OpenRequest &Request) {
    const std::u16string Name = KernelName(Path);
    if (Name.size() > 0x7FFE) {
        return {STATUS_OBJECT_NAME_INVALID, FILE_DOES_NOT_EXIST, nullptr};
    }
    UNICODE_STRING ObjectName = Counted(Name);
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &ObjectName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    LARGE_INTEGER Allocation;
    Allocation.QuadPart = Request.AllocationSize;
    embedded::CreateParameters Parameters;
    Parameters.ObjectAttributes = &Attributes;
    Parameters.DesiredAccess = Request.Access;
    Parameters.AllocationSize = Request.AllocationSize != 0 ? &Allocation : nullptr;
    Parameters.FileAttributes = Request.Attributes;
    Parameters.ShareAccess = Request.Share;
    Parameters.Disposition = Request.Disposition;
    Parameters.Options = Request.Options;
    return embedded::CreateFile(Parameters);
}

RemoteFile::RemoteFile(std::u16string Path, const OpenRequest &Request) : Path_(std::move(Path)) {
    CheckInterrupt();
    const embedded::CreateResult Result = OpenRemote(Path_, Request);
    if (!NT_SUCCESS(Result.Status)) {
        throw StatusError(Result.Status, ShowPath(Path_));
    }
    Handle_ = Result.Handle;
    Information_ = Result.Information;
}

RemoteFile::RemoteFile(RemoteFile &&Other) noexcept
    : Path_(std::move(Other.Path_)), Handle_(std::exchange(Other.Handle_, nullptr)), Information_(Other.Information_) {
}

RemoteFile::~RemoteFile() {
    if (Handle_ != nullptr) {
        NtClose(Handle_);
    }
}

NTSTATUS RemoteFile::Close() {
    const HANDLE Handle = std::exchange(Handle_, nullptr);
    return Handle != nullptr ? embedded::CloseHandleTelling(Handle) : STATUS_SUCCESS;
}

void RemoteFile::End() {
    const NTSTATUS Status = Close();
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, ShowPath(Path_));
    }
}

size_t RemoteFile::Read(LONG64 Offset, void *Buffer, size_t Length) {
    CheckInterrupt();
    IO_STATUS_BLOCK IoStatus = {};
    LARGE_INTEGER At;
    At.QuadPart = Offset;
    const NTSTATUS Status = NtReadFile(Handle_, nullptr, nullptr, nullptr, &IoStatus, Buffer,
                                       static_cast<ULONG>(std::min(Length, LargestTransfer)), &At, nullptr);
    if (Status == STATUS_END_OF_FILE) {
        return 0;
    }
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, ShowPath(Path_));
    }
    return IoStatus.Information;
}

void RemoteFile::Write(LONG64 Offset, const void *Buffer, size_t Length) {
    auto Bytes = static_cast<const char *>(Buffer);
    while (Length != 0) {
        CheckInterrupt();
        IO_STATUS_BLOCK IoStatus = {};
        LARGE_INTEGER At;
        At.QuadPart = Offset;
        const NTSTATUS Status = NtWriteFile(Handle_, nullptr, nullptr, nullptr, &IoStatus, const_cast<char *>(Bytes),
                                            static_cast<ULONG>(std::min(Length, LargestTransfer)), &At, nullptr);
        if (!NT_SUCCESS(Status)) {
            throw StatusError(Status, ShowPath(Path_));
        }
        if (IoStatus.Information == 0) {
            throw StatusError(STATUS_DISK_FULL, ShowPath(Path_));
        }
        Bytes += IoStatus.Information;
        Length -= IoStatus.Information;
        Offset += static_cast<LONG64>(IoStatus.Information);
    }
}

void RemoteFile::Flush() {
    IO_STATUS_BLOCK IoStatus = {};
    const NTSTATUS Status = NtFlushBuffersFile(Handle_, &IoStatus);
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, ShowPath(Path_));
    }
}

RemoteFile::Answer RemoteFile::Ask(ULONG InfoClass, ULONG Length) {
    Answer Result = {STATUS_UNSUCCESSFUL, 0, std::vector<UCHAR>(Length)};
    IO_STATUS_BLOCK IoStatus = {};
    Result.Status = NtQueryInformationFile(Handle_, &IoStatus, Result.Bytes.data(), Length, InfoClass);
    Result.Information = IoStatus.Information;
    return Result;
}

RemoteFile::Answer RemoteFile::AskVolume(ULONG InfoClass, ULONG Length) {
    Answer Result = {STATUS_UNSUCCESSFUL, 0, std::vector<UCHAR>(Length)};
    IO_STATUS_BLOCK IoStatus = {};
    Result.Status = NtQueryVolumeInformationFile(Handle_, &IoStatus, Result.Bytes.data(), Length, InfoClass);
    Result.Information = IoStatus.Information;
    return Result;
}

RemoteFile::Answer RemoteFile::Query(ULONG InfoClass, ULONG Length) {
    Answer Result = Ask(InfoClass, Length);
    if (!NT_SUCCESS(Result.Status)) {
        throw StatusError(Result.Status, ShowPath(Path_));
    }
    return Result;
}

RemoteFile::Answer RemoteFile::QueryVolume(ULONG InfoClass, ULONG Length) {
    Answer Result = AskVolume(InfoClass, Length);
    if (!NT_SUCCESS(Result.Status)) {
        throw StatusError(Result.Status, ShowPath(Path_));
    }
    return Result;
}

void RemoteFile::Set(ULONG InfoClass, const void *Record, ULONG Length) {
    IO_STATUS_BLOCK IoStatus = {};
    const NTSTATUS Status = NtSetInformationFile(Handle_, &IoStatus, const_cast<void *>(Record), Length, InfoClass);
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, ShowPath(Path_));
    }
}

RemoteFile::Answer RemoteFile::List(ULONG InfoClass, ULONG Length, std::u16string_view Mask, bool Restart,
                                    bool Single) {
    CheckInterrupt();
    Answer Result = {STATUS_UNSUCCESSFUL, 0, std::vector<UCHAR>(Length)};
    UNICODE_STRING Name = Counted(Mask);
    IO_STATUS_BLOCK IoStatus = {};
    Result.Status = NtQueryDirectoryFile(Handle_, nullptr, nullptr, nullptr, &IoStatus, Result.Bytes.data(), Length,
                                         InfoClass, Single, Mask.empty() ? nullptr : &Name, Restart);
    Result.Information = IoStatus.Information;
    return Result;
}

std::vector<DirectoryEntry> UnpackEntries(const RemoteFile::Answer &Answer, ULONG InfoClass) {
    struct Row {
        ULONG InfoClass, Name, ShortNameLength;
    };
    constexpr Row Rows[] = {{FileDirectoryInformation, 64, 0},         {FileFullDirectoryInformation, 68, 0},
                            {FileBothDirectoryInformation, 94, 68},    {FileNamesInformation, 12, 0},
                            {FileIdBothDirectoryInformation, 104, 68}, {FileIdFullDirectoryInformation, 80, 0}};
    const Row *Layout = std::find_if(std::begin(Rows), std::end(Rows),
                                     [InfoClass](const Row &One) { return One.InfoClass == InfoClass; });
    std::vector<DirectoryEntry> Entries;
    for (size_t At = 0; Layout != std::end(Rows) && At + Layout->Name <= Answer.Information;) {
        const UCHAR *Record = Answer.Bytes.data() + At;
        const auto Ulong = [Record](size_t Offset) {
            ULONG Value;
            memcpy(&Value, Record + Offset, sizeof(Value));
            return Value;
        };
        const auto Long64 = [Record](size_t Offset) {
            LONG64 Value;
            memcpy(&Value, Record + Offset, sizeof(Value));
            return Value;
        };
        DirectoryEntry Entry = {};
        const bool Bare = InfoClass == FileNamesInformation;
        const ULONG NameBytes = Ulong(Bare ? 8 : 60);
        Entry.Name.resize(NameBytes / sizeof(WCHAR));
        memcpy(Entry.Name.data(), Record + Layout->Name, NameBytes);
        if (!Bare) {
            Entry.LastWrite = Long64(24);
            Entry.Size = Long64(40);
            Entry.Attributes = Ulong(56);
        }
        if (Layout->ShortNameLength != 0) {
            Entry.ShortName.resize(Record[Layout->ShortNameLength] / sizeof(WCHAR));
            memcpy(Entry.ShortName.data(), Record + 70, Record[Layout->ShortNameLength]);
        }
        Entries.push_back(std::move(Entry));
        if (Ulong(0) == 0) {
            break;
        }
        At += Ulong(0);
    }
    return Entries;
}

// The driver answers a Provider's error as the end of the listing.
void BeginListing() {
    providers::Failures::Forget();
}

void CheckListing(const RemoteFile &Directory) {
    constexpr USHORT NoMoreFiles = 0x0505;
    constexpr USHORT NoSuchFile = 0x0506;
    const RVSTATUS Failure = providers::Failures::Last("RVFsdEnumerateDirectory");
    if (RvIsError(Failure) && RvCode(Failure) != NoMoreFiles && RvCode(Failure) != NoSuchFile) {
        throw StatusError(NtFsdTranslateResult(Failure),
                          ShowPath(Directory.Path()) + " could not be listed to its end");
    }
}

std::vector<DirectoryEntry> ListDirectory(RemoteFile &Directory, std::u16string_view Mask, ULONG Bytes) {
    std::vector<DirectoryEntry> Entries;
    bool Restart = true;
    BeginListing();
    for (;;) {
        const RemoteFile::Answer Batch = Directory.List(FileBothDirectoryInformation, Bytes, Mask, Restart, false);
        if (Batch.Status == STATUS_NO_MORE_FILES || (Restart && Batch.Status == STATUS_NO_SUCH_FILE)) {
            CheckListing(Directory);
            return Entries;
        }
        if (!NT_SUCCESS(Batch.Status)) {
            throw StatusError(Batch.Status, ShowPath(Directory.Path()));
        }
        for (DirectoryEntry &Entry : UnpackEntries(Batch, FileBothDirectoryInformation)) {
            if (Entry.Name != u"." && Entry.Name != u"..") {
                Entries.push_back(std::move(Entry));
            }
        }
        Restart = false;
    }
}

} // namespace app
