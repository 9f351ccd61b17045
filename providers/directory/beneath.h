// Opening below a directory without ever leaving it, whatever happens to the tree meanwhile.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <sys/stat.h>
#include <sys/types.h>

namespace providers::directory {

// Owns one descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int Fd) : Fd_(Fd) {
    }
    UniqueFd(UniqueFd &&Other) noexcept : Fd_(std::exchange(Other.Fd_, -1)) {
    }
    UniqueFd &operator=(UniqueFd &&Other) noexcept {
        std::swap(Fd_, Other.Fd_);
        return *this;
    }
    ~UniqueFd();

    int Get() const {
        return Fd_;
    }
    explicit operator bool() const {
        return Fd_ >= 0;
    }

private:
    int Fd_ = -1;
};

// What names an object of the file system while it lives.
struct ObjectKey {
    dev_t Device = 0;
    ino_t Inode = 0;

    bool operator==(const ObjectKey &) const = default;
};
struct ObjectKeyHash {
    size_t operator()(const ObjectKey &Key) const {
        return static_cast<size_t>((Key.Inode * 0x9E3779B97F4A7C15u) ^ (Key.Device * 0xC2B2AE3D27D4EB4Fu));
    }
};
inline ObjectKey KeyOf(const struct stat &Stat) {
    return {Stat.st_dev, Stat.st_ino};
}

// How look-ups are confined. Kernel: openat2, which follows links that stay below the directory. Walk: component by
// component, for kernels without openat2; every symbolic link is refused then.
enum class Confinement : uint8_t { Kernel, Walk };

// Kernel where openat2 works, Walk otherwise.
Confinement BestConfinement();

// Opens Path (relative, separated by '/', no "..", empty = the directory itself) below the directory Fd. Flags are open
// flags; O_CLOEXEC is added. Returns the descriptor or -1 with errno: EXDEV or ELOOP when the path would leave the
// directory or a link is refused.
int OpenBeneath(Confinement How, int Fd, const std::string &Path, int Flags, mode_t Mode = 0);

// Opens the very object that Fd names, whatever its path is by now. O_CLOEXEC is added. Returns the descriptor or -1
// with errno.
int OpenAgain(int Fd, int Flags);

} // namespace providers::directory
