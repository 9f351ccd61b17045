// Unwinding through a loaded image by its own tables, and what leads an exception to its own handlers
// (raise.cpp).
//
// The stack is read only between the bounds given; the tables were checked as far as ReadImageFormat says, the rest is
// checked here: a damaged table ends the walk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "embedded/image/loaded_image.h"

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

// Frames of an image that are looked at one above another.
inline constexpr unsigned DeepestImageStack = 256;

// What a frame of the image has beside its registers.
struct ImageFrame {
    uint64_t Establisher = 0; // what its handlers take for the frame
    uint32_t Handler = 0;
    const uint8_t *HandlerData = nullptr; // null: it has no handler
};

// From a frame of the image to its caller; *Left, if wanted, tells of the frame that was left. False when the tables or
// the stack do not lead there; *Context is then of no use. Low and High bound the stack.
bool UnwindImageFrame(const LoadedImage &Image, UnwindContext *Context, uintptr_t Low, uintptr_t High,
                      ImageFrame *Left = nullptr);

// The import of the one language handler there is, reached through the image's jump to it; null when a frame that has a
// handler has another.
const ImageImport *HandlerOf(const LoadedImage &Image, const ImageFrame &At);

// A part of a function that has a handler.
struct ImageScope {
    uint32_t Number;  // in the function's table
    uint32_t Handler; // a filter, 1 for "always", or what runs at the end
    uint32_t Target;  // of the handler's code; 0 for what runs at the end
};

// The scopes of a frame that the place Rip lies in, innermost first; each leads to code. Nothing of the image is run.
// Returns null, or why they cannot be followed.
const char *ReadImageScopes(const LoadedImage &Image, uint64_t Rip, const ImageFrame &At,
                            std::vector<ImageScope> *Scopes);

// A line for each frame of the image from the one on that From is in. *Behind is the host's frame that called it, all
// zero when the way there is lost.
std::string DescribeImageFrames(const LoadedImage &Image, const UnwindContext &From, UnwindContext *Behind);

// What lies at Rva, when the image keeps that readable.
template <typename T>
bool ReadImage(const LoadedImage &Image, uint64_t Rva, T *Value) {
    if (Rva >= Image.Format().ImageSize || !Image.Readable(Image.Base() + Rva, sizeof(T))) {
        return false;
    }
    memcpy(Value, Image.Base() + Rva, sizeof(T));
    return true;
}

// The import that the six bytes at Rva call or jump to through its slot; null when they are another instruction.
const ImageImport *ImportThrough(const LoadedImage &Image, uint64_t Rva, uint16_t Opcode);

} // namespace embedded
