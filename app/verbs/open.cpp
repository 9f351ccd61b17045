// open, claim: one create with every parameter, one prefix claim.

#include <map>
#include <sstream>

#include <fmt/format.h>

#include "app/output.h"
#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"
#include "embedded/io/io.h"
#include "embedded/mup.h"

namespace app {

namespace {

using NameTable = std::map<std::string, ULONG>;

const NameTable AccessNames = {{"read", FILE_READ_DATA},
                               {"write", FILE_WRITE_DATA},
                               {"append", FILE_APPEND_DATA},
                               {"execute", FILE_EXECUTE},
                               {"read_ea", FILE_READ_EA},
                               {"write_ea", FILE_WRITE_EA},
                               {"read_attributes", FILE_READ_ATTRIBUTES},
                               {"write_attributes", FILE_WRITE_ATTRIBUTES},
                               {"delete", DELETE},
                               {"read_control", READ_CONTROL},
                               {"write_dac", WRITE_DAC},
                               {"synchronize", SYNCHRONIZE},
                               {"maximum", MAXIMUM_ALLOWED},
                               {"generic_read", GENERIC_READ},
                               {"generic_write", GENERIC_WRITE},
                               {"generic_execute", GENERIC_EXECUTE},
                               {"generic_all", GENERIC_ALL}};
const NameTable DispositionNames = {{"supersede", FILE_SUPERSEDE}, {"open", FILE_OPEN},
                                    {"create", FILE_CREATE},       {"open_if", FILE_OPEN_IF},
                                    {"overwrite", FILE_OVERWRITE}, {"overwrite_if", FILE_OVERWRITE_IF}};
const NameTable OptionNames = {{"directory_file", FILE_DIRECTORY_FILE},
                               {"write_through", FILE_WRITE_THROUGH},
                               {"sequential_only", FILE_SEQUENTIAL_ONLY},
                               {"no_intermediate_buffering", FILE_NO_INTERMEDIATE_BUFFERING},
                               {"synchronous_io_alert", FILE_SYNCHRONOUS_IO_ALERT},
                               {"synchronous_io_nonalert", FILE_SYNCHRONOUS_IO_NONALERT},
                               {"non_directory_file", FILE_NON_DIRECTORY_FILE},
                               {"random_access", FILE_RANDOM_ACCESS},
                               {"delete_on_close", FILE_DELETE_ON_CLOSE},
                               {"open_by_file_id", FILE_OPEN_BY_FILE_ID},
                               {"open_for_backup_intent", FILE_OPEN_FOR_BACKUP_INTENT}};

std::string Known(const NameTable &Table) {
    std::string Names;
    for (const auto &[Name, Value] : Table) {
        Names += (Names.empty() ? "" : ", ") + Name;
    }
    return Names;
}

// A comma-separated list of names and numbers, OR-ed.
ULONG ParseFlags(const std::string &Text, const NameTable &Table, const char *What) {
    ULONG Value = 0;
    std::istringstream Parts(Text);
    for (std::string Part; std::getline(Parts, Part, ',');) {
        const auto Found = Table.find(Part);
        if (Found != Table.end()) {
            Value |= Found->second;
        } else if (!Part.empty() && isdigit(static_cast<unsigned char>(Part[0])) != 0) {
            Value |= ParseWord(Part);
        } else if (!Part.empty()) {
            throw UsageError(fmt::format("{}: {} is none of {}", What, Part, Known(Table)));
        }
    }
    return Value;
}

// "rwd" or any of these letters.
ULONG ParseLetters(const std::string &Text, const std::map<char, ULONG> &Letters, const char *What) {
    ULONG Value = 0;
    for (const char Letter : Text) {
        const auto Found = Letters.find(Letter);
        if (Found == Letters.end()) {
            std::string Known;
            for (const auto &[One, Bit] : Letters) {
                Known += One;
            }
            throw UsageError(fmt::format("{}: {} is none of the letters {}", What, Text, Known));
        }
        Value |= Found->second;
    }
    return Value;
}

struct OpenOptions {
    std::string Path;
    std::string Access = "read,read_attributes,synchronize";
    std::string Share = "rwd";
    std::string Disposition = "open";
    std::string Options = "synchronous_io_nonalert";
    std::string Attributes;
    std::string AllocationSize = "0";
};

OpenRequest RequestOf(const OpenOptions &Text) {
    const auto Disposition = DispositionNames.find(Text.Disposition);
    if (Disposition == DispositionNames.end()) {
        throw UsageError(fmt::format("--disposition: {} is none of {}", Text.Disposition, Known(DispositionNames)));
    }
    return {.Access = ParseFlags(Text.Access, AccessNames, "--access"),
            .Share = ParseLetters(Text.Share,
                                  {{'r', FILE_SHARE_READ}, {'w', FILE_SHARE_WRITE}, {'d', FILE_SHARE_DELETE}, {'-', 0}},
                                  "--share"),
            .Disposition = Disposition->second,
            .Options = ParseFlags(Text.Options, OptionNames, "--options"),
            .Attributes = ParseLetters(Text.Attributes,
                                       {{'r', FILE_ATTRIBUTE_READONLY},
                                        {'h', FILE_ATTRIBUTE_HIDDEN},
                                        {'s', FILE_ATTRIBUTE_SYSTEM},
                                        {'a', FILE_ATTRIBUTE_ARCHIVE}},
                                       "--attributes"),
            .AllocationSize = static_cast<LONG64>(ParseSize(Text.AllocationSize, INT64_MAX))};
}

int OpenOnce(const OpenOptions &Text) {
    const std::u16string Path = RemotePath(Text.Path);
    const embedded::CreateResult Result = OpenRemote(Path, RequestOf(Text));
    if (WantsJson()) {
        PrintRecord({{"path", ShowPath(Path)},
                     {"status", StatusName(Result.Status)},
                     {"information", Result.Asked ? InformationName(Result.Information) : ""}});
    }
    if (!NT_SUCCESS(Result.Status)) {
        Complain(fmt::format("{}: {}", ShowStatus(Result.Status), ShowPath(Path)));
        if (WantsJson()) {
            return 1;
        }
        fmt::print("Information {}\n",
                   Result.Asked ? InformationName(Result.Information) : "none: the driver was not asked");
        return 1;
    }
    if (!WantsJson()) {
        fmt::print("{}\nInformation {}\n", ShowStatus(Result.Status), InformationName(Result.Information));
    }
    const NTSTATUS Closed = embedded::CloseHandleTelling(Result.Handle);
    if (!NT_SUCCESS(Closed)) {
        throw StatusError(Closed, ShowPath(Path));
    }
    return 0;
}

int ClaimOnce(const std::string &Text) {
    if (!IsRemote(Text)) {
        throw UsageError(fmt::format("{}: a remote path begins with \\\\server", Text));
    }
    std::u16string Path = Widen(Text);
    for (char16_t &Unit : Path) {
        Unit = Text[0] == '/' && Unit == u'/' ? u'\\' : Unit;
    }
    Path.erase(0, 1);
    const embedded::PathClaim Claim = embedded::QueryPathClaim(Path);
    if (!NT_SUCCESS(Claim.Status)) {
        throw StatusError(Claim.Status, ShowPath(Path));
    }
    const size_t Units = std::min<size_t>(Claim.BytesClaimed / sizeof(WCHAR), Path.size());
    if (WantsJson()) {
        PrintRecord({{"path", ShowPath(Path)},
                     {"claimed", ShowPath(Path.substr(0, Units))},
                     {"bytes", static_cast<uint64_t>(Claim.BytesClaimed)}});
        return 0;
    }
    fmt::print("{}\nclaimed {} ({} bytes)\n", ShowStatus(Claim.Status), ShowPath(Path.substr(0, Units)),
               Claim.BytesClaimed);
    return 0;
}

} // namespace

void AddOpenVerbs(VerbList &List) {
    const auto Text = std::make_shared<OpenOptions>();
    List.push_back(
        {.Name = "open",
         .Group = "requests",
         .Summary = "open or create with every parameter, print status and Information",
         .Parameters = {Parameter{"PATH", "what to open", &Text->Path}.Needed(),
                        {"--access", "names or numbers: " + Known(AccessNames), &Text->Access},
                        {"--share", "of r, w, d; - for none", &Text->Share},
                        {"--disposition", Known(DispositionNames), &Text->Disposition},
                        {"--options", "names or numbers: " + Known(OptionNames), &Text->Options},
                        {"--attributes", "of r, h, s, a", &Text->Attributes},
                        Parameter{"--allocation-size", "bytes, or 64K, 1M, 2G", &Text->AllocationSize}.As("BYTES")},
         .Run = [Text](Session &) {
             int Code = 0;
             return Guarded([&] { Code = OpenOnce(*Text); }) | Code;
         }});
    const auto Path = std::make_shared<std::string>();
    List.push_back({.Name = "claim",
                    .Group = "requests",
                    .Summary = "ask for the prefix of a path that the driver claims",
                    .Parameters = {Parameter{"PATH", "the path", Path.get()}.Needed()},
                    .Run = [Path](Session &) { return Guarded([&] { ClaimOnce(*Path); }); }});
}

} // namespace app
