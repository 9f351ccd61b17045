#include "embedded/explorer/explorer.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <sched.h>
#include <unistd.h>

#include <fmt/format.h>

#include "embedded/explorer/strategy.h"
#include "embedded/ke/schedule.h"
#include "embedded/verifier/locks.h"
#include "embedded/verifier/report.h"

extern "C" void __sanitizer_set_death_callback(void (*Callback)()) __attribute__((weak));

namespace embedded {

namespace {

constinit thread_local ExploredThread *Self = nullptr;

cpu_set_t Anywhere;

// The threads that are made meanwhile run on one processor: a turn that is passed on wakes nobody elsewhere.
class OnOneProcessor {
public:
    OnOneProcessor() {
        sched_getaffinity(0, sizeof(Anywhere), &Anywhere);
        cpu_set_t One;
        CPU_ZERO(&One);
        CPU_SET(static_cast<size_t>(sched_getcpu()), &One);
        sched_setaffinity(0, sizeof(One), &One);
    }
    ~OnOneProcessor() {
        sched_setaffinity(0, sizeof(Anywhere), &Anywhere);
    }
    OnOneProcessor(const OnOneProcessor &) = delete;
    OnOneProcessor &operator=(const OnOneProcessor &) = delete;
};

// One schedule under way. Whoever runs has the turn, and is alone in here.
class Turns {
public:
    Turns(const Race &Of, Strategy &By) : Race_(Of), By_(By) {
    }

    void Run() {
        for (const auto &Body : Race_.Threads) {
            ExploredThread &Thread = Add(fmt::format("thread {}", Threads_.size() + 1));
            Thread.Host = std::thread([this, &Thread, &Body] {
                CurrentThread().Explored = &Thread;
                __atomic_store_n(&Thread.Record, &CurrentThread(), __ATOMIC_RELEASE);
                Enter(Thread);
                Body();
                Leave();
            });
        }
        for (const auto &Thread : Threads_) {
            while (__atomic_load_n(&Thread->Record, __ATOMIC_ACQUIRE) == nullptr) {
                std::this_thread::yield();
            }
        }
        Threads_.front()->Go.release();
        Over_.acquire();
        for (const auto &Thread : Threads_) {
            if (Thread->Host.joinable()) {
                Thread->Host.join();
            }
        }
    }

    ExploredThread &Add(std::string Name) {
        Threads_.push_back(std::make_unique<ExploredThread>(std::move(Name)));
        By_.Enter(*Threads_.back());
        return *Threads_.back();
    }
    void Enter(ExploredThread &Thread) {
        Self = &Thread;
        Thread.Go.acquire();
    }
    void Leave() {
        Self->Record->Explored = nullptr;
        Self->State = Phase::Ended;
        ExploredThread &Gone = *Self;
        Self = nullptr;
        PassOn(Gone);
    }
    void Point(const char *What, const void *Object) {
        Self->At = What;
        Self->Object = Object;
        ++Points_;
        Switch();
    }
    void Block(LONGLONG Due) {
        ExploredThread &Mine = *Self;
        if (!Mine.Woken) {
            Mine.State = Phase::Blocked;
            Mine.Due = Due;
            Switch();
        }
        Mine.Woken = false;
    }
    void Spin(const void *SpinLock) {
        Self->State = Phase::Spinning;
        Self->SpinLock = SpinLock;
        Switch();
    }
    void Wake(ExploredThread &Thread) {
        Thread.Woken = true;
        if (Thread.State == Phase::Blocked) {
            Thread.State = Phase::Ready;
        }
    }
    void Released(const void *SpinLock) {
        for (const auto &Each : Threads_) {
            if (Each->State == Phase::Spinning && Each->SpinLock == SpinLock) {
                Each->State = Phase::Ready;
            }
        }
    }
    size_t Points() const {
        return Points_;
    }
    const Race &Of() const {
        return Race_;
    }
    std::string Schedule() const {
        return By_.Text();
    }

private:
    // Gives the turn on and waits until it comes back.
    void Switch() {
        ExploredThread &Mine = *Self;
        PassOn(Mine);
        if (!Mine.Free) {
            return;
        }
        // Over: it parks like any other thread from here on.
        Mine.Record->Explored = nullptr;
        Self = nullptr;
        sched_setaffinity(0, sizeof(Anywhere), &Anywhere);
    }
    void PassOn(ExploredThread &From) {
        ExploredThread *Next = Pick(From);
        if (Next == nullptr) {
            End(From);
            return;
        }
        if (Next == &From) {
            return;
        }
        // From the release on the state is for whoever runs to change.
        const bool Ended = From.State == Phase::Ended;
        Next->Go.release();
        if (!Ended) {
            From.Go.acquire();
        }
    }
    // All of the race's own have ended and those of the system wait for something that may come later.
    void End(ExploredThread &Last) {
        for (const auto &Each : Threads_) {
            if (Each->State != Phase::Ended) {
                Each->Free = true;
            }
        }
        ExplorerRuns = false;
        for (const auto &Each : Threads_) {
            if (Each->Free && Each.get() != &Last) {
                Each->Go.release();
            }
        }
        Over_.release();
    }
    // Null when nobody is left who could run.
    ExploredThread *Pick(ExploredThread &From) {
        Candidates Among;
        Among.StillRuns = From.State == Phase::Ready;
        if (Among.StillRuns) {
            Among.Threads.push_back(&From);
        }
        ExploredThread *Timed = nullptr;
        bool OwnLeft = false;
        for (const auto &Each : Threads_) {
            if (Each->State == Phase::Ready && Each.get() != &From) {
                Among.Threads.push_back(Each.get());
            }
            if (Each->State == Phase::Blocked && Each->Due != Clock::Never &&
                (Timed == nullptr || Each->Due < Timed->Due)) {
                Timed = Each.get();
            }
            OwnLeft |= Each->Host.joinable() && Each->State != Phase::Ended;
        }
        // Time may pass at any moment: it is one more that could go on.
        if (Timed != nullptr) {
            Among.TimeLast = !Among.Threads.empty();
            Among.Threads.push_back(Timed);
        }
        if (Among.Threads.empty()) {
            if (OwnLeft) {
                ReportStandstill();
            }
            return nullptr;
        }
        ExploredThread *Next = Among.Threads[Among.Threads.size() == 1 ? 0 : By_.Choose(Among)];
        if (Next == Timed) {
            Clock::MoveTo(Timed->Due);
            Timed->Due = Clock::Never;
        }
        Next->State = Phase::Ready;
        return Next;
    }
    [[noreturn]] void ReportStandstill() const {
        std::string Text = "nobody can go on: a deadlock, or a wake-up was lost";
        for (const auto &Each : Threads_) {
            if (Each->State == Phase::Ended) {
                continue;
            }
            Text += fmt::format("\n  {} waits at {} for {}", Each->Name, Each->At, DescribeLock(Each->Object));
            const std::string Held = DescribeHeldLocks(*Each->Record);
            Text += Held.empty() ? ", holds nothing" : ", holds\n" + Held;
        }
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 8, 0, 0, 0, Text);
    }

    const Race &Race_;
    Strategy &By_;
    std::vector<std::unique_ptr<ExploredThread>> Threads_;
    size_t Points_ = 0;
    std::binary_semaphore Over_{0};
};

std::atomic<Turns *> Current{nullptr};
std::atomic<size_t> Tried{0}; // schedules of this exploration

std::string NameSchedule() {
    const Turns *Running = Current.load();
    return Running == nullptr ? std::string{}
                              : fmt::format("  at schedule {} of the race \"{}\": RVFSD_SCHEDULE={}\n", Tried.load(),
                                            Running->Of().Name, Running->Schedule());
}

// Sanitizers end the process without the verifier.
void WriteSchedule() {
    const std::string Text = NameSchedule();
    static_cast<void>(!write(STDERR_FILENO, Text.data(), Text.size()));
}

// What the kernel's services ask, whichever schedule is under way.
class Explorer final : public Scheduler {
public:
    void NTAPI Reach(const char *What, const void *Object) noexcept override {
        if (Self != nullptr) {
            Current.load()->Point(What, Object);
        }
    }
    bool Block(LONGLONG Due) noexcept override {
        if (Self == nullptr) {
            return false;
        }
        Current.load()->Block(Due);
        return true;
    }
    bool Wake(KThread &Thread) noexcept override {
        if (Thread.Explored == nullptr || Self == nullptr) {
            return false;
        }
        Current.load()->Wake(*Thread.Explored);
        return true;
    }
    bool YieldForSpinLock(const void *Object) noexcept override {
        if (Self == nullptr) {
            return false;
        }
        Current.load()->Spin(Object);
        return true;
    }
    void NTAPI SpinLockReleased(const void *Object) noexcept override {
        if (Self != nullptr) {
            Current.load()->Released(Object);
        }
    }
    void Adopt(KThread &Thread) noexcept override {
        if (Self != nullptr) {
            ExploredThread &Explored = Current.load()->Add("a system thread");
            Explored.Record = &Thread;
            Thread.Explored = &Explored;
        }
    }
    void Enter(KThread &Thread) noexcept override {
        if (Thread.Explored != nullptr) {
            Current.load()->Enter(*Thread.Explored);
        }
    }
    void Leave() noexcept override {
        if (Self != nullptr) {
            Current.load()->Leave();
        }
    }
};

Explorer TheExplorer;

struct Outcome {
    std::string Failure;
    size_t Points;
};

Outcome RunOne(const Race &Of, Strategy &By) {
    if (Of.Before) {
        Of.Before();
    }
    // Kept until the next one: threads of the system that go on by themselves may still be on their way out of it.
    static std::vector<std::unique_ptr<Turns>> Kept;
    if (Kept.size() > 64) {
        Kept.erase(Kept.begin());
    }
    Kept.push_back(std::make_unique<Turns>(Of, By));
    Turns &Running = *Kept.back();
    ReportNote.store(NameSchedule);
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(WriteSchedule);
    }
    ++Tried;
    Current = &Running;
    TheScheduler = &TheExplorer;
    ExplorerRuns = true;
    Running.Run();
    ExplorerRuns = false;
    Clock::Settle();
    std::string Failure = Of.After ? Of.After() : std::string{};
    Current = nullptr;
    return {std::move(Failure), Running.Points()};
}

bool ReadNumber(std::string_view *Text, uint64_t *Number) {
    const auto [End, Error] = std::from_chars(Text->data(), Text->data() + Text->size(), *Number);
    const bool Found = Error == std::errc{};
    Text->remove_prefix(static_cast<size_t>(End - Text->data()));
    if (!Text->empty()) {
        Text->remove_prefix(1);
    }
    return Found;
}

} // namespace

std::string RunSchedule(const Race &Of, const std::string &Schedule) {
    std::string_view Text = Schedule;
    const bool IsWalk = !Text.empty() && Text.front() == 'p';
    Text.remove_prefix(Text.empty() ? 0 : 1);
    uint64_t First = 0;
    if (!ReadNumber(&Text, &First)) {
        return "no schedule: " + Schedule;
    }
    std::vector<unsigned> Numbers;
    for (uint64_t Number = 0; !Text.empty() && ReadNumber(&Text, &Number);) {
        Numbers.push_back(static_cast<unsigned>(Number));
    }
    if (IsWalk) {
        Walk Given(static_cast<unsigned>(First), Numbers);
        return RunOne(Of, Given).Failure;
    }
    Numbers.resize(2, 1);
    Priorities Given(First, Numbers[0], Numbers[1]);
    return RunOne(Of, Given).Failure;
}

ExploreResult Explore(const Race &Of, const ExploreOptions &Options) {
    const OnOneProcessor Pinned;
    ExploreResult Result;
    Tried = 0;
    if (const char *Only = std::getenv("RVFSD_SCHEDULE"); Only != nullptr) {
        Result.Schedule = Only;
        Result.Failure = RunSchedule(Of, Only);
        return Result;
    }
    Walk All(Options.Preemptions);
    size_t Points = 1;
    for (bool More = true; More; More = All.Advance()) {
        if (Result.Walked == Options.MostSchedules) {
            Result.Bounded = true;
            break;
        }
        const Outcome Now = RunOne(Of, All);
        ++Result.Walked;
        Points = std::max(Points, Now.Points);
        if (!Now.Failure.empty()) {
            Result.Failure = Now.Failure;
            Result.Schedule = All.Text();
            return Result;
        }
    }
    for (; Result.Random < Options.RandomSchedules; ++Result.Random) {
        Priorities Drawn(Options.FirstSeed + Result.Random, Options.Depth, Points);
        const Outcome Now = RunOne(Of, Drawn);
        Result.MostPoints = std::max(Points, Now.Points);
        if (!Now.Failure.empty()) {
            Result.Failure = Now.Failure;
            Result.Schedule = Drawn.Text();
            ++Result.Random;
            return Result;
        }
    }
    Result.MostPoints = std::max(Points, Result.MostPoints);
    return Result;
}

ExploreOptions OptionsFromEnvironment(ExploreOptions Options) {
    if (const char *Times = std::getenv("RVFSD_EXPLORE"); Times != nullptr) {
        const double Factor = std::atof(Times);
        Options.RandomSchedules = static_cast<size_t>(static_cast<double>(Options.RandomSchedules) * Factor);
        Options.MostSchedules = static_cast<size_t>(static_cast<double>(Options.MostSchedules) * Factor);
    }
    return Options;
}

} // namespace embedded
