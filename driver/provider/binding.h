// Binding to the component framework: five interfaces, obtained on the first request and held until teardown.
#pragma once

#include "provider/framework.h"

extern RVPL *g_pRvplInterface;
extern RVP_OBJECT *g_pTransportInterface;
extern RVP_OBJECT *g_pQuillonInterface;
extern RVIOM_FSD *g_pProviderInterface;
extern RV_SECURITY *g_pSecurityContextInterface;
extern RVPL_MUTEX g_hClassMutex;
extern BOOLEAN g_bClassFactoryReady;
extern LONG g_bFrameworkBound;
extern LONG g_bFrameworkBindFailed;
extern ERESOURCE g_FrameworkInitResource BEHIND(BelowSearches) BEFORE(BelowLeaves);
READ_PLACE(FrameworkInitResource, g_FrameworkInitResource);

// STATUS_SUCCESS once the framework is bound, binding it when this is the first request; STATUS_UNSUCCESSFUL before
// start-up has finished, after a failed attempt (never retried) and after teardown. May wait for another thread that
// binds.
NTSTATUS NtFsdEnsureFrameworkBound();

// Obtains the five interfaces into their globals; 0, or -1 at the first that cannot be had (those before it stay).
LONG NtFsdBindFramework();

// Creates the class mutex and the factory once. Returns a framework status.
RVPSTATUS NtFsdSetupClassFactory();

// Refuses every later request, then releases whatever interface is held and clears its global: used by teardown, one
// step each, in teardown's order.
void NtFsdMarkFrameworkUnbound();
void NtFsdDestroyClassMutex();
void NtFsdReleaseSecurityContextInterface();
void NtFsdReleaseProviderInterfaces(); // the Provider, Quillon, the transport
void NtFsdReleaseRvplInterface();

// The framework's clock: 100-ns units since 1601.
LONG64 NtFsdSystemTime();
