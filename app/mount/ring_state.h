// What RequestRings is made of: the kernel's interface, the threads with their rings, and what all of them share.
//
// ring_state.cpp stands between libfuse and the kernel; ring_threads.cpp has the threads.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <liburing.h>
#include <linux/fuse.h>
#include <sys/uio.h>

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

namespace app::mount {

// The kernel's interface of Linux 6.14, which the headers of older systems do not have.
inline constexpr uint32_t OverRings = 1u << (41 - 32); // of the second word of flags in both messages of FUSE_INIT
enum class RingCommand : uint32_t { Register = 1, CommitAndFetch = 2 };

struct RingEntryState {
    uint64_t Flags;
    uint64_t Commit;
    uint32_t PayloadBytes;
    uint32_t Padding;
    uint64_t Reserved;
};

struct RingEntryHeaders {
    char Header[128];          // fuse_in_header, and fuse_out_header in the answer
    char OperationHeader[128]; // the request's own header; answers have all in the payload
    RingEntryState Entry;
};
static_assert(sizeof(RingEntryHeaders) == 288);

struct RingCommandWords {
    uint64_t Flags;
    uint64_t Commit;
    uint16_t Queue;
    uint8_t Padding[6];
};

inline constexpr uint64_t InterruptBit = 1; // in the number of an interruption, beside that of the request

// A program asks next for what it was told before, on whatever thread that is served: the kernel keeps that order,
// which the thread sanitizer cannot see. Before the kernel is told an answer, and after a request has come.
void TellsKernel();
void HearsKernel();

class RingState {
public:
    RingState(fuse_session *Session, unsigned Threads, std::function<void()> Ready)
        : Session_(Session), Threads_(Threads), Ready_(std::move(Ready)) {
    }
    ~RingState();

    ssize_t Read(int From, void *Buffer, size_t Length);
    ssize_t Write(int To, const iovec *Parts, int Count);

private:
    friend class RequestRings;

    enum class Phase { Free, Serving, PutOff, Answered };
    struct Worker;

    // What the kernel puts one request into, and takes its answer from.
    struct Entry {
        Worker *Of;
        std::unique_ptr<RingEntryHeaders> Headers = std::make_unique<RingEntryHeaders>();
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
    void Submit(Entry &At, RingCommand What);
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
    static std::atomic<RingState *> Only;
};

} // namespace app::mount
