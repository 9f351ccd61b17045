// A Provider as a C++ class: derive from rvfsd::Provider, override what your server can do, name the class in
// RVFSD_PROVIDER, build a shared library. The page "Writing a Provider" tells what the driver relies on.
//
// Every operation may be called from any number of threads at once. Arguments are good for the call only. An exception
// that leaves an operation becomes a status (no memory, or unsuccessful), so that it never reaches the driver.
#pragma once

#include <atomic>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "provider/provider_interface.h"
#include "rvfsd/library.h"
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

// ---- The table of operations: the Windows calling convention on one side, the class on the other --------------------

struct Slots {
    using Sec = RV_SECURITY_CONTEXT *;

    static Provider &Of(RVIOM_FSD *Self) {
        return *static_cast<Provider *>(Self);
    }
    // Runs one operation; nothing it throws gets out.
    template <class Operation>
    static RVSTATUS Guarded(const Operation &Run) noexcept {
        try {
            return Run();
        } catch (const std::bad_alloc &) {
            return RVSTATUS::NoMemory;
        } catch (...) {
            return RVSTATUS::Unsuccessful;
        }
    }
    template <class Value, class Given>
    static void Store(Value *Out, Given Answer) {
        if (Out != nullptr) {
            *Out = static_cast<Value>(Answer);
        }
    }
    static RVSTATUS StorePath(const std::u16string &Path, PWSTR Buffer) {
        if ((Path.size() + 1) * sizeof(WCHAR) > RV_PATH_BUFFER_BYTES) {
            return NameInvalid;
        }
        memcpy(Buffer, Path.c_str(), (Path.size() + 1) * sizeof(WCHAR));
        return Success;
    }

    static ULONG NTAPI AddRef(RVIOM_FSD *Self) noexcept {
        return ++Of(Self).References_;
    }
    static ULONG NTAPI Release(RVIOM_FSD *Self) noexcept {
        Provider &Mine = Of(Self);
        const ULONG Left = --Mine.References_;
        if (Left == 0) {
            delete &Mine;
        }
        return Left;
    }

    static RVSTATUS NTAPI OpenVolume(RVIOM_FSD *Self, Sec By, PCWSTR Path, RVHANDLE *Volume) noexcept {
        return Guarded([&] { return Of(Self).OpenVolume(*By, Path, *Volume); });
    }
    static RVSTATUS NTAPI CloseVolume(RVIOM_FSD *Self, Sec By, RVHANDLE Volume) noexcept {
        return Guarded([&] {
            Of(Self).Searches_.Close(Volume);
            return Of(Self).CloseVolume(*By, Volume);
        });
    }
    static RVSTATUS NTAPI GetVolumeInformation(RVIOM_FSD *Self, Sec By, RVHANDLE Volume, ULONG *Flags,
                                               UCHAR *Identifier, PVOID, PVOID) noexcept {
        return Guarded([&] {
            VolumeInformation Out;
            const RVSTATUS Status = Of(Self).QueryVolume(*By, Volume, Out);
            if (!RvIsError(Status)) {
                Store(Flags, Out.Flags);
                if (Identifier != nullptr) {
                    memcpy(Identifier, Out.Identifier, sizeof(Out.Identifier));
                }
            }
            return Status;
        });
    }
    static RVSTATUS NTAPI GetVolumeSize(RVIOM_FSD *Self, Sec By, RVHANDLE Volume, ULONG64 *Length, ULONG64 *Free,
                                        ULONG64 *QuotaAllowed, ULONG64 *FreeAfterQuota) noexcept {
        return Guarded([&] {
            VolumeSize Out;
            const RVSTATUS Status = Of(Self).QueryVolumeSize(*By, Volume, Out);
            if (!RvIsError(Status)) {
                Store(Length, Out.Length);
                Store(Free, Out.Free);
                Store(QuotaAllowed, Out.QuotaAllowed);
                Store(FreeAfterQuota, Out.FreeAfterQuota);
            }
            return Status;
        });
    }
    static RVSTATUS NTAPI QueryPathForVolume(RVIOM_FSD *Self, Sec By, PCWSTR FullPath, PWSTR Buffer) noexcept {
        return Guarded([&] {
            std::u16string Volume;
            const RVSTATUS Status = Of(Self).QueryVolumePath(*By, FullPath, Volume);
            return RvIsError(Status) ? Status : StorePath(Volume, Buffer);
        });
    }
    static RVSTATUS NTAPI CreateDirectory(RVIOM_FSD *Self, Sec By, RVHANDLE Base, PCWSTR Path) noexcept {
        return Guarded([&] { return Of(Self).CreateDirectory(*By, {Base, Path}); });
    }
    static RVSTATUS NTAPI OpenDirectory(RVIOM_FSD *Self, Sec By, RVHANDLE Base, PCWSTR Path,
                                        RVHANDLE *Directory) noexcept {
        return Guarded([&] { return Of(Self).OpenDirectory(*By, {Base, Path}, *Directory); });
    }
    static RVSTATUS NTAPI GetBasic(RVIOM_FSD *Self, Sec By, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation,
                                   LONG64 *LastWrite, LONG64 *LastAccess) noexcept {
        return GetAll(Self, By, Handle, Attributes, Creation, LastWrite, LastAccess, nullptr, nullptr, nullptr, nullptr,
                      nullptr, nullptr, nullptr);
    }
    static RVSTATUS NTAPI GetSize(RVIOM_FSD *Self, Sec By, RVHANDLE File, ULONG64 *EndOfFile) noexcept {
        return GetAll(Self, By, File, nullptr, nullptr, nullptr, nullptr, EndOfFile, nullptr, nullptr, nullptr, nullptr,
                      nullptr, nullptr);
    }
    static RVSTATUS NTAPI GetAll(RVIOM_FSD *Self, Sec By, RVHANDLE File, ULONG *Attributes, LONG64 *Creation,
                                 LONG64 *LastWrite, LONG64 *LastAccess, ULONG64 *EndOfFile, ULONG64 *Further,
                                 UCHAR *Byte1, UCHAR *Byte2, UCHAR *Byte3, UCHAR *Byte4, UCHAR *Byte5) noexcept {
        return Guarded([&] {
            Information Out;
            const RVSTATUS Status = Of(Self).Query(*By, File, Out);
            if (!RvIsError(Status)) {
                Store(Attributes, Out.Attributes);
                Store(Creation, Out.Creation);
                Store(LastWrite, Out.LastWrite);
                Store(LastAccess, Out.LastAccess);
                Store(EndOfFile, Out.EndOfFile);
                Store(Further, Out.EndOfFile);
                for (UCHAR *Byte : {Byte1, Byte2, Byte3, Byte4, Byte5}) {
                    Store(Byte, 0);
                }
            }
            return Status;
        });
    }
    static RVSTATUS NTAPI Set(RVIOM_FSD *Self, Sec By, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation,
                              LONG64 *LastWrite, LONG64 *LastAccess) noexcept {
        return Guarded([&] { return Of(Self).Change(*By, Handle, {Attributes, Creation, LastWrite, LastAccess}); });
    }
    static RVSTATUS NTAPI CloseDirectory(RVIOM_FSD *Self, Sec By, RVHANDLE Directory) noexcept {
        return Guarded([&] {
            Of(Self).Searches_.Close(Directory);
            return Of(Self).CloseDirectory(*By, Directory);
        });
    }
    static RVSTATUS NTAPI DeleteDirectory(RVIOM_FSD *Self, Sec By, RVHANDLE Base, PCWSTR Path) noexcept {
        return Guarded([&] { return Of(Self).DeleteDirectory(*By, {Base, Path}); });
    }
    // Flag 1: one batch is wanted, by somebody who counts entries.
    static RVSTATUS NTAPI Enumerate(RVIOM_FSD *Self, Sec By, RVHANDLE Directory, PCWSTR Mask, UCHAR Flag,
                                    ULONG *ResumeKey, ULONG *BufferSize, PVOID Buffer) noexcept {
        return EnumerateAs(Self, By, Directory, Mask, {Buffer, *BufferSize, false}, Flag == 1, ResumeKey, BufferSize);
    }
    static RVSTATUS NTAPI EnumerateEx(RVIOM_FSD *Self, Sec By, RVHANDLE Directory, PCWSTR Mask, ULONG, ULONG *ResumeKey,
                                      ULONG *BufferSize, PVOID Buffer) noexcept {
        return EnumerateAs(Self, By, Directory, Mask, {Buffer, *BufferSize, true}, false, ResumeKey, BufferSize);
    }
    static RVSTATUS EnumerateAs(RVIOM_FSD *Self, Sec By, RVHANDLE Directory, PCWSTR Mask, Batch Out, bool OneBatch,
                                ULONG *ResumeKey, ULONG *BufferSize) noexcept {
        return Guarded([&] {
            Provider &Mine = Of(Self);
            RVSTATUS Status = Success;
            if (*ResumeKey == 0) {
                std::vector<Entry> Entries;
                Status = Matching(Mine, *By, Directory, Mask, Entries);
                if (!RvIsError(Status) && OneBatch) {
                    size_t Next = 0;
                    while (Next < Entries.size() && Out.Add(Entries[Next])) {
                        Next++;
                    }
                    Status = !Out.Empty() ? Success : Entries.empty() ? Searches::NoMoreFiles : Searches::TooSmall;
                    *BufferSize = Out.Bytes();
                    return Status;
                }
                if (!RvIsError(Status)) {
                    *ResumeKey = Mine.Searches_.Begin(Directory, std::move(Entries));
                }
            }
            if (!RvIsError(Status)) {
                Status = Mine.Searches_.Next(Directory, ResumeKey, Out);
            }
            *BufferSize = Out.Bytes();
            return Status;
        });
    }
    static RVSTATUS Matching(Provider &Mine, const Caller &By, RVHANDLE Directory, PCWSTR Mask,
                             std::vector<Entry> &Entries) {
        const RVSTATUS Status = Mine.List(By, Directory, Entries);
        if (RvIsError(Status)) {
            return Status;
        }
        const std::u16string Folded = Mask == nullptr ? std::u16string() : Mine.FoldName(Mask);
        if (!Folded.empty() && Folded != u"*") {
            const auto Other = [&](const Entry &One) {
                return !MatchesMask(Folded, Mine.FoldName(One.Name)) &&
                       (One.ShortName.empty() || !MatchesMask(Folded, Mine.FoldName(One.ShortName)));
            };
            Entries.erase(std::remove_if(Entries.begin(), Entries.end(), Other), Entries.end());
        }
        return Entries.size() <= Searches::MostEntries ? Success : RVSTATUS::NoMemory;
    }
    static RVSTATUS NTAPI MoveDirectory(RVIOM_FSD *Self, Sec By, RVHANDLE Base, PCWSTR Source, RVHANDLE TargetBase,
                                        PCWSTR Target) noexcept {
        return Guarded([&] { return Of(Self).MoveDirectory(*By, {Base, Source}, {TargetBase, Target}); });
    }
    static RVSTATUS NTAPI OpenFile(RVIOM_FSD *Self, Sec By, RVHANDLE Base, PCWSTR Path, ULONG Access, ULONG Share,
                                   ULONG Disposition, ULONG Options, ULONG Attributes, RVHANDLE *File,
                                   ULONG *Action) noexcept {
        return Guarded([&] {
            return Of(Self).OpenFile(*By, {Base, Path}, {Access, Share, Disposition, Options, Attributes}, *File,
                                     *Action);
        });
    }
    static RVSTATUS NTAPI CloseFile(RVIOM_FSD *Self, Sec By, RVHANDLE File) noexcept {
        return Guarded([&] { return Of(Self).CloseFile(*By, File); });
    }
    static RVSTATUS NTAPI DeleteFile(RVIOM_FSD *Self, Sec By, RVHANDLE Base, PCWSTR Path) noexcept {
        return Guarded([&] { return Of(Self).DeleteFile(*By, {Base, Path}); });
    }
    static RVSTATUS NTAPI MoveFile(RVIOM_FSD *Self, Sec By, RVHANDLE Base, PCWSTR Source, RVHANDLE TargetBase,
                                   PCWSTR Target) noexcept {
        return Guarded([&] { return Of(Self).MoveFile(*By, {Base, Source}, {TargetBase, Target}); });
    }
    static RVSTATUS NTAPI Flush(RVIOM_FSD *Self, Sec By, RVHANDLE File) noexcept {
        return Guarded([&] { return Of(Self).Flush(*By, File); });
    }
    static RVSTATUS NTAPI GetFileId(RVIOM_FSD *Self, Sec By, RVHANDLE Handle, ULONG64 *FileId) noexcept {
        return Guarded([&] { return Of(Self).QueryFileId(*By, Handle, *FileId); });
    }
    static RVSTATUS NTAPI Lock(RVIOM_FSD *Self, Sec By, RVHANDLE File, UCHAR Exclusive, ULONG64 Offset,
                               ULONG64 Length) noexcept {
        return Guarded([&] { return Of(Self).Lock(*By, File, Exclusive != 0, Offset, Length); });
    }
    static RVSTATUS NTAPI Unlock(RVIOM_FSD *Self, Sec By, RVHANDLE File, ULONG64 Offset, ULONG64 Length) noexcept {
        return Guarded([&] { return Of(Self).Unlock(*By, File, Offset, Length); });
    }
    static RVSTATUS NTAPI Read(RVIOM_FSD *Self, Sec By, RVHANDLE File, LONG64 *Offset, ULONG64 Length, PVOID Buffer,
                               ULONG64 *Bytes) noexcept {
        *Bytes = 0;
        return *Offset < 0 ? InvalidParameter : Guarded([&] {
            return Of(Self).Read(*By, File, static_cast<ULONG64>(*Offset), Buffer, Length, *Bytes);
        });
    }
    static RVSTATUS NTAPI Write(RVIOM_FSD *Self, Sec By, RVHANDLE File, LONG64 *Offset, ULONG64 Length, PVOID Buffer,
                                ULONG64 *Bytes) noexcept {
        *Bytes = 0;
        return *Offset < 0 ? InvalidParameter : Guarded([&] {
            const auto At = static_cast<ULONG64>(*Offset);
            return Length == 0 && Buffer == nullptr ? Of(Self).SetSize(*By, File, At)
                                                    : Of(Self).Write(*By, File, At, Buffer, Length, *Bytes);
        });
    }
    static RVSTATUS NTAPI GetEffectiveRights(RVIOM_FSD *Self, Sec By, RVHANDLE Handle, USHORT *Rights) noexcept {
        return Guarded([&] { return Of(Self).QueryRights(*By, Handle, *Rights); });
    }
    static RVSTATUS NTAPI GetPhysicalPath(RVIOM_FSD *Self, Sec By, RVHANDLE, PUNICODE_STRING Path,
                                          PUNICODE_STRING PhysicalPath) noexcept {
        return Guarded([&] {
            std::u16string Physical;
            const std::u16string_view Asked(Path->Buffer, Path->Length / sizeof(WCHAR));
            RVSTATUS Status = Of(Self).QueryPhysicalPath(*By, Asked, Physical);
            if (!RvIsError(Status)) {
                Status = StorePath(Physical, PhysicalPath->Buffer);
            }
            PhysicalPath->Length = RvIsError(Status) ? USHORT{0} : static_cast<USHORT>(Physical.size() * sizeof(WCHAR));
            return Status;
        });
    }
    static RVSTATUS NTAPI ModifyAccess(RVIOM_FSD *Self, Sec By, RVHANDLE File, ULONG Access, ULONG Share,
                                       ULONG Options) noexcept {
        return Guarded([&] { return Of(Self).ModifyAccess(*By, File, Access, Share, Options); });
    }

    static const RVIOM_FSD_TABLE *Table() {
        static const RVIOM_FSD_TABLE All = [] {
            RVIOM_FSD_TABLE T = {};
            T.AddRef = reinterpret_cast<PVOID>(&AddRef);
            T.Release = Release;
            T.RVFsdOpenVolume = OpenVolume;
            T.RVFsdCloseVolume = CloseVolume;
            T.RVFsdGetVolumeInformation = GetVolumeInformation;
            T.RVFsdGetVolumeSize = GetVolumeSize;
            T.RVFsdQueryPathForVolume = QueryPathForVolume;
            T.RVFsdCreateDirectory = CreateDirectory;
            T.RVFsdOpenDirectory = OpenDirectory;
            T.RVFsdGetDirectoryInformation = GetBasic;
            T.RVFsdSetDirectoryInformation = Set;
            T.RVFsdCloseDirectory = CloseDirectory;
            T.RVFsdDeleteDirectory = DeleteDirectory;
            T.RVFsdEnumerateDirectory = Enumerate;
            T.RVFsdMoveDirectory = MoveDirectory;
            T.RVFsdCreateFile = OpenFile;
            T.RVFsdCloseFile = CloseFile;
            T.RVFsdDeleteFile = DeleteFile;
            T.RVFsdMoveFile = MoveFile;
            T.RVFsdFlushFile = Flush;
            T.RVFsdGetFileInformation = GetAll;
            T.RVFsdGetBasicFileInformation = GetBasic;
            T.RVFsdGetFileId = GetFileId;
            T.RVFsdGetFileSize = GetSize;
            T.RVFsdLockFile = Lock;
            T.RVFsdUnlockFile = Unlock;
            T.RVFsdReadFile = Read;
            T.RVFsdSetFileInformation = Set;
            T.RVFsdWriteFile = Write;
            T.RVFsdEnumerateDirectoryEx = EnumerateEx;
            T.RVFsdGetEffectiveRights = GetEffectiveRights;
            T.RVFsdGetDFSPhysicalPath = GetPhysicalPath;
            T.RVFsdModifyFileAccess = ModifyAccess;
            return T;
        }();
        return &All;
    }
};

inline Provider::Provider() {
    Table = Slots::Table();
}

// The functions of the exported record. What the constructor of Type throws is the reason why there is no Provider.
template <class Type>
struct LibraryOf {
    static RVIOM_FSD *Create(const char *Options, char *Problem, SIZE_T ProblemBytes) {
        std::string Reason;
        try {
            return new Type(std::string_view(Options));
        } catch (const std::exception &Error) {
            Reason = Error.what();
        } catch (...) {
            Reason = "unknown exception";
        }
        strncpy(Problem, Reason.c_str(), ProblemBytes - 1);
        Problem[ProblemBytes - 1] = 0;
        return nullptr;
    }
    static const char *Volumes(RVIOM_FSD *Self) {
        Provider &Mine = Slots::Of(Self);
        Mine.VolumeLines_.clear();
        for (const std::string &Volume : Mine.Volumes()) {
            Mine.VolumeLines_ += Volume + "\n";
        }
        return Mine.VolumeLines_.c_str();
    }
};

} // namespace rvfsd

// Exports Type, a class derived from rvfsd::Provider whose constructor takes the user's text (std::string_view) and
// throws what is wrong with it. Once in a library.
#define RVFSD_PROVIDER(Type, Name)                                                                                     \
    extern "C" const RVFSD_PROVIDER_LIBRARY RvfsdProvider = {RVFSD_PROVIDER_VERSION, sizeof(RVIOM_FSD_TABLE), Name,    \
                                                             rvfsd::LibraryOf<Type>::Create,                           \
                                                             rvfsd::LibraryOf<Type>::Volumes}
