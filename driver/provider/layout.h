// Sizes and offsets of the records that the driver shares with its host beside the kernel's objects, as a list of the
// same kind as kernel/layout.h: the tables of the framework and the Provider, where an image that has them otherwise
// would call the wrong operation, and the records that it fills for its callers.
#pragma once

#include "provider/framework.h"

// clang-format off
#define RVFSD_PROVIDER_LAYOUT_FRAMEWORK(SIZE_OF, OFFSET_OF)                                                            \
    SIZE_OF(RVP_OBJECT, 8)                                                                                             \
        OFFSET_OF(RVP_OBJECT, Table, 0x0)                                                                              \
    SIZE_OF(RVP_OBJECT_TABLE, 24)                                                                                      \
        OFFSET_OF(RVP_OBJECT_TABLE, QueryInterface, 0x0) OFFSET_OF(RVP_OBJECT_TABLE, AddRef, 0x8)                      \
        OFFSET_OF(RVP_OBJECT_TABLE, Release, 0x10)                                                                     \
    SIZE_OF(RVPL, 8)                                                                                                   \
        OFFSET_OF(RVPL, Table, 0x0)                                                                                    \
    SIZE_OF(RVPL_TABLE, 696)                                                                                           \
        OFFSET_OF(RVPL_TABLE, QueryInterface, 0x0) OFFSET_OF(RVPL_TABLE, AddRef, 0x8)                                  \
        OFFSET_OF(RVPL_TABLE, Release, 0x10) OFFSET_OF(RVPL_TABLE, AllocateForText, 0xC8)                              \
        OFFSET_OF(RVPL_TABLE, Allocate, 0xD0) OFFSET_OF(RVPL_TABLE, Free, 0xD8)                                        \
        OFFSET_OF(RVPL_TABLE, StringLength, 0x158) OFFSET_OF(RVPL_TABLE, Clear, 0x160)                                 \
        OFFSET_OF(RVPL_TABLE, AcquireMutex, 0x1D8) OFFSET_OF(RVPL_TABLE, CreateMutex, 0x1F0)                           \
        OFFSET_OF(RVPL_TABLE, DestroyMutex, 0x210) OFFSET_OF(RVPL_TABLE, Decrement, 0x230)                             \
        OFFSET_OF(RVPL_TABLE, Increment, 0x240) OFFSET_OF(RVPL_TABLE, ReleaseMutex, 0x248)                             \
        OFFSET_OF(RVPL_TABLE, SystemTime, 0x2B0)                                                                       \
    SIZE_OF(RV_SECURITY_CONTEXT, 16)                                                                                   \
        OFFSET_OF(RV_SECURITY_CONTEXT, Words, 0x0)                                                                     \
    SIZE_OF(RV_SECURITY, 8)                                                                                            \
        OFFSET_OF(RV_SECURITY, Table, 0x0)                                                                             \
    SIZE_OF(RV_SECURITY_TABLE, 80)                                                                                     \
        OFFSET_OF(RV_SECURITY_TABLE, QueryInterface, 0x0) OFFSET_OF(RV_SECURITY_TABLE, AddRef, 0x8)                    \
        OFFSET_OF(RV_SECURITY_TABLE, Release, 0x10) OFFSET_OF(RV_SECURITY_TABLE, GetCallerContext, 0x48)

#define RVFSD_PROVIDER_LAYOUT_FSD(SIZE_OF, OFFSET_OF)                                                                  \
    SIZE_OF(RVIOM_FSD, 8)                                                                                              \
        OFFSET_OF(RVIOM_FSD, Table, 0x0)                                                                               \
    SIZE_OF(RVIOM_FSD_TABLE, 408)                                                                                      \
        OFFSET_OF(RVIOM_FSD_TABLE, QueryInterface, 0x0) OFFSET_OF(RVIOM_FSD_TABLE, AddRef, 0x8)                        \
        OFFSET_OF(RVIOM_FSD_TABLE, Release, 0x10) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdOpenVolume, 0x18)                    \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdCloseVolume, 0x20)                                                             \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetVolumeInformation, 0x28)                                                    \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetVolumeSize, 0x30)                                                           \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdQueryPathForVolume, 0x38)                                                      \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdCreateDirectory, 0x50) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdOpenDirectory, 0x58)    \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetDirectoryInformation, 0x60)                                                 \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdSetDirectoryInformation, 0x68)                                                 \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdCloseDirectory, 0x70) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdDeleteDirectory, 0x78)   \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdEnumerateDirectory, 0x80)                                                      \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdMoveDirectory, 0x88) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdCreateFile, 0x90)         \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdCloseFile, 0x98) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdDeleteFile, 0xA0)             \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdMoveFile, 0xA8) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdFlushFile, 0xB8)               \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetFileInformation, 0xC0)                                                      \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetBasicFileInformation, 0xC8)                                                 \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetFileId, 0xD8) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetFileSize, 0xE0)            \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdLockFile, 0xE8) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdUnlockFile, 0xF0)              \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdReadFile, 0xF8) OFFSET_OF(RVIOM_FSD_TABLE, RVFsdSetFileInformation, 0x100)     \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdWriteFile, 0x110)                                                              \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdEnumerateDirectoryEx, 0x128)                                                   \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetEffectiveRights, 0x180)                                                     \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdGetDFSPhysicalPath, 0x188)                                                     \
        OFFSET_OF(RVIOM_FSD_TABLE, RVFsdModifyFileAccess, 0x190)

#define RVFSD_PROVIDER_LAYOUT_INFORMATION(SIZE_OF, OFFSET_OF)                                                          \
    SIZE_OF(FILE_DIRECTORY_INFORMATION, 72)                                                                            \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, NextEntryOffset, 0x0)                                                    \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, FileIndex, 0x4)                                                          \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, CreationTime, 0x8)                                                       \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, LastAccessTime, 0x10)                                                    \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, LastWriteTime, 0x18)                                                     \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, ChangeTime, 0x20)                                                        \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, EndOfFile, 0x28)                                                         \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, AllocationSize, 0x30)                                                    \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, FileAttributes, 0x38)                                                    \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, FileNameLength, 0x3C)                                                    \
        OFFSET_OF(FILE_DIRECTORY_INFORMATION, FileName, 0x40)                                                          \
    SIZE_OF(FILE_FULL_DIR_INFORMATION, 72)                                                                             \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, NextEntryOffset, 0x0)                                                     \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, FileIndex, 0x4) OFFSET_OF(FILE_FULL_DIR_INFORMATION, CreationTime, 0x8)   \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, LastAccessTime, 0x10)                                                     \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, LastWriteTime, 0x18)                                                      \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, ChangeTime, 0x20) OFFSET_OF(FILE_FULL_DIR_INFORMATION, EndOfFile, 0x28)   \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, AllocationSize, 0x30)                                                     \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, FileAttributes, 0x38)                                                     \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, FileNameLength, 0x3C) OFFSET_OF(FILE_FULL_DIR_INFORMATION, EaSize, 0x40)  \
        OFFSET_OF(FILE_FULL_DIR_INFORMATION, FileName, 0x44)                                                           \
    SIZE_OF(FILE_ID_FULL_DIR_INFORMATION, 88)                                                                          \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, NextEntryOffset, 0x0)                                                  \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, FileIndex, 0x4)                                                        \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, CreationTime, 0x8)                                                     \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, LastAccessTime, 0x10)                                                  \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, LastWriteTime, 0x18)                                                   \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, ChangeTime, 0x20)                                                      \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, EndOfFile, 0x28)                                                       \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, AllocationSize, 0x30)                                                  \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, FileAttributes, 0x38)                                                  \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, FileNameLength, 0x3C)                                                  \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, EaSize, 0x40) OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, FileId, 0x48)    \
        OFFSET_OF(FILE_ID_FULL_DIR_INFORMATION, FileName, 0x50)                                                        \
    SIZE_OF(FILE_BOTH_DIR_INFORMATION, 96)                                                                             \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, NextEntryOffset, 0x0)                                                     \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, FileIndex, 0x4) OFFSET_OF(FILE_BOTH_DIR_INFORMATION, CreationTime, 0x8)   \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, LastAccessTime, 0x10)                                                     \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, LastWriteTime, 0x18)                                                      \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, ChangeTime, 0x20) OFFSET_OF(FILE_BOTH_DIR_INFORMATION, EndOfFile, 0x28)   \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, AllocationSize, 0x30)                                                     \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, FileAttributes, 0x38)                                                     \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, FileNameLength, 0x3C) OFFSET_OF(FILE_BOTH_DIR_INFORMATION, EaSize, 0x40)  \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, ShortNameLength, 0x44)                                                    \
        OFFSET_OF(FILE_BOTH_DIR_INFORMATION, ShortName, 0x46) OFFSET_OF(FILE_BOTH_DIR_INFORMATION, FileName, 0x5E)     \
    SIZE_OF(FILE_ID_BOTH_DIR_INFORMATION, 112)                                                                         \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, NextEntryOffset, 0x0)                                                  \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, FileIndex, 0x4)                                                        \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, CreationTime, 0x8)                                                     \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, LastAccessTime, 0x10)                                                  \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, LastWriteTime, 0x18)                                                   \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, ChangeTime, 0x20)                                                      \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, EndOfFile, 0x28)                                                       \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, AllocationSize, 0x30)                                                  \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, FileAttributes, 0x38)                                                  \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, FileNameLength, 0x3C)                                                  \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, EaSize, 0x40)                                                          \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, ShortNameLength, 0x44)                                                 \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, ShortName, 0x46)                                                       \
        OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, FileId, 0x60) OFFSET_OF(FILE_ID_BOTH_DIR_INFORMATION, FileName, 0x68)  \
    SIZE_OF(FILE_NAMES_INFORMATION, 16)                                                                                \
        OFFSET_OF(FILE_NAMES_INFORMATION, NextEntryOffset, 0x0) OFFSET_OF(FILE_NAMES_INFORMATION, FileIndex, 0x4)      \
        OFFSET_OF(FILE_NAMES_INFORMATION, FileNameLength, 0x8) OFFSET_OF(FILE_NAMES_INFORMATION, FileName, 0xC)        \
    SIZE_OF(FILE_BASIC_INFORMATION, 40)                                                                                \
        OFFSET_OF(FILE_BASIC_INFORMATION, CreationTime, 0x0) OFFSET_OF(FILE_BASIC_INFORMATION, LastAccessTime, 0x8)    \
        OFFSET_OF(FILE_BASIC_INFORMATION, LastWriteTime, 0x10) OFFSET_OF(FILE_BASIC_INFORMATION, ChangeTime, 0x18)     \
        OFFSET_OF(FILE_BASIC_INFORMATION, FileAttributes, 0x20)                                                        \
    SIZE_OF(FILE_STANDARD_INFORMATION, 24)                                                                             \
        OFFSET_OF(FILE_STANDARD_INFORMATION, AllocationSize, 0x0)                                                      \
        OFFSET_OF(FILE_STANDARD_INFORMATION, EndOfFile, 0x8)                                                           \
        OFFSET_OF(FILE_STANDARD_INFORMATION, NumberOfLinks, 0x10)                                                      \
        OFFSET_OF(FILE_STANDARD_INFORMATION, DeletePending, 0x14)                                                      \
        OFFSET_OF(FILE_STANDARD_INFORMATION, Directory, 0x15)
// clang-format on

#define RVFSD_PROVIDER_LAYOUT(SIZE_OF, OFFSET_OF)                                                                      \
    RVFSD_PROVIDER_LAYOUT_FRAMEWORK(SIZE_OF, OFFSET_OF)                                                                \
    RVFSD_PROVIDER_LAYOUT_FSD(SIZE_OF, OFFSET_OF)                                                                      \
    RVFSD_PROVIDER_LAYOUT_INFORMATION(SIZE_OF, OFFSET_OF)

#define RVFSD_ASSERT_SIZE(Type, Bytes) static_assert(sizeof(Type) == Bytes, #Type);
#define RVFSD_ASSERT_FIELD(Type, Member, Offset) static_assert(offsetof(Type, Member) == Offset, #Type "." #Member);
RVFSD_PROVIDER_LAYOUT(RVFSD_ASSERT_SIZE, RVFSD_ASSERT_FIELD)
#undef RVFSD_ASSERT_FIELD
#undef RVFSD_ASSERT_SIZE
