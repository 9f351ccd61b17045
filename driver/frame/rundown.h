// Requests in flight: teardown refuses new ones and waits for those that are there.
#pragma once

#include "frame/request_kinds.h"

// Enters a request of MajorFunction (or one of the above); FALSE once teardown has begun, and then nothing of the
// driver may be used. NtFsdLeaveRequest with the same function follows, of the same thread or another.
bool NtFsdEnterRequest(UCHAR MajorFunction);
void NtFsdLeaveRequest(UCHAR MajorFunction);
// Counts in once more what a request that is in flight hands to another thread.
void NtFsdKeepRequest(UCHAR MajorFunction);
// TRUE once teardown has begun.
bool NtFsdIsStopped();
// Lets a teardown that waits look again. IRQL up to DISPATCH_LEVEL.
void NtFsdWakeTeardown();
// For teardown: refuses new requests from now on.
void NtFsdRefuseRequests();
// How many of the kinds from First on, before Behind, are in flight. Never fewer than there are.
LONG NtFsdCountInFlight(UCHAR First, UCHAR Behind);
// Waits until a request leaves or wakes teardown, for Period (in 100-ns units) at most.
void NtFsdWaitForLeave(LONG64 Period);

// A request in flight, by scope.
class [[nodiscard]] RequestInFlight {
public:
    explicit RequestInFlight(UCHAR MajorFunction = IN_FLIGHT_CALL)
        : MajorFunction_(MajorFunction), Entered_(NtFsdEnterRequest(MajorFunction)) {
    }
    RequestInFlight(const RequestInFlight &) = delete;
    RequestInFlight &operator=(const RequestInFlight &) = delete;
    ~RequestInFlight() {
        if (Entered_) {
            NtFsdLeaveRequest(MajorFunction_);
        }
    }
    explicit operator bool() const {
        return Entered_;
    }

private:
    UCHAR MajorFunction_;
    bool Entered_;
};
