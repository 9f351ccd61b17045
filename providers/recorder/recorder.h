// Watches the calls of a Provider by exchanging its table of operations: every call is told before it goes on and after
// it came back, with what went in and what came out. Nothing stands between driver and Provider while nobody watches.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "provider/provider_interface.h"

namespace providers {

// An argument or a result. Pointers to data are not shown.
struct CallValue {
    const char *Name;
    std::string Text;
    bool Quoted; // a name or a path
};

struct ProviderCall {
    const char *Operation;
    std::vector<CallValue> In;
    RVSTATUS Status = {};       // the rest when it has come back
    std::vector<CallValue> Out; // empty after an error
};

// RVFsdOpenVolume(path="\demo\files") -> 0x00000000 handle=1
std::string Describe(const ProviderCall &Call);

// Told in the calling thread, from several threads at once. No exception leaves it.
class CallSink {
public:
    virtual ~CallSink() = default;
    virtual void CallBegan(const ProviderCall &Call) noexcept = 0;
    virtual void CallEnded(const ProviderCall &Call) noexcept = 0;
};

// One at a time in a program.
class Recorder {
public:
    // The table that Provider has now is the one that calls are passed on to. Provider and table outlive this object.
    explicit Recorder(RVIOM_FSD *Provider);
    ~Recorder();
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // Null: nobody watches any more, and the Provider has its own table again. May be called while calls are under way;
    // those may still be told to a sink that was taken away, which therefore stays until the driver has stopped.
    void SetSink(CallSink *To);

private:
    friend struct RecorderThunks;

    RVIOM_FSD *Provider_;
    const RVIOM_FSD_TABLE *Below_;
    RVIOM_FSD_TABLE Watched_;
    std::atomic<CallSink *> Sink_{nullptr};
};

} // namespace providers
