// Memory: MDLs and how they are mapped.
#pragma once

#include "kernel/linux/executive.h"

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;
typedef enum _LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess } LOCK_OPERATION;
typedef enum _MEMORY_CACHING_TYPE { MmNonCached, MmCached, MmWriteCombined } MEMORY_CACHING_TYPE;
typedef enum _MM_PAGE_PRIORITY { LowPagePriority, NormalPagePriority = 16, HighPagePriority = 32 } MM_PAGE_PRIORITY;
typedef enum _MM_SYSTEMSIZE { MmSmallSystem, MmMediumSystem, MmLargeSystem } MM_SYSTEMSIZE;

typedef struct _MDL {
    struct _MDL *Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PEPROCESS Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MDL_WRITE_OPERATION 0x0080
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)

#define PAGE_SIZE 0x1000
