#include "app/file_access.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace app {
namespace {

constexpr char AccessList[] = "system.posix_acl_access";

// Serves descriptors that only name a file, too.
std::string LinkOf(int Descriptor) {
    return fmt::format("/proc/self/fd/{}", Descriptor);
}

[[noreturn]] void Fail(const std::string &Name, int Error) {
    throw std::runtime_error(fmt::format("{}: its permissions cannot be kept: {}", Name, strerror(Error)));
}

// What Read(buffer, size) reads, whose length it tells for a size of 0. Empty without extended attributes.
template <class Reader>
std::string ReadAll(const std::string &Name, Reader Read) {
    for (;;) {
        const ssize_t Length = Read(nullptr, 0);
        std::string Bytes(static_cast<size_t>(std::max<ssize_t>(Length, 0)), '\0');
        const ssize_t Got = Length > 0 ? Read(Bytes.data(), Bytes.size()) : Length;
        if (Got >= 0) {
            Bytes.resize(static_cast<size_t>(Got));
            return Bytes;
        }
        if (errno == EOPNOTSUPP || errno == ENODATA) {
            return {};
        }
        if (errno != ERANGE) { // that is: it has grown
            Fail(Name, errno);
        }
    }
}

} // namespace

FileAccess::FileAccess(int Descriptor, const std::string &Name) {
    struct stat Status = {};
    if (fstat(Descriptor, &Status) != 0) {
        Fail(Name, errno);
    }
    Owner_ = Status.st_uid;
    Group_ = Status.st_gid;
    Permissions_ = Status.st_mode & 07777;
    const std::string Link = LinkOf(Descriptor);
    const std::string Names =
        ReadAll(Name, [&](char *Buffer, size_t Size) { return listxattr(Link.c_str(), Buffer, Size); });
    for (size_t At = 0; At < Names.size(); At += strlen(&Names[At]) + 1) {
        const std::string Each(&Names[At]);
        if (Each == AccessList || Each.starts_with("user.")) {
            Attributes_.emplace_back(Each, ReadAll(Name, [&](char *Buffer, size_t Size) {
                                         return getxattr(Link.c_str(), Each.c_str(), Buffer, Size);
                                     }));
        }
    }
}

bool FileAccess::GiveTo(int Descriptor, const std::string &Name) const {
    const std::string Link = LinkOf(Descriptor);
    // The owner first: giving a file away takes some permissions from it.
    const bool Given = chown(Link.c_str(), Owner_, Group_) == 0;
    if (!Given && errno != EPERM && errno != EINVAL) {
        Fail(Name, errno);
    }
    // Without its owner the file must run with nobody else's rights; without its group, the group gets no access.
    mode_t Permissions = Permissions_;
    if (!Given) {
        Permissions &= ~mode_t{S_ISUID | S_ISGID};
        if (chown(Link.c_str(), static_cast<uid_t>(-1), Group_) != 0) {
            Permissions &= ~mode_t{S_IRWXG};
        }
    }
    for (const auto &[Each, Value] : Attributes_) {
        if (Each != AccessList && setxattr(Link.c_str(), Each.c_str(), Value.data(), Value.size(), 0) != 0) {
            Fail(Name, errno);
        }
    }
    // The list holds the permissions, but for three bits, and one that came from the directory is not the file's.
    static_cast<void>(removexattr(Link.c_str(), AccessList));
    if (chmod(Link.c_str(), Permissions) != 0) {
        Fail(Name, errno);
    }
    for (const auto &[Each, Value] : Attributes_) {
        if (Each == AccessList && setxattr(Link.c_str(), AccessList, Value.data(), Value.size(), 0) != 0) {
            Fail(Name, errno);
        }
    }
    return Given;
}

} // namespace app
