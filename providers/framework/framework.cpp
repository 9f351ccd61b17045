#include "providers/framework/framework.h"
#include "providers/framework/probe.h"

#include "providers/framework/traps.h"
#include "providers/slots.h"

#include <chrono>
#include <cstdlib>
#include <fmt/format.h>

namespace providers {

namespace {

struct ClassRow {
    const char *Name;
    const GUID &Clsid;
    const GUID &Iid;
};

// In the order of FrameworkClass.
const ClassRow ClassRows[FrameworkClassCount] = {
    {"RVPL", CLSID_Rvpl, IID_Rvpl},
    {"Transport", CLSID_Transport, IID_Transport},
    {"Quillon", CLSID_Quillon, IID_Quillon},
    {"Provider", CLSID_Provider, IID_Provider},
    {"SecurityContext", CLSID_SecurityContext, IID_SecurityContext},
};

std::atomic<Framework *> ActiveFramework{nullptr};

bool SameGuid(const GUID &Left, const GUID &Right) {
    return std::memcmp(&Left, &Right, sizeof(GUID)) == 0;
}

ULONG Raw(RVPSTATUS Status) {
    return static_cast<ULONG>(Status);
}

LONG64 SystemClock() {
    // 100-ns units between 1601-01-01 and 1970-01-01.
    constexpr LONG64 UnixEpoch = 116444736000000000;
    const auto Now = std::chrono::system_clock::now().time_since_epoch();
    return UnixEpoch + std::chrono::duration_cast<std::chrono::nanoseconds>(Now).count() / 100;
}

} // namespace

const char *NameOf(FrameworkClass Class) {
    return ClassRows[static_cast<unsigned>(Class)].Name;
}

// The operations behind the tables: no exception may leave them, so all are noexcept.
struct FrameworkEntries {
    static Framework &Of(RVPL *Self) {
        return *static_cast<Framework::RvplObject *>(Self)->Owner;
    }
    static Framework &Used(RVPL *Self, unsigned Slot) {
        Framework &Owner = Of(Self);
        Owner.CheckAlive(FrameworkClass::Rvpl, Slot);
        return Owner;
    }

    static ULONG NTAPI ReleaseRvpl(RVPL *Self) noexcept {
        return Of(Self).Release(FrameworkClass::Rvpl);
    }
    static PVOID NTAPI AllocateForText(RVPL *Self, SIZE_T Size) noexcept {
        return Used(Self, 25).Allocate(Size, 25);
    }
    static PVOID NTAPI Allocate(RVPL *Self, SIZE_T Size) noexcept {
        return Used(Self, 26).Allocate(Size, 26);
    }
    static VOID NTAPI Free(RVPL *Self, PVOID Pointer) noexcept {
        Used(Self, 27).Free(Pointer);
    }
    static SIZE_T NTAPI StringLength(RVPL *Self, PCWSTR Text) noexcept {
        Used(Self, 43);
        return std::char_traits<char16_t>::length(Text);
    }
    static VOID NTAPI Clear(RVPL *Self, PVOID Pointer, SIZE_T Size) noexcept {
        Used(Self, 44);
        std::memset(Pointer, 0, Size);
    }
    static RVPSTATUS NTAPI AcquireMutex(RVPL *Self, RVPL_MUTEX Mutex) noexcept {
        return Used(Self, 59).AcquireMutex(Mutex);
    }
    static RVPSTATUS NTAPI CreateMutex(RVPL *Self, ULONG One, RVPL_MUTEX *Mutex) noexcept {
        return Used(Self, 62).CreateMutex(One, Mutex);
    }
    static VOID NTAPI DestroyMutex(RVPL *Self, RVPL_MUTEX Mutex) noexcept {
        Used(Self, 66).DestroyMutex(Mutex);
    }
    static ULONG NTAPI Decrement(RVPL *Self, ULONG *Counter) noexcept {
        Used(Self, 70);
        return __atomic_sub_fetch(Counter, 1, __ATOMIC_SEQ_CST);
    }
    static ULONG NTAPI Increment(RVPL *Self, ULONG *Counter) noexcept {
        Used(Self, 72);
        return __atomic_add_fetch(Counter, 1, __ATOMIC_SEQ_CST);
    }
    static VOID NTAPI ReleaseMutex(RVPL *Self, RVPL_MUTEX Mutex) noexcept {
        Used(Self, 73).ReleaseMutex(Mutex);
    }
    static VOID NTAPI SystemTime(RVPL *Self, LONG64 *Time) noexcept {
        Framework &Owner = Used(Self, 86);
        *Time = Owner.Time_ ? Owner.Time_() : SystemClock();
    }

    static ULONG NTAPI ReleaseSecurity(RV_SECURITY *Self) noexcept {
        return static_cast<Framework::SecurityObject *>(Self)->Owner->Release(FrameworkClass::SecurityContext);
    }
    static VOID NTAPI GetCallerContext(RV_SECURITY *Self, RV_SECURITY_CONTEXT *SecurityContext) noexcept {
        Framework &Owner = *static_cast<Framework::SecurityObject *>(Self)->Owner;
        *SecurityContext = Framework::DefaultCaller;
        if (Owner.Caller_ || Owner.State(FrameworkClass::SecurityContext).Released.load(std::memory_order_relaxed)) {
            AskForCaller(Owner, SecurityContext);
        }
    }
    // Apart, so that every request need not save its caller's vector registers for it.
    __attribute__((noinline)) static VOID NTAPI AskForCaller(Framework &Owner,
                                                             RV_SECURITY_CONTEXT *SecurityContext) noexcept {
        Owner.CheckAlive(FrameworkClass::SecurityContext, 9);
        if (Owner.Caller_) {
            *SecurityContext = Owner.Caller_();
        }
    }

    static ULONG NTAPI ReleasePlain(RVP_OBJECT *Self) noexcept {
        auto *Object = static_cast<Framework::PlainObject *>(Self);
        return Object->Owner->Release(Object->Class);
    }

    static ULONG NTAPI ReleaseProvider(RVIOM_FSD *Self) noexcept {
        Framework *Owner = Framework::Active();
        const ULONG Left = Owner->Release(FrameworkClass::Provider);
        if (Owner->ProviderOwnTable_->Release != nullptr) {
            Owner->ProviderOwnTable_->Release(Self);
        }
        return Left;
    }

    // One thunk per operation, for SetOperationCaller.
    template <auto Slot, typename... A>
    struct Operation {
        static RVSTATUS NTAPI Call(RVIOM_FSD *Self, RV_SECURITY_CONTEXT *Security, A... Arguments) noexcept {
            const Framework &Owner = *Framework::Active();
            RVSTATUS Status = RVSTATUS::Success;
            auto Run = [&] { Status = (Owner.ProviderOwnTable_->*Slot)(Self, Security, Arguments...); };
            Owner.OperationCaller_([](void *Which) noexcept { (*static_cast<decltype(Run) *>(Which))(); }, &Run);
            return Status;
        }
    };
    template <auto Slot, typename... A>
    static void Install(RVIOM_FSD_TABLE &Table,
                        RVSTATUS (NTAPI *RVIOM_FSD_TABLE::*)(RVIOM_FSD *, RV_SECURITY_CONTEXT *, A...)) {
        Table.*Slot = Operation<Slot, A...>::Call;
    }

    static RVPSTATUS Create(const GUID *Clsid, PVOID Outer, const GUID *Iid, PVOID *Out) noexcept {
        Framework *Owner = Framework::Active();
        if (Owner == nullptr) {
            return RVPSTATUS::NoSuchClass;
        }
        return Owner->Create(Clsid, Outer, Iid, Out);
    }

    static const RVPL_TABLE *Rvpl() {
        static const RVPL_TABLE Table = [] {
            auto T = TrappedTable<RvplName, RVPL_TABLE>();
            T.Release = ReleaseRvpl;
            T.AllocateForText = AllocateForText;
            T.Allocate = Allocate;
            T.Free = Free;
            T.StringLength = StringLength;
            T.Clear = Clear;
            T.AcquireMutex = AcquireMutex;
            T.CreateMutex = CreateMutex;
            T.DestroyMutex = DestroyMutex;
            T.Decrement = Decrement;
            T.Increment = Increment;
            T.ReleaseMutex = ReleaseMutex;
            T.SystemTime = SystemTime;
            return T;
        }();
        return &Table;
    }

    static const RV_SECURITY_TABLE *Security() {
        static const RV_SECURITY_TABLE Table = [] {
            auto T = TrappedTable<SecurityName, RV_SECURITY_TABLE>();
            T.Release = ReleaseSecurity;
            T.GetCallerContext = GetCallerContext;
            return T;
        }();
        return &Table;
    }

    // The driver only holds and releases these two, so their tables go as far as slot 31.
    struct PlainTable {
        RVP_OBJECT_TABLE Standard;
        PVOID Unused3To31[29];
    };
    static const RVP_OBJECT_TABLE *Plain() {
        static const PlainTable Table = [] {
            auto T = TrappedTable<PlainObjectName, PlainTable>();
            T.Standard.Release = ReleasePlain;
            return T;
        }();
        return &Table.Standard;
    }
};

Framework::Framework(RVIOM_FSD *Provider) {
    Rvpl_.Table = FrameworkEntries::Rvpl();
    Rvpl_.Owner = this;
    Security_.Table = FrameworkEntries::Security();
    Security_.Owner = this;
    Transport_.Table = FrameworkEntries::Plain();
    Transport_.Owner = this;
    Transport_.Class = FrameworkClass::Transport;
    Quillon_.Table = FrameworkEntries::Plain();
    Quillon_.Owner = this;
    Quillon_.Class = FrameworkClass::Quillon;
    Framework *None = nullptr;
    if (!ActiveFramework.compare_exchange_strong(None, this)) {
        std::fprintf(stderr, "a second framework was made while one is active\n");
        std::abort();
    }
    if (Provider != nullptr) {
        RegisterProvider(Provider);
    }
}

Framework::~Framework() {
    if (Provider_ != nullptr) {
        Provider_->Table = ProviderOwnTable_;
    }
    for (const auto &Entry : Blocks_) {
        std::free(Entry.first);
    }
    ActiveFramework = nullptr;
}

Framework *Framework::Active() {
    return ActiveFramework.load(std::memory_order_acquire);
}

void Framework::RegisterProvider(RVIOM_FSD *Provider) {
    if (Provider_ != nullptr) {
        std::fprintf(stderr, "a second Provider was registered\n");
        std::abort();
    }
    ProviderOwnTable_ = Provider->Table;
    ProviderTable_ = *Provider->Table;
    ProviderTable_.Release = FrameworkEntries::ReleaseProvider;
    Provider->Table = &ProviderTable_;
    Provider_ = Provider;
}

void Framework::SetTimeSource(TimeSource Source) {
    Time_ = std::move(Source);
}

void Framework::SetCaller(CallerSource Source) {
    Caller_ = std::move(Source);
}

void Framework::SetOperationCaller(OperationCaller Caller) {
    OperationCaller_ = Caller;
#define INSTALL(Number, Name)                                                                                          \
    FrameworkEntries::Install<&RVIOM_FSD_TABLE::RVFsd##Name>(ProviderTable_, &RVIOM_FSD_TABLE::RVFsd##Name);
    RVFSD_PROVIDER_OPERATIONS(INSTALL)
#undef INSTALL
}

// ---- Creation and release ------------------------------------------------------------------------------------

PVOID Framework::ObjectOf(FrameworkClass Class) {
    switch (Class) {
    case FrameworkClass::Rvpl:
        return static_cast<RVPL *>(&Rvpl_);
    case FrameworkClass::Transport:
        return static_cast<RVP_OBJECT *>(&Transport_);
    case FrameworkClass::Quillon:
        return static_cast<RVP_OBJECT *>(&Quillon_);
    case FrameworkClass::Provider:
        return Provider_;
    case FrameworkClass::SecurityContext:
        return static_cast<RV_SECURITY *>(&Security_);
    }
    return nullptr;
}

RVPSTATUS Framework::Create(const GUID *Clsid, PVOID Outer, const GUID *Iid, PVOID *Out) {
    if (Out == nullptr || Outer != nullptr) {
        return RVPSTATUS::BadPointer;
    }
    *Out = nullptr;
    unsigned Index = 0;
    while (Index < FrameworkClassCount && !SameGuid(*Clsid, ClassRows[Index].Clsid)) {
        Index++;
    }
    if (Index == FrameworkClassCount) {
        return RVPSTATUS::NoSuchClass;
    }
    const auto Class = static_cast<FrameworkClass>(Index);

    std::unique_lock Hold(Books_);
    ClassState &Mine = State(Class);
    Mine.Creates++;
    if (const std::function<void()> Before = std::exchange(Mine.Before, nullptr)) {
        Hold.unlock();
        Before();
        Hold.lock();
    }
    RVPSTATUS Status = RVPSTATUS::Success;
    bool WithObject = true;
    for (auto Fault = Mine.Faults.begin(); Fault != Mine.Faults.end();) {
        if (--Fault->Left == 0) {
            Status = Fault->Status;
            WithObject = Fault->WithObject;
            Fault = Mine.Faults.erase(Fault);
        } else {
            ++Fault;
        }
    }
    if (WithObject && (!SameGuid(*Iid, ClassRows[Index].Iid) || ObjectOf(Class) == nullptr)) {
        Status = RVPSTATUS::NoSuchClass;
        WithObject = false;
    }
    if (WithObject) {
        Mine.References++;
        Mine.Released = false;
        *Out = ObjectOf(Class);
    }
    Log_.push_back(fmt::format("create {} -> 0x{:08X}{}", NameOf(Class), Raw(Status),
                               !WithObject && !RvpIsError(Status) ? " (no object)" : ""));
    Hold.unlock();
    if (WithObject && Class == FrameworkClass::Provider && ProviderOwnTable_->AddRef != nullptr) {
        reinterpret_cast<ULONG(NTAPI *)(RVIOM_FSD *)>(ProviderOwnTable_->AddRef)(Provider_);
    }
    return Status;
}

ULONG Framework::Release(FrameworkClass Class) {
    std::lock_guard Hold(Books_);
    ClassState &Mine = State(Class);
    if (Mine.References == 0) {
        Violations_.push_back(fmt::format("{} released without a reference", NameOf(Class)));
        return 0;
    }
    const LONG Left = --Mine.References;
    Mine.Released = Left == 0;
    Log_.push_back(fmt::format("release {} -> {} left", NameOf(Class), Left));
    return static_cast<ULONG>(Left);
}

void Framework::Misuse(std::string Text) {
    std::lock_guard Hold(Books_);
    Violations_.push_back(std::move(Text));
}

void Framework::CheckAlive(FrameworkClass Class, unsigned Slot) {
    if (State(Class).Released.load(std::memory_order_relaxed)) {
        Misuse(fmt::format("slot {} of {} called after its last release", Slot, NameOf(Class)));
    }
}

std::vector<std::string> Framework::LeakReport() const {
    std::lock_guard Hold(Books_);
    std::vector<std::string> Lines;
    for (unsigned Index = 0; Index < FrameworkClassCount; Index++) {
        if (const LONG References = Classes_[Index].References; References != 0) {
            Lines.push_back(fmt::format("{}: {} references", ClassRows[Index].Name, References));
        }
    }
    for (const auto &Entry : Blocks_) {
        Lines.push_back(fmt::format("block of {} bytes from slot {}", Entry.second.Size, Entry.second.Slot));
    }
    for (const auto &Entry : Mutexes_) {
        Lines.push_back(fmt::format("mutex {}", Entry.first));
    }
    return Lines;
}

// ---- Faults --------------------------------------------------------------------------------------------------

void FrameworkProbe::FailCreate(FrameworkClass Class, RVPSTATUS Status, unsigned Nth) {
    std::lock_guard Hold(Of_.Books_);
    Of_.State(Class).Faults.push_back({Nth, Status, false});
}

void FrameworkProbe::AnswerCreate(FrameworkClass Class, RVPSTATUS Status, unsigned Nth) {
    std::lock_guard Hold(Of_.Books_);
    Of_.State(Class).Faults.push_back({Nth, Status, true});
}

void FrameworkProbe::BeforeCreate(FrameworkClass Class, std::function<void()> Action) {
    std::lock_guard Hold(Of_.Books_);
    Of_.State(Class).Before = std::move(Action);
}

void FrameworkProbe::FailAllocate(unsigned Nth) {
    std::lock_guard Hold(Of_.Books_);
    Of_.FailAllocateIn_ = Nth;
}

void FrameworkProbe::FailCreateMutex(RVPSTATUS Status, bool StoreHandle) {
    std::lock_guard Hold(Of_.Books_);
    Of_.CreateMutexFaults_.emplace_back(Status, StoreHandle);
}

void FrameworkProbe::FailAcquireMutex(RVPSTATUS Status) {
    std::lock_guard Hold(Of_.Books_);
    Of_.AcquireMutexFaults_.push_back(Status);
}

// ---- Reports -------------------------------------------------------------------------------------------------

std::vector<std::string> FrameworkProbe::Log() const {
    std::lock_guard Hold(Of_.Books_);
    return Of_.Log_;
}

void FrameworkProbe::ClearLog() {
    std::lock_guard Hold(Of_.Books_);
    Of_.Log_.clear();
}

LONG FrameworkProbe::References(FrameworkClass Class) const {
    return Of_.State(Class).References;
}

unsigned FrameworkProbe::CreateCount(FrameworkClass Class) const {
    std::lock_guard Hold(Of_.Books_);
    return Of_.State(Class).Creates;
}

unsigned FrameworkProbe::AllocationCount() const {
    std::lock_guard Hold(Of_.Books_);
    return Of_.Allocations_;
}

size_t FrameworkProbe::LiveBlocks() const {
    std::lock_guard Hold(Of_.Books_);
    return Of_.Blocks_.size();
}

size_t FrameworkProbe::LiveBytes() const {
    std::lock_guard Hold(Of_.Books_);
    size_t Bytes = 0;
    for (const auto &Entry : Of_.Blocks_) {
        Bytes += Entry.second.Size;
    }
    return Bytes;
}

size_t FrameworkProbe::LiveMutexes() const {
    std::lock_guard Hold(Of_.Books_);
    return Of_.Mutexes_.size();
}

std::vector<std::string> FrameworkProbe::Violations() const {
    std::lock_guard Hold(Of_.Books_);
    return Of_.Violations_;
}

} // namespace providers

NTKERNELAPI RVPSTATUS NTAPI ZelmCreateInstance(const GUID *Clsid, PVOID Outer, const GUID *Iid, PVOID *Out) {
    return providers::FrameworkEntries::Create(Clsid, Outer, Iid, Out);
}
