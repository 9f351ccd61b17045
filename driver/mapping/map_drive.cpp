// Making a mapping, from the caller's request to the record on the list.

#include "frame/diagnostics.h"
#include "frame/status_translation.h"
#include "mapping/drive_mapping.h"
#include "mapping/link_target.h"
#include "mapping/read_once.h"
#include "mapping/rvpl_block.h"
#include "mapping/session_links.h"
#include "mapping/utf8.h"
#include "provider/provider_calls.h"

namespace {

constexpr ULONG LAST_DRIVE = 26;
// No text that fits a link has more bytes in any encoding.
constexpr ULONG LONGEST_PATH_BYTES = 0x7FFF * 6;

// The request as it was read, each word once.
struct MAPPING {
    ULONG DriveNumber;
    ULONG MappingOptions;
    ULONG ConnectionId;
    bool Utf8;
    ULONG PathBytes;
    PoolPointer<CHAR> PathData; // as it was sent, terminated
    // The target, with the buffer of whoever converted it: RVPL's, or the run-time library's.
    UNICODE_STRING Target = {0, 0, nullptr};
    LinkTarget Link;
    PoolPointer<WCHAR> VolumePath;
    PoolPointer<MAPPED_DEVICE> Record;

    MAPPING() = default;
    MAPPING(const MAPPING &) = delete;
    MAPPING &operator=(const MAPPING &) = delete;
    ~MAPPING() {
        FreeTarget();
    }
    void FreeTarget() {
        if (Converted.Buffer == nullptr) {
            return;
        }
        if (Utf8) {
            g_pRvplInterface->Table->Free(g_pRvplInterface, Converted.Buffer);
        } else {
            RtlFreeUnicodeString(&Converted);
        }
    }
    LONG Letter() const {
        return static_cast<LONG>(0x40 + DriveNumber);
    }

    UNICODE_STRING Converted = {0, 0, nullptr};
};

// The bytes before the terminator, at most Limit.
ULONG BoundedLength(PCSTR Text, ULONG Limit) {
    ULONG Length = 0;
    while (Length < Limit && ReadOnce(Text + Length) != 0) {
        ++Length;
    }
    return Length;
}

NTSTATUS NoMemoryFor(const MAPPING &Mapping, ULONG Bytes, PCSTR What) {
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "[TWFS] RvMapDrive \"%c:\" with target \"%wZ\" alloc %u bytes for %s failed.\n",
                    Mapping.Letter(), &Mapping.Target, Bytes, What);
    return STATUS_INSUFFICIENT_RESOURCES;
}

// Takes the request out of the caller's hands.
NTSTATUS Capture(const MAP_REQUEST *Request, MAPPING *Mapping) {
    Mapping->DriveNumber = ReadOnce(&Request->DriveNumber);
    if (Mapping->DriveNumber < 1 || Mapping->DriveNumber > LAST_DRIVE) {
        return STATUS_INVALID_PARAMETER;
    }
    Mapping->MappingOptions = ReadOnce(&Request->MappingOptions);
    Mapping->ConnectionId = ReadOnce(&Request->ConnectionId);
    Mapping->Utf8 = ReadOnce(&Request->Utf8) != 0;
    const ULONG Given = ReadOnce(&Request->PathLength);
    const ULONG Bytes = BoundedLength(Request->Path, Given < LONGEST_PATH_BYTES ? Given : LONGEST_PATH_BYTES);
    if (Bytes == LONGEST_PATH_BYTES) {
        return STATUS_NAME_TOO_LONG;
    }
    Mapping->PathData.Adopt(static_cast<PSTR>(TwAllocBuffer(Bytes + 1)));
    if (!Mapping->PathData) {
        return NoMemoryFor(*Mapping, Bytes + 1, "MAPPED_DEVICE.pPathData");
    }
    // It may have become shorter since it was measured; longer does not count.
    PSTR Data = Mapping->PathData.Get();
    ULONG Copied = 0;
    for (CHAR Byte; Copied < Bytes && (Byte = ReadOnce(Request->Path + Copied)) != 0; ++Copied) {
        Data[Copied] = Byte;
    }
    Data[Copied] = 0;
    Mapping->PathBytes = Copied;
    return STATUS_SUCCESS;
}

// The path from its second backslash on, when it begins with two.
PCSTR WithOneBackslash(PCSTR Path) {
    return Path[0] == '\\' && Path[1] == '\\' ? Path + 1 : Path;
}

NTSTATUS ConvertUtf8(MAPPING *Mapping, PCSTR Path) {
    bool Whole = false;
    const RVPSTATUS Converted = UTF8ToUnicode(&Mapping->Converted, Path, &Whole);
    // A path that ends early would map the letter to another directory than was asked for.
    const NTSTATUS Status = RvpIsError(Converted) ? NtFsdTranslateResult(static_cast<RVSTATUS>(Converted))
                            : Whole               ? STATUS_SUCCESS
                                                  : STATUS_OBJECT_NAME_INVALID;
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] RvMapDrive \"%c:\" with target \"%s\" UTF8ToUnicode status 0x%08X.\n",
                        Mapping->Letter(), Path, Status);
    }
    return Status;
}

NTSTATUS ConvertAnsi(MAPPING *Mapping, PCSTR Path) {
    const ULONG Bytes = Mapping->PathBytes - static_cast<ULONG>(Path - Mapping->PathData.Get());
    ANSI_STRING Ansi = {static_cast<USHORT>(Bytes), static_cast<USHORT>(Bytes), const_cast<PSTR>(Path)};
    // How many units the bytes become is the code page's to say.
    const NTSTATUS Status =
        Bytes > 0xFFFF ? STATUS_NAME_TOO_LONG : RtlAnsiStringToUnicodeString(&Mapping->Converted, &Ansi, TRUE);
    if (!NT_SUCCESS(Status)) {
        Mapping->Converted = {0, 0, nullptr};
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] RvMapDrive \"%c:\" with target \"%s\" RtlAnsiStringToUnicodeString status 0x%08X.\n",
                        Mapping->Letter(), Path, Status);
    }
    return Status;
}

// What a link can lead to: \server..., without empty components, zeros and a backslash at the end.
NTSTATUS CheckTarget(PUNICODE_STRING Target) {
    if (UnitsOf(*Target) < 2 || Target->Buffer[0] != SEPARATOR) {
        return STATUS_BAD_NETWORK_PATH;
    }
    *Target = NtFsdWithoutSlash(*Target); // names below the letter bring their own
    return NtFsdIsPathValid(Target) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

// Everything that takes memory.
NTSTATUS Allocate(MAPPING *Mapping) {
    NTSTATUS Status = Mapping->Link.Build(&Mapping->Target);
    if (Status == STATUS_INSUFFICIENT_RESOURCES) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "[TWFS] RvMapDrive \"%c:\" with target \"%wZ%wZ\" alloc %u bytes failed.\n",
                        Mapping->Letter(), &DEVICE_NAME, &Mapping->Target, LinkTarget::BytesFor(&Mapping->Target));
    }
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    const ULONG PathBytes = ULONG{Mapping->Target.Length} + sizeof(WCHAR);
    Mapping->VolumePath.Adopt(static_cast<PWSTR>(TwAllocMemory(PathBytes)));
    if (!Mapping->VolumePath) {
        return NoMemoryFor(*Mapping, PathBytes, "MAPPED_DEVICE.pVolumePath");
    }
    RtlCopyMemory(Mapping->VolumePath.Get(), Mapping->Target.Buffer, Mapping->Target.Length);
    Mapping->Record.Adopt(static_cast<MAPPED_DEVICE *>(TwAllocMemory(sizeof(MAPPED_DEVICE))));
    return Mapping->Record ? STATUS_SUCCESS : NoMemoryFor(*Mapping, sizeof(MAPPED_DEVICE), "MAPPED_DEVICE");
}

// Opens the target as a directory, else as a volume; one of the two handles is open afterwards.
NTSTATUS OpenTarget(PRV_SECURITY Security, PCWSTR Path, ProviderDirectory *Directory, ProviderVolume *Volume) {
    const RVSTATUS AsDirectory = RVFsdOpenDirectory(Security, 0, Path, Directory->Out());
    if (AsDirectory == RVSTATUS::Success) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "RvMapDrive RVFsdOpenDirectory \"%ls\" success, handle 0x%p.\n", Path,
                        AsAddress(Directory->Get()));
        return STATUS_SUCCESS;
    }
    constexpr auto NOT_A_DIRECTORY = static_cast<RVSTATUS>(0xC7E70000u | RVFS_NOT_A_DIRECTORY);
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "RvMapDrive RVFsdOpenDirectory \"%ls\" status 0x%08X%s; retrying as volume.\n",
                    Path, static_cast<ULONG>(AsDirectory),
                    AsDirectory == NOT_A_DIRECTORY ? " (RVFS_NOT_A_DIRECTORY)" : "");
    Directory->CloseNow(); // a warning comes with a handle
    const RVSTATUS AsVolume = RVFsdOpenVolume(Security, Path, Volume->Out());
    if (AsVolume == RVSTATUS::Success) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0, "RvMapDrive RVFsdOpenVolume \"%ls\" success, handle 0x%p.\n", Path,
                        AsAddress(Volume->Get()));
        return STATUS_SUCCESS;
    }
    NtFsdDebugPrint(TRACE_FILE_INFO, 0, "RvMapDrive RVFsdOpenVolume \"%ls\" failed; status 0x%08X.\n", Path,
                    static_cast<ULONG>(AsVolume));
    const auto Status = static_cast<NTSTATUS>(AsVolume);
    return NT_SUCCESS(Status) ? STATUS_UNSUCCESSFUL : Status;
}

// Makes the links, and after the first hands the record to the list: nothing may fail any more then.
NTSTATUS Establish(PIRP_CONTEXT IrpContext, MAPPING *Mapping, ProviderDirectory *Directory, ProviderVolume *Volume) {
    // A record of an unknown session would be found by nobody.
    LUID LogonId = {};
    NTSTATUS Status = GetCallerLogonSessionLuid(&LogonId);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] RvMapDrive \"%c:\" with target \"%wZ\" GetCallerLogonSessionLuid failed; status "
                        "0x%08X.\n",
                        Mapping->Letter(), &Mapping->Target, Status);
        return Status;
    }
    const CHAR Letter = static_cast<CHAR>(Mapping->Letter());
    Status = CreateOrDeleteSymbolicLinkInCurrentSession(Letter, Mapping->Link.Get(), TRUE);
    if (!NT_SUCCESS(Status)) {
        NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                        "[TWFS] RvMapDrive \"%c:\" with target \"%wZ\" CreateOrDeleteSymbolicLinkInCurrentSession "
                        "failed; status 0x%08X.\n",
                        Mapping->Letter(), &Mapping->Target, Status);
        return Status;
    }
    LUID Linked = {};
    const NTSTATUS Second = CreateOrDeleteSymbolicLinkInLinkedSession(Letter, Mapping->Link.Get(), TRUE, &Linked);

    MAPPED_DEVICE *Record = Mapping->Record.Detach();
    Record->DirHandle = Directory->Detach();
    Record->VolumeHandle = Volume->Detach();
    Record->LogonId = LogonId;
    Record->LinkedSessionLink = Second == STATUS_SUCCESS ? 1 : 0;
    Record->LinkedLogonIdLow = Linked.LowPart;
    Record->LinkedLogonIdHigh = Linked.HighPart;
    Record->DriveNumber = Mapping->DriveNumber;
    Record->SecurityContext = IrpContext->SecurityContext;
    Record->pPathData = Mapping->PathData.Detach();
    Record->pVolumePath = Mapping->VolumePath.Detach();
    Record->ConnectionId = Mapping->ConnectionId;
    Record->MappingOptions = Mapping->MappingOptions;
    NtFsdDebugPrint(TRACE_FILE_INFO, 0,
                    "[TWFS] RvMapDrive \"%c:\" with target \"%wZ\" calculated volume path \"%ws\".\n",
                    Mapping->Letter(), &Mapping->Target, static_cast<PCWSTR>(Record->pVolumePath));
    const ExclusiveHold Hold(&g_MappedDeviceResource);
    InsertTailList(&g_MappedDeviceList, &Record->Links);
    ++g_uMappedDeviceCount;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS RvMapDrive(PIRP_CONTEXT IrpContext, const MAP_REQUEST *Request) {
    MAPPING Mapping;
    NTSTATUS Status = Capture(Request, &Mapping);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    const PCSTR Path = WithOneBackslash(Mapping.PathData.Get());
    Status = Mapping.Utf8 ? ConvertUtf8(&Mapping, Path) : ConvertAnsi(&Mapping, Path);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Mapping.Target = Mapping.Converted;
    Status = CheckTarget(&Mapping.Target);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    Status = Allocate(&Mapping);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    ProviderDirectory Directory(&IrpContext->SecurityContext);
    ProviderVolume Volume(&IrpContext->SecurityContext);
    Status = OpenTarget(&IrpContext->SecurityContext, Mapping.VolumePath.Get(), &Directory, &Volume);
    return NT_SUCCESS(Status) ? Establish(IrpContext, &Mapping, &Directory, &Volume) : Status;
}
