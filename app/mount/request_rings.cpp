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
#include <fcntl.h>
#include <fstream>
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
constexpr size_t SmallPayload = 8192; // names, and short writes
constexpr size_t MostHeaders = sizeof(fuse_in_header) + sizeof(EntryHeaders::OperationHeader);
// Forgotten names come one by one, and each would wake a thread. After a moment one reading takes all that there are.
constexpr std::chrono::milliseconds Pace{5};
constexpr uint64_t ForEntry = 1; // what a completion is of
constexpr uint64_t ForEnd = 2;

size_t PageBytes() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// How many processors there can be; 0 when their numbers have holes.
unsigned PossibleProcessors() {
    std::ifstream File("/sys/devices/system/cpu/possible");
    std::string Text;
    std::getline(File, Text);
    if (Text == "0") {
        return 1;
    }
    unsigned Last = 0;
    if (!Text.starts_with("0-") ||
        std::from_chars(Text.data() + 2, Text.data() + Text.size(), Last).ptr != Text.data() + Text.size()) {
        return 0;
    }
    return Last + 1;
}

bool MayRunOn(unsigned Processor) {
    cpu_set_t Allowed;
    return sched_getaffinity(0, sizeof(Allowed), &Allowed) == 0 && Processor < CPU_SETSIZE &&
           CPU_ISSET(Processor, &Allowed);
}

} // namespace

class RequestRings::State {
public:
    State(fuse_session *Session, unsigned Threads) : Session_(Session), Threads_(Threads) {
    }
    ~State();

    ssize_t Read(int From, void *Buffer, size_t Length);
    ssize_t Write(int To, const iovec *Parts, int Count);

private:
    enum class Phase { Free, Serving, Answered, Ended };

    struct Worker {
        uint16_t Queue;
        io_uring Ring = {};
        std::unique_ptr<EntryHeaders> Headers = std::make_unique<EntryHeaders>();
        char *Mapped = nullptr; // a page in which a request's headers can be put before its payload, and the payload
        char *Payload = nullptr;
        std::unique_ptr<char[]> Copy = std::make_unique<char[]>(MostHeaders + SmallPayload);
        std::atomic<uint64_t> Unique{0}; // of the request that is not answered yet
        std::atomic<Phase> Now{Phase::Free};
        bool Waits = false; // for an answer of another thread's
        std::thread Runs;
    };

    friend class RequestRings;
    bool Start(const fuse_init_out &Agreed);
    void Add(unsigned Queue);
    bool SetUp(Worker &One) const;
    void Run(Worker &One);
    void Serve(Worker &One);
    void Process(Worker &One);
    void AwaitAnswer(Worker &One);
    void Submit(Worker &One, Command What, uint64_t Commit) const;
    void Fill(Worker &One, const iovec *Parts, int Count) const;
    void End();

    fuse_session *Session_;
    const unsigned Threads_;
    int Device_ = -1;
    int EndEvent_ = -1;
    size_t PayloadBytes_ = 0;
    unsigned FreePerQueue_ = 0;
    std::atomic<uint64_t> FirstRequest_{0}; // FUSE_INIT, when the kernel offers rings in it
    std::atomic<bool> Running_{false};
    std::atomic<bool> Slow_{false}; // no program waits for what comes through /dev/fuse
    std::mutex Lock_;               // for all below
    std::condition_variable Changed_;
    std::vector<std::unique_ptr<Worker>> Workers_;
    std::vector<unsigned> Free_; // by queue: threads that do not wait for an answer of another's
    unsigned SetUp_ = 0;
    bool Complained_ = false;
    bool Failed_ = false;
    bool Ended_ = false;
    std::optional<bool> Go_;

    static thread_local Worker *Mine;
    static std::atomic<State *> Only;
};

thread_local RequestRings::State::Worker *RequestRings::State::Mine = nullptr;
std::atomic<RequestRings::State *> RequestRings::State::Only{nullptr};

// ---- Between libfuse and the kernel -----------------------------------------------------------------------------

ssize_t RequestRings::State::Read(int From, void *Buffer, size_t Length) {
    if (Slow_) {
        std::this_thread::sleep_for(Pace);
    }
    const ssize_t Count = read(From, Buffer, Length);
    if (Count >= static_cast<ssize_t>(sizeof(fuse_in_header) + sizeof(fuse_init_in)) &&
        static_cast<const fuse_in_header *>(Buffer)->opcode == FUSE_INIT) {
        const auto *Header = static_cast<const fuse_in_header *>(Buffer);
        const auto *Offer = reinterpret_cast<const fuse_init_in *>(Header + 1);
        if ((Offer->flags & FUSE_INIT_EXT) != 0 && (Offer->flags2 & OverRings) != 0) {
            FirstRequest_ = Header->unique;
        }
    }
    return Count;
}

ssize_t RequestRings::State::Write(int To, const iovec *Parts, int Count) {
    const auto *Header = static_cast<const fuse_out_header *>(Parts[0].iov_base);
    if (Header->unique != 0 && Running_) {
        if (Mine != nullptr && Mine->Unique == Header->unique) {
            Fill(*Mine, Parts, Count);
            return static_cast<ssize_t>(Header->len);
        }
        const std::lock_guard Hold(Lock_);
        for (const std::unique_ptr<Worker> &Each : Workers_) {
            if (Each->Unique == Header->unique) {
                Fill(*Each, Parts, Count);
                Each->Now.notify_one();
                return static_cast<ssize_t>(Header->len);
            }
        }
    }
    if (Header->unique == 0 || Header->unique != FirstRequest_ || Header->error != 0 || Count != 2 ||
        Parts[1].iov_len < offsetof(fuse_init_out, flags2) + sizeof(uint32_t) ||
        Parts[1].iov_len > sizeof(fuse_init_out)) {
        return writev(To, Parts, Count);
    }
    // libfuse agrees with the kernel here. All must be ready before: from then on the kernel has requests wait until
    // each of its queues is served.
    FirstRequest_ = 0;
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

// The answer is in the entry from now on, to be told to the kernel by the entry's own thread.
void RequestRings::State::Fill(Worker &One, const iovec *Parts, int Count) const {
    memcpy(One.Headers->Header, Parts[0].iov_base, sizeof(fuse_out_header));
    size_t At = 0;
    for (int Index = 1; Index < Count; ++Index) {
        const size_t Length = std::min(Parts[Index].iov_len, PayloadBytes_ - At);
        if (Length != 0 && Parts[Index].iov_base != One.Payload + At) {
            memcpy(One.Payload + At, Parts[Index].iov_base, Length);
        }
        At += Length;
    }
    One.Headers->Entry.PayloadBytes = static_cast<uint32_t>(At);
    One.Unique = 0;
    One.Now = Phase::Answered;
}

// ---- Threads ----------------------------------------------------------------------------------------------------

// Starts all threads. Whether each has its ring.
bool RequestRings::State::Start(const fuse_init_out &Agreed) {
    const unsigned Queues = PossibleProcessors();
    EndEvent_ = eventfd(0, EFD_CLOEXEC);
    if (Queues == 0 || Queues > MostQueues || EndEvent_ < 0) {
        return false;
    }
    // As the kernel counts it.
    PayloadBytes_ = std::max({size_t{FUSE_MIN_READ_BUFFER}, size_t{Agreed.max_write},
                              size_t{Agreed.max_pages != 0 ? Agreed.max_pages : 32u} * PageBytes()});
    unsigned Usable = 0;
    for (unsigned Queue = 0; Queue < Queues; ++Queue) {
        Usable += MayRunOn(Queue) ? 1 : 0;
    }
    FreePerQueue_ = std::max(2u, Threads_ / std::max(1u, Usable));
    std::unique_lock Hold(Lock_);
    Free_.assign(Queues, 0);
    for (unsigned Queue = 0; Queue < Queues; ++Queue) {
        // A processor that is not there asks for nothing, and one that is for others little.
        for (unsigned Index = 0; Index < (MayRunOn(Queue) ? FreePerQueue_ : 1); ++Index) {
            Add(Queue);
        }
    }
    Changed_.wait(Hold, [this] { return SetUp_ == Workers_.size(); });
    return !Failed_;
}

// With the lock held.
void RequestRings::State::Add(unsigned Queue) {
    sigset_t All;
    sigset_t Before;
    sigfillset(&All);
    pthread_sigmask(SIG_BLOCK, &All, &Before); // a new thread has this mask: signals end the mount, in another one
    try {
        auto One = std::make_unique<Worker>();
        One->Queue = static_cast<uint16_t>(Queue);
        Workers_.reserve(Workers_.size() + 1);
        One->Runs = std::thread([this, Which = One.get()] { Run(*Which); });
        Workers_.push_back(std::move(One));
        ++Free_[Queue];
    } catch (const std::exception &Error) {
        Failed_ = true;
        Complain(fmt::format("mount: a thread for requests: {}", Error.what()));
    }
    pthread_sigmask(SIG_SETMASK, &Before, nullptr);
}

bool RequestRings::State::SetUp(Worker &One) const {
    if (MayRunOn(One.Queue)) {
        cpu_set_t Processor;
        CPU_ZERO(&Processor);
        CPU_SET(One.Queue, &Processor);
        pthread_setaffinity_np(pthread_self(), sizeof(Processor), &Processor); // elsewhere it is slower, no more
    }
    io_uring_params How = {};
    How.flags = IORING_SETUP_SQE128 | IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
    if (const int Error = io_uring_queue_init_params(4, &One.Ring, &How); Error != 0) {
        One.Ring.ring_fd = -1;
        errno = -Error;
        return false;
    }
    void *Mapped = mmap(nullptr, PageBytes() + PayloadBytes_, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (Mapped == MAP_FAILED) {
        return false;
    }
    One.Mapped = static_cast<char *>(Mapped);
    One.Payload = One.Mapped + PageBytes();
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
        if (!Ready) {
            Failed_ = true;
            --Free_[One.Queue];
            if (!std::exchange(Complained_, true)) {
                Complain(fmt::format("mount: io_uring: {}", strerror(Error)));
            }
        }
        Changed_.notify_all();
        Changed_.wait(Hold, [this] { return Go_.has_value() || Ended_; });
        Go = Ready && Go_.value_or(false);
    }
    if (Go) {
        Mine = &One;
        Serve(One);
        Mine = nullptr;
    }
    if (One.Ring.ring_fd >= 0) {
        io_uring_queue_exit(&One.Ring);
    }
}

void RequestRings::State::Submit(Worker &One, Command What, uint64_t Commit) const {
    io_uring_sqe *Entry = io_uring_get_sqe(&One.Ring);
    memset(Entry, 0, 2 * sizeof(*Entry));
    Entry->opcode = IORING_OP_URING_CMD;
    Entry->fd = Device_;
    Entry->cmd_op = static_cast<uint32_t>(What);
    Entry->user_data = ForEntry;
    const CommandWords Words = {.Flags = 0, .Commit = Commit, .Queue = One.Queue, .Padding = {}};
    memcpy(Entry->cmd, &Words, sizeof(Words));
    const iovec Parts[] = {{One.Headers.get(), sizeof(EntryHeaders)}, {One.Payload, PayloadBytes_}};
    if (What == Command::Register) { // the kernel takes the two parts while it is told
        Entry->addr = reinterpret_cast<uint64_t>(Parts);
        Entry->len = 2;
        io_uring_submit(&One.Ring);
    }
}

void RequestRings::State::Serve(Worker &One) {
    io_uring_sqe *End = io_uring_get_sqe(&One.Ring);
    memset(End, 0, 2 * sizeof(*End));
    io_uring_prep_poll_add(End, EndEvent_, POLLIN);
    End->user_data = ForEnd;
    Submit(One, Command::Register, 0);
    for (;;) {
        const int Waited = io_uring_submit_and_wait(&One.Ring, 1);
        bool Got = false;
        bool Over = Waited < 0 && Waited != -EINTR && Waited != -EAGAIN;
        io_uring_cqe *Done = nullptr;
        while (io_uring_peek_cqe(&One.Ring, &Done) == 0) {
            Got = Got || (Done->user_data == ForEntry && Done->res >= 0);
            Over = Over || Done->user_data == ForEnd;
            if (Done->user_data == ForEntry && Done->res < 0) {
                Over = true;
                Slow_ = false; // as the kernel does without rings from now on
                if (Done->res != -ENOTCONN && Done->res != -ECONNABORTED && Done->res != -ECANCELED) {
                    const std::lock_guard Hold(Lock_);
                    if (!std::exchange(Complained_, true)) {
                        Complain(fmt::format("mount: io_uring: {}", strerror(-Done->res)));
                    }
                }
            }
            io_uring_cqe_seen(&One.Ring, Done);
        }
        if (Got) {
            Process(One);
            if (One.Now != Phase::Answered) {
                return;
            }
            One.Now = Phase::Free;
            Submit(One, Command::CommitAndFetch, One.Headers->Entry.Commit);
        }
        if (Over) {
            io_uring_submit(&One.Ring);
            return;
        }
    }
}

// Gives libfuse the request of the entry as /dev/fuse would: in one piece. A large payload stays where it is, and its
// headers are put before it; it is read before it is answered. A small one is copied, since names are looked at after
// the answer as well.
void RequestRings::State::Process(Worker &One) {
    const auto *Header = reinterpret_cast<const fuse_in_header *>(One.Headers->Header);
    const size_t Length = Header->len;
    const size_t Payload = One.Headers->Entry.PayloadBytes;
    const size_t Own = Length - sizeof(fuse_in_header) - Payload;
    One.Unique = Header->unique;
    One.Now = Phase::Serving;
    if (Payload > PayloadBytes_ || Own > sizeof(One.Headers->OperationHeader)) { // no kernel should
        fuse_out_header Answer = {.len = sizeof(Answer), .error = -EIO, .unique = Header->unique};
        const iovec Part = {&Answer, sizeof(Answer)};
        Fill(One, &Part, 1);
        return;
    }
    char *Start = Payload > SmallPayload ? One.Payload - Own - sizeof(fuse_in_header) : One.Copy.get();
    memcpy(Start, Header, sizeof(fuse_in_header));
    memcpy(Start + sizeof(fuse_in_header), One.Headers->OperationHeader, Own);
    if (Payload <= SmallPayload) {
        memcpy(Start + sizeof(fuse_in_header) + Own, One.Payload, Payload);
    }
    fuse_buf Request = {};
    Request.size = Length;
    Request.mem = Start;
    fuse_session_process_buf(Session_, &Request);
    if (One.Now == Phase::Serving) {
        AwaitAnswer(One);
    }
}

// Another thread takes this one's place while it waits.
void RequestRings::State::AwaitAnswer(Worker &One) {
    {
        const std::lock_guard Hold(Lock_);
        if (Ended_) {
            return;
        }
        One.Waits = true;
        if (--Free_[One.Queue] < (MayRunOn(One.Queue) ? FreePerQueue_ : 1)) {
            Add(One.Queue);
        }
    }
    One.Now.wait(Phase::Serving);
    const std::lock_guard Hold(Lock_);
    One.Waits = false;
    ++Free_[One.Queue];
}

// Each finishes the request that it has; what waits for a lock stays without an answer.
void RequestRings::State::End() {
    {
        const std::lock_guard Hold(Lock_);
        Ended_ = true;
        Running_ = false;
        Changed_.notify_all();
        for (const std::unique_ptr<Worker> &Each : Workers_) {
            Phase Serving = Phase::Serving;
            if (Each->Waits && Each->Now.compare_exchange_strong(Serving, Phase::Ended)) {
                Each->Now.notify_one();
            }
        }
    }
    if (EndEvent_ >= 0) {
        eventfd_write(EndEvent_, 1);
    }
    for (const std::unique_ptr<Worker> &Each : Workers_) { // no more are added
        if (Each->Runs.joinable()) {
            Each->Runs.join();
        }
    }
}

RequestRings::State::~State() {
    for (const std::unique_ptr<Worker> &Each : Workers_) {
        if (Each->Mapped != nullptr) {
            munmap(Each->Mapped, PageBytes() + PayloadBytes_);
        }
    }
    if (EndEvent_ >= 0) {
        close(EndEvent_);
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

RequestRings::RequestRings(fuse_session *Session, unsigned Threads)
    : State_(std::make_unique<State>(Session, Threads)) {
    State::Only = State_.get();
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

char *RequestRings::AnswerSpace(size_t Length) {
    const State::Worker *One = State::Mine;
    const bool Fits = One != nullptr && One->Unique != 0 && Length <= State::Only.load()->PayloadBytes_;
    return Fits ? One->Payload : nullptr;
}

} // namespace app::mount
