#include "embedded/ps/ps.h"

#include <chrono>
#include <csetjmp>
#include <list>
#include <map>
#include <memory>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/image/calls.h"
#include "embedded/ke/schedule.h"
#include "embedded/ps/probe.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/leaks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/stack.h"

namespace embedded {
namespace {

struct SystemThread {
    _KTHREAD Thread{};
    PKSTART_ROUTINE Start = nullptr;
    PVOID Context = nullptr;
    std::thread Host;
    jmp_buf Exit;
    bool Ended = false; // guarded by the table's mutex
};

// How long the host waits for system threads when the machine goes down.
constexpr std::chrono::seconds LongestEnd{60};

using ThreadPointer = std::shared_ptr<SystemThread>;

struct ThreadTable {
    std::mutex Mutex;
    std::condition_variable Ended;
    std::list<ThreadPointer> Threads; // started and not yet joined
    std::map<ULONG_PTR, ThreadPointer> Handles;
    std::multimap<PVOID, ThreadPointer> References; // that the driver took
    ULONG_PTR NextHandle = FirstHandle;
    SIZE_T Running = 0;
    bool Stopping = false;

    // Kernel handles are negative, like those of the object manager, which starts elsewhere.
    static constexpr ULONG_PTR FirstHandle = 0xFFFFFFFF'A0000000;
    static constexpr ULONG_PTR LastHandle = 0xFFFFFFFF'AFFFFFFF;
};

ThreadTable &Table() {
    static ThreadTable &Instance = *new ThreadTable;
    return Instance;
}

constinit thread_local SystemThread *CurrentSystemThread = nullptr;

struct ProcessTable {
    std::mutex Mutex;
    std::list<std::unique_ptr<_EPROCESS>> Processes;
    ULONG_PTR NextId = SystemProcessId + 4;
};

ProcessTable &Processes() {
    static ProcessTable &Instance = *new ProcessTable;
    return Instance;
}

// A thread ends by a jump out of the driver's frames: exceptions cannot unwind through those.
__attribute__((noinline)) void RunStartRoutine(SystemThread &Thread) {
    if (_setjmp(Thread.Exit) == 0) {
        Thread.Start(Thread.Context);
    }
}

void ThreadMain(SystemThread &Thread) {
    if (Scheduler *const Explorer = TheScheduler; Explorer != nullptr) {
        Explorer->Enter(Thread.Thread);
    }
    CurrentSystemThread = &Thread;
    EnterThread(Thread.Thread);
    OnDriverStack([&] { RunStartRoutine(Thread); });
    CheckThreadEnd(Thread.Thread);
    LeaveThread(Thread.Thread);
    CurrentSystemThread = nullptr;
    CurrentThreadRecord = nullptr;
    SignalThreadEnd(Thread.Thread);
    {
        std::lock_guard Guard(Table().Mutex);
        Thread.Ended = true;
        --Table().Running;
        Table().Ended.notify_all();
    }
    SettleLeave();
    if (Scheduler *const Explorer = TheScheduler; Explorer != nullptr) {
        Explorer->Leave();
    }
}

// Joins the threads that have ended; the table is not locked.
void Reap() {
    std::list<ThreadPointer> Gone;
    {
        std::lock_guard Guard(Table().Mutex);
        auto &Threads = Table().Threads;
        for (auto Next = Threads.begin(); Next != Threads.end();) {
            auto This = Next++;
            if ((*This)->Ended) {
                Gone.splice(Gone.end(), Threads, This);
            }
        }
    }
    for (const ThreadPointer &Thread : Gone) {
        Thread->Host.join();
        if (Thread->Thread.StoppedInDelay) {
            FreePoolOfThread(Thread->Thread);
        }
    }
}

bool WaitForEnds(LONGLONG Limit) {
    std::unique_lock Lock(Table().Mutex);
    return Table().Ended.wait_for(Lock, std::chrono::nanoseconds(Limit * 100), [] { return Table().Running == 0; });
}

void AdvanceUntilEnded(LONGLONG Limit) {
    const LONGLONG Last = Clock::InterruptTime() + Limit;
    for (Clock::Settle(); RunningSystemThreads() != 0; Clock::Settle()) {
        LONGLONG Due = Clock::NextDue();
        LONGLONG Now = Clock::InterruptTime();
        if (Due > Last) {
            return;
        }
        Clock::Advance(Due > Now ? Due - Now : 0);
    }
}

} // namespace

PEPROCESS CreateProcess(std::string_view Name, TokenRef Token) {
    ProcessTable &All = Processes();
    std::lock_guard Guard(All.Mutex);
    auto Process = new _EPROCESS{};
    Process->UniqueProcessId = All.NextId;
    Process->Name = Name;
    Process->Token = Token.Release();
    All.NextId += 4;
    All.Processes.emplace_back(Process);
    return Process;
}

void DeleteProcess(PEPROCESS Process) {
    if (LONG64 Left = Process->LockedMdls.load(); Left != 0) {
        BugCheck(bugcheck::LeftLockedPages, 0, 0, reinterpret_cast<ULONG_PTR>(Process), static_cast<ULONG_PTR>(Left),
                 fmt::format("process {} ends with {} MDLs locked", Process->Name, Left));
    }
    const auto Token = TokenRef::Adopt(std::exchange(Process->Token, nullptr));
    std::lock_guard Guard(Processes().Mutex);
    Processes().Processes.remove_if([&](const auto &Entry) { return Entry.get() == Process; });
}

bool IsThreadHandle(HANDLE Handle) {
    auto Value = reinterpret_cast<ULONG_PTR>(Handle);
    return Value >= ThreadTable::FirstHandle && Value <= ThreadTable::LastHandle;
}

bool CloseThreadHandle(HANDLE Handle) {
    std::lock_guard Guard(Table().Mutex);
    return Table().Handles.erase(reinterpret_cast<ULONG_PTR>(Handle)) == 1;
}

PKTHREAD ThreadOfHandle(HANDLE Handle) {
    std::lock_guard Guard(Table().Mutex);
    auto Found = Table().Handles.find(reinterpret_cast<ULONG_PTR>(Handle));
    return Found == Table().Handles.end() ? nullptr : &Found->second->Thread;
}

SIZE_T OpenThreadHandles() {
    std::lock_guard Guard(Table().Mutex);
    return Table().Handles.size();
}

SIZE_T RunningSystemThreads() {
    std::lock_guard Guard(Table().Mutex);
    return Table().Running;
}

SIZE_T JoinSystemThreads(LONGLONG Limit) {
    if (Clock::IsManual()) {
        AdvanceUntilEnded(Limit);
    } else {
        WaitForEnds(Limit);
    }
    Reap();
    return RunningSystemThreads();
}

void StopSystemThreads() {
    ThreadTable &All = Table();
    {
        std::unique_lock Lock(All.Mutex);
        All.Stopping = true;
        for (const ThreadPointer &Thread : All.Threads) {
            Thread->Thread.MustEnd = true;
            UnparkThread(Thread->Thread);
        }
        // A thread that waits for something that never happens, or runs without ever delaying, would hang the machine.
        if (!All.Ended.wait_for(Lock, LongestEnd, [&] { return All.Running == 0; })) {
            std::string Text = fmt::format("{} system thread(s) do not end", All.Running);
            for (const ThreadPointer &Thread : All.Threads) {
                if (!Thread->Ended) {
                    Text += "\n  begun at " + DescribeAddress(reinterpret_cast<void *>(Thread->Start));
                }
            }
            BugCheck(bugcheck::Verifier, bugcheck::LeakAtUnload, 0, 0, 0, Text);
        }
    }
    Reap();
    {
        // Who waits for a thread that the machine has ended never gets to give its reference back.
        std::lock_guard Guard(All.Mutex);
        All.References.clear();
        All.Stopping = false;
    }
}

// Registered when the program starts; leaks are looked for long after.
[[maybe_unused]] const bool LeakCheckRegistered = [] {
    RegisterLeakCheck("threads", [] {
        std::string Text;
        if (SIZE_T Count = RunningSystemThreads()) {
            Text += fmt::format("{} system threads running\n", Count);
        }
        if (SIZE_T Count = OpenThreadHandles()) {
            Text += fmt::format("{} thread handles open\n", Count);
        }
        return Text;
    });
    return true;
}();

} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE, PVOID,
                                    PKSTART_ROUTINE StartRoutine, PVOID StartContext) noexcept {
    RequireIrql(IrqlRuleOf("PsCreateSystemThread"));
    if (ShouldFail(FaultKind::Thread)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Reap();
    auto Thread = std::make_shared<SystemThread>();
    Thread->Thread.Header.Type = ThreadObjectType;
    InitializeListHead(&Thread->Thread.Header.WaitListHead);
    Thread->Thread.Process = SystemProcess();
    Thread->Thread.SystemThread = true;
    Thread->Thread.CountsInSettle = true;
    Thread->Thread.FaultScopes = 1;
    Thread->Start = StartRoutine;
    Thread->Context = StartContext;

    SchedulePoint("PsCreateSystemThread", nullptr);
    if (Scheduler *const Explorer = TheScheduler; Explorer != nullptr) {
        Explorer->Adopt(Thread->Thread);
    }
    ThreadTable &All = Table();
    std::lock_guard Guard(All.Mutex);
    Thread->Thread.MustEnd = All.Stopping;
    SettleEnter();
    try {
        // The thread keeps its record alive by itself: its handle may be closed while it runs.
        Thread->Host = std::thread([Thread] { ThreadMain(*Thread); });
    } catch (const std::system_error &) {
        SettleLeave();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ++All.Running;
    All.Threads.push_back(Thread);
    *ThreadHandle = reinterpret_cast<HANDLE>(All.NextHandle);
    All.Handles.emplace(All.NextHandle, Thread);
    All.NextHandle += 4;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS) noexcept {
    RequireIrql(IrqlRuleOf("PsTerminateSystemThread"));
    if (CurrentSystemThread == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    WriteOpenCalls();
    longjmp(CurrentSystemThread->Exit, 1);
}

// Only threads are referenced in this way.
NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK, POBJECT_TYPE, KPROCESSOR_MODE, PVOID *Object,
                                         POBJECT_HANDLE_INFORMATION) noexcept {
    RequireIrql(IrqlRuleOf("ObReferenceObjectByHandle"));
    ThreadTable &All = Table();
    std::lock_guard Guard(All.Mutex);
    auto Found = All.Handles.find(reinterpret_cast<ULONG_PTR>(Handle));
    if (Found == All.Handles.end()) {
        *Object = nullptr;
        return STATUS_INVALID_HANDLE;
    }
    *Object = &Found->second->Thread;
    All.References.emplace(*Object, Found->second);
    return STATUS_SUCCESS;
}

LONG_PTR NTAPI ObfDereferenceObject(PVOID Object) noexcept {
    RequireIrql(IrqlRuleOf("ObfDereferenceObject"));
    ThreadTable &All = Table();
    ThreadPointer Last; // let go with the table unlocked
    std::lock_guard Guard(All.Mutex);
    auto Found = All.References.find(Object);
    if (Found == All.References.end()) {
        BugCheck(0x18, 0, reinterpret_cast<ULONG_PTR>(Object), 0, 0, "dereference of an object that is not referenced");
    }
    Last = std::move(Found->second);
    All.References.erase(Found);
    return static_cast<LONG_PTR>(All.References.count(Object));
}

PEPROCESS NTAPI IoGetCurrentProcess() noexcept {
    RequireIrql(IrqlRuleOf("IoGetCurrentProcess"));
    return CurrentThread().Process;
}
