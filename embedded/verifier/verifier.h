// The verifier: what the embedded kernel does when a driver breaks a rule of the platform.
//
// Every violation ends the process with a report that carries the numbers Driver Verifier would show, so that one
// line means one thing in both worlds. Owns the level switch and the list of leak checks (own mutex). Nothing here
// blocks. Checks that cost something ask Verifying() first; those that are free stay on at every level.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

#include "embedded/ke.h"

namespace embedded {

// Bug check codes, and first parameters of 0xC4 and 0xC9, that more than one room uses.
namespace bugcheck {
inline constexpr ULONG ApcIndexMismatch = 0x01;
inline constexpr ULONG MultipleIrpComplete = 0x44;
inline constexpr ULONG BadPoolCaller = 0xC1; // special pool: pattern or free check
inline constexpr ULONG Verifier = 0xC4;
inline constexpr ULONG IoVerifier = 0xC9;
inline constexpr ULONG LeftLockedPages = 0xCB;
inline constexpr ULONG FreedMemoryTouched = 0xCC;

inline constexpr ULONG_PTR ZeroBytes = 0x00;
inline constexpr ULONG_PTR AllocateAboveApc = 0x01;
inline constexpr ULONG_PTR AllocateAboveDispatch = 0x02;
inline constexpr ULONG_PTR FreeBadAddress = 0x10;
inline constexpr ULONG_PTR FreeAboveApc = 0x11;
inline constexpr ULONG_PTR FreeAboveDispatch = 0x12;
inline constexpr ULONG_PTR FreeTwice = 0x13;
inline constexpr ULONG_PTR FreeWrongTag = 0x16;
inline constexpr ULONG_PTR RaiseToLower = 0x30;
inline constexpr ULONG_PTR LowerToHigher = 0x31;
inline constexpr ULONG_PTR SpinReleaseIrql = 0x32;
inline constexpr ULONG_PTR ResourceApcsOn = 0x37;
inline constexpr ULONG_PTR ResourceReleaseApcsOn = 0x38;
inline constexpr ULONG_PTR RegionNotEntered = 0x3E;
inline constexpr ULONG_PTR ReferenceFromZero = 0x3F;
inline constexpr ULONG_PTR SpinAcquireIrql = 0x40;
inline constexpr ULONG_PTR LeakAtUnload = 0x62;
inline constexpr ULONG_PTR UnlockUnlocked = 0x7C;
inline constexpr ULONG_PTR UnlockNonpaged = 0x7D;
inline constexpr ULONG_PTR UnlockPartial = 0xB4;
inline constexpr ULONG_PTR FreeLockedMdl = 0xB8;
inline constexpr ULONG_PTR FreedLookaside = 0xCC;
inline constexpr ULONG_PTR FreedResource = 0xD2;
inline constexpr ULONG_PTR UserAddress = 0xE0;      // given to a routine of the kernel
inline constexpr ULONG_PTR UserAddressInIrp = 0xE2; // of a request from the kernel
inline constexpr ULONG_PTR UserAddressToZw = 0xE3;
inline constexpr ULONG_PTR MalformedString = 0xE4;
inline constexpr ULONG_PTR IrpFreedAsPool = 0x105;
inline constexpr ULONG_PTR WaitAtDispatch = 0x120;
inline constexpr ULONG_PTR WaitAboveDispatch = 0x121;
inline constexpr ULONG_PTR DelayAboveApc = 0x122;
inline constexpr ULONG_PTR UserWaitOnStack = 0x123;
inline constexpr ULONG_PTR SelfDeadlock = 0x1000;
inline constexpr ULONG_PTR LockOrder = 0x1001;
inline constexpr ULONG_PTR Uninitialized = 0x1002;
inline constexpr ULONG_PTR ReleaseOutOfOrder = 0x1003;
inline constexpr ULONG_PTR WrongThread = 0x1004;
inline constexpr ULONG_PTR InitializedTwice = 0x1005;
inline constexpr ULONG_PTR NotAcquired = 0x1007;
inline constexpr ULONG_PTR ThreadEndedHolding = 0x100A;
inline constexpr ULONG_PTR DeletedInUse = 0x100B;
inline constexpr ULONG_PTR WrongIrql = 0x00020002; // a routine of the table below, called too high
inline constexpr ULONG_PTR OwnRule = 0x000F0000;   // rules of this kernel that Windows has no number for
} // namespace bugcheck

// Prints "*** STOP 0x000000C4 (0x...,0x...,0x...,0x...): What" and the calling stack to stderr and aborts.
[[noreturn]] void BugCheck(ULONG Code, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4, std::string_view What);

// What this thread reports next happened in the frame at Frame, not in the caller's: a handler of signals has a stack
// of its own. 0 for an unknown frame.
void ReportStackFrom(ULONG_PTR Frame);

enum class VerifierLevel { Off, On };

inline std::atomic<VerifierLevel> CurrentVerifierLevel{VerifierLevel::On};

inline bool Verifying() {
    return CurrentVerifierLevel.load(std::memory_order_relaxed) == VerifierLevel::On;
}

// May be switched while the kernel is at rest: no lock held, no call into the driver running.
void SetVerifierLevel(VerifierLevel Level);

// One row per service: the highest IRQL it may be called at.
struct IrqlRule {
    std::string_view Routine;
    KIRQL Highest;
};

inline constexpr IrqlRule IrqlRules[] = {
    {"DbgPrint", DispatchLevel},
    {"DbgPrintEx", DispatchLevel},
    {"ExAcquireResourceExclusiveLite", ApcLevel},
    {"ExAcquireResourceSharedLite", ApcLevel},
    {"ExConvertExclusiveToSharedLite", DispatchLevel},
    {"ExDeleteNPagedLookasideList", DispatchLevel},
    {"ExDeleteResourceLite", ApcLevel},
    {"ExInitializeNPagedLookasideList", DispatchLevel},
    {"ExInitializeResourceLite", DispatchLevel},
    {"ExIsResourceAcquiredExclusiveLite", DispatchLevel},
    {"ExIsResourceAcquiredSharedLite", DispatchLevel},
    {"ExReleaseResourceLite", DispatchLevel},
    {"FsRtlCopyRead", ApcLevel},
    {"FsRtlCopyWrite", ApcLevel},
    {"FsRtlDeregisterUncProvider", PassiveLevel},
    {"FsRtlFastUnlockSingle", ApcLevel},
    {"FsRtlGetNextFileLock", ApcLevel},
    {"FsRtlInitializeFileLock", ApcLevel},
    {"FsRtlNotifyInitializeSync", ApcLevel},
    {"FsRtlNotifyUninitializeSync", ApcLevel},
    {"FsRtlProcessFileLock", ApcLevel},
    {"FsRtlRegisterUncProviderEx", PassiveLevel},
    {"FsRtlTeardownPerStreamContexts", ApcLevel},
    {"FsRtlUninitializeFileLock", ApcLevel},
    {"IoAllocateMdl", DispatchLevel},
    {"IoCheckShareAccess", ApcLevel},
    {"IoCreateDevice", ApcLevel},
    {"IoCreateSymbolicLink", ApcLevel},
    {"IoDeleteDevice", ApcLevel},
    {"IoFreeMdl", DispatchLevel},
    {"IoGetCurrentProcess", DispatchLevel},
    {"IoGetRequestorProcess", DispatchLevel},
    {"IoIsOperationSynchronous", DispatchLevel},
    {"IoRemoveShareAccess", ApcLevel},
    {"IoSetShareAccess", ApcLevel},
    {"KeEnterCriticalRegion", ApcLevel},
    {"KeInitializeEvent", DispatchLevel},
    {"KeLeaveCriticalRegion", ApcLevel},
    {"KeSetEvent", DispatchLevel},
    {"MmForceSectionClosed", ApcLevel},
    {"MmMapLockedPagesSpecifyCache", DispatchLevel},
    {"MmProbeAndLockPages", ApcLevel},
    {"MmUnlockPages", DispatchLevel},
    {"NtClose", PassiveLevel},
    {"NtCreateFile", PassiveLevel},
    {"NtSetSecurityObject", PassiveLevel},
    {"ObReferenceObjectByHandle", PassiveLevel},
    {"ObfDereferenceObject", DispatchLevel},
    {"PsCreateSystemThread", PassiveLevel},
    {"PsTerminateSystemThread", PassiveLevel},
    {"RtlEqualUnicodeString", PassiveLevel},
    {"RtlFindUnicodePrefix", ApcLevel},
    {"RtlInitializeUnicodePrefix", ApcLevel},
    {"RtlInsertUnicodePrefix", ApcLevel},
    {"RtlNextUnicodePrefix", ApcLevel},
    {"RtlRemoveUnicodePrefix", ApcLevel},
    {"RtlUpcaseUnicodeChar", PassiveLevel},
    {"ZwClose", PassiveLevel},
    {"ZwDeleteFile", PassiveLevel},
    {"ZwOpenKey", PassiveLevel},
    {"ZwQuerySystemInformation", PassiveLevel},
    {"ZwQueryValueKey", PassiveLevel},
    {"ZwWriteFile", PassiveLevel},
    {"a file service", PassiveLevel},
};

// The row of a routine; a routine without a row does not compile.
consteval const IrqlRule &IrqlRuleOf(std::string_view Routine) {
    for (const IrqlRule &Rule : IrqlRules) {
        if (Rule.Routine == Routine) {
            return Rule;
        }
    }
    throw "no such routine in IrqlRules";
}

[[noreturn]] void NTAPI ReportIrql(KIRQL Highest, std::string_view Routine) noexcept;

// Stops when the calling thread's IRQL is above what Routine allows.
inline void RequireIrql(KIRQL Highest, std::string_view Routine) {
    if (Verifying() && CurrentThread().Irql > Highest) [[unlikely]] {
        ReportIrql(Highest, Routine);
    }
}
inline void RequireIrql(const IrqlRule &Rule) {
    RequireIrql(Rule.Highest, Rule.Routine);
}

// Memory of a process. One address space serves for kernel and user here, so what is user memory has to be said: a
// driver must not hand such an address to the kernel as its own, nor be given one in a request of the kernel's.
class UserMemory {
public:
    explicit UserMemory(SIZE_T Bytes);
    ~UserMemory();
    UserMemory(const UserMemory &) = delete;
    UserMemory &operator=(const UserMemory &) = delete;

    PVOID Address() const {
        return Address_;
    }

private:
    PVOID Address_;
    SIZE_T Bytes_;
};

[[noreturn]] void NTAPI ReportUserAddress(ULONG_PTR Rule, const void *Address, std::string_view Routine) noexcept;
inline std::atomic<SIZE_T> UserMemories{0};
bool NTAPI IsUserMemory(const void *Address) noexcept;

// Stops with 0xC4/Rule when Address is a process's.
inline void RequireKernelAddress(ULONG_PTR Rule, const void *Address, std::string_view Routine) {
    if (UserMemories.load(std::memory_order_relaxed) != 0 && Verifying() && IsUserMemory(Address)) [[unlikely]] {
        ReportUserAddress(Rule, Address, Routine);
    }
}

// Around a call into the driver: the IRQL, the critical-region count and the number of held locks must be the same
// after the call as before it.
enum class DriverCall { Dispatch, FastIo, Completion, Other };

class RequireUnchanged {
public:
    RequireUnchanged(DriverCall Call, const char *Routine) : Call_(Call), Routine_(Routine) {
        const KThread &Thread = CurrentThread();
        CriticalRegions_ = Thread.CriticalRegions;
        HeldCount_ = Thread.HeldCount;
        Irql_ = Thread.Irql;
    }
    ~RequireUnchanged() {
        if (Verifying()) {
            Compare();
        }
    }
    RequireUnchanged(const RequireUnchanged &) = delete;
    RequireUnchanged &operator=(const RequireUnchanged &) = delete;

private:
    void Compare() const;

    DriverCall Call_;
    const char *Routine_;
    LONG CriticalRegions_;
    ULONG HeldCount_;
    KIRQL Irql_;
};

// Adds a leak check to VerifyNothingLeft. The check returns an empty string when clean, else one line per leak.
// A second check of the same name replaces the first. Checks run without any lock of this room.
void RegisterLeakCheck(std::string_view Name, std::function<std::string()> Check);

// All leaks as text, empty when there are none.
std::string DescribeLeaks();

// Stops with 0xC4/0x62 and the whole list when pool, resources, lookaside lists, MDLs, held locks, system threads or
// anything of a registered check is still alive.
void VerifyNothingLeft();

// Up to Count return addresses of the calling thread, innermost first, by its frame pointers; frames compiled
// without them end the walk. Returns how many. Costs nanoseconds and never faults.
size_t CaptureStack(PVOID *Frames, size_t Count);

// The aligned words of the Bytes bytes at Start that point between Low and High. The bytes may be poisoned.
std::vector<const void *> PointersWithin(const void *Start, size_t Bytes, const void *Low, const void *High);

// Address as "module+0xoffset" or "symbol+0xoffset".
std::string DescribeAddress(const void *Address);

} // namespace embedded
