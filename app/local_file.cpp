#include "app/local_file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "app/interrupt.h"
#include "app/text.h"

namespace app {

namespace {

constexpr int64_t UnixEpoch = 116444736000000000; // 1970 in 100-ns units since 1601

[[noreturn]] void Fail(const std::string &Name, int Error) {
    throw std::runtime_error(fmt::format("{}: {}", Name, strerror(Error)));
}

int64_t WriteTimeIn(const struct stat &Status) {
    return UnixEpoch + Status.st_mtim.tv_sec * int64_t{10'000'000} + Status.st_mtim.tv_nsec / 100;
}

// Both times of futimens and utimensat.
std::array<timespec, 2> TimesOf(int64_t WriteTime) {
    const int64_t Since = WriteTime - UnixEpoch;
    const timespec Time = {Since / 10'000'000, Since % 10'000'000 * 100};
    return {Time, Time};
}

} // namespace

LocalFile::LocalFile(LocalFile &&Other) noexcept
    : Descriptor_(std::exchange(Other.Descriptor_, -1)), Name_(std::move(Other.Name_)) {
}

LocalFile::~LocalFile() {
    if (Descriptor_ > STDERR_FILENO) {
        close(Descriptor_);
    }
}

LocalFile LocalFile::OpenForReading(const std::string &Name) {
    const int Descriptor = open(Name.c_str(), O_RDONLY | O_CLOEXEC);
    if (Descriptor < 0) {
        Fail(Name, errno);
    }
    return {Descriptor, Name};
}

size_t LocalFile::Read(void *Buffer, size_t Length) {
    for (;;) {
        CheckInterrupt();
        const ssize_t Got = read(Descriptor_, Buffer, Length);
        if (Got >= 0) {
            return static_cast<size_t>(Got);
        }
        if (errno != EINTR) {
            Fail(Name_, errno);
        }
    }
}

void LocalFile::Write(const void *Buffer, size_t Length) {
    auto At = static_cast<const char *>(Buffer);
    while (Length != 0) {
        CheckInterrupt();
        const ssize_t Put = write(Descriptor_, At, Length);
        if (Put < 0 && errno != EINTR) {
            Fail(Name_, errno);
        }
        if (Put > 0) {
            At += Put;
            Length -= static_cast<size_t>(Put);
        }
    }
}

int64_t LocalFile::Size() const {
    struct stat Status = {};
    return fstat(Descriptor_, &Status) == 0 && S_ISREG(Status.st_mode) ? Status.st_size : -1;
}

int64_t LocalFile::WriteTime() const {
    struct stat Status = {};
    if (fstat(Descriptor_, &Status) != 0 || !S_ISREG(Status.st_mode)) {
        return 0;
    }
    return WriteTimeIn(Status);
}

LocalTarget::LocalTarget(const std::string &Name, bool Replace, bool InPlace,
                         const std::vector<std::filesystem::path> &Sources)
    : LocalFile(open(Name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666), Name) {
    if (Descriptor_ >= 0) {
        Part_ = Name;
        return;
    }
    if (errno != EEXIST) {
        Fail(Name, errno);
    }
    if (!Replace) {
        throw std::runtime_error(Name + ": File exists; --force replaces it");
    }
    if (IsOneOf(Name, Sources)) {
        throw std::runtime_error(fmt::format("{}: source and target are the same file", Name));
    }
    std::error_code Error;
    if (!InPlace && std::filesystem::is_regular_file(Name, Error)) {
        OpenBeside();
        return;
    }
    Descriptor_ = open(Name.c_str(), O_WRONLY | O_CLOEXEC);
    if (Descriptor_ < 0 || (Size() > 0 && ftruncate(Descriptor_, 0) != 0)) {
        Fail(Name, errno);
    }
}

void LocalTarget::OpenBeside() {
    std::error_code Error;
    const std::string Real = std::filesystem::canonical(Name_, Error).string();
    if (Error) {
        Fail(Name_, Error.value());
    }
    Name_ = Real; // the file itself is replaced, not a link to it
    const int Old = open(Name_.c_str(), O_PATH | O_CLOEXEC);
    if (Old < 0) {
        Fail(Name_, errno);
    }
    const LocalFile Owner(Old, Name_);
    if (access(Name_.c_str(), W_OK) != 0) {
        Fail(Name_, errno);
    }
    Access_.emplace(Old, Name_);
    std::string Beside = Name_ + ".XXXXXX";
    Descriptor_ = mkostemp(Beside.data(), O_CLOEXEC);
    if (Descriptor_ < 0) {
        Fail(Beside, errno);
    }
    Part_ = Beside;
}

LocalTarget::~LocalTarget() {
    if (!Part_.empty()) {
        unlink(Part_.c_str());
    }
}

void LocalTarget::Keep(int64_t WriteTime) {
    if (WriteTime > UnixEpoch && futimens(Descriptor_, TimesOf(WriteTime).data()) != 0) {
        Fail(Name_, errno);
    }
    const bool Replaces = !Part_.empty() && Part_ != Name_;
    if (Access_ && !Access_->GiveTo(Descriptor_, Name_)) {
        Complain(Name_ + ": its owner or group is another now");
    }
    // A name that is taken from a whole file must not lead to one whose bytes are not there yet.
    if (Replaces && fdatasync(Descriptor_) != 0) {
        Fail(Name_, errno);
    }
    if (close(std::exchange(Descriptor_, -1)) != 0) {
        Fail(Name_, errno);
    }
    if (Replaces && rename(Part_.c_str(), Name_.c_str()) != 0) {
        Fail(Name_, errno);
    }
    Part_.clear();
}

int64_t WriteTimeOf(const std::filesystem::path &Name) {
    struct stat Status = {};
    if (stat(Name.c_str(), &Status) != 0) {
        Fail(Name.string(), errno);
    }
    return WriteTimeIn(Status);
}

void SetWriteTime(const std::filesystem::path &Name, int64_t Time) {
    if (Time > UnixEpoch && utimensat(AT_FDCWD, Name.c_str(), TimesOf(Time).data(), 0) != 0) {
        Fail(Name.string(), errno);
    }
}

bool IsOneOf(const std::filesystem::path &Name, const std::vector<std::filesystem::path> &Files) {
    for (const std::filesystem::path &File : Files) {
        std::error_code Error;
        if (std::filesystem::equivalent(Name, File, Error)) {
            return true;
        }
    }
    return false;
}

} // namespace app
