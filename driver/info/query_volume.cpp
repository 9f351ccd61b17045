#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "info/answer.h"
#include "info/query.h"
#include "names/paths.h"
#include "provider/provider_calls.h"

namespace {

constexpr PCSTR ClassNames[] = {
    "(unknown)",
    "FileFsVolumeInformation",
    "FileFsLabelInformation",
    "FileFsSizeInformation",
    "FileFsDeviceInformation",
    "FileFsAttributeInformation",
    "FileFsControlInformation",
    "FileFsFullSizeInformation",
    "FileFsObjectIdInformation",
    "FileFsDriverPathInformation",
    "FileFsVolumeFlagsInformation",
};
static_assert(RTL_NUMBER_OF(ClassNames) == FileFsVolumeFlagsInformation + 1);

PCSTR ClassName(ULONG InfoClass) {
    return ClassNames[InfoClass < RTL_NUMBER_OF(ClassNames) ? InfoClass : 0];
}

constexpr ULONG UNIT_SHIFT = 12; // allocation units of 4096 bytes
constexpr ULONG SECTORS_PER_UNIT = 8;
constexpr ULONG BYTES_PER_SECTOR = 512;
static_assert(SECTORS_PER_UNIT * BYTES_PER_SECTOR == 1u << UNIT_SHIFT);
constexpr ULONG DEVICE_TYPE_DISK = 7;
constexpr ULONG DEVICE_CHARACTERISTICS = 0x30; // remote, mounted
constexpr ULONG ATTRIBUTES = 0x82;             // case-preserving, reparse points
constexpr ULONG ATTRIBUTES_WITH_QUOTAS = 0xA2;
constexpr ULONG LONGEST_COMPONENT = 255;
constexpr UNICODE_STRING FILE_SYSTEM_NAME = ConstantString(WTEXT("RvFsd"));
constexpr ULONG IDENTIFIER_BYTES = 16;

// One query; the volume is open.
struct QUERY {
    PRV_SECURITY Security;
    RVHANDLE Volume;
    PCUNICODE_STRING PhysicalPath; // \server\volume
    UNICODE_STRING VolumeName;     // its second component, in upper case
};

NTSTATUS VolumeFlags(const QUERY &Query, PULONG Flags, UCHAR *Identifier) {
    const NTSTATUS Status =
        NtFsdTranslateResult(RVFsdGetVolumeInformation(Query.Security, Query.Volume, Flags, Identifier));
    if (!NT_SUCCESS(Status)) {
        *Flags = 0;
    }
    return Status;
}

ULONG SerialNumber(const QUERY &Query, ULONG Flags, const UCHAR *Identifier) {
    ULONG Serial = 0;
    if (Flags & RV_VOLUME_IDENTIFIER_VALID) {
        RtlCopyMemory(&Serial, Identifier, sizeof(Serial));
    }
    return Serial != 0 ? Serial : NtFsdVolumeSerialFromPath(Query.PhysicalPath->Buffer, Query.PhysicalPath->Buffer);
}

NTSTATUS FillVolume(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "FileFsVolumeInformation...\n");
    ULONG Flags = 0;
    UCHAR Identifier[IDENTIFIER_BYTES] = {};
    NTSTATUS Status = VolumeFlags(Query, &Flags, Identifier);
    const ULONG Serial = SerialNumber(Query, Flags, Identifier);
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "pVolumeBuffer->VolumeSerialNumber = 0x%x\n", Serial);
    Answer.Put(LONG64{0}); // VolumeCreationTime
    Answer.Put(Serial);
    Answer.Put(static_cast<ULONG>(Query.VolumeName.Length));
    Answer.Put(USHORT{0}); // SupportsObjects, and the byte up to the label
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "Number of char space in buffer = %u\n",
                    static_cast<ULONG>(Answer.Remaining() / 2));
    const ULONG Room = static_cast<ULONG>(Answer.Remaining());
    if (!Answer.PutPart(Query.VolumeName.Buffer, Query.VolumeName.Length)) {
        Status = STATUS_BUFFER_OVERFLOW;
    }
    const ULONG Copied = Room < Query.VolumeName.Length ? Room : Query.VolumeName.Length;
    const WideText Label = {Query.VolumeName.Buffer, Copied / static_cast<ULONG>(sizeof(WCHAR))};
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "pVolumeBuffer->VolumeLabel = \"%ls\" (%u bytes)\n", Label, Copied);
    return Status;
}

NTSTATUS FillLabel(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "FileFsLabelInformation...\n");
    Answer.Put(static_cast<ULONG>(Query.VolumeName.Length));
    const ULONG Room = static_cast<ULONG>(Answer.Remaining());
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "Number of char space in buffer = %d\n", Room / 2);
    const bool All = Answer.PutPart(Query.VolumeName.Buffer, Query.VolumeName.Length);
    const ULONG Copied = Room < Query.VolumeName.Length ? Room : Query.VolumeName.Length;
    const WideText Label = {Query.VolumeName.Buffer, Copied / static_cast<ULONG>(sizeof(WCHAR))};
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "pLabelBuffer->VolumeLabel = \"%ls\" (%u bytes)\n", Label, Copied);
    return All ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

struct SIZES {
    bool Quotas;
    LONG64 TotalUnits;
    LONG64 AvailableUnits;
};

NTSTATUS VolumeSizes(const QUERY &Query, SIZES *Sizes) {
    ULONG Flags = 0;
    NTSTATUS Status = VolumeFlags(Query, &Flags, nullptr);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    ULONG64 Length;
    ULONG64 Free;
    ULONG64 QuotaAllowed;
    ULONG64 FreeAfterQuota;
    Status = NtFsdTranslateResult(
        RVFsdGetVolumeSize(Query.Security, Query.Volume, &Length, &Free, &QuotaAllowed, &FreeAfterQuota));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Sizes->Quotas = (Flags & RV_VOLUME_USER_QUOTAS) != 0;
    Sizes->TotalUnits = static_cast<LONG64>(Sizes->Quotas ? QuotaAllowed : Length) >> UNIT_SHIFT;
    Sizes->AvailableUnits = static_cast<LONG64>(Sizes->Quotas ? FreeAfterQuota : Free) >> UNIT_SHIFT;
    return Status;
}

PCSTR QuotaText(const SIZES &Sizes) {
    return Sizes.Quotas ? "QUOTAS" : "non-quota";
}

NTSTATUS FillSize(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "FileFsSizeInformation...\n");
    SIZES Sizes = {};
    const NTSTATUS Status = VolumeSizes(Query, &Sizes);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Answer.Put(Sizes.TotalUnits);
    Answer.Put(Sizes.AvailableUnits);
    Answer.Put(SECTORS_PER_UNIT);
    Answer.Put(BYTES_PER_SECTOR);
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                    "[RVFSD] NtFsdCommonQueryVolumeInfo FileFsSizeInformation for volume \"%wZ\" (%s): total = "
                    "0x0%I64X, avail = 0x0%I64X.\n",
                    &Query.VolumeName, QuotaText(Sizes), Sizes.TotalUnits, Sizes.AvailableUnits);
    return STATUS_SUCCESS;
}

NTSTATUS FillFullSize(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "FileFsFullSizeInformation...\n");
    SIZES Sizes = {};
    const NTSTATUS Status = VolumeSizes(Query, &Sizes);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Answer.Put(Sizes.TotalUnits);
    Answer.Put(Sizes.AvailableUnits); // to the caller
    Answer.Put(Sizes.AvailableUnits); // in fact
    Answer.Put(SECTORS_PER_UNIT);
    Answer.Put(BYTES_PER_SECTOR);
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                    "[RVFSD] NtFsdCommonQueryVolumeInfo FileFsFullSizeInformation for volume \"%wZ\" (%s): total = "
                    "0x0%I64X, actual avail = 0x0%I64X, user avail = 0x0%I64X.\n",
                    &Query.VolumeName, QuotaText(Sizes), Sizes.TotalUnits, Sizes.AvailableUnits, Sizes.AvailableUnits);
    return STATUS_SUCCESS;
}

NTSTATUS FillAttributes(const QUERY &Query, AnswerBuffer &Answer) {
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "FileFsAttributeInformation...\n");
    ULONG Flags = 0;
    NTSTATUS Status = VolumeFlags(Query, &Flags, nullptr);
    constexpr ULONG FIXED = 12;
    const LONG64 Room = Answer.Remaining() - FIXED;
    const ULONG NameBytes =
        Room < FILE_SYSTEM_NAME.Length ? static_cast<ULONG>(Room) : static_cast<ULONG>(FILE_SYSTEM_NAME.Length);
    Answer.Put((Flags & RV_VOLUME_USER_QUOTAS) ? ATTRIBUTES_WITH_QUOTAS : ATTRIBUTES);
    Answer.Put(LONGEST_COMPONENT);
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "pAttributeBuffer->MaximumComponentNameLength = %d\n", LONGEST_COMPONENT);
    Answer.Put(NameBytes);
    Answer.PutPart(FILE_SYSTEM_NAME.Buffer, NameBytes);
    const WideText Name = {FILE_SYSTEM_NAME.Buffer, NameBytes / static_cast<ULONG>(sizeof(WCHAR))};
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0, "pAttributeBuffer->FileSystemName = \"%ls\" (%u bytes)\n", Name, NameBytes);
    return NameBytes < FILE_SYSTEM_NAME.Length ? STATUS_BUFFER_OVERFLOW : Status;
}

// ---- The classes

struct CLASS_FILL {
    ULONG InfoClass;
    ULONG FixedBytes; // a shorter buffer is refused
    NTSTATUS (*Fill)(const QUERY &Query, AnswerBuffer &Answer);
};

constexpr CLASS_FILL Fills[] = {
    {FileFsVolumeInformation, 18, FillVolume},     {FileFsLabelInformation, 4, FillLabel},
    {FileFsSizeInformation, 24, FillSize},         {FileFsAttributeInformation, 12, FillAttributes},
    {FileFsFullSizeInformation, 32, FillFullSize},
};
constexpr ULONG DEVICE_BYTES = 8;

const CLASS_FILL *FindFill(ULONG InfoClass) {
    for (const CLASS_FILL &Row : Fills) {
        if (Row.InfoClass == InfoClass) {
            return &Row;
        }
    }
    return nullptr;
}

NTSTATUS FillClass(const QUERY &Query, ULONG InfoClass, AnswerBuffer &Answer) {
    const CLASS_FILL *Row = FindFill(InfoClass);
    if (Row == nullptr) {
        NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                        "[RVFSD] NtFsdCommonQueryVolumeInfo ***UNHANDLED*** info level %s (%u).\n",
                        ClassName(InfoClass), InfoClass);
        return STATUS_INVALID_INFO_CLASS;
    }
    return Answer.Fits(Row->FixedBytes) ? Row->Fill(Query, Answer) : STATUS_INFO_LENGTH_MISMATCH;
}

// ---- The road

// A copy of the FCB's path: a rename may change it meanwhile.
NTSTATUS CopyPath(PFCB Fcb, PUNICODE_STRING Path) {
    return NtFsdUpdateUnicodeString(Path, NtFsdStablePath(Fcb));
}

void UpcaseInPlace(PUNICODE_STRING Text) {
    for (ULONG At = 0; At < Text->Length / sizeof(WCHAR); ++At) {
        Text->Buffer[At] = RtlUpcaseUnicodeChar(Text->Buffer[At]);
    }
}

NTSTATUS AnswerFromVolume(PIRP_CONTEXT IrpContext, PFCB Fcb, ULONG InfoClass, AnswerBuffer &Answer) {
    const PRV_SECURITY Security = &IrpContext->SecurityContext;
    OwnedString FullPath;
    NTSTATUS Status = CopyPath(Fcb, FullPath.Get());
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                    "[RVFSD] NtFsdCommonQueryVolumeInfo RVFsdQueryPathForVolume called for %s \"%wZ\".\n",
                    ClassName(InfoClass), FullPath.Get());
    OwnedString Physical;
    const RVSTATUS Resolved = NtFsdResolvePath(Security, FullPath.Get(), Physical.Get(), "NtFsdCommonQueryVolumeInfo");
    Status = NtFsdTranslateResult(Resolved);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                        "[RVFSD] NtFsdCommonQueryVolumeInfo RVFsdQueryPathForVolume for \"%wZ\" failed; status "
                        "0x%08X.\n",
                        FullPath.Get(), static_cast<ULONG>(Resolved));
        return Status;
    }
    QUERY Query = {.Security = Security, .Volume = 0, .PhysicalPath = Physical.Get(), .VolumeName = {}};
    Query.VolumeName = NtFsdCutAfterVolume(Physical.Get());
    if (Query.VolumeName.Length == 0) {
        NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                        "[RVFSD] NtFsdCommonQueryVolumeInfo parse \"%wZ\" failed; status STATUS_BAD_NETWORK_PATH.\n",
                        Physical.Get());
        return STATUS_BAD_NETWORK_PATH;
    }
    UpcaseInPlace(&Query.VolumeName);
    NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                    "[RVFSD] NtFsdCommonQueryVolumeInfo physical volume \"%wZ\", volume name \"%wZ\".\n",
                    Physical.Get(), &Query.VolumeName);
    ProviderVolume Volume(Security);
    const RVSTATUS Opened = RVFsdOpenVolume(Security, Physical->Buffer, Volume.Out());
    Status = NtFsdTranslateResult(Opened);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_VOLUME_INFO, 0,
                        "[RVFSD] NtFsdCommonQueryVolumeInfo RVFsdOpenVolume for volume \"%wZ\" failed; status "
                        "0x%08X.\n",
                        Physical.Get(), static_cast<ULONG>(Opened));
        return Status;
    }
    Query.Volume = Volume.Get();
    return FillClass(Query, InfoClass, Answer);
}

NTSTATUS AnswerDevice(AnswerBuffer &Answer) {
    if (!Answer.Fits(DEVICE_BYTES)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    Answer.Put(DEVICE_TYPE_DISK);
    Answer.Put(DEVICE_CHARACTERISTICS);
    return STATUS_SUCCESS;
}

} // namespace

ULONG NtFsdVolumeSerialFromPath(PCWSTR Path, PCWSTR FallbackPath) {
    constexpr ULONG CHARACTERS = 4;
    PCWSTR Start = FallbackPath;
    for (PCWSTR At = FallbackPath; *At != 0; ++At) {
        if (*At == SEPARATOR && At[1] != 0) {
            Start = At;
        }
    }
    ULONG Serial = 0;
    ULONG Taken = 0;
    const auto Take = [&Serial, &Taken](PCWSTR At) {
        for (; Taken < CHARACTERS && *At != 0; ++At, ++Taken) {
            Serial = (Serial << 8) | (RtlUpcaseUnicodeChar(*At) & 0xFFu);
        }
    };
    Take(Start);
    if (*Path == SEPARATOR) {
        ++Path;
    }
    if (*Path == SEPARATOR) {
        ++Path;
    }
    Take(Path);
    return Serial;
}

NTSTATUS NtFsdCommonQueryVolumeInfo(PIRP_CONTEXT IrpContext) {
    const PIRP Irp = IrpContext->Irp;
    const PIO_STACK_LOCATION IrpSp = IoGetCurrentIrpStackLocation(Irp);
    const ULONG Length = IrpSp->Parameters.QueryVolume.Length;
    const ULONG InfoClass = static_cast<ULONG>(IrpSp->Parameters.QueryVolume.FsInformationClass);
    const auto Fcb = static_cast<PFCB>(IrpContext->FileObject->FsContext);
    IrpContext->Information = 0;
    if (NtFsdReadOpenType(Fcb) == OPEN_TYPE_DEVICE) {
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_SUCCESS);
    }
    const PVOID Buffer = Irp->AssociatedIrp.SystemBuffer;
    if (Buffer == nullptr && Length != 0) {
        return NtFsdCompleteRequest(IrpContext, Irp, STATUS_INVALID_PARAMETER);
    }
    AnswerBuffer Answer(Buffer, Length);
    const NTSTATUS Status = InfoClass == FileFsDeviceInformation ? AnswerDevice(Answer)
                                                                 : AnswerFromVolume(IrpContext, Fcb, InfoClass, Answer);
    IrpContext->Information = Answer.Used();
    return NtFsdCompleteRequest(IrpContext, Irp, Status);
}
