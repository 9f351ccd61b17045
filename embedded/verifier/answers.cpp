#include "embedded/verifier/answers.h"

#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <tuple>

#include <fmt/format.h>

namespace embedded {
namespace {

constexpr SIZE_T RunThatIsNoChance = 4;
constexpr UCHAR TimesThatAreNoChance = 4;
constexpr SIZE_T WatchedBytes = 256;

// How often in a row each byte of an answer was garbage.
struct History {
    std::mutex Mutex;
    std::map<std::tuple<UCHAR, ULONG, SIZE_T>, std::array<UCHAR, WatchedBytes>> Counts;
};

History &Seen() {
    static History &Instance = *new History;
    return Instance;
}

UCHAR GarbageAt(ULONG Which, SIZE_T Index) {
    ULONG64 Mixed = (ULONG64{Which} << 32 | Index) * 0x9E3779B97F4A7C15;
    Mixed ^= Mixed >> 29;
    return static_cast<UCHAR>(Mixed * 0xBF58476D1CE4E5B9 >> 56);
}

[[noreturn]] void Report(const Question &Asked, SIZE_T Index, std::string_view What) {
    BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 6, Asked.MajorFunction, Asked.Code, Index,
             fmt::format("{} (code 0x{:x}, {} bytes): the answer counts byte {}, which the driver did not write", What,
                         Asked.Code, Asked.Size, Index));
}

} // namespace

ULONG FillWithGarbage(PVOID Buffer, SIZE_T Size) {
    static std::atomic<ULONG> Last{0};
    ULONG Which = 0;
    while (Which == 0) {
        Which = ++Last;
    }
    for (SIZE_T Index = 0; Index < Size; ++Index) {
        static_cast<UCHAR *>(Buffer)[Index] = GarbageAt(Which, Index);
    }
    return Which;
}

void CheckAnswer(const Question &Asked, const void *Buffer, SIZE_T From, SIZE_T Counted, ULONG Which,
                 std::string_view What) {
    const auto *Bytes = static_cast<const UCHAR *>(Buffer);
    std::lock_guard Guard(Seen().Mutex);
    auto &Counts = Seen().Counts[{Asked.MajorFunction, Asked.Code, Asked.Size}];
    SIZE_T Run = 0;
    for (SIZE_T Index = From; Index < Counted; ++Index) {
        const bool Garbage = Bytes[Index] == GarbageAt(Which, Index);
        Run = Garbage ? Run + 1 : 0;
        if (Run == RunThatIsNoChance) {
            Report(Asked, Index + 1 - Run, What);
        }
        if (Index < WatchedBytes) {
            Counts[Index] = static_cast<UCHAR>(Garbage ? Counts[Index] + 1 : 0);
            if (Counts[Index] == TimesThatAreNoChance) {
                Report(Asked, Index, What);
            }
        }
    }
}

} // namespace embedded
