// What changes a volume, checked in a directory of the check's own.
#include <atomic>
#include <cstring>
#include <thread>

#include <unistd.h>

#include "providers/conformance/checker.h"
#include "providers/wide_text.h"

namespace providers::conformance {

RVHANDLE Checker::Make(const std::u16string &Name, const std::string &Data) {
    RVHANDLE File = 0;
    ULONG Action = 0;
    ULONG64 Bytes = 0;
    if (!RequireSuccess(Asked_.OpenFile(Folder_, Name, RV_DISPOSITION_CREATE_OR_REPLACE, File, Action),
                        "RVFsdCreateFile, create or replace")) {
        return 0;
    }
    if (!Data.empty()) {
        RequireSuccess(Asked_.Write(File, 0, Data, Bytes), "RVFsdWriteFile");
    }
    return File;
}

bool Checker::MakeFolder() {
    // One that a Provider would not delete stays from an earlier check.
    RVSTATUS Status = RVSTATUS::Unsuccessful;
    for (unsigned Attempt = 0; Attempt < 100; Attempt++) {
        const std::string Name = fmt::format("rvfsd-check-{}-{}", getpid(), Attempt);
        Name_.assign(Name.begin(), Name.end());
        Status = CreateDirectory(Volume_, Name_);
        if (RvCode(Status) != CollisionCodes[0] && RvCode(Status) != CollisionCodes[1]) {
            break;
        }
    }
    if (RvIsError(Status)) {
        const USHORT Code = RvCode(Status);
        Require(
            Code == RV_STATUS_ACCESS_DENIED || Code == 0x0107 || Code == 0x0002,
            fmt::format("RVFsdCreateDirectory: {}; a Provider that takes no changes denies the access", Hex(Status)));
        return false;
    }
    return RequireSuccess(Asked_.OpenDirectory(Volume_, Name_, Folder_), "RVFsdOpenDirectory of a new directory");
}

void Checker::RemoveFolder() {
    Asked_.CloseDirectory(Folder_);
    RequireSuccess(DeleteDirectory(Volume_, Name_), "RVFsdDeleteDirectory");
    RVHANDLE Gone = 0;
    RequireFailure(Asked_.OpenDirectory(Volume_, Name_, Gone), NotFoundCodes, "RVFsdOpenDirectory of a deleted name",
                   "no such file");
}

void Checker::CheckDirectories() {
    RequireFailure(CreateDirectory(Volume_, Name_), CollisionCodes, "RVFsdCreateDirectory of one that exists",
                   "collision");
    RequireFailure(CreateDirectory(Folder_, u"missing\\below"), NotFoundCodes,
                   "RVFsdCreateDirectory below a missing directory", "path not found");
    RVHANDLE Handle = 0;
    ULONG Action = 0;
    for (const ULONG Disposition : {RV_DISPOSITION_QUERY, RV_DISPOSITION_OPEN_EXISTING}) {
        RequireFailure(Asked_.OpenFile(Volume_, Name_, Disposition, Handle, Action), IsADirectoryCodes,
                       "RVFsdCreateFile of a directory", "is a directory");
    }
    const RVHANDLE File = Make(u"file");
    RequireFailure(Asked_.OpenDirectory(Folder_, u"file", Handle), NotADirectoryCodes, "RVFsdOpenDirectory of a file",
                   "not a directory");
    RequireFailure(DeleteDirectory(Volume_, Name_), NotEmptyCodes, "RVFsdDeleteDirectory of one with entries",
                   "not empty");
    Remove(File, u"file");
}

void Checker::CheckDispositions() {
    constexpr struct {
        ULONG Disposition;
        const char *Name;
        bool Exists;  // before
        ULONG Action; // 0: neither opened nor created
        size_t Left;  // bytes of the four that there were
    } Rows[] = {
        {RV_DISPOSITION_CREATE_NEW, "create new", false, RV_CREATE_ACTION_CREATED, 0},
        {RV_DISPOSITION_CREATE_OR_REPLACE, "create or replace", false, RV_CREATE_ACTION_CREATED, 0},
        {RV_DISPOSITION_OPEN_OR_CREATE, "open or create", false, RV_CREATE_ACTION_CREATED, 0},
        {RV_DISPOSITION_CREATE_OR_REPLACE, "create or replace", true, 0, 0},
        {RV_DISPOSITION_OPEN_EXISTING, "open existing", true, RV_CREATE_ACTION_OPENED, 4},
        {RV_DISPOSITION_OPEN_OR_CREATE, "open or create", true, RV_CREATE_ACTION_OPENED, 4},
        {RV_DISPOSITION_OVERWRITE_EXISTING, "overwrite existing", true, 0, 0},
    };
    for (const auto &Row : Rows) {
        if (Row.Exists) {
            Asked_.CloseFile(Make(u"disposed", "four"));
        }
        const std::string What =
            fmt::format("RVFsdCreateFile, {} of {} file", Row.Name, Row.Exists ? "an existing" : "a missing");
        RVHANDLE File = 0;
        ULONG Action = 0;
        if (!RequireSuccess(Asked_.OpenFile(Folder_, u"disposed", Row.Disposition, File, Action), What)) {
            continue;
        }
        const bool Told = Row.Action != 0 ? Action == Row.Action
                                          : Action != RV_CREATE_ACTION_OPENED && Action != RV_CREATE_ACTION_CREATED;
        Require(Told, fmt::format("{}, answers create action {}", What, Action));
        ULONG64 Size = 0;
        RequireSuccess(Asked_.Size(File, Size), "RVFsdGetFileSize");
        Require(Size == Row.Left, fmt::format("{}, leaves {} bytes", What, Size));
        Remove(File, u"disposed");
    }
    const RVHANDLE First = Make(u"disposed");
    RVHANDLE Second = 0;
    ULONG Action = 0;
    RequireFailure(Asked_.OpenFile(Folder_, u"disposed", RV_DISPOSITION_CREATE_NEW, Second, Action), CollisionCodes,
                   "RVFsdCreateFile, create new of an existing file,", "collision");
    Remove(First, u"disposed");
}

void Checker::CheckData() {
    std::string Pattern(10'000, '\0');
    for (size_t At = 0; At < Pattern.size(); At++) {
        Pattern[At] = static_cast<char>(At * 7 + At / 251);
    }
    const RVHANDLE File = Make(u"data");
    ULONG64 Bytes = 0;
    RequireSuccess(Asked_.Write(File, 0, Pattern, Bytes), "RVFsdWriteFile");
    Require(Bytes == Pattern.size(), fmt::format("RVFsdWriteFile took {} of {} bytes", Bytes, Pattern.size()));
    const auto Read = [&](LONG64 Offset, size_t Length) {
        std::string Data(Length, '\0');
        const RVSTATUS Status = Asked_.Read(File, Offset, Data);
        if (RvCode(Status) != 0x050F) {
            RequireSuccess(Status, fmt::format("RVFsdReadFile of {} bytes at {}", Length, Offset));
        }
        return Data;
    };
    Require(Read(0, Pattern.size()) == Pattern, "what was written is not read again");
    Require(Read(9'000, 2'000) == Pattern.substr(9'000), "a read over the end does not give what is before it");
    Require(Read(10'000, 10).empty(), "a read at the end gives bytes");
    Require(Read(1'000'000, 10).empty(), "a read behind the end gives bytes");
    const auto SizeBecomes = [&](ULONG64 Wanted, const char *What) {
        ULONG64 Size = 0;
        RequireSuccess(Asked_.Size(File, Size), "RVFsdGetFileSize");
        Require(Size == Wanted, fmt::format("{}: the size is {} instead of {}", What, Size, Wanted));
    };
    RequireSuccess(Asked_.Write(File, 12'000, "end", Bytes), "RVFsdWriteFile behind the end");
    SizeBecomes(12'003, "a write behind the end");
    Require(Read(10'000, 2'003) == std::string(2'000, '\0') + "end", "the gap before a write is not of zeros");
    for (const ULONG64 Size : {5'000, 20'000, 0}) {
        RequireSuccess(Asked_.SetSize(File, static_cast<LONG64>(Size)),
                       "RVFsdWriteFile of no bytes without a buffer, which sets the size,");
        SizeBecomes(Size, "RVFsdWriteFile of no bytes without a buffer");
    }
    Remove(File, u"data");
}

void Checker::CheckInformation() {
    const RVHANDLE File = Make(u"about", "12345");
    FileAnswer All = {}, Basic = {};
    RequireSuccess(Asked_.AllAnswer(File, All), "RVFsdGetFileInformation");
    RequireSuccess(Asked_.BasicAnswer(File, Basic), "RVFsdGetBasicFileInformation");
    Require(All.EndOfFile == 5, fmt::format("RVFsdGetFileInformation answers size {} for 5 bytes", All.EndOfFile));
    Require((All.Attributes & RV_ATTR_DIRECTORY) == 0, "a file's attributes have the directory bit");
    Require(All.Attributes == Basic.Attributes && All.Times[1] == Basic.Times[1],
            "RVFsdGetFileInformation and RVFsdGetBasicFileInformation differ");
    const auto Set = [&](ULONG *Attributes, LONG64 *Creation, LONG64 *Write, LONG64 *Access) {
        return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdSetFileInformation, "RVFsdSetFileInformation", File, Attributes,
                           Creation, Write, Access);
    };
    // 100 ns more or less may be lost on the way, two seconds not.
    LONG64 Written = 133'000'000'000'000'001;
    if (RequireSuccess(Set(nullptr, nullptr, &Written, nullptr), "RVFsdSetFileInformation of the write time")) {
        RequireSuccess(Asked_.AllAnswer(File, Basic), "RVFsdGetFileInformation");
        Require(std::abs(Basic.Times[1] - Written) < 20'000'000, "a last write time that was set is not answered");
        Require(Basic.Attributes == All.Attributes, "setting a time changes the attributes, which were null");
    }
    ULONG ReadOnly = RV_ATTR_READONLY;
    if (RequireSuccess(Set(&ReadOnly, nullptr, nullptr, nullptr), "RVFsdSetFileInformation of the attributes")) {
        RequireSuccess(Asked_.AllAnswer(File, Basic), "RVFsdGetFileInformation");
        Require((Basic.Attributes & RV_ATTR_READONLY) != 0, "the read-only bit that was set is not answered");
        Require(std::abs(Basic.Times[1] - Written) < 20'000'000,
                "setting attributes changes the last write time, which was null");
        ULONG None = 0;
        RequireSuccess(Set(&None, nullptr, nullptr, nullptr), "RVFsdSetFileInformation to no attributes");
    }
    Remove(File, u"about");
}

void Checker::CheckNames() {
    const RVHANDLE File = Make(u"Name.txt", "abc");
    RVHANDLE Again = 0;
    ULONG Action = 0;
    const struct {
        RVHANDLE Base;
        std::u16string Path;
        const char *What;
    } Ways[] = {{Folder_, u"Name.txt", "relative to a directory"},
                {Volume_, Name_ + u"\\Name.txt", "relative to a volume"},
                {0, Path_ + u"\\" + Name_ + u"\\Name.txt", "by its absolute path"},
                {Folder_, u"nAME.TXT", "in another case; the driver takes both for one file"}};
    for (const auto &Way : Ways) {
        const std::string What = fmt::format("RVFsdCreateFile {}", Way.What);
        if (RequireSuccess(Asked_.OpenFile(Way.Base, Way.Path, RV_DISPOSITION_OPEN_EXISTING, Again, Action), What)) {
            Require(Again != File, "two opens at once have one handle");
            std::string Data(8, '\0');
            RequireSuccess(Asked_.Read(Again, 0, Data), "RVFsdReadFile");
            Require(Data == "abc", What + ": another file is opened");
            Asked_.CloseFile(Again);
        }
    }
    const auto Entries = Listed(Folder_, u"*", false, BatchBytes, "RVFsdEnumerateDirectory");
    const auto Entry = Entries.find(u"Name.txt");
    if (Require(Entry != Entries.end(), "a file is not listed under the name that it was created with")) {
        Require(Entry->second.Size == 3, fmt::format("a file of 3 bytes is listed with {}", Entry->second.Size));
        Require((Entry->second.Attributes & RV_ATTR_DIRECTORY) == 0, "a file is listed as a directory");
    }
    Remove(File, u"Name.txt");
}

void Checker::CheckMoves() {
    Asked_.CloseFile(Make(u"from", "moved"));
    RVHANDLE File = 0;
    ULONG Action = 0;
    if (RequireSuccess(MoveFile(u"from", u"to"), "RVFsdMoveFile")) {
        RequireFailure(Asked_.OpenFile(Folder_, u"from", RV_DISPOSITION_QUERY, File, Action), NotFoundCodes,
                       "RVFsdCreateFile of a name that was moved away", "no such file");
        if (RequireSuccess(Asked_.OpenFile(Folder_, u"to", RV_DISPOSITION_OPEN_EXISTING, File, Action),
                           "RVFsdCreateFile of a name that was moved to")) {
            Asked_.CloseFile(File);
        }
        RequireSuccess(MoveFile(u"to", u"TO"), "RVFsdMoveFile to the same name in another case");
        RequireSuccess(DeleteFile(Folder_, u"TO"), "RVFsdDeleteFile of a name that was moved to");
    }
    RequireFailure(MoveFile(u"from", u"to"), NoSuchFileCodes, "RVFsdMoveFile of a missing name", "no such file");
    RequireFailure(DeleteFile(Folder_, u"from"), NoSuchFileCodes, "RVFsdDeleteFile of a missing name", "no such file");
    if (RequireSuccess(CreateDirectory(Folder_, u"dir"), "RVFsdCreateDirectory")) {
        const RVSTATUS Moved =
            Asked_.Call(&RVIOM_FSD_TABLE::RVFsdMoveDirectory, "RVFsdMoveDirectory", Folder_, u"dir", Folder_, u"other");
        RequireSuccess(Moved, "RVFsdMoveDirectory");
        RequireSuccess(DeleteDirectory(Folder_, RvIsError(Moved) ? u"dir" : u"other"), "RVFsdDeleteDirectory");
    }
}

void Checker::CheckLocks() {
    const RVHANDLE File = Make(u"locked", "0123456789");
    const auto Lock = [&](auto Slot, const char *Name, auto... Rest) {
        RequireSuccess(Asked_.Call(Slot, Name, File, Rest...), Name);
    };
    Lock(&RVIOM_FSD_TABLE::RVFsdLockFile, "RVFsdLockFile", UCHAR{1}, ULONG64{2}, ULONG64{3});
    Lock(&RVIOM_FSD_TABLE::RVFsdUnlockFile, "RVFsdUnlockFile", ULONG64{2}, ULONG64{3});
    Lock(&RVIOM_FSD_TABLE::RVFsdLockFile, "RVFsdLockFile", UCHAR{0}, ULONG64{1} << 40, ~ULONG64{0} >> 2);
    Lock(&RVIOM_FSD_TABLE::RVFsdUnlockFile, "RVFsdUnlockFile", ULONG64{1} << 40, ~ULONG64{0} >> 2);
    Lock(&RVIOM_FSD_TABLE::RVFsdFlushFile, "RVFsdFlushFile");
    constexpr ULONG Access = RV_ACCESS_ATTRIBUTES | RV_ACCESS_READ | RV_ACCESS_WRITE;
    Lock(&RVIOM_FSD_TABLE::RVFsdModifyFileAccess, "RVFsdModifyFileAccess", ULONG{Access},
         ULONG{FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE}, ULONG{0});
    Remove(File, u"locked");
}

void Checker::CheckManyEntries() {
    constexpr unsigned Count = 300;
    const auto NameOf = [](unsigned Number) {
        const std::string Digits = fmt::format("entry-{:03}", Number);
        return std::u16string(Digits.begin(), Digits.end());
    };
    for (unsigned Number = 0; Number < Count; Number++) {
        Asked_.CloseFile(Make(NameOf(Number)));
    }
    CheckListing(Folder_);
    Require(Listed(Folder_, u"entry-1*", false, BatchBytes, "an enumeration with a mask").size() == 100,
            "an enumeration with the mask 'entry-1*' does not give the hundred entries that match");
    // What is deleted while a search goes on takes no other entry's place.
    ULONG Key = 0;
    ULONG Size = SmallBatchBytes;
    std::vector<UCHAR> Batch(SmallBatchBytes);
    const auto Next = [&] {
        Size = SmallBatchBytes;
        return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdEnumerateDirectory, "RVFsdEnumerateDirectory", Folder_, u"*",
                           UCHAR{0}, &Key, &Size, static_cast<PVOID>(Batch.data()));
    };
    size_t Seen = 0;
    for (RVSTATUS Status = Next(); !RvIsError(Status) && Seen < Count; Status = Next()) {
        for (size_t At = 0;;) {
            ULONG Words[2], Units;
            memcpy(Words, &Batch[At], sizeof(Words));
            memcpy(&Units, &Batch[At + 56], sizeof(Units));
            std::u16string Name(std::min<size_t>(Units, 32), u'\0');
            memcpy(Name.data(), &Batch[At + 60], Name.size() * sizeof(WCHAR));
            RequireSuccess(DeleteFile(Folder_, Name), "RVFsdDeleteFile during a search");
            ++Seen;
            if (Words[0] == 0 || At + Words[0] + 60 > SmallBatchBytes) {
                break;
            }
            At += Words[0];
        }
    }
    Require(Seen == Count,
            fmt::format("a search whose entries are deleted as they come gives {} of {}: rm -r would leave the rest",
                        Seen, Count));
    for (const auto &[Name, Entry] : Listed(Folder_, u"*", false, BatchBytes, "RVFsdEnumerateDirectory")) {
        RequireSuccess(DeleteFile(Folder_, Name), "RVFsdDeleteFile");
    }
}

void Checker::CheckConcurrency() {
    Asked_.CloseFile(Make(u"shared", std::string(4096, 'x')));
    std::atomic<unsigned> Faults{0};
    const auto Work = [&] {
        for (int Round = 0; Round < 200; Round++) {
            RVHANDLE File = 0;
            ULONG Action = 0;
            std::string Data(4096, '\0');
            if (RvIsError(Asked_.OpenFile(Folder_, u"shared", RV_DISPOSITION_OPEN_EXISTING, File, Action))) {
                ++Faults;
                continue;
            }
            Faults += RvIsError(Asked_.Read(File, 0, Data));
            Faults += Data != std::string(4096, 'x');
            Asked_.CloseFile(File);
        }
    };
    std::thread Other(Work);
    Work();
    Other.join();
    Require(Faults == 0, fmt::format("two threads that read one file fail {} times of 400", Faults.load()));
    RequireSuccess(DeleteFile(Folder_, u"shared"), "RVFsdDeleteFile");
}

} // namespace providers::conformance
