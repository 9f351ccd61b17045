#include "embedded/image/faults.h"

#include <csignal>
#include <cstring>
#include <optional>
#include <ucontext.h>

#include <fmt/format.h>

#include "embedded/ex/guard.h"
#include "embedded/image/calls.h"
#include "embedded/image/unwind.h"
#include "embedded/mm/mm.h"
#include "embedded/verifier/driver_stack.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/stack.h"

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
std::string ServiceCalledBefore(const DriverImage &Image, uint64_t Return) {
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

} // namespace

void ReportFaultInImage(int Signal, const void *Address, void *SignalContext) {
    const KThread *Thread = CurrentThreadRecord;
    if (Thread == nullptr) {
        return;
    }
    const UnwindContext At = ContextOf(static_cast<const ucontext_t *>(SignalContext)->uc_mcontext.gregs);
    if (const DriverImage *Image = ImageOf(reinterpret_cast<const void *>(At.Rip))) {
        UnwindContext Behind;
        const std::string Frames = DescribeImageFrames(*Image, At, &Behind);
        ReportStackFrom(Behind.Registers[FramePointer]);
        Report(Signal, Address, At, Image->File().filename().string(), Frames);
    }
    if (const auto Caller = CallerInImage(*Thread, At)) {
        const DriverImage &Image = *ImageOf(reinterpret_cast<const void *>(Caller->Rip));
        UnwindContext Behind;
        const std::string Frames = DescribeImageFrames(Image, *Caller, &Behind);
        ReportStackFrom(At.Registers[FramePointer]);
        Report(Signal, Address, At, ServiceCalledBefore(Image, Caller->Rip),
               fmt::format(", called by {}{}", Image.File().filename().string(), Frames));
    }
}

} // namespace embedded
