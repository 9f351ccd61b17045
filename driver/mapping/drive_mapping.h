// Mapped drives: one record for each letter of a caller's that stands for a path on a server.
//
// A mapping owns a Provider handle that proves its target, and the links of its letter in one or two logon sessions.
// All routines run in the thread of the calling user, whose token decides the sessions, and may block.
#pragma once

#include "frame/irp_context.h"
#include "frame/locks.h"
#include "names/strings.h"

extern ERESOURCE g_MappedDeviceResource BEHIND(BelowSearches) BEFORE(BelowLeaves);
READ_PLACE(MappedDeviceResource, g_MappedDeviceResource);

struct MAPPED_DEVICE {
    LIST_ENTRY Links UNDER(g_MappedDeviceResource); // in g_MappedDeviceList; what follows never changes
    RV_SECURITY_CONTEXT SecurityContext;            // of whoever mapped it: the owner
    ULONG MappingOptions;                           // the caller's, returned by a query
    ULONG ConnectionId;                             // the caller's: what a server is unmapped by
    RVHANDLE VolumeHandle;                          // one of the two is 0
    RVHANDLE DirHandle;
    ULONG DriveNumber;       // 1 is A:
    ULONG LinkedLogonIdLow;  // with LinkedLogonIdHigh the session of the second link
    PWSTR pVolumePath;       // the target, terminated, with one leading backslash
    PSTR pPathData;          // the path as the caller sent it, terminated
    UCHAR LinkedSessionLink; // 1: there is a link in the linked logon session, too
    LUID LogonId;            // the session that it was mapped in
    LONG LinkedLogonIdHigh;

    CHAR Letter() const {
        return static_cast<CHAR>(0x40 + DriveNumber);
    }
    LUID LinkedLogonId() const {
        return {LinkedLogonIdLow, LinkedLogonIdHigh};
    }
};
static_assert(sizeof(MAPPED_DEVICE) == 96 && offsetof(MAPPED_DEVICE, SecurityContext) == 16);
static_assert(offsetof(MAPPED_DEVICE, MappingOptions) == 32 && offsetof(MAPPED_DEVICE, ConnectionId) == 36);
static_assert(offsetof(MAPPED_DEVICE, VolumeHandle) == 40 && offsetof(MAPPED_DEVICE, DirHandle) == 48);
static_assert(offsetof(MAPPED_DEVICE, DriveNumber) == 56 && offsetof(MAPPED_DEVICE, pVolumePath) == 64);
static_assert(offsetof(MAPPED_DEVICE, pPathData) == 72 && offsetof(MAPPED_DEVICE, LinkedSessionLink) == 80);
static_assert(offsetof(MAPPED_DEVICE, LogonId) == 84);

// What a caller asks to be mapped. His memory, which may change while it is read.
struct MAP_REQUEST {
    ULONG DriveNumber;
    ULONG MappingOptions;
    ULONG ConnectionId;
    ULONG PathLength; // bytes, without terminator
    ULONG Utf8;       // 0: the path is in the system's code page
    CHAR Path[1];     // two backslashes, server, volume, and what may follow
};
static_assert(offsetof(MAP_REQUEST, MappingOptions) == 4 && offsetof(MAP_REQUEST, ConnectionId) == 8);
static_assert(offsetof(MAP_REQUEST, PathLength) == 12 && offsetof(MAP_REQUEST, Utf8) == 16);
static_assert(offsetof(MAP_REQUEST, Path) == 20);

extern LIST_ENTRY g_MappedDeviceList UNDER(g_MappedDeviceResource);
extern ULONG g_uMappedDeviceCount UNDER(g_MappedDeviceResource); // of records on the list

// Sets up the list and its lock; the lock is one of the driver's resources.
NTSTATUS NtFsdInitMappedDevices();

// Frees every record that is still listed, with its Provider handles and links. Called by teardown when nothing else
// runs and the Provider is still held.
VOID NtFsdFreeMappedDevices();

// Makes a mapping for the caller. Of a path the bytes before its terminator count, at most PathLength; nothing behind
// them is read. STATUS_INVALID_PARAMETER for a drive that is no letter, STATUS_OBJECT_NAME_INVALID for a path that is
// no text, STATUS_BAD_NETWORK_PATH for one that does not begin with a backslash, STATUS_NAME_TOO_LONG for one that no
// link can hold, unless converting it fails before; the status of the conversion; that of the Provider as it came;
// STATUS_OBJECT_NAME_COLLISION for a letter that is taken. On failure nothing is left.
NTSTATUS RvMapDrive(PIRP_CONTEXT IrpContext, const MAP_REQUEST *Request);

// The caller's record of a drive: one that he made in this logon session, or that has links in both. With Remove it is
// taken off the list and his; otherwise it is listed as long as Hold, which receives the lock, is held.
// STATUS_NOT_FOUND, and nothing is held.
NTSTATUS FindMappedDevice(PIRP_CONTEXT IrpContext, ULONG DriveNumber, MAPPED_DEVICE **Record, BOOLEAN Remove,
                          ResourceHold *Hold);

// Deletes the links of a record that is off the list, closes its handles and frees it. What became of the first link.
NTSTATUS FreeMappedDeviceRecord(MAPPED_DEVICE *Record);

// Frees all of the caller's records with that connection, whatever their session. The status of the last one freed.
NTSTATUS UnmapServerMappings(PIRP_CONTEXT IrpContext, ULONG ConnectionId);
