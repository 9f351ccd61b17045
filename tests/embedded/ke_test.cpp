#include "embedded/ke/ke.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "embedded/dbg.h"
#include "embedded/ps/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/faults.h"

namespace embedded {
namespace {

constexpr LONGLONG Start = 133'000'000'000'000'000;

LARGE_INTEGER Relative(LONGLONG Units) {
    LARGE_INTEGER Time = {.QuadPart = -Units};
    return Time;
}

// The manual clock, and no system thread left behind.
class KernelTest : public testing::Test {
protected:
    void SetUp() override {
        Clock::SetManual(Start);
    }
    void TearDown() override {
        StopSystemThreads();
        EXPECT_EQ(RunningSystemThreads(), 0u);
        EXPECT_EQ(OpenThreadHandles(), 0u);
        Clock::SetRunning();
    }

    void StartThread(PKSTART_ROUTINE Routine, PVOID Context) {
        HANDLE Thread;
        ASSERT_EQ(PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr, Routine, Context), STATUS_SUCCESS);
        EXPECT_TRUE(IsThreadHandle(Thread));
        EXPECT_TRUE(CloseThreadHandle(Thread));
        EXPECT_FALSE(CloseThreadHandle(Thread));
    }
};

struct Poller {
    std::atomic<int> Polls{0};
    int Limit = 0;
    LONGLONG Period = 0;
};

VOID NTAPI Poll(PVOID Context) {
    auto &Mine = *static_cast<Poller *>(Context);
    while (Mine.Limit == 0 || Mine.Polls < Mine.Limit) {
        ++Mine.Polls;
        LARGE_INTEGER Interval = Relative(Mine.Period);
        KeDelayExecutionThread(KernelMode, FALSE, &Interval);
    }
}

TEST_F(KernelTest, AdvanceRunsAPollerOncePerPeriod) {
    Poller Worker;
    Worker.Limit = 21;
    Worker.Period = 100 * Clock::Millisecond;
    StartThread(Poll, &Worker);
    Clock::Settle();
    EXPECT_EQ(Worker.Polls, 1);
    Clock::Advance(100 * Clock::Millisecond - 1);
    EXPECT_EQ(Worker.Polls, 1);
    Clock::Advance(1);
    EXPECT_EQ(Worker.Polls, 2);
    Clock::Advance(2 * Clock::Second);
    EXPECT_EQ(Worker.Polls, 21);
    EXPECT_EQ(RunningSystemThreads(), 0u);
}

TEST_F(KernelTest, JoinGivesUpAtItsLimitAndStopEndsTheRest) {
    Poller Forever;
    Forever.Period = Clock::Second;
    StartThread(Poll, &Forever);
    EXPECT_EQ(JoinSystemThreads(3 * Clock::Second), 1u);
    EXPECT_EQ(Clock::SystemTime(), Start + 3 * Clock::Second);
    EXPECT_EQ(Forever.Polls, 4);
    StopSystemThreads();
    EXPECT_EQ(RunningSystemThreads(), 0u);
}

VOID NTAPI TerminateDeep(int Depth) {
    if (Depth > 0) {
        TerminateDeep(Depth - 1);
    } else {
        PsTerminateSystemThread(STATUS_SUCCESS);
    }
    ADD_FAILURE() << "returned from a terminated thread";
}

TEST_F(KernelTest, TerminateEndsTheThreadFromAnyDepth) {
    HANDLE Thread;
    PsCreateSystemThread(
        &Thread, 0, nullptr, nullptr, nullptr, [](PVOID) NTAPI { TerminateDeep(20); }, nullptr);
    EXPECT_EQ(KeWaitForSingleObject(ThreadOfHandle(Thread), Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(JoinSystemThreads(), 0u);
    CloseThreadHandle(Thread);
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER);
}

struct Waited {
    KEVENT Go;
    std::atomic<int> Woken{0};
};

VOID NTAPI AwaitGo(PVOID Context) {
    auto &Mine = *static_cast<Waited *>(Context);
    KeWaitForSingleObject(&Mine.Go, Executive, KernelMode, FALSE, nullptr);
    ++Mine.Woken;
}

TEST_F(KernelTest, ASetWakesAllOrOneByTheTypeOfTheEvent) {
    for (const EVENT_TYPE Type : {NotificationEvent, SynchronizationEvent}) {
        const bool All = Type == NotificationEvent;
        Waited Event;
        KeInitializeEvent(&Event.Go, Type, FALSE);
        for (int Thread = 0; Thread < 3; ++Thread) {
            StartThread(AwaitGo, &Event);
        }
        Clock::Settle();
        EXPECT_EQ(Event.Woken, 0);
        EXPECT_EQ(KeSetEvent(&Event.Go, 0, FALSE), 0);
        Clock::Settle();
        EXPECT_EQ(Event.Woken, All ? 3 : 1);
        EXPECT_EQ(KeReadStateEvent(&Event.Go), All ? 1 : 0);
        KeSetEvent(&Event.Go, 0, FALSE);
        Clock::Settle();
        KeSetEvent(&Event.Go, 0, FALSE);
        Clock::Settle();
        EXPECT_EQ(Event.Woken, 3);
        EXPECT_EQ(JoinSystemThreads(), 0u);
    }
}

TEST_F(KernelTest, AWaitTimesOutWhenTheClockReachesIt) {
    static KEVENT Event;
    static std::atomic<NTSTATUS> Result;
    KeInitializeEvent(&Event, SynchronizationEvent, FALSE);
    for (const bool Set : {false, true}) {
        Result = STATUS_PENDING;
        StartThread(
            [](PVOID) NTAPI {
                LARGE_INTEGER Timeout = Relative(Clock::Second);
                Result = KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, &Timeout);
            },
            nullptr);
        Clock::Advance(Clock::Second - 1);
        EXPECT_EQ(Result, STATUS_PENDING);
        Set ? static_cast<void>(KeSetEvent(&Event, 0, FALSE)) : Clock::Advance(1);
        Clock::Settle();
        EXPECT_EQ(Result, Set ? STATUS_SUCCESS : STATUS_TIMEOUT);
        EXPECT_EQ(KeReadStateEvent(&Event), 0);
    }
}

TEST(RunningClock, StoppingTheClockStopsDelaysThatAreUnderWay) {
    Poller Worker;
    Worker.Limit = 1;
    Worker.Period = 3600 * Clock::Second;
    HANDLE Thread;
    PsCreateSystemThread(&Thread, 0, nullptr, nullptr, nullptr, Poll, &Worker);
    CloseThreadHandle(Thread);
    Clock::Settle();
    Clock::SetManual(Start);
    Clock::Advance(3600 * Clock::Second);
    EXPECT_EQ(JoinSystemThreads(0), 0u);
    Clock::SetRunning();
}

NTAPI std::string Formatted(PCSTR Format, ...) {
    __builtin_ms_va_list List;
    __builtin_ms_va_start(List, Format);
    std::string Text = FormatMessage(Format, List);
    __builtin_ms_va_end(List);
    return Text;
}

TEST(DebugOutput, KnowsTheKernelsFormats) {
    WCHAR Name[] = u"\\a\\\u00e4\U0001F600";
    UNICODE_STRING Counted{10, 10, Name};
    EXPECT_EQ(Formatted("plain %% %s|%5s|%-5s|%.2s", "text", "r", "l", "cut"), "plain % text|    r|l    |cu");
    EXPECT_EQ(Formatted("%d %u %x %08lX %I64x %hx", -1, 0xFFFFFFFF, 0xAB, 0xC0000005, 0x123456789ABull, 0x12345),
              "-1 4294967295 ab C0000005 123456789ab 2345");
    EXPECT_EQ(Formatted("%wZ", &Counted), "\\a\\ä\xEF\xBF\xBD");
    Counted.Length = 12;
    EXPECT_EQ(Formatted("%wZ %ws %S %ls", &Counted, Name, u"s", u"t"), "\\a\\ä😀 \\a\\ä😀 s t");
    EXPECT_EQ(Formatted("%p %c %02d:%*d", reinterpret_cast<PVOID>(0xAB), 'q', 7, 4, 9), "00000000000000AB q 07:   9");
    EXPECT_EQ(Formatted("%s %wZ %", nullptr, nullptr), "(null) (null) ");
}

} // namespace
} // namespace embedded
