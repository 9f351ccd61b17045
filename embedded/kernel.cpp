#include "embedded/kernel.h"

#include <atomic>
#include <stdexcept>

#include <fmt/format.h>

#include "embedded/dbg.h"
#include "embedded/io/objects.h"
#include "embedded/loader/driver_image.h"
#include "embedded/mm/faults.h"
#include "embedded/mm/mm.h"
#include "embedded/mup.h"
#include "embedded/names/names.h"
#include "embedded/ps/ps.h"
#include "embedded/se/se.h"
#include "embedded/system_volume.h"
#include "embedded/verifier/leaks.h"
#include "embedded/verifier/locks.h"
#include "embedded/verifier/report.h"

namespace embedded {
namespace {

std::atomic<bool> Running{false};

} // namespace

Kernel::Kernel(KernelOptions Options) : Options_(std::move(Options)) {
    if (Running.exchange(true)) {
        throw std::logic_error("a kernel is running already");
    }
    WatchFaults();
    SetVerifierLevel(Options_.Verifier);
    SetDebugSink(Options_.DebugSink);
    SetSystemSize(Options_.SystemSize);
    if (Options_.Time == ClockMode::Manual) {
        Clock::SetManual(Options_.StartTime);
    } else {
        Clock::SetRunning();
    }
    ResetRegistry();
    CreateRegistryKey(kServiceKey);
    for (const RegistryDefault &Each : Options_.Registry) {
        SetRegistryDword(Each.Key, Each.Name, Each.Value);
    }
    InitializeIo();
    InitializeNameSpace();
    InitializeSystemVolume(Options_.SystemVolume);
    InitializeMup();
}

Kernel::~Kernel() {
    if (!Stopped_) {
        Stop();
    }
}

NTSTATUS Kernel::LoadDriver(PDRIVER_INITIALIZE Initialize, std::u16string_view Name) {
    if (Driver_ != nullptr) {
        throw std::logic_error("this kernel has its driver already");
    }
    return LoadDriverObject(Initialize, Name, &Driver_);
}

NTSTATUS Kernel::LoadDriver(DriverImage &Image, std::u16string_view Name) {
    if (Driver_ != nullptr) {
        throw std::logic_error("this kernel has its driver already");
    }
    Image_ = &Image;
    const DriverPlace Place = {Image.Base(), Image.Format().ImageSize, Image.Section()};
    const NTSTATUS Status = LoadDriverObject(Image.Entry(), Name, &Driver_, Place);
    if (NT_SUCCESS(Status)) {
        Image.DiscardStartSections();
    }
    return Status;
}

NTSTATUS Kernel::SendShutdown() {
    NTSTATUS Status = STATUS_SUCCESS;
    if (Driver_ == nullptr || std::exchange(ShutDown_, true)) {
        return Status;
    }
    // The list first: the driver may delete its devices while it serves the request.
    std::vector<Ref<DeviceObject>> Devices;
    for (PDEVICE_OBJECT Device = Driver_->DeviceObject; Device != nullptr; Device = Device->NextDevice) {
        Devices.push_back(Ref<DeviceObject>::Share(DeviceObject::Of(Device)));
    }
    for (const Ref<DeviceObject> &Device : Devices) {
        IrpBuilder Builder;
        Builder.MajorFunction = IRP_MJ_SHUTDOWN;
        Builder.IrpFlags = IRP_SYNCHRONOUS_API;
        Status = SendIrpAndWait(&Device->Nt, Builder).Status;
    }
    return Status;
}

size_t Kernel::CloseOpenHandles() noexcept {
    return CloseHandles(HandleSet::User);
}

std::string Kernel::Stop() {
    if (std::exchange(Stopped_, true)) {
        return {};
    }
    SendShutdown();
    StopSystemThreads();

    // As when processes exit: what they left open is closed while there is a driver to hear of it.
    std::string Left = DescribeOpenHandles();
    CloseHandles(HandleSet::All);
    if (Driver_ != nullptr) {
        if (const size_t Devices = FreeDriverObject(std::exchange(Driver_, nullptr)); Devices != 0) {
            Left += fmt::format("{} device(s) not deleted by the driver\n", Devices);
        }
    }
    Left += DescribeLeaks();
    if (DriverImage *Image = std::exchange(Image_, nullptr)) {
        for (const std::string &Line : PointersInto(*Image)) {
            Left += fmt::format("the image cannot be unmapped: {}\n", Line);
        }
    }
    if (!Left.empty() && Verifying()) {
        BugCheck(bugcheck::Verifier, bugcheck::LeakAtUnload, 0, 0, 0, "left behind when the kernel stopped:\n" + Left);
    }
    ResetMup();
    ResetNameSpace();
    ResetSecurity();
    ResetSystemVolume();
    ResetRegistry();
    SetIoObserver({});
    SetIoTap(nullptr);
    SetDebugSink({});
    ResetLockOrder();
    if (Options_.ResetDriverImage) {
        Options_.ResetDriverImage();
    }
    Clock::SetRunning();
    Running.store(false);
    return Left;
}

} // namespace embedded
