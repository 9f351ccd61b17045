// System calls without the library's wrappers, which are points where a thread can be cancelled and pay for that twice
// a call. No thread is cancelled here. Results are the library's, with errno.
#pragma once

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace providers::directory {

inline int CloseDescriptor(int Fd) {
    return static_cast<int>(syscall(SYS_close, Fd));
}
inline int OpenByHandle(int Mount, file_handle *Handle, int Flags) {
    return static_cast<int>(syscall(SYS_open_by_handle_at, Mount, Handle, Flags));
}
// Command is one of the locks of open file descriptions.
inline int LockDescription(int Fd, int Command, struct flock &Lock) {
    return static_cast<int>(syscall(SYS_fcntl, Fd, Command, &Lock));
}
// What is ready, without waiting.
inline int ReadyNow(int Epoll, epoll_event *Events, int Most) {
    return static_cast<int>(syscall(SYS_epoll_wait, Epoll, Events, Most, 0));
}

} // namespace providers::directory
