// Unwinding through a loaded image by its own tables, and the raise of an exception into its own handlers.
//
// The stack is read only between the bounds given; the tables were checked as far as ReadImageFormat says, the rest is
// checked here: a damaged table ends the walk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "embedded/image.h"

namespace embedded {

// What a frame has in its registers. The gate's assembler knows the offsets.
struct UnwindContext {
    uint64_t Rip;
    uint64_t Registers[16]; // in the order of the instruction set: rax rcx rdx rbx rsp rbp rsi rdi r8 ...
    uint64_t Unused;
    alignas(16) uint8_t Xmm[10][16]; // xmm6 to xmm15: those a function keeps
};
static_assert(offsetof(UnwindContext, Xmm) == 144 && sizeof(UnwindContext) == 304);

inline constexpr size_t StackPointer = 4;
inline constexpr size_t FramePointer = 5;

// From a frame of the image to its caller. False when the tables or the stack do not lead there; *Context is then of
// no use. Low and High bound the stack.
bool UnwindImageFrame(const DriverImage &Image, UnwindContext *Context, uintptr_t Low, uintptr_t High);

// From the handler of a memory fault: when the instruction is an image's, stops with its frames; returns otherwise.
void ReportFaultInImage(const void *Address, void *SignalContext);

// The gates of the raising services: what an image's import slot points to.
void *RaisingGate(const char *Service);

} // namespace embedded
