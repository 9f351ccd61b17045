#include "providers/directory/directory_reader.h"

#include <cerrno>

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

namespace providers::directory {
namespace {

// A descriptor that can be read, of the directory that Fd names.
int OpenToRead(int Fd) {
    const int Own = openat(Fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // It may be read and not be searched, not even for ".".
    return Own >= 0 || errno != EACCES ? Own : OpenAgain(Fd, O_RDONLY | O_DIRECTORY);
}

} // namespace

bool IsEmptyDirectory(int Fd) {
    const UniqueFd Own(OpenToRead(Fd));
    alignas(dirent64) char Buffer[2048];
    ssize_t Size = -1;
    while (Own && (Size = getdents64(Own.Get(), Buffer, sizeof Buffer)) > 0) {
        for (ssize_t At = 0; At < Size;) {
            const auto *Item = reinterpret_cast<const dirent64 *>(Buffer + At);
            const std::string_view Name(Item->d_name);
            if (Name != "." && Name != "..") {
                return false;
            }
            At += Item->d_reclen;
        }
    }
    return Size == 0;
}

int ReadDirectory(int Fd, void (*Each)(void *Context, std::string_view Name, unsigned char Type), void *Context) {
    const UniqueFd Own(OpenToRead(Fd));
    if (!Own) {
        return errno;
    }
    alignas(dirent64) char Buffer[65536];
    for (;;) {
        const ssize_t Size = getdents64(Own.Get(), Buffer, sizeof Buffer);
        if (Size < 0 && errno == EINTR) {
            continue;
        }
        if (Size <= 0) {
            return Size < 0 ? errno : 0;
        }
        for (ssize_t At = 0; At < Size;) {
            const auto *Item = reinterpret_cast<const dirent64 *>(Buffer + At);
            const std::string_view Name(Item->d_name);
            if (Name != "." && Name != "..") {
                Each(Context, Name, Item->d_type);
            }
            At += Item->d_reclen;
        }
    }
}

bool FoldsCase(int Fd) {
    const UniqueFd Own(openat(Fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int Flags = 0;
    return Own && ioctl(Own.Get(), FS_IOC_GETFLAGS, &Flags) == 0 && (Flags & FS_CASEFOLD_FL) != 0;
}

} // namespace providers::directory
