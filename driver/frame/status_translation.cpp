#include "frame/status_translation.h"

#include "frame/diagnostics.h"

namespace {

struct TRANSLATION {
    USHORT Code;
    NTSTATUS Status;
};

constexpr TRANSLATION Translations[] = {
    {0x0000, STATUS_SUCCESS},
    {0x0001, STATUS_UNSUCCESSFUL},
    {0x0003, STATUS_INVALID_HANDLE},
    {0x0004, STATUS_INVALID_PARAMETER},
    {0x0005, STATUS_INSUFFICIENT_RESOURCES},
    {0x0006, STATUS_ACCESS_DENIED},
    {0x0007, STATUS_BUFFER_OVERFLOW},
    {0x0008, STATUS_NO_DATA_DETECTED},
    {0x0009, STATUS_NO_MORE_ENTRIES},
    {0x000A, STATUS_TIMEOUT},
    {0x000B, STATUS_OBJECT_NAME_NOT_FOUND},
    {0x000C, STATUS_CANCELLED},
    {0x000E, STATUS_PENDING},
    {0x0023, STATUS_DISK_FULL},
    {0x0100, STATUS_UNEXPECTED_NETWORK_ERROR},
    {0x0101, STATUS_CONNECTION_DISCONNECTED},
    {0x0102, STATUS_NETWORK_BUSY},
    {0x0106, STATUS_OBJECT_NAME_COLLISION},
    {0x0107, STATUS_ACCESS_DENIED},
    {0x0502, STATUS_NO_SUCH_FILE},
    {0x0503, STATUS_OBJECT_PATH_NOT_FOUND},
    {0x0504, STATUS_TOO_MANY_OPENED_FILES},
    {0x0505, STATUS_NO_MORE_FILES},
    {0x0506, STATUS_NO_SUCH_FILE},
    {0x0507, STATUS_FILE_INVALID},
    {0x0508, STATUS_FILE_CORRUPT_ERROR},
    {0x0509, STATUS_DISK_FULL},
    {0x050A, STATUS_UNRECOGNIZED_VOLUME},
    {0x050B, STATUS_INVALID_VOLUME_LABEL},
    {0x050C, STATUS_DISK_FULL},
    {0x050D, STATUS_SHARING_VIOLATION},
    {0x050E, STATUS_SHARING_VIOLATION},
    {0x050F, STATUS_END_OF_FILE},
    {0x0510, STATUS_OBJECT_NAME_COLLISION},
    {0x0511, STATUS_INVALID_PARAMETER},
    {0x0513, STATUS_DIRECTORY_NOT_EMPTY},
    {0x0514, STATUS_OBJECT_PATH_INVALID},
    {0x0515, STATUS_OBJECT_NAME_INVALID},
    {0x0516, STATUS_MORE_ENTRIES},
    {0x0517, STATUS_NO_LOGON_SERVERS},
    {0x051A, STATUS_NO_MEMORY},
    {0x051B, STATUS_NO_QUOTAS_FOR_ACCOUNT},
    {0x051C, STATUS_WORKING_SET_QUOTA},
    {0x051D, STATUS_QUOTA_EXCEEDED},
    {0x051E, STATUS_FILE_LOCK_CONFLICT},
    {0x051F, STATUS_LOCK_NOT_GRANTED},
    {0x0520, STATUS_NOT_A_DIRECTORY},
    {0x0521, STATUS_FILE_IS_A_DIRECTORY},
    {0x0528, STATUS_REPARSE_OBJECT},
    {0x052E, STATUS_OBJECT_NAME_INVALID},
    {0x0534, STATUS_NOT_SAME_DEVICE},
    {0x0537, STATUS_RANGE_NOT_LOCKED},
};

constexpr bool Ascending() {
    for (SIZE_T Index = 1; Index < RTL_NUMBER_OF(Translations); ++Index) {
        if (Translations[Index - 1].Code >= Translations[Index].Code) {
            return false;
        }
    }
    return true;
}
static_assert(Ascending(), "the look-up is a binary search");

NTSTATUS LookUp(USHORT Code) {
    SIZE_T Low = 0;
    SIZE_T High = RTL_NUMBER_OF(Translations);
    while (Low < High) {
        const SIZE_T Middle = (Low + High) / 2;
        if (Translations[Middle].Code == Code) {
            return Translations[Middle].Status;
        }
        if (Translations[Middle].Code < Code) {
            Low = Middle + 1;
        } else {
            High = Middle;
        }
    }
    return STATUS_NOT_SUPPORTED;
}

} // namespace

NTSTATUS NtFsdTranslateErrorCode(RVSTATUS ProviderStatus) {
    const USHORT Code = RvCode(ProviderStatus);
    if (Code == 0) {
        return STATUS_SUCCESS;
    }
    const NTSTATUS Status = LookUp(Code);
    NtFsdDebugPrint(TRACE_ERROR, 0, "Traslate Error Code 0x%X --> 0x%X\n", static_cast<ULONG>(ProviderStatus), Status);
    return Status;
}

NTSTATUS NtFsdTranslateResult(RVSTATUS ProviderStatus) {
    const NTSTATUS Status = NtFsdTranslateErrorCode(ProviderStatus);
    return RvIsError(ProviderStatus) && NT_SUCCESS(Status) ? STATUS_UNSUCCESSFUL : Status;
}
