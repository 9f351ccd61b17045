// Requests of the kernel over io_uring, where its administrator allows that: one system call answers a request and
// waits for the next one, and two programs on two processors are not in each other's way.
//
// The kernel has a queue for each processor. A queue is served by threads that each have a ring of their own with one
// entry in it, so that whoever is given a request is free. They run where the kernel puts them: held on the queue's
// processor they read a third slower. What libfuse does with a request it does as ever: it gets the request from here
// in one piece, and what it writes goes back into the entry. Forgotten names, interruptions and the first request of a
// mount come through /dev/fuse all the same.
//
// An answer may be put off: a program waits for a lock. Its entry stays with it, and another thread takes the place of
// the one that the entry belongs to. What the kernel has for a queue while no entry is left there, it gives to nobody
// until another request of that queue is answered, so each queue has a reserve of entries besides, which grows before
// it ends. Whatever reaches the reserve is served by threads without rings.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <sys/types.h>

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

namespace app::mount {

// Whether the kernel offers it to the mounts that are made from now on.
bool KernelOffersRings();

class RingState;

class RequestRings {
public:
    // Puts itself between Session, which is mounted and has not seen a request yet, and its descriptor. Threads is how
    // many are to be free in all, at least four for each processor. Ready is called once the session and the kernel
    // have agreed on what both do, whatever that is. One in a process; it outlives the session.
    RequestRings(fuse_session *Session, unsigned Threads, std::function<void()> Ready);
    ~RequestRings();
    RequestRings(const RequestRings &) = delete;
    RequestRings &operator=(const RequestRings &) = delete;

    // Ends the threads; each finishes the request that it has. Called before the session is unmounted, when no other
    // thread reads its descriptor any more.
    void End();

    // While it lives, the request that this thread has takes long, and another thread takes its place.
    class Away {
    public:
        Away();
        ~Away();
        Away(const Away &) = delete;
        Away &operator=(const Away &) = delete;
    };

    // Where the answer to the request that this thread has is to be written, so that it need not be copied; null when
    // the request came another way, or the answer may be longer than there is room.
    static char *AnswerSpace(size_t Length);

private:
    std::unique_ptr<RingState> State_;
};

} // namespace app::mount
