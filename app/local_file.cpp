#include "app/local_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "app/interrupt.h"

namespace app {

namespace {

[[noreturn]] void Fail(const std::string &Name, int Error) {
    throw std::runtime_error(fmt::format("{}: {}", Name, strerror(Error)));
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

LocalTarget::LocalTarget(const std::string &Name, bool Replace, const std::vector<std::filesystem::path> &Sources)
    : LocalFile(open(Name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666), Name) {
    if (Descriptor_ >= 0) {
        Made_ = true;
        return;
    }
    if (errno != EEXIST || !Replace) {
        Fail(Name, errno);
    }
    if (IsOneOf(Name, Sources)) {
        throw std::runtime_error(fmt::format("{}: source and target are the same file", Name));
    }
    Descriptor_ = open(Name.c_str(), O_WRONLY | O_CLOEXEC);
    if (Descriptor_ < 0 || (Size() > 0 && ftruncate(Descriptor_, 0) != 0)) {
        Fail(Name, errno);
    }
}

LocalTarget::~LocalTarget() {
    if (Made_) {
        unlink(Name_.c_str());
    }
}

void LocalTarget::Keep() {
    if (close(std::exchange(Descriptor_, -1)) != 0) {
        Fail(Name_, errno);
    }
    Made_ = false;
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
