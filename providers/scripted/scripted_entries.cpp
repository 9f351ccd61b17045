// The table of the scripted Provider: each entry names its arguments for the record and hands the work to the tree.
#include "providers/framework/traps.h"
#include "providers/scripted/scripted_provider.h"

namespace providers {

struct ScriptedEntries {
    using Sec = RV_SECURITY_CONTEXT *;

    static ScriptedProvider &Of(RVIOM_FSD *Self) {
        return *static_cast<ScriptedProvider *>(Self);
    }
    static RVSTATUS Run(RVIOM_FSD *Self, Slot Which, Sec Security, std::vector<Value> Arguments, const Outputs &Out,
                        const ScriptedProvider::Operation &Default) {
        return Of(Self).Run(Which, Security, std::move(Arguments), Out, Default);
    }

    static ULONG NTAPI AddRef(RVIOM_FSD *Self) noexcept {
        return Of(Self).AddReference();
    }
    static ULONG NTAPI Release(RVIOM_FSD *Self) noexcept {
        return Of(Self).DropReference();
    }

    // ---- Volumes

    static RVSTATUS NTAPI OpenVolume(RVIOM_FSD *Self, Sec Security, PCWSTR Path, RVHANDLE *Volume) noexcept {
        Outputs Out;
        Out.Handle = Volume;
        return Run(Self, Slot::OpenVolume, Security, {Text("path", Path)}, Out,
                   [=](Tree &T) { return T.OpenVolume(Path, Volume); });
    }
    template <Slot Which, HandleKind Kind>
    static RVSTATUS NTAPI Close(RVIOM_FSD *Self, Sec Security, RVHANDLE Handle) noexcept {
        return Run(Self, Which, Security, {Bits("handle", Handle)}, {}, [=](Tree &T) { return T.Close(Kind, Handle); });
    }
    static RVSTATUS NTAPI GetVolumeInformation(RVIOM_FSD *Self, Sec Security, RVHANDLE Volume, ULONG *Flags,
                                               UCHAR *Identifier, PVOID Null1, PVOID Null2) noexcept {
        Outputs Out;
        Out.VolumeFlags = Flags;
        Out.Identifier = Identifier;
        return Run(Self, Slot::GetVolumeInformation, Security, {Bits("handle", Volume)}, Out, [=](Tree &T) {
            if (Null1 != nullptr || Null2 != nullptr) {
                T.Violation("an output that is always null was given");
            }
            return T.GetVolumeInformation(Volume, Flags, Identifier);
        });
    }
    static RVSTATUS NTAPI GetVolumeSize(RVIOM_FSD *Self, Sec Security, RVHANDLE Volume, ULONG64 *Length, ULONG64 *Free,
                                        ULONG64 *QuotaAllowed, ULONG64 *FreeAfterQuota) noexcept {
        Outputs Out;
        Out.VolumeLength = Length;
        Out.Free = Free;
        Out.QuotaAllowed = QuotaAllowed;
        Out.FreeAfterQuota = FreeAfterQuota;
        return Run(Self, Slot::GetVolumeSize, Security, {Bits("handle", Volume)}, Out,
                   [&](Tree &T) { return T.GetVolumeSize(Volume, Out); });
    }
    static RVSTATUS NTAPI QueryPathForVolume(RVIOM_FSD *Self, Sec Security, PCWSTR FullPath, PWSTR Buffer) noexcept {
        Outputs Out;
        Out.Path = Buffer;
        return Run(Self, Slot::QueryPathForVolume, Security, {Text("path", FullPath)}, Out,
                   [=](Tree &T) { return T.QueryPathForVolume(FullPath, Buffer); });
    }
    static RVSTATUS NTAPI GetDFSPhysicalPath(RVIOM_FSD *Self, Sec Security, RVHANDLE Null, PUNICODE_STRING Path,
                                             PUNICODE_STRING Physical) noexcept {
        Outputs Out;
        Out.CountedPath = Physical;
        return Run(Self, Slot::GetDFSPhysicalPath, Security, {Text("path", Path)}, Out, [=](Tree &T) {
            if (Null != 0) {
                T.Violation("the handle is not 0");
            }
            return T.GetPhysicalPath(Path, Physical);
        });
    }

    // ---- Names

    static RVSTATUS NTAPI CreateDirectory(RVIOM_FSD *Self, Sec Security, RVHANDLE Base, PCWSTR Path) noexcept {
        return Run(Self, Slot::CreateDirectory, Security, {Bits("base", Base), Text("path", Path)}, {},
                   [=](Tree &T) { return T.CreateDirectory(Base, Path); });
    }
    static RVSTATUS NTAPI OpenDirectory(RVIOM_FSD *Self, Sec Security, RVHANDLE Base, PCWSTR Path,
                                        RVHANDLE *Directory) noexcept {
        Outputs Out;
        Out.Handle = Directory;
        return Run(Self, Slot::OpenDirectory, Security, {Bits("base", Base), Text("path", Path)}, Out,
                   [=](Tree &T) { return T.OpenDirectory(Base, Path, Directory); });
    }
    static RVSTATUS NTAPI CreateFile(RVIOM_FSD *Self, Sec Security, RVHANDLE Base, PCWSTR Path, ULONG Access,
                                     ULONG Share, ULONG Disposition, ULONG Options, ULONG Attributes, RVHANDLE *File,
                                     ULONG *CreateAction) noexcept {
        Outputs Out;
        Out.Handle = File;
        Out.CreateAction = CreateAction;
        return Run(Self, Slot::CreateFile, Security,
                   {Bits("base", Base), Text("path", Path), Bits("access", Access), Bits("share", Share),
                    Decimal("disposition", Disposition), Bits("options", Options), Bits("attributes", Attributes)},
                   Out, [=](Tree &T) {
                       return T.CreateFile(Base, Path, Access, Share, Disposition, Options, Attributes, File,
                                           CreateAction);
                   });
    }
    template <Slot Which, bool Directory>
    static RVSTATUS NTAPI Delete(RVIOM_FSD *Self, Sec Security, RVHANDLE Base, PCWSTR Path) noexcept {
        return Run(Self, Which, Security, {Bits("base", Base), Text("path", Path)}, {},
                   [=](Tree &T) { return T.Delete(Directory, Base, Path); });
    }
    template <Slot Which, bool Directory>
    static RVSTATUS NTAPI Move(RVIOM_FSD *Self, Sec Security, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase,
                               PCWSTR Target) noexcept {
        return Run(Self, Which, Security,
                   {Bits("sourceBase", SourceBase), Text("source", Source), Bits("targetBase", TargetBase),
                    Text("target", Target)},
                   {}, [=](Tree &T) { return T.Move(Directory, SourceBase, Source, TargetBase, Target); });
    }
    template <Slot Which, bool ShortNames, class Word>
    static RVSTATUS NTAPI Enumerate(RVIOM_FSD *Self, Sec Security, RVHANDLE Directory, PCWSTR Mask, Word Option,
                                    ULONG *ResumeKey, ULONG *BufferSize, PVOID Buffer) noexcept {
        Outputs Out;
        Out.ResumeKey = ResumeKey;
        Out.BufferSize = BufferSize;
        Out.Buffer = Buffer;
        return Run(Self, Which, Security,
                   {Bits("handle", Directory), Text("mask", Mask), Bits(ShortNames ? "options" : "flag", Option),
                    OptionalDecimal("resume", ResumeKey), OptionalDecimal("size", BufferSize)},
                   Out,
                   [=](Tree &T) { return T.Enumerate(Directory, Mask, ShortNames, ResumeKey, BufferSize, Buffer); });
    }

    // ---- Information

    static Outputs Times(ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite, LONG64 *LastAccess) {
        Outputs Out;
        Out.Attributes = Attributes;
        Out.Creation = Creation;
        Out.LastWrite = LastWrite;
        Out.LastAccess = LastAccess;
        return Out;
    }
    template <Slot Which, bool Directory>
    static RVSTATUS NTAPI GetBasic(RVIOM_FSD *Self, Sec Security, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation,
                                   LONG64 *LastWrite, LONG64 *LastAccess) noexcept {
        const Outputs Out = Times(Attributes, Creation, LastWrite, LastAccess);
        return Run(Self, Which, Security, {Bits("handle", Handle)}, Out,
                   [&](Tree &T) { return T.GetInformation(Directory, Handle, Out); });
    }
    static RVSTATUS NTAPI GetFileInformation(RVIOM_FSD *Self, Sec Security, RVHANDLE File, ULONG *Attributes,
                                             LONG64 *Creation, LONG64 *LastWrite, LONG64 *LastAccess,
                                             ULONG64 *EndOfFile, ULONG64 *Further, UCHAR *Byte1, UCHAR *Byte2,
                                             UCHAR *Byte3, UCHAR *Byte4, UCHAR *Byte5) noexcept {
        Outputs Out = Times(Attributes, Creation, LastWrite, LastAccess);
        Out.EndOfFile = EndOfFile;
        return Run(Self, Slot::GetFileInformation, Security, {Bits("handle", File)}, Out, [&](Tree &T) {
            const RVSTATUS Status = T.GetInformation(false, File, Out);
            if (!RvIsError(Status) && Further != nullptr) {
                *Further = 0xCCCCCCCCCCCCCCCC;
            }
            for (UCHAR *Byte : {Byte1, Byte2, Byte3, Byte4, Byte5}) {
                if (!RvIsError(Status) && Byte != nullptr) {
                    *Byte = 0xCC;
                }
            }
            return Status;
        });
    }
    template <Slot Which, bool Directory>
    static RVSTATUS NTAPI Set(RVIOM_FSD *Self, Sec Security, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation,
                              LONG64 *LastWrite, LONG64 *LastAccess) noexcept {
        return Run(
            Self, Which, Security,
            {Bits("handle", Handle), OptionalBits("attributes", Attributes), OptionalDecimal("creation", Creation),
             OptionalDecimal("lastWrite", LastWrite), OptionalDecimal("lastAccess", LastAccess)},
            {},
            [=](Tree &T) { return T.SetInformation(Directory, Handle, Attributes, Creation, LastWrite, LastAccess); });
    }
    static RVSTATUS NTAPI GetFileId(RVIOM_FSD *Self, Sec Security, RVHANDLE Handle, ULONG64 *FileId) noexcept {
        Outputs Out;
        Out.FileId = FileId;
        return Run(Self, Slot::GetFileId, Security, {Bits("handle", Handle)}, Out,
                   [=](Tree &T) { return T.GetFileId(Handle, FileId); });
    }
    static RVSTATUS NTAPI GetFileSize(RVIOM_FSD *Self, Sec Security, RVHANDLE File, ULONG64 *EndOfFile) noexcept {
        Outputs Out;
        Out.EndOfFile = EndOfFile;
        return Run(Self, Slot::GetFileSize, Security, {Bits("handle", File)}, Out,
                   [&](Tree &T) { return T.GetInformation(false, File, Out); });
    }
    static RVSTATUS NTAPI GetEffectiveRights(RVIOM_FSD *Self, Sec Security, RVHANDLE Handle, USHORT *Rights) noexcept {
        Outputs Out;
        Out.Rights = Rights;
        return Run(Self, Slot::GetEffectiveRights, Security, {Bits("handle", Handle)}, Out,
                   [=](Tree &T) { return T.GetEffectiveRights(Handle, Rights); });
    }

    // ---- Files

    static RVSTATUS NTAPI FlushFile(RVIOM_FSD *Self, Sec Security, RVHANDLE File) noexcept {
        return Run(Self, Slot::FlushFile, Security, {Bits("handle", File)}, {},
                   [=](Tree &T) { return T.FlushFile(File); });
    }
    static RVSTATUS NTAPI LockFile(RVIOM_FSD *Self, Sec Security, RVHANDLE File, UCHAR Exclusive, ULONG64 Offset,
                                   ULONG64 Length) noexcept {
        return Run(Self, Slot::LockFile, Security,
                   {Bits("handle", File), Decimal("exclusive", Exclusive), Decimal("offset", Offset),
                    Decimal("length", Length)},
                   {}, [=](Tree &T) {
                       if (Exclusive > 1) {
                           T.Violation("the exclusive byte is neither 0 nor 1");
                       }
                       return T.LockFile(File, Exclusive == 1, Offset, Length);
                   });
    }
    static RVSTATUS NTAPI UnlockFile(RVIOM_FSD *Self, Sec Security, RVHANDLE File, ULONG64 Offset,
                                     ULONG64 Length) noexcept {
        return Run(Self, Slot::UnlockFile, Security,
                   {Bits("handle", File), Decimal("offset", Offset), Decimal("length", Length)}, {},
                   [=](Tree &T) { return T.UnlockFile(File, Offset, Length); });
    }
    static RVSTATUS NTAPI ReadFile(RVIOM_FSD *Self, Sec Security, RVHANDLE File, LONG64 *Offset, ULONG64 Length,
                                   PVOID Buffer, ULONG64 *Bytes) noexcept {
        Outputs Out;
        Out.Bytes = Bytes;
        Out.Buffer = Buffer;
        return Run(Self, Slot::ReadFile, Security,
                   {Bits("handle", File), OptionalDecimal("offset", Offset), Decimal("length", Length),
                    OptionalDecimal("offered", Bytes)},
                   Out, [=](Tree &T) { return T.ReadFile(File, Offset, Length, Buffer, Bytes); });
    }
    static RVSTATUS NTAPI WriteFile(RVIOM_FSD *Self, Sec Security, RVHANDLE File, LONG64 *Offset, ULONG64 Length,
                                    PVOID Buffer, ULONG64 *Bytes) noexcept {
        Outputs Out;
        Out.Bytes = Bytes;
        return Run(Self, Slot::WriteFile, Security,
                   {Bits("handle", File), OptionalDecimal("offset", Offset), Decimal("length", Length),
                    Decimal("data", Buffer != nullptr)},
                   Out, [=](Tree &T) { return T.WriteFile(File, Offset, Length, Buffer, Bytes); });
    }
    static RVSTATUS NTAPI ModifyFileAccess(RVIOM_FSD *Self, Sec Security, RVHANDLE File, ULONG Access, ULONG Share,
                                           ULONG Options) noexcept {
        return Run(Self, Slot::ModifyFileAccess, Security,
                   {Bits("handle", File), Bits("access", Access), Bits("share", Share), Bits("options", Options)}, {},
                   [=](Tree &T) { return T.ModifyFileAccess(File, Access, Share, Options); });
    }

    static const RVIOM_FSD_TABLE *Table();
};

const RVIOM_FSD_TABLE *ScriptedEntries::Table() {
    static const RVIOM_FSD_TABLE Filled = [] {
        auto T = TrappedTable<ProviderName, RVIOM_FSD_TABLE>();
        T.AddRef = reinterpret_cast<PVOID>(&AddRef);
        T.Release = Release;
        T.RVFsdOpenVolume = OpenVolume;
        T.RVFsdCloseVolume = Close<Slot::CloseVolume, HandleKind::Volume>;
        T.RVFsdGetVolumeInformation = GetVolumeInformation;
        T.RVFsdGetVolumeSize = GetVolumeSize;
        T.RVFsdQueryPathForVolume = QueryPathForVolume;
        T.RVFsdCreateDirectory = CreateDirectory;
        T.RVFsdOpenDirectory = OpenDirectory;
        T.RVFsdGetDirectoryInformation = GetBasic<Slot::GetDirectoryInformation, true>;
        T.RVFsdSetDirectoryInformation = Set<Slot::SetDirectoryInformation, true>;
        T.RVFsdCloseDirectory = Close<Slot::CloseDirectory, HandleKind::Directory>;
        T.RVFsdDeleteDirectory = Delete<Slot::DeleteDirectory, true>;
        T.RVFsdEnumerateDirectory = Enumerate<Slot::EnumerateDirectory, false, UCHAR>;
        T.RVFsdMoveDirectory = Move<Slot::MoveDirectory, true>;
        T.RVFsdCreateFile = CreateFile;
        T.RVFsdCloseFile = Close<Slot::CloseFile, HandleKind::File>;
        T.RVFsdDeleteFile = Delete<Slot::DeleteFile, false>;
        T.RVFsdMoveFile = Move<Slot::MoveFile, false>;
        T.RVFsdFlushFile = FlushFile;
        T.RVFsdGetFileInformation = GetFileInformation;
        T.RVFsdGetBasicFileInformation = GetBasic<Slot::GetBasicFileInformation, false>;
        T.RVFsdGetFileId = GetFileId;
        T.RVFsdGetFileSize = GetFileSize;
        T.RVFsdLockFile = LockFile;
        T.RVFsdUnlockFile = UnlockFile;
        T.RVFsdReadFile = ReadFile;
        T.RVFsdSetFileInformation = Set<Slot::SetFileInformation, false>;
        T.RVFsdWriteFile = WriteFile;
        T.RVFsdEnumerateDirectoryEx = Enumerate<Slot::EnumerateDirectoryEx, true, ULONG>;
        T.RVFsdGetEffectiveRights = GetEffectiveRights;
        T.RVFsdGetDFSPhysicalPath = GetDFSPhysicalPath;
        T.RVFsdModifyFileAccess = ModifyFileAccess;
        return T;
    }();
    return &Filled;
}

ScriptedProvider::ScriptedProvider() {
    Table = ScriptedEntries::Table();
    Tree_.AddVolume(u"\\srv\\vol");
}

ScriptedProvider::~ScriptedProvider() = default;

} // namespace providers
