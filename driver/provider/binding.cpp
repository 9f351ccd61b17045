#include "provider/binding.h"

#include "frame/diagnostics.h"
#include "frame/driver.h"
#include "frame/locks.h"

DRIVER_GLOBAL RVPL *g_pRvplInterface = nullptr;
DRIVER_GLOBAL RVP_OBJECT *g_pTransportInterface = nullptr;
DRIVER_GLOBAL RVP_OBJECT *g_pQuillonInterface = nullptr;
DRIVER_GLOBAL RVIOM_FSD *g_pProviderInterface = nullptr;
DRIVER_GLOBAL RV_SECURITY *g_pSecurityContextInterface = nullptr;
DRIVER_GLOBAL RVPL_MUTEX g_hClassMutex = 0;
DRIVER_GLOBAL BOOLEAN g_bClassFactoryReady = FALSE;
DRIVER_GLOBAL LONG g_bFrameworkBound = 0;
DRIVER_GLOBAL LONG g_bFrameworkBindFailed = 0;
DRIVER_GLOBAL ERESOURCE g_FrameworkInitResource = {};

namespace {

bool IsSet(const LONG *Flag) {
    return __atomic_load_n(Flag, __ATOMIC_ACQUIRE) != 0;
}

void Set(LONG *Flag, LONG Value) {
    __atomic_store_n(Flag, Value, __ATOMIC_RELEASE);
}

// Creates one interface; a success without an object is no success.
template <typename T>
RVPSTATUS Obtain(const GUID &Clsid, const GUID &Iid, T **Interface) {
    const RVPSTATUS Status = ZelmCreateInstance(&Clsid, nullptr, &Iid, reinterpret_cast<PVOID *>(Interface));
    return !RvpIsError(Status) && *Interface == nullptr ? RVPSTATUS::NoSuchClass : Status;
}

template <typename T>
void Release(T **Interface) {
    if (*Interface != nullptr) {
        T *Object = *Interface;
        *Interface = nullptr;
        Object->Table->Release(Object);
    }
}

} // namespace

LONG NtFsdBindFramework() {
    RVPSTATUS Status = Obtain(CLSID_Rvpl, IID_Rvpl, &g_pRvplInterface);
    if (RvpIsError(Status)) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "VEYFSD: Unable to obtain RVPL interface\n");
        return -1;
    }
    Status = Obtain(CLSID_Transport, IID_Transport, &g_pTransportInterface);
    if (RvpIsError(Status)) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "VEYFSD: Unable to obtain RVP Transport interface, status = %08X\n",
                        static_cast<ULONG>(Status));
        return -1;
    }
    Status = Obtain(CLSID_Quillon, IID_Quillon, &g_pQuillonInterface);
    if (RvpIsError(Status)) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "VEYFSD: Error Loading Quillon, status = %08X\n", static_cast<ULONG>(Status));
        return -1;
    }
    if (Obtain(CLSID_Provider, IID_Provider, &g_pProviderInterface) != RVPSTATUS::Success) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "Unable to obtain RVIOM Fsd interface\n");
        return -1;
    }
    if (Obtain(CLSID_SecurityContext, IID_SecurityContext, &g_pSecurityContextInterface) != RVPSTATUS::Success) {
        NtFsdDebugPrint(TRACE_ERROR, 0, "Unable to obtain Local Security Context interface\n");
        return -1;
    }
    return 0;
}

NTSTATUS NtFsdEnsureFrameworkBound() {
    if (IsSet(&g_bFrameworkBound)) {
        return STATUS_SUCCESS;
    }
    if (IsSet(&g_bFrameworkBindFailed) || !IsSet(&g_bDriverEntryDone)) {
        return STATUS_UNSUCCESSFUL;
    }
    // What the framework loads may send a request of its own, on this thread.
    if (ExIsResourceAcquiredExclusiveLite(&g_FrameworkInitResource)) {
        return STATUS_UNSUCCESSFUL;
    }
    ResourceHold Hold;
    if (!Hold.AcquireExclusive(&g_FrameworkInitResource, FALSE)) {
        // Another thread is binding: wait for it and share its outcome.
        Hold.AcquireExclusive(&g_FrameworkInitResource, TRUE);
        return IsSet(&g_bFrameworkBound) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
    }
    // The flags may have moved between the test and the acquire.
    if (IsSet(&g_bFrameworkBound)) {
        return STATUS_SUCCESS;
    }
    if (IsSet(&g_bFrameworkBindFailed)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (NtFsdBindFramework() != 0) {
        Set(&g_bFrameworkBindFailed, 1);
        return STATUS_UNSUCCESSFUL;
    }
    Set(&g_bFrameworkBound, 1);
    return STATUS_SUCCESS;
}

void NtFsdMarkFrameworkUnbound() {
    Set(&g_bFrameworkBindFailed, 1);
    Set(&g_bFrameworkBound, 0);
}

void NtFsdDestroyClassMutex() {
    if (g_hClassMutex != 0) {
        g_pRvplInterface->Table->DestroyMutex(g_pRvplInterface, g_hClassMutex);
        g_hClassMutex = 0;
    }
    __atomic_store_n(&g_bClassFactoryReady, FALSE, __ATOMIC_RELEASE);
}

void NtFsdReleaseSecurityContextInterface() {
    Release(&g_pSecurityContextInterface);
}

void NtFsdReleaseProviderInterfaces() {
    Release(&g_pProviderInterface);
    Release(&g_pQuillonInterface);
    Release(&g_pTransportInterface);
}

void NtFsdReleaseRvplInterface() {
    Release(&g_pRvplInterface);
}

LONG64 NtFsdSystemTime() {
    LONG64 Time = 0;
    g_pRvplInterface->Table->SystemTime(g_pRvplInterface, &Time);
    return Time;
}
