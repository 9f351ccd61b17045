// Basic types of the platform with their 64-bit Windows sizes, for the Linux build.
#pragma once

#include "kernel/lock_rules.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

// Every kernel service and every callback carries the Windows x64 calling convention, so that the embedded
// kernel serves the natively linked driver and the loaded image alike.
#define NTAPI __attribute__((ms_abi))
#define FASTCALL NTAPI
#define NTKERNELAPI extern "C"
// Marks what other modules take from the driver; here they are linked with it.
#define DECLSPEC_EXPORT

// Every variable of the driver stands in one section, so that the program can start the driver afresh in the same
// process, as loading the image anew would.
#define DRIVER_GLOBAL __attribute__((section("rvfsd_data")))

#define IN
#define OUT
#define OPTIONAL

// A string literal in the platform's 16-bit characters.
#define WTEXT_(Literal) u##Literal
#define WTEXT(Literal) WTEXT_(Literal)

typedef void VOID;
typedef void *PVOID;
typedef char CHAR;
typedef char CCHAR;
typedef signed char SCHAR;
typedef unsigned char UCHAR;
typedef unsigned char BYTE;
typedef int16_t SHORT;
typedef int16_t CSHORT;
typedef uint16_t USHORT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef int64_t LONG64;
typedef uint64_t ULONG64;
typedef ULONG64 *PULONG64;
typedef LONG64 *PLONG64;
typedef int32_t INT;
typedef uint32_t UINT;
typedef int64_t LONG_PTR;
typedef uint64_t ULONG_PTR;
typedef uint64_t SIZE_T;
typedef UCHAR BOOLEAN;
typedef char16_t WCHAR;
typedef CHAR *PCHAR;
typedef const CHAR *PCSTR;
typedef CHAR *PSTR;
typedef WCHAR *PWSTR;
typedef WCHAR *PWCH;
typedef const WCHAR *PCWSTR;
typedef UCHAR *PUCHAR;
typedef USHORT *PUSHORT;
typedef LONG *PLONG;
typedef ULONG *PULONG;
typedef LONGLONG *PLONGLONG;
typedef ULONGLONG *PULONGLONG;
typedef ULONG_PTR *PULONG_PTR;
typedef SIZE_T *PSIZE_T;
typedef BOOLEAN *PBOOLEAN;
typedef PVOID HANDLE;
typedef HANDLE *PHANDLE;
typedef LONG NTSTATUS;
typedef UCHAR KIRQL;
typedef KIRQL *PKIRQL;
typedef ULONG ACCESS_MASK;
typedef ACCESS_MASK *PACCESS_MASK;
typedef LONG KPRIORITY;
typedef CCHAR KPROCESSOR_MODE;
typedef ULONG_PTR KSPIN_LOCK IS_LOCK("spin lock");
typedef KSPIN_LOCK *PKSPIN_LOCK;
typedef ULONG_PTR KAFFINITY;
typedef ULONG_PTR ERESOURCE_THREAD;

#define TRUE ((BOOLEAN)1)
#define FALSE ((BOOLEAN)0)

#define UNREFERENCED_PARAMETER(Parameter) ((void)(Parameter))
#define FIELD_OFFSET(Type, Field) ((LONG)offsetof(Type, Field))
#define CONTAINING_RECORD(Address, Type, Field) ((Type *)((PCHAR)(Address)-offsetof(Type, Field)))
#define RTL_NUMBER_OF(Array) (sizeof(Array) / sizeof((Array)[0]))

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _LUID {
    ULONG LowPart;
    LONG HighPart;
} LUID, *PLUID;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID;

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY *Flink;
    struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY *Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

static inline void InitializeListHead(PLIST_ENTRY Head) {
    Head->Flink = Head->Blink = Head;
}

static inline BOOLEAN IsListEmpty(const LIST_ENTRY *Head) {
    return Head->Flink == Head;
}

static inline BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = Entry->Flink;
    PLIST_ENTRY Blink = Entry->Blink;
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return Flink == Blink;
}

static inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY Head) {
    PLIST_ENTRY Entry = Head->Flink;
    RemoveEntryList(Entry);
    return Entry;
}

static inline void InsertTailList(PLIST_ENTRY Head, PLIST_ENTRY Entry) {
    PLIST_ENTRY Blink = Head->Blink;
    Entry->Flink = Head;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    Head->Blink = Entry;
}

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))

static inline LONG InterlockedIncrement(volatile LONG *Value) {
    return __atomic_add_fetch(Value, 1, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedDecrement(volatile LONG *Value) {
    return __atomic_sub_fetch(Value, 1, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedExchange(volatile LONG *Value, LONG New) {
    return __atomic_exchange_n(Value, New, __ATOMIC_SEQ_CST);
}
