#include "frame/configuration.h"

#include "frame/memory.h"
#include "names/text.h"

DRIVER_GLOBAL BOOLEAN g_bEnableDirectoryNotify = FALSE;
DRIVER_GLOBAL BOOLEAN g_bEnableAsyncIo = FALSE;
DRIVER_GLOBAL BOOLEAN g_bUNCPathFilterBehavior = FALSE;
DRIVER_GLOBAL BOOLEAN g_bFailDeleteInUseWorkaround = FALSE;
DRIVER_GLOBAL BOOLEAN g_bDeferDeleteAccessCheck = FALSE;

namespace {

constexpr UNICODE_STRING SERVICE_KEY =
    ConstantString(WTEXT("\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\RVFSD\\"));
constexpr ULONG VALUE_BUFFER_BYTES = 20;
constexpr ULONG LARGEST_VALUE_BYTES = 4;

NTSTATUS QueryValue(HANDLE Key, PCWSTR ValueName, PKEY_VALUE_PARTIAL_INFORMATION Value, PVOID Buffer,
                    PULONG ResultLength) {
    const USHORT NameBytes = static_cast<USHORT>(WideLength(ValueName, 0x7FFF) * sizeof(WCHAR));
    UNICODE_STRING Name = {NameBytes, static_cast<USHORT>(NameBytes + sizeof(WCHAR)), const_cast<PWSTR>(ValueName)};
    ULONG Needed = 0;
    NTSTATUS Status = ZwQueryValueKey(Key, &Name, KeyValuePartialInformation, Value, VALUE_BUFFER_BYTES, &Needed);
    if (!NT_SUCCESS(Status) && Status != STATUS_BUFFER_OVERFLOW && Status != STATUS_BUFFER_TOO_SMALL) {
        return Status;
    }
    *ResultLength = Value->DataLength;
    if (NT_SUCCESS(Status)) {
        if (Value->DataLength > LARGEST_VALUE_BYTES) {
            Status = STATUS_BUFFER_OVERFLOW;
        } else {
            RtlCopyMemory(Buffer, Value->Data, Value->DataLength);
        }
    }
    return Status;
}

} // namespace

NTSTATUS NtFsdReadServiceValue(PCWSTR ValueName, ULONG Type, ULONG Size, PVOID Buffer, PULONG ResultLength) {
    UNREFERENCED_PARAMETER(Type);
    UNREFERENCED_PARAMETER(Size);
    auto Value = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(
        ExAllocatePoolWithTag(NonPagedPoolNx, VALUE_BUFFER_BYTES, POOL_TAG_REGISTRY));
    if (Value == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The length of a value that does not fit is read from the block even when the query filled nothing.
    RtlZeroMemory(Value, VALUE_BUFFER_BYTES);
    ScopeExit FreeValue([Value] { ExFreePoolWithTag(Value, POOL_TAG_REGISTRY); });

    UNICODE_STRING KeyName = SERVICE_KEY;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &KeyName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE Key = nullptr;
    NTSTATUS Status = ZwOpenKey(&Key, MAXIMUM_ALLOWED, &Attributes);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Status = QueryValue(Key, ValueName, Value, Buffer, ResultLength);
    ZwClose(Key);
    return Status;
}
