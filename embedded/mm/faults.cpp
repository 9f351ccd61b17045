#include "embedded/mm/faults.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <optional>
#include <ucontext.h>

#include <fmt/format.h>

#include "embedded/base/driver_stack.h"
#include "embedded/ex/guard.h"
#include "embedded/image/calls.h"
#include "embedded/image/unwind.h"
#include "embedded/mm/gone_mappings.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/stack.h"

// The guarded instructions: int Probe(const void *Address) returns 0, or 1 when the access faulted. They are no part
// of any instrumented function, so that probing a redzone is no report.
asm(R"(
    .text
    .p2align 4
    .hidden EmbeddedProbeStart
    .hidden EmbeddedProbeEnd
    .hidden EmbeddedProbeFault
    .hidden EmbeddedProbeRead
    .hidden EmbeddedProbeWrite
    .globl EmbeddedProbeStart
    .globl EmbeddedProbeEnd
    .globl EmbeddedProbeFault
    .globl EmbeddedProbeRead
    .globl EmbeddedProbeWrite
EmbeddedProbeStart:
    .type EmbeddedProbeRead, @function
EmbeddedProbeRead:
    movzbl (%rdi), %eax
    xorl %eax, %eax
    ret
    .type EmbeddedProbeWrite, @function
EmbeddedProbeWrite:
    lock orb $0, (%rdi)
    xorl %eax, %eax
    ret
EmbeddedProbeEnd:
    .type EmbeddedProbeFault, @function
EmbeddedProbeFault:
    movl $1, %eax
    ret
)");

extern "C" {
extern const char EmbeddedProbeStart[];
extern const char EmbeddedProbeEnd[];
extern const char EmbeddedProbeFault[];
int EmbeddedProbeRead(const void *Address);
int EmbeddedProbeWrite(const void *Address);
}

namespace embedded {
namespace {

// What the platform calls it when a driver does what raises Signal.
struct Fault {
    int Signal;
    ULONG Exception;
    const char *What;
};
constexpr Fault Faults[] = {{SIGFPE, 0xC0000094, "divided by zero, or what overflows"},
                            {SIGILL, 0xC000001D, "ran an instruction that there is not"},
                            {SIGTRAP, 0x80000003, "ran into a breakpoint"}};

UnwindContext ContextOf(const greg_t *Registers) {
    // In the order of the instruction set.
    constexpr int Order[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                             REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
    UnwindContext Context = {};
    Context.Rip = static_cast<uint64_t>(Registers[REG_RIP]);
    for (size_t Index = 0; Index < std::size(Order); ++Index) {
        Context.Registers[Index] = static_cast<uint64_t>(Registers[Order[Index]]);
    }
    return Context;
}

// The frame of an image that called the service which At is in, by the frame pointers of the kernel's code.
__attribute__((no_sanitize("address", "thread"))) std::optional<UnwindContext> CallerInImage(const KThread &Thread,
                                                                                             const UnwindContext &At) {
    ULONG_PTR Frame = At.Registers[FramePointer];
    size_t TracedCalls = 0;
    while (Frame >= At.Registers[StackPointer] && Frame >= Thread.StackLow && Frame + 16 <= Thread.StackHigh &&
           Frame % 8 == 0 && ProbeRange(reinterpret_cast<const void *>(Frame), 16, false)) {
        const auto *Words = reinterpret_cast<const ULONG_PTR *>(Frame);
        auto Return = reinterpret_cast<void *>(Words[1]);
        if (void *Real = TracedReturn(Return, TracedCalls)) {
            Return = Real;
            ++TracedCalls;
        }
        if (ImageOf(Return) != nullptr) {
            UnwindContext Caller = {};
            Caller.Rip = reinterpret_cast<uint64_t>(Return);
            Caller.Registers[StackPointer] = Frame + 16;
            Caller.Registers[FramePointer] = Words[0];
            return Caller;
        }
        if (Words[0] <= Frame) {
            break;
        }
        Frame = Words[0];
    }
    return std::nullopt;
}

// The import that the call before Return leads to, through its slot or through the image's jump to it.
std::string ServiceCalledBefore(const LoadedImage &Image, uint64_t Return) {
    constexpr uint16_t CallThrough = 0x15FF, JumpThrough = 0x25FF;
    constexpr uint8_t Call = 0xE8;
    const uint64_t Rva = Return - reinterpret_cast<uint64_t>(Image.Base());
    const ImageImport *Found = ImportThrough(Image, Rva - 6, CallThrough);
    uint8_t Code = 0;
    int32_t Distance = 0;
    if (Found == nullptr && ReadImage(Image, Rva - 5, &Code) && Code == Call && ReadImage(Image, Rva - 4, &Distance)) {
        Found = ImportThrough(Image, Rva + static_cast<int64_t>(Distance), JumpThrough);
    }
    return Found == nullptr ? "a routine" : Found->Name;
}

[[noreturn]] void Report(int Signal, const void *Address, const UnwindContext &At, const std::string &Who,
                         const std::string &Where) {
    for (const Fault &Each : Faults) {
        if (Each.Signal == Signal) {
            BugCheck(0x1E, Each.Exception, At.Rip, 0, 0, fmt::format("{} {}{}", Who, Each.What, Where));
        }
    }
    if (const ULONG_PTR Bytes = StackUsedUp(Address, At.Registers[StackPointer]); Bytes != 0) {
        BugCheck(0x7F, 8, reinterpret_cast<ULONG_PTR>(Address), At.Rip, 0,
                 fmt::format("{} used up the stack, {} bytes{}", Who, Bytes, Where));
    }
    BugCheck(0x50, reinterpret_cast<ULONG_PTR>(Address), 0, At.Rip, 0,
             fmt::format("{} touched memory at {} that it cannot{}{}", Who, Address, DescribeGuarded(Address), Where));
}

// When the instruction is an image's, or one of a service that an image called, stops with the image's frames; returns
// otherwise. The stack is read with care, whatever the registers hold.
void ReportFaultInImage(int Signal, const void *Address, void *SignalContext) {
    const KThread *Thread = CurrentThreadRecord;
    if (Thread == nullptr) {
        return;
    }
    const UnwindContext At = ContextOf(static_cast<const ucontext_t *>(SignalContext)->uc_mcontext.gregs);
    if (const LoadedImage *Image = ImageOf(reinterpret_cast<const void *>(At.Rip))) {
        UnwindContext Behind;
        const std::string Frames = DescribeImageFrames(*Image, At, &Behind);
        ReportStackFrom(Behind.Registers[FramePointer]);
        Report(Signal, Address, At, Image->File().filename().string(), Frames);
    }
    if (const auto Caller = CallerInImage(*Thread, At)) {
        const LoadedImage &Image = *ImageOf(reinterpret_cast<const void *>(Caller->Rip));
        UnwindContext Behind;
        const std::string Frames = DescribeImageFrames(Image, *Caller, &Behind);
        ReportStackFrom(At.Registers[FramePointer]);
        Report(Signal, Address, At, ServiceCalledBefore(Image, Caller->Rip),
               fmt::format(", called by {}{}", Image.File().filename().string(), Frames));
    }
}

// The signals that a probe can cause, and those that a driver's image can cause besides.
constexpr int Signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP};
struct sigaction Old[std::size(Signals)];

void PassOn(const struct sigaction &To, int Signal, siginfo_t *Info, void *Context) {
    if (To.sa_flags & SA_SIGINFO) {
        To.sa_sigaction(Signal, Info, Context);
    } else if (To.sa_handler != SIG_DFL && To.sa_handler != SIG_IGN) {
        To.sa_handler(Signal);
    } else {
        // The instruction faults again, now with the default action; a signal that was sent has to be sent again, and
        // one that comes behind its instruction.
        signal(Signal, SIG_DFL);
        if (Info->si_code <= 0 || Signal == SIGTRAP) {
            raise(Signal);
        }
    }
}

void OnFault(int Signal, siginfo_t *Info, void *Context) {
    greg_t &Rip = static_cast<ucontext_t *>(Context)->uc_mcontext.gregs[REG_RIP];
    auto Place = reinterpret_cast<const char *>(Rip);
    if (Place >= EmbeddedProbeStart && Place < EmbeddedProbeEnd) {
        Rip = reinterpret_cast<greg_t>(EmbeddedProbeFault);
        return;
    }
    if (Info->si_code > 0 && Signal == SIGSEGV && IsGoneMapping(Info->si_addr)) {
        ReportStackFrom(static_cast<ULONG_PTR>(static_cast<ucontext_t *>(Context)->uc_mcontext.gregs[REG_RBP]));
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 7, reinterpret_cast<ULONG_PTR>(Info->si_addr),
                 static_cast<ULONG_PTR>(Rip), 0,
                 fmt::format("{} was the mapping of pages that are unlocked by now, used at {}", Info->si_addr,
                             DescribeAddress(Place)));
    }
    if (Info->si_code > 0) {
        ReportFaultInImage(Signal, Info->si_addr, Context);
    }
    if (Info->si_code > 0 && Signal == SIGSEGV) {
        const greg_t *Registers = static_cast<ucontext_t *>(Context)->uc_mcontext.gregs;
        if (const ULONG_PTR Bytes = StackUsedUp(Info->si_addr, static_cast<ULONG_PTR>(Registers[REG_RSP]));
            Bytes != 0) {
            ReportStackFrom(static_cast<ULONG_PTR>(Registers[REG_RBP]));
            BugCheck(0x7F, 8, reinterpret_cast<ULONG_PTR>(Info->si_addr), static_cast<ULONG_PTR>(Rip), 0,
                     fmt::format("the stack is used up, {} bytes, at {}", Bytes, DescribeAddress(Place)));
        }
        if (const std::string Guarded = DescribeGuarded(Info->si_addr); !Guarded.empty()) {
            BugCheck(0x50, reinterpret_cast<ULONG_PTR>(Info->si_addr), 0, static_cast<ULONG_PTR>(Rip), 0,
                     fmt::format("touched memory at {} that nobody can{}", Info->si_addr, Guarded));
        }
    }
    const auto *Which = std::find(std::begin(Signals), std::end(Signals), Signal);
    PassOn(Old[Which - Signals], Signal, Info, Context);
}

void InstallHandler() {
    struct sigaction New {};
    New.sa_sigaction = OnFault;
    New.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigemptyset(&New.sa_mask);
    for (size_t Index = 0; Index < std::size(Signals); ++Index) {
        sigaction(Signals[Index], &New, &Old[Index]);
    }
}

// Touches the first byte of the range and of every page after it.
bool TouchPages(ULONG_PTR Start, SIZE_T Length, int (*Probe)(const void *)) {
    const ULONG_PTR Last = Start + Length - 1;
    if (Last < Start) {
        return false;
    }
    for (ULONG_PTR Page = Start;;) {
        if (Probe(reinterpret_cast<const void *>(Page)) != 0) {
            return false;
        }
        const ULONG_PTR Next = (Page & ~ULONG_PTR{PAGE_SIZE - 1}) + PAGE_SIZE;
        if (Next == 0 || Next > Last) {
            return true;
        }
        Page = Next;
    }
}

} // namespace

void WatchFaults() {
    [[maybe_unused]] static const bool Installed = (InstallHandler(), true);
}

bool ProbeRange(const void *Address, SIZE_T Length, bool Write) {
    WatchFaults();
    return Length == 0 ||
           TouchPages(reinterpret_cast<ULONG_PTR>(Address), Length, Write ? EmbeddedProbeWrite : EmbeddedProbeRead);
}

} // namespace embedded
