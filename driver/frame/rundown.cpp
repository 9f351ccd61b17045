// Requests in flight: counted by major function in slots by thread, so that two processors do not share a word for
// every request.

#include "frame/rundown.h"

#include "frame/memory.h"

namespace {

constexpr ULONG SLOTS = 16;

// Both only rise. What is in flight is their difference, so wrapping does no harm.
struct alignas(128) COUNTERS {
    ULONG Entered[IN_FLIGHT_KINDS];
    ULONG Left[IN_FLIGHT_KINDS];
};
static_assert(sizeof(COUNTERS) == 256);

DRIVER_GLOBAL COUNTERS Slots[SLOTS] = {};
DRIVER_GLOBAL LONG Stopped = 0;
DRIVER_GLOBAL KEVENT RequestLeft = {};

COUNTERS &SlotOfThread() {
    const ULONG_PTR Thread = reinterpret_cast<ULONG_PTR>(KeGetCurrentThread());
    return Slots[(Thread * 0x9E3779B97F4A7C15ull) >> 60];
}

ULONG SumOf(ULONG (COUNTERS::*Counters)[IN_FLIGHT_KINDS], UCHAR First, UCHAR Behind) {
    ULONG Sum = 0;
    for (COUNTERS &Slot : Slots) {
        for (UCHAR MajorFunction = First; MajorFunction < Behind; ++MajorFunction) {
            Sum += __atomic_load_n(&(Slot.*Counters)[MajorFunction], __ATOMIC_SEQ_CST);
        }
    }
    return Sum;
}

} // namespace

bool NtFsdIsStopped() {
    return __atomic_load_n(&Stopped, __ATOMIC_SEQ_CST) != 0;
}

void NtFsdKeepRequest(UCHAR MajorFunction) {
    __atomic_fetch_add(&SlotOfThread().Entered[MajorFunction], 1, __ATOMIC_SEQ_CST);
}

bool NtFsdEnterRequest(UCHAR MajorFunction) {
    // Count first, then look: teardown sets the flag first, then counts. One of the two sees the other.
    NtFsdKeepRequest(MajorFunction);
    if (!NtFsdIsStopped()) {
        return true;
    }
    NtFsdLeaveRequest(MajorFunction);
    return false;
}

void NtFsdLeaveRequest(UCHAR MajorFunction) {
    __atomic_fetch_add(&SlotOfThread().Left[MajorFunction], 1, __ATOMIC_SEQ_CST);
    NtFsdWakeTeardown();
}

void NtFsdWakeTeardown() {
    if (NtFsdIsStopped()) {
        KeSetEvent(&RequestLeft, IO_NO_INCREMENT, FALSE);
    }
}

void NtFsdRefuseRequests() {
    if (!NtFsdIsStopped()) {
        KeInitializeEvent(&RequestLeft, SynchronizationEvent, FALSE);
        __atomic_store_n(&Stopped, 1, __ATOMIC_SEQ_CST);
    }
}

// A request may leave in another slot, and hand on requests of another kind, while the counters are read. All that left
// is read before any that entered, so that the answer may be too large, but never too small.
LONG NtFsdCountInFlight(UCHAR First, UCHAR Behind) {
    const ULONG Left = SumOf(&COUNTERS::Left, First, Behind);
    return static_cast<LONG>(SumOf(&COUNTERS::Entered, First, Behind) - Left);
}

void NtFsdWaitForLeave(LONG64 Period) {
    LARGE_INTEGER Timeout = {};
    Timeout.QuadPart = -Period;
    Ignore(KeWaitForSingleObject(&RequestLeft, Executive, KernelMode, FALSE, &Timeout), "the caller looks anyway");
}
