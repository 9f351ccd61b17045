#include "app/mount/request_rings.h"

#include <cstring>
#include <fcntl.h>
#include <fstream>

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include "app/mount/ring_state.h"
#include "app/text.h"

namespace app::mount {

bool KernelOffersRings() {
    const int Device = open("/dev/fuse", O_RDWR | O_CLOEXEC); // which loads the module
    if (Device >= 0) {
        close(Device);
    }
    std::ifstream File("/sys/module/fuse/parameters/enable_uring");
    char Answer = 'N';
    return File >> Answer && Answer == 'Y';
}

RequestRings::RequestRings(fuse_session *Session, unsigned Threads, std::function<void()> Ready)
    : State_(std::make_unique<RingState>(Session, Threads, std::move(Ready))) {
    RingState::Only = State_.get();
    rlimit Limit{}; // each thread has a ring and an event
    if (getrlimit(RLIMIT_NOFILE, &Limit) == 0) {
        Limit.rlim_cur = Limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &Limit); // or it ends earlier, with a word
    }
    fuse_custom_io Through = {};
    Through.read = [](int From, void *Buffer, size_t Length, void *) {
        return RingState::Only.load()->Read(From, Buffer, Length);
    };
    Through.writev = [](int To, iovec *Parts, int Count, void *) {
        return RingState::Only.load()->Write(To, Parts, Count);
    };
    if (const int Error = fuse_session_custom_io(Session, &Through, fuse_session_fd(Session)); Error != 0) {
        throw UsageError(fmt::format("mount: requests over io_uring: {}", strerror(-Error)));
    }
}

RequestRings::~RequestRings() {
    RingState::Only = nullptr;
}

void RequestRings::End() {
    State_->End();
}

RequestRings::Away::Away() {
    if (RingState::IsOwner && RingState::Mine != nullptr) {
        const std::lock_guard Hold(RingState::Only.load()->Lock_);
        RingState::Only.load()->Leave(*RingState::Mine->Of);
    }
}

RequestRings::Away::~Away() {
    if (RingState::IsOwner && RingState::Mine != nullptr) {
        const std::lock_guard Hold(RingState::Only.load()->Lock_);
        RingState::Only.load()->Return(*RingState::Mine->Of);
    }
}

char *RequestRings::AnswerSpace(size_t Length) {
    const RingState::Entry *At = RingState::Mine;
    const bool Fits = At != nullptr && At->Unique != 0 && Length <= RingState::Only.load()->PayloadBytes_;
    return Fits ? At->Payload : nullptr;
}

} // namespace app::mount
