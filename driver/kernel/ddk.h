// The DDK with its fix-ups: what the Windows build sees as kernel/kernel.h.
//
// Names, types and calling convention are those of kernel/linux; where the mingw DDK lacks a name or holds it as an
// inline that reads processor registers, it is declared here as an import. Nothing else of the driver knows the DDK.
#pragma once

// Defined by the compiler's intrinsics and by the DDK alike; the DDK's stay.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

// Newer compilers announce there that a part of it has gone.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-W#warnings"
#include <intrin.h>
#pragma clang diagnostic pop

// Inlines that read cr8 or the gs segment. The kernel exports the same services: the inlines step aside under another
// name, and the imports are declared below. The ones without an import stay out of reach.
#define KeGetCurrentIrql DdkInline_KeGetCurrentIrql
#define KeLowerIrql DdkInline_KeLowerIrql
#define KfRaiseIrql DdkInline_KfRaiseIrql
#define KeRaiseIrqlToDpcLevel DdkInline_KeRaiseIrqlToDpcLevel
#define KeRaiseIrqlToSynchLevel DdkInline_KeRaiseIrqlToSynchLevel
#define KeGetCurrentThread DdkInline_KeGetCurrentThread
#define PsGetCurrentThread DdkInline_PsGetCurrentThread
#define KeGetCurrentProcessorNumber DdkInline_KeGetCurrentProcessorNumber

// The address of an import is known when the image is loaded, and no constant may hold it. These two stand in a
// constant table: they are declared below as ordinary functions, which the linker resolves to a jump to the import.
#define FsRtlCopyRead DdkImport_FsRtlCopyRead
#define FsRtlCopyWrite DdkImport_FsRtlCopyWrite

#include <ntifs.h>

#undef FsRtlCopyRead
#undef FsRtlCopyWrite
#undef KeGetCurrentIrql
#undef KeLowerIrql
#undef KfRaiseIrql
#undef KeRaiseIrql
#undef KeRaiseIrqlToDpcLevel
#undef KeRaiseIrqlToSynchLevel
#undef KeGetCurrentThread
#undef PsGetCurrentThread
#undef KeGetCurrentProcessorNumber

// Macros that read the shared user page at its fixed address.
#undef KeQuerySystemTime
#undef KeQueryTickCount
#undef KeQueryInterruptTime

// An empty macro with the name of a constant that the driver may want.
#undef NOTHING

#include <stddef.h>
#include <string.h>

// A freestanding compiler calls these even for a few bytes whose number it knows. Under their other names it copies
// such in place, and calls for the rest. Never inside a __try, where calls alone are guarded.
#define memcpy __builtin_memcpy
#define memmove __builtin_memmove
#define memset __builtin_memset
#define memcmp __builtin_memcmp

// The DDK wraps its declarations in one extern "C" block; the driver's own imports stand alone.
#undef NTKERNELAPI
#define NTKERNELAPI extern "C" __declspec(dllimport)

// The exports are listed in the image's module definition file, so that a stray export cannot slip in.
#undef DECLSPEC_EXPORT
#define DECLSPEC_EXPORT

// The section of the driver's variables matters only where the driver can be started afresh without loading it anew.
#define DRIVER_GLOBAL

// A string literal in the platform's 16-bit characters.
#define WTEXT_(Literal) L##Literal
#define WTEXT(Literal) WTEXT_(Literal)

// Names that these headers are too old for.
#ifndef FILE_SESSION_AWARE
#define FILE_SESSION_AWARE 0x00040000
#endif
#ifndef FILE_ATTRIBUTE_INTEGRITY_STREAM
#define FILE_ATTRIBUTE_INTEGRITY_STREAM 0x00008000
#endif

typedef unsigned char BYTE;
typedef unsigned int UINT;
typedef unsigned long DWORD;

typedef enum _SYSTEM_INFORMATION_CLASS { SystemTimeOfDayInformation = 3 } SYSTEM_INFORMATION_CLASS;

typedef struct _SYSTEM_TIMEOFDAY_INFORMATION {
    LARGE_INTEGER BootTime;
    LARGE_INTEGER CurrentTime;
    LARGE_INTEGER TimeZoneBias;
    ULONG TimeZoneId;
    ULONG Reserved;
    ULONGLONG BootTimeBias;
    ULONGLONG SleepTimeBias;
} SYSTEM_TIMEOFDAY_INFORMATION, *PSYSTEM_TIMEOFDAY_INFORMATION;

NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql();
NTKERNELAPI PKTHREAD NTAPI KeGetCurrentThread();
NTKERNELAPI VOID NTAPI KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime);
NTKERNELAPI ULONG64 NTAPI KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp);
NTKERNELAPI NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass,
                                                    PVOID SystemInformation, ULONG SystemInformationLength,
                                                    PULONG ReturnLength);

extern "C" BOOLEAN NTAPI FsRtlCopyRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                                       ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                                       PDEVICE_OBJECT DeviceObject);
extern "C" BOOLEAN NTAPI FsRtlCopyWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                                        ULONG LockKey, PVOID Buffer, PIO_STATUS_BLOCK IoStatus,
                                        PDEVICE_OBJECT DeviceObject);
