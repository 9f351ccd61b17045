#include "frame/locks.h"

BOOLEAN NtFsdAcquireExclusive(PERESOURCE Resource, BOOLEAN Wait) {
    KeEnterCriticalRegion();
    const BOOLEAN Acquired = ExAcquireResourceExclusiveLite(Resource, Wait);
    if (!Acquired) {
        KeLeaveCriticalRegion();
    }
    return Acquired;
}

BOOLEAN NtFsdAcquireShared(PERESOURCE Resource, BOOLEAN Wait) {
    KeEnterCriticalRegion();
    const BOOLEAN Acquired = ExAcquireResourceSharedLite(Resource, Wait);
    if (!Acquired) {
        KeLeaveCriticalRegion();
    }
    return Acquired;
}

VOID NtFsdReleaseResource(PERESOURCE Resource) {
    ExReleaseResourceLite(Resource);
    KeLeaveCriticalRegion();
}
