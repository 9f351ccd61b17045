// Threads as the embedded kernel knows them: one record each, with what it holds and where it waits.
//
// A record belongs to its thread: only the fields under "parking" are touched by others, under ParkMutex, and MustEnd.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "kernel/kernel.h"

namespace embedded {

class TokenObject;

inline constexpr KIRQL PassiveLevel = 0;
inline constexpr KIRQL ApcLevel = 1;
inline constexpr KIRQL DispatchLevel = 2;
inline constexpr KIRQL HighLevel = 15;

enum class LockKind : UCHAR { SpinLock, ResourceShared, ResourceExclusive };

// One lock that a thread holds; Count is how often (resources only).
struct HeldLock {
    PVOID Lock;
    PVOID Where;
    ULONG Count;
    LockKind Kind;
};

// A lock-order edge this thread has seen accepted already.
struct SeenEdge {
    PVOID From;
    PVOID To;
    ULONG64 Generation;
};

inline constexpr ULONG MaximumHeldLocks = 32;
inline constexpr ULONG SeenEdges = 64;
inline constexpr UCHAR ThreadObjectType = 6;

struct ExploredThread;

} // namespace embedded

struct _KTHREAD {
    DISPATCHER_HEADER Header; // signalled when a system thread has ended: threads can be waited for

    KIRQL Irql;
    bool SystemThread;
    bool CountsInSettle; // Clock::Settle waits for this thread
    LONG CriticalRegions;
    PIRP TopLevelIrp;
    PEPROCESS Process;
    embedded::TokenObject *Impersonated; // null: the process's own token
    ULONG FaultScopes;                   // driver code runs: faults may be injected
    ULONG FaultExempts;                  // ... but not while this is set
    PMDL SpareMdl;                       // the MDL freed last, while nothing is verified
    void (*FreeSpareMdl)(PMDL) noexcept; // what becomes of it when the thread ends
    std::atomic<bool> MustEnd;           // the machine goes down: it ends in its next delay
    bool StoppedInDelay;                 // ... and did

    ULONG HeldCount;
    ULONG HeldBefore; // when the driver was called last
    embedded::HeldLock Held[embedded::MaximumHeldLocks];
    embedded::SeenEdge Seen[embedded::SeenEdges];
    ULONG_PTR StackLow;
    ULONG_PTR StackHigh;

    // The driver's stack (driver_stack.h).
    ULONG_PTR DriverFrame;   // where it begins, its upper end; 0 outside of the driver
    ULONG_PTR DriverLow;     // where it ends; 0 when it is the host's
    ULONG DriverStacks;      // that this thread has
    ULONG DriverStacksInUse; // the driver called from a Provider that the driver called
    ULONG ProviderPainted;   // a bit for each whose Provider's share is measured

    // Pool of the unverified kind: written by this thread only, summed by others.
    std::atomic<LONG64> PoolBytes;
    std::atomic<LONG64> PoolBlocks;

    // Parking.
    std::mutex ParkMutex;
    std::condition_variable ParkWake;
    bool ParkToken;
    bool Parked;

    embedded::ExploredThread *Explored; // while the schedule explorer runs it
    PVOID SignalStack; // for the report of a stack that is used up; null when the host's thread has one of its own
};

namespace embedded {

using KThread = _KTHREAD;

inline constinit thread_local KThread *CurrentThreadRecord = nullptr;

// What a service calls on its rare paths is NTAPI as well: a call of the host's convention would make every service
// save ten vector registers on its common path, and so would one that may throw.

// Gives the calling thread its record (ke/ke.cpp); it lives until the thread ends. The process of a foreign thread is
// System.
__attribute__((noinline)) KThread &NTAPI AttachThread() noexcept;

inline KThread &CurrentThread() {
    KThread *Thread = CurrentThreadRecord;
    return Thread != nullptr ? *Thread : AttachThread();
}

} // namespace embedded
