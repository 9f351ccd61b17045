// The operations of a Provider: the class to derive from, what its operations take and give, and the statuses that they
// answer. Included through rvfsd/provider.h, which makes a library of the class.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "provider/provider_interface.h"
#include "rvfsd/listing.h"

namespace rvfsd {

// ---- Statuses that Providers answer; the driver makes a status of its own of each code ----------------------------

constexpr RVSTATUS Failure(USHORT Code) {
    return static_cast<RVSTATUS>(0xC7E70000u | Code);
}
inline constexpr RVSTATUS Success = RVSTATUS::Success;
inline constexpr RVSTATUS InvalidHandle = RVSTATUS::InvalidHandle;
inline constexpr RVSTATUS InvalidParameter = RVSTATUS::InvalidParameter;
inline constexpr RVSTATUS AccessDenied = RVSTATUS::AccessDenied;
inline constexpr RVSTATUS NotSupported = Failure(0x0002);
inline constexpr RVSTATUS Disconnected = Failure(0x0101); // the only error that ends a listing as an error
inline constexpr RVSTATUS PathNotFound = Failure(RVFS_PATH_NOT_FOUND);
inline constexpr RVSTATUS NoSuchFile = Failure(0x0506);
inline constexpr RVSTATUS DiskFull = Failure(0x0509);
inline constexpr RVSTATUS UnknownVolume = Failure(RVFS_UNRECOGNIZED_VOLUME);
inline constexpr RVSTATUS SharingViolation = Failure(0x050D);
inline constexpr RVSTATUS NameCollision = Failure(0x0510);
inline constexpr RVSTATUS DirectoryNotEmpty = Failure(0x0513);
inline constexpr RVSTATUS NameInvalid = Failure(0x0515);
inline constexpr RVSTATUS UnknownServer = Failure(RVFS_UNKNOWN_SERVER);
inline constexpr RVSTATUS LockConflict = Failure(0x051E);
inline constexpr RVSTATUS LockNotGranted = Failure(0x051F);
inline constexpr RVSTATUS NotADirectory = Failure(RVFS_NOT_A_DIRECTORY);
inline constexpr RVSTATUS IsADirectory = Failure(0x0521);
inline constexpr RVSTATUS NotSameVolume = Failure(0x0534);
inline constexpr RVSTATUS RangeNotLocked = Failure(0x0537);

// ---- What operations take and give ----------------------------------------------------------------------------------

using Caller = RV_SECURITY_CONTEXT;

// A file or directory by name. Base is a volume's or a directory's handle, or 0: Path then begins with \server\volume.
struct Place {
    RVHANDLE Base;
    std::u16string_view Path; // never ends in a backslash; empty: the base itself
};

struct FileRequest {
    ULONG Access;      // RV_ACCESS_*
    ULONG Share;       // FILE_SHARE_*
    ULONG Disposition; // RV_DISPOSITION_*
    ULONG Options;     // RV_OPTION_*
    ULONG Attributes;  // of a file that is created or replaced; RV_ATTR_SETTABLE at most

    bool Creates() const {
        return Disposition == RV_DISPOSITION_CREATE_NEW || Disposition == RV_DISPOSITION_CREATE_OR_REPLACE ||
               Disposition == RV_DISPOSITION_OPEN_OR_CREATE;
    }
    bool Replaces() const {
        return Disposition == RV_DISPOSITION_CREATE_OR_REPLACE || Disposition == RV_DISPOSITION_OVERWRITE_EXISTING;
    }
};

// What is to change; null: stays as it is.
struct Changes {
    const ULONG *Attributes;
    const LONG64 *Creation;
    const LONG64 *LastWrite;
    const LONG64 *LastAccess;
};

struct VolumeSize {
    ULONG64 Length = 0;
    ULONG64 Free = 0;
    ULONG64 QuotaAllowed = 0;
    ULONG64 FreeAfterQuota = 0; // without quotas as Free: the driver compares with it in any case
};

struct VolumeInformation {
    ULONG Flags = 0; // RV_VOLUME_*
    UCHAR Identifier[16] = {};
};

// The first two components of a path: \server\volume; all of it when it has no more.
inline std::u16string_view VolumePart(std::u16string_view Path) {
    size_t End = 0;
    for (int Component = 0; Component < 2 && End != Path.npos; Component++) {
        End = Path.find(u'\\', End + 1);
    }
    return Path.substr(0, End);
}

// ---- The Provider ---------------------------------------------------------------------------------------------------

class Provider : public RVIOM_FSD {
public:
    Provider();
    Provider(const Provider &) = delete;
    Provider &operator=(const Provider &) = delete;

protected:
    virtual ~Provider() = default; // with the last reference, from Release

    // The volumes that users are offered: \\server\volume. At least one.
    virtual std::vector<std::string> Volumes() = 0;

    // ---- Without these there is nothing to see

    // Path is an answer of QueryVolumePath. A volume's handle is also the handle of its root directory.
    virtual RVSTATUS OpenVolume(const Caller &, std::u16string_view Path, RVHANDLE &Volume) = 0;
    // NotADirectory for a file, NoSuchFile where nothing is, PathNotFound where something before it is missing.
    virtual RVSTATUS OpenDirectory(const Caller &, Place At, RVHANDLE &Directory) = 0;
    // IsADirectory for a directory. RV_DISPOSITION_QUERY opens for questions only and conflicts with nobody. Action
    // becomes RV_CREATE_ACTION_*, or 0 for a file that was replaced.
    virtual RVSTATUS OpenFile(const Caller &, Place At, const FileRequest &Wanted, RVHANDLE &File, ULONG &Action) = 0;
    // Of a volume (its root), a directory or a file.
    virtual RVSTATUS Query(const Caller &, RVHANDLE Of, Information &Out) = 0;
    // All entries of a directory or a volume's root, without "." and "..". Masks, batches and resume keys are made of
    // it.
    virtual RVSTATUS List(const Caller &, RVHANDLE Directory, std::vector<Entry> &Out) = 0;
    // Bytes is what there was, 0 at the end of the file and behind it.
    virtual RVSTATUS Read(const Caller &, RVHANDLE File, ULONG64 Offset, void *Buffer, ULONG64 Length,
                          ULONG64 &Bytes) = 0;

    // ---- Volumes

    // The volume that FullPath lies in, as a prefix of it. Here: its first two components, whatever they are.
    // UnknownServer and UnknownVolume say that the name is not ours; without them every UNC name of the machine would
    // be.
    virtual RVSTATUS QueryVolumePath(const Caller &, std::u16string_view FullPath, std::u16string &Volume) {
        Volume = VolumePart(FullPath);
        return Success;
    }
    virtual RVSTATUS CloseVolume(const Caller &, RVHANDLE) {
        return Success;
    }
    virtual RVSTATUS QueryVolume(const Caller &, RVHANDLE, VolumeInformation &) {
        return Success; // no quotas, no identifiers
    }
    virtual RVSTATUS QueryVolumeSize(const Caller &, RVHANDLE, VolumeSize &Out) {
        Out = {1ull << 40, 1ull << 40, 1ull << 40, 1ull << 40};
        return Success;
    }
    // Only asked where volumes have identifiers (RV_VOLUME_IDENTIFIER_VALID).
    virtual RVSTATUS QueryFileId(const Caller &, RVHANDLE, ULONG64 &) {
        return NotSupported;
    }
    virtual RVSTATUS QueryRights(const Caller &, RVHANDLE, USHORT &Rights) {
        Rights = 0xFFFF;
        return Success;
    }
    // Where a path of a distributed name space really leads.
    virtual RVSTATUS QueryPhysicalPath(const Caller &, std::u16string_view, std::u16string &) {
        return RVSTATUS::NotDistributedPath;
    }

    // ---- Directories

    virtual RVSTATUS CreateDirectory(const Caller &, Place) {
        return AccessDenied;
    }
    virtual RVSTATUS DeleteDirectory(const Caller &, Place) {
        return AccessDenied;
    }
    virtual RVSTATUS MoveDirectory(const Caller &, Place, Place) {
        return AccessDenied;
    }
    virtual RVSTATUS CloseDirectory(const Caller &, RVHANDLE) {
        return Success;
    }

    // ---- Files

    virtual RVSTATUS CloseFile(const Caller &, RVHANDLE) {
        return Success;
    }
    virtual RVSTATUS DeleteFile(const Caller &, Place) {
        return AccessDenied;
    }
    // Never over another file: the driver has deleted it before.
    virtual RVSTATUS MoveFile(const Caller &, Place, Place) {
        return AccessDenied;
    }
    // All of it or an error: a short count is told to the program that wrote.
    virtual RVSTATUS Write(const Caller &, RVHANDLE, ULONG64, const void *, ULONG64, ULONG64 &) {
        return AccessDenied;
    }
    virtual RVSTATUS SetSize(const Caller &, RVHANDLE, ULONG64) {
        return AccessDenied;
    }
    virtual RVSTATUS Flush(const Caller &, RVHANDLE) {
        return Success;
    }
    // Of a directory or a file.
    virtual RVSTATUS Change(const Caller &, RVHANDLE, const Changes &) {
        return AccessDenied;
    }
    // The access of an open file anew, as in FileRequest.
    virtual RVSTATUS ModifyAccess(const Caller &, RVHANDLE, ULONG, ULONG, ULONG) {
        return Success;
    }
    // The driver keeps the locks of its own machine; a server with other clients must keep these too.
    virtual RVSTATUS Lock(const Caller &, RVHANDLE, bool, ULONG64, ULONG64) {
        return Success;
    }
    virtual RVSTATUS Unlock(const Caller &, RVHANDLE, ULONG64, ULONG64) {
        return Success;
    }
    // How masks compare names. Both sides of every comparison pass through it.
    virtual std::u16string FoldName(std::u16string_view Name) {
        return Fold(Name);
    }

private:
    friend struct Slots;
    template <class Type>
    friend struct LibraryOf;

    std::atomic<ULONG> References_{1};
    Searches Searches_;
    std::string VolumeLines_;
};

} // namespace rvfsd
