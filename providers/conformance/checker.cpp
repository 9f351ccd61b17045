#include "providers/conformance/checker.h"

#include "providers/conformance/conformance.h"
#include "providers/wide_text.h"

namespace providers {
namespace conformance {

std::string Hex(RVSTATUS Status) {
    return fmt::format("0x{:08X}", static_cast<ULONG>(Status));
}

ConformanceResult Checker::Run() {
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

// ---- Volumes

void Checker::CheckVolumePath() {
    std::u16string Answer;
    const std::u16string Below = Path_ + u"\\rvfsd-check\\below";
    if (RequireSuccess(Asked_.VolumePath(Below, Answer), "RVFsdQueryPathForVolume of a path in the volume")) {
        Require(Answer.size() == Path_.size(),
                fmt::format("RVFsdQueryPathForVolume answers '{}' for a path in '{}': the driver cuts the path at its "
                            "length",
                            ToUtf8(Answer), ToUtf8(Path_)));
    }
    RequireFailure(Asked_.VolumePath(u"\\rvfsd-check-no-such-server\\x", Answer), NoVolumeCodes,
                   "RVFsdQueryPathForVolume of an unknown server", "unknown server");
}

void Checker::CheckVolumeHandles() {
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

RVSTATUS Checker::VolumeFlags(ULONG &Flags) {
    Flags = 0xA5A5A5A5;
    return Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetVolumeInformation, "RVFsdGetVolumeInformation", Volume_, &Flags,
                       static_cast<UCHAR *>(nullptr), PVOID{nullptr}, PVOID{nullptr});
}

void Checker::CheckVolumeAnswers() {
    ULONG Flags = 0;
    if (RequireSuccess(VolumeFlags(Flags), "RVFsdGetVolumeInformation without an identifier buffer") &&
        Require(Flags != 0xA5A5A5A5, "RVFsdGetVolumeInformation did not write the flags") &&
        (Flags & RV_VOLUME_IDENTIFIER_VALID) != 0) {
        UCHAR Identifier[16] = {};
        RequireSuccess(Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetVolumeInformation, "RVFsdGetVolumeInformation", Volume_,
                                   &Flags, Identifier, PVOID{nullptr}, PVOID{nullptr}),
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
    RequireSuccess(Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetEffectiveRights, "RVFsdGetEffectiveRights", Volume_, &Rights),
                   "RVFsdGetEffectiveRights of a volume");
    CheckPhysicalPath();
}

void Checker::CheckPhysicalPath() {
    std::vector<WCHAR> Buffer(RV_PATH_BUFFER_BYTES / sizeof(WCHAR));
    UNICODE_STRING Path = {static_cast<USHORT>(Path_.size() * sizeof(WCHAR)),
                           static_cast<USHORT>(Path_.size() * sizeof(WCHAR)), Path_.data()};
    UNICODE_STRING Physical = {0, RV_PATH_BUFFER_BYTES, Buffer.data()};
    const RVSTATUS Status = Asked_.Call(&RVIOM_FSD_TABLE::RVFsdGetDFSPhysicalPath, "RVFsdGetDFSPhysicalPath",
                                        RVHANDLE{0}, &Path, &Physical);
    Require(Physical.Buffer == Buffer.data(), "RVFsdGetDFSPhysicalPath exchanged the buffer, which is the driver's");
    if (!RvIsError(Status)) {
        const auto End = std::find(Buffer.begin(), Buffer.end(), u'\0');
        Require(End != Buffer.begin() && End != Buffer.end(),
                "RVFsdGetDFSPhysicalPath succeeds with a path that is empty or has no terminator");
    }
}

// ---- Listings

std::map<std::u16string, Record> Checker::Listed(RVHANDLE Directory, const char16_t *Mask, bool WithShortNames,
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

void Checker::CheckListing(RVHANDLE Directory) {
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
    Require(
        Listed(Directory, u"rvfsd-check-no-such-name", false, BatchBytes, "an enumeration of a missing name").empty(),
        "an enumeration of a missing name gives entries");
    if (!All.empty()) {
        const auto &[Name, Entry] = *All.begin();
        const auto One = Listed(Directory, Name.c_str(), true, BatchBytes, "an enumeration of one name");
        Require(One.size() == 1 && One.begin()->first == Name,
                fmt::format("an enumeration with the mask '{}' does not give that entry alone", ToUtf8(Name)));
    }
}

void Checker::CheckMissing() {
    RVHANDLE Handle = 0;
    ULONG Action = 0;
    RequireFailure(Asked_.OpenDirectory(Volume_, u"rvfsd-check-missing", Handle), NoSuchFileCodes,
                   "RVFsdOpenDirectory of a missing name", "no such file");
    for (const auto &[Disposition, Name] : {std::pair{RV_DISPOSITION_QUERY, "a question"},
                                            {RV_DISPOSITION_OPEN_EXISTING, "an open"},
                                            {RV_DISPOSITION_OVERWRITE_EXISTING, "an overwrite"}}) {
        const RVSTATUS Status = Asked_.OpenFile(Volume_, u"rvfsd-check-missing", Disposition, Handle, Action);
        if (Disposition != RV_DISPOSITION_OVERWRITE_EXISTING || RvCode(Status) != RV_STATUS_ACCESS_DENIED) {
            RequireFailure(Status, NoSuchFileCodes, fmt::format("RVFsdCreateFile, {} of a missing name,", Name),
                           "no such file");
        }
    }
    RequireFailure(
        Asked_.OpenFile(Volume_, u"rvfsd-check-missing\\below", RV_DISPOSITION_OPEN_EXISTING, Handle, Action),
        NotFoundCodes, "RVFsdCreateFile below a missing directory", "path not found");
}

} // namespace conformance

ConformanceResult CheckProvider(RVIOM_FSD &Provider, const std::u16string &Volume) {
    return conformance::Checker(Provider, Volume).Run();
}

} // namespace providers
