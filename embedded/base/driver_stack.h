// The stack that the driver has. While it is verified it runs on as much as a kernel's thread has on Windows, with
// pages without access below: one step too many stops at once, by the handler of faults that a kernel installs when it
// boots (mm/faults.h).
//
// A driver's stack is a part of the thread's own, some megabytes below its upper end, and what the driver calls that is
// no kernel's (a Provider, what receives output) goes on below the guard, in the host's room. Addresses only fall on
// the way in, so walks, debuggers and sanitizers follow as ever. A driver that a Provider calls again gets the next
// such stack of its thread; beyond the last, and in a thread whose stack is small, it runs where it is called.
#pragma once

#include <string_view>

#include "embedded/base/level.h"
#include "embedded/base/thread.h"

namespace embedded {

// What Windows gives a kernel's thread. The frames of sanitizers are bigger, by what they put around variables.
inline constexpr ULONG_PTR KernelStackBytes = 24 * 1024;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr ULONG_PTR DriverStackBytes = 4 * KernelStackBytes;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr ULONG_PTR DriverStackBytes = 4 * KernelStackBytes;
#else
inline constexpr ULONG_PTR DriverStackBytes = KernelStackBytes;
#endif
#else
inline constexpr ULONG_PTR DriverStackBytes = KernelStackBytes;
#endif

// What stands for the Provider's own share of a stack, and for more.
inline constexpr ULONG_PTR MeasuredProviderBytes = 64 * 1024;

inline std::atomic<ULONG_PTR> DeepestAtService{0};
void NTAPI NoteStackUse(ULONG_PTR Bytes, std::string_view Routine) noexcept;

// The size of the stack that the calling thread has used up, when that is what its fault at Address means; Pointer is
// the stack pointer at the fault. 0 when it means something else.
ULONG_PTR StackUsedUp(const void *Address, ULONG_PTR Pointer);

// Gives the thread's stack back as it was; the calling thread's own, when it ends.
void LeaveDriverStacks(KThread &Thread);

// Calls Run(Argument) on the calling thread's next driver's stack.
using StackRoutine = void (*)(void *) noexcept;
void RunOnDriverStack(StackRoutine Run, void *Argument) noexcept;
// Calls Run(Argument) below the driver's stack that the caller is on; at once when it is on none.
void RunOnHostStack(StackRoutine Run, void *Argument) noexcept;
// The same for a Provider's operation, whose share is measured apart.
void RunProvider(StackRoutine Run, void *Argument) noexcept;

template <typename Work>
void CallRoutine(void *Argument) noexcept {
    (*static_cast<Work *>(Argument))();
}

// Calls Work, which enters the driver.
template <typename Work>
void OnDriverStack(Work &&Call) noexcept {
    if (Verifying() && CurrentThread().DriverFrame == 0) {
        RunOnDriverStack(CallRoutine<std::remove_reference_t<Work>>, &Call);
    } else {
        Call();
    }
}

// Calls Work, which the driver's stack need not have room for. A thread that the kernel does not know stays unknown.
template <typename Work>
void OnHostStack(Work &&Call) noexcept {
    if (CurrentThreadRecord != nullptr && CurrentThreadRecord->DriverFrame != 0) {
        RunOnHostStack(CallRoutine<std::remove_reference_t<Work>>, &Call);
    } else {
        Call();
    }
}

} // namespace embedded
