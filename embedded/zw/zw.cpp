#include "embedded/zw/zw.h"

#include <cstring>

#include "embedded/io/objects.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/rules.h"
#include "embedded/verifier/zw_rules.h"

namespace embedded {
namespace {

// Threads have handles of their own.
NTSTATUS CloseAny(HANDLE Handle, KPROCESSOR_MODE Mode) {
    if (IsThreadHandle(Handle)) {
        return CloseThreadHandle(Handle) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
    }
    return CloseHandle(Handle, Mode);
}

} // namespace

NTSTATUS CreateEventHandle(EVENT_TYPE Type, bool Signalled, HANDLE *Handle) noexcept {
    const auto Event = Ref<EventObject>::Adopt(new EventObject(Type, Signalled));
    return InsertHandle(*Event.Get(), FILE_ALL_ACCESS, 0, PreviousMode(), Handle);
}

} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI NtClose(HANDLE Handle) noexcept {
    RequireIrql(IrqlRuleOf("NtClose"));
    return CloseAny(Handle, PreviousMode());
}

NTSTATUS NTAPI ZwClose(HANDLE Handle) noexcept {
    RequireIrql(IrqlRuleOf("ZwClose"));
    return CloseAny(Handle, KernelMode);
}

NTSTATUS NTAPI NtWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) noexcept {
    if (IsThreadHandle(Handle)) {
        const PKTHREAD Thread = ThreadOfHandle(Handle);
        return Thread == nullptr ? STATUS_INVALID_HANDLE
                                 : KeWaitForSingleObject(Thread, Executive, KernelMode, Alertable, Timeout);
    }
    ObjectRef Target;
    if (const NTSTATUS Status = ReferenceHandle(Handle, ObjectType::Any, 0, PreviousMode(), &Target);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    PKEVENT Event = nullptr;
    if (Target->Type() == ObjectType::Event) {
        Event = &static_cast<EventObject *>(Target.Get())->Event;
    } else if (Target->Type() == ObjectType::File) {
        Event = &static_cast<FileObject *>(Target.Get())->Nt.Event;
    }
    return Event == nullptr ? STATUS_OBJECT_TYPE_MISMATCH
                            : KeWaitForSingleObject(Event, Executive, KernelMode, Alertable, Timeout);
}

NTSTATUS NTAPI NtSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                                   PSECURITY_DESCRIPTOR SecurityDescriptor) noexcept {
    RequireIrql(IrqlRuleOf("NtSetSecurityObject"));
    ObjectRef Target;
    ACCESS_MASK Granted = 0;
    if (const NTSTATUS Status = ReferenceHandle(Handle, ObjectType::File, 0, PreviousMode(), &Target, &Granted);
        !NT_SUCCESS(Status)) {
        return Status;
    }
    if (SecurityInformation != DACL_SECURITY_INFORMATION) {
        return STATUS_NOT_IMPLEMENTED;
    }
    // Checked for kernel callers too: a driver that forgets the access would fail under another caller.
    if (!(Granted & WRITE_DAC)) {
        return STATUS_ACCESS_DENIED;
    }
    FileObject &File = *static_cast<FileObject *>(Target.Get());
    if (File.Nt.FileName.Length != 0) {
        return STATUS_NOT_IMPLEMENTED; // the security of files is not simulated, only that of the device
    }
    DeviceObject &Device = *File.Device.Get();
    memcpy(&Device.Security, SecurityDescriptor, sizeof(SECURITY_DESCRIPTOR));
    __atomic_store_n(&Device.Nt.SecurityDescriptor, &Device.Security, __ATOMIC_RELEASE);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass, PVOID SystemInformation,
                                        ULONG SystemInformationLength, PULONG ReturnLength) noexcept {
    RequireIrql(IrqlRuleOf("ZwQuerySystemInformation"));
    CheckZwPointers("ZwQuerySystemInformation", static_cast<char *>(SystemInformation), ReturnLength);
    if (SystemInformationClass != SystemTimeOfDayInformation) {
        return STATUS_INVALID_INFO_CLASS;
    }
    // The class gives as much as fits; more room than the record has is a mistake.
    if (SystemInformationLength > sizeof(SYSTEM_TIMEOFDAY_INFORMATION)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    SYSTEM_TIMEOFDAY_INFORMATION Information{};
    Information.BootTime.QuadPart = Clock::BootTime();
    Information.CurrentTime.QuadPart = Clock::SystemTime();
    LARGE_INTEGER Local;
    ExSystemTimeToLocalTime(&Information.CurrentTime, &Local);
    Information.TimeZoneBias.QuadPart = Information.CurrentTime.QuadPart - Local.QuadPart;
    memcpy(SystemInformation, &Information, SystemInformationLength);
    if (ReturnLength != nullptr) {
        *ReturnLength = SystemInformationLength;
    }
    return STATUS_SUCCESS;
}
