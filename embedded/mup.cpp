#include "embedded/mup.h"

#include <algorithm>
#include <mutex>
#include <optional>

#include "embedded/io/objects.h"
#include "embedded/probe.h"
#include "embedded/verifier/leaks.h"
#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

constexpr LONGLONG CacheLifetime = 15 * 60 * Clock::Second;
constexpr std::u16string_view MupName = u"\\Device\\Mup";

class MupObject final : public Object {
public:
    MupObject() : Object(ObjectType::Mup) {
    }
};

class ProviderObject final : public Object {
public:
    ProviderObject(Ref<DeviceObject> Of, std::u16string_view DeviceName, ULONG RegistrationFlags)
        : Object(ObjectType::UncProvider), Device(std::move(Of)), Name(DeviceName), Flags(RegistrationFlags) {
    }
    const Ref<DeviceObject> Device;
    const std::u16string Name;
    const ULONG Flags;
};

struct CachedPrefix {
    std::u16string Prefix;
    Ref<ProviderObject> Provider;
    LONGLONG Expires;
};

struct Mup {
    std::mutex Mutex;
    std::vector<Ref<ProviderObject>> Providers;
    std::vector<CachedPrefix> Cache;
    std::optional<NTSTATUS> FailNext;
};

Mup &TheMup() {
    static Mup &Instance = *new Mup;
    return Instance;
}

// Whether Prefix covers whole components of Path.
bool Covers(std::u16string_view Prefix, std::u16string_view Path) {
    return Path.size() >= Prefix.size() && EqualNames(Prefix, Path.substr(0, Prefix.size()), true) &&
           (Path.size() == Prefix.size() || Path[Prefix.size()] == u'\\');
}

Ref<ProviderObject> FindCached(std::u16string_view Path, ULONG *Bytes) {
    Mup &In = TheMup();
    const LONGLONG Now = Clock::InterruptTime();
    std::lock_guard Lock(In.Mutex);
    std::erase_if(In.Cache, [Now](const CachedPrefix &Each) { return Each.Expires <= Now; });
    const CachedPrefix *Best = nullptr;
    for (const CachedPrefix &Each : In.Cache) {
        if (Covers(Each.Prefix, Path) && (Best == nullptr || Each.Prefix.size() > Best->Prefix.size())) {
            Best = &Each;
        }
    }
    if (Best == nullptr) {
        return {};
    }
    *Bytes = static_cast<ULONG>(Best->Prefix.size() * sizeof(WCHAR));
    return Best->Provider;
}

void Remember(std::u16string_view Prefix, const Ref<ProviderObject> &Provider) {
    Mup &In = TheMup();
    const LONGLONG Expires = Clock::InterruptTime() + CacheLifetime;
    std::lock_guard Lock(In.Mutex);
    const auto Same = [&](const auto &Each) { return Each.Get() == Provider.Get(); };
    if (std::none_of(In.Providers.begin(), In.Providers.end(), Same)) {
        return; // deregistered while it was asked
    }
    for (CachedPrefix &Each : In.Cache) {
        if (EqualNames(Each.Prefix, Prefix, true)) {
            Each.Provider = Provider;
            Each.Expires = Expires;
            return;
        }
    }
    In.Cache.push_back({std::u16string(Prefix), Provider, Expires});
}

// Asks one provider: the status, and the bytes it claims.
NTSTATUS Ask(DeviceObject &Device, std::u16string_view Path, PIO_SECURITY_CONTEXT SecurityContext, ULONG *Bytes) {
    if (Device.DeletePending.load(std::memory_order_acquire)) {
        return STATUS_BAD_NETWORK_PATH;
    }
    QUERY_PATH_REQUEST_EX Request{};
    Request.pSecurityContext = SecurityContext;
    Request.PathName = ToUnicodeString(Path);
    QUERY_PATH_RESPONSE Response{};
    IrpBuilder Builder;
    Builder.MajorFunction = IRP_MJ_DEVICE_CONTROL;
    Builder.IrpFlags = IRP_SYNCHRONOUS_API;
    Builder.UserBuffer = &Response;
    Builder.TopLevelIrp = CurrentThread().TopLevelIrp;
    Builder.Fill = [&Request](PIO_STACK_LOCATION Stack) {
        Stack->Parameters.DeviceIoControl.IoControlCode = IOCTL_REDIR_QUERY_PATH_EX;
        Stack->Parameters.DeviceIoControl.InputBufferLength = sizeof(QUERY_PATH_REQUEST_EX);
        Stack->Parameters.DeviceIoControl.OutputBufferLength = sizeof(QUERY_PATH_RESPONSE);
        Stack->Parameters.DeviceIoControl.Type3InputBuffer = &Request;
    };
    const NTSTATUS Status = SendIrpAndWait(&Device.Nt, Builder).Status;
    // A claim of more than was asked for, or of half a character, is no claim.
    const bool Valid = NT_SUCCESS(Status) && Response.LengthAccepted != 0 &&
                       Response.LengthAccepted <= Path.size() * sizeof(WCHAR) && Response.LengthAccepted % 2 == 0;
    *Bytes = Valid ? Response.LengthAccepted : 0;
    return NT_SUCCESS(Status) && !Valid ? STATUS_BAD_NETWORK_PATH : Status;
}

// Asks every provider, in the order of registration; the longest claim wins, the first among equals.
PathClaim AskAll(std::u16string_view Path, PIO_SECURITY_CONTEXT SecurityContext, Ref<ProviderObject> *Winner) {
    std::vector<Ref<ProviderObject>> Providers;
    {
        Mup &In = TheMup();
        std::lock_guard Lock(In.Mutex);
        Providers = In.Providers;
    }
    PathClaim Claim{STATUS_BAD_NETWORK_PATH, 0, false};
    for (const Ref<ProviderObject> &Provider : Providers) {
        ULONG Bytes = 0;
        const NTSTATUS Status = Ask(*Provider->Device.Get(), Path, SecurityContext, &Bytes);
        if (Bytes > Claim.BytesClaimed) {
            Claim = {STATUS_SUCCESS, Bytes, false};
            *Winner = Provider;
        } else if (!*Winner && !NT_SUCCESS(Status) &&
                   (Claim.Status == STATUS_BAD_NETWORK_PATH || Status != STATUS_BAD_NETWORK_PATH)) {
            Claim.Status = Status;
        }
    }
    return Claim;
}

// An open's security context, for a question that no open stands behind.
struct OwnSecurityContext {
    OwnSecurityContext() {
        Context.AccessState = &State;
    }
    ACCESS_STATE State{};
    IO_SECURITY_CONTEXT Context{};
};

} // namespace

PathClaim QueryPathClaim(std::u16string_view Path) {
    OwnSecurityContext Security;
    Ref<ProviderObject> Winner;
    return AskAll(Path, &Security.Context, &Winner);
}

NTSTATUS ResolveUncPath(std::u16string_view Path, PIO_SECURITY_CONTEXT SecurityContext, Ref<DeviceObject> *Device,
                        PathClaim *Claim) noexcept {
    PathClaim Result{STATUS_SUCCESS, 0, true};
    Ref<ProviderObject> Provider = FindCached(Path, &Result.BytesClaimed);
    if (!Provider) {
        Result = AskAll(Path, SecurityContext, &Provider);
        if (Provider) {
            Remember(Path.substr(0, Result.BytesClaimed / sizeof(WCHAR)), Provider);
        }
    }
    if (Claim != nullptr) {
        *Claim = Result;
    }
    if (Provider) {
        *Device = Provider->Device;
    }
    return Result.Status;
}

Ref<DeviceObject> DeviceOfProvider(Object &Target) noexcept {
    return static_cast<ProviderObject &>(Target).Device;
}

void FailNextUncRegistration(NTSTATUS Status) noexcept {
    std::lock_guard Lock(TheMup().Mutex);
    TheMup().FailNext = Status;
}

std::vector<UncProviderInfo> RegisteredUncProviders() {
    std::lock_guard Lock(TheMup().Mutex);
    std::vector<UncProviderInfo> Result;
    for (const auto &Provider : TheMup().Providers) {
        Result.push_back({Provider->Name, Provider->Flags});
    }
    return Result;
}

std::vector<std::u16string> CachedUncPrefixes() {
    const LONGLONG Now = Clock::InterruptTime();
    std::lock_guard Lock(TheMup().Mutex);
    std::vector<std::u16string> Result;
    for (const CachedPrefix &Each : TheMup().Cache) {
        if (Each.Expires > Now) {
            Result.push_back(Each.Prefix);
        }
    }
    return Result;
}

void InitializeMup() {
    const auto Object = Ref<MupObject>::Adopt(new MupObject);
    static_cast<void>(InsertName(MupName, *Object.Get()));
    static_cast<void>(CreateSymbolicLink(u"\\??\\UNC", MupName));
    RegisterLeakCheck("UNC providers", [] {
        std::string Text;
        for (const UncProviderInfo &Each : RegisteredUncProviders()) {
            Text += "UNC provider " + std::string(Each.DeviceName.begin(), Each.DeviceName.end()) +
                    " is still registered\n";
        }
        return Text;
    });
}

void ResetMup() noexcept {
    std::vector<Ref<ProviderObject>> Providers; // dropped with no lock held
    std::vector<CachedPrefix> Cache;
    std::lock_guard Lock(TheMup().Mutex);
    Providers.swap(TheMup().Providers);
    Cache.swap(TheMup().Cache);
    TheMup().FailNext.reset();
}

} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI FsRtlRegisterUncProviderEx(PHANDLE MupHandle, PUNICODE_STRING RedirDevName, PDEVICE_OBJECT DeviceObject,
                                          ULONG Flags) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlRegisterUncProviderEx"));
    *MupHandle = nullptr;
    Mup &In = TheMup();
    {
        std::lock_guard Lock(In.Mutex);
        if (In.FailNext) {
            const NTSTATUS Status = *In.FailNext;
            In.FailNext.reset();
            return Status;
        }
    }
    auto Provider = Ref<ProviderObject>::Adopt(new ProviderObject(
        Ref<embedded::DeviceObject>::Share(embedded::DeviceObject::Of(DeviceObject)), View(RedirDevName), Flags));
    if (const NTSTATUS Status = InsertName(Provider->Name, *Provider.Get()); !NT_SUCCESS(Status)) {
        return Status;
    }
    const NTSTATUS Status = InsertHandle(*Provider.Get(), 0, OBJ_KERNEL_HANDLE, KernelMode, MupHandle);
    if (!NT_SUCCESS(Status)) {
        RemoveName(Provider->Name);
        return Status;
    }
    std::lock_guard Lock(In.Mutex);
    In.Providers.push_back(std::move(Provider));
    return STATUS_SUCCESS;
}

VOID NTAPI FsRtlDeregisterUncProvider(HANDLE Handle) noexcept {
    RequireIrql(IrqlRuleOf("FsRtlDeregisterUncProvider"));
    ObjectRef Target;
    if (!NT_SUCCESS(ReferenceHandle(Handle, ObjectType::UncProvider, 0, KernelMode, &Target))) {
        return;
    }
    RemoveName(static_cast<ProviderObject *>(Target.Get())->Name);
    std::vector<Ref<ProviderObject>> Removed;
    std::vector<CachedPrefix> Cache;
    {
        Mup &In = TheMup();
        std::lock_guard Lock(In.Mutex);
        Cache.swap(In.Cache);
        const auto End = std::stable_partition(In.Providers.begin(), In.Providers.end(),
                                               [&](const auto &Each) { return Each.Get() != Target.Get(); });
        Removed.assign(std::make_move_iterator(End), std::make_move_iterator(In.Providers.end()));
        In.Providers.erase(End, In.Providers.end());
    }
    static_cast<void>(CloseHandle(Handle, KernelMode));
}
