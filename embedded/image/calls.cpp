#include "embedded/image/calls.h"

#include <cstring>
#include <mutex>
#include <new>
#include <sched.h>
#include <sys/mman.h>
#include <utility>

#include <fmt/format.h>

#include "embedded/base/driver_stack.h"
#include "embedded/base/time.h"
#include "kernel/kernel.h"

extern "C" {
void EmbeddedCallTracer();
void EmbeddedCallReturned();
}

namespace embedded {
namespace {

constexpr size_t StubBytes = 32;

struct OpenCall {
    CallRecord *Record;
    void *ReturnsTo;
    int64_t Begun;
    KIRQL Irql;
    bool Waits; // a line says so already
    uint64_t Arguments[4];
};

// The traced calls of this thread that have not returned, the innermost last.
thread_local std::vector<OpenCall> Open;

// The call of a service that raises. It calls nobody, so it is the innermost of all.
thread_local const RaisingCall *OpenRaising = nullptr;

struct Output {
    std::mutex Lock;
    CallSink Sink;
};

Output &Lines() {
    static auto &Instance = *new Output;
    return Instance;
}

std::string ResultText(ResultKind Kind, uint64_t Result) {
    switch (Kind) {
    case ResultKind::Byte:
        return fmt::format("{}", Result & 0xFF);
    case ResultKind::Word16:
        return fmt::format("0x{:x}", Result & 0xFFFF);
    case ResultKind::Word32:
        return fmt::format("0x{:x}", Result & 0xFFFFFFFF);
    case ResultKind::Status:
        return fmt::format("0x{:08X}", Result & 0xFFFFFFFF);
    case ResultKind::Word64:
        return fmt::format("0x{:x}", Result);
    case ResultKind::None:
        return "-";
    }
    return {};
}

// The system time of the call's begin, the thread's number, the IRQL, the call, its result.
std::string LineOf(int64_t Begun, KIRQL Irql, const Service &Called, const uint64_t *Arguments,
                   const std::string &Result) {
    std::string Line = fmt::format("{} thread 0x{:x} irql {} {}(", Begun, reinterpret_cast<uintptr_t>(&CurrentThread()),
                                   Irql, Called.Name);
    for (size_t Index = 0; Index < Called.Arguments; ++Index) {
        const unsigned Bytes = Called.Sizes[Index];
        const uint64_t Mask = Bytes == 0 || Bytes >= 8 ? UINT64_MAX : (uint64_t{1} << (8 * Bytes)) - 1;
        Line += fmt::format("{}0x{:x}", Index == 0 ? "" : ", ", Arguments[Index] & Mask);
    }
    return Line + ") = " + Result;
}

std::string LineOf(const OpenCall &Call, const std::string &Result) {
    return LineOf(Call.Begun, Call.Irql, Call.Record->Called, Call.Arguments, Result);
}

void WriteLine(const std::string &Line) {
    OnHostStack([&] {
        const std::lock_guard Hold(Lines().Lock);
        if (Lines().Sink) {
            Lines().Sink(Line);
        }
    });
}

// The sink's lock, unless its holder keeps it: it may be this thread, or one that has stopped.
std::unique_lock<std::mutex> TryHoldSink() {
    constexpr int LongestWait = 1000;
    std::unique_lock Hold(Lines().Lock, std::try_to_lock);
    for (int Round = 0; !Hold.owns_lock() && Round < LongestWait; ++Round) {
        sched_yield();
        Hold.try_lock();
    }
    return Hold;
}

uint8_t *Put(uint8_t *At, std::initializer_list<uint8_t> Code) {
    for (const uint8_t Each : Code) {
        *At++ = Each;
    }
    return At;
}

uint8_t *PutAddress(uint8_t *At, const void *Address) {
    memcpy(At, &Address, sizeof(Address));
    return At + sizeof(Address);
}

} // namespace

void SetCallSink(CallSink Sink) {
    const std::lock_guard Hold(Lines().Lock);
    CallLinesWanted = static_cast<bool>(Sink);
    Lines().Sink = std::move(Sink);
}

CallStubs::CallStubs(CallRecording Recording, size_t Count)
    : Recording_(Recording), Bytes_((Count * StubBytes + 4095) / 4096 * 4096) {
    if (Recording_ == CallRecording::None || Bytes_ == 0) {
        Bytes_ = 0;
        return;
    }
    void *Mapped = mmap(nullptr, Bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (Mapped == MAP_FAILED) {
        throw std::bad_alloc();
    }
    Code_ = static_cast<uint8_t *>(Mapped);
}

CallStubs::~CallStubs() {
    if (Code_ != nullptr) {
        munmap(Code_, Bytes_);
    }
}

void *CallStubs::Add(const std::string &Module, const Service &Called) {
    auto Record = std::make_unique<CallRecord>();
    Record->Calls = 0;
    Record->Target = Called.Address;
    Record->Module = Module;
    Record->Called = Called;
    Record->Name = Called.Name;
    Record->Called.Name = Record->Name.c_str();
    const CallRecord *Where = Records_.emplace_back(std::move(Record)).get();
    if (Recording_ == CallRecording::None) {
        return Called.Address;
    }
    uint8_t *Stub = Code_ + Used_;
    Used_ += StubBytes;
    uint8_t *At = PutAddress(Put(Stub, {0x49, 0xBB}), Where); // mov r11, the record
    At = Put(At, {0xF0, 0x49, 0xFF, 0x03});                   // lock inc [r11]
    if (Recording_ == CallRecording::Counted || Called.Raises) {
        Put(At, {0x41, 0xFF, 0x63, 0x08}); // jmp [r11+8]
    } else {
        At = PutAddress(Put(At, {0x48, 0xB8}), reinterpret_cast<const void *>(EmbeddedCallTracer)); // mov rax, tracer
        Put(At, {0xFF, 0xE0});                                                                      // jmp rax
    }
    return Stub;
}

void CallStubs::Seal() {
    if (Code_ != nullptr && mprotect(Code_, Bytes_, PROT_READ | PROT_EXEC) != 0) {
        throw std::bad_alloc();
    }
}

std::string RaisingCall::Line(const std::string &Result) const {
    const Service Called = {Name_, nullptr, ResultKind::None, Count_, true, {}};
    return LineOf(Begun_, CurrentThread().Irql, Called, Arguments_, Result);
}

void RaisingCall::Begin() noexcept {
    Begun_ = Time().SystemTime();
    OpenRaising = this;
}

void RaisingCall::End(uint32_t Code) noexcept {
    OpenRaising = nullptr;
    WriteLine(Line(Code == 0 ? "-" : fmt::format("raises 0x{:08X}", Code)));
}

void WriteOpenCalls() noexcept {
    constexpr const char *Result = "does not return";
    if (!Open.empty() || OpenRaising != nullptr) {
        if (const auto Hold = TryHoldSink(); Hold.owns_lock() && Lines().Sink) {
            for (const OpenCall &Call : Open) {
                Lines().Sink(LineOf(Call, Result));
            }
            if (OpenRaising != nullptr) {
                Lines().Sink(OpenRaising->Line(Result));
            }
        }
    }
    Open.clear();
    OpenRaising = nullptr;
}

void WriteWaitingCall() noexcept {
    if (!Open.empty() && !std::exchange(Open.back().Waits, true)) {
        WriteLine(LineOf(Open.back(), "waits"));
    }
}

void *TracedReturn(const void *Address, size_t Depth) noexcept {
    if (Address != reinterpret_cast<const void *>(EmbeddedCallReturned) || Depth >= Open.size()) {
        return nullptr;
    }
    return Open[Open.size() - 1 - Depth].ReturnsTo;
}

void *NTAPI CallerOf(void *Return) noexcept {
    void *Real = TracedReturn(Return, 0);
    return Real == nullptr ? Return : Real;
}

} // namespace embedded

using namespace embedded;

extern "C" {

// The tracer's halves. The first takes the return address out of *ReturnSlot and says where to jump; the second gives
// it back.
void *NTAPI EmbeddedCallEntered(CallRecord *Record, const uint64_t *Arguments, void **ReturnSlot) noexcept {
    OpenCall Call = {Record, *ReturnSlot, Time().SystemTime(), CurrentThread().Irql, false, {}};
    memcpy(Call.Arguments, Arguments, sizeof(Call.Arguments));
    Open.push_back(Call);
    *ReturnSlot = reinterpret_cast<void *>(EmbeddedCallReturned);
    return Record->Target;
}

void *NTAPI EmbeddedCallLeft(uint64_t Result) noexcept {
    const OpenCall Call = Open.back();
    Open.pop_back();
    WriteLine(LineOf(Call, ResultText(Call.Record->Called.Result, Result)));
    return Call.ReturnsTo;
}
}

asm(R"(
    .text
    .globl EmbeddedCallTracer
    .type EmbeddedCallTracer, @function
EmbeddedCallTracer:
    pushq %rbp
    movq %rsp, %rbp
    subq $0x40, %rsp
    movq %rcx, 0x20(%rsp)
    movq %rdx, 0x28(%rsp)
    movq %r8, 0x30(%rsp)
    movq %r9, 0x38(%rsp)
    movq %r11, %rcx
    leaq 0x20(%rsp), %rdx
    leaq 8(%rbp), %r8
    callq EmbeddedCallEntered
    movq %rax, %r11
    movq 0x20(%rsp), %rcx
    movq 0x28(%rsp), %rdx
    movq 0x30(%rsp), %r8
    movq 0x38(%rsp), %r9
    leave
    jmpq *%r11
    .size EmbeddedCallTracer, . - EmbeddedCallTracer

    .globl EmbeddedCallReturned
    .type EmbeddedCallReturned, @function
EmbeddedCallReturned:
    subq $0x40, %rsp
    movq %rax, 0x20(%rsp)
    movq %rax, %rcx
    callq EmbeddedCallLeft
    movq %rax, %r11
    movq 0x20(%rsp), %rax
    addq $0x40, %rsp
    jmpq *%r11
    .size EmbeddedCallReturned, . - EmbeddedCallReturned
)");
