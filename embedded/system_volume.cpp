#include "embedded/system_volume.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>

#include <unicode/unistr.h>

#include "embedded/io/create.h"
#include "embedded/names/names.h"
#include "embedded/probe.h"
#include "embedded/rtl/upcase.h"

namespace embedded {
namespace {

class VolumeObject final : public Object {
public:
    VolumeObject() : Object(ObjectType::SystemVolume) {
    }
};

// One file's bytes; deleted files live on until their last handle goes.
struct File {
    virtual ~File() = default;
    virtual NTSTATUS Write(const void *Buffer, ULONG Length, LONGLONG Offset) = 0;
    virtual LONGLONG Size() = 0;
};

struct MemoryFile final : File {
    NTSTATUS Write(const void *Buffer, ULONG Length, LONGLONG Offset) override {
        const size_t End = static_cast<size_t>(Offset) + Length;
        Bytes.resize(std::max(Bytes.size(), End));
        Bytes.replace(static_cast<size_t>(Offset), Length, static_cast<const char *>(Buffer), Length);
        return STATUS_SUCCESS;
    }
    LONGLONG Size() override {
        return static_cast<LONGLONG>(Bytes.size());
    }
    std::string Bytes;
};

NTSTATUS StatusOfErrno(int Error) {
    switch (Error) {
    case ENOENT:
        return STATUS_OBJECT_NAME_NOT_FOUND;
    case ENOTDIR:
        return STATUS_OBJECT_PATH_NOT_FOUND;
    case EEXIST:
        return STATUS_OBJECT_NAME_COLLISION;
    case EISDIR:
        return STATUS_FILE_IS_A_DIRECTORY;
    case ENOSPC:
    case EDQUOT:
        return STATUS_DISK_FULL;
    case EACCES:
    case EPERM:
    case EROFS:
        return STATUS_ACCESS_DENIED;
    case EMFILE:
    case ENFILE:
        return STATUS_TOO_MANY_OPENED_FILES;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

struct HostFile final : File {
    explicit HostFile(int Of) : Descriptor(Of) {
    }
    ~HostFile() override {
        close(Descriptor);
    }
    NTSTATUS Write(const void *Buffer, ULONG Length, LONGLONG Offset) override {
        const auto *Next = static_cast<const char *>(Buffer);
        while (Length > 0) {
            const ssize_t Done = pwrite(Descriptor, Next, Length, Offset);
            if (Done < 0 && errno != EINTR) {
                return StatusOfErrno(errno);
            }
            if (Done > 0) {
                Next += Done;
                Offset += Done;
                Length -= static_cast<ULONG>(Done);
            }
        }
        return STATUS_SUCCESS;
    }
    LONGLONG Size() override {
        struct stat Information {};
        return fstat(Descriptor, &Information) == 0 ? Information.st_size : 0;
    }
    const int Descriptor;
};

class SystemFileObject final : public Object {
public:
    explicit SystemFileObject(std::shared_ptr<File> Of) : Object(ObjectType::SystemFile), Contents(std::move(Of)) {
    }
    const std::shared_ptr<File> Contents;
};

struct Fault {
    NTSTATUS Status = STATUS_SUCCESS;
    unsigned Count = 0;
};

struct Volume {
    std::mutex Mutex;
    std::optional<std::filesystem::path> Directory;
    std::map<std::u16string, std::shared_ptr<MemoryFile>> Files; // by upper-case name
    std::map<VolumeOperation, Fault> Faults;
};

Volume &TheVolume() {
    static Volume &Instance = *new Volume;
    return Instance;
}

std::u16string MemoryKey(std::u16string_view Name) {
    std::u16string Key(Name);
    for (char16_t &Unit : Key) {
        Unit = UpcaseUnit(Unit);
    }
    return Key;
}

// A host path inside the volume's directory; the name is a driver's, but ".." goes nowhere all the same.
std::optional<std::filesystem::path> HostPath(const Volume &In, std::u16string_view Name) {
    std::filesystem::path Path = *In.Directory;
    while (!Name.empty()) {
        const size_t End = std::min(Name.find(u'\\'), Name.size());
        std::string Component;
        icu::UnicodeString(Name.data(), static_cast<int32_t>(End)).toUTF8String(Component);
        if (Component == ".." || Component.find('/') != Component.npos) {
            return std::nullopt;
        }
        if (!Component.empty()) {
            Path /= Component;
        }
        Name.remove_prefix(std::min(End + 1, Name.size()));
    }
    return Path;
}

// Success, or the failure that was asked for; the mutex is held.
NTSTATUS TakeFault(Volume &In, VolumeOperation Operation) {
    Fault &Next = In.Faults[Operation];
    if (Next.Count == 0) {
        return STATUS_SUCCESS;
    }
    --Next.Count;
    return Next.Status;
}

struct Opened {
    NTSTATUS Status;
    ULONG_PTR Information;
    std::shared_ptr<File> Contents;
};

constexpr bool Creates(ULONG Disposition) {
    return Disposition != FILE_OPEN && Disposition != FILE_OVERWRITE;
}
constexpr bool Empties(ULONG Disposition) {
    return Disposition == FILE_SUPERSEDE || Disposition == FILE_OVERWRITE || Disposition == FILE_OVERWRITE_IF;
}

ULONG_PTR InformationOf(bool Existed, ULONG Disposition) {
    if (!Existed) {
        return FILE_CREATED;
    }
    return Disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : Empties(Disposition) ? FILE_OVERWRITTEN : FILE_OPENED;
}

Opened OpenInMemory(Volume &In, std::u16string_view Name, ULONG Disposition) {
    const auto Found = In.Files.find(MemoryKey(Name));
    const bool Existed = Found != In.Files.end();
    if (Existed && Disposition == FILE_CREATE) {
        return {STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS, nullptr};
    }
    if (!Existed && !Creates(Disposition)) {
        return {STATUS_OBJECT_NAME_NOT_FOUND, FILE_DOES_NOT_EXIST, nullptr};
    }
    auto &Entry = In.Files[MemoryKey(Name)];
    if (!Existed) {
        Entry = std::make_shared<MemoryFile>();
    } else if (Empties(Disposition)) {
        Entry->Bytes.clear();
    }
    return {STATUS_SUCCESS, InformationOf(Existed, Disposition), Entry};
}

Opened OpenOnHost(Volume &In, std::u16string_view Name, ULONG Disposition) {
    const auto Path = HostPath(In, Name);
    if (!Path) {
        return {STATUS_OBJECT_NAME_INVALID, FILE_DOES_NOT_EXIST, nullptr};
    }
    const bool Existed = std::filesystem::exists(*Path);
    const int Flags = O_RDWR | O_CLOEXEC | (Creates(Disposition) ? O_CREAT : 0) |
                      (Disposition == FILE_CREATE ? O_EXCL : 0) | (Empties(Disposition) ? O_TRUNC : 0);
    const int Descriptor = open(Path->c_str(), Flags, 0644);
    if (Descriptor < 0) {
        return {StatusOfErrno(errno), static_cast<ULONG_PTR>(Existed ? FILE_EXISTS : FILE_DOES_NOT_EXIST), nullptr};
    }
    return {STATUS_SUCCESS, InformationOf(Existed, Disposition), std::make_shared<HostFile>(Descriptor)};
}

} // namespace

void InitializeSystemVolume(const std::optional<std::filesystem::path> &HostDirectory) {
    ResetSystemVolume();
    {
        std::lock_guard Lock(TheVolume().Mutex);
        TheVolume().Directory = HostDirectory;
    }
    const auto Object = Ref<VolumeObject>::Adopt(new VolumeObject);
    static_cast<void>(InsertName(u"\\Device\\HarddiskVolume1", *Object.Get()));
    static_cast<void>(CreateSymbolicLink(u"\\??\\C:", u"\\Device\\HarddiskVolume1"));
}

void ResetSystemVolume() noexcept {
    std::lock_guard Lock(TheVolume().Mutex);
    TheVolume().Directory.reset();
    TheVolume().Files.clear();
    TheVolume().Faults.clear();
}

void FailNext(VolumeOperation Operation, NTSTATUS Status, unsigned Count) {
    std::lock_guard Lock(TheVolume().Mutex);
    TheVolume().Faults[Operation] = {Status, Count};
}

std::optional<std::string> ReadSystemFile(std::u16string_view Name) {
    Volume &In = TheVolume();
    std::lock_guard Lock(In.Mutex);
    if (!In.Directory) {
        const auto Found = In.Files.find(MemoryKey(Name));
        return Found == In.Files.end() ? std::nullopt : std::optional(Found->second->Bytes);
    }
    const auto Path = HostPath(In, Name);
    std::ifstream Stream(Path ? *Path : std::filesystem::path{}, std::ios::binary);
    if (!Path || !Stream) {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(Stream), {});
}

void WriteSystemFile(std::u16string_view Name, std::string_view Bytes) {
    Volume &In = TheVolume();
    std::lock_guard Lock(In.Mutex);
    const Opened Result =
        In.Directory ? OpenOnHost(In, Name, FILE_OVERWRITE_IF) : OpenInMemory(In, Name, FILE_OVERWRITE_IF);
    if (Result.Contents == nullptr ||
        !NT_SUCCESS(Result.Contents->Write(Bytes.data(), static_cast<ULONG>(Bytes.size()), 0))) {
        throw std::filesystem::filesystem_error("cannot write a file of the system volume", std::error_code());
    }
}

CreateResult CreateSystemFile(std::u16string_view Name, const CreateParameters &Parameters) noexcept {
    Volume &In = TheVolume();
    Opened Result{STATUS_OBJECT_NAME_INVALID, FILE_DOES_NOT_EXIST, nullptr};
    {
        std::lock_guard Lock(In.Mutex);
        if (const NTSTATUS Status = TakeFault(In, VolumeOperation::Create); !NT_SUCCESS(Status)) {
            return {Status, FILE_DOES_NOT_EXIST, nullptr};
        }
        if (Parameters.Options & FILE_DIRECTORY_FILE) {
            return {STATUS_NOT_IMPLEMENTED, FILE_DOES_NOT_EXIST, nullptr}; // files only
        }
        if (Name.size() > 1) {
            Result = In.Directory ? OpenOnHost(In, Name, Parameters.Disposition)
                                  : OpenInMemory(In, Name, Parameters.Disposition);
        }
    }
    if (!NT_SUCCESS(Result.Status)) {
        return {Result.Status, Result.Information, nullptr};
    }
    const auto Object = Ref<SystemFileObject>::Adopt(new SystemFileObject(std::move(Result.Contents)));
    CreateResult Created{STATUS_SUCCESS, Result.Information, nullptr};
    Created.Status = InsertHandle(*Object.Get(), Parameters.DesiredAccess, Parameters.ObjectAttributes->Attributes,
                                  Parameters.Mode, &Created.Handle);
    return Created;
}

IO_STATUS_BLOCK WriteSystemFileObject(Object &File, const void *Buffer, ULONG Length, LONGLONG Offset) noexcept {
    Volume &In = TheVolume();
    IO_STATUS_BLOCK Result{};
    std::lock_guard Lock(In.Mutex);
    auto &Contents = *static_cast<SystemFileObject &>(File).Contents;
    Result.Status = TakeFault(In, VolumeOperation::Write);
    if (!NT_SUCCESS(Result.Status)) {
        return Result;
    }
    Result.Status = Contents.Write(Buffer, Length, Offset < 0 ? Contents.Size() : Offset);
    Result.Information = NT_SUCCESS(Result.Status) ? Length : 0;
    return Result;
}

NTSTATUS DeleteSystemFile(std::u16string_view Name) noexcept {
    Volume &In = TheVolume();
    std::lock_guard Lock(In.Mutex);
    if (const NTSTATUS Status = TakeFault(In, VolumeOperation::Delete); !NT_SUCCESS(Status)) {
        return Status;
    }
    if (!In.Directory) {
        return In.Files.erase(MemoryKey(Name)) != 0 ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    const auto Path = HostPath(In, Name);
    if (!Path) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    return unlink(Path->c_str()) == 0 ? STATUS_SUCCESS : StatusOfErrno(errno);
}

} // namespace embedded
