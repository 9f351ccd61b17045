// What tests look at and plant: what the driver asked of the framework and still has from it; creations, allocations
// and mutexes that fail.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "providers/framework/framework.h"

namespace providers {

// Looks into a Framework, which outlives it, and keeps nothing of its own. May be called from any thread.
class FrameworkProbe {
public:
    explicit FrameworkProbe(Framework &Of) : Of_(Of) {
    }

    // ---- Faults. Nth counts the creations (allocations, ...) from now; 1 is the next one. Each fires once.

    // Answers Status and a NULL pointer. With a Status that is no error, this is success without an object.
    void FailCreate(FrameworkClass Class, RVPSTATUS Status, unsigned Nth = 1);
    // Answers Status and an object all the same, which counts as handed out.
    void AnswerCreate(FrameworkClass Class, RVPSTATUS Status, unsigned Nth = 1);
    // Runs Action in the thread of the next creation, before it; once.
    void BeforeCreate(FrameworkClass Class, std::function<void()> Action);
    void FailAllocate(unsigned Nth = 1);
    // With StoreHandle the failing operation leaves a live handle behind, which its caller must destroy.
    void FailCreateMutex(RVPSTATUS Status, bool StoreHandle = false);
    void FailAcquireMutex(RVPSTATUS Status);

    // ---- What happened

    // "create RVPL -> 0x00000000", "release RVPL -> 0 left", in order.
    std::vector<std::string> Log() const;
    void ClearLog();
    LONG References(FrameworkClass Class) const;
    // Creations of the class asked for, the failed ones included.
    unsigned CreateCount(FrameworkClass Class) const;
    // Allocations through slots 25 and 26, the failed ones included.
    unsigned AllocationCount() const;
    size_t LiveBlocks() const;
    size_t LiveBytes() const;
    size_t LiveMutexes() const;
    // Misuse: a release too many, a use after the last release, a wrong free, a mutex misused.
    std::vector<std::string> Violations() const;

private:
    Framework &Of_;
};

} // namespace providers
