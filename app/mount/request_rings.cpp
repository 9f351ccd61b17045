#include "app/mount/request_rings.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <liburing.h>
#include <linux/fuse.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <unistd.h>

#include "app/text.h"

namespace app::mount {

namespace {

// The kernel's interface of Linux 6.14, which the headers of older systems do not have.
constexpr uint32_t OverRings = 1u << (41 - 32); // of the second word of flags in both messages of FUSE_INIT
enum class Command : uint32_t { Register = 1, CommitAndFetch = 2 };

struct EntryState {
    uint64_t Flags;
    uint64_t Commit;
    uint32_t PayloadBytes;
    uint32_t Padding;
    uint64_t Reserved;
};

struct EntryHeaders {
    char Header[128];          // fuse_in_header, and fuse_out_header in the answer
    char OperationHeader[128]; // the request's own header; answers have all in the payload
    EntryState Entry;
};
static_assert(sizeof(EntryHeaders) == 288);

struct CommandWords {
    uint64_t Flags;
    uint64_t Commit;
    uint16_t Queue;
    uint8_t Padding[6];
};

constexpr unsigned MostQueues = 256;
constexpr unsigned LeastFree = 4;    // of a queue whose processor is there
constexpr unsigned MostOfQueue = 64; // threads, where programs wait: then its reserve alone grows
constexpr unsigned ReserveEntries = 32;
constexpr size_t MostEarly = 64;
constexpr size_t SmallPayload = 8192; // names, and short writes
constexpr size_t MostHeaders = sizeof(fuse_in_header) + sizeof(EntryHeaders::OperationHeader);
// Forgotten names come one by one, and each would wake a thread. After a moment one reading takes all that there are.
constexpr std::chrono::milliseconds Pace{5};
constexpr uint64_t InterruptBit = 1; // in the number of an interruption, beside that of the request

size_t PageBytes() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// What the system says of its processors in File: by number, whether each is in the list.
std::vector<bool> Processors(const char *File) {
    std::ifstream Opened(fmt::format("/sys/devices/system/cpu/{}", File));
    std::vector<bool> Out;
    unsigned First = 0;
    for (char After = ','; After == ',' && Opened >> First;) {
        unsigned Last = First;
        if (Opened.get(After) && After == '-') {
            Opened >> Last;
            After = ' ';
            Opened.get(After);
        }
        if (Last >= MostQueues) {
            return {};
        }
        Out.resize(std::max<size_t>(Out.size(), Last + 1));
        std::fill(Out.begin() + First, Out.begin() + Last + 1, true);
    }
    return Out;
}

// A place in the ring, which is emptied when it is full.
io_uring_sqe *NextOf(io_uring &Ring) {
    io_uring_sqe *Words;
    while ((Words = io_uring_get_sqe(&Ring)) == nullptr) {
        io_uring_submit(&Ring);
    }
    return Words;
}

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define RVFSD_THREAD_SANITIZER
extern "C" void __tsan_acquire(void *);
extern "C" void __tsan_release(void *);
#endif
#endif

// A program asks next for what it was told before, on whatever thread that is served: the kernel keeps that order,
// which the thread sanitizer cannot see.
[[maybe_unused]] char ThroughKernel;

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

} // namespace

class RequestRings::State {
public:
    State(fuse_session *Session, unsigned Threads, std::function<void()> Ready)
        : Session_(Session), Threads_(Threads), Ready_(std::move(Ready)) {
    }
    ~State();

    ssize_t Read(int From, void *Buffer, size_t Length);
    ssize_t Write(int To, const iovec *Parts, int Count);

private:
    friend class RequestRings;

    enum class Phase { Free, Serving, PutOff, Answered };
    struct Worker;

    // What the kernel puts one request into, and takes its answer from.
    struct Entry {
        Worker *Of;
        std::unique_ptr<EntryHeaders> Headers = std::make_unique<EntryHeaders>();
        char *Mapped = nullptr; // a page in which a request's headers can be put before its payload, and the payload
        char *Payload = nullptr;
        iovec Parts[2] = {};             // as the kernel is told of it
        std::atomic<uint64_t> Unique{0}; // of the request that is not answered yet
        // Serving becomes Answered by the worker's own thread, or as all other changes with the lock.
        std::atomic<Phase> Now{Phase::Free};
        std::atomic<bool> GivesUp{false}; // the program that waits cannot be let wait
    };

    // A thread and its ring: one entry; or for the reserve of a queue many, whose requests other threads serve.
    struct Worker {
        uint16_t Queue;
        bool IsReserve;
        bool HasServed = false;
        io_uring Ring = {};
        int Wake = -1;                              // told of what is in Answered, and of the end
        std::deque<std::unique_ptr<Entry>> Entries; // grows by its thread, with the lock
        std::vector<Entry *> Answered;              // that had been put off; with the lock
        size_t PutOff = 0;                          // entries; with the lock
        std::thread Runs;
    };

    ssize_t Agree(int To, const iovec *Parts, int Count);
    bool Start(const fuse_init_out &Agreed);
    template <class Starter>
    void AddThread(Starter Start);
    void Add(unsigned Queue, bool IsReserve);
    bool SetUp(Worker &One);
    bool AddEntries(Worker &One, unsigned Count);
    void Run(Worker &One);
    void Fail(Worker &One, int Error);
    void Serve(Worker &One);
    bool HearWake(Worker &One);
    static uint64_t UniqueOf(const Entry &At);
    void Give(Entry &At);
    void Process(Entry &At);
    bool PutOff(Entry &At);
    void HandOver(Entry &At);
    void ServeHandedOver();
    void Leave(Worker &One);
    void Return(Worker &One);
    void Submit(Entry &At, Command What);
    void AwaitWake(Worker &One);
    void Fill(Entry &At, const iovec *Parts, int Count) const;
    void FillForOther(Entry &At, const iovec *Parts, int Count);
    Entry *FindLocked(uint64_t Unique);
    bool WasInterrupted(uint64_t Unique) const;
    void Interrupt(uint64_t Unique);
    void End();

    fuse_session *Session_;
    const unsigned Threads_;
    const std::function<void()> Ready_;
    int Device_ = -1;
    size_t PayloadBytes_ = 0;
    std::vector<unsigned> Wanted_;          // by queue: free threads besides the reserve
    std::atomic<uint64_t> FirstRequest_{0}; // FUSE_INIT
    std::atomic<bool> Offered_{false};      // rings, by that request
    std::atomic<bool> Running_{false};
    std::atomic<bool> Stops_{false};
    std::atomic<bool> Slow_{false}; // no program waits for what comes through /dev/fuse
    std::mutex Lock_;               // for all below
    std::condition_variable Changed_;
    std::vector<std::unique_ptr<Worker>> Workers_;
    std::vector<unsigned> Free_; // by queue: threads that neither wait for an answer of another's nor take long
    std::vector<unsigned> All_;  // by queue: threads
    std::deque<Entry *> HandedOver_;
    std::condition_variable Handed_;
    std::vector<std::thread> Helpers_; // serve those
    size_t Idle_ = 0;                  // of them
    std::deque<uint64_t> Early_;       // requests that were interrupted before libfuse knew them, the last ones
    unsigned SetUp_ = 0;
    size_t Reserves_ = 0; // that the kernel knows: it takes the entry that became free last, so they come first
    bool Complained_ = false;
    bool Failed_ = false;
    bool Ended_ = false;
    std::optional<bool> Go_;

    static thread_local Entry *Mine;  // whose request this thread serves
    static thread_local bool IsOwner; // whether its ring is this thread's
    static std::atomic<State *> Only;
};

thread_local RequestRings::State::Entry *RequestRings::State::Mine = nullptr;
thread_local bool RequestRings::State::IsOwner = false;
std::atomic<RequestRings::State *> RequestRings::State::Only{nullptr};

// ---- Between libfuse and the kernel -----------------------------------------------------------------------------

ssize_t RequestRings::State::Read(int From, void *Buffer, size_t Length) {
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

ssize_t RequestRings::State::Write(int To, const iovec *Parts, int Count) {
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
ssize_t RequestRings::State::Agree(int To, const iovec *Parts, int Count) {
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
RequestRings::State::Entry *RequestRings::State::FindLocked(uint64_t Unique) {
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
void RequestRings::State::Fill(Entry &At, const iovec *Parts, int Count) const {
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
void RequestRings::State::FillForOther(Entry &At, const iovec *Parts, int Count) {
    Fill(At, Parts, Count);
    if (At.Now.exchange(Phase::Answered) == Phase::PutOff) {
        At.Of->Answered.push_back(&At);
        eventfd_write(At.Of->Wake, 1);
    }
}

// ---- Threads ----------------------------------------------------------------------------------------------------

// Starts all threads. Whether each has its ring.
bool RequestRings::State::Start(const fuse_init_out &Agreed) {
    const std::vector<bool> Possible = Processors("possible");
    std::vector<bool> Online = Processors("online");
    if (Possible.empty() || std::count(Possible.begin(), Possible.end(), false) != 0) {
        Complain(fmt::format("mount: no io_uring: more than {} processors, or numbers with holes", MostQueues));
        return false;
    }
    Online.resize(Possible.size());
    // As the kernel counts it.
    PayloadBytes_ = std::max({size_t{FUSE_MIN_READ_BUFFER}, size_t{Agreed.max_write},
                              size_t{Agreed.max_pages != 0 ? Agreed.max_pages : 32u} * PageBytes()});
    const auto There = static_cast<unsigned>(std::count(Online.begin(), Online.end(), true));
    for (const bool IsThere : Online) { // one that is not there asks for nothing until it is
        Wanted_.push_back(IsThere ? std::max(LeastFree, Threads_ / std::max(1u, There)) : 0);
    }
    std::unique_lock Hold(Lock_);
    Free_.assign(Wanted_.size(), 0);
    All_.assign(Wanted_.size(), 0);
    for (unsigned Queue = 0; Queue < Wanted_.size(); ++Queue) {
        Add(Queue, true);
        for (unsigned Index = 0; Index < Wanted_[Queue]; ++Index) {
            Add(Queue, false);
        }
    }
    Changed_.wait(Hold, [this] { return SetUp_ == Workers_.size(); });
    return !Failed_;
}

// Start() starts a thread. With the lock held.
template <class Starter>
void RequestRings::State::AddThread(Starter Start) {
    sigset_t All;
    sigset_t Before;
    sigfillset(&All);
    pthread_sigmask(SIG_BLOCK, &All, &Before); // a new thread has this mask: signals end the mount, in another one
    try {
        Start();
    } catch (const std::exception &Error) {
        Failed_ = true;
        if (!std::exchange(Complained_, true)) {
            Complain(fmt::format("mount: a thread for requests: {}", Error.what()));
        }
    }
    pthread_sigmask(SIG_SETMASK, &Before, nullptr);
}

// With the lock held.
void RequestRings::State::Add(unsigned Queue, bool IsReserve) {
    AddThread([&] {
        auto One = std::make_unique<Worker>();
        One->Queue = static_cast<uint16_t>(Queue);
        One->IsReserve = IsReserve;
        Workers_.reserve(Workers_.size() + 1);
        One->Runs = std::thread([this, Which = One.get()] { Run(*Which); });
        Workers_.push_back(std::move(One));
        Free_[Queue] += IsReserve ? 0 : 1;
        ++All_[Queue];
    });
}

bool RequestRings::State::SetUp(Worker &One) {
    One.Wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    io_uring_params How = {};
    How.flags = IORING_SETUP_SQE128 | IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
    const unsigned Length = One.IsReserve ? 2 * ReserveEntries : 4;
    if (const int Error = io_uring_queue_init_params(Length, &One.Ring, &How); Error != 0) {
        One.Ring.ring_fd = -1;
        errno = -Error;
        return false;
    }
    return One.Wake >= 0 && AddEntries(One, One.IsReserve ? ReserveEntries : 1);
}

// Makes that many entries more, which the kernel is not told of yet. False with errno. By the worker's own thread.
bool RequestRings::State::AddEntries(Worker &One, unsigned Count) {
    for (unsigned Index = 0; Index < Count; ++Index) {
        auto At = std::make_unique<Entry>();
        At->Of = &One;
        void *Mapped = mmap(nullptr, PageBytes() + PayloadBytes_, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (Mapped == MAP_FAILED) {
            return false;
        }
        At->Mapped = static_cast<char *>(Mapped);
        At->Payload = At->Mapped + PageBytes();
        At->Parts[0] = {At->Headers.get(), sizeof(EntryHeaders)};
        At->Parts[1] = {At->Payload, PayloadBytes_};
        const std::lock_guard Hold(Lock_);
        One.Entries.push_back(std::move(At));
    }
    return true;
}

void RequestRings::State::Run(Worker &One) {
    pthread_setname_np(pthread_self(), fmt::format("rvfsd-ring-{}", One.Queue).c_str());
    const bool Ready = SetUp(One);
    const int Error = errno;
    bool Go;
    {
        std::unique_lock Hold(Lock_);
        ++SetUp_;
        Failed_ = Failed_ || !Ready;
        Changed_.notify_all();
        Changed_.wait(Hold, [this] { return Go_.has_value() || Ended_; });
        Go = Go_.value_or(false);
    }
    if (!Ready) {
        Fail(One, Error);
    } else if (Go) {
        Serve(One);
    }
    if (One.Ring.ring_fd >= 0) {
        io_uring_queue_exit(&One.Ring);
    }
}

// The thread cannot serve, or not any more.
void RequestRings::State::Fail(Worker &One, int Error) {
    bool Tells;
    {
        const std::lock_guard Hold(Lock_);
        Free_[One.Queue] -= One.IsReserve ? 0 : 1;
        Tells = !Ended_ && !std::exchange(Complained_, true);
    }
    if (Tells) {
        Complain(fmt::format("mount: io_uring: {}", strerror(Error)));
    }
    if (One.HasServed) {
        kill(getpid(), SIGTERM); // there is no way back to /dev/fuse: programs would wait for ever
    }
    Slow_ = false; // when it is one of the first, all goes on without rings
}

void RequestRings::State::Submit(Entry &At, Command What) {
    io_uring_sqe *Words = NextOf(At.Of->Ring);
    memset(Words, 0, 2 * sizeof(*Words));
    Words->opcode = IORING_OP_URING_CMD;
    Words->fd = Device_;
    Words->cmd_op = static_cast<uint32_t>(What);
    Words->user_data = reinterpret_cast<uint64_t>(&At);
    CommandWords Given = {.Flags = 0, .Commit = 0, .Queue = At.Of->Queue, .Padding = {}};
    if (What == Command::Register) {
        Words->addr = reinterpret_cast<uint64_t>(At.Parts);
        Words->len = 2;
    } else {
        Given.Commit = At.Headers->Entry.Commit;
        At.Now = Phase::Free;
    }
    memcpy(Words->cmd, &Given, sizeof(Given));
}

void RequestRings::State::AwaitWake(Worker &One) {
    io_uring_sqe *Words = NextOf(One.Ring);
    memset(Words, 0, 2 * sizeof(*Words));
    io_uring_prep_poll_add(Words, One.Wake, POLLIN);
    Words->user_data = 0;
}

void RequestRings::State::Serve(Worker &One) {
    IsOwner = true;
    AwaitWake(One);
    if (!One.IsReserve) {
        std::unique_lock Hold(Lock_);
        Changed_.wait(Hold, [this] { return Reserves_ == Wanted_.size() || Ended_; });
    }
    for (const std::unique_ptr<Entry> &Each : One.Entries) {
        Submit(*Each, Command::Register);
    }
    if (One.IsReserve) {
        io_uring_submit(&One.Ring);
        const std::lock_guard Hold(Lock_);
        ++Reserves_;
        Changed_.notify_all();
    }
    for (bool Over = false; !Over;) {
        const int Waited = io_uring_submit_and_wait(&One.Ring, 1);
        int Error = Waited < 0 && Waited != -EINTR && Waited != -EAGAIN && Waited != -EBUSY ? -Waited : 0;
        io_uring_cqe *Done = nullptr;
        while (io_uring_peek_cqe(&One.Ring, &Done) == 0) {
            auto *At = reinterpret_cast<Entry *>(Done->user_data);
            const int Result = Done->res;
            io_uring_cqe_seen(&One.Ring, Done);
            if (At == nullptr) {
                Over = !HearWake(One) || Over;
            } else if (Result < 0) {
                Error = -Result;
            } else {
                One.HasServed = true;
                One.IsReserve ? HandOver(*At) : Process(*At);
                if (io_uring_cq_ready(&One.Ring) != 0) {
                    io_uring_submit(&One.Ring); // nobody waits for the next one
                }
            }
        }
        if (Error != 0) {
            Over = true;
            // Others than these do not come with the end of the connection.
            if (Error != ENOTCONN && Error != ECONNABORTED && Error != ECANCELED) {
                Fail(One, Error);
            }
        }
    }
    io_uring_submit(&One.Ring);
}

// Tells the kernel what others have answered. False at the end.
bool RequestRings::State::HearWake(Worker &One) {
    eventfd_t Count = 0;
    eventfd_read(One.Wake, &Count);
    const std::lock_guard Hold(Lock_);
    for (Entry *Each : One.Answered) {
        --One.PutOff;
        Return(One);
        Submit(*Each, Command::CommitAndFetch);
    }
    One.Answered.clear();
    if (!Stops_) {
        AwaitWake(One);
    }
    return !Stops_;
}

// Gives libfuse the request of the entry as /dev/fuse would: in one piece. A large payload stays where it is, and its
// headers are put before it; it is read before it is answered. A small one is copied, since names are looked at after
// the answer as well.
void RequestRings::State::Give(Entry &At) {
    thread_local const auto Copy = std::make_unique<char[]>(MostHeaders + SmallPayload);
    const auto *Header = reinterpret_cast<const fuse_in_header *>(At.Headers->Header);
    const size_t Payload = At.Headers->Entry.PayloadBytes;
    const size_t Own = Header->len - sizeof(fuse_in_header) - Payload;
    if (Payload > PayloadBytes_ || Own > sizeof(At.Headers->OperationHeader)) { // no kernel should
        fuse_out_header Answer = {.len = sizeof(Answer), .error = -EIO, .unique = Header->unique};
        const iovec Part = {&Answer, sizeof(Answer)};
        Write(Device_, &Part, 1);
        return;
    }
    fuse_buf Request = {};
    Request.size = Header->len;
    char *Start = Payload > SmallPayload ? At.Payload - Own - sizeof(fuse_in_header) : Copy.get();
    memcpy(Start, Header, sizeof(fuse_in_header));
    memcpy(Start + sizeof(fuse_in_header), At.Headers->OperationHeader, Own);
    if (Payload <= SmallPayload) {
        memcpy(Start + sizeof(fuse_in_header) + Own, At.Payload, Payload);
    }
    Request.mem = Start;
    fuse_session_process_buf(Session_, &Request);
}

uint64_t RequestRings::State::UniqueOf(const Entry &At) {
    return reinterpret_cast<const fuse_in_header *>(At.Headers->Header)->unique;
}

void RequestRings::State::Process(Entry &At) {
    HearsKernel();
    At.GivesUp = false;
    At.Now = Phase::Serving;
    At.Unique = UniqueOf(At);
    Mine = &At;
    Give(At);
    Mine = nullptr;
    if (At.Now == Phase::Answered || !PutOff(At)) {
        Submit(At, Command::CommitAndFetch);
    }
}

// The request is answered later, by another thread. False when it has been by now.
bool RequestRings::State::PutOff(Entry &At) {
    uint64_t ToInterrupt = 0;
    {
        const std::lock_guard Hold(Lock_);
        if (At.Now == Phase::Answered) {
            return false;
        }
        At.Now = Phase::PutOff;
        ++At.Of->PutOff;
        Leave(*At.Of);
        ToInterrupt = WasInterrupted(At.Unique) ? At.Unique.load() : 0;
    }
    if (ToInterrupt != 0) {
        Interrupt(ToInterrupt);
    }
    return true;
}

// To a thread that has no ring. The reserve itself has to go on at once: what comes while it has no entry left, the
// kernel gives to nobody until another request of that queue is answered.
void RequestRings::State::HandOver(Entry &At) {
    Worker &One = *At.Of;
    bool Grows;
    {
        const std::lock_guard Hold(Lock_);
        At.GivesUp = false;
        At.Now = Phase::PutOff;
        At.Unique = UniqueOf(At);
        ++One.PutOff;
        Grows = One.Entries.size() - One.PutOff < ReserveEntries / 2;
    }
    if (Grows) {
        const size_t Before = One.Entries.size();
        At.GivesUp = !AddEntries(One, ReserveEntries);
        for (size_t Index = Before; Index < One.Entries.size(); ++Index) {
            Submit(*One.Entries[Index], Command::Register);
        }
        io_uring_submit(&One.Ring);
    }
    std::unique_lock Hold(Lock_);
    HandedOver_.push_back(&At);
    if (HandedOver_.size() > Idle_ && !Ended_ && Helpers_.size() < std::max(LeastFree, Threads_)) {
        AddThread([this] { Helpers_.emplace_back([this] { ServeHandedOver(); }); });
    }
    if (!Helpers_.empty() || Ended_) {
        Handed_.notify_one();
        return;
    }
    HandedOver_.pop_back(); // no thread can be had
    Hold.unlock();
    Mine = &At;
    Give(At);
    Mine = nullptr;
}

void RequestRings::State::ServeHandedOver() {
    pthread_setname_np(pthread_self(), "rvfsd-ring-help");
    std::unique_lock Hold(Lock_);
    for (;;) {
        ++Idle_;
        Handed_.wait(Hold, [this] { return Ended_ || !HandedOver_.empty(); });
        --Idle_;
        if (HandedOver_.empty()) {
            return;
        }
        Entry &At = *HandedOver_.front();
        HandedOver_.pop_front();
        const uint64_t Unique = At.Unique;
        Hold.unlock();
        HearsKernel();
        Mine = &At;
        Give(At);
        Mine = nullptr;
        Hold.lock();
        if (At.GivesUp || WasInterrupted(Unique)) {
            Hold.unlock();
            Interrupt(Unique); // if it waits
            Hold.lock();
        }
    }
}

// Before libfuse knew it. With the lock held.
bool RequestRings::State::WasInterrupted(uint64_t Unique) const {
    return std::find(Early_.begin(), Early_.end(), Unique) != Early_.end();
}

// This thread is not free for a while: another one takes its place, but for a reserve, which goes on. With the lock
// held.
void RequestRings::State::Leave(Worker &One) {
    if (!One.IsReserve && --Free_[One.Queue] < Wanted_[One.Queue] && All_[One.Queue] < MostOfQueue && !Ended_) {
        Add(One.Queue, false);
    }
}

// With the lock held.
void RequestRings::State::Return(Worker &One) {
    Free_[One.Queue] += One.IsReserve ? 0 : 1;
}

// The program of a request is to go on with EINTR, when it waits for another one or as soon as it does. As the kernel
// would say it. Without the lock.
void RequestRings::State::Interrupt(uint64_t Unique) {
    {
        const std::lock_guard Hold(Lock_);
        const Entry *At = FindLocked(Unique);
        if (At == nullptr || At->Now != Phase::PutOff) {
            Early_.push_back(Unique);
            if (Early_.size() > MostEarly) {
                Early_.pop_front();
            }
            return;
        }
    }
    struct {
        fuse_in_header Header;
        fuse_interrupt_in Which;
    } Words = {};
    Words.Header.len = sizeof(Words);
    Words.Header.opcode = FUSE_INTERRUPT;
    Words.Header.unique = Unique | InterruptBit;
    Words.Which.unique = Unique;
    fuse_buf Request = {};
    Request.size = sizeof(Words);
    Request.mem = &Words;
    fuse_session_process_buf(Session_, &Request);
}

// Each finishes the request that it has; what waits for a lock stays without an answer.
void RequestRings::State::End() {
    std::vector<std::thread> Helpers;
    {
        const std::lock_guard Hold(Lock_);
        Ended_ = true; // nothing is added any more
        Helpers = std::move(Helpers_);
        Changed_.notify_all();
        Handed_.notify_all();
    }
    for (std::thread &Each : Helpers) {
        Each.join();
    }
    Stops_ = true; // what they have answered is told to the kernel before
    for (const std::unique_ptr<Worker> &Each : Workers_) {
        eventfd_write(Each->Wake, 1);
        Each->Runs.join();
    }
    Running_ = false;
}

RequestRings::State::~State() {
    for (const std::unique_ptr<Worker> &Each : Workers_) {
        for (const std::unique_ptr<Entry> &At : Each->Entries) {
            munmap(At->Mapped, PageBytes() + PayloadBytes_);
        }
        if (Each->Wake >= 0) {
            close(Each->Wake);
        }
    }
}

// ---- For the mount ----------------------------------------------------------------------------------------------

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
    : State_(std::make_unique<State>(Session, Threads, std::move(Ready))) {
    State::Only = State_.get();
    rlimit Limit{}; // each thread has a ring and an event
    if (getrlimit(RLIMIT_NOFILE, &Limit) == 0) {
        Limit.rlim_cur = Limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &Limit); // or it ends earlier, with a word
    }
    fuse_custom_io Through = {};
    Through.read = [](int From, void *Buffer, size_t Length, void *) {
        return State::Only.load()->Read(From, Buffer, Length);
    };
    Through.writev = [](int To, iovec *Parts, int Count, void *) {
        return State::Only.load()->Write(To, Parts, Count);
    };
    if (const int Error = fuse_session_custom_io(Session, &Through, fuse_session_fd(Session)); Error != 0) {
        throw UsageError(fmt::format("mount: requests over io_uring: {}", strerror(-Error)));
    }
}

RequestRings::~RequestRings() {
    State::Only = nullptr;
}

void RequestRings::End() {
    State_->End();
}

RequestRings::Away::Away() {
    if (State::IsOwner && State::Mine != nullptr) {
        const std::lock_guard Hold(State::Only.load()->Lock_);
        State::Only.load()->Leave(*State::Mine->Of);
    }
}

RequestRings::Away::~Away() {
    if (State::IsOwner && State::Mine != nullptr) {
        const std::lock_guard Hold(State::Only.load()->Lock_);
        State::Only.load()->Return(*State::Mine->Of);
    }
}

char *RequestRings::AnswerSpace(size_t Length) {
    const State::Entry *At = State::Mine;
    const bool Fits = At != nullptr && At->Unique != 0 && Length <= State::Only.load()->PayloadBytes_;
    return Fits ? At->Payload : nullptr;
}

} // namespace app::mount
