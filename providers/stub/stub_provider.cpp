#include "providers/stub/stub_provider.h"

#include "providers/framework/traps.h"

#include <algorithm>
#include <string_view>

namespace providers {

namespace {

using Sec = RV_SECURITY_CONTEXT *;

constexpr RVSTATUS NoSuchFile{0xC7E70506};
constexpr RVSTATUS NoMoreFiles{0xC7E70505};
constexpr RVSTATUS NotADirectory{0xC7E70520};
constexpr RVSTATUS IsADirectory{0xC7E70521};
constexpr RVSTATUS BufferTooSmall{0xC7E70007};
constexpr LONG64 SomeTime = 133000000000000000;
constexpr ULONG BatchBytes = 12288;
constexpr ULONG BasicNameOffset = 60;
constexpr ULONG ShortNameNameOffset = 88;
constexpr std::u16string_view EntryName = u"entry-000000.txt";

enum class Kind { Missing, Directory, File };

Kind KindOf(PCWSTR Path) {
    PCWSTR Last = Path;
    bool Dotted = false;
    for (PCWSTR At = Path; *At != 0; At++) {
        if (*At == u'\\') {
            Last = At + 1;
            Dotted = false;
        } else if (*At == u'.') {
            Dotted = true;
        }
    }
    if (*Last == u'!') {
        return Kind::Missing;
    }
    return Dotted ? Kind::File : Kind::Directory;
}

template <class Value, class Given>
void Store(Value *Out, Given Answer) {
    if (Out != nullptr) {
        *Out = static_cast<Value>(Answer);
    }
}

void PutWord(UCHAR *At, ULONG Word) {
    std::memcpy(At, &Word, sizeof(Word));
}

void PutRecord(UCHAR *At, ULONG Next, ULONG NameOffset, const char16_t *Name, ULONG Units) {
    PutWord(At, Next);
    PutWord(At + 4, RV_ATTR_ARCHIVE);
    for (ULONG Offset = 8; Offset <= 24; Offset += 8) {
        std::memcpy(At + Offset, &SomeTime, sizeof(SomeTime));
    }
    PutWord(At + 32, 4096);
    PutWord(At + NameOffset - 4, Units);
    std::memcpy(At + NameOffset, Name, Units * 2);
}

StubProvider::Batch MakeBatch(ULONG NameOffset) {
    StubProvider::Batch Made;
    Made.NameOffset = NameOffset;
    Made.RecordBytes = (NameOffset + static_cast<ULONG>(EntryName.size()) * 2 + 7) & ~7u;
    const ULONG Records = BatchBytes / Made.RecordBytes;
    Made.Bytes.resize(Records * Made.RecordBytes);
    for (ULONG Index = 0; Index < Records; Index++) {
        PutRecord(&Made.Bytes[Index * Made.RecordBytes], Made.RecordBytes, NameOffset, EntryName.data(),
                  static_cast<ULONG>(EntryName.size()));
    }
    return Made;
}

// A mask without wildcards names one entry; any other lists them all.
RVSTATUS Enumerate(RVIOM_FSD *Self, bool ShortNames, PCWSTR Mask, ULONG *ResumeKey, ULONG *BufferSize, PVOID Buffer) {
    const auto &Stub = *static_cast<StubProvider *>(Self);
    const StubProvider::Batch &Batch = ShortNames ? Stub.ShortNameBatch() : Stub.BasicBatch();
    UCHAR *Out = static_cast<UCHAR *>(Buffer);
    const std::u16string_view Wanted = Mask == nullptr ? std::u16string_view(u"*") : Mask;
    if (Wanted.find_first_of(u"*?\uF8FC\uF8FD") == std::u16string_view::npos) {
        const auto Units = static_cast<ULONG>(Wanted.size());
        const ULONG Needed = Batch.NameOffset + Units * 2;
        if (*ResumeKey != 0 || KindOf(Mask) == Kind::Missing) {
            return NoMoreFiles;
        }
        if (Needed > *BufferSize) {
            return BufferTooSmall;
        }
        std::memset(Out, 0, Batch.NameOffset);
        PutRecord(Out, 0, Batch.NameOffset, Mask, Units);
        *ResumeKey = 1;
        *BufferSize = Needed;
        return RVSTATUS::Success;
    }
    const ULONG Total = Stub.Options().EntriesPerDirectory;
    if (*ResumeKey >= Total) {
        return NoMoreFiles;
    }
    const ULONG Room = std::min<ULONG>(*BufferSize, static_cast<ULONG>(Batch.Bytes.size())) / Batch.RecordBytes;
    const ULONG Count = std::min(Room, Total - *ResumeKey);
    if (Count == 0) {
        return BufferTooSmall;
    }
    std::memcpy(Out, Batch.Bytes.data(), Count * Batch.RecordBytes);
    PutWord(Out + (Count - 1) * Batch.RecordBytes, 0);
    *ResumeKey += Count;
    *BufferSize = Count * Batch.RecordBytes;
    return RVSTATUS::Success;
}

// The object is its maker's: references are not counted.
ULONG NTAPI NoCount(RVIOM_FSD *) noexcept {
    return 1;
}

RVSTATUS NTAPI HandleOnly(RVIOM_FSD *, Sec, RVHANDLE) noexcept {
    return RVSTATUS::Success;
}

RVSTATUS NTAPI BaseAndPath(RVIOM_FSD *, Sec, RVHANDLE, PCWSTR) noexcept {
    return RVSTATUS::Success;
}

RVSTATUS NTAPI Move(RVIOM_FSD *, Sec, RVHANDLE, PCWSTR, RVHANDLE, PCWSTR) noexcept {
    return RVSTATUS::Success;
}

RVSTATUS NTAPI SetInformation(RVIOM_FSD *, Sec, RVHANDLE, ULONG *, LONG64 *, LONG64 *, LONG64 *) noexcept {
    return RVSTATUS::Success;
}

RVSTATUS NTAPI OpenVolume(RVIOM_FSD *, Sec, PCWSTR, RVHANDLE *Volume) noexcept {
    *Volume = StubProvider::VolumeHandle;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetVolumeInformation(RVIOM_FSD *, Sec, RVHANDLE, ULONG *Flags, UCHAR *Identifier, PVOID,
                                    PVOID) noexcept {
    Store(Flags, RV_VOLUME_IDENTIFIER_VALID);
    if (Identifier != nullptr) {
        std::memset(Identifier, 0x5A, 16);
    }
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetVolumeSize(RVIOM_FSD *, Sec, RVHANDLE, ULONG64 *Length, ULONG64 *Free, ULONG64 *Allowed,
                             ULONG64 *FreeAfterQuota) noexcept {
    Store(Length, 1ull << 42);
    Store(Free, 1ull << 41);
    Store(Allowed, 1ull << 42);
    Store(FreeAfterQuota, 1ull << 41);
    return RVSTATUS::Success;
}

RVSTATUS NTAPI QueryPathForVolume(RVIOM_FSD *, Sec, PCWSTR FullPath, PWSTR Buffer) noexcept {
    ULONG Units = 0;
    for (ULONG Backslashes = 0; FullPath[Units] != 0 && Units < RV_PATH_BUFFER_BYTES / 2 - 1; Units++) {
        if (FullPath[Units] == u'\\' && ++Backslashes == 3) {
            break;
        }
        Buffer[Units] = FullPath[Units];
    }
    Buffer[Units] = 0;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI OpenDirectory(RVIOM_FSD *, Sec, RVHANDLE, PCWSTR Path, RVHANDLE *Directory) noexcept {
    switch (KindOf(Path)) {
    case Kind::Missing:
        return NoSuchFile;
    case Kind::File:
        return NotADirectory;
    case Kind::Directory:
        break;
    }
    *Directory = StubProvider::DirectoryHandle;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetDirectoryInformation(RVIOM_FSD *, Sec, RVHANDLE, ULONG *Attributes, LONG64 *Creation,
                                       LONG64 *LastWrite, LONG64 *LastAccess) noexcept {
    Store(Attributes, RV_ATTR_DIRECTORY);
    Store(Creation, SomeTime);
    Store(LastWrite, SomeTime);
    Store(LastAccess, SomeTime);
    return RVSTATUS::Success;
}

RVSTATUS NTAPI EnumerateDirectory(RVIOM_FSD *Self, Sec, RVHANDLE, PCWSTR Mask, UCHAR, ULONG *ResumeKey,
                                  ULONG *BufferSize, PVOID Buffer) noexcept {
    return Enumerate(Self, false, Mask, ResumeKey, BufferSize, Buffer);
}

RVSTATUS NTAPI EnumerateDirectoryEx(RVIOM_FSD *Self, Sec, RVHANDLE, PCWSTR Mask, ULONG, ULONG *ResumeKey,
                                    ULONG *BufferSize, PVOID Buffer) noexcept {
    return Enumerate(Self, true, Mask, ResumeKey, BufferSize, Buffer);
}

RVSTATUS NTAPI CreateFile(RVIOM_FSD *, Sec, RVHANDLE, PCWSTR Path, ULONG, ULONG, ULONG Disposition, ULONG, ULONG,
                          RVHANDLE *File, ULONG *CreateAction) noexcept {
    const Kind What = KindOf(Path);
    if (What == Kind::Directory) {
        return IsADirectory;
    }
    const bool Creates = Disposition == RV_DISPOSITION_CREATE_NEW || Disposition == RV_DISPOSITION_CREATE_OR_REPLACE ||
                         Disposition == RV_DISPOSITION_OPEN_OR_CREATE;
    if (What == Kind::Missing && !Creates) {
        return NoSuchFile;
    }
    *File = StubProvider::FileHandle;
    *CreateAction = What == Kind::Missing ? RV_CREATE_ACTION_CREATED : RV_CREATE_ACTION_OPENED;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetFileInformation(RVIOM_FSD *Self, Sec, RVHANDLE, ULONG *Attributes, LONG64 *Creation,
                                  LONG64 *LastWrite, LONG64 *LastAccess, ULONG64 *EndOfFile, ULONG64 *Further,
                                  UCHAR *Byte1, UCHAR *Byte2, UCHAR *Byte3, UCHAR *Byte4, UCHAR *Byte5) noexcept {
    const ULONG64 Size = static_cast<StubProvider *>(Self)->Options().FileSize;
    Store(Attributes, RV_ATTR_ARCHIVE);
    Store(Creation, SomeTime);
    Store(LastWrite, SomeTime);
    Store(LastAccess, SomeTime);
    Store(EndOfFile, Size);
    Store(Further, Size);
    for (UCHAR *Byte : {Byte1, Byte2, Byte3, Byte4, Byte5}) {
        Store(Byte, 0);
    }
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetBasicFileInformation(RVIOM_FSD *, Sec, RVHANDLE, ULONG *Attributes, LONG64 *Creation,
                                       LONG64 *LastWrite, LONG64 *LastAccess) noexcept {
    Store(Attributes, RV_ATTR_ARCHIVE);
    Store(Creation, SomeTime);
    Store(LastWrite, SomeTime);
    Store(LastAccess, SomeTime);
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetFileId(RVIOM_FSD *, Sec, RVHANDLE Handle, ULONG64 *FileId) noexcept {
    *FileId = Handle;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetFileSize(RVIOM_FSD *Self, Sec, RVHANDLE, ULONG64 *EndOfFile) noexcept {
    *EndOfFile = static_cast<StubProvider *>(Self)->Options().FileSize;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI LockFile(RVIOM_FSD *, Sec, RVHANDLE, UCHAR, ULONG64, ULONG64) noexcept {
    return RVSTATUS::Success;
}

RVSTATUS NTAPI UnlockFile(RVIOM_FSD *, Sec, RVHANDLE, ULONG64, ULONG64) noexcept {
    return RVSTATUS::Success;
}

RVSTATUS NTAPI Transfer(RVIOM_FSD *, Sec, RVHANDLE, LONG64 *, ULONG64 Length, PVOID, ULONG64 *Bytes) noexcept {
    *Bytes = Length;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetEffectiveRights(RVIOM_FSD *, Sec, RVHANDLE, USHORT *Rights) noexcept {
    *Rights = 0xFF;
    return RVSTATUS::Success;
}

RVSTATUS NTAPI GetDFSPhysicalPath(RVIOM_FSD *, Sec, RVHANDLE, PUNICODE_STRING, PUNICODE_STRING) noexcept {
    return RVSTATUS::NotDistributedPath;
}

RVSTATUS NTAPI ModifyFileAccess(RVIOM_FSD *, Sec, RVHANDLE, ULONG, ULONG, ULONG) noexcept {
    return RVSTATUS::Success;
}

const RVIOM_FSD_TABLE *StubTable() {
    static const RVIOM_FSD_TABLE Table = [] {
        auto T = TrappedTable<ProviderName, RVIOM_FSD_TABLE>();
        T.AddRef = reinterpret_cast<PVOID>(&NoCount);
        T.Release = NoCount;
        T.RVFsdOpenVolume = OpenVolume;
        T.RVFsdCloseVolume = HandleOnly;
        T.RVFsdGetVolumeInformation = GetVolumeInformation;
        T.RVFsdGetVolumeSize = GetVolumeSize;
        T.RVFsdQueryPathForVolume = QueryPathForVolume;
        T.RVFsdCreateDirectory = BaseAndPath;
        T.RVFsdOpenDirectory = OpenDirectory;
        T.RVFsdGetDirectoryInformation = GetDirectoryInformation;
        T.RVFsdSetDirectoryInformation = SetInformation;
        T.RVFsdCloseDirectory = HandleOnly;
        T.RVFsdDeleteDirectory = BaseAndPath;
        T.RVFsdEnumerateDirectory = EnumerateDirectory;
        T.RVFsdMoveDirectory = Move;
        T.RVFsdCreateFile = CreateFile;
        T.RVFsdCloseFile = HandleOnly;
        T.RVFsdDeleteFile = BaseAndPath;
        T.RVFsdMoveFile = Move;
        T.RVFsdFlushFile = HandleOnly;
        T.RVFsdGetFileInformation = GetFileInformation;
        T.RVFsdGetBasicFileInformation = GetBasicFileInformation;
        T.RVFsdGetFileId = GetFileId;
        T.RVFsdGetFileSize = GetFileSize;
        T.RVFsdLockFile = LockFile;
        T.RVFsdUnlockFile = UnlockFile;
        T.RVFsdReadFile = Transfer;
        T.RVFsdSetFileInformation = SetInformation;
        T.RVFsdWriteFile = Transfer;
        T.RVFsdEnumerateDirectoryEx = EnumerateDirectoryEx;
        T.RVFsdGetEffectiveRights = GetEffectiveRights;
        T.RVFsdGetDFSPhysicalPath = GetDFSPhysicalPath;
        T.RVFsdModifyFileAccess = ModifyFileAccess;
        return T;
    }();
    return &Table;
}

} // namespace

StubProvider::StubProvider(StubOptions Options)
    : Options_(Options), Basic_(MakeBatch(BasicNameOffset)), ShortName_(MakeBatch(ShortNameNameOffset)) {
    Table = StubTable();
}

} // namespace providers
