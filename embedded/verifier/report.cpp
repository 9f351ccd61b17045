#include "embedded/verifier/report.h"

#include <cstdlib>
#include <execinfo.h>
#include <unistd.h>

#include <fmt/format.h>

#include "embedded/base/driver_stack.h"
#include "embedded/base/thread.h"
#include "embedded/image/calls.h"
#include "embedded/image/loaded_image.h"
#include "embedded/verifier/stack.h"

namespace embedded {
namespace {

void WriteToStderr(std::string_view Text) {
    while (!Text.empty()) {
        ssize_t Written = write(STDERR_FILENO, Text.data(), Text.size());
        if (Written <= 0) {
            return;
        }
        Text.remove_prefix(static_cast<size_t>(Written));
    }
}

[[noreturn]] void Stop(ULONG Code, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4, std::string_view What) {
    static std::atomic_flag Stopping;
    static thread_local bool Reporting = false;
    if (Reporting) {
        std::abort();
    }
    Reporting = true;
    // A second violation, by another thread, must not garble the report of the first.
    while (Stopping.test_and_set()) {
        pause();
    }
    WriteToStderr(
        fmt::format("*** STOP 0x{:08X} (0x{:016X},0x{:016X},0x{:016X},0x{:016X}): {}\n", Code, P1, P2, P3, P4, What));
    if (const auto Note = ReportNote.load(); Note != nullptr) {
        WriteToStderr(Note());
    }
    PVOID Frames[48];
    if (AnyImage() && CurrentThreadRecord != nullptr) {
        // The host's unwinder ends at the first frame of an image.
        const size_t Count = CaptureStack(Frames, std::size(Frames));
        WriteOpenCalls();
        for (size_t Index = 0; Index < Count; ++Index) {
            WriteToStderr(fmt::format("  {}\n", DescribeAddress(Frames[Index])));
        }
        std::abort();
    }
    int Count = backtrace(Frames, 48);
    backtrace_symbols_fd(Frames, Count, STDERR_FILENO);
    std::abort();
}

} // namespace

void BugCheck(ULONG Code, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4, std::string_view What) {
    OnHostStack([&] { Stop(Code, P1, P2, P3, P4, What); });
    std::abort();
}

} // namespace embedded
