#include "providers/conformance/conformance.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <thread>

#include <unistd.h>

#include <fmt/format.h>

#include "providers/conformance/provider_client.h"
#include "providers/wide_text.h"

namespace providers {

namespace {

using conformance::Client;
using conformance::FileAnswer;
using conformance::Record;

constexpr ULONG BatchBytes = 12288; // the driver's
constexpr ULONG SmallBatchBytes = 640;
constexpr USHORT NotFoundCodes[] = {0x000B, 0x0502, 0x0503, 0x0506};
constexpr USHORT CollisionCodes[] = {0x0106, 0x0510};
constexpr USHORT IsADirectoryCodes[] = {0x0521};
constexpr USHORT NotADirectoryCodes[] = {RVFS_NOT_A_DIRECTORY};
constexpr USHORT EndCodes[] = {0x0505, 0x0009, 0x0506, 0x0502};
constexpr USHORT NotEmptyCodes[] = {0x0513};
constexpr USHORT NoVolumeCodes[] = {RVFS_PATH_NOT_FOUND, RVFS_UNRECOGNIZED_VOLUME, RVFS_UNKNOWN_SERVER, 0x000B};

std::string Hex(RVSTATUS Status) {
    return fmt::format("0x{:08X}", static_cast<ULONG>(Status));
}

class Checker {
public:
    Checker(RVIOM_FSD &Provider, const std::u16string &Volume)
        : Asked_(Provider, [this](const std::string &What) { Fail(What); }), Path_(Volume) {
    }

    ConformanceResult Run() {
        Check("the volume: its path, an unknown server", [this] { CheckVolumePath(); });
        Check("the volume: opening and closing it", [this] { CheckVolumeHandles(); });
        if (Volume_ == 0) {
            return Result_;
        }
        Check("the volume: flags, identifier, sizes, rights", [this] { CheckVolumeAnswers(); });
        Check("the root: attributes, listings in both forms, small batches, masks", [this] { CheckListing(Volume_); });
        Check("names that are not there", [this] { CheckMissing(); });
        if (MakeFolder()) {
            Result_.Writable = true;
            Check("directories: creating, opening, kinds", [this] { CheckDirectories(); });
            Check("files: dispositions and create actions", [this] { CheckDispositions(); });
            Check("files: reading, writing, sizes", [this] { CheckData(); });
            Check("files: information, attributes, times", [this] { CheckInformation(); });
            Check("names: bases, absolute paths, case", [this] { CheckNames(); });
            Check("moving and deleting", [this] { CheckMoves(); });
            Check("locks, flush, access", [this] { CheckLocks(); });
            Check("a listing of many entries", [this] { CheckManyEntries(); });
            Check("two threads at once", [this] { CheckConcurrency(); });
            Check("cleaning up", [this] { RemoveFolder(); });
        }
        Asked_.CloseVolume(Volume_);
        return Result_;
    }

private:
    template <class Body>
    void Check(const char *What, const Body &Ask) {
        Result_.Checked.push_back(What);
        Ask();
    }
    void Fail(const std::string &What) {
        const std::lock_guard Hold(Lock_);
        if (std::find(Result_.Failures.begin(), Result_.Failures.end(), What) == Result_.Failures.end()) {
            Result_.Failures.push_back(What);
        }
    }
    bool Require(bool Holds, const std::string &Otherwise) {
        if (!Holds) {
            Fail(Otherwise);
        }
        return Holds;
    }
    bool RequireSuccess(RVSTATUS Status, const std::string &What) {
        return Require(!RvIsError(Status), fmt::format("{}: {}", What, Hex(Status)));
    }
    template <size_t Count>
    void RequireFailure(RVSTATUS Status, const USHORT (&Codes)[Count], const std::string &What, const char *Wanted) {
        if (!RvIsError(Status)) {
            Fail(fmt::format("{} succeeds", What));
        } else if (std::find(std::begin(Codes), std::end(Codes), RvCode(Status)) == std::end(Codes)) {
            Fail(fmt::format("{} answers {}, which the driver does not take for '{}' (0xC7E7{:04X})", What, Hex(Status),
                             Wanted, Codes[Count - 1]));
        }
    }

    // ---- Volumes

    void CheckVolumePath() {
        std::u16string Answer;
        const std::u16string Below = Path_ + u"\\rvfsd-check\\below";
        if (RequireSuccess(Asked_.VolumePath(Below, Answer), "RVFsdQueryPathForVolume of a path in the volume")) {
            Require(
                Answer.size() == Path_.size(),
                fmt::format("RVFsdQueryPathForVolume answers '{}' for a path in '{}': the driver cuts the path at its "
                            "length",
                            ToUtf8(Answer), ToUtf8(Path_)));
        }
        RequireFailure(Asked_.VolumePath(u"\\rvfsd-check-no-such-server\\x", Answer), NoVolumeCodes,
                       "RVFsdQueryPathForVolume of an unknown server", "unknown server");
    }

    void CheckVolumeHandles() {
        RVHANDLE Second = 0;
        if (!RequireSuccess(Asked_.OpenVolume(Path_, Volume_), "RVFsdOpenVolume")) {
            Volume_ = 0;
            return;
        }
        if (RequireSuccess(Asked_.OpenVolume(Path_, Second), "RVFsdOpenVolume of an open volume")) {
            Asked_.CloseVolume(Second);
        }
        ULONG Flags;
        RequireSuccess(VolumeFlags(Flags), "a volume's handle after another one was closed");
    }

    RVSTATUS VolumeFlags(ULONG &Flags) {
        Flags = 0xA5A5A5A5;
        return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetVolumeInformation, "RVFsdGetVolumeInformation", Volume_, &Flags,
                           static_cast<UCHAR *>(nullptr), PVOID{nullptr}, PVOID{nullptr});
    }

    void CheckVolumeAnswers() {
        ULONG Flags = 0;
        if (RequireSuccess(VolumeFlags(Flags), "RVFsdGetVolumeInformation without an identifier buffer") &&
            Require(Flags != 0xA5A5A5A5, "RVFsdGetVolumeInformation did not write the flags") &&
            (Flags & RV_VOLUME_IDENTIFIER_VALID) != 0) {
            UCHAR Identifier[16] = {};
            RequireSuccess(Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetVolumeInformation, "RVFsdGetVolumeInformation",
                                       Volume_, &Flags, Identifier, PVOID{nullptr}, PVOID{nullptr}),
                           "RVFsdGetVolumeInformation");
            Require(std::any_of(std::begin(Identifier), std::end(Identifier), [](UCHAR Byte) { return Byte != 0; }),
                    "the volume says that its identifier is valid, and it is all zeros");
            ULONG64 Id = 0, Again = 0;
            if (RequireSuccess(Asked_.FileId(Volume_, Id), "RVFsdGetFileId of the root, where identifiers are valid")) {
                RequireSuccess(Asked_.FileId(Volume_, Again), "RVFsdGetFileId");
                Require(Id == Again, "RVFsdGetFileId answers otherwise when it is asked again");
            }
        }
        constexpr ULONG64 Unwritten = 0xA5A5A5A5A5A5A5A5;
        ULONG64 Sizes[4] = {Unwritten, Unwritten, Unwritten, Unwritten};
        if (RequireSuccess(Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetVolumeSize, "RVFsdGetVolumeSize", Volume_, &Sizes[0],
                                       &Sizes[1], &Sizes[2], &Sizes[3]),
                           "RVFsdGetVolumeSize") &&
            Require(std::count(std::begin(Sizes), std::end(Sizes), Unwritten) == 0,
                    "RVFsdGetVolumeSize did not write all of its four sizes")) {
            Require(Sizes[1] <= Sizes[0], "RVFsdGetVolumeSize: more space is free than there is");
            Require(Sizes[3] != 0 || Sizes[1] == 0 || (Flags & RV_VOLUME_USER_QUOTAS) != 0,
                    "RVFsdGetVolumeSize: nothing is free after a quota that is not in force; the driver would refuse "
                    "every file that grows");
        }
        USHORT Rights = 0;
        RequireSuccess(
            Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetEffectiveRights, "RVFsdGetEffectiveRights", Volume_, &Rights),
            "RVFsdGetEffectiveRights of a volume");
        CheckPhysicalPath();
    }

    void CheckPhysicalPath() {
        std::vector<WCHAR> Buffer(RV_PATH_BUFFER_BYTES / sizeof(WCHAR));
        UNICODE_STRING Path = {static_cast<USHORT>(Path_.size() * sizeof(WCHAR)),
                               static_cast<USHORT>(Path_.size() * sizeof(WCHAR)), Path_.data()};
        UNICODE_STRING Physical = {0, RV_PATH_BUFFER_BYTES, Buffer.data()};
        const RVSTATUS Status = Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetDFSPhysicalPath, "RVFsdGetDFSPhysicalPath",
                                            RVHANDLE{0}, &Path, &Physical);
        Require(Physical.Buffer == Buffer.data(),
                "RVFsdGetDFSPhysicalPath exchanged the buffer, which is the driver's");
        if (!RvIsError(Status)) {
            const auto End = std::find(Buffer.begin(), Buffer.end(), u'\0');
            Require(End != Buffer.begin() && End != Buffer.end(),
                    "RVFsdGetDFSPhysicalPath succeeds with a path that is empty or has no terminator");
        }
    }

    // ---- Listings

    std::map<std::u16string, Record> Listed(RVHANDLE Directory, const char16_t *Mask, bool WithShortNames,
                                            ULONG BatchSize, const std::string &What) {
        std::vector<Record> Records;
        const RVSTATUS Status = Asked_.List(Directory, Mask, WithShortNames, BatchSize, Records);
        RequireFailure(Status, EndCodes, What + ", at its end,", "no more files");
        std::map<std::u16string, Record> ByName;
        for (const Record &One : Records) {
            Require(ByName.emplace(One.Name, One).second, fmt::format("{} gives '{}' twice", What, ToUtf8(One.Name)));
        }
        return ByName;
    }
    static bool SameNames(const std::map<std::u16string, Record> &Left, const std::map<std::u16string, Record> &Right) {
        return std::equal(Left.begin(), Left.end(), Right.begin(), Right.end(),
                          [](const auto &One, const auto &Other) { return One.first == Other.first; });
    }

    void CheckListing(RVHANDLE Directory) {
        FileAnswer Answer;
        if (RequireSuccess(Asked_.DirectoryAnswer(Directory, Answer), "RVFsdGetDirectoryInformation")) {
            Require((Answer.Attributes & RV_ATTR_DIRECTORY) != 0, "a directory's attributes lack the directory bit");
        }
        const auto All = Listed(Directory, u"*", false, BatchBytes, "RVFsdEnumerateDirectory");
        Require(SameNames(All, Listed(Directory, u"*", true, BatchBytes, "RVFsdEnumerateDirectoryEx")),
                "the two enumerations list different names");
        Require(SameNames(All, Listed(Directory, u"*", false, SmallBatchBytes, "an enumeration in small batches")),
                "an enumeration in small batches lists other names than one in large ones");
        Require(SameNames(All, Listed(Directory, nullptr, false, BatchBytes, "an enumeration without a mask")),
                "an enumeration without a mask lists other names than one of *");
        Require(Listed(Directory, u"rvfsd-check-no-such-name", false, BatchBytes, "an enumeration of a missing name")
                    .empty(),
                "an enumeration of a missing name gives entries");
        if (!All.empty()) {
            const auto &[Name, Entry] = *All.begin();
            const auto One = Listed(Directory, Name.c_str(), true, BatchBytes, "an enumeration of one name");
            Require(One.size() == 1 && One.begin()->first == Name,
                    fmt::format("an enumeration with the mask '{}' does not give that entry alone", ToUtf8(Name)));
        }
    }

    // Of everything that creates later, a name that is not there.
    void CheckMissing() {
        RVHANDLE Handle = 0;
        ULONG Action = 0;
        RequireFailure(Asked_.OpenDirectory(Volume_, u"rvfsd-check-missing", Handle), NotFoundCodes,
                       "RVFsdOpenDirectory of a missing name", "no such file");
        for (const auto &[Disposition, Name] : {std::pair{RV_DISPOSITION_QUERY, "a question"},
                                                {RV_DISPOSITION_OPEN_EXISTING, "an open"},
                                                {RV_DISPOSITION_OVERWRITE_EXISTING, "an overwrite"}}) {
            const RVSTATUS Status = Asked_.OpenFile(Volume_, u"rvfsd-check-missing", Disposition, Handle, Action);
            if (Disposition != RV_DISPOSITION_OVERWRITE_EXISTING || RvCode(Status) != RV_STATUS_ACCESS_DENIED) {
                RequireFailure(Status, NotFoundCodes, fmt::format("RVFsdCreateFile, {} of a missing name,", Name),
                               "no such file");
            }
        }
        RequireFailure(
            Asked_.OpenFile(Volume_, u"rvfsd-check-missing\\below", RV_DISPOSITION_OPEN_EXISTING, Handle, Action),
            NotFoundCodes, "RVFsdCreateFile below a missing directory", "path not found");
    }

    // ---- A directory of our own

    RVSTATUS CreateDirectory(RVHANDLE Base, const std::u16string &Path) {
        return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdCreateDirectory, "RVFsdCreateDirectory", Base, Path.c_str());
    }
    RVSTATUS DeleteDirectory(RVHANDLE Base, const std::u16string &Path) {
        return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdDeleteDirectory, "RVFsdDeleteDirectory", Base, Path.c_str());
    }
    RVSTATUS DeleteFile(RVHANDLE Base, const std::u16string &Path) {
        return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdDeleteFile, "RVFsdDeleteFile", Base, Path.c_str());
    }
    RVSTATUS MoveFile(const std::u16string &From, const std::u16string &To) {
        return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdMoveFile, "RVFsdMoveFile", Folder_, From.c_str(), Folder_,
                           To.c_str());
    }
    // A file in our directory, open; 0 and a failure when that does not work.
    RVHANDLE Make(const std::u16string &Name, const std::string &Data = "") {
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
    void Remove(RVHANDLE File, const std::u16string &Name) {
        Asked_.CloseFile(File);
        RequireSuccess(DeleteFile(Folder_, Name), "RVFsdDeleteFile");
    }

    bool MakeFolder() {
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
            Require(Code == RV_STATUS_ACCESS_DENIED || Code == 0x0107 || Code == 0x0002,
                    fmt::format("RVFsdCreateDirectory: {}; a Provider that takes no changes denies the access",
                                Hex(Status)));
            return false;
        }
        return RequireSuccess(Asked_.OpenDirectory(Volume_, Name_, Folder_), "RVFsdOpenDirectory of a new directory");
    }
    void RemoveFolder() {
        Asked_.CloseDirectory(Folder_);
        RequireSuccess(DeleteDirectory(Volume_, Name_), "RVFsdDeleteDirectory");
        RVHANDLE Gone = 0;
        RequireFailure(Asked_.OpenDirectory(Volume_, Name_, Gone), NotFoundCodes,
                       "RVFsdOpenDirectory of a deleted name", "no such file");
    }

    void CheckDirectories() {
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
        RequireFailure(Asked_.OpenDirectory(Folder_, u"file", Handle), NotADirectoryCodes,
                       "RVFsdOpenDirectory of a file", "not a directory");
        RequireFailure(DeleteDirectory(Volume_, Name_), NotEmptyCodes, "RVFsdDeleteDirectory of one with entries",
                       "not empty");
        Remove(File, u"file");
    }

    void CheckDispositions() {
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

    void CheckData() {
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

    void CheckInformation() {
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

    void CheckNames() {
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
            if (RequireSuccess(Asked_.OpenFile(Way.Base, Way.Path, RV_DISPOSITION_OPEN_EXISTING, Again, Action),
                               What)) {
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

    void CheckMoves() {
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
        RequireFailure(MoveFile(u"from", u"to"), NotFoundCodes, "RVFsdMoveFile of a missing name", "no such file");
        RequireFailure(DeleteFile(Folder_, u"from"), NotFoundCodes, "RVFsdDeleteFile of a missing name",
                       "no such file");
        if (RequireSuccess(CreateDirectory(Folder_, u"dir"), "RVFsdCreateDirectory")) {
            const RVSTATUS Moved = Asked_.Call(&RVIOM_FSD_TABLE::RVFsdMoveDirectory, "RVFsdMoveDirectory", Folder_,
                                               u"dir", Folder_, u"other");
            RequireSuccess(Moved, "RVFsdMoveDirectory");
            RequireSuccess(DeleteDirectory(Folder_, RvIsError(Moved) ? u"dir" : u"other"), "RVFsdDeleteDirectory");
        }
    }

    void CheckLocks() {
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

    void CheckManyEntries() {
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
        Require(
            Seen == Count,
            fmt::format("a search whose entries are deleted as they come gives {} of {}: rm -r would leave the rest",
                        Seen, Count));
        for (const auto &[Name, Entry] : Listed(Folder_, u"*", false, BatchBytes, "RVFsdEnumerateDirectory")) {
            RequireSuccess(DeleteFile(Folder_, Name), "RVFsdDeleteFile");
        }
    }

    void CheckConcurrency() {
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

    ConformanceResult Result_;
    std::mutex Lock_;
    Client Asked_;
    std::u16string Path_;
    std::u16string Name_; // of our directory
    RVHANDLE Volume_ = 0;
    RVHANDLE Folder_ = 0;
};

} // namespace

ConformanceResult CheckProvider(RVIOM_FSD &Provider, const std::u16string &Volume) {
    return Checker(Provider, Volume).Run();
}

} // namespace providers
