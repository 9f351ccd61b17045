// A driver that exists for tests of the loader: it raises, catches, cleans up, leaks and fails in the ways a kernel
// image can, compiled exactly as RVFSD.sys is. It is in no package.
#include "kernel/kernel.h"

#define PROBE extern "C" __attribute__((noinline)) NTSTATUS NTAPI

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT, PUNICODE_STRING) {
    return STATUS_SUCCESS;
}

// What a test reads back: each step adds a digit.
extern "C" {
ULONG ProbeSteps = 0;
extern const char ProbeText[];
const char ProbeText[] = "a constant";
const char *volatile ProbePointer = ProbeText; // a relocation
}

static void Step(ULONG Digit) {
    ProbeSteps = ProbeSteps * 10 + Digit;
}

// Frames between the raise and the handler, which have no handlers themselves and save registers on the way.
static __attribute__((noinline)) ULONG64 Deep(ULONG Depth, NTSTATUS Status, ULONG64 A, ULONG64 B, ULONG64 C) {
    if (Depth == 0) {
        ExRaiseStatus(Status);
        return 0;
    }
    const ULONG64 Below = Deep(Depth - 1, Status, B + Depth, C ^ A, A * 3);
    return Below + A + B * 5 + C;
}

PROBE ProbeCatch(NTSTATUS Status) {
    __try {
        ExRaiseStatus(Status);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}

PROBE ProbeCatchFromTheDepth(ULONG Depth, NTSTATUS Status) {
    __try {
        Deep(Depth, Status, 1, 2, 3);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}

static LONG Takes(NTSTATUS Code, NTSTATUS Wanted) {
    Step(1);
    return Code == Wanted ? EXCEPTION_EXECUTE_HANDLER : EXCEPTION_CONTINUE_SEARCH;
}

// The inner handler takes Wanted only; the outer one the rest.
PROBE ProbeFilter(NTSTATUS Status, NTSTATUS Wanted) {
    __try {
        __try {
            ExRaiseStatus(Status);
        } __except (Takes(GetExceptionCode(), Wanted)) {
            Step(2);
            return GetExceptionCode();
        }
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        Step(3);
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}

static __attribute__((noinline)) void CleansUp(NTSTATUS Status) {
    __try {
        __try {
            ExRaiseStatus(Status);
        } __finally {
            Step(4);
        }
    } __finally {
        Step(5);
    }
}

// What has to run at the end runs after the filters and before the handler, innermost first.
PROBE ProbeFinally(NTSTATUS Status, NTSTATUS Wanted) {
    __try {
        CleansUp(Status);
    } __except (Takes(GetExceptionCode(), Wanted)) {
        Step(6);
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}

// Registers that calls preserve hold the same after the catch: six numbers and six floating-point ones live across
// it.
PROBE ProbeRegisters(PULONG64 Numbers, double *Values) {
    const ULONG64 A = Numbers[0], B = Numbers[1], C = Numbers[2], D = Numbers[3], E = Numbers[4], F = Numbers[5];
    const double P = Values[0], Q = Values[1], R = Values[2], S = Values[3], T = Values[4], U = Values[5];
    const NTSTATUS Caught = ProbeCatchFromTheDepth(5, STATUS_ACCESS_VIOLATION);
    Numbers[6] = A + B * 2 + C * 3 + D * 4 + E * 5 + F * 6;
    Values[6] = P + Q * 2 + R * 3 + S * 4 + T * 5 + U * 6;
    return Caught;
}

// Writes over the stack below its caller's frame.
static __attribute__((noinline)) ULONG Overwrite(ULONG Value) {
    volatile ULONG Much[128];
    for (ULONG Index = 0; Index < 128; ++Index) {
        Much[Index] = Value;
    }
    return Much[Value % 128];
}

// A frame that moves its stack pointer, whose unwinding goes by a frame register: what it holds below is there after
// the catch, and calls do not overwrite it. Returns the bytes that are spoiled, or the code.
PROBE ProbeMovingFrame(ULONG Bytes, NTSTATUS Status) {
    volatile char *Room = static_cast<volatile char *>(__builtin_alloca(Bytes));
    for (ULONG Index = 0; Index < Bytes; ++Index) {
        Room[Index] = static_cast<char>(Index);
    }
    NTSTATUS Caught = STATUS_SUCCESS;
    __try {
        Deep(3, Status, Bytes, 2, 3);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        Caught = GetExceptionCode();
    }
    Step(Overwrite(9));
    NTSTATUS Spoiled = 0;
    for (ULONG Index = 0; Index < Bytes; ++Index) {
        Spoiled += Room[Index] != static_cast<char>(Index);
    }
    return Spoiled != 0 ? Spoiled : Caught;
}

// Touches memory as no driver may.
PROBE ProbeTouch(PULONG Address) {
    Step(*const_cast<volatile ULONG *>(Address));
    return STATUS_SUCCESS;
}

// Has a service touch it.
PROBE ProbeFill(PVOID Address, SIZE_T Bytes) {
    memset(Address, 0, Bytes);
    Step(9);
    return STATUS_SUCCESS;
}

// Needs more stack than there is.
static __attribute__((noinline)) ULONG TakeStack(ULONG Depth) {
    volatile ULONG Much[128];
    Much[Depth % 128] = Depth;
    return Depth == 0xFFFFFFFF ? 0 : TakeStack(Depth + 1) + Much[Depth % 128];
}
PROBE ProbeTakeStack() {
    return static_cast<NTSTATUS>(TakeStack(0));
}

PROBE ProbeDivide(ULONG Value) {
    return static_cast<NTSTATUS>(1000 / *const_cast<volatile ULONG *>(&Value));
}

PROBE ProbeTrap() {
    __builtin_trap();
}

PROBE ProbeBreak() {
    asm volatile("int3");
    return STATUS_SUCCESS;
}

// What user memory raises.
PROBE ProbeMemory(PVOID Address, SIZE_T Length, ULONG Alignment) {
    __try {
        ProbeForRead(Address, Length, Alignment);
        ProbeForWrite(Address, Length, Alignment);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return GetExceptionCode();
    }
    return STATUS_SUCCESS;
}

static LONG FlagsOf(EXCEPTION_POINTERS *Pointers, PULONG Flags) {
    *Flags = Pointers->ExceptionRecord->ExceptionFlags;
    return EXCEPTION_EXECUTE_HANDLER;
}

// The record's flags, which a filter sees.
PROBE ProbeFlags(NTSTATUS Status) {
    ULONG Flags = 0;
    __try {
        ExRaiseStatus(Status);
    } __except (FlagsOf(GetExceptionInformation(), &Flags)) {
        return static_cast<NTSTATUS>(Flags);
    }
    return STATUS_SUCCESS;
}

PROBE ProbeUncaught(ULONG Depth, NTSTATUS Status) {
    return static_cast<NTSTATUS>(Deep(Depth, Status, 1, 2, 3));
}

// Allocates for the caller, who is named when the block is never freed.
static __attribute__((noinline)) PVOID AllocateInTheDepth(SIZE_T Bytes) {
    PVOID Block = ExAllocatePoolWithTag(NonPagedPoolNx, Bytes, 0x626F7250);
    Step(7);
    return Block;
}

PROBE ProbeAllocate(PVOID *Block) {
    *Block = AllocateInTheDepth(24);
    Step(8);
    return STATUS_SUCCESS;
}

PROBE ProbeFree(PVOID Block) {
    ExFreePoolWithTag(Block, 0);
    return STATUS_SUCCESS;
}

// ---- Requests, locks and threads --------------------------------------------------------------------------------

static VOID NTAPI CancelPended(PDEVICE_OBJECT, PIRP Irp) {
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    Irp->IoStatus.Status = STATUS_CANCELLED;
    IofCompleteRequest(Irp, 0);
}

// A dispatch routine that keeps its request until it is cancelled.
PROBE ProbePend(PDEVICE_OBJECT, PIRP Irp) {
    IoMarkIrpPending(Irp);
    IoSetCancelRoutine(Irp, CancelPended);
    return STATUS_PENDING;
}

PROBE ProbeComplete(PIRP Irp) {
    IofCompleteRequest(Irp, 0);
    Step(1);
    return STATUS_SUCCESS;
}

PROBE ProbeTakeLocks(PKSPIN_LOCK SpinLock, PERESOURCE Exclusive, PERESOURCE Shared, PKIRQL Old) {
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(Exclusive, TRUE);
    ExAcquireResourceSharedLite(Shared, TRUE);
    *Old = KeAcquireSpinLockRaiseToDpc(SpinLock);
    return STATUS_SUCCESS;
}

PROBE ProbeWait(PKEVENT Event, PLARGE_INTEGER Timeout) {
    const NTSTATUS Status = KeWaitForSingleObject(Event, Executive, KernelMode, FALSE, Timeout);
    Step(2);
    return Status;
}

// Also a thread that ends itself.
PROBE ProbeEndThread(PVOID) {
    const NTSTATUS Status = PsTerminateSystemThread(STATUS_SUCCESS);
    Step(3);
    return Status;
}
