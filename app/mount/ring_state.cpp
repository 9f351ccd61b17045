#include "app/mount/ring_state.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <sys/eventfd.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RVFSD_THREAD_SANITIZER
extern "C" void __tsan_acquire(void *);
extern "C" void __tsan_release(void *);
#endif
#endif

namespace app::mount {

namespace {

// Forgotten names come one by one, and each would wake a thread. After a moment one reading takes all that there are.
constexpr std::chrono::milliseconds Pace{5};

[[maybe_unused]] char ThroughKernel;

} // namespace

void TellsKernel() {
#ifdef RVFSD_THREAD_SANITIZER
    __tsan_release(&ThroughKernel);
#endif
}

void HearsKernel() {
#ifdef RVFSD_THREAD_SANITIZER
    __tsan_acquire(&ThroughKernel);
#endif
}

thread_local RingState::Entry *RingState::Mine = nullptr;
thread_local bool RingState::IsOwner = false;
std::atomic<RingState *> RingState::Only{nullptr};

ssize_t RingState::Read(int From, void *Buffer, size_t Length) {
    if (Slow_) {
        std::this_thread::sleep_for(Pace);
    }
    const ssize_t Count = read(From, Buffer, Length);
    HearsKernel();
    if (Count >= static_cast<ssize_t>(sizeof(fuse_in_header) + sizeof(fuse_init_in)) &&
        static_cast<const fuse_in_header *>(Buffer)->opcode == FUSE_INIT) {
        const auto *Header = static_cast<const fuse_in_header *>(Buffer);
        const auto *Offer = reinterpret_cast<const fuse_init_in *>(Header + 1);
        Offered_ = (Offer->flags & FUSE_INIT_EXT) != 0 && (Offer->flags2 & OverRings) != 0;
        FirstRequest_ = Header->unique;
    }
    return Count;
}

ssize_t RingState::Write(int To, const iovec *Parts, int Count) {
    TellsKernel();
    const auto *Header = static_cast<const fuse_out_header *>(Parts[0].iov_base);
    if (Header->unique != 0 && Running_) {
        if (IsOwner && Mine != nullptr && Mine->Unique == Header->unique && Mine->Now == Phase::Serving) {
            Fill(*Mine, Parts, Count);
            Mine->Now = Phase::Answered;
            return static_cast<ssize_t>(Header->len);
        }
        const std::lock_guard Hold(Lock_);
        if (Entry *At = FindLocked(Header->unique)) {
            FillForOther(*At, Parts, Count);
            return static_cast<ssize_t>(Header->len);
        }
    }
    if ((Header->unique & InterruptBit) != 0 && Header->error == -EAGAIN && Running_) {
        Interrupt(Header->unique & ~InterruptBit); // the kernel would not say it again of a request on a ring
    }
    if (Header->unique == 0 || Header->unique != FirstRequest_) {
        return writev(To, Parts, Count);
    }
    FirstRequest_ = 0;
    const ssize_t Sent = Agree(To, Parts, Count);
    Ready_();
    return Sent;
}

// libfuse agrees with the kernel on what both do. All must be ready before: from then on the kernel has requests wait
// until each of its queues is served.
ssize_t RingState::Agree(int To, const iovec *Parts, int Count) {
    const auto *Header = static_cast<const fuse_out_header *>(Parts[0].iov_base);
    const bool Fits = Count == 2 && Parts[1].iov_len >= offsetof(fuse_init_out, flags2) + sizeof(uint32_t) &&
                      Parts[1].iov_len <= sizeof(fuse_init_out);
    if (!Offered_ || Header->error != 0 || !Fits) {
        return writev(To, Parts, Count);
    }
    Device_ = To;
    fuse_init_out Agreed = {};
    memcpy(&Agreed, Parts[1].iov_base, Parts[1].iov_len);
    const bool Ready = Start(Agreed);
    Agreed.flags |= Ready ? uint32_t{FUSE_INIT_EXT} : 0u;
    Agreed.flags2 |= Ready ? OverRings : 0;
    const iovec Changed[] = {Parts[0], {&Agreed, Parts[1].iov_len}};
    Running_ = Slow_ = Ready;
    const ssize_t Sent = writev(To, Changed, 2);
    const std::lock_guard Hold(Lock_);
    Go_ = Ready && Sent > 0;
    Changed_.notify_all();
    return Sent;
}

// The entry of a request that is not answered; null when there is none. With the lock held.
RingState::Entry *RingState::FindLocked(uint64_t Unique) {
    for (const std::unique_ptr<Worker> &Each : Workers_) {
        for (const std::unique_ptr<Entry> &At : Each->Entries) {
            if (At->Unique == Unique) {
                return At.get();
            }
        }
    }
    return nullptr;
}

// The answer is in the entry from now on, to be told to the kernel by its own thread.
void RingState::Fill(Entry &At, const iovec *Parts, int Count) const {
    fuse_out_header Header;
    memcpy(&Header, Parts[0].iov_base, sizeof(Header));
    if (At.GivesUp && Header.error == -EINTR) {
        Header.error = -ENOLCK; // there was no signal, and without one no program expects EINTR
    }
    memcpy(At.Headers->Header, &Header, sizeof(Header));
    size_t Used = 0;
    for (int Index = 1; Index < Count; ++Index) {
        const size_t Length = std::min(Parts[Index].iov_len, PayloadBytes_ - Used);
        if (Length != 0 && Parts[Index].iov_base != At.Payload + Used) {
            memcpy(At.Payload + Used, Parts[Index].iov_base, Length);
        }
        Used += Length;
    }
    At.Headers->Entry.PayloadBytes = static_cast<uint32_t>(Used);
    At.Unique = 0;
}

// By another thread than the entry's, which may be about to put the request off. With the lock held.
void RingState::FillForOther(Entry &At, const iovec *Parts, int Count) {
    Fill(At, Parts, Count);
    if (At.Now.exchange(Phase::Answered) == Phase::PutOff) {
        At.Of->Answered.push_back(&At);
        eventfd_write(At.Of->Wake, 1);
    }
}

} // namespace app::mount
