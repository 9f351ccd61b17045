#include "provider/provider_calls.h"

namespace {

// Calls one operation with the interface object and the security context in front, when there is a Provider.
template <typename Operation, typename... T>
RVSTATUS Call(Operation RVIOM_FSD_TABLE::*Slot, PRV_SECURITY Security, T... Arguments) {
    RVIOM_FSD *Provider = g_pProviderInterface;
    if (Provider == nullptr) {
        return RVSTATUS::Unsuccessful;
    }
    // Who watches the calls puts another table in its place.
    const auto *Table = __atomic_load_n(&Provider->Table, __ATOMIC_ACQUIRE);
    return (Table->*Slot)(Provider, Security, Arguments...);
}

// The error with the code of a status that claims success without cause; the code still says what happened.
RVSTATUS AsError(RVSTATUS Status) {
    constexpr ULONG PROVIDER_ERROR = 0xC7E70000;
    return RvCode(Status) != 0 ? static_cast<RVSTATUS>(PROVIDER_ERROR | RvCode(Status)) : RVSTATUS::Unsuccessful;
}

// Calls an operation that opens something. 0 never names an open object: a success that hands it out is an error.
template <typename Operation, typename... T>
RVSTATUS CallOpen(RVHANDLE *Handle, Operation RVIOM_FSD_TABLE::*Slot, PRV_SECURITY Security, T... Arguments) {
    *Handle = 0;
    const RVSTATUS Status = Call(Slot, Security, Arguments...);
    if (RvIsError(Status)) {
        *Handle = 0;
        return Status;
    }
    return *Handle != 0 ? Status : AsError(Status);
}

bool IsTerminated(PCWSTR Buffer) {
    for (ULONG Unit = 0; Unit < RV_PATH_BUFFER_BYTES / sizeof(WCHAR); ++Unit) {
        if (Buffer[Unit] == 0) {
            return true;
        }
    }
    return false;
}

// A path answer counts only when it names something and ends within its buffer.
RVSTATUS CheckPath(RVSTATUS Status, PCWSTR Buffer) {
    if (RvIsError(Status)) {
        return Status;
    }
    if (Buffer[0] == 0) {
        return AsError(Status);
    }
    return IsTerminated(Buffer) ? Status : RVSTATUS::Unsuccessful;
}

} // namespace

RVSTATUS RVFsdOpenVolume(PRV_SECURITY Security, PCWSTR VolumePath, RVHANDLE *Volume) {
    return CallOpen(Volume, &RVIOM_FSD_TABLE::RVFsdOpenVolume, Security, VolumePath, Volume);
}

RVSTATUS RVFsdCloseVolume(PRV_SECURITY Security, RVHANDLE Volume) {
    return Call(&RVIOM_FSD_TABLE::RVFsdCloseVolume, Security, Volume);
}

RVSTATUS RVFsdGetVolumeInformation(PRV_SECURITY Security, RVHANDLE Volume, ULONG *Flags, UCHAR *Identifier16) {
    *Flags = 0;
    constexpr PVOID Nothing = nullptr;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetVolumeInformation, Security, Volume, Flags, Identifier16, Nothing, Nothing);
}

RVSTATUS RVFsdGetVolumeSize(PRV_SECURITY Security, RVHANDLE Volume, ULONG64 *Length, ULONG64 *Free,
                            ULONG64 *QuotaAllowed, ULONG64 *FreeAfterQuota) {
    *Length = *Free = *QuotaAllowed = *FreeAfterQuota = 0;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetVolumeSize, Security, Volume, Length, Free, QuotaAllowed, FreeAfterQuota);
}

RVSTATUS RVFsdQueryPathForVolume(PRV_SECURITY Security, PCWSTR FullPath, PWSTR Buffer) {
    return CheckPath(Call(&RVIOM_FSD_TABLE::RVFsdQueryPathForVolume, Security, FullPath, Buffer), Buffer);
}

RVSTATUS RVFsdGetDFSPhysicalPath(PRV_SECURITY Security, PUNICODE_STRING Path, PUNICODE_STRING PhysicalPath) {
    const PWSTR Buffer = PhysicalPath->Buffer;
    const RVSTATUS Status =
        CheckPath(Call(&RVIOM_FSD_TABLE::RVFsdGetDFSPhysicalPath, Security, RVHANDLE{0}, Path, PhysicalPath), Buffer);
    // The string is the driver's, its buffer is freed by the driver: neither may have been exchanged.
    PhysicalPath->Buffer = Buffer;
    PhysicalPath->MaximumLength = RV_PATH_BUFFER_BYTES;
    return Status;
}

RVSTATUS RVFsdCreateDirectory(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path) {
    return Call(&RVIOM_FSD_TABLE::RVFsdCreateDirectory, Security, Base, Path);
}

RVSTATUS RVFsdOpenDirectory(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path, RVHANDLE *Directory) {
    return CallOpen(Directory, &RVIOM_FSD_TABLE::RVFsdOpenDirectory, Security, Base, Path, Directory);
}

RVSTATUS RVFsdCloseDirectory(PRV_SECURITY Security, RVHANDLE Directory) {
    return Call(&RVIOM_FSD_TABLE::RVFsdCloseDirectory, Security, Directory);
}

RVSTATUS RVFsdDeleteDirectory(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path) {
    return Call(&RVIOM_FSD_TABLE::RVFsdDeleteDirectory, Security, Base, Path);
}

RVSTATUS RVFsdGetDirectoryInformation(PRV_SECURITY Security, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation,
                                      LONG64 *LastWrite, LONG64 *LastAccess) {
    if (Attributes != nullptr) {
        *Attributes = 0;
    }
    return Call(&RVIOM_FSD_TABLE::RVFsdGetDirectoryInformation, Security, Directory, Attributes, Creation, LastWrite,
                LastAccess);
}

RVSTATUS RVFsdSetDirectoryInformation(PRV_SECURITY Security, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation,
                                      LONG64 *LastWrite, LONG64 *LastAccess) {
    return Call(&RVIOM_FSD_TABLE::RVFsdSetDirectoryInformation, Security, Directory, Attributes, Creation, LastWrite,
                LastAccess);
}

RVSTATUS RVFsdEnumerateDirectory(PRV_SECURITY Security, RVHANDLE Directory, PCWSTR Mask, UCHAR Flag, ULONG *ResumeKey,
                                 ULONG BufferBytes, PVOID Buffer) {
    ULONG Size = BufferBytes;
    return Call(&RVIOM_FSD_TABLE::RVFsdEnumerateDirectory, Security, Directory, Mask, Flag, ResumeKey, &Size, Buffer);
}

RVSTATUS RVFsdEnumerateDirectoryEx(PRV_SECURITY Security, RVHANDLE Directory, PCWSTR Mask, ULONG Options,
                                   ULONG *ResumeKey, ULONG BufferBytes, PVOID Buffer) {
    ULONG Size = BufferBytes;
    return Call(&RVIOM_FSD_TABLE::RVFsdEnumerateDirectoryEx, Security, Directory, Mask, Options, ResumeKey, &Size,
                Buffer);
}

RVSTATUS RVFsdCreateFile(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path, const RV_CREATE_PARAMETERS &Parameters,
                         RVHANDLE *File, ULONG *CreateAction) {
    *CreateAction = 0;
    return CallOpen(File, &RVIOM_FSD_TABLE::RVFsdCreateFile, Security, Base, Path, Parameters.Access, Parameters.Share,
                    Parameters.Disposition, Parameters.Options, Parameters.Attributes, File, CreateAction);
}

RVSTATUS RVFsdCloseFile(PRV_SECURITY Security, RVHANDLE File) {
    return Call(&RVIOM_FSD_TABLE::RVFsdCloseFile, Security, File);
}

RVSTATUS RVFsdDeleteFile(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path) {
    return Call(&RVIOM_FSD_TABLE::RVFsdDeleteFile, Security, Base, Path);
}

RVSTATUS RVFsdFlushFile(PRV_SECURITY Security, RVHANDLE File) {
    return Call(&RVIOM_FSD_TABLE::RVFsdFlushFile, Security, File);
}

RVSTATUS RVFsdGetFileSize(PRV_SECURITY Security, RVHANDLE File, ULONG64 *EndOfFile) {
    *EndOfFile = 0;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetFileSize, Security, File, EndOfFile);
}

RVSTATUS RVFsdGetFileInformation(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes, ULONG64 *EndOfFile) {
    if (Attributes != nullptr) {
        *Attributes = 0;
    }
    if (EndOfFile != nullptr) {
        *EndOfFile = 0;
    }
    constexpr LONG64 *NoTime = nullptr;
    constexpr ULONG64 *NoValue = nullptr;
    constexpr UCHAR *NoByte = nullptr;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetFileInformation, Security, File, Attributes, NoTime, NoTime, NoTime,
                EndOfFile, NoValue, NoByte, NoByte, NoByte, NoByte, NoByte);
}

RVSTATUS RVFsdSetFileInformation(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes, LONG64 *Creation,
                                 LONG64 *LastWrite, LONG64 *LastAccess) {
    return Call(&RVIOM_FSD_TABLE::RVFsdSetFileInformation, Security, File, Attributes, Creation, LastWrite, LastAccess);
}

namespace {

// A count beyond what was asked for is an answer that cannot be true.
RVSTATUS CheckCount(RVSTATUS Status, ULONG64 *Bytes, ULONG64 Length) {
    if (!RvIsError(Status) && *Bytes > Length) {
        *Bytes = Length;
    }
    return Status;
}

} // namespace

RVSTATUS RVFsdReadFile(PRV_SECURITY Security, RVHANDLE File, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
                       ULONG64 *Bytes) {
    return CheckCount(Call(&RVIOM_FSD_TABLE::RVFsdReadFile, Security, File, ByteOffset, Length, Buffer, Bytes), Bytes,
                      Length);
}

RVSTATUS RVFsdWriteFile(PRV_SECURITY Security, RVHANDLE File, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
                        ULONG64 *Bytes) {
    *Bytes = 0;
    return CheckCount(Call(&RVIOM_FSD_TABLE::RVFsdWriteFile, Security, File, ByteOffset, Length, Buffer, Bytes), Bytes,
                      Length);
}

RVSTATUS RVFsdLockFile(PRV_SECURITY Security, RVHANDLE File, BOOLEAN Exclusive, ULONG64 ByteOffset, ULONG64 Length) {
    return Call(&RVIOM_FSD_TABLE::RVFsdLockFile, Security, File, static_cast<UCHAR>(Exclusive ? 1 : 0), ByteOffset,
                Length);
}

RVSTATUS RVFsdUnlockFile(PRV_SECURITY Security, RVHANDLE File, ULONG64 ByteOffset, ULONG64 Length) {
    return Call(&RVIOM_FSD_TABLE::RVFsdUnlockFile, Security, File, ByteOffset, Length);
}

RVSTATUS RVFsdGetEffectiveRights(PRV_SECURITY Security, RVHANDLE Handle, USHORT *Rights) {
    *Rights = 0;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetEffectiveRights, Security, Handle, Rights);
}

RVSTATUS RVFsdGetFileTimes(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite,
                           LONG64 *LastAccess, ULONG64 *EndOfFile) {
    *Attributes = 0;
    *Creation = *LastWrite = *LastAccess = 0;
    *EndOfFile = 0;
    constexpr ULONG64 *NoValue = nullptr;
    constexpr UCHAR *NoByte = nullptr;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetFileInformation, Security, File, Attributes, Creation, LastWrite, LastAccess,
                EndOfFile, NoValue, NoByte, NoByte, NoByte, NoByte, NoByte);
}

RVSTATUS RVFsdGetFileId(PRV_SECURITY Security, RVHANDLE Handle, ULONG64 *FileId) {
    *FileId = 0;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetFileId, Security, Handle, FileId);
}

RVSTATUS RVFsdGetBasicFileInformation(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes) {
    *Attributes = 0;
    constexpr LONG64 *NoTime = nullptr;
    return Call(&RVIOM_FSD_TABLE::RVFsdGetBasicFileInformation, Security, File, Attributes, NoTime, NoTime, NoTime);
}

RVSTATUS RVFsdModifyFileAccess(PRV_SECURITY Security, RVHANDLE File, ULONG Access, ULONG Share, ULONG Options) {
    return Call(&RVIOM_FSD_TABLE::RVFsdModifyFileAccess, Security, File, Access, Share, Options);
}

RVSTATUS RVFsdMoveFile(PRV_SECURITY Security, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
                       PCWSTR TargetName) {
    return Call(&RVIOM_FSD_TABLE::RVFsdMoveFile, Security, SourceBase, Source, TargetBase, TargetName);
}

RVSTATUS RVFsdMoveDirectory(PRV_SECURITY Security, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
                            PCWSTR TargetName) {
    return Call(&RVIOM_FSD_TABLE::RVFsdMoveDirectory, Security, SourceBase, Source, TargetBase, TargetName);
}
