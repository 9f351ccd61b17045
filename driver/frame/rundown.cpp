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

// A request may leave in another slot, and hand on requests of another kind, while the counters are read. All that left
// is read before any that entered, so that the answer may be too large, but never too small.
LONG InFlight(UCHAR First, UCHAR Behind) {
    const ULONG Left = SumOf(&COUNTERS::Left, First, Behind);
    return static_cast<LONG>(SumOf(&COUNTERS::Entered, First, Behind) - Left);
}

// In 100-ns units; goes on also when the clock is set.
LONG64 InterruptTime() {
    ULONG64 Counter;
    return static_cast<LONG64>(KeQueryInterruptTimePrecise(&Counter));
}

// Says what teardown waits for: the requests, and the files that somebody holds.
void TellWhatIsInFlight() {
    for (UCHAR MajorFunction = 0; MajorFunction < IN_FLIGHT_KINDS; ++MajorFunction) {
        const LONG Count = InFlight(MajorFunction, static_cast<UCHAR>(MajorFunction + 1));
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

bool NtFsdStopRequests(LONG Own) {
    if (!NtFsdIsStopped()) {
        KeInitializeEvent(&RequestLeft, SynchronizationEvent, FALSE);
        __atomic_store_n(&Stopped, 1, __ATOMIC_SEQ_CST);
    }
    ULONG Turns = 0;
    LONG64 Due = InterruptTime() + PATIENCE;
    // Queued requests are in flight; workers end when nothing is queued any more.
    while (NtFsdHurryWorkers(), InFlight(0, IN_FLIGHT_KINDS) > Own) {
        LARGE_INTEGER Timeout = {};
        // However often it is woken: every request that is refused meanwhile does that.
        Timeout.QuadPart = -(Due - InterruptTime());
        if (Timeout.QuadPart < 0) {
            Ignore(KeWaitForSingleObject(&RequestLeft, Executive, KernelMode, FALSE, &Timeout), "it looks anyway");
            continue;
        }
        TellWhatIsInFlight();
        if (++Turns == TURNS) {
            return false; // the machine is going down: what is in use is better left than pulled away
        }
        Due += PATIENCE;
    }
    return true;
}
