#include "embedded/loader/services.h"

#include <algorithm>
#include <cstring>

#include "embedded/loader/raise.h"
#include "embedded/verifier/report.h"
#include "kernel/kernel.h"

namespace embedded {
namespace {

// ---- What the compiler calls by itself, in the image's convention ----------------------------------------------

// A function that calls across conventions keeps ten registers more on the stack. A driver copies, fills and compares a
// few bytes at a time in most places, which costs a fraction of that: such lengths are dealt with in place, by blocks
// that may overlap, all of them read before the first is written.
constexpr SIZE_T Near = 64;

__attribute__((noinline)) void *NTAPI CopyFar(void *To, const void *From, SIZE_T Length) noexcept {
    return memmove(To, From, Length);
}
__attribute__((noinline)) void *NTAPI FillFar(void *To, int Value, SIZE_T Length) noexcept {
    return memset(To, Value, Length);
}
__attribute__((noinline)) int NTAPI CompareFar(const void *One, const void *Two, SIZE_T Length) noexcept {
    return memcmp(One, Two, Length);
}

using Word16 = unsigned long long __attribute__((vector_size(16)));

template <typename T>
T Load(const char *From) {
    T Block;
    __builtin_memcpy(&Block, From, sizeof(T));
    return Block;
}

template <typename T>
void Store(char *To, T Block) {
    __builtin_memcpy(To, &Block, sizeof(T));
}

// One to two blocks' bytes.
template <typename T>
void CopyEnds(char *To, const char *From, SIZE_T Length) {
    const T First = Load<T>(From), Last = Load<T>(From + Length - sizeof(T));
    Store(To, First);
    Store(To + Length - sizeof(T), Last);
}

template <typename T>
void FillBoth(char *To, char *AndTo, T Block) {
    Store(To, Block);
    Store(AndTo, Block);
}

// The areas may overlap.
void *NTAPI MoveMemory(void *Target, const void *Source, SIZE_T Length) noexcept {
    auto *To = static_cast<char *>(Target);
    const auto *From = static_cast<const char *>(Source);
    if (Length > Near) {
        return CopyFar(Target, Source, Length);
    }
    if (Length > 32) {
        const auto A = Load<Word16>(From), B = Load<Word16>(From + 16);
        const auto C = Load<Word16>(From + Length - 32), D = Load<Word16>(From + Length - 16);
        Store(To, A);
        Store(To + 16, B);
        Store(To + Length - 32, C);
        Store(To + Length - 16, D);
    } else if (Length >= 16) {
        CopyEnds<Word16>(To, From, Length);
    } else if (Length >= 8) {
        CopyEnds<uint64_t>(To, From, Length);
    } else if (Length >= 4) {
        CopyEnds<uint32_t>(To, From, Length);
    } else if (Length >= 2) {
        CopyEnds<uint16_t>(To, From, Length);
    } else if (Length == 1) {
        *To = *From;
    }
    return Target;
}

void *NTAPI FillMemory(void *Target, int Value, SIZE_T Length) noexcept {
    auto *To = static_cast<char *>(Target), *End = To + Length;
    if (Length > 2 * Near) {
        return FillFar(Target, Value, Length);
    }
    const uint64_t Eight = static_cast<uint8_t>(Value) * 0x0101010101010101ULL;
    const Word16 Sixteen = {Eight, Eight};
    if (Length >= 16) {
        if (Length > 32) {
            if (Length > 64) {
                FillBoth(To + 32, End - 48, Sixteen);
                FillBoth(To + 48, End - 64, Sixteen);
            }
            FillBoth(To + 16, End - 32, Sixteen);
        }
        FillBoth(To, End - 16, Sixteen);
    } else if (Length >= 8) {
        FillBoth<uint64_t>(To, End - 8, Eight);
    } else if (Length >= 4) {
        FillBoth(To, End - 4, static_cast<uint32_t>(Eight));
    } else if (Length >= 2) {
        FillBoth(To, End - 2, static_cast<uint16_t>(Eight));
    } else if (Length == 1) {
        *To = static_cast<char>(Value);
    }
    return Target;
}

int NTAPI CompareMemory(const void *One, const void *Two, SIZE_T Length) noexcept {
    if (Length > 4 * Near) {
        return CompareFar(One, Two, Length);
    }
    const auto *Left = static_cast<const uint8_t *>(One), *Right = static_cast<const uint8_t *>(Two);
    SIZE_T At = 0;
    while (At + 8 <= Length && Load<uint64_t>(reinterpret_cast<const char *>(Left + At)) ==
                                   Load<uint64_t>(reinterpret_cast<const char *>(Right + At))) {
        At += 8;
    }
    for (; At < Length; ++At) {
        if (Left[At] != Right[At]) {
            return Left[At] < Right[At] ? -1 : 1;
        }
    }
    return 0;
}
SIZE_T NTAPI TextLength(const char *Text) noexcept {
    return strlen(Text);
}
SIZE_T NTAPI WideTextLength(const WCHAR *Text) noexcept {
    return std::char_traits<WCHAR>::length(Text);
}
// Named by unwind data; exceptions are led to handlers by unwind.cpp, which never calls it.
ULONG NTAPI SpecificHandler(PVOID, PVOID, PVOID, PVOID) noexcept {
    BugCheck(bugcheck::Verifier, bugcheck::OwnRule, 0, 0, 0, "__C_specific_handler was called by the image itself");
}

// ---- The table -------------------------------------------------------------------------------------------------

template <typename T>
void *AddressOf(T *Function) {
    return reinterpret_cast<void *>(Function);
}

template <typename R>
constexpr ResultKind KindOf() {
    if constexpr (std::is_void_v<R>) {
        return ResultKind::None;
    } else if constexpr (sizeof(R) == 1) {
        return ResultKind::Byte;
    } else if constexpr (std::is_same_v<R, NTSTATUS>) {
        return ResultKind::Status;
    } else {
        return sizeof(R) == 8 ? ResultKind::Word64 : sizeof(R) == 2 ? ResultKind::Word16 : ResultKind::Word32;
    }
}

template <typename... Args>
Service Make(const char *Name, void *Address, ResultKind Result) {
    constexpr size_t Bytes[] = {sizeof(Args)..., 0};
    Service Made = {Name, Address, Result, std::min<uint8_t>(sizeof...(Args), 4), false, {}};
    for (size_t Index = 0; Index < Made.Arguments; ++Index) {
        Made.Sizes[Index] = static_cast<uint8_t>(Bytes[Index]);
    }
    return Made;
}

template <typename R, typename... Args>
Service Of(const char *Name, R(NTAPI *Function)(Args...) noexcept) {
    return Make<Args...>(Name, AddressOf(Function), KindOf<R>());
}
// A 32-bit result that is no status.
template <typename R, typename... Args>
Service Plain(const char *Name, R(NTAPI *Function)(Args...) noexcept) {
    return Make<Args...>(Name, AddressOf(Function), ResultKind::Word32);
}
Service Raising(const char *Name, uint8_t Arguments) {
    return {Name, RaisingGate(Name), ResultKind::None, Arguments, true, {}};
}

std::vector<Service> Table() {
    return {
        Of("memcpy", MoveMemory),
        Of("memmove", MoveMemory),
        Of("memset", FillMemory),
        Plain("memcmp", CompareMemory),
        Of("strlen", TextLength),
        Of("wcslen", WideTextLength),
        Of("__C_specific_handler", SpecificHandler),
        Raising("MmProbeAndLockPages", 3),
        Raising("FsRtlNotifyInitializeSync", 1),
        Raising("ProbeForRead", 3),
        Raising("ProbeForWrite", 3),
        Raising("ExRaiseStatus", 1),
        Of("ExAllocatePoolWithTag", ExAllocatePoolWithTag),
        Of("ExFreePoolWithTag", ExFreePoolWithTag),
        Of("ExInitializeResourceLite", ExInitializeResourceLite),
        Of("ExDeleteResourceLite", ExDeleteResourceLite),
        Of("ExAcquireResourceExclusiveLite", ExAcquireResourceExclusiveLite),
        Of("ExAcquireResourceSharedLite", ExAcquireResourceSharedLite),
        Of("ExReleaseResourceLite", ExReleaseResourceLite),
        Of("ExConvertExclusiveToSharedLite", ExConvertExclusiveToSharedLite),
        Of("ExIsResourceAcquiredExclusiveLite", ExIsResourceAcquiredExclusiveLite),
        Of("ExIsResourceAcquiredSharedLite", ExIsResourceAcquiredSharedLite),
        Of("ExInitializeNPagedLookasideList", ExInitializeNPagedLookasideList),
        Of("ExDeleteNPagedLookasideList", ExDeleteNPagedLookasideList),
        Of("ExpInterlockedPopEntrySList", ExpInterlockedPopEntrySList),
        Of("ExpInterlockedPushEntrySList", ExpInterlockedPushEntrySList),
        Of("ExQueryDepthSList", ExQueryDepthSList),
        Of("ExSystemTimeToLocalTime", ExSystemTimeToLocalTime),
        Of("KeGetCurrentIrql", KeGetCurrentIrql),
        Of("KeGetCurrentThread", KeGetCurrentThread),
        Of("KeEnterCriticalRegion", KeEnterCriticalRegion),
        Of("KeLeaveCriticalRegion", KeLeaveCriticalRegion),
        Of("KeAcquireSpinLockRaiseToDpc", KeAcquireSpinLockRaiseToDpc),
        Of("KeReleaseSpinLock", KeReleaseSpinLock),
        Of("KeInitializeEvent", KeInitializeEvent),
        Plain("KeSetEvent", KeSetEvent),
        Of("KeWaitForSingleObject", KeWaitForSingleObject),
        Of("KeDelayExecutionThread", KeDelayExecutionThread),
        Of("KeQuerySystemTimePrecise", KeQuerySystemTimePrecise),
        Of("KeQueryInterruptTimePrecise", KeQueryInterruptTimePrecise),
        Of("KeBugCheckEx", KeBugCheckEx),
        Of("PsCreateSystemThread", PsCreateSystemThread),
        Of("PsTerminateSystemThread", PsTerminateSystemThread),
        Of("ObReferenceObjectByHandle", ObReferenceObjectByHandle),
        Of("ObfDereferenceObject", ObfDereferenceObject),
        Of("MmQuerySystemSize", MmQuerySystemSize),
        Of("MmUnlockPages", MmUnlockPages),
        Of("MmMapLockedPagesSpecifyCache", MmMapLockedPagesSpecifyCache),
        Of("MmForceSectionClosed", MmForceSectionClosed),
        Of("IoCreateDevice", IoCreateDevice),
        Of("IoDeleteDevice", IoDeleteDevice),
        Of("IoCreateSymbolicLink", IoCreateSymbolicLink),
        Of("IofCompleteRequest", IofCompleteRequest),
        Of("IoGetTopLevelIrp", IoGetTopLevelIrp),
        Of("IoSetTopLevelIrp", IoSetTopLevelIrp),
        Of("IoAcquireCancelSpinLock", IoAcquireCancelSpinLock),
        Of("IoReleaseCancelSpinLock", IoReleaseCancelSpinLock),
        Of("IoIsOperationSynchronous", IoIsOperationSynchronous),
        Of("IoGetCurrentProcess", IoGetCurrentProcess),
        Of("IoGetRequestorProcess", IoGetRequestorProcess),
        Of("IoAllocateMdl", IoAllocateMdl),
        Of("IoCsqInitializeEx", IoCsqInitializeEx),
        Of("IoCsqInsertIrpEx", IoCsqInsertIrpEx),
        Of("IoCsqRemoveNextIrp", IoCsqRemoveNextIrp),
        Of("IoFreeMdl", IoFreeMdl),
        Of("IoSetShareAccess", IoSetShareAccess),
        Of("IoCheckShareAccess", IoCheckShareAccess),
        Of("IoRemoveShareAccess", IoRemoveShareAccess),
        Of("FsRtlRegisterUncProviderEx", FsRtlRegisterUncProviderEx),
        Of("FsRtlDeregisterUncProvider", FsRtlDeregisterUncProvider),
        Of("FsRtlCopyRead", FsRtlCopyRead),
        Of("FsRtlCopyWrite", FsRtlCopyWrite),
        Of("FsRtlInitializeFileLock", FsRtlInitializeFileLock),
        Of("FsRtlUninitializeFileLock", FsRtlUninitializeFileLock),
        Of("FsRtlProcessFileLock", FsRtlProcessFileLock),
        Of("FsRtlGetNextFileLock", FsRtlGetNextFileLock),
        Of("FsRtlFastUnlockSingle", FsRtlFastUnlockSingle),
        Of("FsRtlNotifyUninitializeSync", FsRtlNotifyUninitializeSync),
        Of("FsRtlTeardownPerStreamContexts", FsRtlTeardownPerStreamContexts),
        Of("RtlInitializeUnicodePrefix", RtlInitializeUnicodePrefix),
        Of("RtlInsertUnicodePrefix", RtlInsertUnicodePrefix),
        Of("RtlRemoveUnicodePrefix", RtlRemoveUnicodePrefix),
        Of("RtlFindUnicodePrefix", RtlFindUnicodePrefix),
        Of("RtlNextUnicodePrefix", RtlNextUnicodePrefix),
        Of("RtlEqualUnicodeString", RtlEqualUnicodeString),
        Of("RtlUpcaseUnicodeChar", RtlUpcaseUnicodeChar),
        Of("RtlTimeToTimeFields", RtlTimeToTimeFields),
        Of("RtlCreateSecurityDescriptor", RtlCreateSecurityDescriptor),
        Of("RtlSetDaclSecurityDescriptor", RtlSetDaclSecurityDescriptor),
        Of("RtlAnsiStringToUnicodeString", RtlAnsiStringToUnicodeString),
        Of("RtlFreeUnicodeString", RtlFreeUnicodeString),
        Of("ZwOpenKey", ZwOpenKey),
        Of("ZwQueryValueKey", ZwQueryValueKey),
        Of("ZwClose", ZwClose),
        Of("ZwOpenFile", ZwOpenFile),
        Of("ZwCreateFile", ZwCreateFile),
        Of("ZwWriteFile", ZwWriteFile),
        Of("ZwDeleteFile", ZwDeleteFile),
        Of("ZwQuerySystemInformation", ZwQuerySystemInformation),
        Of("NtSetSecurityObject", NtSetSecurityObject),
        Of("ZwOpenThreadTokenEx", ZwOpenThreadTokenEx),
        Of("ZwOpenProcessTokenEx", ZwOpenProcessTokenEx),
        Of("ZwQueryInformationToken", ZwQueryInformationToken),
        Of("ZwCreateSymbolicLinkObject", ZwCreateSymbolicLinkObject),
        Of("ZwOpenSymbolicLinkObject", ZwOpenSymbolicLinkObject),
        Of("ZwQuerySymbolicLinkObject", ZwQuerySymbolicLinkObject),
        Of("ZwMakeTemporaryObject", ZwMakeTemporaryObject),
        {"DbgPrint", AddressOf(&DbgPrint), ResultKind::Status, 1, false, {}},
        {"DbgPrintEx", AddressOf(&DbgPrintEx), ResultKind::Status, 3, false, {4, 4, 8}},
    };
}

} // namespace

const std::vector<Service> &KernelServices() {
    static const std::vector<Service> Services = Table();
    return Services;
}

const Service *FindKernelService(std::string_view Name) {
    const std::vector<Service> &All = KernelServices();
    const auto Found = std::find_if(All.begin(), All.end(), [Name](const Service &Each) { return Each.Name == Name; });
    return Found == All.end() ? nullptr : &*Found;
}

} // namespace embedded
