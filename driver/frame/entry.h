// The entry routines: one shape, a table of the entries and their differences.
//
// NtFsdServe is the road of every request from the dispatch table to its common routine: count it in, bind the
// framework, refuse a cancelled IRP, enter a critical region, take the top-level slot if free, decode the file object,
// make the IrpContext, run the common routine. What deviates stands in the entry's row.
#pragma once

#include "frame/irp_context.h"

enum ENTRY_FLAGS : UCHAR {
    ENTRY_BINDS = 0x1,        // the framework must be bound
    ENTRY_TESTS_CANCEL = 0x2, // a cancelled IRP is refused
    ENTRY_MUST_RUN = 0x4,     // never refused for want of memory or for cancellation: it would never come again
    ENTRY_DECODES = 0x8,      // the file object is decoded, with OpenType
    ENTRY_RETURN_RUN = 0x10,  // the returning line begins with the run of the entry line
};

struct ENTRY {
    UCHAR MajorFunction;
    UCHAR Flags;
    USHORT OpenType; // required of the FCB; 0 = any
    ULONG Mask;      // of the lines other than the entry line
    PCSTR Name;
    NTSTATUS (*Common)(PIRP_CONTEXT IrpContext);

    // Deviations; NULL where the entry has none. One that answers TRUE has completed the IRP with *Status.
    bool (*Unbound)(PIRP Irp, NTSTATUS *Status);                  // instead of the refusal of an unbound framework
    bool (*AfterCancelTest)(PIRP Irp, NTSTATUS *Status);          // before the critical region
    bool (*InRegion)(PIRP Irp, bool Cancelled, NTSTATUS *Status); // before the IrpContext is made
    void (*BeforeDecode)(PIRP Irp);
    NTSTATUS (*MapDecode)(NTSTATUS Status); // the decode's status as the entry sees it
    bool (*AfterDecode)(PIRP Irp, NTSTATUS *Status);
    void (*BeforeCommon)(PIRP_CONTEXT IrpContext);
};

// Fills DriverObject's dispatch table.
void NtFsdFillDispatchTable(PDRIVER_OBJECT DriverObject);

// Runs the common routine of the context's major function; the context and its IRP are gone afterwards.
NTSTATUS NtFsdRunCommonRoutine(PIRP_CONTEXT IrpContext);

// Completes Irp outside the context machinery.
NTSTATUS NtFsdCompleteAtOnce(PIRP Irp, NTSTATUS Status, ULONG_PTR Information, CCHAR PriorityBoost);

NTSTATUS NTAPI NtFsdCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdClose(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdRead(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdQueryEa(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdSetEa(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdFlushBuffers(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdQueryInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdQueryVolumeInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdDirectoryControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdFileSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdShutdown(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdLockControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI NtFsdCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp);
