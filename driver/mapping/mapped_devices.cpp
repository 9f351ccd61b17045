// The list of mapped drives: finding records and taking them apart again.

#include "frame/diagnostics.h"
#include "frame/resources.h"
#include "mapping/drive_mapping.h"
#include "mapping/link_target.h"
#include "mapping/session_links.h"
#include "provider/provider_calls.h"

DRIVER_GLOBAL LIST_ENTRY g_MappedDeviceList = {};
DRIVER_GLOBAL ERESOURCE g_MappedDeviceResource = {};
DRIVER_GLOBAL ULONG g_uMappedDeviceCount = 0;

namespace {

MAPPED_DEVICE *RecordOf(PLIST_ENTRY Entry) {
    return CONTAINING_RECORD(Entry, MAPPED_DEVICE, Links);
}

bool IsOwner(PIRP_CONTEXT IrpContext, const MAPPED_DEVICE *Record) {
    const RV_SECURITY_CONTEXT &Caller = IrpContext->SecurityContext;
    return Caller.Words[0] == Record->SecurityContext.Words[0] && Caller.Words[1] == Record->SecurityContext.Words[1];
}

void Unlink(MAPPED_DEVICE *Record) HOLDING(g_MappedDeviceResource) {
    RemoveEntryList(&Record->Links);
    --g_uMappedDeviceCount;
}

// The record of a drive that a caller of the logon session Caller finds, or NULL.
MAPPED_DEVICE *FindRecord(PIRP_CONTEXT IrpContext, ULONG DriveNumber, LUID Caller)
    HOLDING_SHARED(g_MappedDeviceResource) {
    for (PLIST_ENTRY Entry = g_MappedDeviceList.Flink; Entry != &g_MappedDeviceList; Entry = Entry->Flink) {
        MAPPED_DEVICE *const Record = RecordOf(Entry);
        if (Record->DriveNumber == DriveNumber && IsOwner(IrpContext, Record) &&
            (Record->LinkedSessionLink == 1 || IsEqualLuid(Record->LogonId, Caller))) {
            return Record;
        }
    }
    return nullptr;
}

// Whether a deletion that answered Status has left a link that another attempt may reach.
bool MayBeLeft(NTSTATUS Status) {
    return !NT_SUCCESS(Status) && Status != STATUS_OBJECT_NAME_NOT_FOUND && Status != STATUS_OBJECT_PATH_NOT_FOUND;
}

// Runs Delete, a deletion by a session's name, and once more when the link may be left: the record goes, and nobody
// would delete the link later.
NTSTATUS DeleteStubbornly(NTSTATUS (*Delete)(LUID, CHAR, PUNICODE_STRING), LUID Luid, CHAR Letter,
                          PUNICODE_STRING Target) {
    const NTSTATUS Status = Delete(Luid, Letter, Target);
    return MayBeLeft(Status) ? Delete(Luid, Letter, Target) : Status;
}

// The links of a mapping, from whatever session of its owner: what became of the one in the caller's session, or else
// of the first. Somebody else may have deleted either meanwhile, or put another in its place, which stays.
NTSTATUS DeleteLinks(const MAPPED_DEVICE &Record) {
    const CHAR Letter = Record.Letter();
    const LinkTarget Whole(Record.pVolumePath);
    const PUNICODE_STRING Target = Whole.Get();
    LUID Caller = {};
    const bool Known = NT_SUCCESS(GetCallerLogonSessionLuid(&Caller));
    const bool Own = Known && IsEqualLuid(Caller, Record.LogonId);
    const bool Linked = Record.LinkedSessionLink != 0;
    if (!Own) {
        // The caller's own letter is no link of this mapping's, unless his session is the linked one.
        const NTSTATUS First = DeleteStubbornly(DeleteSymbolicLinkMadeInSession, Record.LogonId, Letter, Target);
        if (!Linked) {
            return First;
        }
        const NTSTATUS Second = DeleteStubbornly(DeleteSymbolicLinkInSession, Record.LinkedLogonId(), Letter, Target);
        return Known && IsEqualLuid(Caller, Record.LinkedLogonId()) ? Second : First;
    }
    NTSTATUS Status = CreateOrDeleteSymbolicLinkInCurrentSession(Letter, Target, FALSE);
    if (MayBeLeft(Status)) {
        Status = DeleteSymbolicLinkMadeInSession(Caller, Letter, Target);
    }
    if (Linked && MayBeLeft(CreateOrDeleteSymbolicLinkInLinkedSession(Letter, Target, FALSE))) {
        Ignore(DeleteSymbolicLinkInSession(Record.LinkedLogonId(), Letter, Target), "the first one counts");
    }
    return Status;
}

void CloseHandles(MAPPED_DEVICE *Record) {
    if (Record->DirHandle != 0) {
        const RVSTATUS Status = RVFsdCloseDirectory(&Record->SecurityContext, Record->DirHandle);
        NtFsdDebugPrint(
            TRACE_FILE_INFO, 0, "FreeMappedDeviceRecord RVFsdCloseDirectory \"%ls\" status 0x%08X, handle 0x%p.\n",
            static_cast<PCWSTR>(Record->pVolumePath), static_cast<ULONG>(Status), AsAddress(Record->DirHandle));
    }
    if (Record->VolumeHandle != 0) {
        const RVSTATUS Status = RVFsdCloseVolume(&Record->SecurityContext, Record->VolumeHandle);
        NtFsdDebugPrint(
            TRACE_FILE_INFO, 0, "FreeMappedDeviceRecord RVFsdCloseVolume \"%ls\" status 0x%08X, handle 0x%p.\n",
            static_cast<PCWSTR>(Record->pVolumePath), static_cast<ULONG>(Status), AsAddress(Record->VolumeHandle));
    }
}

} // namespace

NTSTATUS NtFsdInitMappedDevices() {
    NtFsdNobodyElse(&g_MappedDeviceResource);
    InitializeListHead(&g_MappedDeviceList);
    g_uMappedDeviceCount = 0;
    return NtFsdInitializeResource(DRIVER_RESOURCE_MAPPED_DEVICES, &g_MappedDeviceResource);
}

NTSTATUS FindMappedDevice(PIRP_CONTEXT IrpContext, ULONG DriveNumber, MAPPED_DEVICE **Record, BOOLEAN Remove,
                          ResourceHold *Hold) {
    LUID Caller = {};
    Ignore(GetCallerLogonSessionLuid(&Caller), "a caller of unknown session finds what has links in both");
    if (Remove) {
        const ExclusiveHold List(&g_MappedDeviceResource);
        *Record = FindRecord(IrpContext, DriveNumber, Caller);
        if (*Record != nullptr) {
            Unlink(*Record);
        }
    } else {
        Hold->AcquireShared(&g_MappedDeviceResource, TRUE);
        *Record = FindRecord(IrpContext, DriveNumber, Caller);
        if (*Record == nullptr) {
            Hold->Release();
        }
    }
    return *Record != nullptr ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}

NTSTATUS FreeMappedDeviceRecord(MAPPED_DEVICE *Record) {
    const NTSTATUS Status = DeleteLinks(*Record);
    CloseHandles(Record);
    TwFreeMemory(Record->pVolumePath);
    TwFreeMemory(Record->pPathData);
    TwFreeMemory(Record);
    return Status;
}

NTSTATUS UnmapServerMappings(PIRP_CONTEXT IrpContext, ULONG ConnectionId) {
    // The Provider and the links are asked without the lock, which is a leaf.
    LIST_ENTRY Removed;
    InitializeListHead(&Removed);
    {
        const ExclusiveHold Hold(&g_MappedDeviceResource);
        for (PLIST_ENTRY Entry = g_MappedDeviceList.Flink; Entry != &g_MappedDeviceList;) {
            MAPPED_DEVICE *const Record = RecordOf(Entry);
            Entry = Entry->Flink;
            if (Record->ConnectionId == ConnectionId && IsOwner(IrpContext, Record)) {
                Unlink(Record);
                InsertTailList(&Removed, &Record->Links);
            }
        }
    }
    NTSTATUS Status = STATUS_SUCCESS;
    while (!IsListEmpty(&Removed)) {
        Status = FreeMappedDeviceRecord(RecordOf(RemoveHeadList(&Removed)));
    }
    return Status;
}

VOID NtFsdFreeMappedDevices() {
    NtFsdNobodyElse(&g_MappedDeviceResource);
    while (!IsListEmpty(&g_MappedDeviceList)) {
        MAPPED_DEVICE *const Record = RecordOf(g_MappedDeviceList.Flink);
        Unlink(Record);
        Ignore(FreeMappedDeviceRecord(Record), "nobody asked");
    }
}
