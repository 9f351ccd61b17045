// The raise of an exception by a service into a loaded image: the gates that the image calls, the search for a handler
// and the way to it.
#include "embedded/loader/raise.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "embedded/base/frame.h"
#include "embedded/fsrtl/fsrtl.h"
#include "embedded/image/calls.h"
#include "embedded/image/unwind.h"
#include "embedded/mm/mm.h"
#include "embedded/verifier/report.h"

namespace embedded {
namespace {

constexpr uint32_t Noncontinuable = 1;

struct ExceptionRecord {
    uint32_t Code;
    uint32_t Flags;
    ExceptionRecord *Next;
    void *Address;
    uint32_t ParameterCount;
    uint64_t Parameters[15];
};
static_assert(sizeof(ExceptionRecord) == 152);

// The processor state as handlers see it: the fields that a filter reads.
struct MachineContext {
    uint8_t Before[0x78];
    uint64_t Registers[16];
    uint64_t Rip;
    uint8_t Behind[1232 - 0x100];
};
static_assert(offsetof(MachineContext, Rip) == 0xF8 && sizeof(MachineContext) == 1232);

struct ExceptionPointers {
    ExceptionRecord *Record;
    MachineContext *Context;
};

using Filter = int32_t(NTAPI *)(ExceptionPointers *Pointers, void *Establisher);
using Termination = void(NTAPI *)(uint8_t Abnormal, void *Establisher);

// Raises of this thread that are being dispatched.
thread_local unsigned Deep = 0;

class Raise {
public:
    Raise(uint32_t Code, const UnwindContext &Origin, const LoadedImage &Image)
        : Origin_(Origin), Image_(Image), Code_(Code) {
        Record_.Code = Code;
        // Whoever raises in a service does not come back to it.
        Record_.Flags = Noncontinuable;
        Record_.Address = reinterpret_cast<void *>(Origin.Rip);
        memcpy(Machine_.Registers, Origin.Registers, sizeof(Machine_.Registers));
        Machine_.Rip = Origin.Rip;
    }

    // Searches a handler, runs what has to run on the way to it, and sets *Resume to where it goes on. Does not return
    // when nobody takes the exception.
    void Dispatch(UnwindContext *Resume);

private:
    // Calls Visit for the scopes of a frame that its place lies in, innermost first, until it says true.
    template <typename Visitor>
    bool ForScopes(uint64_t Rip, const ImageFrame &At, Visitor Visit);
    void RunTerminations(uint64_t Rip, const ImageFrame &At, uint32_t Before);
    bool TakenBy(const ImageFrame &At, const ImageScope &Each);
    bool Step(UnwindContext *At, ImageFrame *Left) const {
        const KThread &Thread = CurrentThread();
        return UnwindImageFrame(Image_, At, Thread.StackLow, Thread.StackHigh, Left);
    }
    [[noreturn]] void NotTaken(std::string_view Why);

    const UnwindContext &Origin_;
    const LoadedImage &Image_;
    uint32_t Code_;
    ExceptionRecord Record_ = {};
    MachineContext Machine_ = {};
    uint32_t TakenScope_ = 0;
    uint32_t Target_ = 0;
};

void Raise::NotTaken(std::string_view Why) {
    std::string Text =
        fmt::format("exception 0x{:08X} raised into {}: {}", Code_, Image_.File().filename().string(), Why);
    if (Deep > 1) {
        Text +=
            " (it was raised while another looked for its handler: only handlers of the filter's or the termination "
            "handler's own are asked)";
    }
    UnwindContext Behind;
    BugCheck(0x1E, Code_, Origin_.Rip, 0, 0, Text + DescribeImageFrames(Image_, Origin_, &Behind));
}

template <typename Visitor>
bool Raise::ForScopes(uint64_t Rip, const ImageFrame &At, Visitor Visit) {
    std::vector<ImageScope> Scopes;
    if (const char *Why = ReadImageScopes(Image_, Rip, At, &Scopes)) {
        NotTaken(Why);
    }
    if (At.HandlerData != nullptr) {
        // Nobody calls it, and yet it was used.
        const auto Index = HandlerOf(Image_, At) - Image_.Format().Imports.data();
        Image_.Calls()[static_cast<size_t>(Index)]->Calls.fetch_add(1, std::memory_order_relaxed);
    }
    return std::any_of(Scopes.begin(), Scopes.end(), Visit);
}

bool Raise::TakenBy(const ImageFrame &At, const ImageScope &Each) {
    if (Each.Target == 0) {
        return false;
    }
    int32_t Verdict = 1;
    if (Each.Handler != 1) {
        ExceptionPointers Pointers = {&Record_, &Machine_};
        const auto Ask = reinterpret_cast<Filter>(Image_.Base() + Each.Handler);
        Verdict = Ask(&Pointers, reinterpret_cast<void *>(At.Establisher));
    }
    if (Verdict < 0) {
        NotTaken("a filter wants to go on where the exception was raised, which cannot be");
    }
    TakenScope_ = Each.Number;
    Target_ = Each.Target;
    return Verdict > 0;
}

void Raise::RunTerminations(uint64_t Rip, const ImageFrame &At, uint32_t Before) {
    ForScopes(Rip, At, [&](const ImageScope &Each) {
        if (Each.Number >= Before) {
            return true;
        }
        if (Each.Target == 0) {
            const auto Run = reinterpret_cast<Termination>(Image_.Base() + Each.Handler);
            Run(1, reinterpret_cast<void *>(At.Establisher));
        }
        return false;
    });
}

void Raise::Dispatch(UnwindContext *Resume) {
    UnwindContext At = Origin_;
    unsigned TakenDepth = DeepestImageStack;
    ImageFrame Here;
    for (unsigned Depth = 0; TakenDepth == DeepestImageStack; ++Depth) {
        const uint64_t Rip = At.Rip;
        if (Depth == DeepestImageStack || !Image_.Contains(reinterpret_cast<void *>(Rip))) {
            NotTaken("no handler takes it");
        }
        if (!Step(&At, &Here)) {
            NotTaken("its unwind tables do not lead through its stack");
        }
        if (ForScopes(Rip, Here, [&](const ImageScope &Each) { return TakenBy(Here, Each); })) {
            TakenDepth = Depth;
        }
    }
    At = Origin_;
    for (unsigned Depth = 0;; ++Depth) {
        const UnwindContext Before = At;
        if (!Step(&At, &Here)) {
            NotTaken("its unwind tables do not lead through its stack");
        }
        RunTerminations(Before.Rip, Here, Depth == TakenDepth ? TakenScope_ : UINT32_MAX);
        if (Depth == TakenDepth) {
            *Resume = Before;
            Resume->Rip = reinterpret_cast<uint64_t>(Image_.Base()) + Target_;
            return;
        }
    }
}

// ---- The raising services ----------------------------------------------------------------------------------

constexpr uint32_t StatusDatatypeMisalignment = 0x80000002;

template <typename Body>
uint32_t Catch(Body Run, RaisingCall &&Call) noexcept {
    uint32_t Code = 0;
    try {
        Run();
    } catch (const RaisedException &Raised) {
        Code = static_cast<uint32_t>(Raised.Status);
    }
    Call.Ended(Code);
    return Code;
}

uint64_t Number(const void *Address) {
    return reinterpret_cast<uint64_t>(Address);
}

void Probe(const void *Address, SIZE_T Length, ULONG Alignment, bool Write) {
    if (Length != 0 && Alignment > 1 && reinterpret_cast<uintptr_t>(Address) % Alignment != 0) {
        throw RaisedException{static_cast<NTSTATUS>(StatusDatatypeMisalignment)};
    }
    if (!ProbeUserRange(Address, Length, Write)) {
        throw RaisedException{STATUS_ACCESS_VIOLATION};
    }
}

} // namespace
} // namespace embedded

using namespace embedded;

// Called by the gate: 0, or the code of the exception to raise.
extern "C" {

uint32_t NTAPI EmbeddedRaisingMmProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation) noexcept {
    return Catch(
        [=] { ProbeAndLockPages(Mdl, Mode, Operation); },
        {"MmProbeAndLockPages", 3, Number(Mdl), static_cast<uint64_t>(Mode), static_cast<uint64_t>(Operation)});
}
uint32_t NTAPI EmbeddedRaisingFsRtlNotifyInitializeSync(PNOTIFY_SYNC *NotifySync) noexcept {
    return Catch([=] { NotifyInitializeSync(NotifySync); }, {"FsRtlNotifyInitializeSync", 1, Number(NotifySync), 0, 0});
}
uint32_t NTAPI EmbeddedRaisingProbeForRead(const void *Address, SIZE_T Length, ULONG Alignment) noexcept {
    return Catch([=] { Probe(Address, Length, Alignment, false); },
                 {"ProbeForRead", 3, Number(Address), Length, Alignment});
}
uint32_t NTAPI EmbeddedRaisingProbeForWrite(void *Address, SIZE_T Length, ULONG Alignment) noexcept {
    return Catch([=] { Probe(Address, Length, Alignment, true); },
                 {"ProbeForWrite", 3, Number(Address), Length, Alignment});
}
uint32_t NTAPI EmbeddedRaisingExRaiseStatus(NTSTATUS Status) noexcept {
    return Catch([=] { throw RaisedException{Status}; }, {"ExRaiseStatus", 1, static_cast<uint32_t>(Status), 0, 0});
}

// Where the raise goes on, into *Context; the code, which handlers find in eax.
uint32_t NTAPI EmbeddedDispatchRaise(uint32_t Code, UnwindContext *Context) noexcept {
    const LoadedImage *Image = ImageOf(reinterpret_cast<void *>(Context->Rip));
    if (Image == nullptr) {
        BugCheck(0x1E, Code, Context->Rip, 0, 0, fmt::format("exception 0x{:08X} raised outside of any image", Code));
    }
    UnwindContext Resume;
    ++Deep;
    Raise(Code, *Context, *Image).Dispatch(&Resume);
    --Deep;
    *Context = Resume;
    return Code;
}

void EmbeddedGateMmProbeAndLockPages();
void EmbeddedGateFsRtlNotifyInitializeSync();
void EmbeddedGateProbeForRead();
void EmbeddedGateProbeForWrite();
void EmbeddedGateExRaiseStatus();
}

// A gate is entered like the service and calls what carries it out. When that asks for a raise, the registers that
// calls preserve are again what the image's function has in them, and are kept for the search for a handler. It looks
// like an ordinary frame to whoever walks the frame pointers.
asm(R"(
    .text
    .macro GATE service
    .globl EmbeddedGate\service
    .type EmbeddedGate\service, @function
EmbeddedGate\service:
    leaq EmbeddedRaising\service(%rip), %r10
    jmp EmbeddedRaisingGate
    .size EmbeddedGate\service, . - EmbeddedGate\service
    .endm
    GATE MmProbeAndLockPages
    GATE FsRtlNotifyInitializeSync
    GATE ProbeForRead
    GATE ProbeForWrite
    GATE ExRaiseStatus

    .type EmbeddedRaisingGate, @function
EmbeddedRaisingGate:
)" ASM_ENTER_FRAME R"(    subq $0x160, %rsp
    callq *%r10
    testl %eax, %eax
    jnz 1f
    leave
    .cfi_remember_state
    .cfi_def_cfa %rsp, 8
    ret
    .cfi_restore_state
1:  movl %eax, %ecx
    movq 8(%rbp), %rax
    movq %rax, 0x30(%rsp)          # Rip
    leaq 16(%rbp), %rax
    movq %rax, 0x30+8+8*4(%rsp)    # rsp
    movq (%rbp), %rax
    movq %rax, 0x30+8+8*5(%rsp)    # rbp
    movq %rbx, 0x30+8+8*3(%rsp)
    movq %rsi, 0x30+8+8*6(%rsp)
    movq %rdi, 0x30+8+8*7(%rsp)
    movq %r12, 0x30+8+8*12(%rsp)
    movq %r13, 0x30+8+8*13(%rsp)
    movq %r14, 0x30+8+8*14(%rsp)
    movq %r15, 0x30+8+8*15(%rsp)
    movaps %xmm6, 0x30+144+16*0(%rsp)
    movaps %xmm7, 0x30+144+16*1(%rsp)
    movaps %xmm8, 0x30+144+16*2(%rsp)
    movaps %xmm9, 0x30+144+16*3(%rsp)
    movaps %xmm10, 0x30+144+16*4(%rsp)
    movaps %xmm11, 0x30+144+16*5(%rsp)
    movaps %xmm12, 0x30+144+16*6(%rsp)
    movaps %xmm13, 0x30+144+16*7(%rsp)
    movaps %xmm14, 0x30+144+16*8(%rsp)
    movaps %xmm15, 0x30+144+16*9(%rsp)
    leaq 0x30(%rsp), %rdx
    callq EmbeddedDispatchRaise
    leaq 0x30(%rsp), %r11
    movaps 144+16*0(%r11), %xmm6
    movaps 144+16*1(%r11), %xmm7
    movaps 144+16*2(%r11), %xmm8
    movaps 144+16*3(%r11), %xmm9
    movaps 144+16*4(%r11), %xmm10
    movaps 144+16*5(%r11), %xmm11
    movaps 144+16*6(%r11), %xmm12
    movaps 144+16*7(%r11), %xmm13
    movaps 144+16*8(%r11), %xmm14
    movaps 144+16*9(%r11), %xmm15
    movq 8+8*3(%r11), %rbx
    movq 8+8*5(%r11), %rbp
    movq 8+8*6(%r11), %rsi
    movq 8+8*7(%r11), %rdi
    movq 8+8*12(%r11), %r12
    movq 8+8*13(%r11), %r13
    movq 8+8*14(%r11), %r14
    movq 8+8*15(%r11), %r15
    movq (%r11), %r10
    movq 8+8*4(%r11), %rsp
    jmpq *%r10
    .cfi_endproc
    .size EmbeddedRaisingGate, . - EmbeddedRaisingGate
)");

namespace embedded {

void *RaisingGate(const char *Service) {
    constexpr struct {
        const char *Name;
        void (*Gate)();
    } Gates[] = {{"MmProbeAndLockPages", EmbeddedGateMmProbeAndLockPages},
                 {"FsRtlNotifyInitializeSync", EmbeddedGateFsRtlNotifyInitializeSync},
                 {"ProbeForRead", EmbeddedGateProbeForRead},
                 {"ProbeForWrite", EmbeddedGateProbeForWrite},
                 {"ExRaiseStatus", EmbeddedGateExRaiseStatus}};
    for (const auto &Each : Gates) {
        if (strcmp(Each.Name, Service) == 0) {
            return reinterpret_cast<void *>(Each.Gate);
        }
    }
    return nullptr;
}

} // namespace embedded
