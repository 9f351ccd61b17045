// What rvfsd monitor and rvfsd stats attach to: a socket of a running mount.
//
// It lies in a directory that is its user's alone. While nobody is attached it costs one sleeping thread, and requests
// nothing. Each who attaches is told on a line what the mount is, says with one byte what he came for, and gets from
// then on a line for each completed request ('m'), or, once he has ended his side or the mount ends, what is open and
// the counts and times of what was completed since ('s'). All lines are JSON objects. One who reads lines too slowly
// loses some, and is told how many: no request waits for him.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/journal/request_tap.h"

namespace app::monitor {

// Where sockets of this user's mounts may be, the preferred place first.
std::vector<std::string> SocketDirectories();
// Whether it is a directory of this user's that nobody else may look into.
bool IsPrivate(const std::string &Directory);

class Server {
public:
    // Serves is what the mount is known by: its mount point. Tap outlives the server.
    Server(RequestTap &Tap, std::string Serves);
    // Ends every connection.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Why nobody can attach; empty when somebody can.
    const std::string &Problem() const {
        return Problem_;
    }

private:
    class Attached;

    bool Listen(const std::string &Directory);
    void Serve();
    bool Accept();

    RequestTap &Tap_;
    const std::string Serves_;
    std::string Problem_;
    std::string Path_;
    int Listening_ = -1;
    int Ending_ = -1;                               // an eventfd
    std::list<std::unique_ptr<Attached>> Attached_; // the thread's
    std::thread Thread_;
};

} // namespace app::monitor
