// The table of operations that the driver calls: the Windows calling convention on one side, the class Provider on the
// other. Nothing here is for a Provider's own code.
#pragma once

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "rvfsd/operations.h"

namespace rvfsd {

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

} // namespace rvfsd
