#include "app/monitor/server.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/journal/asking_program.h"
#include "app/monitor/latencies.h"
#include "app/text.h"
#include "providers/directory/beneath.h"

namespace app::monitor {

namespace {

using nlohmann::json;

constexpr int SendBufferBytes = 1 << 20; // what a slow reader may be behind

std::string LineOf(const json &Object) {
    return Object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

bool IsFailure(NTSTATUS Status) {
    return static_cast<ULONG>(Status) >> 30 == 3;
}

// Only its user may be in it: what passes through names his files.
bool MakePrivate(const std::string &Directory) {
    return (mkdir(Directory.c_str(), 0700) == 0 || errno == EEXIST) && IsPrivate(Directory);
}

bool AddressOf(const std::string &Path, sockaddr_un *Address) {
    *Address = {};
    Address->sun_family = AF_UNIX;
    strncpy(Address->sun_path, Path.c_str(), sizeof(Address->sun_path) - 1);
    return Path.size() < sizeof(Address->sun_path);
}

// Nobody listens at a socket whose process was killed. One that is being made refuses too for a moment, so that its
// process must have gone as well.
void RemoveDead(const std::string &Directory) {
    std::error_code Error;
    for (const auto &Entry : std::filesystem::directory_iterator(Directory, Error)) {
        const std::string Process = Entry.path().stem();
        sockaddr_un Address;
        if (Entry.path().extension() != ".sock" || !AddressOf(Entry.path(), &Address) ||
            access(("/proc/" + Process).c_str(), F_OK) == 0) {
            continue;
        }
        const providers::directory::UniqueFd Socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(Socket.Get(), reinterpret_cast<const sockaddr *>(&Address), sizeof(Address)) != 0 &&
            errno == ECONNREFUSED) {
            unlink(Address.sun_path);
        }
    }
}

} // namespace

bool IsPrivate(const std::string &Directory) {
    struct stat Found;
    return lstat(Directory.c_str(), &Found) == 0 && S_ISDIR(Found.st_mode) && Found.st_uid == geteuid() &&
           (Found.st_mode & 077) == 0;
}

std::vector<std::string> SocketDirectories() {
    std::vector<std::string> All;
    if (const char *Runtime = getenv("XDG_RUNTIME_DIR"); Runtime != nullptr && *Runtime == '/') {
        All.push_back(std::string(Runtime) + "/rvfsd");
    }
    All.push_back(fmt::format("/tmp/rvfsd-{}", geteuid()));
    return All;
}

// One connection, and what it is told of requests.
class Server::Attached final : public RequestListener {
public:
    Attached(int Socket, RequestTap &Tap) : Socket_(Socket), Tap_(Tap) {
    }
    ~Attached() override {
        Leave();
        close(Socket_);
    }
    Attached(const Attached &) = delete;
    Attached &operator=(const Attached &) = delete;

    int Socket() const {
        return Socket_;
    }
    // Something can be read. False when that is the end.
    bool Heard() {
        char Kind = 0;
        if (recv(Socket_, &Kind, 1, MSG_DONTWAIT) == 1) {
            if (!Listening_ && (Kind == 'm' || Kind == 's')) {
                Counts_ = Kind == 's';
                Listening_ = true;
                Tap_.Add(*this);
            }
            return true;
        }
        Finish();
        return false;
    }
    // Tells what was counted.
    void Finish() {
        Leave();
        if (!Counts_) {
            return;
        }
        const embedded::OpenFiles Now = embedded::CountOpenFiles();
        Send(LineOf({{"opens", Now.Handles}, {"fcbs", Now.ControlBlocks}}));
        for (const auto &[Operation, Of] : Totals_) {
            Send(LineOf({{"operation", Operation},
                         {"count", Of.Times.Count()},
                         {"failed", Of.Failed},
                         {"p50_ns", Of.Times.Percentile(50)},
                         {"p90_ns", Of.Times.Percentile(90)},
                         {"p99_ns", Of.Times.Percentile(99)},
                         {"max_ns", Of.Times.Longest()}}));
        }
    }
    void Send(const std::string &Line) noexcept {
        const auto Put = [&](const std::string &Bytes) -> size_t {
            const ssize_t Count = send(Socket_, Bytes.data(), Bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            return Count > 0 ? static_cast<size_t>(Count) : 0;
        };
        if (!Rest_.empty()) {
            Rest_.erase(0, Put(Rest_));
        }
        const std::string Bytes = Lost_ == 0 ? Line : LineOf({{"lost", Lost_}}) + Line;
        const size_t Done = Rest_.empty() ? Put(Bytes) : 0;
        if (Done == 0) {
            ++Lost_;
            return;
        }
        Lost_ = 0;
        Rest_ = Bytes.substr(Done);
    }

private:
    struct Total {
        Latencies Times;
        uint64_t Failed = 0;
    };

    void Leave() {
        if (Listening_) {
            Listening_ = false;
            Tap_.Remove(*this);
        }
    }
    void RequestCompleted(const Request &About) noexcept override {
        if (Counts_) {
            const std::lock_guard Hold(Lock_);
            Total &Of = Totals_[About.Operation];
            Of.Times.Add(static_cast<uint64_t>(About.Ended - About.Started));
            Of.Failed += IsFailure(About.Status) ? 1 : 0;
            return;
        }
        const Program Asking = ProgramOf(About.AskedBy);
        json Line = {{"request", About.Id},
                     {"time_ns", About.EndedAt},
                     {"process", Asking.Process},
                     {"program", Asking.Name},
                     {"thread", About.Thread},
                     {"operation", About.Operation},
                     {"path", About.Path},
                     {"status", StatusName(About.Status)},
                     {"failed", IsFailure(About.Status)},
                     {"information", About.Information},
                     {"nanoseconds", About.Ended - About.Started}};
        for (const providers::CallValue &Value : About.Details) {
            Line["details"][Value.Name] = Value.Text;
        }
        const std::string Text = LineOf(Line);
        const std::lock_guard Hold(Lock_);
        Send(Text);
    }

    const int Socket_;
    RequestTap &Tap_;
    bool Counts_ = false; // instead of lines
    bool Listening_ = false;
    std::mutex Lock_; // the rest, while it listens
    uint64_t Lost_ = 0;
    std::string Rest_; // of a line that went out in part
    std::map<std::string_view, Total> Totals_;
};

Server::Server(RequestTap &Tap, std::string Serves) : Tap_(Tap), Serves_(std::move(Serves)) {
    Ending_ = eventfd(0, EFD_CLOEXEC);
    for (const std::string &Directory : SocketDirectories()) {
        if (Ending_ >= 0 && Listen(Directory)) {
            Problem_.clear();
            Thread_ = std::thread([this] { Serve(); });
            return;
        }
    }
}

bool Server::Listen(const std::string &Directory) {
    if (!MakePrivate(Directory)) {
        Problem_ = Directory + ": not a directory of this user alone";
        return false;
    }
    Path_ = fmt::format("{}/{}.sock", Directory, getpid());
    sockaddr_un Address;
    if (!AddressOf(Path_, &Address)) {
        Problem_ = fmt::format("{}: {}", Path_, strerror(ENAMETOOLONG));
        return false;
    }
    RemoveDead(Directory);
    unlink(Path_.c_str()); // of a process of the same number that was killed
    Listening_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (Listening_ < 0 || bind(Listening_, reinterpret_cast<const sockaddr *>(&Address), sizeof(Address)) != 0 ||
        listen(Listening_, 8) != 0) {
        Problem_ = fmt::format("{}: {}", Path_, strerror(errno));
        close(Listening_);
        Listening_ = -1;
        return false;
    }
    return true;
}

Server::~Server() {
    if (Thread_.joinable()) {
        eventfd_write(Ending_, 1);
        Thread_.join();
        unlink(Path_.c_str());
    }
    for (const int Descriptor : {Listening_, Ending_}) {
        if (Descriptor >= 0) {
            close(Descriptor);
        }
    }
}

// The thread: takes in who attaches, lets go who leaves.
void Server::Serve() {
    sigset_t All;
    sigfillset(&All); // they are for the threads that serve
    pthread_sigmask(SIG_BLOCK, &All, nullptr);
    for (bool Full = false;;) {
        // Without a descriptor to spare nobody is let in: who waits for it must not keep this thread busy.
        std::vector<pollfd> Waiting = {{Ending_, POLLIN, 0}, {Full ? -1 : Listening_, POLLIN, 0}};
        for (const auto &Each : Attached_) {
            Waiting.push_back({Each->Socket(), POLLIN, 0});
        }
        const int Ready = poll(Waiting.data(), Waiting.size(), Full ? 100 : -1);
        if (Ready < 0 && errno == EINTR) {
            continue;
        }
        if (Ready < 0 || Waiting[0].revents != 0) {
            for (const auto &Each : Attached_) {
                Each->Finish();
            }
            return;
        }
        size_t Index = 2;
        std::erase_if(Attached_, [&](const std::unique_ptr<Attached> &Each) {
            return Waiting[Index++].revents != 0 && !Each->Heard();
        });
        Full = Waiting[1].revents != 0 && !Accept();
    }
}

// False when nobody can be let in now.
bool Server::Accept() {
    const int Socket = accept4(Listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (Socket < 0) {
        return errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
    }
    setsockopt(Socket, SOL_SOCKET, SO_SNDBUF, &SendBufferBytes, sizeof(SendBufferBytes));
    Attached_.push_back(std::make_unique<Attached>(Socket, Tap_));
    Attached_.back()->Send(LineOf({{"process", getpid()}, {"serves", Serves_}}));
    return true;
}

} // namespace app::monitor
