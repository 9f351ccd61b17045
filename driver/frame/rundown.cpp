// Requests in flight: counted by major function in slots by thread, so that two processors do not share a word for
// every request.

#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/irp_context.h"
#include "names/fcb.h"

namespace {

constexpr ULONG SLOTS = 16;

// How long teardown waits before it says what for, and how often.
constexpr LONG64 PATIENCE = 10 * 10000000ll; // ten seconds
constexpr ULONG TURNS = 6;

struct alignas(128) COUNTERS {
    LONG Requests[IN_FLIGHT_KINDS];
};
static_assert(sizeof(COUNTERS) == 128);

DRIVER_GLOBAL COUNTERS Slots[SLOTS] = {};
DRIVER_GLOBAL LONG Stopped = 0;
DRIVER_GLOBAL KEVENT RequestLeft = {};

LONG *CounterOfThread(UCHAR MajorFunction) {
    const ULONG_PTR Thread = reinterpret_cast<ULONG_PTR>(KeGetCurrentThread());
    return &Slots[(Thread * 0x9E3779B97F4A7C15ull) >> 60].Requests[MajorFunction];
}

// A request may leave in another slot than it entered in: only the sum counts.
LONG InFlight(UCHAR MajorFunction) {
    LONG Sum = 0;
    for (COUNTERS &Slot : Slots) {
        Sum += __atomic_load_n(&Slot.Requests[MajorFunction], __ATOMIC_SEQ_CST);
    }
    return Sum;
}

LONG AllInFlight() {
    LONG Sum = 0;
    for (UCHAR MajorFunction = 0; MajorFunction < IN_FLIGHT_KINDS; ++MajorFunction) {
        Sum += InFlight(MajorFunction);
    }
    return Sum;
}

// Says what teardown waits for: the requests, and the files that somebody holds.
void TellWhatIsInFlight() {
    for (UCHAR MajorFunction = 0; MajorFunction < IN_FLIGHT_KINDS; ++MajorFunction) {
        const LONG Count = InFlight(MajorFunction);
        if (Count > 0 && MajorFunction != IRP_MJ_SHUTDOWN) {
            NtFsdAlwaysPrint("[RVFSD] Shutdown waits for %d %s\n", Count, NtFsdMajorFunctionName(MajorFunction));
            NtFsdDebugPrint(TRACE_ERROR, 0, "Shutdown waits for %d %s\n", Count, NtFsdMajorFunctionName(MajorFunction));
        }
    }
    ResourceHold Hold;
    if (!Hold.AcquireShared(&FcbListResource, FALSE)) {
        return;
    }
    for (PLIST_ENTRY Links = FcbList.Flink; Links != &FcbList; Links = Links->Flink) {
        const PFCB Fcb = CONTAINING_RECORD(Links, FCB, FcbLinks);
        ResourceHold Free; // taken without waiting, so that no order matters
        if (!Free.AcquireExclusive(&Fcb->Resource, FALSE)) {
            NtFsdAlwaysPrint("[RVFSD] Shutdown waits for \"%wZ\"\n", NtFsdStablePath(Fcb));
            NtFsdDebugPrint(TRACE_ERROR, 0, "Shutdown waits for \"%wZ\"\n", NtFsdStablePath(Fcb));
        }
    }
}

} // namespace

bool NtFsdIsStopped() {
    return __atomic_load_n(&Stopped, __ATOMIC_SEQ_CST) != 0;
}

void NtFsdKeepRequest(UCHAR MajorFunction) {
    __atomic_fetch_add(CounterOfThread(MajorFunction), 1, __ATOMIC_SEQ_CST);
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
    __atomic_fetch_sub(CounterOfThread(MajorFunction), 1, __ATOMIC_SEQ_CST);
    if (NtFsdIsStopped()) {
        KeSetEvent(&RequestLeft, IO_NO_INCREMENT, FALSE);
    }
}

bool NtFsdStopRequests(LONG Own) {
    if (!NtFsdIsStopped()) {
        KeInitializeEvent(&RequestLeft, SynchronizationEvent, FALSE);
        __atomic_store_n(&Stopped, 1, __ATOMIC_SEQ_CST);
    }
    ULONG Turns = 0;
    // Queued requests are in flight; workers end when nothing is queued any more.
    while (NtFsdHurryWorkers(), AllInFlight() > Own) {
        LARGE_INTEGER Timeout = {};
        Timeout.QuadPart = -PATIENCE;
        if (KeWaitForSingleObject(&RequestLeft, Executive, KernelMode, FALSE, &Timeout) != STATUS_TIMEOUT) {
            continue;
        }
        TellWhatIsInFlight();
        if (++Turns == TURNS) {
            return false; // the machine is going down: what is in use is better left than pulled away
        }
    }
    return true;
}
