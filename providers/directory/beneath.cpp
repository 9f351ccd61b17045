#include "providers/directory/beneath.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <linux/openat2.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/format.h>

#include "providers/directory/system_calls.h"

namespace providers::directory {
namespace {

// Longest path given to the kernel at once; its own limit is 4,096 bytes with the terminator.
constexpr size_t ChunkBytes = 4000;

int OpenAt2(int Fd, const char *Path, int Flags, mode_t Mode) {
    open_how How{};
    How.flags = static_cast<unsigned>(Flags | O_CLOEXEC);
    How.mode = (Flags & O_CREAT) != 0 ? Mode : 0;
    How.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    // EAGAIN: something moved while the kernel proved that ".." of a link stays below.
    for (int Attempt = 0;; ++Attempt) {
        const long Opened = syscall(SYS_openat2, Fd, Path, &How, sizeof How);
        if (Opened >= 0 || (errno != EAGAIN && errno != EINTR) || Attempt == 200) {
            return static_cast<int>(Opened);
        }
    }
}

int OpenStep(int Fd, const std::string &Component, int Flags, mode_t Mode) {
    const int Opened = openat(Fd, Component.c_str(), Flags | O_NOFOLLOW | O_CLOEXEC, Mode);
    if (Opened < 0) {
        // O_NOFOLLOW with O_DIRECTORY says "not a directory" of a link.
        struct stat Stat;
        const int Error = errno;
        const bool Link = Error == ENOTDIR && fstatat(Fd, Component.c_str(), &Stat, AT_SYMLINK_NOFOLLOW) == 0 &&
                          S_ISLNK(Stat.st_mode);
        errno = Link ? ELOOP : Error;
        return -1;
    }
    struct stat Stat;
    if ((Flags & O_PATH) != 0 && fstat(Opened, &Stat) == 0 && S_ISLNK(Stat.st_mode)) {
        close(Opened);
        errno = ELOOP;
        return -1;
    }
    return Opened;
}

int OpenByWalk(int Fd, std::string_view Path, int Flags, mode_t Mode) {
    UniqueFd Current;
    int At = Fd;
    for (size_t Start = 0;;) {
        const size_t Slash = Path.find('/', Start);
        const bool Last = Slash == std::string_view::npos;
        const std::string Component(Path.substr(Start, Last ? Slash : Slash - Start));
        if (Last) {
            return OpenStep(At, Component, Flags, Mode);
        }
        UniqueFd Next(OpenStep(At, Component, O_PATH | O_DIRECTORY, 0));
        if (!Next) {
            return -1;
        }
        Current = std::move(Next);
        At = Current.Get();
        Start = Slash + 1;
    }
}

// The directory of the process's own descriptors, which is that of the process that opened it: a forked one opens it
// anew, or would open files of its parent.
int Descriptors = -1;

void OpenDescriptors() {
    const int Own = open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (Descriptors < 0) {
        Descriptors = Own;
        return;
    }
    if (Own < 0 || dup3(Own, Descriptors, O_CLOEXEC) < 0) {
        close(Descriptors);
        Descriptors = -1;
    }
    close(Own);
}

} // namespace

UniqueFd::~UniqueFd() {
    if (Fd_ >= 0) {
        CloseDescriptor(Fd_);
    }
}

Confinement BestConfinement() {
    static const Confinement Best = [] {
        const UniqueFd Root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
        const UniqueFd Probe(OpenAt2(Root.Get(), ".", O_PATH, 0));
        return Probe ? Confinement::Kernel : Confinement::Walk;
    }();
    return Best;
}

int OpenBeneath(Confinement How, int Fd, const std::string &Whole, int Flags, mode_t Mode) {
    std::string_view Path = Whole.empty() ? "." : std::string_view(Whole);
    if (How == Confinement::Walk) {
        return OpenByWalk(Fd, Path, Flags, Mode);
    }
    if (Path.size() <= ChunkBytes) {
        return OpenAt2(Fd, Path.data(), Flags, Mode); // both end with a zero
    }
    UniqueFd Part;
    int At = Fd;
    while (Path.size() > ChunkBytes) {
        const size_t Cut = Path.rfind('/', ChunkBytes);
        if (Cut == std::string_view::npos) {
            errno = ENAMETOOLONG;
            return -1;
        }
        UniqueFd Next(OpenAt2(At, std::string(Path.substr(0, Cut)).c_str(), O_PATH | O_DIRECTORY, 0));
        if (!Next) {
            return -1;
        }
        Part = std::move(Next);
        At = Part.Get();
        Path.remove_prefix(Cut + 1);
    }
    return OpenAt2(At, std::string(Path).c_str(), Flags, Mode);
}

int OpenAgain(int Fd, int Flags) {
    static const bool Ready = [] {
        OpenDescriptors();
        return pthread_atfork(nullptr, nullptr, &OpenDescriptors) == 0;
    }();
    if (!Ready) {
        errno = ENOMEM;
        return -1;
    }
    if (Descriptors < 0) { // there was none left for it
        return open(fmt::format("/proc/self/fd/{}", Fd).c_str(), Flags | O_CLOEXEC);
    }
    return openat(Descriptors, std::to_string(Fd).c_str(), Flags | O_CLOEXEC);
}

} // namespace providers::directory
