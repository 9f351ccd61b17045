// The Provider's operations by slot number and name.
#pragma once

#include "kernel/kernel.h"

namespace providers {

#define RVFSD_PROVIDER_SLOTS(X) X(2, Release) RVFSD_PROVIDER_OPERATIONS(X)
#define RVFSD_PROVIDER_OPERATIONS(X)                                                                                   \
    X(3, OpenVolume)                                                                                                   \
    X(4, CloseVolume)                                                                                                  \
    X(5, GetVolumeInformation)                                                                                         \
    X(6, GetVolumeSize)                                                                                                \
    X(7, QueryPathForVolume)                                                                                           \
    X(10, CreateDirectory)                                                                                             \
    X(11, OpenDirectory)                                                                                               \
    X(12, GetDirectoryInformation)                                                                                     \
    X(13, SetDirectoryInformation)                                                                                     \
    X(14, CloseDirectory)                                                                                              \
    X(15, DeleteDirectory)                                                                                             \
    X(16, EnumerateDirectory)                                                                                          \
    X(17, MoveDirectory)                                                                                               \
    X(18, CreateFile)                                                                                                  \
    X(19, CloseFile)                                                                                                   \
    X(20, DeleteFile)                                                                                                  \
    X(21, MoveFile)                                                                                                    \
    X(23, FlushFile)                                                                                                   \
    X(24, GetFileInformation)                                                                                          \
    X(25, GetBasicFileInformation)                                                                                     \
    X(27, GetFileId)                                                                                                   \
    X(28, GetFileSize)                                                                                                 \
    X(29, LockFile)                                                                                                    \
    X(30, UnlockFile)                                                                                                  \
    X(31, ReadFile)                                                                                                    \
    X(32, SetFileInformation)                                                                                          \
    X(34, WriteFile)                                                                                                   \
    X(37, EnumerateDirectoryEx)                                                                                        \
    X(48, GetEffectiveRights)                                                                                          \
    X(49, GetDFSPhysicalPath)                                                                                          \
    X(50, ModifyFileAccess)

enum class Slot : unsigned {
    Any = 0, // in rules and counts: whatever the slot
#define RVFSD_SLOT(Number, Name) Name = Number,
    RVFSD_PROVIDER_SLOTS(RVFSD_SLOT)
#undef RVFSD_SLOT
};
inline constexpr unsigned SlotCount = 51;

// "RVFsdCreateFile"; "Release" for slot 2.
constexpr const char *NameOf(Slot Which) {
    if (Which == Slot::Any) {
        return "any";
    }
    if (Which == Slot::Release) {
        return "Release";
    }
#define RVFSD_SLOT(Number, Name)                                                                                       \
    if (Which == Slot::Name) {                                                                                         \
        return "RVFsd" #Name;                                                                                          \
    }
    RVFSD_PROVIDER_SLOTS(RVFSD_SLOT)
#undef RVFSD_SLOT
    return "?";
}

} // namespace providers
