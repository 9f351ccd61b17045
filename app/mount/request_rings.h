// Requests of the kernel over io_uring, where its administrator allows that: one system call answers a request and
// waits for the next one, and who serves it runs on the processor of the program that waits.
//
// The kernel has a queue for each processor. A queue is served by threads that each have a ring of their own with one
// entry in it, so that whoever is given a request is free. What libfuse does with a request it does as ever: it gets
// the request from here in one piece, and what it writes goes back into the entry. Forgotten names, interruptions and
// the first request of a mount come through /dev/fuse all the same.
//
// An answer may be put off: a program waits for a lock. Its entry waits with it, and its thread; another thread takes
// the place of that one, so that as many as before are free.
#pragma once

#include <cstddef>
#include <memory>
#include <sys/types.h>

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

namespace app::mount {

// Whether the kernel offers it to the mounts that are made from now on.
bool KernelOffersRings();

class RequestRings {
public:
    // Puts itself between Session, which is mounted and has not seen a request yet, and its descriptor. Threads is how
    // many are to be free in all, at least two for each queue. One in a process; it outlives the session.
    RequestRings(fuse_session *Session, unsigned Threads);
    ~RequestRings();
    RequestRings(const RequestRings &) = delete;
    RequestRings &operator=(const RequestRings &) = delete;

    // Ends the threads; each finishes the request that it has. Called before the session is unmounted, when no other
    // thread reads its descriptor any more.
    void End();

    // Where the answer to the request that this thread has is to be written, so that it need not be copied; null when
    // the request came another way, or the answer may be longer than there is room.
    static char *AnswerSpace(size_t Length);

private:
    class State;
    std::unique_ptr<State> State_;
};

} // namespace app::mount
