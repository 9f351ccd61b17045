#include "embedded/fsrtl/fsrtl.h"

#include "embedded/verifier/leaks.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

#include <fmt/format.h>
#include <string_view>

namespace embedded {
namespace {

[[noreturn]] void Misuse(const void *Object, std::string_view Text) {
    BugCheck(bugcheck::Verifier, bugcheck::OwnRule, reinterpret_cast<ULONG_PTR>(Object), 0, 0, Text);
}

// There is no cache manager: a file object with a cache map would get data that nobody keeps.
BOOLEAN CopyThroughCache(PFILE_OBJECT FileObject, const IrqlRule &Rule) {
    RequireIrql(Rule);
    if (FileObject->PrivateCacheMap != nullptr) {
        Misuse(FileObject, fmt::format("{}: caching was set up on a file object", Rule.Routine));
    }
    return FALSE;
}

// What must hold of a header that may carry stream contexts.
std::string_view HeaderFault(const FSRTL_ADVANCED_FCB_HEADER &Header) {
    if ((Header.Flags & FSRTL_FLAG_ADVANCED_HEADER) == 0) {
        return "FSRTL_FLAG_ADVANCED_HEADER is not set";
    }
    if ((Header.Flags2 & FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS) == 0) {
        return "FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS is not set";
    }
    if (Header.Version != FSRTL_FCB_HEADER_V1) {
        return "the version is not FSRTL_FCB_HEADER_V1";
    }
    if (Header.FastMutex == nullptr) {
        return "there is no fast mutex";
    }
    if (!IsListEmpty(&Header.FilterContexts)) {
        return "there are stream contexts, which nobody can have attached";
    }
    return {};
}

[[maybe_unused]] const bool LeakCheckRegistered = [] {
    RegisterLeakCheck("file system run-time library", CheckFsRtlLeaks);
    return true;
}();

} // namespace

std::string CheckFsRtlLeaks() {
    FsRtlCounts Counts = CountFsRtl();
    const struct {
        size_t Left;
        std::string_view What;
    } Kinds[] = {
        {Counts.LockTables, "byte-range lock table(s)"},
        {Counts.Locks, "byte-range lock(s)"},
        {Counts.WaitingLocks, "waiting byte-range lock request(s)"},
        {Counts.NotifySyncs, "notify synchronisation object(s)"},
    };
    std::string Report;
    for (const auto &Kind : Kinds) {
        if (Kind.Left != 0) {
            Report += fmt::format("{} {} left\n", Kind.Left, Kind.What);
        }
    }
    return Report;
}

} // namespace embedded

using namespace embedded;

BOOLEAN NTAPI FsRtlCopyRead(PFILE_OBJECT FileObject, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK,
                            PDEVICE_OBJECT) noexcept {
    return CopyThroughCache(FileObject, IrqlRuleOf("FsRtlCopyRead"));
}

BOOLEAN NTAPI FsRtlCopyWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK,
                             PDEVICE_OBJECT) noexcept {
    return CopyThroughCache(FileObject, IrqlRuleOf("FsRtlCopyWrite"));
}

VOID NTAPI FsRtlTeardownPerStreamContexts(PFSRTL_ADVANCED_FCB_HEADER AdvancedHeader) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlTeardownPerStreamContexts"));
    if (!Verifying()) {
        return;
    }
    std::string_view Fault = HeaderFault(*AdvancedHeader);
    if (!Fault.empty()) {
        Misuse(AdvancedHeader, fmt::format("FsRtlTeardownPerStreamContexts: {}", Fault));
    }
}
