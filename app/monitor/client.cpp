#include "app/monitor/client.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <tuple>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/interrupt.h"
#include "app/monitor/server.h"
#include "app/text.h"

namespace app::monitor {

using providers::directory::UniqueFd;

Client::Client(const std::string &Which) {
    char *Real = realpath(Which.c_str(), nullptr);
    const std::string Point = Real != nullptr ? Real : Which;
    free(Real);
    std::vector<std::pair<UniqueFd, nlohmann::json>> Found;
    std::string Running;
    std::string Silent;
    for (const std::string &Directory : SocketDirectories()) {
        if (!IsPrivate(Directory)) {
            continue; // somebody else may have put a socket there
        }
        std::error_code Error;
        for (const auto &Entry : std::filesystem::directory_iterator(Directory, Error)) {
            if (Entry.path().extension() != ".sock") {
                continue;
            }
            if (!Connect(Entry.path())) {
                if (errno == EAGAIN) {
                    Silent += fmt::format("; process {} does not answer", Entry.path().stem().native());
                }
                continue;
            }
            const std::string Process = fmt::format("{}", Mount_.value("process", 0));
            const std::string Serves = Mount_.value("serves", "");
            if (!Which.empty() && Which != Process && Point != Serves) {
                continue;
            }
            Running += fmt::format("{}{} (process {})", Found.empty() ? "" : ", ", Serves, Process);
            Found.emplace_back(std::move(Socket_), std::move(Mount_));
        }
    }
    if (Found.size() == 1) {
        std::tie(Socket_, Mount_) = std::move(Found.front());
        return;
    }
    throw UsageError(!Found.empty()  ? "several mounts are running, name one: " + Running
                     : Which.empty() ? "no mount of this user is running" + Silent
                                     : fmt::format("{}: no mount of this user, nor a process of one{}", Which, Silent));
}

// Connects and reads what the mount is. False, with errno, when nobody is there any more; EAGAIN when he does not
// answer.
bool Client::Connect(const std::string &Path) {
    sockaddr_un Address = {};
    if (Path.size() >= sizeof(Address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    Address.sun_family = AF_UNIX;
    strncpy(Address.sun_path, Path.c_str(), sizeof(Address.sun_path) - 1);
    Socket_ = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Pending_.clear();
    const auto WaitAtMost = [this](timeval Time) {
        for (const int Direction : {SO_SNDTIMEO, SO_RCVTIMEO}) { // a connect is timed as what is sent
            setsockopt(Socket_.Get(), SOL_SOCKET, Direction, &Time, sizeof(Time));
        }
    };
    WaitAtMost({2, 0});
    if (connect(Socket_.Get(), reinterpret_cast<const sockaddr *>(&Address), sizeof(Address)) != 0) {
        return false;
    }
    std::optional<nlohmann::json> First = Next();
    if (!First) {
        return false;
    }
    WaitAtMost({});
    Mount_ = std::move(*First);
    return true;
}

void Client::Ask(char Kind) {
    send(Socket_.Get(), &Kind, 1, MSG_NOSIGNAL);
}

void Client::EndAsking() {
    shutdown(Socket_.Get(), SHUT_WR);
}

void Client::Wait(int Milliseconds) {
    pollfd Ended = {Socket_.Get(), POLLIN, 0};
    poll(&Ended, 1, Milliseconds);
    LowerInterrupt();
}

std::optional<nlohmann::json> Client::Next() {
    for (;;) {
        if (const size_t End = Pending_.find('\n'); End != Pending_.npos) {
            nlohmann::json Line = nlohmann::json::parse(Pending_.begin(), Pending_.begin() + static_cast<long>(End));
            Pending_.erase(0, End + 1);
            return Line;
        }
        char Bytes[65536];
        errno = 0;
        const ssize_t Count = read(Socket_.Get(), Bytes, sizeof(Bytes));
        CheckInterrupt();
        if (Count > 0) {
            Pending_.append(Bytes, static_cast<size_t>(Count));
        } else if (Count == 0 || errno != EINTR) {
            return std::nullopt;
        }
    }
}

} // namespace app::monitor
