#include "control/our_device.h"

#include "close/close.h"
#include "frame/diagnostics.h"
#include "frame/locks.h"
#include "frame/memory.h"
#include "frame/resources.h"
#include "names/fcb.h"

DRIVER_GLOBAL ERESOURCE g_OurDeviceResource = {};

namespace {

// One per process that has the device open; in DriverFcb's InstanceList, under g_OurDeviceResource.
struct PROCESS_RECORD {
    ULONG NodeTypeCode; // an instance context's: FsContext2 holds either
    PEPROCESS Process;
    PFILE_OBJECT FileObject; // of the process's first open
    LIST_ENTRY Links;
    ULONG ProcessOpenCount UNDER(g_OurDeviceResource);
};
static_assert(offsetof(PROCESS_RECORD, Process) == 8 && offsetof(PROCESS_RECORD, FileObject) == 16 &&
              offsetof(PROCESS_RECORD, Links) == 24 && offsetof(PROCESS_RECORD, ProcessOpenCount) == 40);

// The list and the count of the device's FCB belong to g_OurDeviceResource: no Resource is taken for them, which the
// analysis is told in each routine.
PROCESS_RECORD *FindProcess(PEPROCESS Process) HOLDING(g_OurDeviceResource) {
    NtFsdNobodyElse(&DriverFcb->Resource);
    for (PLIST_ENTRY Link = DriverFcb->InstanceList.Flink; Link != &DriverFcb->InstanceList; Link = Link->Flink) {
        const auto Record = CONTAINING_RECORD(Link, PROCESS_RECORD, Links);
        if (Record->Process == Process) {
            return Record;
        }
    }
    return nullptr;
}

PROCESS_RECORD *AddProcess(PEPROCESS Process, PFILE_OBJECT FileObject) HOLDING(g_OurDeviceResource) {
    auto Record = static_cast<PROCESS_RECORD *>(TwAllocMemory(sizeof(PROCESS_RECORD)));
    if (Record != nullptr) {
        Record->NodeTypeCode = NODE_TYPE_INSTANCE;
        Record->Process = Process;
        Record->FileObject = FileObject;
        Record->ProcessOpenCount = 1;
        InsertTailList(&DriverFcb->InstanceList, &Record->Links);
    }
    return Record;
}

} // namespace

NTSTATUS NtFsdOpenOurDevice(PFILE_OBJECT FileObject) {
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdOpenOurDevice() entering\n");
    ResourceHold Hold;
    if (!Hold.AcquireExclusive(&g_OurDeviceResource, TRUE)) {
        NtFsdDebugPrint(TRACE_CREATE, 0, "NtOpenOurDevice() returning STATUS_SUCCESS\n");
        return STATUS_SUCCESS;
    }
    const PEPROCESS Process = IoGetCurrentProcess();
    PROCESS_RECORD *Record = FindProcess(Process);
    if (Record != nullptr) {
        ++Record->ProcessOpenCount;
    } else {
        Record = AddProcess(Process, FileObject);
        if (Record == nullptr) {
            Hold.Release();
            NtFsdDebugPrint(TRACE_CREATE, 0, "NtFsdOpenOurDevice() Unable to allocate instance\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    NtFsdDebugPrint(TRACE_CREATE, 0, "       Device opened by process: 0x%X.\n", LowPart(Process));
    NtFsdDebugPrint(TRACE_CREATE, 0, "       Instance count for this process: %d\n", Record->ProcessOpenCount);
    FileObject->FsContext2 = Record;
    FileObject->FsContext = DriverFcb;
    FileObject->SectionObjectPointer = &DriverFcb->SectionObjectPointers;
    NtFsdNobodyElse(&DriverFcb->Resource);
    ++DriverFcb->OpenCount;
    NtFsdDebugPrint(TRACE_CREATE, 0, "       Instance count for driver FCB: %d\n", DriverFcb->OpenCount);
    Hold.Release();
    NtFsdDebugPrint(TRACE_CREATE, 0, "NtOpenOurDevice() returning STATUS_SUCCESS\n");
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdCloseOurDevice(PFILE_OBJECT FileObject) {
    NtFsdDebugPrint(TRACE_CLOSE, 0, "NtFsdCloseOurDevice() called\n");
    ResourceHold Hold;
    if (!Hold.AcquireExclusive(&g_OurDeviceResource, TRUE)) {
        return STATUS_SUCCESS;
    }
    const auto Record = static_cast<PROCESS_RECORD *>(FileObject->FsContext2);
    if (Record != nullptr) {
        NtFsdDebugPrint(TRACE_CLOSE, 0, "       Device closed by process: 0x%X.\n", LowPart(IoGetCurrentProcess()));
        NtFsdDebugPrint(TRACE_CLOSE, 0, "       Instance count for this process: %d\n", Record->ProcessOpenCount);
        if (--Record->ProcessOpenCount == 0) {
            NtFsdDebugPrint(TRACE_CLOSE, 0, "Process termination, cleaning resources.\n");
            RemoveEntryList(&Record->Links);
            TwFreeMemory(Record);
        }
    }
    NtFsdNobodyElse(&DriverFcb->Resource);
    NtFsdDebugPrint(TRACE_CLOSE, 0, "       Instance count for driver FCB: %d\n", DriverFcb->OpenCount);
    --DriverFcb->OpenCount;
    // The record is shared by the process's opens and may be gone: nothing may find it through this file object.
    FileObject->FsContext = nullptr;
    FileObject->FsContext2 = nullptr;
    FileObject->SectionObjectPointer = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS NtFsdUnInitOurDevice() {
    NtFsdDebugPrint(TRACE_ERROR, 0, "NtFsdUnInitOurDevice() entering\n");
    if (DriverFcb != nullptr) {
        while (!IsListEmpty(&DriverFcb->InstanceList)) {
            TwFreeMemory(CONTAINING_RECORD(RemoveHeadList(&DriverFcb->InstanceList), PROCESS_RECORD, Links));
        }
        // File objects that are still there point to the FCB: then it goes with the last of them.
        if (const PFCB Unused = NtFsdTakeDeviceFcb(); Unused != nullptr) {
            ResourceHold Hold;
            Hold.AcquireExclusive(&Unused->Resource, TRUE);
            NtFsdNobodyElse(&FcbTableResource);
            NtFsdDeleteFcb(Unused, Hold);
        }
    }
    NtFsdDeleteResource(DRIVER_RESOURCE_OUR_DEVICE);
    NtFsdDebugPrint(TRACE_ERROR, 0, "NtFsdUnInitOurDevice() returning STATUS_SUCCESS\n");
    return STATUS_SUCCESS;
}
