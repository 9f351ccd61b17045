#include <algorithm>
#include <mutex>
#include <new>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/io/objects.h"
#include "embedded/io/probe.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/rules.h"

namespace embedded {
namespace {

// Guards the drivers' device lists.
std::mutex &DeviceListMutex() {
    static std::mutex &Mutex = *new std::mutex;
    return Mutex;
}

std::atomic<size_t> Devices{0};

constexpr const char *MajorFunctionNames[] = {
    "IRP_MJ_CREATE",
    "IRP_MJ_CREATE_NAMED_PIPE",
    "IRP_MJ_CLOSE",
    "IRP_MJ_READ",
    "IRP_MJ_WRITE",
    "IRP_MJ_QUERY_INFORMATION",
    "IRP_MJ_SET_INFORMATION",
    "IRP_MJ_QUERY_EA",
    "IRP_MJ_SET_EA",
    "IRP_MJ_FLUSH_BUFFERS",
    "IRP_MJ_QUERY_VOLUME_INFORMATION",
    "IRP_MJ_SET_VOLUME_INFORMATION",
    "IRP_MJ_DIRECTORY_CONTROL",
    "IRP_MJ_FILE_SYSTEM_CONTROL",
    "IRP_MJ_DEVICE_CONTROL",
    "IRP_MJ_INTERNAL_DEVICE_CONTROL",
    "IRP_MJ_SHUTDOWN",
    "IRP_MJ_LOCK_CONTROL",
    "IRP_MJ_CLEANUP",
    "IRP_MJ_CREATE_MAILSLOT",
    "IRP_MJ_QUERY_SECURITY",
    "IRP_MJ_SET_SECURITY",
    "IRP_MJ_POWER",
    "IRP_MJ_SYSTEM_CONTROL",
    "IRP_MJ_DEVICE_CHANGE",
    "IRP_MJ_QUERY_QUOTA",
    "IRP_MJ_SET_QUOTA",
    "IRP_MJ_PNP",
};
static_assert(std::size(MajorFunctionNames) == IRP_MJ_MAXIMUM_FUNCTION + 1);

NTSTATUS NTAPI InvalidDeviceRequest(PDEVICE_OBJECT, PIRP Irp) {
    Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    Irp->IoStatus.Information = 0;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

void LinkDevice(DeviceObject &Device) {
    std::lock_guard Lock(DeviceListMutex());
    Device.Nt.NextDevice = Device.Nt.DriverObject->DeviceObject;
    Device.Nt.DriverObject->DeviceObject = &Device.Nt;
}

void UnlinkDevice(DeviceObject &Device) {
    std::lock_guard Lock(DeviceListMutex());
    PDEVICE_OBJECT *Link = &Device.Nt.DriverObject->DeviceObject;
    while (*Link != nullptr && *Link != &Device.Nt) {
        Link = &(*Link)->NextDevice;
    }
    if (*Link != nullptr) {
        *Link = Device.Nt.NextDevice;
    }
    Device.Nt.NextDevice = nullptr;
}

size_t DeleteDevices(PDRIVER_OBJECT Driver) {
    size_t Count = 0;
    for (; Driver->DeviceObject != nullptr; ++Count) {
        IoDeleteDevice(Driver->DeviceObject);
    }
    return Count;
}

} // namespace

const char *MajorFunctionName(UCHAR MajorFunction) noexcept {
    return MajorFunction <= IRP_MJ_MAXIMUM_FUNCTION ? MajorFunctionNames[MajorFunction] : "IRP_MJ_?";
}

DeviceObject *DeviceObject::Create(DriverRecord &Driver, ULONG ExtensionSize) noexcept {
    void *Memory =
        AllocatePool(PoolKind::Object, NonPagedPoolNx, sizeof(DeviceObject) + ExtensionSize, MakeTag("Devi"));
    if (Memory == nullptr) {
        return nullptr;
    }
    auto *Device = new (Memory) DeviceObject(Driver);
    DEVICE_OBJECT &Nt = Device->Nt;
    Nt.Type = IO_TYPE_DEVICE;
    Nt.Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + ExtensionSize);
    Nt.DriverObject = &Driver.Nt;
    Nt.Flags = DO_DEVICE_INITIALIZING;
    Nt.StackSize = 1;
    Nt.DeviceObjectExtension = Device;
    KeInitializeEvent(&Nt.DeviceLock, SynchronizationEvent, TRUE);
    if (ExtensionSize != 0) {
        Nt.DeviceExtension = reinterpret_cast<char *>(&Nt) + sizeof(DEVICE_OBJECT);
        memset(Nt.DeviceExtension, 0, ExtensionSize);
    }
    Devices.fetch_add(1, std::memory_order_relaxed);
    return Device;
}

void DeviceObject::OnLastReference() noexcept {
    Devices.fetch_sub(1, std::memory_order_relaxed);
    this->~DeviceObject();
    FreePool(PoolKind::Object, this, MakeTag("Devi"));
}

NTSTATUS DeviceObject::BeginOpen() noexcept {
    if (DeletePending.load(std::memory_order_acquire) || (Nt.Flags & DO_DEVICE_INITIALIZING)) {
        return STATUS_NO_SUCH_DEVICE;
    }
    const LONG Opens = InterlockedIncrement(&Nt.ReferenceCount);
    if ((Nt.Flags & DO_EXCLUSIVE) && Opens > 1) {
        InterlockedDecrement(&Nt.ReferenceCount);
        return STATUS_ACCESS_DENIED;
    }
    return STATUS_SUCCESS;
}

void DeviceObject::EndOpen() noexcept {
    InterlockedDecrement(&Nt.ReferenceCount);
}

size_t LiveDevices() noexcept {
    return Devices.load(std::memory_order_relaxed);
}

NTSTATUS LoadDriverObject(PDRIVER_INITIALIZE Initialize, std::u16string_view Name, PDRIVER_OBJECT *DriverObject,
                          const DriverPlace &Place) {
    auto Record = std::make_unique<DriverRecord>();
    Record->Name = u"\\FileSystem\\" + std::u16string(Name);
    Record->RegistryPath = u"\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\" + std::u16string(Name);
    DRIVER_OBJECT &Driver = Record->Nt;
    Driver.Type = IO_TYPE_DRIVER;
    Driver.Size = sizeof(DRIVER_OBJECT);
    Driver.DriverExtension = &Record->Extension;
    Driver.DriverName = ToUnicodeString(Record->Name);
    Driver.DriverInit = Initialize;
    Driver.DriverStart = Place.Start;
    Driver.DriverSize = Place.Size;
    Driver.DriverSection = Place.Section;
    Record->Extension.DriverObject = &Driver;
    std::fill(std::begin(Driver.MajorFunction), std::end(Driver.MajorFunction), InvalidDeviceRequest);

    UNICODE_STRING RegistryPath = ToUnicodeString(Record->RegistryPath);
    NTSTATUS Status;
    {
        AttachProcess Attached(SystemProcess());
        RequireUnchanged Unchanged(DriverCall::Other, "the driver's initialisation");
        FaultScope Faults;
        OnDriverStack([&] { Status = Initialize(&Driver, &RegistryPath); });
    }
    if (!NT_SUCCESS(Status)) {
        if (Driver.DeviceObject != nullptr) {
            BugCheck(bugcheck::Verifier, 0x60, reinterpret_cast<ULONG_PTR>(&Driver),
                     reinterpret_cast<ULONG_PTR>(Driver.DeviceObject), 0,
                     fmt::format("a driver whose initialisation failed (0x{:08X}) left a device behind",
                                 static_cast<ULONG>(Status)));
        }
        return Status;
    }
    for (PDEVICE_OBJECT Device = Driver.DeviceObject; Device != nullptr; Device = Device->NextDevice) {
        Device->Flags &= ~DO_DEVICE_INITIALIZING;
    }
    *DriverObject = &Record.release()->Nt;
    return Status;
}

size_t FreeDriverObject(PDRIVER_OBJECT DriverObject) noexcept {
    const size_t Left = DeleteDevices(DriverObject);
    delete CONTAINING_RECORD(DriverObject, DriverRecord, Nt);
    return Left;
}

void DereferenceDevice(PDEVICE_OBJECT Device) noexcept {
    DeviceObject::Of(Device)->Dereference();
}

const SECURITY_DESCRIPTOR *DeviceSecurity(PDEVICE_OBJECT Device) noexcept {
    return static_cast<const SECURITY_DESCRIPTOR *>(Device->SecurityDescriptor);
}

} // namespace embedded

using namespace embedded;

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                              ULONG DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PDEVICE_OBJECT *DeviceObject) noexcept {
    RequireIrql(IrqlRuleOf("IoCreateDevice"));
    *DeviceObject = nullptr;
    if (ShouldFail(FaultKind::Pool)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto Device = Ref<embedded::DeviceObject>::Adopt(
        embedded::DeviceObject::Create(*CONTAINING_RECORD(DriverObject, DriverRecord, Nt), DeviceExtensionSize));
    if (!Device) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Device->Nt.DeviceType = DeviceType;
    Device->Nt.Characteristics = DeviceCharacteristics;
    Device->Nt.Flags |= Exclusive ? DO_EXCLUSIVE : 0;
    if (DeviceName != nullptr && DeviceName->Length != 0) {
        Device->Name = View(DeviceName);
        if (const NTSTATUS Status = InsertName(Device->Name, *Device.Get()); !NT_SUCCESS(Status)) {
            return Status;
        }
    }
    LinkDevice(*Device.Get());
    *DeviceObject = &Device.Release()->Nt;
    return STATUS_SUCCESS;
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject) noexcept {
    RequireIrql(IrqlRuleOf("IoDeleteDevice"));
    embedded::DeviceObject &Device = *embedded::DeviceObject::Of(DeviceObject);
    if (Device.DeletePending.exchange(true, std::memory_order_acq_rel)) {
        BugCheck(bugcheck::IoVerifier, bugcheck::OwnRule, reinterpret_cast<ULONG_PTR>(DeviceObject), 0, 0,
                 "a device was deleted twice");
    }
    if (!Device.Name.empty()) {
        RemoveName(Device.Name);
    }
    UnlinkDevice(Device);
    Device.Dereference();
}

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) noexcept {
    RequireIrql(IrqlRuleOf("IoCreateSymbolicLink"));
    if (ShouldFail(FaultKind::Pool)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return CreateSymbolicLink(View(SymbolicLinkName), View(DeviceName));
}
