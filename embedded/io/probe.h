// What tests look at and plant: file objects and devices behind handles, requests under way.
#pragma once

#include <string_view>

#include "embedded/io/io.h"

namespace embedded {

// ---- File objects and devices ------------------------------------------------------------------------------

// A file object for Device without a create request: contexts and flags are the caller's business. Name is copied
// into pool. It belongs to the caller, who drops it with DereferenceFileObject. With SendsClose the last reference
// sends IRP_MJ_CLOSE as for an opened file.
PFILE_OBJECT CreateFileObject(PDEVICE_OBJECT Device, std::u16string_view Name, ULONG Flags, bool SendsClose = false);
void ReferenceFileObject(PFILE_OBJECT FileObject) noexcept;
void DereferenceFileObject(PFILE_OBJECT FileObject) noexcept;
// The file object behind a handle, with a reference for the caller; null when the handle is not a file's.
PFILE_OBJECT FileObjectFromHandle(HANDLE Handle) noexcept;
void DereferenceDevice(PDEVICE_OBJECT Device) noexcept;
// The descriptor that NtSetSecurityObject stored on the device, or null.
const SECURITY_DESCRIPTOR *DeviceSecurity(PDEVICE_OBJECT Device) noexcept;

// ---- Raw requests ------------------------------------------------------------------------------------------

// A request that was sent. Owns the IRP until it is completed; destroying it waits for the completion.
class SentIrp {
public:
    SentIrp(SentIrp &&Other) noexcept;
    SentIrp &operator=(SentIrp &&) = delete;
    ~SentIrp();

    // What the dispatch routine returned.
    NTSTATUS Returned() const noexcept {
        return Returned_;
    }
    bool IsCompleted() const noexcept;
    // Waits for the completion and returns what the request was completed with.
    IO_STATUS_BLOCK Wait() noexcept;
    // The priority boost of the completion; waits for it.
    CCHAR PriorityBoost() noexcept;
    // IoCancelIrp: true when a cancel routine ran.
    bool Cancel() noexcept;
    // Cancels and lets the clock run for at most Limit (100 ns units); a request that is not completed by then is bug
    // check 0xC4 (0x135).
    void CancelWithin(LONGLONG Limit) noexcept;
    PIRP Irp() const noexcept;

private:
    friend SentIrp SendIrp(PDEVICE_OBJECT Device, const IrpBuilder &Builder);
    SentIrp(struct IrpBlock *Block, NTSTATUS Returned) noexcept : Block_(Block), Returned_(Returned) {
    }

    struct IrpBlock *Block_;
    NTSTATUS Returned_;
};

// Sends one request to Device, to the driver's own table.
SentIrp SendIrp(PDEVICE_OBJECT Device, const IrpBuilder &Builder);

} // namespace embedded
