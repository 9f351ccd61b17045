#include "app/mount/serve.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <mutex>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

#include "app/monitor/server.h"
#include "app/mount/file_system.h"
#include "app/mount/request_rings.h"
#include "app/text.h"

namespace app::mount {

namespace {

int Waiter = -1; // where the parent waits for a byte

sigset_t EndingSignals() {
    sigset_t Set;
    sigemptyset(&Set);
    for (const int Signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&Set, Signal);
    }
    return Set;
}

// The parent of a mount in the background ends here.
[[noreturn]] void AwaitChild(pid_t Child, int From) {
    char Ready = 0;
    ssize_t Count;
    do {
        Count = read(From, &Ready, 1);
    } while (Count < 0 && errno == EINTR);
    if (Count == 1) {
        _exit(0);
    }
    int Status = 0;
    while (waitpid(Child, &Status, 0) < 0 && errno == EINTR) {
    }
    _exit(WIFEXITED(Status) && WEXITSTATUS(Status) != 0 ? WEXITSTATUS(Status) : 1);
}

void GoIntoBackground() {
    int Ends[2];
    if (pipe2(Ends, O_CLOEXEC) != 0) {
        throw UsageError(fmt::format("mount: {}", strerror(errno)));
    }
    fflush(nullptr);
    const pid_t Child = fork();
    if (Child < 0) {
        throw UsageError(fmt::format("mount: {}", strerror(errno)));
    }
    if (Child > 0) {
        close(Ends[1]);
        AwaitChild(Child, Ends[0]);
    }
    close(Ends[0]);
    setsid();
    Waiter = Ends[1];
}

// What waits for the mount is told that it is there: the parent, the service manager. Called when the kernel and this
// side have agreed, so that a mount that fails at that is a failure of the command.
void TellReady() {
    if (const char *Path = getenv("NOTIFY_SOCKET"); Path != nullptr && *Path != 0) {
        sockaddr_un Address = {};
        Address.sun_family = AF_UNIX;
        strncpy(Address.sun_path, Path, sizeof(Address.sun_path) - 1);
        const socklen_t Length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(Address.sun_path));
        if (Address.sun_path[0] == '@') {
            Address.sun_path[0] = 0;
        }
        const int To = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        constexpr char Text[] = "READY=1";
        if (To < 0 || sendto(To, Text, sizeof(Text) - 1, 0, reinterpret_cast<sockaddr *>(&Address), Length) < 0) {
            Complain(fmt::format("NOTIFY_SOCKET: {}", strerror(errno)));
        }
        if (To >= 0) {
            close(To);
        }
    }
    if (Waiter < 0) {
        return;
    }
    const int Nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    struct stat Errors = {};
    fstat(STDERR_FILENO, &Errors);
    dup2(Nothing, STDIN_FILENO);
    dup2(Nothing, STDOUT_FILENO);
    if (!S_ISREG(Errors.st_mode)) { // a file goes on, what somebody reads would never end
        dup2(Nothing, STDERR_FILENO);
    }
    close(Nothing);
    const char Ready = 1;
    if (write(Waiter, &Ready, 1) != 1) {
        Complain("the parent does not wait any more");
    }
    close(Waiter);
    Waiter = -1;
}

void CheckPoint(const std::string &Point) {
    // To open is more than to look: the kernel still knows what a server that has gone told it a moment ago.
    const int Opened = open(Point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (Opened < 0) {
        const bool Stale = errno == ENOTCONN || errno == ECONNABORTED;
        throw UsageError(
            fmt::format("{}: {}", Point,
                        Stale ? "a mount whose server has gone; fusermount3 -u removes it, with -z where it is busy"
                              : strerror(errno)));
    }
    close(Opened);
}

// The kernel reads ahead what the device says: to be raised by root only, and no more than a wish. The device is looked
// up in the table of mounts, since the mount itself answers nobody yet.
void RaiseReadAhead(const MountOptions &Options) {
    if (Options.ReadAheadKib == 0 || geteuid() != 0) {
        return;
    }
    std::ifstream Table("/proc/self/mountinfo");
    std::string Device;
    for (std::string Line; std::getline(Table, Line);) {
        std::istringstream Words(Line);
        std::string Id, Parent, Numbers, Root, Point;
        Words >> Id >> Parent >> Numbers >> Root >> Point;
        if (Point == Options.Point) {
            Device = Numbers; // the last is on top
        }
    }
    if (!Device.empty()) {
        std::ofstream File(fmt::format("/sys/class/bdi/{}/read_ahead_kb", Device));
        File << Options.ReadAheadKib << std::flush;
    }
}

// libfuse takes a comma for the end of an option, and a backslash from before what follows it.
std::string Escaped(const std::string &Option) {
    std::string Out;
    for (const char Byte : Option) {
        Out += Byte == ',' || Byte == '\\' ? std::string{'\\', Byte} : std::string{Byte};
    }
    return Out;
}

class KernelSession {
public:
    KernelSession(FileSystem &Files, const MountOptions &Options) : Files_(Files) {
        std::vector<std::string> Words = {"rvfsd"};
        bool Named = false;
        bool Typed = false;
        for (const std::string &Each : Options.ForKernel) {
            Named = Named || Each.starts_with("fsname=");
            Typed = Typed || Each.starts_with("subtype=");
            Words.insert(Words.end(), {"-o", Escaped(Each)});
        }
        if (!Named) {
            Words.insert(Words.end(), {"-o", "fsname=rvfsd"});
        }
        if (!Typed) {
            Words.insert(Words.end(), {"-o", "subtype=rvfsd"});
        }
        if (Options.ComparesModes()) {
            Words.insert(Words.end(), {"-o", "default_permissions"});
        }
        if (Options.Debug) {
            Words.emplace_back("-d");
        }
        std::vector<char *> Pointers;
        for (std::string &Each : Words) {
            Pointers.push_back(Each.data());
        }
        fuse_args Arguments = FUSE_ARGS_INIT(static_cast<int>(Pointers.size()), Pointers.data());
        Session_ = fuse_session_new(&Arguments, &FileSystem::Operations(), sizeof(fuse_lowlevel_ops), &Files);
        fuse_opt_free_args(&Arguments);
        if (Session_ == nullptr) {
            throw UsageError("mount: the options were refused");
        }
        if (fuse_session_mount(Session_, Options.Point.c_str()) != 0) {
            fuse_session_destroy(Session_);
            throw UsageError(fmt::format("{}: not mounted", Options.Point));
        }
        Files_.SetSession(Session_);
    }
    ~KernelSession() {
        if (Rings_) {
            Rings_->End();
        }
        Files_.SetSession(nullptr);
        Files_.EndBackground();
        fuse_session_unmount(Session_);
        fuse_session_destroy(Session_);
    }
    KernelSession(const KernelSession &) = delete;
    KernelSession &operator=(const KernelSession &) = delete;

    fuse_session *Get() {
        return Session_;
    }
    void UseRings(unsigned Threads, std::function<void()> Ready) {
        Rings_.emplace(Session_, Threads, std::move(Ready));
    }

private:
    FileSystem &Files_;
    fuse_session *Session_;
    std::optional<RequestRings> Rings_;
};

// While it lives, a signal ends the mount: first what speaks to the kernel on its own, as long as requests are served,
// then the loop that serves them, in the thread that has made this.
class SignalsEnd {
public:
    SignalsEnd(fuse_session *Session, FileSystem &Files) : Session_(Session), Files_(Files), Loop_(pthread_self()) {
        struct sigaction Nothing = {};
        Nothing.sa_handler = [](int) {};
        sigaction(Nudge, &Nothing, nullptr);
        signal(SIGPIPE, SIG_IGN);
        sigset_t Nudged;
        sigemptyset(&Nudged);
        sigaddset(&Nudged, Nudge);
        pthread_sigmask(SIG_UNBLOCK, &Nudged, nullptr);
        Thread_ = std::thread([this] { Run(); });
    }
    ~SignalsEnd() {
        {
            const std::lock_guard Hold(Lock_);
            Over_ = true;
        }
        Changed_.notify_all();
        pthread_kill(Thread_.native_handle(), SIGTERM);
        Thread_.join();
    }
    SignalsEnd(const SignalsEnd &) = delete;
    SignalsEnd &operator=(const SignalsEnd &) = delete;

private:
    static constexpr int Nudge = SIGUSR2; // interrupts the loop's sleep

    void Run() {
        const sigset_t Ending = EndingSignals();
        int Number = 0;
        sigwait(&Ending, &Number);
        std::unique_lock Hold(Lock_);
        if (Over_) {
            return;
        }
        Hold.unlock();
        Files_.EndBackground();
        fuse_session_exit(Session_);
        Hold.lock();
        while (!Over_) { // it may be about to sleep
            pthread_kill(Loop_, Nudge);
            Changed_.wait_for(Hold, std::chrono::milliseconds(10));
        }
    }

    fuse_session *Session_;
    FileSystem &Files_;
    const pthread_t Loop_;
    std::mutex Lock_;
    std::condition_variable Changed_;
    bool Over_ = false;
    std::thread Thread_;
};

} // namespace

void Prepare(MountOptions &Options, SessionOptions &Session) {
    CheckPoint(Options.Point);
    char *Real = realpath(Options.Point.c_str(), nullptr);
    if (Real == nullptr) {
        throw UsageError(fmt::format("{}: {}", Options.Point, strerror(errno)));
    }
    Options.Point = Real;
    free(Real);
    if (Options.Rings && !KernelOffersRings()) {
        throw UsageError("mount: -o io_uring: the kernel does not offer it; from Linux 6.14 on root allows it with: "
                         "echo Y >/sys/module/fuse/parameters/enable_uring");
    }
    Session.Verify = Options.Verify;
    // Names live long, listings do not: from one heap, with what is large outside of it, listings leave no holes that
    // keep growing.
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 256 << 10);
    if (!Options.Foreground) {
        GoIntoBackground();
    }
    // Every thread inherits this; one waits for them.
    const sigset_t Ending = EndingSignals();
    pthread_sigmask(SIG_BLOCK, &Ending, nullptr);
    for (const int Signal : {SIGINT, SIGTERM, SIGHUP}) {
        signal(Signal, SIG_DFL);
    }
}

int Serve(Session &Running, const MountOptions &Options) {
    if (!Options.FaultFile.empty()) {
        Running.SetFault([File = Options.FaultFile] {
            return access(File.c_str(), F_OK) == 0 ? RVSTATUS{0xC7E90101} : RVSTATUS::Success;
        });
    }
    FileSystem Files(Running, Options, Options.Rings ? std::function<void()>([] {}) : TellReady);
    int Ended;
    {
        KernelSession Kernel(Files, Options);
        if (Options.Rings) {
            Kernel.UseRings(Options.Threads, TellReady);
        }
        RaiseReadAhead(Options);
        if (chdir("/") != 0) {
            throw UsageError(fmt::format("/: {}", strerror(errno)));
        }
        const monitor::Server Monitors(Running.Requests(), Options.Point);
        if (!Monitors.Problem().empty()) {
            Complain(fmt::format("monitors cannot attach: {}", Monitors.Problem()));
        }
        fuse_loop_config *Loop = fuse_loop_cfg_create();
        fuse_loop_cfg_set_max_threads(Loop, Options.Threads);
        fuse_loop_cfg_set_idle_threads(Loop, Options.Threads);
        {
            const SignalsEnd Signals(Kernel.Get(), Files);
            Ended = fuse_session_loop_mt(Kernel.Get(), Loop);
        }
        fuse_loop_cfg_destroy(Loop);
    }
    Running.SetFault({});
    Files.CloseAll();
    if (Ended < 0) {
        Complain(fmt::format("mount: {}", strerror(-Ended)));
        return 1;
    }
    return 0;
}

} // namespace app::mount
