#include "embedded/verifier/rules.h"

#include <fmt/format.h>

#include "embedded/verifier/locks.h"

namespace embedded {
namespace {

struct CallCodes {
    const char *Kind;
    ULONG IrqlCode;
    ULONG_PTR IrqlParameter;
    ULONG RegionCode;
    ULONG_PTR RegionParameter;
};

// By DriverCall.
constexpr CallCodes ChangedCodes[] = {
    {"dispatch routine", bugcheck::IoVerifier, 0x05, bugcheck::ApcIndexMismatch, 0},
    {"fast I/O routine", bugcheck::Verifier, 0xC6, bugcheck::Verifier, 0xC5},
    {"completion routine", bugcheck::Verifier, 0xFA, bugcheck::Verifier, 0xFB},
    {"routine", bugcheck::Verifier, 0xFA, bugcheck::ApcIndexMismatch, 0},
};

} // namespace

void NTAPI ReportIrql(KIRQL Highest, std::string_view Routine) noexcept {
    KIRQL Irql = CurrentThread().Irql;
    BugCheck(bugcheck::Verifier, bugcheck::WrongIrql, Irql, Highest, 0,
             fmt::format("{} called at IRQL {}, allowed up to {}", Routine, Irql, Highest));
}

void RequireUnchanged::Compare() const {
    const KThread &Thread = CurrentThread();
    const CallCodes &Codes = ChangedCodes[static_cast<int>(Call_)];
    if (Thread.Irql != Irql_) {
        BugCheck(
            Codes.IrqlCode, Codes.IrqlParameter, reinterpret_cast<ULONG_PTR>(Routine_), Irql_, Thread.Irql,
            fmt::format("{} {} was called at IRQL {} and returned at {}", Codes.Kind, Routine_, Irql_, Thread.Irql));
    }
    if (Thread.CriticalRegions != CriticalRegions_) {
        BugCheck(Codes.RegionCode, Codes.RegionParameter, reinterpret_cast<ULONG_PTR>(Routine_),
                 static_cast<ULONG_PTR>(CriticalRegions_), static_cast<ULONG_PTR>(Thread.CriticalRegions),
                 fmt::format("{} {} was called in {} critical regions and returned in {}", Codes.Kind, Routine_,
                             CriticalRegions_, Thread.CriticalRegions));
    }
    if (Thread.HeldCount != HeldCount_) {
        BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 1, reinterpret_cast<ULONG_PTR>(Routine_), HeldCount_,
                 Thread.HeldCount,
                 fmt::format("{} {} was called with {} locks held and returned with {}:\n{}", Codes.Kind, Routine_,
                             HeldCount_, Thread.HeldCount, DescribeHeldLocks(Thread)));
    }
}

} // namespace embedded
