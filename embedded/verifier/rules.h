// Rules of calls: the highest IRQL of each service, and what a call into the driver must leave as it was.
#pragma once

#include <atomic>
#include <string_view>
#include <utility>

#include "embedded/base/driver_stack.h"
#include "embedded/base/thread.h"
#include "embedded/verifier/report.h"

namespace embedded {

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
    {"IoCsqInitializeEx", DispatchLevel},
    {"IoCsqInsertIrpEx", DispatchLevel},
    {"IoCsqRemoveNextIrp", DispatchLevel},
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
    {"NtCreateSymbolicLinkObject", PassiveLevel},
    {"NtMakeTemporaryObject", PassiveLevel},
    {"NtOpenSymbolicLinkObject", PassiveLevel},
    {"NtQuerySymbolicLinkObject", PassiveLevel},
    {"NtSetSecurityObject", PassiveLevel},
    {"ObReferenceObjectByHandle", PassiveLevel},
    {"ObfDereferenceObject", DispatchLevel},
    {"PsCreateSystemThread", PassiveLevel},
    {"PsTerminateSystemThread", PassiveLevel},
    {"RtlAnsiStringToUnicodeString", PassiveLevel},
    {"RtlEqualUnicodeString", PassiveLevel},
    {"RtlFindUnicodePrefix", ApcLevel},
    {"RtlFreeUnicodeString", PassiveLevel},
    {"RtlInitializeUnicodePrefix", ApcLevel},
    {"RtlInsertUnicodePrefix", ApcLevel},
    {"RtlNextUnicodePrefix", ApcLevel},
    {"RtlRemoveUnicodePrefix", ApcLevel},
    {"RtlSetDaclSecurityDescriptor", ApcLevel},
    {"RtlUpcaseUnicodeChar", PassiveLevel},
    {"ZwClose", PassiveLevel},
    {"ZwCreateSymbolicLinkObject", PassiveLevel},
    {"ZwDeleteFile", PassiveLevel},
    {"ZwMakeTemporaryObject", PassiveLevel},
    {"ZwOpenKey", PassiveLevel},
    {"ZwOpenProcessTokenEx", PassiveLevel},
    {"ZwOpenSymbolicLinkObject", PassiveLevel},
    {"ZwOpenThreadTokenEx", PassiveLevel},
    {"ZwQueryInformationToken", PassiveLevel},
    {"ZwQuerySymbolicLinkObject", PassiveLevel},
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
    if (!Verifying()) {
        return;
    }
    const KThread &Thread = CurrentThread();
    if (Thread.Irql > Highest) [[unlikely]] {
        ReportIrql(Highest, Routine);
    }
    const ULONG_PTR Bytes = Thread.DriverFrame - reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    if (Thread.DriverFrame != 0 && Bytes > DeepestAtService.load(std::memory_order_relaxed)) [[unlikely]] {
        NoteStackUse(Bytes, Routine);
    }
}
inline void RequireIrql(const IrqlRule &Rule) {
    RequireIrql(Rule.Highest, Rule.Routine);
}

// Around a call into the driver: the IRQL, the critical-region count and the number of held locks must be the same
// after the call as before it, and no request is completed within it while more locks are held.
enum class DriverCall { Dispatch, FastIo, Completion, Other };

class RequireUnchanged {
public:
    RequireUnchanged(DriverCall Call, const char *Routine) : Call_(Call), Routine_(Routine) {
        KThread &Thread = CurrentThread();
        CriticalRegions_ = Thread.CriticalRegions;
        HeldCount_ = Thread.HeldCount;
        HeldBefore_ = Thread.HeldBefore;
        Thread.HeldBefore = HeldCount_;
        Irql_ = Thread.Irql;
    }
    ~RequireUnchanged() {
        CurrentThread().HeldBefore = HeldBefore_;
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
    ULONG HeldBefore_;
    KIRQL Irql_;
};

} // namespace embedded
