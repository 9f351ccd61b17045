// Opens: open, cleanup and close of an existing file, and the pool that an open costs.
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "bench/rows.h"
#include "embedded/ex/ex.h"
#include "embedded/ex/probe.h"

namespace bench {
namespace {

void ThroughDriver(benchmark::State &State, ProviderKind Kind, DriverKind Driver) {
    Use(Kind, Driver);
    const std::u16string Path = FilePath(NeverWritten);
    for (auto _ : State) {
        Close(Open(Path));
    }
}

void ProviderCalls(benchmark::State &State, ProviderKind Kind) {
    const std::u16string Path = FilePath(NeverWritten);
    UseRecorded(Kind);
    const std::string Difference =
        DifferenceBetween([&Path] { Close(Open(Path)); }, [&Path] { CallsOfOpenAndClose(Path); });
    if (!Difference.empty()) {
        Fail(Difference);
    }
    Use(Kind);
    for (auto _ : State) {
        CallsOfOpenAndClose(Path);
    }
}

void Native(benchmark::State &State) {
    const std::string Path = NativePath(NeverWritten);
    for (auto _ : State) {
        close(open(Path.c_str(), O_RDONLY | O_CLOEXEC));
    }
}

// What the Provider's calls of an open have to ask the kernel for when they open no pipe that takes the file's place,
// and nothing else: by the handle of a known file in a watched directory, or by its path.
class NecessaryCalls {
public:
    // The last three components of Path are below the root.
    explicit NecessaryCalls(const std::filesystem::path &Path) {
        const std::filesystem::path Root = Path.parent_path().parent_path().parent_path();
        Name_ = Path.lexically_relative(Root);
        Root_ = open(Root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        Descriptors_ = open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC);
        Events_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        News_ = epoll_create1(EPOLL_CLOEXEC);
        epoll_event Event{};
        Event.events = EPOLLIN;
        int Mount = 0;
        Handle()->handle_bytes = sizeof Handle_ - sizeof(file_handle);
        if (Root_ < 0 || inotify_add_watch(Events_, Path.parent_path().c_str(), IN_DELETE | IN_MOVED_FROM) < 0 ||
            epoll_ctl(News_, EPOLL_CTL_ADD, Events_, &Event) != 0 ||
            name_to_handle_at(Root_, Name_.c_str(), Handle(), &Mount, 0) != 0) {
            Fail("no file handles");
        }
    }
    ~NecessaryCalls() {
        for (const int Each : {Root_, Descriptors_, Events_, News_}) {
            close(Each);
        }
    }

    void ByHandle() {
        epoll_event Told;
        if (epoll_wait(News_, &Told, 1, 0) != 0) {
            Fail("a name has changed");
        }
        AskAndClose(open_by_handle_at(Root_, Handle(), Flags));
    }
    void ByPath() const {
        open_how How{};
        How.flags = O_PATH | O_CLOEXEC;
        How.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
        const int Named = static_cast<int>(syscall(SYS_openat2, Root_, Name_.c_str(), &How, sizeof How));
        struct stat Stat;
        fstat(Named, &Stat);
        const int Opened = openat(Descriptors_, std::to_string(Named).c_str(), Flags);
        close(Named);
        AskAndClose(Opened);
    }

private:
    static constexpr int Flags = O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

    // Whether others deny anything, and the facts.
    static void AskAndClose(int Opened) {
        struct flock Any {};
        Any.l_type = F_WRLCK;
        Any.l_start = INT64_MAX - 255;
        Any.l_len = 3;
        struct statx Stat;
        if (fcntl(Opened, F_OFD_GETLK, &Any) != 0 ||
            statx(Opened, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &Stat) != 0) {
            Fail("a file does not open");
        }
        close(Opened);
    }
    file_handle *Handle() {
        return reinterpret_cast<file_handle *>(Handle_);
    }

    std::string Name_;
    int Root_ = -1;
    int Descriptors_ = -1;
    int Events_ = -1;
    int News_ = -1;
    alignas(file_handle) unsigned char Handle_[sizeof(file_handle) + 64] = {};
};

void Necessary(benchmark::State &State, bool ByHandle) {
    NecessaryCalls Calls(NativePath(NeverWritten));
    for (auto _ : State) {
        ByHandle ? Calls.ByHandle() : Calls.ByPath();
    }
}

// The first open of a path and a further one; not a time, but a count of bytes.
void Pool(benchmark::State &State) {
    Use(ProviderKind::Stub);
    const std::u16string Path = FilePath(1);
    Close(Open(Path)); // whatever is made once is there now
    const LONG64 Before = embedded::PoolBytesInUse();
    for (auto _ : State) {
        const HANDLE First = Open(Path);
        const LONG64 AfterFirst = embedded::PoolBytesInUse();
        const HANDLE Further = Open(Path);
        State.counters["first"] = static_cast<double>(AfterFirst - Before);
        State.counters["further"] = static_cast<double>(embedded::PoolBytesInUse() - AfterFirst);
        Close(Further);
        Close(First);
        State.counters["left"] = static_cast<double>(embedded::PoolBytesInUse() - Before);
    }
}

} // namespace

void RegisterOpens(DriverKind Driver) {
    using benchmark::RegisterBenchmark;
    const std::string Under = Prefix(Driver) + "open/";
    RegisterBenchmark((Under + "stub/driver").c_str(), ThroughDriver, ProviderKind::Stub, Driver);
    RegisterBenchmark((Under + "directory/driver").c_str(), ThroughDriver, ProviderKind::Directory, Driver);
    if (Driver != DriverKind::Linked) {
        return;
    }
    RegisterBenchmark("open/native", Native);
    RegisterBenchmark("open/necessary/by_handle", Necessary, true);
    RegisterBenchmark("open/necessary/by_path", Necessary, false);
    RegisterBenchmark("open/stub/direct", ProviderCalls, ProviderKind::Stub);
    RegisterBenchmark("open/directory/direct", ProviderCalls, ProviderKind::Directory);
    RegisterBenchmark("pool/open", Pool)->Iterations(16);
}

} // namespace bench
