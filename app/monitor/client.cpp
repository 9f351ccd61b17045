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

Client::Client(const std::string &Which) {
    char *Real = realpath(Which.c_str(), nullptr);
    const std::string Point = Real != nullptr ? Real : Which;
    free(Real);
    std::vector<std::pair<int, nlohmann::json>> Found;
    std::string Running;
    for (const std::string &Directory : SocketDirectories()) {
        if (!IsPrivate(Directory)) {
            continue; // somebody else may have put a socket there
        }
        std::error_code Error;
        for (const auto &Entry : std::filesystem::directory_iterator(Directory, Error)) {
            if (Entry.path().extension() != ".sock" || !Connect(Entry.path())) {
                continue;
            }
            const std::string Process = fmt::format("{}", Mount_.value("process", 0));
            const std::string Serves = Mount_.value("serves", "");
            if (!Which.empty() && Which != Process && Point != Serves) {
                close(std::exchange(Socket_, -1));
                continue;
            }
            Running += fmt::format("{}{} (process {})", Found.empty() ? "" : ", ", Serves, Process);
            Found.emplace_back(std::exchange(Socket_, -1), std::move(Mount_));
        }
    }
    if (Found.size() == 1) {
        std::tie(Socket_, Mount_) = std::move(Found.front());
        return;
    }
    for (const auto &[Socket, Mount] : Found) {
        close(Socket);
    }
    throw UsageError(!Found.empty()  ? "several mounts are running, name one: " + Running
                     : Which.empty() ? "no mount of this user is running"
                                     : fmt::format("{}: no mount of this user, nor a process of one", Which));
}

Client::~Client() {
    if (Socket_ >= 0) {
        close(Socket_);
    }
}

// Connects and reads what the mount is. False when nobody is there any more.
bool Client::Connect(const std::string &Path) {
    sockaddr_un Address = {};
    if (Path.size() >= sizeof(Address.sun_path)) {
        return false;
    }
    Address.sun_family = AF_UNIX;
    strncpy(Address.sun_path, Path.c_str(), sizeof(Address.sun_path) - 1);
    Socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Pending_.clear();
    if (Socket_ >= 0 && connect(Socket_, reinterpret_cast<const sockaddr *>(&Address), sizeof(Address)) == 0) {
        if (std::optional<nlohmann::json> First = Next()) {
            Mount_ = std::move(*First);
            return true;
        }
    }
    close(std::exchange(Socket_, -1));
    return false;
}

void Client::Ask(char Kind) {
    send(Socket_, &Kind, 1, MSG_NOSIGNAL);
}

void Client::EndAsking() {
    shutdown(Socket_, SHUT_WR);
}

void Client::Wait(int Milliseconds) {
    pollfd Ended = {Socket_, POLLIN, 0};
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
        const ssize_t Count = read(Socket_, Bytes, sizeof(Bytes));
        CheckInterrupt();
        if (Count > 0) {
            Pending_.append(Bytes, static_cast<size_t>(Count));
        } else if (Count == 0 || errno != EINTR) {
            return std::nullopt;
        }
    }
}

} // namespace app::monitor
