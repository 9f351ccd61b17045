// The mapping object that clients of the published class get: its operations, slot by slot.
#pragma once

#include "mapping/drive_mapping.h"

struct RVFSD_MAPPING;

inline constexpr ULONG LONGEST_QUERIED_PATH = 4095;

// The question and the answer of RvxQueryDrive, in the caller's memory.
struct QUERY_DRIVE {
    ULONG DriveNumber;
    ULONG Reserved; // answered with 0
    ULONG PathLength;
    ULONG MappingOptions;
    CHAR Path[LONGEST_QUERIED_PATH + 1]; // as it was sent for mapping, terminated
};
static_assert(sizeof(QUERY_DRIVE) == 4112 && offsetof(QUERY_DRIVE, PathLength) == 8);
static_assert(offsetof(QUERY_DRIVE, MappingOptions) == 12 && offsetof(QUERY_DRIVE, Path) == 16);

// Each runs in its caller's thread at IRQL PASSIVE_LEVEL and may block. STATUS_UNSUCCESSFUL once the driver was torn
// down, STATUS_INVALID_PARAMETER without a request, STATUS_INSUFFICIENT_RESOURCES without memory.

// STATUS_SUCCESS when a path of two or more components can be opened; two that cannot, or less, are
// STATUS_BAD_NETWORK_PATH, more the Provider's translated status. Number is traced and nothing else.
NTSTATUS NTAPI RvxVerifyPath(RVFSD_MAPPING *This, ULONG Number, PCSTR Utf8Path);
// See RvMapDrive.
NTSTATUS NTAPI RvxMapDrive(RVFSD_MAPPING *This, const MAP_REQUEST *Request);
// Request begins with the drive number. STATUS_RESOURCE_NOT_OWNED when the caller has no such mapping, otherwise what
// became of its link.
NTSTATUS NTAPI RvxUnMapDrive(RVFSD_MAPPING *This, const ULONG *Request);
// STATUS_BUFFER_OVERFLOW when the path was cut; STATUS_RESOURCE_NOT_OWNED.
NTSTATUS NTAPI RvxQueryDrive(RVFSD_MAPPING *This, QUERY_DRIVE *Request);
NTSTATUS NTAPI RvxUnMapServer(RVFSD_MAPPING *This, ULONG ConnectionId);
// Prints Text as it is, percent signs and all, where the diagnostic settings let it. Always STATUS_SUCCESS.
NTSTATUS NTAPI RvxTraceMessage(RVFSD_MAPPING *This, PCSTR Text);
