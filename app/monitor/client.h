// The other side of a mount's socket.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "providers/directory/beneath.h"

namespace app::monitor {

class Client {
public:
    // Which is a mount point or the number of a process; empty: the only mount there is. UsageError when there is none,
    // or several; mounts that do not answer within two seconds are passed over, and named.
    explicit Client(const std::string &Which);

    // "process" and "serves".
    const nlohmann::json &Mount() const {
        return Mount_;
    }
    void Ask(char Kind);
    // What was asked for is told now.
    void EndAsking();
    // The next object; none when the mount has ended. Interrupted when the user interrupts.
    std::optional<nlohmann::json> Next();
    // Waits so long, until the mount ends, or until the user interrupts, which is no more than that.
    void Wait(int Milliseconds);

private:
    bool Connect(const std::string &Path);

    providers::directory::UniqueFd Socket_;
    nlohmann::json Mount_;
    std::string Pending_;
};

} // namespace app::monitor
