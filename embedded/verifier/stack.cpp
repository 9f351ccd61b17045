#include "embedded/verifier/stack.h"

#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>

#include <fmt/format.h>

#include "embedded/base/thread.h"
#include "embedded/image/calls.h"
#include "embedded/image/symbols.h"
#include "embedded/image/unwind.h"

namespace embedded {
namespace {

thread_local ULONG_PTR ReportedFrame = 0;

// Through the frames of an image, which keeps no frame pointers, by its unwind tables: from the frame that a function
// of the image called to the host's frame behind it, whose frame pointer it returns; 0 when the way is lost.
ULONG_PTR WalkImage(const LoadedImage &Image, PVOID Return, ULONG_PTR Frame, PVOID *Frames, size_t Count,
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

void ReportStackFrom(ULONG_PTR Frame) {
    ReportedFrame = Frame;
}

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
        if (const LoadedImage *Image = ImageOf(Return)) {
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
    if (const LoadedImage *Image = ImageOf(Address)) {
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
