// Cancel-safe queues.
#pragma once

#include "kernel/linux/io_request.h"

#define IO_TYPE_CSQ_IRP_CONTEXT 1
#define IO_TYPE_CSQ 2
#define IO_TYPE_CSQ_EX 3

typedef struct _IO_CSQ IO_CSQ, *PIO_CSQ;

typedef struct _IO_CSQ_IRP_CONTEXT {
    ULONG Type;
    PIRP Irp;
    PIO_CSQ Csq;
} IO_CSQ_IRP_CONTEXT, *PIO_CSQ_IRP_CONTEXT;

typedef VOID(NTAPI *PIO_CSQ_INSERT_IRP)(PIO_CSQ Csq, PIRP Irp);
typedef NTSTATUS(NTAPI *PIO_CSQ_INSERT_IRP_EX)(PIO_CSQ Csq, PIRP Irp, PVOID InsertContext);
typedef VOID(NTAPI *PIO_CSQ_REMOVE_IRP)(PIO_CSQ Csq, PIRP Irp);
typedef PIRP(NTAPI *PIO_CSQ_PEEK_NEXT_IRP)(PIO_CSQ Csq, PIRP Irp, PVOID PeekContext);
typedef VOID(NTAPI *PIO_CSQ_ACQUIRE_LOCK)(PIO_CSQ Csq, PKIRQL Irql);
typedef VOID(NTAPI *PIO_CSQ_RELEASE_LOCK)(PIO_CSQ Csq, KIRQL Irql);
typedef VOID(NTAPI *PIO_CSQ_COMPLETE_CANCELED_IRP)(PIO_CSQ Csq, PIRP Irp);

struct _IO_CSQ {
    ULONG Type;
    PIO_CSQ_INSERT_IRP CsqInsertIrp;
    PIO_CSQ_REMOVE_IRP CsqRemoveIrp;
    PIO_CSQ_PEEK_NEXT_IRP CsqPeekNextIrp;
    PIO_CSQ_ACQUIRE_LOCK CsqAcquireLock;
    PIO_CSQ_RELEASE_LOCK CsqReleaseLock;
    PIO_CSQ_COMPLETE_CANCELED_IRP CsqCompleteCanceledIrp;
    PVOID ReservePointer;
};
