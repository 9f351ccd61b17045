#include "embedded/image_unwind.h"

#include <cstring>
#include <optional>
#include <ucontext.h>

#include <fmt/format.h>

#include "embedded/image_calls.h"
#include "embedded/image_symbols.h"
#include "embedded/mm.h"
#include "embedded/verifier.h"

namespace embedded {
namespace {

constexpr uint8_t ExceptionHandler = 1, TerminationHandler = 2, Chained = 4;
constexpr unsigned LongestChain = 32;
constexpr unsigned DeepestStack = 256;

struct FunctionEntry {
    uint32_t Begin;
    uint32_t End;
    uint32_t Info;
};

struct Scope {
    uint32_t Begin;
    uint32_t End;
    uint32_t Handler; // a filter, 1 for "always", or what runs at the end
    uint32_t Target;  // of the handler's code; 0 for what runs at the end
};

// One table of unwind codes, taken apart.
struct UnwindTable {
    uint8_t Flags;
    uint8_t CodeCount;
    uint8_t FrameRegister;
    uint32_t FrameOffset;
    const uint16_t *Codes;
    const uint8_t *Behind; // the codes: a chained entry, or a handler and its data
};

// What one frame of the image has beside its registers.
struct Frame {
    uint64_t Establisher = 0; // what its handlers take for the frame
    uint8_t Flags = 0;
    uint32_t Handler = 0;
    const uint8_t *HandlerData = nullptr;
};

class Walker {
public:
    Walker(const DriverImage &Image, uintptr_t Low, uintptr_t High) : Image_(Image), Low_(Low), High_(High) {
    }

    // To the caller of *Context's frame. *Found tells of the frame that was left.
    bool Step(UnwindContext *Context, Frame *Found) const;

    template <typename T>
    std::optional<T> InImage(uint64_t Rva) const {
        if (Rva >= Image_.Format().ImageSize || !Image_.Readable(Image_.Base() + Rva, sizeof(T))) {
            return std::nullopt;
        }
        T Value;
        memcpy(&Value, Image_.Base() + Rva, sizeof(T));
        return Value;
    }

private:
    template <typename T>
    bool Load(uint64_t Address, T *Value) const {
        if (Address < Low_ || Address + sizeof(T) > High_ || Address + sizeof(T) < Address) {
            return false;
        }
        memcpy(Value, reinterpret_cast<const void *>(Address), sizeof(T));
        return true;
    }
    const FunctionEntry *Find(uint32_t Rva) const;
    bool Read(uint32_t Info, UnwindTable *Table) const;
    bool Apply(const UnwindTable &Table, uint32_t PrologOffset, uint64_t Base, UnwindContext *Context) const;
    bool ApplyCode(const UnwindTable &Table, unsigned Index, uint64_t Base, UnwindContext *Context) const;

    const DriverImage &Image_;
    uintptr_t Low_;
    uintptr_t High_;
};

const FunctionEntry *Walker::Find(uint32_t Rva) const {
    const ImageFormat &Format = Image_.Format();
    const auto *First = reinterpret_cast<const FunctionEntry *>(Image_.Base() + Format.UnwindRva);
    size_t Low = 0, High = Format.UnwindBytes / sizeof(FunctionEntry);
    while (Low < High) {
        const size_t Middle = (Low + High) / 2;
        if (Rva < First[Middle].Begin) {
            High = Middle;
        } else if (Rva >= First[Middle].End) {
            Low = Middle + 1;
        } else {
            return &First[Middle];
        }
    }
    return nullptr;
}

bool Walker::Read(uint32_t Info, UnwindTable *Table) const {
    const auto Header = InImage<uint32_t>(Info);
    if (!Header || Info % 4 != 0 || (*Header & 7) != 1) {
        return false;
    }
    Table->Flags = static_cast<uint8_t>((*Header & 0xFF) >> 3);
    Table->CodeCount = static_cast<uint8_t>(*Header >> 16);
    Table->FrameRegister = static_cast<uint8_t>(*Header >> 24 & 0xF);
    Table->FrameOffset = (*Header >> 28) * 16;
    const uint32_t CodeBytes = (Table->CodeCount + 1u) / 2 * 4;
    Table->Codes = reinterpret_cast<const uint16_t *>(Image_.Base() + Info + 4);
    Table->Behind = reinterpret_cast<const uint8_t *>(Table->Codes) + CodeBytes;
    // The codes, and a chained entry or a handler with the count of its scopes.
    const bool Followed = (Table->Flags & (ExceptionHandler | TerminationHandler | Chained)) != 0;
    return Image_.Readable(Image_.Base() + Info, 4 + CodeBytes + (Followed ? sizeof(FunctionEntry) : 0));
}

// How many of the table's words the code at Index takes, with its operand; 0 when it is unknown or not all there.
unsigned CodeLength(const UnwindTable &Table, unsigned Index) {
    constexpr unsigned Lengths[] = {1, 2, 1, 1, 2, 3, 1, 1, 2, 3};
    const unsigned Operation = Table.Codes[Index] >> 8 & 0xF;
    const bool LargeOperand = Operation == 1 && Table.Codes[Index] >> 12 == 1;
    const unsigned Length = Operation < std::size(Lengths) ? Lengths[Operation] + LargeOperand : 0;
    return Length <= Table.CodeCount - Index ? Length : 0;
}

bool Walker::ApplyCode(const UnwindTable &Table, unsigned Index, uint64_t Base, UnwindContext *Context) const {
    uint64_t *Registers = Context->Registers;
    const uint16_t Code = Table.Codes[Index];
    const unsigned Operation = Code >> 8 & 0xF, Operand = Code >> 12;
    const bool LargeOperand = Operation == 1 && Operand == 1;
    const uint16_t *Next = &Table.Codes[Index + 1];
    const auto Wide = [Next] { return Next[0] | uint32_t{Next[1]} << 16; };
    switch (Operation) {
    case 0: // pushed
        Registers[StackPointer] += 8;
        return Load(Registers[StackPointer] - 8, &Registers[Operand]);
    case 1:
        Registers[StackPointer] += LargeOperand ? Wide() : uint64_t{Next[0]} * 8;
        return true;
    case 2:
        Registers[StackPointer] += Operand * 8 + 8;
        return true;
    case 3:
        Registers[StackPointer] = Registers[Table.FrameRegister] - Table.FrameOffset;
        return true;
    case 4:
        return Load(Base + uint64_t{Next[0]} * 8, &Registers[Operand]);
    case 5:
        return Load(Base + Wide(), &Registers[Operand]);
    case 8:
        return Operand >= 6 && Load(Base + uint64_t{Next[0]} * 16, &Context->Xmm[Operand - 6]);
    case 9:
        return Operand >= 6 && Load(Base + Wide(), &Context->Xmm[Operand - 6]);
    default:
        return false;
    }
}

bool Walker::Apply(const UnwindTable &Table, uint32_t PrologOffset, uint64_t Base, UnwindContext *Context) const {
    for (unsigned Index = 0; Index < Table.CodeCount;) {
        const unsigned Length = CodeLength(Table, Index);
        const bool Done = (Table.Codes[Index] & 0xFF) <= PrologOffset;
        if (Length == 0 || (Done && !ApplyCode(Table, Index, Base, Context))) {
            return false;
        }
        Index += Length;
    }
    return true;
}

bool Walker::Step(UnwindContext *Context, Frame *Found) const {
    *Found = {};
    uint64_t *Registers = Context->Registers;
    const uint64_t Left = Registers[StackPointer];
    const auto Rva = static_cast<uint32_t>(Context->Rip - reinterpret_cast<uint64_t>(Image_.Base()));
    Found->Establisher = Registers[StackPointer];
    if (const FunctionEntry *Entry = Find(Rva)) {
        UnwindTable Table;
        if (!Read(Entry->Info, &Table)) {
            return false;
        }
        Found->Flags = Table.Flags & (ExceptionHandler | TerminationHandler);
        if (Found->Flags != 0) {
            memcpy(&Found->Handler, Table.Behind, 4);
            Found->HandlerData = Table.Behind + 4;
        }
        if (Table.FrameRegister != 0) {
            Found->Establisher = Registers[Table.FrameRegister] - Table.FrameOffset;
        }
        // Handlers run on it, and go on there.
        if (Found->Establisher < Low_ || Found->Establisher >= High_) {
            return false;
        }
        uint32_t PrologOffset = Rva - Entry->Begin;
        for (unsigned Links = 0;; ++Links) {
            if (!Apply(Table, PrologOffset, Found->Establisher, Context)) {
                return false;
            }
            if (!(Table.Flags & Chained)) {
                break;
            }
            FunctionEntry Next;
            memcpy(&Next, Table.Behind, sizeof(Next));
            if (Links == LongestChain || !Read(Next.Info, &Table)) {
                return false;
            }
            PrologOffset = UINT32_MAX;
        }
    }
    Registers[StackPointer] += 8;
    // Callers lie above: whoever walks gets to an end.
    return Registers[StackPointer] > Left && Load(Registers[StackPointer] - 8, &Context->Rip);
}

// ---- The raise ---------------------------------------------------------------------------------------------

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

// A line for each frame of the image from Context on.
std::string DescribeFrames(const DriverImage &Image, UnwindContext At) {
    const Walker Walk(Image, CurrentThread().StackLow, CurrentThread().StackHigh);
    std::string Text;
    Frame Left;
    for (unsigned Depth = 0; Depth < DeepestStack && Image.Contains(reinterpret_cast<void *>(At.Rip)); ++Depth) {
        Text += "\n  in " + DescribeAddress(reinterpret_cast<void *>(At.Rip));
        if (!Walk.Step(&At, &Left)) {
            break;
        }
    }
    return Text;
}

// Raises of this thread that are being dispatched.
thread_local unsigned Deep = 0;

class Raise {
public:
    Raise(uint32_t Code, const UnwindContext &Origin, const DriverImage &Image)
        : Origin_(Origin), Image_(Image), Code_(Code),
          Walk_(Image, CurrentThread().StackLow, CurrentThread().StackHigh) {
        Record_.Code = Code;
        Record_.Address = reinterpret_cast<void *>(Origin.Rip);
        memcpy(Machine_.Registers, Origin.Registers, sizeof(Machine_.Registers));
        Machine_.Rip = Origin.Rip;
    }

    // Searches a handler, runs what has to run on the way to it, and sets *Resume to where it goes on. Does not return
    // when nobody takes the exception.
    void Dispatch(UnwindContext *Resume);

private:
    // Calls Visit(scope number, scope) for the scopes of a frame that its place lies in, innermost first, until it
    // says true.
    template <typename Visitor>
    bool ForScopes(uint64_t Rip, const Frame &At, Visitor Visit);
    void RunTerminations(uint64_t Rip, const Frame &At, uint32_t Before);
    bool TakenBy(const Frame &At, uint32_t Number, const Scope &Each);
    [[noreturn]] void NotTaken(std::string_view Why);
    void CheckHandler(const Frame &At);
    void CheckScope(const Scope &Each);

    const UnwindContext &Origin_;
    const DriverImage &Image_;
    uint32_t Code_;
    Walker Walk_;
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
    BugCheck(0x1E, Code_, Origin_.Rip, 0, 0, Text + DescribeFrames(Image_, Origin_));
}

// The one language handler there is: reached through the image's jump to its import.
void Raise::CheckHandler(const Frame &At) {
    const auto Jump = Walk_.InImage<uint16_t>(At.Handler);
    const auto Offset = Walk_.InImage<int32_t>(uint64_t{At.Handler} + 2);
    const uint64_t SlotRva = Offset ? At.Handler + 6 + static_cast<int64_t>(*Offset) : 0;
    const auto &Imports = Image_.Format().Imports;
    for (size_t Index = 0; Index < Imports.size(); ++Index) {
        if (Jump == std::optional<uint16_t>(0x25FF) && Imports[Index].SlotRva == SlotRva &&
            Imports[Index].Name == "__C_specific_handler") {
            // Nobody calls it, and yet it was used.
            Image_.Calls()[Index]->Calls.fetch_add(1, std::memory_order_relaxed);
            return;
        }
    }
    NotTaken("a frame has a language handler other than __C_specific_handler");
}

// What it leads to is called, or jumped to.
void Raise::CheckScope(const Scope &Each) {
    const bool Always = Each.Target != 0 && Each.Handler == 1;
    if ((!Always && !Image_.IsCode(Each.Handler)) || (Each.Target != 0 && !Image_.IsCode(Each.Target))) {
        NotTaken("a frame's scope leads to a place that is no code");
    }
}

template <typename Visitor>
bool Raise::ForScopes(uint64_t Rip, const Frame &At, Visitor Visit) {
    if (At.HandlerData == nullptr) {
        return false;
    }
    CheckHandler(At);
    const uint64_t Base = reinterpret_cast<uint64_t>(Image_.Base());
    const uint64_t DataRva = reinterpret_cast<uint64_t>(At.HandlerData) - Base;
    const uint32_t Count = Walk_.InImage<uint32_t>(DataRva).value_or(0);
    if (!Image_.Readable(At.HandlerData, 4 + size_t{Count} * sizeof(Scope))) {
        NotTaken("a frame's scopes reach past the image");
    }
    for (uint32_t Number = 0; Number < Count; ++Number) {
        const auto Each = Walk_.InImage<Scope>(DataRva + 4 + uint64_t{Number} * sizeof(Scope));
        if (Rip - Base < Each->Begin || Rip - Base >= Each->End) {
            continue;
        }
        CheckScope(*Each);
        if (Visit(Number, *Each)) {
            return true;
        }
    }
    return false;
}

bool Raise::TakenBy(const Frame &At, uint32_t Number, const Scope &Each) {
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
    TakenScope_ = Number;
    Target_ = Each.Target;
    return Verdict > 0;
}

void Raise::RunTerminations(uint64_t Rip, const Frame &At, uint32_t Before) {
    ForScopes(Rip, At, [&](uint32_t Number, const Scope &Each) {
        if (Number >= Before) {
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
    unsigned TakenDepth = DeepestStack;
    Frame Here;
    for (unsigned Depth = 0; TakenDepth == DeepestStack; ++Depth) {
        const uint64_t Rip = At.Rip;
        if (Depth == DeepestStack || !Image_.Contains(reinterpret_cast<void *>(Rip))) {
            NotTaken("no handler takes it");
        }
        if (!Walk_.Step(&At, &Here)) {
            NotTaken("its unwind tables do not lead through its stack");
        }
        if (ForScopes(Rip, Here, [&](uint32_t Number, const Scope &Each) { return TakenBy(Here, Number, Each); })) {
            TakenDepth = Depth;
        }
    }
    At = Origin_;
    for (unsigned Depth = 0;; ++Depth) {
        const UnwindContext Before = At;
        if (!Walk_.Step(&At, &Here)) {
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

bool UnwindImageFrame(const DriverImage &Image, UnwindContext *Context, uintptr_t Low, uintptr_t High) {
    Frame Ignored;
    return Walker(Image, Low, High).Step(Context, &Ignored);
}

void ReportFaultInImage(const void *Address, void *SignalContext) {
    // In the order of the instruction set.
    constexpr int Order[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                             REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
    const greg_t *Registers = static_cast<const ucontext_t *>(SignalContext)->uc_mcontext.gregs;
    const auto Rip = reinterpret_cast<const void *>(Registers[REG_RIP]);
    const DriverImage *Image = ImageOf(Rip);
    if (Image == nullptr) {
        return;
    }
    UnwindContext Context = {};
    Context.Rip = static_cast<uint64_t>(Registers[REG_RIP]);
    for (size_t Index = 0; Index < std::size(Order); ++Index) {
        Context.Registers[Index] = static_cast<uint64_t>(Registers[Order[Index]]);
    }
    BugCheck(0x50, reinterpret_cast<ULONG_PTR>(Address), 0, Context.Rip, 0,
             fmt::format("{} touched memory at {} that it cannot{}", Image->File().filename().string(), Address,
                         DescribeFrames(*Image, Context)));
}

} // namespace embedded

using namespace embedded;

// Called by the gate: 0, or the code of the exception to raise.
extern "C" {

uint32_t NTAPI EmbeddedRaisingMmProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE Mode, LOCK_OPERATION Operation) noexcept {
    return Catch(
        [=] { ProbeAndLockPages(Mdl, Mode, Operation); },
        {"MmProbeAndLockPages", 3, Number(Mdl), static_cast<uint64_t>(Mode), static_cast<uint64_t>(Operation)});
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
    const DriverImage *Image = ImageOf(reinterpret_cast<void *>(Context->Rip));
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
    GATE ProbeForRead
    GATE ProbeForWrite
    GATE ExRaiseStatus

    .type EmbeddedRaisingGate, @function
EmbeddedRaisingGate:
    .cfi_startproc
    pushq %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    movq %rsp, %rbp
    .cfi_def_cfa_register %rbp
    subq $0x160, %rsp
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
