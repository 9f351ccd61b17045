// The stand-in of the component framework: it answers ZelmCreateInstance for the driver's five classes and keeps book
// of everything that the driver takes from it.
//
// At most one Framework is active, from its construction to its destruction; without one every class is unknown. It
// owns the RVPL, transport, Quillon and Local Security Context objects; the Provider stays its maker's, and lives
// longer than the Framework. The sources of time and caller are set before the driver runs. Everything else may be
// called from any thread; one internal mutex guards the books and is never held across a callback or a wait for
// another party. The callers' context, the counters and the time take no lock.
#pragma once

#include "provider/framework.h"

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace providers {

enum class FrameworkClass : unsigned { Rvpl, Transport, Quillon, Provider, SecurityContext };
inline constexpr unsigned FrameworkClassCount = 5;
const char *NameOf(FrameworkClass Class);

class Framework {
public:
    using TimeSource = std::function<LONG64()>;
    using CallerSource = std::function<RV_SECURITY_CONTEXT()>;

    // Becomes the active framework. Provider may be nullptr: its class is then unknown until RegisterProvider. A second
    // active Framework ends the program.
    explicit Framework(RVIOM_FSD *Provider = nullptr);
    // Gives the Provider its own table back. The driver must be done with every object by now.
    ~Framework();
    Framework(const Framework &) = delete;
    Framework &operator=(const Framework &) = delete;

    static Framework *Active();

    // Puts Provider behind the Provider class. Its table is replaced by a copy whose release is counted here and then
    // passed on; its own slot 1 (when set) is called for each instance handed out. Once per Framework.
    void RegisterProvider(RVIOM_FSD *Provider);

    // 100-ns units since 1601. Default: the system's clock.
    void SetTimeSource(TimeSource Source);
    // The identity of the calling thread. Default: DefaultCaller for every thread.
    void SetCaller(CallerSource Source);
    static constexpr RV_SECURITY_CONTEXT DefaultCaller = {{1000, 1000}};
    // Who calls each of the Provider's operations: it gets the call as Run(Argument), which it makes once, in the
    // calling thread. Default: nobody, the driver calls the Provider itself. Before the driver is loaded.
    using OperationCaller = void (*)(void (*Run)(void *) noexcept, void *Argument) noexcept;
    void SetOperationCaller(OperationCaller Caller);

    // References, blocks and mutexes still out, one line each; empty when the driver gave everything back.
    std::vector<std::string> LeakReport() const;

private:
    friend struct FrameworkEntries;
    friend class FrameworkProbe;

    struct CreateFault {
        unsigned Left;
        RVPSTATUS Status;
        bool WithObject;
    };
    struct ClassState {
        std::atomic<LONG> References{0};
        std::atomic<bool> Released{false}; // the last reference went, after there had been one
        unsigned Creates = 0;
        std::vector<CreateFault> Faults;
        std::function<void()> Before;
    };
    struct Block {
        SIZE_T Size;
        unsigned Slot;
    };
    struct Mutex {
        std::mutex Lock;
        std::thread::id Owner; // guarded by Books_
    };

    struct RvplObject : RVPL {
        Framework *Owner;
    };
    struct SecurityObject : RV_SECURITY {
        Framework *Owner;
    };
    struct PlainObject : RVP_OBJECT {
        Framework *Owner;
        FrameworkClass Class;
    };

    RVPSTATUS Create(const GUID *Clsid, PVOID Outer, const GUID *Iid, PVOID *Out);
    PVOID ObjectOf(FrameworkClass Class);
    ULONG Release(FrameworkClass Class);
    void Misuse(std::string Text);
    void CheckAlive(FrameworkClass Class, unsigned Slot);
    PVOID Allocate(SIZE_T Size, unsigned Slot);
    void Free(PVOID Pointer);
    RVPSTATUS CreateMutex(ULONG One, RVPL_MUTEX *Handle);
    RVPSTATUS AcquireMutex(RVPL_MUTEX Handle);
    void ReleaseMutex(RVPL_MUTEX Handle);
    void DestroyMutex(RVPL_MUTEX Handle);
    ClassState &State(FrameworkClass Class) {
        return Classes_[static_cast<unsigned>(Class)];
    }
    const ClassState &State(FrameworkClass Class) const {
        return Classes_[static_cast<unsigned>(Class)];
    }

    // Unchanged after the driver starts.
    RvplObject Rvpl_;
    SecurityObject Security_;
    PlainObject Transport_;
    PlainObject Quillon_;
    TimeSource Time_;
    CallerSource Caller_;
    OperationCaller OperationCaller_ = nullptr;
    RVIOM_FSD *Provider_ = nullptr;
    const RVIOM_FSD_TABLE *ProviderOwnTable_ = nullptr;
    RVIOM_FSD_TABLE ProviderTable_;

    // Guarded by Books_.
    mutable std::mutex Books_;
    ClassState Classes_[FrameworkClassCount];
    std::vector<std::string> Log_;
    std::vector<std::string> Violations_;
    std::map<PVOID, Block> Blocks_;
    std::map<RVPL_MUTEX, std::shared_ptr<Mutex>> Mutexes_;
    RVPL_MUTEX LastMutex_ = 0;
    unsigned Allocations_ = 0;
    unsigned FailAllocateIn_ = 0;
    std::deque<std::pair<RVPSTATUS, bool>> CreateMutexFaults_;
    std::deque<RVPSTATUS> AcquireMutexFaults_;
};

} // namespace providers
