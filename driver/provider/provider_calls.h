// Typed calls of the Provider: the security context first, outputs initialised before the call and bounded after it.
// The only place that names the slot table. A call on a Provider that is not bound answers RVSTATUS::Unsuccessful.
#pragma once

#include "frame/irp_context.h"

extern RVIOM_FSD *g_pProviderInterface;

typedef RV_SECURITY_CONTEXT *PRV_SECURITY;

// Drops a raw status by name, with the reason in the source.
inline void Ignore(RVSTATUS, PCSTR) {
}

// Volumes.
RVSTATUS RVFsdOpenVolume(PRV_SECURITY Security, PCWSTR VolumePath, RVHANDLE *Volume);
RVSTATUS RVFsdCloseVolume(PRV_SECURITY Security, RVHANDLE Volume);
// Identifier16 may be NULL.
RVSTATUS RVFsdGetVolumeInformation(PRV_SECURITY Security, RVHANDLE Volume, ULONG *Flags, UCHAR *Identifier16);
RVSTATUS RVFsdGetVolumeSize(PRV_SECURITY Security, RVHANDLE Volume, ULONG64 *Length, ULONG64 *Free,
                            ULONG64 *QuotaAllowed, ULONG64 *FreeAfterQuota);
// Buffer holds RV_PATH_BUFFER_BYTES, its first unit 0; the answer is not empty and is terminated within them, or the
// call fails.
RVSTATUS RVFsdQueryPathForVolume(PRV_SECURITY Security, PCWSTR FullPath, PWSTR Buffer);
RVSTATUS RVFsdGetDFSPhysicalPath(PRV_SECURITY Security, PUNICODE_STRING Path, PUNICODE_STRING PhysicalPath);

// Directories. Attribute and time arguments may be NULL.
RVSTATUS RVFsdCreateDirectory(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path);
RVSTATUS RVFsdOpenDirectory(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path, RVHANDLE *Directory);
RVSTATUS RVFsdCloseDirectory(PRV_SECURITY Security, RVHANDLE Directory);
RVSTATUS RVFsdDeleteDirectory(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path);
RVSTATUS RVFsdGetDirectoryInformation(PRV_SECURITY Security, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation,
                                      LONG64 *LastWrite, LONG64 *LastAccess);
RVSTATUS RVFsdSetDirectoryInformation(PRV_SECURITY Security, RVHANDLE Directory, ULONG *Attributes, LONG64 *Creation,
                                      LONG64 *LastWrite, LONG64 *LastAccess);

// Fill Buffer of BufferBytes with directory records, from *ResumeKey on (0 starts the search). The size that the
// Provider answers is not used: the buffer is walked within BufferBytes.
RVSTATUS RVFsdEnumerateDirectory(PRV_SECURITY Security, RVHANDLE Directory, PCWSTR Mask, UCHAR Flag, ULONG *ResumeKey,
                                 ULONG BufferBytes, PVOID Buffer);
RVSTATUS RVFsdEnumerateDirectoryEx(PRV_SECURITY Security, RVHANDLE Directory, PCWSTR Mask, ULONG Options,
                                   ULONG *ResumeKey, ULONG BufferBytes, PVOID Buffer);

// Files.
struct RV_CREATE_PARAMETERS {
    ULONG Access;
    ULONG Share;
    ULONG Disposition;
    ULONG Options;
    ULONG Attributes;
};
// The open that only asks whether a path exists.
inline constexpr RV_CREATE_PARAMETERS RV_QUERY_ACCESS = {
    RV_ACCESS_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, RV_DISPOSITION_QUERY, 0, 0};
RVSTATUS RVFsdCreateFile(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path, const RV_CREATE_PARAMETERS &Parameters,
                         RVHANDLE *File, ULONG *CreateAction);
RVSTATUS RVFsdCloseFile(PRV_SECURITY Security, RVHANDLE File);
RVSTATUS RVFsdDeleteFile(PRV_SECURITY Security, RVHANDLE Base, PCWSTR Path);
RVSTATUS RVFsdFlushFile(PRV_SECURITY Security, RVHANDLE File);
RVSTATUS RVFsdGetFileSize(PRV_SECURITY Security, RVHANDLE File, ULONG64 *EndOfFile);
// Attributes and EndOfFile are set to 0 before the call; either may be NULL. The times and further outputs are not
// asked.
RVSTATUS RVFsdGetFileInformation(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes, ULONG64 *EndOfFile);
RVSTATUS RVFsdSetFileInformation(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes, LONG64 *Creation,
                                 LONG64 *LastWrite, LONG64 *LastAccess);
RVSTATUS RVFsdGetBasicFileInformation(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes);
RVSTATUS RVFsdModifyFileAccess(PRV_SECURITY Security, RVHANDLE File, ULONG Access, ULONG Share, ULONG Options);
RVSTATUS RVFsdMoveFile(PRV_SECURITY Security, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
                       PCWSTR TargetName);
RVSTATUS RVFsdMoveDirectory(PRV_SECURITY Security, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
                            PCWSTR TargetName);
// *Bytes is the count offered to the Provider before the call, and at most Length after it.
RVSTATUS RVFsdReadFile(PRV_SECURITY Security, RVHANDLE File, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
                       ULONG64 *Bytes);
RVSTATUS RVFsdWriteFile(PRV_SECURITY Security, RVHANDLE File, LONG64 *ByteOffset, ULONG64 Length, PVOID Buffer,
                        ULONG64 *Bytes);
RVSTATUS RVFsdLockFile(PRV_SECURITY Security, RVHANDLE File, BOOLEAN Exclusive, ULONG64 ByteOffset, ULONG64 Length);
RVSTATUS RVFsdUnlockFile(PRV_SECURITY Security, RVHANDLE File, ULONG64 ByteOffset, ULONG64 Length);

// The same operation for a query: attributes, the three times and the size, all set to 0 before the call.
RVSTATUS RVFsdGetFileTimes(PRV_SECURITY Security, RVHANDLE File, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite,
                           LONG64 *LastAccess, ULONG64 *EndOfFile);

// Any handle.
RVSTATUS RVFsdGetFileId(PRV_SECURITY Security, RVHANDLE Handle, ULONG64 *FileId);
RVSTATUS RVFsdGetEffectiveRights(PRV_SECURITY Security, RVHANDLE Handle, USHORT *Rights);

// ---- Handles by scope ----------------------------------------------------------------------------------------------

// A Provider handle that has not been handed to its owner yet: closed by scope, on every failure path. Detach hands it
// on.
template <RVSTATUS (*Close)(PRV_SECURITY, RVHANDLE)>
class [[nodiscard]] ProviderHandle {
public:
    explicit ProviderHandle(PRV_SECURITY Security) : Security_(Security) {
    }
    ProviderHandle(const ProviderHandle &) = delete;
    ProviderHandle &operator=(const ProviderHandle &) = delete;
    ~ProviderHandle() {
        CloseNow();
    }
    // Where an open stores its handle.
    RVHANDLE *Out() {
        return &Handle_;
    }
    RVHANDLE Get() const {
        return Handle_;
    }
    RVHANDLE Detach() {
        const RVHANDLE Handle = Handle_;
        Handle_ = 0;
        return Handle;
    }
    void CloseNow() {
        if (Handle_ != 0) {
            Ignore(Close(Security_, Detach()), "nobody can use the handle again");
        }
    }

private:
    PRV_SECURITY Security_;
    RVHANDLE Handle_ = 0;
};
using ProviderVolume = ProviderHandle<RVFsdCloseVolume>;
using ProviderDirectory = ProviderHandle<RVFsdCloseDirectory>;
using ProviderFile = ProviderHandle<RVFsdCloseFile>;
