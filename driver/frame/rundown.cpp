// Requests in flight: counted in slots by thread, so that two processors do not share a word for every request.

#include "frame/driver.h"

namespace {

constexpr ULONG SLOTS = 16;

struct alignas(64) COUNTER {
    LONG Requests;
};

DRIVER_GLOBAL COUNTER Counters[SLOTS] = {};
DRIVER_GLOBAL LONG Stopped = 0;
DRIVER_GLOBAL KEVENT RequestLeft = {};

LONG *CounterOfThread() {
    const ULONG_PTR Thread = reinterpret_cast<ULONG_PTR>(KeGetCurrentThread());
    return &Counters[(Thread * 0x9E3779B97F4A7C15ull) >> 60].Requests;
}

LONG RequestsInFlight() {
    LONG Sum = 0;
    for (COUNTER &Counter : Counters) {
        Sum += __atomic_load_n(&Counter.Requests, __ATOMIC_SEQ_CST);
    }
    return Sum;
}

} // namespace

bool NtFsdIsStopped() {
    return __atomic_load_n(&Stopped, __ATOMIC_SEQ_CST) != 0;
}

bool NtFsdEnterRequest() {
    // Count first, then look: teardown sets the flag first, then counts. One of the two sees the other.
    __atomic_fetch_add(CounterOfThread(), 1, __ATOMIC_SEQ_CST);
    if (!NtFsdIsStopped()) {
        return true;
    }
    NtFsdLeaveRequest();
    return false;
}

void NtFsdLeaveRequest() {
    __atomic_fetch_sub(CounterOfThread(), 1, __ATOMIC_SEQ_CST);
    if (NtFsdIsStopped()) {
        KeSetEvent(&RequestLeft, IO_NO_INCREMENT, FALSE);
    }
}

void NtFsdStopRequests(LONG Own) {
    KeInitializeEvent(&RequestLeft, SynchronizationEvent, FALSE);
    __atomic_store_n(&Stopped, 1, __ATOMIC_SEQ_CST);
    while (RequestsInFlight() > Own) {
        KeWaitForSingleObject(&RequestLeft, Executive, KernelMode, FALSE, nullptr);
    }
}
