// Requests that are posted: what a read costs that a worker completes, beside the same read in its caller's thread and
// the way to another thread and back; and how fast nine workers drain a long queue.
#include <atomic>
#include <chrono>
#include <semaphore>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/rows.h"
#include "embedded/io/io.h"
#include "embedded/io/probe.h"
#include "frame/locks.h"
#include "names/fcb.h"

namespace bench {
namespace {

constexpr unsigned Queued = 100'000;

// An open whose requests may not wait.
class AsynchronousFile {
public:
    AsynchronousFile() {
        Use(ProviderKind::Stub, DriverKind::Async);
        Handle_ = OpenAsynchronous(FilePath(0));
        File_ = embedded::FileObjectFromHandle(Handle_);
        Read_.MajorFunction = IRP_MJ_READ;
        Read_.FileObject = File_;
        Read_.UserBuffer = Buffer_;
        Read_.Fill = [](PIO_STACK_LOCATION Stack) { Stack->Parameters.Read.Length = TransferBytes; };
    }
    ~AsynchronousFile() {
        embedded::DereferenceFileObject(File_);
        Close(Handle_);
    }
    AsynchronousFile(const AsynchronousFile &) = delete;
    AsynchronousFile &operator=(const AsynchronousFile &) = delete;

    embedded::SentIrp Send() const {
        return embedded::SendIrp(Device(), Read_);
    }
    // A request that must be queued.
    embedded::SentIrp Post() const {
        embedded::SentIrp Sent = Send();
        if (Sent.Returned() != STATUS_PENDING) {
            Fail("a read of a held file was not posted");
        }
        return Sent;
    }
    PERESOURCE Resource() const {
        return &static_cast<PFCB>(File_->FsContext)->Resource;
    }

private:
    alignas(4096) UCHAR Buffer_[TransferBytes];
    HANDLE Handle_;
    PFILE_OBJECT File_;
    embedded::IrpBuilder Read_;
};

void RequireRead(embedded::SentIrp &Sent) {
    if (Sent.Wait().Information != TransferBytes) {
        Fail("a read was short");
    }
}

// A thread that holds a resource when asked to. It lets go without sleeping, so that this costs the other one nothing.
class Holder {
public:
    explicit Holder(PERESOURCE Resource) : Thread_([this, Resource] { Run(Resource); }) {
    }
    ~Holder() {
        Ends_ = true;
        Asked_.release();
        Thread_.join();
    }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;

    void Hold() {
        Held_ = true;
        Asked_.release();
        Answered_.acquire();
    }
    void LetGo() {
        Held_ = false;
    }

private:
    void Run(PERESOURCE Resource) {
        for (;;) {
            Asked_.acquire();
            if (Ends_) {
                return;
            }
            NtFsdAcquireExclusive(Resource, TRUE);
            Answered_.release();
            while (Held_) {
            }
            NtFsdReleaseResource(Resource);
        }
    }

    std::binary_semaphore Asked_{0};
    std::binary_semaphore Answered_{0};
    std::atomic<bool> Held_{false};
    std::atomic<bool> Ends_{false};
    std::thread Thread_;
};

double SecondsSince(std::chrono::steady_clock::time_point Begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - Begin).count();
}

void DirectRead(benchmark::State &State) {
    const AsynchronousFile File;
    for (auto _ : State) {
        embedded::SentIrp Sent = File.Send();
        RequireRead(Sent);
    }
}

// From the sending of the read, whose file is busy at that moment, to its result.
void PostedRead(benchmark::State &State) {
    const AsynchronousFile File;
    Holder Other(File.Resource());
    for (auto _ : State) {
        Other.Hold();
        const auto Begin = std::chrono::steady_clock::now();
        embedded::SentIrp Sent = File.Post();
        Other.LetGo();
        RequireRead(Sent);
        State.SetIterationTime(SecondsSince(Begin));
    }
}

// To a thread that sleeps and back to this one, which sleeps meanwhile.
void HandOff(benchmark::State &State) {
    std::binary_semaphore There{0}, Back{0};
    std::atomic<bool> Ends{false};
    std::thread Other([&] {
        for (There.acquire(); !Ends; There.acquire()) {
            Back.release();
        }
    });
    for (auto _ : State) {
        const auto Begin = std::chrono::steady_clock::now();
        There.release();
        Back.acquire();
        State.SetIterationTime(SecondsSince(Begin));
    }
    Ends = true;
    There.release();
    Other.join();
}

// From the moment at which the file is free to the last result.
void Drain(benchmark::State &State) {
    const AsynchronousFile File;
    Holder Other(File.Resource());
    std::vector<embedded::SentIrp> Sent;
    Sent.reserve(Queued);
    for (auto _ : State) {
        Other.Hold();
        for (unsigned Count = 0; Count < Queued; ++Count) {
            Sent.push_back(File.Post());
        }
        const auto Begin = std::chrono::steady_clock::now();
        Other.LetGo();
        for (embedded::SentIrp &Each : Sent) {
            RequireRead(Each);
        }
        State.SetIterationTime(SecondsSince(Begin));
        Sent.clear();
    }
    State.SetItemsProcessed(State.iterations() * Queued);
}

} // namespace

void RegisterQueue() {
    benchmark::RegisterBenchmark("queue/hand_off", HandOff)->UseManualTime();
    benchmark::RegisterBenchmark("queue/direct_read", DirectRead);
    benchmark::RegisterBenchmark("queue/posted_read", PostedRead)->UseManualTime();
    benchmark::RegisterBenchmark("queue/drain", Drain)->UseManualTime()->Iterations(3);
}

} // namespace bench
