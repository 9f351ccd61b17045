// The IrpContext: the record that carries one request from its entry routine to its completion.
//
// Records come from a lookaside list, from pool when the list yields nothing. The common routine that is given a
// context completes the request (NtFsdCompleteRequest) or posts it (frame/async_queue.h); after either the context and
// the IRP are gone for it.
#pragma once

#include "frame/memory.h"
#include "provider/provider_interface.h"

enum IRP_CONTEXT_FLAGS : ULONG {
    IRP_CONTEXT_FLAG_FROM_POOL = 0x1, // freed to pool, never enters the list
    IRP_CONTEXT_FLAG_WAIT = 0x2,      // the request may block
    IRP_CONTEXT_FLAG_WRITE_THROUGH = 0x4,
    IRP_CONTEXT_FLAG_RECURSIVE_CALL = 0x10, // the IRP is not the thread's top-level IRP
    IRP_CONTEXT_FLAG_DEFERRED_WRITE = 0x40,
    IRP_CONTEXT_FLAG_VERIFY_READ = 0x80,
    IRP_CONTEXT_STACK_IO_CONTEXT = 0x100,
    IRP_CONTEXT_FLAG_IN_FSP = 0x200,
    IRP_CONTEXT_FLAG_USER_IO = 0x400,
    IRP_CONTEXT_FLAG_FCB_ACQUIRED = 0x4000,
    IRP_CONTEXT_FLAG_LOCK_COMPLETION_POSTED = 0x8000,
    IRP_CONTEXT_FLAG_FCB_RELEASED = 0x10000,
    IRP_CONTEXT_FLAG_ANSWER_CANCELLED = 0x40000000, // a cancelled cleanup or close: done, and answered STATUS_CANCELLED
    // The record lives in the frame of its routine (NtFsdMakeFrameContext).
    IRP_CONTEXT_FLAG_IN_FRAME = 0x20000000,
};

enum USER_BUFFER_FLAGS : ULONG {
    USER_BUFFER_MDL_ALLOCATED = 0x1, // the driver allocated the IRP's MDL
    USER_BUFFER_PAGES_LOCKED = 0x2,  // the driver locked the MDL's pages
};

// A lock that may wait, until the server is told of it (io/lock_table.h).
enum LOCK_STATE : ULONG {
    LOCK_STATE_ENTERED = 0x1,  // in LockRequests
    LOCK_STATE_GRANTED = 0x2,  // the library has granted it
    LOCK_STATE_REVOKED = 0x4,  // an unlock has taken it away again
    LOCK_STATE_DOUBTFUL = 0x8, // an unlock came while it was being decided: the table knows
};

inline constexpr USHORT NODE_TYPE_IRP_CONTEXT = 0x7700;

extern KSPIN_LOCK g_LockRequestsLock BEHIND(BelowLeaves) BEFORE(BelowSpinLocks); // io/lock_table.cpp

struct IRP_CONTEXT {
    USHORT NodeTypeCode;
    SHORT NodeByteSize;
    PIRP Irp; // NULL for a context made for an internal operation
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    ULONG Flags;
    RV_SECURITY_CONTEXT SecurityContext; // its address is the first argument of every Provider operation
    ULONG SecurityContextLength;
    PEPROCESS OriginatingProcess;
    LARGE_INTEGER LockLength;
    PFILE_OBJECT FileObject;
    ULONG_PTR Information; // completion stores it into the IRP
    ULONG UserBufferFlags;
    LIST_ENTRY ChangedWaiters; // taken by NtFsdNotifyChange; completed before this request is. Flink NULL: none
    LIST_ENTRY LockLinks UNDER(g_LockRequestsLock); // in the FCB's LockRequests, while LockState says so
    PMDL UserBufferMdl;                             // that UserBufferFlags describe
    ULONG LockState UNDER(g_LockRequestsLock);      // LOCK_STATE
    UCHAR Reserved[32];

    BOOLEAN MayWait() const {
        return static_cast<BOOLEAN>((Flags >> 1) & 1);
    }
};
typedef IRP_CONTEXT *PIRP_CONTEXT;

static_assert(sizeof(IRP_CONTEXT) == 168);
static_assert(offsetof(IRP_CONTEXT, NodeByteSize) == 2 && offsetof(IRP_CONTEXT, Irp) == 8);
static_assert(offsetof(IRP_CONTEXT, MajorFunction) == 16 && offsetof(IRP_CONTEXT, MinorFunction) == 17);
static_assert(offsetof(IRP_CONTEXT, Flags) == 20 && offsetof(IRP_CONTEXT, SecurityContext) == 24);
static_assert(offsetof(IRP_CONTEXT, SecurityContextLength) == 40 && offsetof(IRP_CONTEXT, OriginatingProcess) == 48);
static_assert(offsetof(IRP_CONTEXT, LockLength) == 56 && offsetof(IRP_CONTEXT, FileObject) == 64);
static_assert(offsetof(IRP_CONTEXT, Information) == 72 && offsetof(IRP_CONTEXT, UserBufferFlags) == 80);

extern NPAGED_LOOKASIDE_LIST g_IrpContextLookasideList;

// Makes the context of Irp (which may be NULL). Wait says whether the request may block; it is set regardless while
// asynchronous I/O is off. Returns NULL when no memory can be had, or no identity of the caller: the framework must be
// bound.
PIRP_CONTEXT NtFsdCreateIrpContext(PIRP Irp, BOOLEAN Wait);

// Makes a context of Irp (which may be NULL) in Frame, a record in the caller's frame: for what may not fail for want
// of memory. A request with this context may block. The context ends with the frame, so it is never queued. Returns
// Frame.
PIRP_CONTEXT NtFsdMakeFrameContext(IRP_CONTEXT &Frame, PIRP Irp);

// Requires that IrpContext lives until its request is completed. Each road that keeps one beyond its routine asks.
inline VOID NtFsdRequireKept(const IRP_CONTEXT *IrpContext) {
    NtFsdRequire(!(IrpContext->Flags & IRP_CONTEXT_FLAG_IN_FRAME));
}

VOID NtFsdDeleteIrpContext(PIRP_CONTEXT IrpContext);

// Completes Irp with Status and the context's Information (priority boost 1) and deletes the context. Either may be
// NULL. A final status of STATUS_PENDING becomes STATUS_UNSUCCESSFUL, as a finished request cannot be pending, and so
// does -1, which is no request's status. Returns the status that the request was completed with; neither argument may
// be touched afterwards.
NTSTATUS NtFsdCompleteRequest(PIRP_CONTEXT IrpContext, PIRP Irp, NTSTATUS Status);

// Completes Irp outside the context machinery.
NTSTATUS NtFsdCompleteAtOnce(PIRP Irp, NTSTATUS Status, ULONG_PTR Information, CCHAR PriorityBoost);

// Makes Irp the thread's top-level IRP and returns TRUE when there is none; the caller resets it.
BOOLEAN NtFsdIsIrpTopLevel(PIRP Irp);

// ---- A file object's flags: other threads' requests on it read them while one sets some --------------------------

inline ULONG NtFsdFileFlags(const FILE_OBJECT *FileObject) {
    return __atomic_load_n(&FileObject->Flags, __ATOMIC_RELAXED);
}
inline void NtFsdSetFileFlags(PFILE_OBJECT FileObject, ULONG Flags) {
    if ((NtFsdFileFlags(FileObject) & Flags) != Flags) {
        __atomic_fetch_or(&FileObject->Flags, Flags, __ATOMIC_RELAXED);
    }
}

// ---- User buffers ------------------------------------------------------------------------------------------------

// A system address of the IRP's data buffer: through its MDL, or the user buffer itself when there is no MDL. NULL when
// the MDL cannot be mapped: the caller completes with STATUS_INSUFFICIENT_RESOURCES.
PVOID NtFsdMapUserBuffer(PIRP_CONTEXT IrpContext);

// Gives the IRP an MDL over its user buffer of Length bytes with locked pages. Operation is IoWriteAccess when the
// driver will write into the buffer. Returns STATUS_INSUFFICIENT_RESOURCES or the code of the exception that the probe
// raised.
NTSTATUS NtFsdLockUserBuffer(PIRP_CONTEXT IrpContext, LOCK_OPERATION Operation, ULONG Length);

// Undoes what NtFsdLockUserBuffer did, by UserBufferFlags. An MDL that came with the IRP is left alone.
VOID NtFsdUnlockUserBuffer(PIRP_CONTEXT IrpContext);

// A locked user buffer, undone when the scope ends (which must be before the request is completed).
class [[nodiscard]] UserBufferLock {
public:
    explicit UserBufferLock(PIRP_CONTEXT IrpContext) : IrpContext_(IrpContext) {
    }
    UserBufferLock(const UserBufferLock &) = delete;
    UserBufferLock &operator=(const UserBufferLock &) = delete;
    ~UserBufferLock() {
        Undo();
    }
    void Undo() {
        if (IrpContext_ != nullptr) {
            NtFsdUnlockUserBuffer(IrpContext_);
            IrpContext_ = nullptr;
        }
    }

private:
    PIRP_CONTEXT IrpContext_;
};
