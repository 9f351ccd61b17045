#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "info/set_information.h"
#include "provider/provider_calls.h"

namespace {

// 0 and -1 leave a time as it is.
bool Changes(const LARGE_INTEGER &Time) {
    return Time.QuadPart != 0 && Time.QuadPart != -1;
}

LONG64 *TimeOrNull(LARGE_INTEGER &Time) {
    return Changes(Time) ? &Time.QuadPart : nullptr;
}

} // namespace

NTSTATUS NtFsdFileSetBasicInfo(SET_INFORMATION &Change) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, " NtFsdFileSetBasicInfo()...\n");
    FILE_BASIC_INFORMATION Basic;
    RtlCopyMemory(&Basic, Change.Buffer, sizeof(Basic));
    const bool ChangesAttributes = Basic.FileAttributes != 0;
    if (!ChangesAttributes && !Changes(Basic.CreationTime) && !Changes(Basic.LastAccessTime) &&
        !Changes(Basic.LastWriteTime)) {
        return STATUS_SUCCESS;
    }
    ULONG Attributes = Basic.FileAttributes & RV_ATTR_SETTABLE;
    if (Change.IsFile()) {
        return NtFsdTranslateResult(RVFsdSetFileInformation(
            Change.Security(), Change.Instance->FileHandle, ChangesAttributes ? &Attributes : nullptr,
            TimeOrNull(Basic.CreationTime), TimeOrNull(Basic.LastWriteTime), TimeOrNull(Basic.LastAccessTime)));
    }
    Change.Hold.Holds(&Change.Instance->Fcb->Resource);
    if (const NTSTATUS Status = Change.NeedHandle(); !NT_SUCCESS(Status)) {
        return Status;
    }
    Attributes |= RV_ATTR_DIRECTORY;
    return NtFsdTranslateResult(RVFsdSetDirectoryInformation(
        Change.Security(), Change.Instance->RelatedHandle, ChangesAttributes ? &Attributes : nullptr,
        TimeOrNull(Basic.CreationTime), TimeOrNull(Basic.LastWriteTime), TimeOrNull(Basic.LastAccessTime)));
}
