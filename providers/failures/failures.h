// What a Provider's operations failed with last, by thread: the driver answers some failures as it must, an empty
// record or the end of a listing, and a front end may have to tell them apart.
//
// The Provider's table of operations is exchanged for one that passes every call on. A fault, where one is set, is
// asked before each operation but the closing ones, and answers in the Provider's place when it gives an error: a
// server that is away for a while.
#pragma once

#include <functional>

#include "provider/provider_interface.h"

namespace providers {

// One at a time in a program.
class Failures {
public:
    using Fault = std::function<RVSTATUS()>;

    // Provider outlives this object, and no call is under way when either end comes.
    explicit Failures(RVIOM_FSD *Provider);
    ~Failures();
    Failures(const Failures &) = delete;
    Failures &operator=(const Failures &) = delete;

    // Not while calls are under way. Asked from several threads at once.
    void SetFault(Fault From) {
        Fault_ = std::move(From);
    }

    // The error with which the calling thread's last failed operation ended since Forget, when its name begins with
    // Operation; success otherwise.
    static RVSTATUS Last(const char *Operation = "") noexcept;
    static void Forget() noexcept;

private:
    friend struct FailureThunks;

    RVIOM_FSD *Provider_;
    const RVIOM_FSD_TABLE *Below_;
    RVIOM_FSD_TABLE Watched_;
    Fault Fault_;
};

} // namespace providers
