// The schedule explorer: five known faults are found, in races that pass without them.

#include "embedded/explorer/explorer.h"

#include <iostream>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "embedded/ex/ex.h"
#include "embedded/io/probe.h"
#include "embedded/ke/schedule.h"
#include "tests/embedded/io_fixture.h"

namespace embedded {
namespace {

constexpr ULONG Tag = MakeTag("Race");

// A spin lock of the kernel's over a scope.
class Spin {
public:
    explicit Spin(PKSPIN_LOCK Lock) : Lock_(Lock), Old_(KeAcquireSpinLockRaiseToDpc(Lock)) {
    }
    ~Spin() {
        KeReleaseSpinLock(Lock_, Old_);
    }

private:
    PKSPIN_LOCK Lock_;
    KIRQL Old_;
};

void Wait(KEVENT &Event) {
    static_cast<void>(KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, nullptr));
}

// A queue whose worker goes when nothing is left. Faulty: it decides so without looking again under the lock.
struct WorkerQueue {
    KSPIN_LOCK Lock = 0;
    int Waiting = 0;
    bool Runs = false;
    bool Faulty = false;
    std::atomic<int> Served{0};

    bool Take() {
        const Spin Hold(&Lock);
        if (Waiting == 0) {
            Runs = Faulty;
            return false;
        }
        --Waiting;
        return true;
    }
    static void NTAPI Worker(PVOID Context) noexcept {
        auto &Queue = *static_cast<WorkerQueue *>(Context);
        while (Queue.Take()) {
            ++Queue.Served;
        }
        if (Queue.Faulty) {
            const Spin Hold(&Queue.Lock);
            Queue.Runs = false;
        }
    }
    void Post() {
        bool Start;
        {
            const Spin Hold(&Lock);
            ++Waiting;
            Start = !std::exchange(Runs, true);
        }
        if (Start) {
            HANDLE Thread;
            ASSERT_EQ(PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr, Worker, this), STATUS_SUCCESS);
            ZwClose(Thread);
        }
    }
};

Race MissingRecheck(bool Faulty) {
    auto Queue = std::make_shared<std::unique_ptr<WorkerQueue>>();
    const auto Post = [Queue] { (*Queue)->Post(); };
    return {"missing recheck",
            [=] {
                *Queue = std::make_unique<WorkerQueue>();
                (*Queue)->Faulty = Faulty;
            },
            {Post, Post},
            [Queue] { return (*Queue)->Served == 2 ? "" : "an item stays in the queue without a worker"; }};
}

Race ReversedOrder(bool Faulty) {
    auto Locks = std::make_shared<std::array<KEVENT, 2>>();
    const auto Take = [Locks](size_t First) {
        Wait((*Locks)[First]);
        Wait((*Locks)[1 - First]);
        KeSetEvent(&(*Locks)[1 - First], 0, FALSE);
        KeSetEvent(&(*Locks)[First], 0, FALSE);
    };
    return {"reversed order",
            [Locks] {
                for (KEVENT &Each : *Locks) {
                    KeInitializeEvent(&Each, SynchronizationEvent, TRUE);
                }
            },
            {[=] { Take(0); }, [=] { Take(Faulty ? 1 : 0); }},
            {}};
}

// A flag with an event for who waits. Faulty: the waiter says that it waits only after it has looked.
struct Signal {
    KSPIN_LOCK Lock = 0;
    bool Ready = false;
    bool Wanted = false;
    KEVENT Event;
};

Race DroppedWake(bool Faulty) {
    auto State = std::make_shared<Signal>();
    return {"dropped wake",
            [State] {
                *State = Signal{};
                KeInitializeEvent(&State->Event, NotificationEvent, FALSE);
            },
            {[State, Faulty] {
                 {
                     const Spin Hold(&State->Lock);
                     if (State->Ready) {
                         return;
                     }
                     State->Wanted = !Faulty;
                 }
                 if (Faulty) {
                     const Spin Hold(&State->Lock);
                     State->Wanted = true;
                 }
                 Wait(State->Event);
             },
             [State] {
                 const Spin Hold(&State->Lock);
                 State->Ready = true;
                 if (State->Wanted) {
                     KeSetEvent(&State->Event, 0, FALSE);
                 }
             }},
            {}};
}

// A pending request that is completed and cancelled. Faulty: the completer looks for the cancel routine and takes it
// away in two steps.
VOID NTAPI CancelRoutine(PDEVICE_OBJECT, PIRP Irp) noexcept {
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    iotest::Complete(Irp, STATUS_CANCELLED);
}

Race DoubleCompletion(bool Faulty) {
    auto Sent = std::make_shared<std::optional<SentIrp>>();
    return {"double completion",
            [Sent] {
                iotest::Handlers[IRP_MJ_READ] = [](PIRP Irp) {
                    IoMarkIrpPending(Irp);
                    Irp->CancelRoutine = CancelRoutine;
                    return STATUS_PENDING;
                };
                Sent->reset();
                IrpBuilder Read;
                Read.MajorFunction = IRP_MJ_READ;
                Sent->emplace(SendIrp(iotest::TheDevice, Read));
            },
            {[Sent, Faulty] {
                 PIRP Irp = (*Sent)->Irp();
                 PDRIVER_CANCEL Mine = nullptr;
                 if (Faulty) {
                     Mine = __atomic_load_n(&Irp->CancelRoutine, __ATOMIC_SEQ_CST);
                     SchedulePoint("a look at the cancel routine", Irp);
                     __atomic_store_n(&Irp->CancelRoutine, nullptr, __ATOMIC_SEQ_CST);
                 } else {
                     Mine = __atomic_exchange_n(&Irp->CancelRoutine, nullptr, __ATOMIC_SEQ_CST);
                 }
                 if (Mine != nullptr) {
                     iotest::Complete(Irp, STATUS_SUCCESS);
                 }
             },
             [Sent] { (*Sent)->Cancel(); }},
            [Sent] {
                (*Sent)->Wait();
                Sent->reset();
                return std::string{};
            }};
}

// A counted block of pool. Faulty: who was not the last to give its reference back looks at the block again.
struct Counted {
    KSPIN_LOCK Lock;
    LONG References, Uses;
};

Race UseAfterTheLastDereference(bool Faulty) {
    auto Block = std::make_shared<Counted *>();
    const auto Use = [=] {
        const auto Touch = [Block] {
            const Spin Hold(&(*Block)->Lock);
            ++(*Block)->Uses;
        };
        Touch();
        if (InterlockedDecrement(&(*Block)->References) == 0) {
            ExFreePoolWithTag(*Block, Tag);
        } else if (Faulty) {
            Touch();
        }
    };
    return {"use after the last dereference",
            [Block] {
                *Block = static_cast<Counted *>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(Counted), Tag));
                **Block = {0, 2, 0};
            },
            {Use, Use},
            {}};
}

struct KnownFault {
    const char *Name;
    Race (*Make)(bool Faulty);
    const char *Report;
};

void PrintTo(const KnownFault &Fault, std::ostream *Stream) {
    *Stream << Fault.Name;
}

class KnownFaults : public testing::WithParamInterface<KnownFault>, public iotest::IoTest {};

void RunToDeath(const Race &Of, const ExploreOptions &Options) {
    const ExploreResult Result = Explore(Of, Options);
    if (!Result.Failure.empty()) {
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule, 0, 0, 0,
                 fmt::format("{}\nat schedule {} of the race \"{}\": RVFSD_SCHEDULE={}", Result.Failure,
                             Result.Walked + Result.Random, Of.Name, Result.Schedule));
    }
}

TEST_P(KnownFaults, AreFoundByTheWalkAndByDrawnSchedulesAndNothingElseIs) {
    const auto &[Name, Make, Report] = GetParam();
    const auto Found = testing::AllOf(testing::ContainsRegex(Report),
                                      testing::ContainsRegex("at schedule .* of the race .*: RVFSD_SCHEDULE=."));
    const ExploreOptions WalkOnly{.RandomSchedules = 0};
    const ExploreOptions RandomOnly{.MostSchedules = 1};
    EXPECT_DEATH(RunToDeath(Make(true), WalkOnly), Found);
    EXPECT_DEATH(RunToDeath(Make(true), RandomOnly), Found);
    const ExploreResult Clean = Explore(Make(false), {.RandomSchedules = 300});
    EXPECT_EQ(Clean.Failure, "") << Clean.Schedule;
    EXPECT_FALSE(Clean.Bounded) << "all schedules of two preemptions";
    std::cout << "[ EXPLORER ] \"" << Name << "\" mended: " << Clean.Walked << " schedules, all, and " << Clean.Random
              << " random ones of up to " << Clean.MostPoints << " points\n";
}

constexpr KnownFault Faults[] = {
    {"MissingRecheck", MissingRecheck, "an item stays in the queue without a worker"},
    {"ReversedOrder", ReversedOrder, "nobody can go on"},
    {"DroppedWake", DroppedWake, "nobody can go on"},
    {"DoubleCompletion", DoubleCompletion, "STOP 0x00000044|STOP 0x000000C9"},
    {"UseAfterTheLastDereference", UseAfterTheLastDereference, "STOP 0x000000C4|STOP 0x00000050|heap-use-after-free"},
};
INSTANTIATE_TEST_SUITE_P(Explorer, KnownFaults, testing::ValuesIn(Faults),
                         [](const auto &Info) { return std::string(Info.param.Name); });

TEST_F(KnownFaults, AScheduleIsRepeatedByItsText) {
    const Race Broken = MissingRecheck(true);
    for (const ExploreOptions &Options : {ExploreOptions{.RandomSchedules = 0}, ExploreOptions{.MostSchedules = 1}}) {
        const ExploreResult First = Explore(Broken, Options);
        ASSERT_NE(First.Failure, "");
        for (int Time = 0; Time < 100; ++Time) {
            ASSERT_EQ(RunSchedule(Broken, First.Schedule), First.Failure) << First.Schedule;
        }
    }
}

} // namespace
} // namespace embedded
