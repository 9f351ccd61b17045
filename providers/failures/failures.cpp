#include "providers/failures/failures.h"

#include <string_view>

#include "providers/slots.h"

namespace providers {
namespace {

struct Failure {
    const char *Operation;
    RVSTATUS Status;
};
constinit thread_local Failure LastOne = {nullptr, RVSTATUS::Success};
constinit Failures *Active = nullptr;

} // namespace

struct FailureThunks {
    // Apart, of the driver's convention, and the only one that is noexcept: so a call saves no registers for it, nor
    // for an end of the program.
    [[gnu::noinline]] static RVSTATUS NTAPI Fault() noexcept {
        return Active->Fault_();
    }

    template <auto Slot, const char *Name, typename... A>
    struct Thunk {
        static RVSTATUS NTAPI Call(RVIOM_FSD *Self, RV_SECURITY_CONTEXT *Security, A... Arguments) {
            constexpr bool Closes = std::string_view(Name).find("Close") != std::string_view::npos;
            RVSTATUS Status = RVSTATUS::Success;
            if (!Closes && Active->Fault_) [[unlikely]] {
                Status = Fault();
            }
            if (!RvIsError(Status)) {
                Status = (Active->Below_->*Slot)(Self, Security, Arguments...);
            }
            if (RvIsError(Status)) {
                LastOne = {Name, Status};
            }
            return Status;
        }
    };

    template <auto Slot, const char *Name, typename... A>
    static void Install(RVIOM_FSD_TABLE &Table,
                        RVSTATUS (NTAPI *RVIOM_FSD_TABLE::*)(RVIOM_FSD *, RV_SECURITY_CONTEXT *, A...)) {
        Table.*Slot = Thunk<Slot, Name, A...>::Call;
    }
};

namespace {

#define NAMED(Number, Name) constexpr char Name##Name_[] = "RVFsd" #Name;
RVFSD_PROVIDER_OPERATIONS(NAMED)
#undef NAMED

} // namespace

Failures::Failures(RVIOM_FSD *Provider) : Provider_(Provider), Below_(Provider->Table), Watched_(*Provider->Table) {
#define INSTALL(Number, Name)                                                                                          \
    FailureThunks::Install<&RVIOM_FSD_TABLE::RVFsd##Name, Name##Name_>(Watched_, &RVIOM_FSD_TABLE::RVFsd##Name);
    RVFSD_PROVIDER_OPERATIONS(INSTALL)
#undef INSTALL
    Active = this;
    __atomic_store_n(&Provider_->Table, &Watched_, __ATOMIC_RELEASE);
}

Failures::~Failures() {
    __atomic_store_n(&Provider_->Table, Below_, __ATOMIC_RELEASE);
}

RVSTATUS Failures::Last(const char *Operation) noexcept {
    return LastOne.Operation != nullptr && std::string_view(LastOne.Operation).starts_with(Operation)
               ? LastOne.Status
               : RVSTATUS::Success;
}

void Failures::Forget() noexcept {
    LastOne = {};
}

} // namespace providers
