#include "names/fcb.h"

#include "dir/notify_list.h"
#include "frame/diagnostics.h"
#include "io/lock_completion.h"

DRIVER_GLOBAL UNICODE_PREFIX_TABLE FcbPrefixTable = {};
DRIVER_GLOBAL ULONG FcbPrefixCount = 0;
DRIVER_GLOBAL ERESOURCE FcbTableResource = {};
DRIVER_GLOBAL LIST_ENTRY FcbList = {};
DRIVER_GLOBAL ULONG FcbCount = 0;
DRIVER_GLOBAL ERESOURCE FcbListResource = {};
DRIVER_GLOBAL PFCB DriverFcb = nullptr;

namespace {

void SetUpHeader(PFCB Fcb) {
    Fcb->Header.NodeTypeCode = NODE_TYPE_FCB_HEADER;
    Fcb->Header.NodeByteSize = sizeof(FSRTL_ADVANCED_FCB_HEADER);
    static_assert(sizeof(FSRTL_ADVANCED_FCB_HEADER) == 0x58);
    Fcb->Header.Resource = &Fcb->Resource;
    Fcb->Header.PagingIoResource = &Fcb->PagingIoResource;

    Fcb->HeaderMutex.Count = 1;
    Fcb->HeaderMutex.Owner = nullptr;
    Fcb->HeaderMutex.Contention = 0;
    KeInitializeEvent(&Fcb->HeaderMutex.Event, SynchronizationEvent, FALSE);

    Fcb->Header.Flags |= FSRTL_FLAG_ADVANCED_HEADER;
    Fcb->Header.Flags2 |= FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS;
    Fcb->Header.Version = FSRTL_FCB_HEADER_V1;
    InitializeListHead(&Fcb->Header.FilterContexts);
    Fcb->Header.FastMutex = &Fcb->HeaderMutex;
    Fcb->Header.PushLock = 0;
    Fcb->Header.FileContextSupportPointer = nullptr;
}

bool InitializeResources(PFCB Fcb) {
    NTSTATUS Status = ExInitializeResourceLite(&Fcb->Resource);
    if (!NT_SUCCESS(Status)) {
        NtFsdAlwaysPrint("[RVFSD] NtFsdAllocFcb ExInitializeResourceLite for Resource returned 0x%08X.\n", Status);
        return false;
    }
    Status = ExInitializeResourceLite(&Fcb->PagingIoResource);
    if (!NT_SUCCESS(Status)) {
        NtFsdAlwaysPrint("[RVFSD] NtFsdAllocFcb ExInitializeResourceLite for PagingIoResource returned 0x%08X.\n",
                         Status);
        Ignore(ExDeleteResourceLite(&Fcb->Resource), "it was just set up");
        return false;
    }
    return true;
}

void AddToList(PFCB Fcb) {
    const ExclusiveHold List(&FcbListResource);
    ++FcbCount;
    InsertTailList(&FcbList, &Fcb->FcbLinks);
}

void RemoveFromList(PFCB Fcb) {
    const ExclusiveHold List(&FcbListResource);
    RemoveEntryList(&Fcb->FcbLinks);
    if (FcbCount != 0) {
        --FcbCount;
    }
}

} // namespace

PFCB NtFsdAllocFcb(PFILE_OBJECT FileObject, PCUNICODE_STRING Path) {
    auto Fcb = static_cast<PFCB>(TwAllocMemory(sizeof(FCB)));
    if (Fcb == nullptr) {
        NtFsdAlwaysPrint("[RVFSD] NtFsdAllocFcbAndPathMemory alloc for %u bytes failed.\n",
                         static_cast<ULONG>(sizeof(FCB)));
        return nullptr;
    }
    NtFsdNobodyElse(&FcbTableResource);
    NtFsdNobodyElse(&Fcb->Resource);
    Fcb->CurrentPath = &Fcb->FirstPath;
    if (Path != nullptr && !NT_SUCCESS(NtFsdUpdateUnicodeString(&Fcb->FirstPath.Path, Path))) {
        NtFsdFreeFcbMemory(Fcb);
        return nullptr;
    }
    Fcb->FullPath = Fcb->FirstPath.Path;
    Fcb->NodeTypeCode = NODE_TYPE_FCB;
    SetUpHeader(Fcb);
    if (!InitializeResources(Fcb)) {
        NtFsdFreeFcbMemory(Fcb);
        return nullptr;
    }
    if (const NTSTATUS Status = KernelNotifyInitializeSync(&Fcb->NotifySync); !NT_SUCCESS(Status)) {
        NtFsdAlwaysPrint("[RVFSD] NtFsdAllocFcb FsRtlNotifyInitializeSync raised 0x%08X.\n", Status);
        Ignore(ExDeleteResourceLite(&Fcb->PagingIoResource), "it was just set up");
        Ignore(ExDeleteResourceLite(&Fcb->Resource), "it was just set up");
        NtFsdFreeFcbMemory(Fcb);
        return nullptr;
    }
    // Only an FCB that will live may be pointed to.
    if (FileObject != nullptr) {
        FileObject->SectionObjectPointer = &Fcb->SectionObjectPointers;
    }
    Fcb->PrefixState = PREFIX_STATE_NEVER_INSERTED;
    InitializeListHead(&Fcb->InstanceList);
    InitializeListHead(&Fcb->NotifyList);
    InitializeListHead(&Fcb->LockRequests);
    Fcb->Header.IsFastIoPossible = FastIoIsNotPossible;
    AddToList(Fcb);
    return Fcb;
}

bool NtFsdIsVolumeRoot(const FCB *Fcb) {
    // An open file stays one, though its path may have become a volume's meanwhile.
    return (Fcb->VolumeRoot && Fcb->OpenType != OPEN_TYPE_FILE) || NtFsdCountPathComponents(&Fcb->FullPath, 3) < 3;
}

VOID NtFsdFreeFcbMemory(PFCB Fcb) {
    if (Fcb == nullptr) {
        return;
    }
    NtFsdNobodyElse(&FcbTableResource);
    for (PATH_RECORD *Record = Fcb->CurrentPath; Record != nullptr;) {
        PATH_RECORD *Older = Record->Older;
        NtFsdFreeUnicodeString(&Record->Path);
        if (Record != &Fcb->FirstPath) {
            TwFreeMemory(Record);
        }
        Record = Older;
    }
    ExFreePoolWithTag(Fcb, 0);
}

VOID NtFsdInitializeFcbFileLock(PFCB Fcb) {
    if (!Fcb->FileLockInitialized) {
        Fcb->FileLockInitialized = TRUE;
        FsRtlInitializeFileLock(&Fcb->FileLock, TwLockCompleteRoutine, nullptr);
    }
}

VOID NtFsdFreeFcb(PFCB Fcb) {
    NtFsdNobodyElse(&Fcb->Resource);
    Ignore(ExDeleteResourceLite(&Fcb->PagingIoResource), "nobody ever takes it");
    Ignore(ExDeleteResourceLite(&Fcb->Resource), "nobody holds it any more");
    if (Fcb->FileLockInitialized) {
        FsRtlUninitializeFileLock(&Fcb->FileLock);
    }
    FsRtlTeardownPerStreamContexts(&Fcb->Header);
    FsRtlNotifyUninitializeSync(&Fcb->NotifySync);
    NtFsdFreeFcbMemory(Fcb);
}

VOID NtFsdDeleteFcb(PFCB Fcb, ResourceHold &Hold) {
    // Nobody waits by now: the cleanup of each open has taken the waiters, and later ones are refused. So nothing is
    // completed under the lock here.
    NtFsdCompleteNotifyList(Fcb, STATUS_CANCELLED);
    NtFsdRemovePrefix(Fcb);
    Hold.Release();
    RemoveFromList(Fcb);
    NtFsdFreeFcb(Fcb);
}
