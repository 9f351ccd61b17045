// The contract with the Provider: its operations in slot order, statuses, handles and encodings.
//
// The Provider is a component object whose first field points to its table of operations. Every operation takes the
// interface object and, for file-system operations, the address of the caller's 16-byte security context. The Provider
// accepts concurrent calls; it never allocates memory that the driver frees. Driver code does not call the table: it
// calls the wrappers of provider/provider_calls.h, which bound what comes back.
#pragma once

#include "kernel/kernel.h"

// ---- Statuses ----------------------------------------------------------------------------------------------

// A raw Provider status. A type of its own, so that none can reach an IRP without NtFsdTranslateErrorCode.
enum class [[nodiscard]] RVSTATUS : ULONG{
    Success = 0,
    InvalidHandle = 0xC7E70003,
    InvalidParameter = 0xC7E70004,
    NoMemory = 0xC7E70005,
    AccessDenied = 0xC7E70006,     // RV_STATUS_ACCESS_DENIED
    BufferAllocation = 0xC7AC0005, // the driver's own path services: no buffer
    NotDistributedPath = 0xC7E90526,
    Unsuccessful = 0xC7E70001,
};

// Low 16 bits of the codes that callers tell apart before or instead of translating.
enum RV_CODE : USHORT {
    RV_STATUS_ACCESS_DENIED = 0x0006,
    RVFS_PATH_NOT_FOUND = 0x0503,
    RVFS_UNRECOGNIZED_VOLUME = 0x050A,
    RVFS_UNKNOWN_SERVER = 0x0517,
    RVFS_NOT_A_DIRECTORY = 0x0520,
    RVFS_NOT_AUTHENTICATED = 0x0536,
};

// TRUE when the status is an error: both top bits set. Warnings and informational codes count as success.
constexpr bool RvIsError(RVSTATUS Status) {
    return (static_cast<ULONG>(Status) & 0xC0000000u) == 0xC0000000u;
}
constexpr USHORT RvCode(RVSTATUS Status) {
    return static_cast<USHORT>(static_cast<ULONG>(Status) & 0xFFFFu);
}

// ---- Handles, words, encodings -------------------------------------------------------------------------------

// Volume, directory and file handles: opaque, 0 names none (as a base handle: the path is absolute).
typedef ULONG64 RVHANDLE;

// The caller's identity as the framework fills it.
struct RV_SECURITY_CONTEXT {
    ULONG64 Words[2];
};

// Bytes of the buffers that the driver supplies to the path operations (slots 7 and 49), terminator included.
inline constexpr ULONG RV_PATH_BUFFER_BYTES = 8192;

enum RV_ATTRIBUTES : ULONG {
    RV_ATTR_READONLY = 0x1,
    RV_ATTR_HIDDEN = 0x2,
    RV_ATTR_SYSTEM = 0x4,
    RV_ATTR_DIRECTORY = 0x10,
    RV_ATTR_ARCHIVE = 0x20,
    RV_ATTR_ENCRYPTED = 0x40,
    RV_ATTR_NORMAL = 0x80,
    RV_ATTR_TEMPORARY = 0x100,
    RV_ATTR_JUNCTION = 0x400,
    RV_ATTR_COMPRESSED = 0x800,
    RV_ATTR_OFFLINE = 0x1000,
    RV_ATTR_CONTENT_INDEXED = 0x2000,
    RV_ATTR_SETTABLE = RV_ATTR_READONLY | RV_ATTR_HIDDEN | RV_ATTR_SYSTEM | RV_ATTR_ARCHIVE,
};

enum RV_VOLUME_FLAGS : ULONG {
    RV_VOLUME_USER_QUOTAS = 0x100,        // size answers use the quota figures
    RV_VOLUME_IDENTIFIER_VALID = 0x10000, // the 16-byte identifier is valid, files have stable identifiers
};

enum RV_RIGHTS : USHORT {
    RV_RIGHT_ERASE = 0x10,
};

// Access argument of RVFsdCreateFile and RVFsdModifyFileAccess.
enum RV_ACCESS : ULONG {
    RV_ACCESS_ATTRIBUTES = 0x1,
    RV_ACCESS_READ = 0x2,
    RV_ACCESS_WRITE = 0x4,
    RV_ACCESS_EXECUTE = 0x8,
    RV_ACCESS_DELETE = 0x10,
};

// Share argument: the platform's FILE_SHARE_* bits.

enum RV_DISPOSITION : ULONG {
    RV_DISPOSITION_QUERY = 0, // opens for attribute queries only
    RV_DISPOSITION_CREATE_NEW = 1,
    RV_DISPOSITION_CREATE_OR_REPLACE = 2,
    RV_DISPOSITION_OPEN_EXISTING = 3,
    RV_DISPOSITION_OPEN_OR_CREATE = 4,
    RV_DISPOSITION_OVERWRITE_EXISTING = 5,
};

enum RV_OPTIONS : ULONG {
    RV_OPTION_WRITE_THROUGH = 0x1,
    RV_OPTION_NO_CACHE = 0x2,
    RV_OPTION_RESERVE_DELETE = 0x4, // the deletion of the file is reserved for this handle
    RV_OPTION_RANDOM_ACCESS = 0x8,
    RV_OPTION_SEQUENTIAL = 0x10,
    RV_OPTION_BACKUP_INTENT = 0x20,
};

enum RV_CREATE_ACTION : ULONG {
    RV_CREATE_ACTION_OPENED = 1,
    RV_CREATE_ACTION_CREATED = 2,
    // Any other value: the file was superseded or overwritten.
};

// ---- The interface object --------------------------------------------------------------------------------------

struct RVIOM_FSD;

// The operations in slot order. Slots named Unused are never called; the positions are the contract.
struct RVIOM_FSD_TABLE {
    using Sec = RV_SECURITY_CONTEXT *;

    PVOID QueryInterface;                                                                    // 0
    PVOID AddRef;                                                                            // 1
    ULONG(NTAPI *Release)(RVIOM_FSD *Self);                                                  // 2
    RVSTATUS(NTAPI *RVFsdOpenVolume)(RVIOM_FSD *, Sec, PCWSTR VolumePath, RVHANDLE *Volume); // 3
    RVSTATUS(NTAPI *RVFsdCloseVolume)(RVIOM_FSD *, Sec, RVHANDLE Volume);                    // 4
    RVSTATUS(NTAPI *RVFsdGetVolumeInformation)
    (RVIOM_FSD *, Sec, RVHANDLE Volume, ULONG *Flags, UCHAR *Identifier16, PVOID Null1, PVOID Null2); // 5
    RVSTATUS(NTAPI *RVFsdGetVolumeSize)
    (RVIOM_FSD *, Sec, RVHANDLE Volume, ULONG64 *Length, ULONG64 *Free, ULONG64 *QuotaAllowed,
     ULONG64 *FreeAfterQuota);                                                                     // 6
    RVSTATUS(NTAPI *RVFsdQueryPathForVolume)(RVIOM_FSD *, Sec, PCWSTR FullPath, PWSTR Buffer8192); // 7
    PVOID Unused8;
    PVOID Unused9;
    RVSTATUS(NTAPI *RVFsdCreateDirectory)(RVIOM_FSD *, Sec, RVHANDLE Base, PCWSTR Path);                    // 10
    RVSTATUS(NTAPI *RVFsdOpenDirectory)(RVIOM_FSD *, Sec, RVHANDLE Base, PCWSTR Path, RVHANDLE *Directory); // 11
    RVSTATUS(NTAPI *RVFsdGetDirectoryInformation)
    (RVIOM_FSD *, Sec, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite,
     LONG64 *LastAccess); // 12
    RVSTATUS(NTAPI *RVFsdSetDirectoryInformation)
    (RVIOM_FSD *, Sec, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite,
     LONG64 *LastAccess);                                                                // 13
    RVSTATUS(NTAPI *RVFsdCloseDirectory)(RVIOM_FSD *, Sec, RVHANDLE Directory);          // 14
    RVSTATUS(NTAPI *RVFsdDeleteDirectory)(RVIOM_FSD *, Sec, RVHANDLE Base, PCWSTR Path); // 15
    RVSTATUS(NTAPI *RVFsdEnumerateDirectory)
    (RVIOM_FSD *, Sec, RVHANDLE Directory, PCWSTR Mask, UCHAR Flag, ULONG *ResumeKey, ULONG *BufferSize,
     PVOID Buffer); // 16
    RVSTATUS(NTAPI *RVFsdMoveDirectory)
    (RVIOM_FSD *, Sec, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
     PCWSTR TargetName); // 17
    RVSTATUS(NTAPI *RVFsdCreateFile)
    (RVIOM_FSD *, Sec, RVHANDLE Base, PCWSTR Path, ULONG Access, ULONG Share, ULONG Disposition, ULONG Options,
     ULONG Attributes, RVHANDLE *File,
     ULONG *CreateAction);                                                          // 18
    RVSTATUS(NTAPI *RVFsdCloseFile)(RVIOM_FSD *, Sec, RVHANDLE File);               // 19
    RVSTATUS(NTAPI *RVFsdDeleteFile)(RVIOM_FSD *, Sec, RVHANDLE Base, PCWSTR Path); // 20
    RVSTATUS(NTAPI *RVFsdMoveFile)
    (RVIOM_FSD *, Sec, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
     PCWSTR TargetName); // 21
    PVOID Unused22;
    RVSTATUS(NTAPI *RVFsdFlushFile)(RVIOM_FSD *, Sec, RVHANDLE File); // 23
    RVSTATUS(NTAPI *RVFsdGetFileInformation)
    (RVIOM_FSD *, Sec, RVHANDLE File, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite, LONG64 *LastAccess,
     ULONG64 *EndOfFile, ULONG64 *Further, UCHAR *Byte1, UCHAR *Byte2, UCHAR *Byte3, UCHAR *Byte4, UCHAR *Byte5); // 24
    RVSTATUS(NTAPI *RVFsdGetBasicFileInformation)
    (RVIOM_FSD *, Sec, RVHANDLE File, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite, LONG64 *LastAccess); // 25
    PVOID Unused26;
    RVSTATUS(NTAPI *RVFsdGetFileId)(RVIOM_FSD *, Sec, RVHANDLE Handle, ULONG64 *FileId);    // 27
    RVSTATUS(NTAPI *RVFsdGetFileSize)(RVIOM_FSD *, Sec, RVHANDLE File, ULONG64 *EndOfFile); // 28
    RVSTATUS(NTAPI *RVFsdLockFile)
    (RVIOM_FSD *, Sec, RVHANDLE File, UCHAR Exclusive, ULONG64 ByteOffset,
     ULONG64 Length);                                                                                      // 29
    RVSTATUS(NTAPI *RVFsdUnlockFile)(RVIOM_FSD *, Sec, RVHANDLE File, ULONG64 ByteOffset, ULONG64 Length); // 30
    RVSTATUS(NTAPI *RVFsdReadFile)
    (RVIOM_FSD *, Sec, RVHANDLE File, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
     ULONG64 *Bytes); // 31
    RVSTATUS(NTAPI *RVFsdSetFileInformation)
    (RVIOM_FSD *, Sec, RVHANDLE File, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite, LONG64 *LastAccess); // 32
    PVOID Unused33;
    RVSTATUS(NTAPI *RVFsdWriteFile)
    (RVIOM_FSD *, Sec, RVHANDLE File, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
     ULONG64 *Bytes); // 34
    PVOID Unused35;
    PVOID Unused36;
    RVSTATUS(NTAPI *RVFsdEnumerateDirectoryEx)
    (RVIOM_FSD *, Sec, RVHANDLE Directory, PCWSTR Mask, ULONG Options, ULONG *ResumeKey, ULONG *BufferSize,
     PVOID Buffer); // 37
    PVOID Unused38To47[10];
    RVSTATUS(NTAPI *RVFsdGetEffectiveRights)(RVIOM_FSD *, Sec, RVHANDLE Handle, USHORT *Rights); // 48
    RVSTATUS(NTAPI *RVFsdGetDFSPhysicalPath)
    (RVIOM_FSD *, Sec, RVHANDLE Null, PUNICODE_STRING Path,
     PUNICODE_STRING PhysicalPath); // 49
    RVSTATUS(NTAPI *RVFsdModifyFileAccess)
    (RVIOM_FSD *, Sec, RVHANDLE File, ULONG Access, ULONG Share,
     ULONG Options); // 50
};

struct RVIOM_FSD {
    const RVIOM_FSD_TABLE *Table;
};

static_assert(sizeof(RV_SECURITY_CONTEXT) == 16);
static_assert(offsetof(RVIOM_FSD_TABLE, Release) == 2 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdQueryPathForVolume) == 7 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdCreateDirectory) == 10 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdCreateFile) == 18 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdMoveFile) == 21 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdFlushFile) == 23 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdGetFileId) == 27 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdSetFileInformation) == 32 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdWriteFile) == 34 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdEnumerateDirectoryEx) == 37 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdGetEffectiveRights) == 48 * 8);
static_assert(offsetof(RVIOM_FSD_TABLE, RVFsdModifyFileAccess) == 50 * 8);
