// A Provider in front of another one that tells what it was asked.
//
// Every operation is passed on as it came; then one line goes to the sink, in the calling thread:
// RVFsdOpenVolume("\demo\files") -> 0x00000000 handle=1. The sink must accept calls from several threads at once.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "provider/provider_interface.h"

namespace providers {

class Recorder : public RVIOM_FSD {
public:
    using Sink = std::function<void(std::string)>;

    // Below stays its owner's and outlives this object.
    explicit Recorder(RVIOM_FSD *Below);
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // An empty sink turns recording off. Not while calls are under way.
    void SetSink(Sink To) {
        Sink_ = std::move(To);
    }

    // The last failure of an enumeration that was not just its end, and forgets it; Success when there was none. The
    // driver answers such a failure as the end of the listing, so that nobody else can tell.
    RVSTATUS TakeListingFailure() {
        return static_cast<RVSTATUS>(ListingFailure_.exchange(0));
    }

private:
    friend struct RecorderThunks;

    void NoteListing(RVSTATUS Status) {
        constexpr USHORT NoMoreFiles = 0x0505;
        constexpr USHORT NoSuchFile = 0x0506;
        if (RvIsError(Status) && RvCode(Status) != NoMoreFiles && RvCode(Status) != NoSuchFile) {
            ListingFailure_.store(static_cast<ULONG>(Status));
        }
    }

    RVIOM_FSD *Below_;
    RVIOM_FSD_TABLE Table_;
    Sink Sink_;
    std::atomic<ULONG> ListingFailure_ = 0;
};

} // namespace providers
