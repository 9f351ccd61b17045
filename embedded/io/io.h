// I/O manager: drivers, devices, file objects, IRPs and their completion.
//
// What a front end needs: raw requests, the log of completed requests. Every call into a driver goes through
// CallDriver, which compares the thread's state before and after and runs each request through its state machine;
// violations are bug checks with the Verifier's numbers. A request that pends is waited for through the kernel's clock.
// No lock of the I/O manager is held across a driver call.
#pragma once

#include <functional>
#include <string_view>

#include "embedded/ob/ob.h"
#include "kernel/kernel.h"

namespace embedded {

// ---- The log of requests -----------------------------------------------------------------------------------

// One completed request. The views are valid during the call of the observer only.
struct CompletedRequest {
    const IRP *Irp; // tells it from the others that are under way; not to be looked into
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    ULONG Code; // the control code or the information class, 0 where the request has none
    PFILE_OBJECT FileObject;
    std::u16string_view FileName;
    NTSTATUS Status;
    ULONG_PTR Information;
    int64_t Nanoseconds; // from the call of the driver to the completion, wall clock
};

// Called in the completing thread for every request, at whatever IRQL it completes; it must not call the kernel. An
// empty function turns the log off. Not to be changed while requests are running.
using IoObserver = std::function<void(const CompletedRequest &)>;
void SetIoObserver(IoObserver Observer);

// What watches requests on their way, in the thread where each thing happens and at whatever IRQL; it must not call the
// kernel. A request that pends is completed in another thread than it was sent in, or later in the same.
class IoTap {
public:
    virtual ~IoTap() = default;
    // Before the driver is called. The stack location is the driver's.
    virtual void Sent(const IRP *Irp, const IO_STACK_LOCATION &Location) noexcept = 0;
    virtual void Completed(const CompletedRequest &Request) noexcept = 0;
    // The driver's dispatch routine is back, with STATUS_PENDING when the request is under way or was posted.
    virtual void Returned(const IRP *Irp, NTSTATUS Status) noexcept = 0;
};
// Null takes it away. May be called while requests are under way: those may be told in part, and some may still be told
// to a tap that was taken away, which therefore stays until the kernel has stopped.
void SetIoTap(IoTap *Tap) noexcept;

// File objects that anybody still refers to.
size_t LiveFileObjects() noexcept;

// Handles of the driver's files, and how many file control blocks they share.
struct OpenFiles {
    size_t Handles = 0;
    size_t ControlBlocks = 0;
};
OpenFiles CountOpenFiles();

// "IRP_MJ_READ" and so on; "IRP_MJ_?" above the last function.
const char *MajorFunctionName(UCHAR MajorFunction) noexcept;

// ---- Drivers -----------------------------------------------------------------------------------------------

// Makes a driver object of that name, every entry of whose table answers STATUS_INVALID_DEVICE_REQUEST, and runs its
// initialisation in the system process. When that fails the driver object is gone again (its devices too: a device
// left behind by a failed start is bug check 0xC4 0x60). *DriverObject is set on success.
// Place tells where the driver lies in memory; all null for one that is linked in.
struct DriverPlace {
    PVOID Start = nullptr;
    ULONG Size = 0; // bytes
    PVOID Section = nullptr;
};
NTSTATUS LoadDriverObject(PDRIVER_INITIALIZE Initialize, std::u16string_view Name, PDRIVER_OBJECT *DriverObject,
                          const DriverPlace &Place = {});

// Frees a driver object; devices that it left are deleted and counted into the result.
size_t FreeDriverObject(PDRIVER_OBJECT DriverObject) noexcept;

// ---- File objects ------------------------------------------------------------------------------------------

// NtClose for callers that must know what became of it, which the platform tells nobody: the failure of the close
// request, or else of the cleanup request, that closing Handle made this thread send. Requests that come later, since
// somebody else still refers to the file, are not told.
NTSTATUS CloseHandleTelling(HANDLE Handle) noexcept;

// ---- Raw requests ------------------------------------------------------------------------------------------

// A request to be made. Fill, when given, gets the stack location after the members below were stored in it.
struct IrpBuilder {
    UCHAR MajorFunction = 0;
    UCHAR MinorFunction = 0;
    PFILE_OBJECT FileObject = nullptr;
    ULONG IrpFlags = 0;
    UCHAR StackFlags = 0;
    KPROCESSOR_MODE RequestorMode = KernelMode;
    bool CancelledBefore = false;
    // An MDL of the caller's own: the driver must leave it on the request.
    PMDL Mdl = nullptr;
    PVOID UserBuffer = nullptr;
    PVOID SystemBuffer = nullptr;
    LARGE_INTEGER AllocationSize = {};
    // The thread's top-level IRP during the call.
    PIRP TopLevelIrp = nullptr;
    // With a routine the request is sent as a filter driver above would send it.
    PIO_COMPLETION_ROUTINE CompletionRoutine = nullptr;
    PVOID CompletionContext = nullptr;
    std::function<void(PIO_STACK_LOCATION)> Fill;
    // Gets the IRP before it is sent, for who cancels it meanwhile.
    PIRP *Made = nullptr;
};

// Sends the request to Device, to the driver's own table, waits and returns the final status block.
IO_STATUS_BLOCK SendIrpAndWait(PDEVICE_OBJECT Device, const IrpBuilder &Builder);

} // namespace embedded

// A service for callers of the kernel, as a driver above would be one: cancels Irp as the I/O manager does when a
// thread ends or a caller asks for it. TRUE when the request had a cancel routine, which then has run.
NTKERNELAPI BOOLEAN NTAPI IoCancelIrp(PIRP Irp) noexcept;
