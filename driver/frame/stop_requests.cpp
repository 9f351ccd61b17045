// The wait of teardown for the requests in flight.

#include "frame/stop_requests.h"

#include "frame/async_queue.h"
#include "frame/diagnostics.h"
#include "frame/rundown.h"
#include "names/fcb.h"

namespace {

// Teardown reports what it waits for after each PATIENCE, TURNS times at most.
constexpr LONG64 PATIENCE = 10 * 10000000ll; // ten seconds
constexpr ULONG TURNS = 6;

// In 100-ns units; goes on also when the clock is set.
LONG64 InterruptTime() {
    ULONG64 Counter;
    return static_cast<LONG64>(KeQueryInterruptTimePrecise(&Counter));
}

// Says what teardown waits for: the requests, and the files that somebody holds.
void TellWhatIsInFlight() {
    for (UCHAR MajorFunction = 0; MajorFunction < IN_FLIGHT_KINDS; ++MajorFunction) {
        const LONG Count = NtFsdCountInFlight(MajorFunction, static_cast<UCHAR>(MajorFunction + 1));
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

bool NtFsdStopRequests(LONG Own) {
    NtFsdRefuseRequests();
    ULONG Turns = 0;
    LONG64 Due = InterruptTime() + PATIENCE;
    // Queued requests are in flight; workers end when nothing is queued any more.
    while (NtFsdHurryWorkers(), NtFsdCountInFlight(0, IN_FLIGHT_KINDS) > Own) {
        // However often it is woken: every request that is refused meanwhile does that.
        const LONG64 Left = Due - InterruptTime();
        if (Left > 0) {
            NtFsdWaitForLeave(Left);
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
