// One kernel: boots the rooms, loads a driver, shuts down, and proves that nothing is left.
//
// One at a time per process; the rooms' state is process-wide and starts afresh with each object of this class. The
// thread that made the kernel stops it. Stop blocks until the system threads have ended.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "embedded/cm.h"
#include "embedded/ke/ke.h"
#include "embedded/verifier/report.h"
#include "kernel/kernel.h"

namespace embedded {

class DriverImage;

struct RegistryDefault {
    std::u16string Key;
    std::u16string Name;
    ULONG Value;
};

enum class ClockMode { Running, Manual };

// 2025-01-01 00:00 UTC, where a manual clock starts.
inline constexpr LONGLONG DefaultStartTime = 133'801'632'000'000'000;

struct KernelOptions {
    std::vector<RegistryDefault> Registry;
    ClockMode Time = ClockMode::Manual;
    LONGLONG StartTime = DefaultStartTime; // of a manual clock
    VerifierLevel Verifier = VerifierLevel::On;
    MM_SYSTEMSIZE SystemSize = MmMediumSystem;
    // Where \??\C:\ leads: a host directory, or memory.
    std::optional<std::filesystem::path> SystemVolume;
    // Receives what drivers print; empty: stderr.
    std::function<void(std::string_view)> DebugSink;
    // Puts the static storage of a driver that is linked in back to what it was before its first start; called when
    // the kernel has stopped. A driver loaded as an image needs none.
    std::function<void()> ResetDriverImage;
};

class Kernel {
public:
    explicit Kernel(KernelOptions Options = {});
    // Stops the kernel if it was not stopped.
    ~Kernel();
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    // Runs the driver's initialisation; its status. Name is the service's ("RVFSD"). One driver per kernel.
    NTSTATUS LoadDriver(PDRIVER_INITIALIZE Initialize, std::u16string_view Name);
    // The same for a loaded image, which must live until the kernel has stopped. Stop then also proves that nothing
    // points into it any more.
    NTSTATUS LoadDriver(DriverImage &Image, std::u16string_view Name);
    // Null before LoadDriver and when it failed.
    PDRIVER_OBJECT Driver() const noexcept {
        return Driver_;
    }
    // The driver's first device, or null.
    PDEVICE_OBJECT Device() const noexcept {
        return Driver_ == nullptr ? nullptr : Driver_->DeviceObject;
    }

    // Sends IRP_MJ_SHUTDOWN to each device of the driver. Returns the last status. Only once; later calls do nothing
    // and return STATUS_SUCCESS.
    NTSTATUS SendShutdown();

    // Shutdown, end of all system threads, then the proof: whatever handle, file object, request, device, pool block
    // or lock is left stops the process with the list of them when the verifier is on (bug check 0xC4 0x62), and is
    // returned as text, one line each, otherwise.
    std::string Stop();

    // For a front end that ends in the middle: user handles that are still open are closed, as when a process exits,
    // and how many they were is returned. To be called before Stop.
    size_t CloseOpenHandles() noexcept;

private:
    KernelOptions Options_;
    PDRIVER_OBJECT Driver_ = nullptr;
    DriverImage *Image_ = nullptr;
    bool ShutDown_ = false;
    bool Stopped_ = false;
};

} // namespace embedded
