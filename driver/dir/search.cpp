#include "dir/directory.h"
#include "frame/memory.h"
#include "provider/binding.h"

DRIVER_GLOBAL BOOLEAN g_bLazyClose = FALSE;

namespace {

// What wildcards of the platform's file systems become on their way to the Provider.
constexpr WCHAR MASK_LESS = 0xF8FC;
constexpr WCHAR MASK_GREATER = 0xF8FD;
constexpr WCHAR MASK_QUOTE = 0xF8FF;

constexpr UNICODE_STRING PARAMETERS_KEY =
    ConstantString(WTEXT("\\REGISTRY\\Machine\\Software\\Veyra\\Client\\Parameters"));
constexpr UNICODE_STRING LAZY_CLOSE_VALUE = ConstantString(WTEXT("Enable Lazy Close"));
constexpr ULONG VALUE_BUFFER_BYTES = 88;

bool EndsInStarDotStar(PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock) {
    const ULONG Units = Instance->SearchMaskLength / sizeof(WCHAR);
    const PCWSTR End = Instance->SearchMask + Units;
    return Units > 3 && End[-3] == WTEXT('*') && End[-2] == WTEXT('.') && End[-1] == WTEXT('*');
}

void DropBatch(PINSTANCE_CONTEXT Instance) HOLDING(Instance->SearchLock) {
    TwFreeMemory(Instance->EnumBuffer);
    Instance->EnumBuffer = nullptr;
    Instance->NextEntry = nullptr;
    Instance->InfoCount = 0;
    Instance->BatchBroken = FALSE;
}

// Makes room for a mask of Bytes and its terminator.
NTSTATUS ReserveMask(PINSTANCE_CONTEXT Instance, ULONG Bytes) HOLDING(Instance->SearchLock) {
    if (Instance->SearchMask != nullptr && Bytes <= Instance->SearchMaskLength) {
        return STATUS_SUCCESS;
    }
    TwFreeMemory(Instance->SearchMask);
    Instance->SearchMask = static_cast<PWSTR>(TwAllocBuffer(Bytes + sizeof(WCHAR)));
    if (Instance->SearchMask == nullptr) {
        Instance->SearchMaskLength = 0;
        NtFsdSetSearching(Instance, FALSE);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

// The value in Buffer, when it is a number that lies inside.
bool ReadNumber(const KEY_VALUE_FULL_INFORMATION *Value, ULONG Bytes, PULONG Number) {
    if (Value->Type != REG_DWORD || Value->DataLength != sizeof(ULONG) || Value->DataOffset > Bytes - sizeof(ULONG)) {
        return false;
    }
    RtlCopyMemory(Number, reinterpret_cast<const UCHAR *>(Value) + Value->DataOffset, sizeof(ULONG));
    return true;
}

} // namespace

NTSTATUS NtFsdInitializeSearch(PIRP_CONTEXT, PFCB Fcb, PINSTANCE_CONTEXT Instance, PCUNICODE_STRING Mask) {
    Instance->UseShortNames = FALSE;
    Instance->ShortNameOption = 0;
    const ULONG Bytes = Mask->Length & ~1u;
    const NTSTATUS Status = ReserveMask(Instance, Bytes);
    if (!NT_SUCCESS(Status)) {
        DropBatch(Instance);
        return Status;
    }
    RtlCopyMemory(Instance->SearchMask, Mask->Buffer, Bytes);
    Instance->SearchMaskLength = Bytes;
    Instance->SearchMask[Bytes / sizeof(WCHAR)] = 0;
    NtFsdAnalyzeSearchMask(Fcb, Instance);

    Instance->ResumeKey = 0;
    Instance->EnumBufferSize = ENUM_BUFFER_BYTES;
    DropBatch(Instance);
    Instance->MoreEntries = 1;
    Instance->ExactAnswered = FALSE;
    return STATUS_SUCCESS;
}

VOID NtFsdAnalyzeSearchMask(PFCB Fcb, PINSTANCE_CONTEXT Instance) {
    Instance->Wildcard = FALSE;
    if (EndsInStarDotStar(Instance)) {
        Instance->SearchMaskLength -= 2 * sizeof(WCHAR);
        Instance->SearchMask[Instance->SearchMaskLength / sizeof(WCHAR)] = 0;
    }
    bool HasOrdinary = false;
    for (ULONG At = 0; At < Instance->SearchMaskLength / sizeof(WCHAR); ++At) {
        WCHAR &Unit = Instance->SearchMask[At];
        switch (Unit) {
        case WTEXT('*'):
        case WTEXT('?'):
            Instance->Wildcard = TRUE;
            break;
        case WTEXT('<'):
            Unit = MASK_LESS;
            Instance->Wildcard = TRUE;
            break;
        case WTEXT('>'):
            Unit = MASK_GREATER;
            Instance->Wildcard = TRUE;
            break;
        case WTEXT('"'):
            Unit = MASK_QUOTE;
            break;
        default:
            HasOrdinary = true;
            break;
        }
    }
    // Only a directory below a volume has an entry for itself and its parent.
    Instance->DotEntries = !HasOrdinary && !NtFsdReadVolumeResolved(Fcb) ? 3 : 0;
}

NTSTATUS NtFsdReadLazyCloseConfig() {
    UNICODE_STRING KeyName = PARAMETERS_KEY;
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &KeyName, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE Key = nullptr;
    NTSTATUS Status = ZwOpenKey(&Key, KEY_READ, &Attributes);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    ScopeExit CloseKey([Key] { ZwClose(Key); });
    auto Value = static_cast<KEY_VALUE_FULL_INFORMATION *>(
        g_pRvplInterface->Table->Allocate(g_pRvplInterface, VALUE_BUFFER_BYTES));
    if (Value == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ScopeExit FreeValue([Value] { g_pRvplInterface->Table->Free(g_pRvplInterface, Value); });
    UNICODE_STRING ValueName = LAZY_CLOSE_VALUE;
    ULONG Needed = 0;
    Status = ZwQueryValueKey(Key, &ValueName, KeyValueFullInformation, Value, VALUE_BUFFER_BYTES, &Needed);
    ULONG Number;
    if (NT_SUCCESS(Status) && ReadNumber(Value, VALUE_BUFFER_BYTES, &Number)) {
        NtFsdSetLazyClose(Number != 0);
    }
    return Status;
}
