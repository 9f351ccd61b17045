// NTSTATUS values by name. NTSTATUS_LIST is the one list: the constants come from it, and so do the names that
// the program prints.
#pragma once

#include "kernel/linux/base.h"

#define NTSTATUS_LIST(X)                                                                                               \
    X(STATUS_SUCCESS, 0x00000000)                                                                                      \
    X(STATUS_TIMEOUT, 0x00000102)                                                                                      \
    X(STATUS_PENDING, 0x00000103)                                                                                      \
    X(STATUS_REPARSE, 0x00000104)                                                                                      \
    X(STATUS_MORE_ENTRIES, 0x00000105)                                                                                 \
    X(STATUS_NOT_ALL_ASSIGNED, 0x00000106)                                                                             \
    X(STATUS_NOTIFY_CLEANUP, 0x0000010B)                                                                               \
    X(STATUS_NOTIFY_ENUM_DIR, 0x0000010C)                                                                              \
    X(STATUS_NO_QUOTAS_FOR_ACCOUNT, 0x0000010D)                                                                        \
    X(STATUS_REPARSE_OBJECT, 0x00000118)                                                                               \
    X(STATUS_GUARD_PAGE_VIOLATION, 0x80000001)                                                                         \
    X(STATUS_DATATYPE_MISALIGNMENT, 0x80000002)                                                                        \
    X(STATUS_BUFFER_OVERFLOW, 0x80000005)                                                                              \
    X(STATUS_NO_MORE_FILES, 0x80000006)                                                                                \
    X(STATUS_NO_MORE_ENTRIES, 0x8000001A)                                                                              \
    X(STATUS_NO_DATA_DETECTED, 0x80000022)                                                                             \
    X(STATUS_UNSUCCESSFUL, 0xC0000001)                                                                                 \
    X(STATUS_NOT_IMPLEMENTED, 0xC0000002)                                                                              \
    X(STATUS_INVALID_INFO_CLASS, 0xC0000003)                                                                           \
    X(STATUS_INFO_LENGTH_MISMATCH, 0xC0000004)                                                                         \
    X(STATUS_ACCESS_VIOLATION, 0xC0000005)                                                                             \
    X(STATUS_INVALID_HANDLE, 0xC0000008)                                                                               \
    X(STATUS_INVALID_PARAMETER, 0xC000000D)                                                                            \
    X(STATUS_NO_SUCH_DEVICE, 0xC000000E)                                                                               \
    X(STATUS_NO_SUCH_FILE, 0xC000000F)                                                                                 \
    X(STATUS_INVALID_DEVICE_REQUEST, 0xC0000010)                                                                       \
    X(STATUS_END_OF_FILE, 0xC0000011)                                                                                  \
    X(STATUS_NO_MEMORY, 0xC0000017)                                                                                    \
    X(STATUS_ACCESS_DENIED, 0xC0000022)                                                                                \
    X(STATUS_BUFFER_TOO_SMALL, 0xC0000023)                                                                             \
    X(STATUS_OBJECT_TYPE_MISMATCH, 0xC0000024)                                                                         \
    X(STATUS_NONCONTINUABLE_EXCEPTION, 0xC0000025)                                                                     \
    X(STATUS_OBJECT_NAME_INVALID, 0xC0000033)                                                                          \
    X(STATUS_OBJECT_NAME_NOT_FOUND, 0xC0000034)                                                                        \
    X(STATUS_OBJECT_NAME_COLLISION, 0xC0000035)                                                                        \
    X(STATUS_OBJECT_PATH_INVALID, 0xC0000039)                                                                          \
    X(STATUS_OBJECT_PATH_NOT_FOUND, 0xC000003A)                                                                        \
    X(STATUS_OBJECT_PATH_SYNTAX_BAD, 0xC000003B)                                                                       \
    X(STATUS_SHARING_VIOLATION, 0xC0000043)                                                                            \
    X(STATUS_QUOTA_EXCEEDED, 0xC0000044)                                                                               \
    X(STATUS_EA_TOO_LARGE, 0xC0000050)                                                                                 \
    X(STATUS_NONEXISTENT_EA_ENTRY, 0xC0000051)                                                                         \
    X(STATUS_NO_EAS_ON_FILE, 0xC0000052)                                                                               \
    X(STATUS_FILE_LOCK_CONFLICT, 0xC0000054)                                                                           \
    X(STATUS_LOCK_NOT_GRANTED, 0xC0000055)                                                                             \
    X(STATUS_DELETE_PENDING, 0xC0000056)                                                                               \
    X(STATUS_UNKNOWN_REVISION, 0xC0000058)                                                                             \
    X(STATUS_NO_LOGON_SERVERS, 0xC000005E)                                                                             \
    X(STATUS_NO_SUCH_LOGON_SESSION, 0xC000005F)                                                                        \
    X(STATUS_PRIVILEGE_NOT_HELD, 0xC0000061)                                                                           \
    X(STATUS_LOGON_FAILURE, 0xC000006D)                                                                                \
    X(STATUS_NO_TOKEN, 0xC000007C)                                                                                     \
    X(STATUS_RANGE_NOT_LOCKED, 0xC000007E)                                                                             \
    X(STATUS_DISK_FULL, 0xC000007F)                                                                                    \
    X(STATUS_INVALID_VOLUME_LABEL, 0xC0000086)                                                                         \
    X(STATUS_FILE_INVALID, 0xC0000098)                                                                                 \
    X(STATUS_INSUFFICIENT_RESOURCES, 0xC000009A)                                                                       \
    X(STATUS_WORKING_SET_QUOTA, 0xC00000A1)                                                                            \
    X(STATUS_DEVICE_NOT_READY, 0xC00000A3)                                                                             \
    X(STATUS_CANT_OPEN_ANONYMOUS, 0xC00000A6)                                                                          \
    X(STATUS_IO_TIMEOUT, 0xC00000B5)                                                                                   \
    X(STATUS_FILE_IS_A_DIRECTORY, 0xC00000BA)                                                                          \
    X(STATUS_NOT_SUPPORTED, 0xC00000BB)                                                                                \
    X(STATUS_BAD_NETWORK_PATH, 0xC00000BE)                                                                             \
    X(STATUS_NETWORK_BUSY, 0xC00000BF)                                                                                 \
    X(STATUS_UNEXPECTED_NETWORK_ERROR, 0xC00000C4)                                                                     \
    X(STATUS_BAD_NETWORK_NAME, 0xC00000CC)                                                                             \
    X(STATUS_NOT_SAME_DEVICE, 0xC00000D4)                                                                              \
    X(STATUS_CANT_WAIT, 0xC00000D8)                                                                                    \
    X(STATUS_INTERNAL_ERROR, 0xC00000E5)                                                                               \
    X(STATUS_INVALID_USER_BUFFER, 0xC00000E8)                                                                          \
    X(STATUS_INVALID_PARAMETER_2, 0xC00000F0)                                                                          \
    X(STATUS_DIRECTORY_NOT_EMPTY, 0xC0000101)                                                                          \
    X(STATUS_FILE_CORRUPT_ERROR, 0xC0000102)                                                                           \
    X(STATUS_NOT_A_DIRECTORY, 0xC0000103)                                                                              \
    X(STATUS_NAME_TOO_LONG, 0xC0000106)                                                                                \
    X(STATUS_TOO_MANY_OPENED_FILES, 0xC000011F)                                                                        \
    X(STATUS_CANCELLED, 0xC0000120)                                                                                    \
    X(STATUS_CANNOT_DELETE, 0xC0000121)                                                                                \
    X(STATUS_FILE_DELETED, 0xC0000123)                                                                                 \
    X(STATUS_FILE_CLOSED, 0xC0000128)                                                                                  \
    X(STATUS_UNRECOGNIZED_VOLUME, 0xC000014F)                                                                          \
    X(STATUS_INVALID_LOCK_RANGE, 0xC00001A1)                                                                           \
    X(STATUS_CONNECTION_DISCONNECTED, 0xC000020C)                                                                      \
    X(STATUS_NOT_FOUND, 0xC0000225)                                                                                    \
    X(STATUS_RETRY, 0xC000022D)                                                                                        \
    X(STATUS_RESOURCE_NOT_OWNED, 0xC0000264)

// Typed constants, usable in constant expressions and switch labels.
#define NTSTATUS_CONSTANT(Name, Value) inline constexpr NTSTATUS Name = (NTSTATUS)Value;
NTSTATUS_LIST(NTSTATUS_CONSTANT)
#undef NTSTATUS_CONSTANT
