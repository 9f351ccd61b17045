// System services: object attributes, registry, time, security descriptors, the multiple UNC provider.
#pragma once

#include "kernel/linux/io_request.h"

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_CASE_INSENSITIVE 0x00000040
#define OBJ_KERNEL_HANDLE 0x00000200

#define InitializeObjectAttributes(P, N, A, R, S)                                                                      \
    do {                                                                                                               \
        (P)->Length = sizeof(OBJECT_ATTRIBUTES);                                                                       \
        (P)->RootDirectory = (R);                                                                                      \
        (P)->Attributes = (A);                                                                                         \
        (P)->ObjectName = (N);                                                                                         \
        (P)->SecurityDescriptor = (S);                                                                                 \
        (P)->SecurityQualityOfService = nullptr;                                                                       \
    } while (0)

typedef struct _QUERY_PATH_REQUEST_EX {
    PIO_SECURITY_CONTEXT pSecurityContext;
    ULONG EaLength;
    PVOID pEaBuffer;
    UNICODE_STRING PathName;
    UNICODE_STRING DomainServiceName;
    ULONG_PTR Reserved[3];
} QUERY_PATH_REQUEST_EX, *PQUERY_PATH_REQUEST_EX;

typedef struct _QUERY_PATH_RESPONSE {
    ULONG LengthAccepted;
} QUERY_PATH_RESPONSE, *PQUERY_PATH_RESPONSE;

#define IOCTL_REDIR_QUERY_PATH_EX 0x00140193
#define FSCTL_GET_COMPRESSION 0x0009003C
#define FSCTL_SET_COMPRESSION 0x0009C040

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueBasicInformation,
    KeyValueFullInformation,
    KeyValuePartialInformation,
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;

typedef struct _KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset; // from the start of the record
    ULONG DataLength;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_VALUE_FULL_INFORMATION, *PKEY_VALUE_FULL_INFORMATION;

#define KEY_READ 0x00020019

#define REG_NONE 0
#define REG_SZ 1
#define REG_BINARY 3
#define REG_DWORD 4

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

typedef struct _TIME_FIELDS {
    CSHORT Year;
    CSHORT Month;
    CSHORT Day;
    CSHORT Hour;
    CSHORT Minute;
    CSHORT Second;
    CSHORT Milliseconds;
    CSHORT Weekday;
} TIME_FIELDS, *PTIME_FIELDS;

typedef struct _SECURITY_DESCRIPTOR {
    UCHAR Revision;
    UCHAR Sbz1;
    USHORT Control;
    PVOID Owner;
    PVOID Group;
    PVOID Sacl;
    PVOID Dacl;
} SECURITY_DESCRIPTOR;

typedef ULONG SECURITY_INFORMATION;
#define SECURITY_DESCRIPTOR_REVISION 1
#define DACL_SECURITY_INFORMATION 0x00000004
