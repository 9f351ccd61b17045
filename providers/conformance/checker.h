// The checks of a Provider and what they share.
#pragma once

#include <algorithm>
#include <map>
#include <mutex>
#include <string>

#include <fmt/format.h>

#include "providers/conformance/conformance.h"
#include "providers/conformance/provider_client.h"

namespace providers::conformance {

inline constexpr ULONG BatchBytes = 12288; // the driver's
inline constexpr ULONG SmallBatchBytes = 640;
inline constexpr USHORT NotFoundCodes[] = {0x000B, 0x0502, 0x0503, 0x0506};
inline constexpr USHORT NoSuchFileCodes[] = {0x0502, 0x0506};
inline constexpr USHORT CollisionCodes[] = {0x0106, 0x0510};
inline constexpr USHORT IsADirectoryCodes[] = {0x0521};
inline constexpr USHORT NotADirectoryCodes[] = {RVFS_NOT_A_DIRECTORY};
inline constexpr USHORT EndCodes[] = {0x0505, 0x0009, 0x0506, 0x0502};
inline constexpr USHORT NotEmptyCodes[] = {0x0513};
inline constexpr USHORT NoVolumeCodes[] = {RVFS_PATH_NOT_FOUND, RVFS_UNRECOGNIZED_VOLUME, RVFS_UNKNOWN_SERVER, 0x000B};

// A status as reports show it.
std::string Hex(RVSTATUS Status);

class Checker {
public:
    Checker(RVIOM_FSD &Provider, const std::u16string &Volume)
        : Asked_(Provider, [this](const std::string &What) { Fail(What); }), Path_(Volume) {
    }

    ConformanceResult Run();

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

    void CheckVolumePath();
    void CheckVolumeHandles();
    RVSTATUS VolumeFlags(ULONG &Flags);
    void CheckVolumeAnswers();
    void CheckPhysicalPath();

    // ---- Listings

    std::map<std::u16string, Record> Listed(RVHANDLE Directory, const char16_t *Mask, bool WithShortNames,
                                            ULONG BatchSize, const std::string &What);
    static bool SameNames(const std::map<std::u16string, Record> &Left, const std::map<std::u16string, Record> &Right) {
        return std::equal(Left.begin(), Left.end(), Right.begin(), Right.end(),
                          [](const auto &One, const auto &Other) { return One.first == Other.first; });
    }

    void CheckListing(RVHANDLE Directory);
    // Of everything that creates later, a name that is not there.
    void CheckMissing();

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
    RVHANDLE Make(const std::u16string &Name, const std::string &Data = "");
    void Remove(RVHANDLE File, const std::u16string &Name) {
        Asked_.CloseFile(File);
        RequireSuccess(DeleteFile(Folder_, Name), "RVFsdDeleteFile");
    }

    bool MakeFolder();
    void RemoveFolder();
    void CheckDirectories();
    void CheckDispositions();
    void CheckData();
    void CheckInformation();
    void CheckNames();
    void CheckMoves();
    void CheckLocks();
    void CheckManyEntries();
    void CheckConcurrency();

    ConformanceResult Result_;
    std::mutex Lock_;
    Client Asked_;
    std::u16string Path_;
    std::u16string Name_; // of our directory
    RVHANDLE Volume_ = 0;
    RVHANDLE Folder_ = 0;
};

} // namespace providers::conformance
