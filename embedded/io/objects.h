// The I/O manager's own records behind the platform's: device, file object, request, driver. For the rooms of this
// kernel only; front ends and tests use io.h.
//
// A request is one block: the bookkeeping, the IRP, its stack locations. Its state word decides who finishes it: the
// completer sets Completed, the caller of the driver sets Returned, and the second of the two finishes an asynchronous
// request or has the waiter of a synchronous one woken. Blocks are kept per thread; none is ever given back to the
// host, so that a completion that comes twice still finds a block to name.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "embedded/io/io.h"
#include "embedded/ke/ke.h"
#include "embedded/names/names.h"

namespace embedded {

struct DriverRecord;

class DeviceObject final : public Object {
public:
    // The object with its extension behind it; null when there is no memory.
    static DeviceObject *Create(DriverRecord &Driver, ULONG ExtensionSize) noexcept;
    static DeviceObject *Of(PDEVICE_OBJECT Device) noexcept {
        return static_cast<DeviceObject *>(Device->DeviceObjectExtension);
    }

    // STATUS_NO_SUCH_DEVICE once the device is deleted or while it initialises; counts the open otherwise.
    NTSTATUS BeginOpen() noexcept;
    void EndOpen() noexcept;

    DriverRecord *const Driver;
    std::u16string Name;
    std::atomic<bool> DeletePending{false};
    SECURITY_DESCRIPTOR Security{};
    alignas(16) DEVICE_OBJECT Nt{}; // last: the extension follows it

private:
    explicit DeviceObject(DriverRecord &Of) : Object(ObjectType::Device), Driver(&Of) {
    }
    void OnLastReference() noexcept override;
};

class FileObject final : public Object {
public:
    // Names it (a copy in pool) and counts it as an open of Device; null when there is no memory.
    static FileObject *Create(Ref<DeviceObject> Device, std::u16string_view Name, ULONG Flags) noexcept;
    static FileObject *Of(PFILE_OBJECT File) noexcept {
        return static_cast<FileObject *>(File->FileObjectExtension);
    }

    // The driver sets some while others are read.
    ULONG Flags() const noexcept {
        return __atomic_load_n(&Nt.Flags, __ATOMIC_RELAXED);
    }
    bool IsSynchronous() const noexcept {
        return (Flags() & FO_SYNCHRONOUS_IO) != 0;
    }
    // The order of requests on a synchronous file: one at a time.
    void Lock() noexcept;
    void Unlock() noexcept;

    const Ref<DeviceObject> Device;
    bool Opened = false; // the driver accepted it: cleanup and close are owed
    bool Listed = false; // among those that FilePointersInto looks at
    FILE_OBJECT Nt{};

private:
    explicit FileObject(Ref<DeviceObject> Of) : Object(ObjectType::File), Device(std::move(Of)) {
    }
    void OnLastHandleClosed() noexcept override;
    void OnLastReference() noexcept override;
};

class EventObject final : public Object {
public:
    EventObject(EVENT_TYPE Type, bool Signalled) : Object(ObjectType::Event) {
        KeInitializeEvent(&Event, Type, Signalled);
    }
    KEVENT Event;
};

struct DriverRecord {
    DRIVER_OBJECT Nt{};
    DRIVER_EXTENSION Extension{};
    std::u16string Name;
    std::u16string RegistryPath;
};

inline constexpr CCHAR MaximumStackSize = 7;

struct IrpBlock {
    enum : uint32_t { InUse = 1, Dispatched = 2, Completing = 4, Completed = 8, Returned = 16, Cancelling = 32 };
    static constexpr uint32_t SignatureValue = 0x50524945;

    uint32_t Signature = SignatureValue;
    std::atomic<uint32_t> State{0};

    // Set by whoever makes the request.
    bool Asynchronous;        // nobody waits: the second of completer and caller finishes the block
    FileObject *File;         // a reference of the request's own, for an asynchronous one
    EventObject *UserEvent;   // likewise
    PIO_STATUS_BLOCK Iosb;    // of the caller, written when an asynchronous request finishes
    DeviceObject *HeldDevice; // a raw request's reference
    UCHAR MajorFunction;      // and Code: what was asked
    ULONG Code;
    PEPROCESS Process;  // of the thread that made the request
    PMDL CallersMdl;    // the driver must leave it
    PVOID SystemBuffer; // pool of the request's own
    ULONG SystemBufferSize;
    ULONG Garbage; // what its bytes from GarbageFrom on were filled with; 0: nothing
    ULONG GarbageFrom;
    PVOID CopyTo;             // Information bytes of SystemBuffer go here
    ULONG CopyLimit;          // ... and never more than this
    LARGE_INTEGER LockLength; // what Parameters.LockControl.Length points to

    const KThread *Dispatcher; // the thread that calls the driver

    // Written by the completer.
    NTSTATUS FinalStatus;
    CCHAR PriorityBoost;
    bool MarkedPending;
    ULONG_PTR FinalInformation;
    PVOID CompletedFrom;

    NTSTATUS ReturnedStatus; // of the dispatch routine
    int64_t StartTime;       // only while requests are observed
    bool MustWait;           // the caller has to wait for Done before it touches the block again
    KEVENT Done;             // initialised only when somebody has to wait
    IrpBlock *NextOfAll;

    alignas(16) IRP Irp;
    IO_STACK_LOCATION Stack[MaximumStackSize + 1];

    static IrpBlock *Of(PIRP Irp) noexcept {
        return reinterpret_cast<IrpBlock *>(reinterpret_cast<char *>(Irp) - offsetof(IrpBlock, Irp));
    }
    bool IsCompleted() const noexcept {
        return (State.load(std::memory_order_acquire) & Completed) != 0;
    }
};

// A zeroed IRP for Device whose current stack location is the driver's. With Filter there is one more location above.
IrpBlock *AllocateIrp(DeviceObject &Device, bool Filter = false) noexcept;
// Gives the block back; one that the driver still has is bug check 0xC9 (0x20A).
void FreeIrp(IrpBlock *Block) noexcept;

// A completed IRP belongs to nobody: touching it is an error that AddressSanitizer reports and that a pattern makes
// visible without it.
void NTAPI PoisonIrp(IrpBlock &Block) noexcept;
// Stops with bug check 0xC9 and Rule, for Block.
[[noreturn]] void ReportIrp(ULONG_PTR Rule, const IrpBlock &Block, ULONG_PTR P3, std::string_view What);

struct IrpDeleter {
    void operator()(IrpBlock *Block) const noexcept {
        FreeIrp(Block);
    }
};
using IrpHolder = std::unique_ptr<IrpBlock, IrpDeleter>;

// Calls the driver's dispatch routine and checks what it leaves behind. Returns what it returned. Afterwards the block
// of an asynchronous request may be gone.
NTSTATUS CallDriver(DeviceObject &Device, IrpBlock &Block) noexcept;

// Gives the caller the bytes of the system buffer that the driver says it wrote. The request ended without an error.
void CopyAnswer(const IrpBlock &Block);

// Waits until a request that was sent is completed.
void WaitForIrp(IrpBlock &Block) noexcept;

// CallDriver, then the wait. Returns the final status.
NTSTATUS CallDriverAndWait(DeviceObject &Device, IrpBlock &Block) noexcept;

// The cancel spin lock is taken; runs the cancel routine. True when there was one.
bool CancelIrp(IrpBlock &Block) noexcept;

// The requests that are in a driver's hands, one line each.
std::string DescribeIrps();
size_t LiveDevices() noexcept;

// A line for each aligned word that points between Low and High of the requests in use, with their stack locations, and
// of the file objects that were made while Verifying(). Called when no driver code runs.
std::vector<std::string> IrpPointersInto(const void *Low, const void *High);
std::vector<std::string> FilePointersInto(const void *Low, const void *High);

// Adds the I/O manager's leak checks to the verifier's.
void InitializeIo();

} // namespace embedded
