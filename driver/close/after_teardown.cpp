// Opens that outlive teardown.
//
// File objects may live on when the driver has let go of Provider, framework and FCB table. Their FCBs are taken off
// FcbList first and stand on a list of their own, which needs nothing but a spin lock; each goes with its last open.

#include "close/close.h"
#include "close/share_claim.h"
#include "dir/notify_list.h"
#include "frame/diagnostics.h"
#include "io/lock_table.h"
#include "provider/provider_calls.h"

DRIVER_GLOBAL KSPIN_LOCK g_OutlivingLock = 0;

namespace {

DRIVER_GLOBAL LIST_ENTRY OutlivingFcbs UNDER(g_OutlivingLock) = {&OutlivingFcbs, &OutlivingFcbs};
DRIVER_GLOBAL BOOLEAN Detached UNDER(g_OutlivingLock) = FALSE;
DRIVER_GLOBAL PFCB OutlivingDevice UNDER(g_OutlivingLock) = nullptr; // the control device's, whose opens it counts

PFCB FcbOf(PLIST_ENTRY Links) {
    return CONTAINING_RECORD(Links, FCB, FcbLinks);
}

PINSTANCE_CONTEXT InstanceOf(PLIST_ENTRY Links) {
    return CONTAINING_RECORD(Links, INSTANCE_CONTEXT, Links);
}

// Takes every FCB but the control device's off FcbList.
void TakeFcbs(PLIST_ENTRY Fcbs) {
    InitializeListHead(Fcbs);
    const ExclusiveHold Hold(&FcbListResource);
    for (PLIST_ENTRY Links = FcbList.Flink; Links != &FcbList;) {
        const PFCB Fcb = FcbOf(Links);
        Links = Links->Flink;
        if (Fcb != DriverFcb) {
            RemoveEntryList(&Fcb->FcbLinks);
            InsertTailList(Fcbs, &Fcb->FcbLinks);
            --FcbCount;
        }
    }
}

void CloseHandles(PINSTANCE_CONTEXT Instance, PRV_SECURITY Security) HOLDING(Instance->Fcb->Resource) {
    constexpr PCSTR NOBODY = "nobody is left to be told";
    if (Instance->FileHandle != 0) {
        Ignore(RVFsdCloseFile(Security, Instance->FileHandle), NOBODY);
    }
    if (Instance->DirHandle != 0) {
        Ignore(RVFsdCloseDirectory(Security, Instance->DirHandle), NOBODY);
    }
    if (Instance->VolumeHandle != 0) {
        Ignore(RVFsdCloseVolume(Security, Instance->VolumeHandle), NOBODY);
    }
    NtFsdSetDirHandle(Instance, 0);
    Instance->FileHandle = Instance->VolumeHandle = 0;
    // Copies of handles that this open or another one owned.
    Instance->BaseHandle = Instance->RelatedHandle = 0;
}

// Removes all locks. Those that still wait are thereby granted one after the other, and cancelled by the completion
// routine, which knows that the driver has stopped.
void EndLocks(PFCB Fcb) HOLDING(Fcb->Resource) {
    if (!Fcb->FileLockInitialized) {
        return;
    }
    bool Again = true;
    while (Again) {
        NotedLocks Locks;
        const bool All = Locks.Note(Fcb, {});
        bool Removed = false;
        for (const NOTED_LOCK &Lock : Locks) {
            Removed |= NtFsdRemoveLock(Fcb, Lock);
        }
        Again = !All && Removed;
    }
    FsRtlUninitializeFileLock(&Fcb->FileLock);
    Fcb->FileLockInitialized = FALSE;
}

void FreeAll(PLIST_ENTRY Instances, PLIST_ENTRY Fcbs) {
    while (!IsListEmpty(Instances)) {
        NtFsdFreeInstance(InstanceOf(RemoveHeadList(Instances)));
    }
    while (!IsListEmpty(Fcbs)) {
        NtFsdFreeFcb(FcbOf(RemoveHeadList(Fcbs)));
    }
}

// Moves the instances whose file objects have been closed meanwhile. g_OutlivingLock held.
void TakeAbandoned(PFCB Fcb, PLIST_ENTRY Abandoned) HOLDING(g_OutlivingLock, Fcb->Resource) {
    for (PLIST_ENTRY Links = Fcb->InstanceList.Flink; Links != &Fcb->InstanceList;) {
        const PINSTANCE_CONTEXT Instance = InstanceOf(Links);
        Links = Links->Flink;
        if (Instance->FileObject == nullptr) {
            RemoveEntryList(&Instance->Links);
            InsertTailList(Abandoned, &Instance->Links);
        }
    }
}

// Hands the FCBs over to the closes that will come, and frees what no close will come for.
void Publish(PLIST_ENTRY Fcbs) {
    LIST_ENTRY Abandoned;
    LIST_ENTRY Unused;
    InitializeListHead(&Abandoned);
    InitializeListHead(&Unused);
    {
        const SpinLockHold Hold(g_OutlivingLock);
        while (!IsListEmpty(Fcbs)) {
            const PFCB Fcb = FcbOf(RemoveHeadList(Fcbs));
            NtFsdNobodyElse(&Fcb->Resource);
            TakeAbandoned(Fcb, &Abandoned);
            InsertTailList(IsListEmpty(&Fcb->InstanceList) ? &Unused : &OutlivingFcbs, &Fcb->FcbLinks);
        }
        Detached = TRUE;
    }
    FreeAll(&Abandoned, &Unused);
}

// The FCB at FsContext if it outlived teardown. Compares addresses only: what FsContext points to may be gone.
// g_OutlivingLock held.
PFCB FindOutliving(const void *FsContext) HOLDING(g_OutlivingLock) {
    for (PLIST_ENTRY Links = OutlivingFcbs.Flink; Links != &OutlivingFcbs; Links = Links->Flink) {
        if (FcbOf(Links) == FsContext) {
            return FcbOf(Links);
        }
    }
    return nullptr;
}

PINSTANCE_CONTEXT FindInstance(PFCB Fcb, const void *FsContext2) HOLDING(Fcb->Resource) {
    for (PLIST_ENTRY Links = Fcb->InstanceList.Flink; Links != &Fcb->InstanceList; Links = Links->Flink) {
        if (InstanceOf(Links) == FsContext2) {
            return InstanceOf(Links);
        }
    }
    return nullptr;
}

// TRUE for an FCB of the control device. g_OutlivingLock held.
bool IsDeviceFcb(const void *FsContext) HOLDING(g_OutlivingLock) {
    return FsContext != nullptr && (FsContext == DriverFcb || FsContext == OutlivingDevice);
}

// Counts an open of the control device out. Its process record went with teardown; the FCB goes into Fcbs with the last
// open, or with teardown when that has not come to it yet. g_OutlivingLock held.
void TakeDeviceOpen(PFCB Fcb, PLIST_ENTRY Fcbs) HOLDING(g_OutlivingLock) {
    NtFsdNobodyElse(&Fcb->Resource); // counted under g_OutlivingLock from the stop of requests on
    if (--Fcb->OpenCount == 0 && Fcb == OutlivingDevice) {
        OutlivingDevice = nullptr;
        InsertTailList(Fcbs, &Fcb->FcbLinks);
    }
}

// Unlinks the open of FileObject into Instances, and its FCB into Fcbs when it was the last. g_OutlivingLock held.
void TakeOpen(PFILE_OBJECT FileObject, PLIST_ENTRY Instances, PLIST_ENTRY Fcbs) HOLDING(g_OutlivingLock) {
    const PFCB Fcb = FindOutliving(FileObject->FsContext);
    if (Fcb == nullptr) {
        return;
    }
    NtFsdNobodyElse(&Fcb->Resource);
    const PINSTANCE_CONTEXT Instance = FindInstance(Fcb, FileObject->FsContext2);
    if (Instance == nullptr) {
        return;
    }
    RemoveEntryList(&Instance->Links);
    InsertTailList(Instances, &Instance->Links);
    if (IsListEmpty(&Fcb->InstanceList)) {
        RemoveEntryList(&Fcb->FcbLinks);
        InsertTailList(Fcbs, &Fcb->FcbLinks);
    }
}

// The instance of FileObject's own open, which points back to it; NULL when FsContext2 is anything else.
// g_OutlivingLock held.
PINSTANCE_CONTEXT OwnInstance(PFILE_OBJECT FileObject) HOLDING(g_OutlivingLock) {
    const auto Instance = static_cast<PINSTANCE_CONTEXT>(FileObject->FsContext2);
    const bool Own = NtFsdIsFcb(FileObject->FsContext) && Instance != nullptr &&
                     Instance->NodeTypeCode == NODE_TYPE_INSTANCE && Instance->FileObject == FileObject &&
                     Instance->Fcb == FileObject->FsContext;
    return Own ? Instance : nullptr;
}

// Teardown has begun but has not come to this open yet: it finds the mark. g_OutlivingLock held.
void AbandonOpen(PFILE_OBJECT FileObject) HOLDING(g_OutlivingLock) {
    if (const PINSTANCE_CONTEXT Instance = OwnInstance(FileObject); Instance != nullptr) {
        Instance->FileObject = nullptr;
    }
}

} // namespace

VOID NtFsdDetachOpens() {
    LIST_ENTRY Fcbs;
    LIST_ENTRY Notifications;
    InitializeListHead(&Notifications);
    TakeFcbs(&Fcbs);
    if (!IsListEmpty(&Fcbs)) {
        IRP_CONTEXT Frame;
        const PIRP_CONTEXT Context = NtFsdMakeFrameContext(Frame, nullptr);
        for (PLIST_ENTRY Links = Fcbs.Flink; Links != &Fcbs; Links = Links->Flink) {
            const PFCB Fcb = FcbOf(Links);
            NtFsdNobodyElse(&FcbTableResource);
            NtFsdNobodyElse(&Fcb->Resource);
            NtFsdRemovePrefix(Fcb);
            NtFsdTakeNotifyList(Fcb, &Notifications);
            EndLocks(Fcb);
            for (PLIST_ENTRY Open = Fcb->InstanceList.Flink; Open != &Fcb->InstanceList; Open = Open->Flink) {
                const PINSTANCE_CONTEXT Instance = InstanceOf(Open);
                NtFsdNobodyElse(&Instance->Fcb->Resource);
                CloseHandles(Instance, &Context->SecurityContext);
            }
        }
    }
    Publish(&Fcbs);
    // A completed request may be the last reference to its file object: the close that follows finds the lists in
    // order.
    NtFsdCompleteNotifyBatch(&Notifications, STATUS_CANCELLED);
}

PFCB NtFsdTakeDeviceFcb() {
    {
        const SpinLockHold Hold(g_OutlivingLock);
        NtFsdNobodyElse(&DriverFcb->Resource); // counted under g_OutlivingLock by now
        if (DriverFcb->OpenCount == 0) {
            const PFCB Fcb = DriverFcb;
            DriverFcb = nullptr;
            return Fcb;
        }
    }
    {
        const ExclusiveHold Hold(&FcbListResource);
        RemoveEntryList(&DriverFcb->FcbLinks);
        --FcbCount;
    }
    PFCB Unused = nullptr;
    {
        const SpinLockHold Hold(g_OutlivingLock);
        NtFsdNobodyElse(&DriverFcb->Resource);
        (DriverFcb->OpenCount == 0 ? Unused : OutlivingDevice) = DriverFcb;
        DriverFcb = nullptr;
    }
    if (Unused != nullptr) {
        NtFsdFreeFcb(Unused);
    }
    return nullptr;
}

VOID NtFsdForgetClaimOfOpen(PINSTANCE_CONTEXT Instance) {
    const SpinLockHold Hold(g_OutlivingLock);
    if (Instance->FileObject != nullptr) {
        NtFsdForgetShareClaim(Instance->FileObject);
    }
}

PFCB NtFsdFcbAfterTeardown(PFILE_OBJECT FileObject) {
    const SpinLockHold Hold(g_OutlivingLock);
    if (Detached) {
        return FindOutliving(FileObject->FsContext);
    }
    return !IsDeviceFcb(FileObject->FsContext) && NtFsdIsFcb(FileObject->FsContext)
               ? static_cast<PFCB>(FileObject->FsContext)
               : nullptr;
}

VOID NtFsdCloseAfterTeardown(PFILE_OBJECT FileObject) {
    LIST_ENTRY Instances;
    LIST_ENTRY Fcbs;
    InitializeListHead(&Instances);
    InitializeListHead(&Fcbs);
    {
        const SpinLockHold Hold(g_OutlivingLock);
        if (IsDeviceFcb(FileObject->FsContext)) {
            TakeDeviceOpen(static_cast<PFCB>(FileObject->FsContext), &Fcbs);
        } else if (Detached) {
            TakeOpen(FileObject, &Instances, &Fcbs);
        } else {
            AbandonOpen(FileObject);
        }
        FileObject->FsContext = nullptr;
        FileObject->FsContext2 = nullptr;
        FileObject->SectionObjectPointer = nullptr;
    }
    FreeAll(&Instances, &Fcbs);
}
