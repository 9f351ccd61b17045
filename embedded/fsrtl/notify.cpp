#include "embedded/fsrtl/fsrtl.h"

#include "embedded/mm/mm.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

#include <atomic>

namespace {

constexpr ULONG NotifySyncSignature = 0x636E7953;

std::atomic<size_t> NotifySyncCount = 0;

} // namespace

// Opaque to the driver, which only keeps the pointer: requests wait in the driver's own list.
struct _REAL_NOTIFY_SYNC {
    ULONG Signature = NotifySyncSignature;
};

size_t embedded::NotifySyncsInUse() {
    return NotifySyncCount.load();
}

void embedded::NotifyInitializeSync(PNOTIFY_SYNC *NotifySync) {
    RequireIrql(IrqlRuleOf("FsRtlNotifyInitializeSync"));
    if (ShouldFail(FaultKind::NotifySync)) {
        throw RaisedException{STATUS_INSUFFICIENT_RESOURCES};
    }
    *NotifySync = new _REAL_NOTIFY_SYNC;
    ++NotifySyncCount;
}

VOID NTAPI FsRtlNotifyUninitializeSync(PNOTIFY_SYNC *NotifySync) noexcept {
    embedded::RequireIrql(embedded::IrqlRuleOf("FsRtlNotifyUninitializeSync"));
    if (*NotifySync == nullptr) {
        return;
    }
    if ((*NotifySync)->Signature != NotifySyncSignature) {
        embedded::BugCheck(embedded::bugcheck::Verifier, embedded::bugcheck::OwnRule,
                           reinterpret_cast<ULONG_PTR>(*NotifySync), 0, 0,
                           "FsRtlNotifyUninitializeSync: not a notify synchronisation object");
    }
    (*NotifySync)->Signature = 0;
    delete *NotifySync;
    *NotifySync = nullptr;
    --NotifySyncCount;
}
