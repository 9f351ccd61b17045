#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <new>

#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include "app/mount/ring_state.h"
#include "app/text.h"

namespace app::mount {

namespace {

constexpr unsigned MostQueues = 256;
constexpr unsigned LeastFree = 4;    // of a queue whose processor is there
constexpr unsigned MostOfQueue = 64; // threads, where programs wait: then its reserve alone grows
constexpr unsigned ReserveEntries = 32;
constexpr size_t MostEarly = 64;
constexpr size_t SmallPayload = 8192; // names, and short writes
constexpr size_t MostHeaders = sizeof(fuse_in_header) + sizeof(RingEntryHeaders::OperationHeader);

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

} // namespace

// Starts all threads. Whether each has its ring.
bool RingState::Start(const fuse_init_out &Agreed) {
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
void RingState::AddThread(Starter Start) {
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
void RingState::Add(unsigned Queue, bool IsReserve) {
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

bool RingState::SetUp(Worker &One) {
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
bool RingState::AddEntries(Worker &One, unsigned Count) {
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
        At->Parts[0] = {At->Headers.get(), sizeof(RingEntryHeaders)};
        At->Parts[1] = {At->Payload, PayloadBytes_};
        const std::lock_guard Hold(Lock_);
        One.Entries.push_back(std::move(At));
    }
    return true;
}

void RingState::Run(Worker &One) {
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
void RingState::Fail(Worker &One, int Error) {
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

void RingState::Submit(Entry &At, RingCommand What) {
    io_uring_sqe *Words = NextOf(At.Of->Ring);
    memset(Words, 0, 2 * sizeof(*Words));
    Words->opcode = IORING_OP_URING_CMD;
    Words->fd = Device_;
    Words->cmd_op = static_cast<uint32_t>(What);
    Words->user_data = reinterpret_cast<uint64_t>(&At);
    RingCommandWords Given = {.Flags = 0, .Commit = 0, .Queue = At.Of->Queue, .Padding = {}};
    if (What == RingCommand::Register) {
        Words->addr = reinterpret_cast<uint64_t>(At.Parts);
        Words->len = 2;
    } else {
        Given.Commit = At.Headers->Entry.Commit;
        At.Now = Phase::Free;
    }
    memcpy(Words->cmd, &Given, sizeof(Given));
}

void RingState::AwaitWake(Worker &One) {
    io_uring_sqe *Words = NextOf(One.Ring);
    memset(Words, 0, 2 * sizeof(*Words));
    io_uring_prep_poll_add(Words, One.Wake, POLLIN);
    Words->user_data = 0;
}

void RingState::Serve(Worker &One) {
    IsOwner = true;
    AwaitWake(One);
    if (!One.IsReserve) {
        std::unique_lock Hold(Lock_);
        Changed_.wait(Hold, [this] { return Reserves_ == Wanted_.size() || Ended_; });
    }
    for (const std::unique_ptr<Entry> &Each : One.Entries) {
        Submit(*Each, RingCommand::Register);
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
bool RingState::HearWake(Worker &One) {
    eventfd_t Count = 0;
    eventfd_read(One.Wake, &Count);
    const std::lock_guard Hold(Lock_);
    for (Entry *Each : One.Answered) {
        --One.PutOff;
        Return(One);
        Submit(*Each, RingCommand::CommitAndFetch);
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
void RingState::Give(Entry &At) {
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

uint64_t RingState::UniqueOf(const Entry &At) {
    return reinterpret_cast<const fuse_in_header *>(At.Headers->Header)->unique;
}

void RingState::Process(Entry &At) {
    HearsKernel();
    At.GivesUp = false;
    At.Now = Phase::Serving;
    At.Unique = UniqueOf(At);
    Mine = &At;
    Give(At);
    Mine = nullptr;
    if (At.Now == Phase::Answered || !PutOff(At)) {
        Submit(At, RingCommand::CommitAndFetch);
    }
}

// The request is answered later, by another thread. False when it has been by now.
bool RingState::PutOff(Entry &At) {
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
void RingState::HandOver(Entry &At) {
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
            Submit(*One.Entries[Index], RingCommand::Register);
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

void RingState::ServeHandedOver() {
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
bool RingState::WasInterrupted(uint64_t Unique) const {
    return std::find(Early_.begin(), Early_.end(), Unique) != Early_.end();
}

// This thread is not free for a while: another one takes its place, but for a reserve, which goes on. With the lock
// held.
void RingState::Leave(Worker &One) {
    if (!One.IsReserve && --Free_[One.Queue] < Wanted_[One.Queue] && All_[One.Queue] < MostOfQueue && !Ended_) {
        Add(One.Queue, false);
    }
}

// With the lock held.
void RingState::Return(Worker &One) {
    Free_[One.Queue] += One.IsReserve ? 0 : 1;
}

// The program of a request is to go on with EINTR, when it waits for another one or as soon as it does. As the kernel
// would say it. Without the lock.
void RingState::Interrupt(uint64_t Unique) {
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
void RingState::End() {
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

RingState::~RingState() {
    for (const std::unique_ptr<Worker> &Each : Workers_) {
        for (const std::unique_ptr<Entry> &At : Each->Entries) {
            munmap(At->Mapped, PageBytes() + PayloadBytes_);
        }
        if (Each->Wake >= 0) {
            close(Each->Wake);
        }
    }
}

} // namespace app::mount
