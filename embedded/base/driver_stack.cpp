#include "embedded/base/driver_stack.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <sys/mman.h>
#include <utility>

#include "embedded/base/frame.h"
#include "embedded/base/probe.h"

// void EmbeddedCallOnStack(ULONG_PTR Top, StackRoutine Run, void *Argument): the frame pointer leads back.
asm(R"(
    .text
    .p2align 4
    .hidden EmbeddedCallOnStack
    .globl EmbeddedCallOnStack
    .type EmbeddedCallOnStack, @function
EmbeddedCallOnStack:
)" ASM_ENTER_FRAME R"(    movq %rdi, %rsp
    movq %rdx, %rdi
    callq *%rsi
    leave
    .cfi_def_cfa %rsp, 8
    ret
    .cfi_endproc
    .size EmbeddedCallOnStack, . - EmbeddedCallOnStack
)");

extern "C" void EmbeddedCallOnStack(ULONG_PTR Top, embedded::StackRoutine Run, void *Argument);

namespace embedded {
namespace {

// From the upper end of a thread's stack: the host's own part, then one part for each of the driver's stacks. Such a
// part is the driver's stack, the guard, the Provider's room and the room of other host's code.
constexpr ULONG_PTR HostBytes = 3 << 20;
constexpr ULONG_PTR PartBytes = 1 << 20;
constexpr ULONG Parts = 3;
constexpr ULONG_PTR GuardBytes = 64 * 1024;
constexpr ULONG_PTR ProviderBytes = 384 * 1024;
constexpr ULONG_PTR LeftBytes = 128 * 1024; // that nobody takes of a thread's stack
constexpr UCHAR Unused = 0xD5;

std::atomic<ULONG_PTR> DeepestAtProvider{0};
struct {
    std::mutex Mutex;
    StackUse Use = {0, "none", 0, 0, 0};
} Deepest;

ULONG_PTR TopOf(const KThread &Thread, ULONG Part) {
    return ((Thread.StackHigh - HostBytes) & ~ULONG_PTR{PAGE_SIZE - 1}) - Part * PartBytes;
}

ULONG_PTR GuardEnd(ULONG_PTR Top) {
    return Top - DriverStackBytes - GuardBytes;
}

__attribute__((no_sanitize("address", "thread"))) void Paint(ULONG_PTR End, ULONG_PTR Bytes) {
    auto *Words = reinterpret_cast<volatile ULONG64 *>(End - Bytes);
    for (ULONG_PTR Index = 0; Index < Bytes / sizeof(*Words); ++Index) {
        Words[Index] = ULONG64{Unused} * 0x0101010101010101;
    }
}

// How much of the Bytes bytes below End has been written since they were painted.
__attribute__((no_sanitize("address", "thread"))) ULONG_PTR Used(ULONG_PTR End, ULONG_PTR Bytes) {
    const auto *Words = reinterpret_cast<const volatile ULONG64 *>(End - Bytes);
    ULONG_PTR Index = 0;
    while (Index < Bytes / sizeof(*Words) && Words[Index] == ULONG64{Unused} * 0x0101010101010101) {
        ++Index;
    }
    return Bytes - Index * sizeof(*Words);
}

// FALSE when the thread has no such part. A main thread's stack grows by being written, and below a guard no more.
bool Make(KThread &Thread, ULONG Part) {
    const ULONG_PTR Top = TopOf(Thread, Part);
    Paint(Top - PartBytes + PAGE_SIZE, PAGE_SIZE);
    Paint(Top, DriverStackBytes);
    if (mprotect(reinterpret_cast<void *>(GuardEnd(Top)), GuardBytes, PROT_NONE) != 0) {
        return false;
    }
    ++Thread.DriverStacks;
    return true;
}

void Measure(const KThread &Thread) {
    std::lock_guard Guard(Deepest.Mutex);
    for (ULONG Part = 0; Part < Thread.DriverStacks; ++Part) {
        const ULONG_PTR Top = TopOf(Thread, Part);
        Deepest.Use.Whole = std::max(Deepest.Use.Whole, Used(Top, DriverStackBytes));
        if (Thread.ProviderPainted & (1u << Part)) {
            Deepest.Use.Provider = std::max(Deepest.Use.Provider, Used(GuardEnd(Top), MeasuredProviderBytes));
        }
    }
}

// What DriverFrame and its like say while another stack is used.
class Place {
public:
    Place(KThread &Thread, ULONG_PTR Frame, ULONG_PTR Low)
        : Thread_(Thread), Frame_(std::exchange(Thread.DriverFrame, Frame)),
          Low_(std::exchange(Thread.DriverLow, Low)) {
    }
    ~Place() {
        Thread_.DriverFrame = Frame_;
        Thread_.DriverLow = Low_;
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;

private:
    KThread &Thread_;
    const ULONG_PTR Frame_;
    const ULONG_PTR Low_;
};

} // namespace

void NTAPI NoteStackUse(ULONG_PTR Bytes, std::string_view Routine) noexcept {
    std::lock_guard Guard(Deepest.Mutex);
    if (Bytes > DeepestAtService) {
        DeepestAtService = Bytes;
        Deepest.Use.Service = Routine;
    }
}

StackUse DeepestStackUse() {
    Measure(CurrentThread());
    std::lock_guard Guard(Deepest.Mutex);
    Deepest.Use.AtService = DeepestAtService;
    Deepest.Use.AtProvider = DeepestAtProvider;
    return Deepest.Use;
}

ULONG_PTR StackUsedUp(const void *Address, ULONG_PTR Pointer) {
    const KThread *Thread = CurrentThreadRecord;
    if (Thread == nullptr) {
        return 0;
    }
    const auto Touched = reinterpret_cast<ULONG_PTR>(Address);
    if (Thread->DriverLow != 0) {
        return Touched < Thread->DriverLow && Touched + GuardBytes >= Thread->DriverLow ? DriverStackBytes : 0;
    }
    // The host's code has the room down to the guard of the thread's next driver's stack.
    if (const ULONG Part = Thread->DriverStacksInUse; Part < Thread->DriverStacks) {
        const ULONG_PTR High = Part == 0 ? Thread->StackHigh : GuardEnd(TopOf(*Thread, Part - 1));
        const ULONG_PTR Low = GuardEnd(TopOf(*Thread, Part)) + GuardBytes;
        if (Touched < Low && Touched + GuardBytes >= Low && Pointer < Low + GuardBytes) {
            return High - Low;
        }
    }
    // The host's pages without access below a stack may count as the stack's.
    return Touched + GuardBytes >= Thread->StackLow && Touched < Thread->StackLow + GuardBytes &&
                   Pointer < Thread->StackLow + GuardBytes
               ? Thread->StackHigh - Thread->StackLow
               : 0;
}

void LeaveDriverStacks(KThread &Thread) {
    Measure(Thread);
    while (Thread.DriverStacks != 0) {
        const ULONG_PTR Top = TopOf(Thread, --Thread.DriverStacks);
        mprotect(reinterpret_cast<void *>(GuardEnd(Top)), GuardBytes, PROT_READ | PROT_WRITE);
    }
    Thread.ProviderPainted = 0;
}

void RunOnDriverStack(StackRoutine Run, void *Argument) noexcept {
    KThread &Thread = CurrentThread();
    const auto Here = reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    const ULONG Part = Thread.DriverStacksInUse;
    const bool HasRoom = Part < Parts &&
                         Thread.StackHigh - Thread.StackLow >= HostBytes + Parts * PartBytes + LeftBytes &&
                         Here > TopOf(Thread, Part) + PAGE_SIZE;
    if (!HasRoom || (Part == Thread.DriverStacks && !Make(Thread, Part))) {
        const Place Marked(Thread, Here, 0);
        Run(Argument);
        return;
    }
    const ULONG_PTR Top = TopOf(Thread, Part);
    const Place Marked(Thread, Top, Top - DriverStackBytes);
    ++Thread.DriverStacksInUse;
    EmbeddedCallOnStack(Top, Run, Argument);
    --Thread.DriverStacksInUse;
}

namespace {

void RunBelow(ULONG_PTR Distance, StackRoutine Run, void *Argument) noexcept {
    KThread &Thread = CurrentThread();
    const ULONG_PTR Low = Thread.DriverLow;
    const ULONG_PTR Frame = Thread.DriverFrame;
    const auto Here = reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    const Place Marked(Thread, 0, 0);
    // A handler of signals has a stack of its own.
    if (Low != 0 && Here >= Low && Here < Frame) {
        EmbeddedCallOnStack(Low - GuardBytes - Distance, Run, Argument);
    } else {
        Run(Argument);
    }
}

} // namespace

void RunOnHostStack(StackRoutine Run, void *Argument) noexcept {
    RunBelow(ProviderBytes, Run, Argument);
}

void RunProvider(StackRoutine Run, void *Argument) noexcept {
    KThread &Thread = CurrentThread();
    if (Thread.DriverFrame == 0) {
        Run(Argument);
        return;
    }
    const ULONG_PTR Bytes = Thread.DriverFrame - reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    if (Bytes > DeepestAtProvider.load(std::memory_order_relaxed)) {
        std::lock_guard Guard(Deepest.Mutex);
        DeepestAtProvider = std::max(DeepestAtProvider.load(), Bytes);
    }
    if (Thread.DriverLow != 0) {
        const ULONG Part = 1u << (Thread.DriverStacksInUse - 1);
        if (!(Thread.ProviderPainted & Part)) {
            Thread.ProviderPainted |= Part;
            Paint(Thread.DriverLow - GuardBytes, MeasuredProviderBytes);
        }
    }
    RunBelow(0, Run, Argument);
}

} // namespace embedded
