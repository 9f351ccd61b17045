// Executive and kernel core: what is opaque to the driver, dispatcher objects, locks, lookaside lists.
#pragma once

#include "kernel/linux/base.h"

// Opaque to the driver.
typedef struct _EPROCESS *PEPROCESS;
typedef struct _KTHREAD *PKTHREAD;
typedef struct _KTHREAD *PETHREAD;
typedef struct _OBJECT_TYPE *POBJECT_TYPE;
typedef struct _OBJECT_HANDLE_INFORMATION *POBJECT_HANDLE_INFORMATION;
typedef struct _REAL_NOTIFY_SYNC *PNOTIFY_SYNC;
typedef PVOID PSECURITY_DESCRIPTOR;
typedef struct _VPB *PVPB;

struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _FILE_OBJECT;
struct _IRP;
struct _IO_STACK_LOCATION;
struct _FAST_IO_DISPATCH;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

typedef struct IS_LOCK("event") _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT;

typedef struct _FAST_MUTEX {
    LONG Count;
    PVOID Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

#define FM_LOCK_BIT 0x1

typedef struct _OWNER_ENTRY {
    ERESOURCE_THREAD OwnerThread;
    ULONG TableSize; // shares its place with the owner count
    ULONG Reserved;
} OWNER_ENTRY, *POWNER_ENTRY;

typedef struct IS_LOCK("resource") _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    POWNER_ENTRY OwnerTable;
    SHORT ActiveCount;
    USHORT Flag;
    PVOID SharedWaiters;
    PVOID ExclusiveWaiters;
    OWNER_ENTRY OwnerEntry;
    ULONG ActiveEntries;
    ULONG ContentionCount;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
    PVOID Reserved2;
    PVOID Address;
    KSPIN_LOCK SpinLock;
} ERESOURCE, *PERESOURCE;

typedef union _SLIST_HEADER {
    struct {
        ULONGLONG Alignment;
        ULONGLONG Region;
    };
} __attribute__((aligned(16))) SLIST_HEADER, *PSLIST_HEADER;

typedef struct _SLIST_ENTRY {
    struct _SLIST_ENTRY *Next;
} __attribute__((aligned(16))) SLIST_ENTRY, *PSLIST_ENTRY;

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolNx = 512,
} POOL_TYPE;

typedef PVOID(NTAPI *PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef VOID(NTAPI *PFREE_FUNCTION)(PVOID Buffer);

typedef struct __attribute__((aligned(64))) _NPAGED_LOOKASIDE_LIST {
    struct {
        SLIST_HEADER ListHead;
        USHORT Depth;
        USHORT MaximumDepth;
        ULONG TotalAllocates;
        ULONG AllocateMisses;
        ULONG TotalFrees;
        ULONG FreeMisses;
        POOL_TYPE Type;
        ULONG Tag;
        ULONG Size;
        PALLOCATE_FUNCTION Allocate;
        PFREE_FUNCTION Free;
        LIST_ENTRY ListEntry;
        ULONG LastTotalAllocates;
        ULONG LastAllocateMisses;
        ULONG Future[2];
    } L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

typedef enum _KWAIT_REASON { Executive } KWAIT_REASON;
