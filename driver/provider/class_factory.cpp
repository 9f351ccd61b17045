#include "provider/class_factory.h"

#include "frame/diagnostics.h"
#include "frame/locks.h"
#include "frame/rundown.h"
#include "provider/binding.h"

namespace {

DRIVER_GLOBAL RVFSD_FACTORY Factory = {};
DRIVER_GLOBAL RVFSD_MAPPING_TABLE MappingTable = {};
DRIVER_GLOBAL BOOLEAN g_bMappingTableReady = FALSE;

bool IsEqualGuid(const GUID *Left, const GUID &Right) {
    return memcmp(Left, &Right, sizeof(GUID)) == 0;
}

// Objects may outlive teardown, which releases the services that count them.
ULONG Increment(ULONG *Counter) {
    const RequestInFlight InFlight;
    return InFlight ? g_pRvplInterface->Table->Increment(g_pRvplInterface, Counter)
                    : __atomic_add_fetch(Counter, 1, __ATOMIC_SEQ_CST);
}

ULONG Decrement(ULONG *Counter) {
    const RequestInFlight InFlight;
    return InFlight ? g_pRvplInterface->Table->Decrement(g_pRvplInterface, Counter)
                    : __atomic_sub_fetch(Counter, 1, __ATOMIC_SEQ_CST);
}

// Answers Object for one of two identifiers, with a reference taken through the object's own table.
template <typename T>
RVPSTATUS Answer(T *Object, const GUID *Iid, const GUID &Own, PVOID *Out) {
    if (Out == nullptr) {
        return RVPSTATUS::BadPointer;
    }
    *Out = nullptr;
    if (!IsEqualGuid(Iid, IID_IUnknown) && !IsEqualGuid(Iid, Own)) {
        return RVPSTATUS::NoSuchClass;
    }
    *Out = Object;
    Object->Table->AddRef(Object);
    return RVPSTATUS::Success;
}

// ---- The mapping object ---------------------------------------------------------------------------------------------

RVPSTATUS NTAPI MappingQueryInterface(RVFSD_MAPPING *This, const GUID *Iid, PVOID *Out) {
    return Answer(This, Iid, IID_RvfsdMapping, Out);
}

ULONG NTAPI MappingAddRef(RVFSD_MAPPING *This) {
    return Increment(&This->RefCount);
}

ULONG NTAPI MappingRelease(RVFSD_MAPPING *This) {
    const RequestInFlight InFlight;
    const ULONG Count = Decrement(&This->RefCount);
    // After teardown the block stays with the framework, whose memory it is.
    if (Count == 0 && InFlight) {
        g_pRvplInterface->Table->Free(g_pRvplInterface, This);
    }
    return Count;
}

void BuildMappingTable() {
    if (g_bMappingTableReady) {
        return;
    }
    MappingTable.QueryInterface = MappingQueryInterface;
    MappingTable.AddRef = MappingAddRef;
    MappingTable.Release = MappingRelease;
    MappingTable.VerifyPath = RvxVerifyPath;
    MappingTable.MapDrive = RvxMapDrive;
    MappingTable.UnMapDrive = RvxUnMapDrive;
    MappingTable.QueryDrive = RvxQueryDrive;
    MappingTable.UnMapServer = RvxUnMapServer;
    MappingTable.TraceMessage = RvxTraceMessage;
    g_bMappingTableReady = TRUE;
}

// Builds the mapping table once, under the class mutex.
RVPSTATUS EnsureMappingTable() {
    const RVPSTATUS Status = g_pRvplInterface->Table->AcquireMutex(g_pRvplInterface, g_hClassMutex);
    if (Status != RVPSTATUS::Success) {
        return RvpIsError(Status) ? Status : RVPSTATUS::NoSuchClass;
    }
    BuildMappingTable();
    g_pRvplInterface->Table->ReleaseMutex(g_pRvplInterface, g_hClassMutex);
    return RVPSTATUS::Success;
}

// ---- The factory ----------------------------------------------------------------------------------------------------

RVPSTATUS NTAPI FactoryQueryInterface(RVFSD_FACTORY *This, const GUID *Iid, PVOID *Out) {
    return Answer(This, Iid, IID_IClassFactory, Out);
}

ULONG NTAPI FactoryAddRef(RVFSD_FACTORY *This) {
    return Increment(&This->RefCount);
}

ULONG NTAPI FactoryRelease(RVFSD_FACTORY *This) {
    return Decrement(&This->RefCount);
}

RVPSTATUS NTAPI RvfsdFactoryCreateInstance(RVFSD_FACTORY *, PVOID Outer, const GUID *Iid, PVOID *Out) {
    NtFsdDebugPrint(TRACE_FACTORY, 0, "Call to RvfsdFactoryCreateInstance\n");
    if (Out == nullptr || Outer != nullptr) {
        return RVPSTATUS::BadPointer;
    }
    const RequestInFlight InFlight;
    if (!InFlight) {
        return RVPSTATUS::NoSuchClass;
    }
    RVPSTATUS Status = EnsureMappingTable();
    if (RvpIsError(Status)) {
        return Status;
    }
    RVPL *Rvpl = g_pRvplInterface;
    auto Mapping = static_cast<RVFSD_MAPPING *>(Rvpl->Table->Allocate(Rvpl, sizeof(RVFSD_MAPPING)));
    if (Mapping == nullptr) {
        return RVPSTATUS::NoMemory;
    }
    Rvpl->Table->Clear(Rvpl, Mapping, sizeof(RVFSD_MAPPING));
    Mapping->Table = &MappingTable;
    Status = MappingQueryInterface(Mapping, Iid, Out);
    if (RvpIsError(Status)) {
        Rvpl->Table->Free(Rvpl, Mapping);
    }
    return Status;
}

RVPSTATUS NTAPI FactoryLockServer(RVFSD_FACTORY *This, ULONG Lock) {
    if (Lock == 1) {
        Increment(&This->LockCount);
    } else {
        Decrement(&This->LockCount);
    }
    return RVPSTATUS::Success;
}

constexpr RVFSD_FACTORY_TABLE FactoryTable = {FactoryQueryInterface, FactoryAddRef, FactoryRelease,
                                              RvfsdFactoryCreateInstance, FactoryLockServer};

RVPSTATUS CreateFactory() {
    const RVPSTATUS Status = g_pRvplInterface->Table->CreateMutex(g_pRvplInterface, 1, &g_hClassMutex);
    // A success that hands out no mutex is none.
    if (RvpIsError(Status) || g_hClassMutex == 0) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "Failed to create Rvfsd class mutex\n");
        if (g_hClassMutex != 0) {
            g_pRvplInterface->Table->DestroyMutex(g_pRvplInterface, g_hClassMutex);
            g_hClassMutex = 0;
        }
        return RvpIsError(Status) ? Status : RVPSTATUS::NoSuchClass;
    }
    Factory.RefCount = 0;
    Factory.LockCount = 0;
    Factory.Table = &FactoryTable;
    __atomic_store_n(&g_bClassFactoryReady, TRUE, __ATOMIC_RELEASE);
    return RVPSTATUS::Success;
}

bool IsReady() {
    return __atomic_load_n(&g_bClassFactoryReady, __ATOMIC_ACQUIRE) != FALSE;
}

} // namespace

RVPSTATUS NtFsdSetupClassFactory() {
    if (IsReady()) {
        return RVPSTATUS::Success;
    }
    ResourceHold Hold;
    Hold.AcquireExclusive(&g_FrameworkInitResource, TRUE);
    return IsReady() ? RVPSTATUS::Success : CreateFactory();
}

extern "C" {

DECLSPEC_EXPORT const GUID *const ORCOM_Table[2] = {&CLSID_RvfsdMapping, nullptr};

DECLSPEC_EXPORT RVPSTATUS NTAPI DllGetClassObject(const GUID *Clsid, const GUID *Iid, PVOID *Out) {
    const RequestInFlight InFlight;
    if (!InFlight || !NT_SUCCESS(NtFsdEnsureFrameworkBound()) || RvpIsError(NtFsdSetupClassFactory())) {
        return RVPSTATUS::NoSuchClass;
    }
    if (!IsEqualGuid(Clsid, CLSID_RvfsdMapping)) {
        return RVPSTATUS::NoSuchClass;
    }
    return FactoryQueryInterface(&Factory, Iid, Out);
}
}
