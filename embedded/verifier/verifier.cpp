#include "embedded/verifier/verifier.h"

#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <map>
#include <unistd.h>

#include <fmt/format.h>

#include "embedded/ex.h"
#include "embedded/image/driver_image.h"
#include "embedded/image/symbols.h"
#include "embedded/image/unwind.h"
#include "embedded/ps.h"

namespace embedded {
namespace {

struct LeakChecks {
    std::mutex Mutex;
    std::map<std::string, std::function<std::string()>, std::less<>> Checks;
};

struct UserRanges {
    std::mutex Mutex;
    std::map<ULONG_PTR, SIZE_T> Ranges;
};

UserRanges &Users() {
    static UserRanges &Instance = *new UserRanges;
    return Instance;
}

LeakChecks &Leaks() {
    static LeakChecks Instance;
    return Instance;
}

void WriteToStderr(std::string_view Text) {
    while (!Text.empty()) {
        ssize_t Written = write(STDERR_FILENO, Text.data(), Text.size());
        if (Written <= 0) {
            return;
        }
        Text.remove_prefix(static_cast<size_t>(Written));
    }
}

struct CallCodes {
    const char *Kind;
    ULONG IrqlCode;
    ULONG_PTR IrqlParameter;
    ULONG RegionCode;
    ULONG_PTR RegionParameter;
};

thread_local ULONG_PTR ReportedFrame = 0;

// By DriverCall.
constexpr CallCodes ChangedCodes[] = {
    {"dispatch routine", bugcheck::IoVerifier, 0x05, bugcheck::ApcIndexMismatch, 0},
    {"fast I/O routine", bugcheck::Verifier, 0xC6, bugcheck::Verifier, 0xC5},
    {"completion routine", bugcheck::Verifier, 0xFA, bugcheck::Verifier, 0xFB},
    {"routine", bugcheck::Verifier, 0xFA, bugcheck::ApcIndexMismatch, 0},
};

} // namespace

void ReportStackFrom(ULONG_PTR Frame) {
    ReportedFrame = Frame;
}

void BugCheck(ULONG Code, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4, std::string_view What) {
    static std::atomic_flag Stopping;
    static thread_local bool Reporting = false;
    if (Reporting) {
        std::abort();
    }
    Reporting = true;
    // A second violation, by another thread, must not garble the report of the first.
    while (Stopping.test_and_set()) {
        pause();
    }
    WriteToStderr(
        fmt::format("*** STOP 0x{:08X} (0x{:016X},0x{:016X},0x{:016X},0x{:016X}): {}\n", Code, P1, P2, P3, P4, What));
    PVOID Frames[48];
    if (AnyImage()) {
        // The host's unwinder ends at the first frame of an image.
        const size_t Count = CaptureStack(Frames, std::size(Frames));
        WriteOpenCalls();
        for (size_t Index = 0; Index < Count; ++Index) {
            WriteToStderr(fmt::format("  {}\n", DescribeAddress(Frames[Index])));
        }
        std::abort();
    }
    int Count = backtrace(Frames, 48);
    backtrace_symbols_fd(Frames, Count, STDERR_FILENO);
    std::abort();
}

void SetVerifierLevel(VerifierLevel Level) {
    CurrentVerifierLevel.store(Level, std::memory_order_relaxed);
}

void NTAPI ReportIrql(KIRQL Highest, std::string_view Routine) noexcept {
    KIRQL Irql = CurrentThread().Irql;
    BugCheck(bugcheck::Verifier, bugcheck::WrongIrql, Irql, Highest, 0,
             fmt::format("{} called at IRQL {}, allowed up to {}", Routine, Irql, Highest));
}

UserMemory::UserMemory(SIZE_T Bytes) : Address_(std::malloc(Bytes)), Bytes_(Bytes) {
    std::lock_guard Guard(Users().Mutex);
    Users().Ranges[reinterpret_cast<ULONG_PTR>(Address_)] = Bytes_;
    ++UserMemories;
}

UserMemory::~UserMemory() {
    {
        std::lock_guard Guard(Users().Mutex);
        Users().Ranges.erase(reinterpret_cast<ULONG_PTR>(Address_));
        --UserMemories;
    }
    std::free(Address_);
}

bool NTAPI IsUserMemory(const void *Address) noexcept {
    const auto Value = reinterpret_cast<ULONG_PTR>(Address);
    std::lock_guard Guard(Users().Mutex);
    auto Next = Users().Ranges.upper_bound(Value);
    return Next != Users().Ranges.begin() && Value < std::prev(Next)->first + std::prev(Next)->second;
}

void NTAPI ReportUserAddress(ULONG_PTR Rule, const void *Address, std::string_view Routine) noexcept {
    BugCheck(bugcheck::Verifier, Rule, reinterpret_cast<ULONG_PTR>(Address), 0, 0,
             fmt::format("{}: {} is an address of a process", Routine, Address));
}

void RequireUnchanged::Compare() const {
    const KThread &Thread = CurrentThread();
    const CallCodes &Codes = ChangedCodes[static_cast<int>(Call_)];
    if (Thread.Irql != Irql_) {
        BugCheck(
            Codes.IrqlCode, Codes.IrqlParameter, reinterpret_cast<ULONG_PTR>(Routine_), Irql_, Thread.Irql,
            fmt::format("{} {} was called at IRQL {} and returned at {}", Codes.Kind, Routine_, Irql_, Thread.Irql));
    }
    if (Thread.CriticalRegions != CriticalRegions_) {
        BugCheck(Codes.RegionCode, Codes.RegionParameter, reinterpret_cast<ULONG_PTR>(Routine_),
                 static_cast<ULONG_PTR>(CriticalRegions_), static_cast<ULONG_PTR>(Thread.CriticalRegions),
                 fmt::format("{} {} was called in {} critical regions and returned in {}", Codes.Kind, Routine_,
                             CriticalRegions_, Thread.CriticalRegions));
    }
    if (Thread.HeldCount != HeldCount_) {
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 1, reinterpret_cast<ULONG_PTR>(Routine_), HeldCount_,
                 Thread.HeldCount,
                 fmt::format("{} {} was called with {} locks held and returned with {}:\n{}", Codes.Kind, Routine_,
                             HeldCount_, Thread.HeldCount, DescribeHeldLocks(Thread)));
    }
}

void RegisterLeakCheck(std::string_view Name, std::function<std::string()> Check) {
    std::lock_guard Guard(Leaks().Mutex);
    Leaks().Checks[std::string(Name)] = std::move(Check);
}

std::string DescribeLeaks() {
    std::string Text = DescribePool(PoolKind::Pool) + DescribePool(PoolKind::Irp) + DescribePool(PoolKind::Mdl) +
                       DescribePool(PoolKind::Object);
    if (SIZE_T Count = LiveObjects(LiveKind::Resource)) {
        Text += fmt::format("{} resources not deleted\n", Count);
    }
    if (SIZE_T Count = LiveObjects(LiveKind::Lookaside)) {
        Text += fmt::format("{} lookaside lists not deleted\n", Count);
    }
    Text += DescribeHeldLocks(CurrentThread());
    if (SIZE_T Count = RunningSystemThreads()) {
        Text += fmt::format("{} system threads running\n", Count);
    }
    if (SIZE_T Count = OpenThreadHandles()) {
        Text += fmt::format("{} thread handles open\n", Count);
    }
    std::map<std::string, std::function<std::string()>, std::less<>> Checks;
    {
        std::lock_guard Guard(Leaks().Mutex);
        Checks = Leaks().Checks;
    }
    for (const auto &[Name, Check] : Checks) {
        if (std::string Found = Check(); !Found.empty()) {
            Text += fmt::format("{}: {}{}", Name, Found, Found.back() == '\n' ? "" : "\n");
        }
    }
    return Text;
}

void VerifyNothingLeft() {
    if (std::string Text = DescribeLeaks(); !Text.empty()) {
        BugCheck(bugcheck::Verifier, bugcheck::LeakAtUnload, static_cast<ULONG_PTR>(PoolBlocksInUse()),
                 static_cast<ULONG_PTR>(PoolBytesInUse()), 0, "left behind:\n" + Text);
    }
}

namespace {

// Through the frames of an image, which keeps no frame pointers, by its unwind tables: from the frame that a function
// of the image called to the host's frame behind it, whose frame pointer it returns; 0 when the way is lost.
ULONG_PTR WalkImage(const DriverImage &Image, PVOID Return, ULONG_PTR Frame, PVOID *Frames, size_t Count,
                    size_t *Found) {
    const KThread &Thread = CurrentThread();
    UnwindContext Context = {};
    Context.Rip = reinterpret_cast<ULONG_PTR>(Return);
    Context.Registers[StackPointer] = Frame + 16;
    Context.Registers[FramePointer] = *reinterpret_cast<const ULONG_PTR *>(Frame);
    while (Image.Contains(reinterpret_cast<PVOID>(Context.Rip))) {
        if (!UnwindImageFrame(Image, &Context, Thread.StackLow, Thread.StackHigh) || *Found == Count) {
            return 0;
        }
        Frames[(*Found)++] = reinterpret_cast<PVOID>(Context.Rip);
    }
    return Context.Registers[FramePointer];
}

} // namespace

__attribute__((noinline, no_sanitize("address"), no_sanitize("thread"))) size_t CaptureStack(PVOID *Frames,
                                                                                             size_t Count) {
    const KThread &Thread = CurrentThread();
    auto Frame = ReportedFrame != 0 ? ReportedFrame : reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    size_t Found = 0;
    size_t TracedCalls = 0;
    while (Found < Count && Frame >= Thread.StackLow && Frame + 16 <= Thread.StackHigh && Frame % 8 == 0) {
        auto Words = reinterpret_cast<const ULONG_PTR *>(Frame);
        if (Words[1] == 0) {
            break;
        }
        PVOID Return = reinterpret_cast<PVOID>(Words[1]);
        if (PVOID Real = TracedReturn(Return, TracedCalls)) {
            Return = Real;
            ++TracedCalls;
        }
        Frames[Found++] = Return;
        ULONG_PTR Next = Words[0];
        if (const DriverImage *Image = ImageOf(Return)) {
            Next = WalkImage(*Image, Return, Frame, Frames, Count, &Found);
        }
        if (Next <= Frame) {
            break;
        }
        Frame = Next;
    }
    return Found;
}

__attribute__((no_sanitize("address", "thread"))) std::vector<const void *>
PointersWithin(const void *Start, size_t Bytes, const void *Low, const void *High) {
    std::vector<const void *> Found;
    const auto *Words = static_cast<const void *const *>(Start);
    for (size_t Index = 0; Index < Bytes / sizeof(*Words); ++Index) {
        if (const void *Word = Words[Index]; Word >= Low && Word < High) {
            Found.push_back(Word);
        }
    }
    return Found;
}

std::string DescribeAddress(const void *Address) {
    if (const DriverImage *Image = ImageOf(Address)) {
        return DescribeImageAddress(*Image, Address);
    }
    Dl_info Info;
    if (dladdr(Address, &Info) == 0 || Info.dli_fname == nullptr) {
        return fmt::format("{}", Address);
    }
    auto Value = reinterpret_cast<ULONG_PTR>(Address);
    if (Info.dli_sname == nullptr) {
        std::string_view Module = Info.dli_fname;
        Module.remove_prefix(Module.rfind('/') + 1);
        return fmt::format("{}+0x{:x}", Module, Value - reinterpret_cast<ULONG_PTR>(Info.dli_fbase));
    }
    int Status = 0;
    char *Plain = abi::__cxa_demangle(Info.dli_sname, nullptr, nullptr, &Status);
    std::string Name = Status == 0 ? Plain : Info.dli_sname;
    std::free(Plain);
    return fmt::format("{}+0x{:x}", Name, Value - reinterpret_cast<ULONG_PTR>(Info.dli_saddr));
}

} // namespace embedded
