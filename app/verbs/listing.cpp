// ls, find, tree, du: what is in directories.

#include <algorithm>
#include <cstring>
#include <map>

#include <fmt/format.h>

#include "app/output.h"
#include "app/text.h"
#include "app/verbs/verbs.h"
#include "app/walk.h"

namespace app {

namespace {

const std::map<std::string, ULONG> ClassNames = {
    {"directory", FileDirectoryInformation},     {"full", FileFullDirectoryInformation},
    {"both", FileBothDirectoryInformation},      {"names", FileNamesInformation},
    {"id_both", FileIdBothDirectoryInformation}, {"id_full", FileIdFullDirectoryInformation}};

struct ListWords {
    std::vector<std::string> Paths;
    std::string Name;
    bool Long = false;
    bool All = false;
    bool Human = false;
    bool Recursive = false;
    bool ByTime = false;
    bool BySize = false;
    bool Reverse = false;
    bool OnePerLine = false; // as it is anyway
    bool Summary = false;
    std::string Class = "both";
    uint32_t Buffer = LargeListing;
    bool Restart = false;
    bool Single = false;
    std::optional<uint32_t> Depth;
};

void PrintEntryRecord(const std::u16string &Directory, const DirectoryEntry &Entry) {
    PrintRecord({{"path", ShowPath(Directory + u"\\" + Entry.Name)},
                 {"name", Narrow(Entry.Name)},
                 {"short_name", Narrow(Entry.ShortName)},
                 {"directory", IsDirectory(Entry)},
                 {"size", static_cast<int64_t>(Entry.Size)},
                 {"written", JsonTime(Entry.LastWrite)},
                 {"attributes", ShowAttributes(Entry.Attributes)}});
}

void PrintEntry(const std::u16string &Directory, const DirectoryEntry &Entry, const ListWords &Words) {
    if (WantsJson()) {
        PrintEntryRecord(Directory, Entry);
        return;
    }
    std::string Name = Narrow(Entry.Name);
    if (IsDirectory(Entry)) {
        Name = Coloured(Colour::Directory, Name);
    }
    if (Words.Long) {
        fmt::print("{} {:>{}}  {}  {:<14}{}\n", ShowAttributes(Entry.Attributes),
                   ShowBytes(static_cast<uint64_t>(Entry.Size), Words.Human), Words.Human ? 6 : 14,
                   ShowTime(Entry.LastWrite).substr(0, 19), Narrow(Entry.ShortName), Name);
    } else {
        fmt::print("{}\n", Name);
    }
}

// Opens what Where names; for the name of a file the directory that holds it, with the name as the mask.
RemoteFile OpenTarget(MaskedPath &Where) {
    try {
        return RemoteFile(Where.Directory, ForListing());
    } catch (const StatusError &Refused) {
        if (Refused.Status != STATUS_NOT_A_DIRECTORY || Where.IsMasked) {
            throw;
        }
    }
    Where.Mask = LastOf(Where.Directory);
    Where.Directory = ParentOf(Where.Directory);
    return RemoteFile(Where.Directory, ForListing());
}

// Puts entries into the order that is wanted; what is alike there stays in the server's.
void Order(std::vector<DirectoryEntry> &Entries, const ListWords &Words) {
    std::stable_sort(Entries.begin(), Entries.end(), [&Words](const DirectoryEntry &One, const DirectoryEntry &Other) {
        return Words.BySize ? One.Size > Other.Size : Words.ByTime ? One.LastWrite > Other.LastWrite : false;
    });
    if (Words.Reverse) {
        std::reverse(Entries.begin(), Entries.end());
    }
}

// The listing as the driver gives it: one class, one buffer length, and with --all the dot entries. Where becomes the
// directory that is listed. Entries for which an order is wanted are left in Kept.
void ListRaw(MaskedPath &Where, const ListWords &Words, std::vector<DirectoryEntry> &Kept) {
    const bool Orders = Words.ByTime || Words.BySize || Words.Reverse;
    RemoteFile Directory = OpenTarget(Where);
    const ULONG InfoClass = ClassNames.at(Words.Class);
    // With --restart the search is begun again after the first answer.
    bool Begun = false;
    bool Restarted = !Words.Restart;
    BeginListing();
    for (;;) {
        const RemoteFile::Answer Batch =
            Directory.List(InfoClass, Words.Buffer, Where.Mask, Begun && !Restarted, Words.Single);
        Restarted = Restarted || Begun;
        // The root of a volume has no dot entries: there an empty directory is one in which nothing matches.
        const bool IsEmpty = Batch.Status == STATUS_NO_SUCH_FILE && !Where.IsMasked && Where.Mask == u"*";
        if (Batch.Status == STATUS_NO_MORE_FILES || Batch.Status == STATUS_NO_SUCH_FILE) {
            CheckListing(Directory);
        }
        if (Batch.Status == STATUS_NO_MORE_FILES || IsEmpty) {
            return;
        }
        if (!NT_SUCCESS(Batch.Status)) {
            throw StatusError(Batch.Status, ShowPath(Where.Directory + u"\\" + Where.Mask));
        }
        for (DirectoryEntry &Entry : UnpackEntries(Batch, InfoClass)) {
            if (!Words.All && (Entry.Name == u"." || Entry.Name == u"..")) {
                continue;
            }
            if (Orders) {
                Kept.push_back(std::move(Entry));
            } else {
                PrintEntry(Where.Directory, Entry, Words);
            }
        }
        Begun = true;
    }
}

// Errors are told and the walk goes on.
int ListTree(const MaskedPath &Where, const ListWords &Words, WayDown Way) {
    std::vector<DirectoryEntry> Entries;
    int Code = Guarded([&] {
        RemoteFile Directory(Where.Directory, ForListing());
        const bool IsFirst = Way.empty();
        if (LeadsBack(Directory, Way)) {
            return;
        }
        if (!WantsJson()) {
            fmt::print("{}{}:\n", IsFirst ? "" : "\n", ShowPath(Where.Directory));
        }
        Entries = ListDirectory(Directory, Where.Mask, Words.Buffer);
    });
    Order(Entries, Words);
    for (const DirectoryEntry &Entry : Entries) {
        PrintEntry(Where.Directory, Entry, Words);
    }
    for (const DirectoryEntry &Entry : Entries) {
        if (IsDirectory(Entry)) {
            Code |= ListTree({Where.Directory + u"\\" + Entry.Name}, Words, Way);
        }
    }
    return Code;
}

// Every path below Directory; with a Mask those whose last name matches it. Errors are told and the walk goes on.
int Find(const std::u16string &Directory, const std::u16string &Mask, WayDown Way) {
    std::vector<DirectoryEntry> Entries;
    std::vector<DirectoryEntry> Matches;
    int Code = Guarded([&] {
        Entries = EntriesOn(Directory, Way);
        if (!Mask.empty() && !Entries.empty()) {
            RemoteFile Again(Directory, ForListing());
            Matches = ListDirectory(Again, Mask, LargeListing);
        }
    });
    for (const DirectoryEntry &Entry : Mask.empty() ? Entries : Matches) {
        if (WantsJson()) {
            PrintEntryRecord(Directory, Entry);
        } else {
            fmt::print("{}\n", ShowPath(Directory + u"\\" + Entry.Name));
        }
    }
    for (const DirectoryEntry &Entry : Entries) {
        if (IsDirectory(Entry)) {
            Code |= Find(Directory + u"\\" + Entry.Name, Mask, Way);
        }
    }
    return Code;
}

struct TreeCount {
    uint64_t Directories = 0;
    uint64_t Files = 0;
};

int DrawTree(const std::u16string &Directory, const std::string &Indent, const ListWords &Words, TreeCount &Count,
             WayDown Way) {
    std::vector<DirectoryEntry> Entries;
    int Code = Guarded([&] { Entries = EntriesOn(Directory, Way); });
    for (size_t Index = 0; Index < Entries.size(); ++Index) {
        const DirectoryEntry &Entry = Entries[Index];
        const bool Last = Index + 1 == Entries.size();
        (IsDirectory(Entry) ? Count.Directories : Count.Files) += 1;
        if (WantsJson()) {
            PrintEntryRecord(Directory, Entry);
        } else {
            const std::string Name = Narrow(Entry.Name);
            fmt::print("{}{}{}\n", Indent, Last ? "└── " : "├── ",
                       IsDirectory(Entry) ? Coloured(Colour::Directory, Name) : Name);
        }
        if (IsDirectory(Entry) && (!Words.Depth || Way.size() < *Words.Depth)) {
            Code |= DrawTree(Directory + u"\\" + Entry.Name, Indent + (Last ? "    " : "│   "), Words, Count, Way);
        }
    }
    return Code;
}

int Tree(const std::string &Path, const ListWords &Words) {
    const std::u16string Top = RemotePath(Path);
    TreeCount Count;
    if (!WantsJson()) {
        fmt::print("{}\n", Coloured(Colour::Directory, ShowPath(Top)));
    }
    const int Code = DrawTree(Top, "", Words, Count, {});
    if (!WantsJson()) {
        fmt::print("\n{} directories, {} files\n", Count.Directories, Count.Files);
    }
    return Code;
}

void PrintUsage(const std::u16string &Path, uint64_t Bytes, const ListWords &Words) {
    if (WantsJson()) {
        PrintRecord({{"path", ShowPath(Path)}, {"bytes", Bytes}});
    } else {
        fmt::print("{:>{}}  {}\n", ShowBytes(Bytes, Words.Human), Words.Human ? 6 : 14, ShowPath(Path));
    }
}

// The bytes of the files below Directory, added to Sum; a line for each directory unless only a summary is wanted.
int Usage(const std::u16string &Directory, const ListWords &Words, uint64_t &Sum, WayDown Way) {
    std::vector<DirectoryEntry> Entries;
    const bool Top = Way.empty();
    uint64_t Own = 0;
    int Code = Guarded([&] { Entries = EntriesOn(Directory, Way); });
    for (const DirectoryEntry &Entry : Entries) {
        if (IsDirectory(Entry)) {
            Code |= Usage(Directory + u"\\" + Entry.Name, Words, Own, Way);
        } else {
            Own += static_cast<uint64_t>(Entry.Size);
        }
    }
    if (Top || !Words.Summary) {
        PrintUsage(Directory, Own, Words);
    }
    Sum += Own;
    return Code;
}

// The paths that were named; without one the console's directory, or else the exports.
std::vector<std::string> PathsOf(const ListWords &Words, Session &Running) {
    std::vector<std::string> Paths = Words.Paths;
    if (Paths.empty() && !RemoteDirectory().empty()) {
        Paths.push_back(ShowPath(RemoteDirectory()));
    }
    if (Paths.empty()) {
        for (const Export &One : Running.Exports()) {
            Paths.push_back(One.Name);
        }
    }
    return Paths;
}

Parameter PathParameter(ListWords &Words, const char *Help) {
    return Parameter{"PATH", Help, &Words.Paths}.As("[PATH...]");
}

int List(Session &Running, const ListWords &Words) {
    if (Words.Recursive && (Words.Restart || Words.Single || Words.Class != "both")) {
        throw UsageError("ls: -R asks in its own way: --class, --restart and --single do not go with it");
    }
    if ((Words.ByTime || Words.BySize) && Words.Class == "names") {
        throw UsageError("ls: the class \"names\" tells neither times nor sizes");
    }
    if (Words.Paths.empty() && RemoteDirectory().empty()) {
        for (const Export &One : Running.Exports()) {
            if (WantsJson()) {
                PrintRecord({{"path", One.Name}, {"directory", true}});
            } else {
                fmt::print("{}\n", Coloured(Colour::Directory, One.Name));
            }
        }
        return 0;
    }
    int Code = 0;
    bool IsFirst = true;
    for (const std::string &Path : PathsOf(Words, Running)) {
        MaskedPath Where;
        std::vector<DirectoryEntry> Kept;
        Code |= Guarded([&] {
            Where = SplitMask(Path);
            if (Words.Recursive) {
                Code |= ListTree(Where, Words, {});
                return;
            }
            if (Words.Paths.size() > 1 && !WantsJson()) {
                fmt::print("{}{}:\n", IsFirst ? "" : "\n", Path);
            }
            IsFirst = false;
            ListRaw(Where, Words, Kept);
        });
        Order(Kept, Words);
        for (const DirectoryEntry &Entry : Kept) {
            PrintEntry(Where.Directory, Entry, Words);
        }
    }
    return Code;
}

Verb ListVerb() {
    const auto Words = std::make_shared<ListWords>();
    Verb Result = {.Name = "ls",
                   .Group = "listings",
                   .Summary = "list directories; without one the volumes that are served",
                   .Run = [Words](Session &Running) { return List(Running, *Words); },
                   .Examples = {R"(ls -lh '\\demo\files\docs\*.txt')"}};
    std::vector<std::string> Classes;
    for (const auto &[Name, Number] : ClassNames) {
        Classes.push_back(Name);
    }
    Result.Parameters = {PathParameter(*Words, "directories or files; the last component may be a mask"),
                         {"-l,--long", "attributes, size, time, short name", &Words->Long},
                         {"-h,--human", "sizes for people", &Words->Human},
                         {"-a,--all", "what a directory says of itself and the one above, . and .., too", &Words->All},
                         {"-R,--recursive", "directories below too, without dot entries", &Words->Recursive},
                         {"-t", "the newest first", &Words->ByTime},
                         {"-S", "the largest first", &Words->BySize},
                         {"-r,--reverse", "in the opposite order", &Words->Reverse},
                         {"-1", "one name a line, as it is anyway", &Words->OnePerLine},
                         Parameter{"--class", "the class of information asked for", &Words->Class}.Of(Classes),
                         Parameter{"--buffer", "bytes of each query's buffer", &Words->Buffer}.As("BYTES"),
                         {"--restart", "begin again after the first answer", &Words->Restart},
                         {"--single", "one entry a query", &Words->Single}};
    return Result;
}

Verb FindVerbOf() {
    const auto Words = std::make_shared<ListWords>();
    return {.Name = "find",
            .Group = "listings",
            .Summary = "every path below directories",
            .Parameters = {PathParameter(*Words, "directories"),
                           Parameter{"--name", "only names that match this mask", &Words->Name}.As("MASK")},
            .Run =
                [Words](Session &Running) {
                    int Code = 0;
                    for (const std::string &Path : PathsOf(*Words, Running)) {
                        Code |= Find(RemotePath(Path), Widen(Words->Name), {});
                    }
                    return Code;
                },
            .Examples = {R"(find '\\demo\files' --name '*.txt')"}};
}

Verb TreeVerb() {
    const auto Words = std::make_shared<ListWords>();
    return {.Name = "tree",
            .Group = "listings",
            .Summary = "draw directories with all below",
            .Parameters = {PathParameter(*Words, "directories"),
                           Parameter{"-L,--depth", "no deeper than so many directories", &Words->Depth}.As("NUMBER")},
            .Run = [Words](Session &Running) {
                int Code = 0;
                for (const std::string &Path : PathsOf(*Words, Running)) {
                    Code |= Tree(Path, *Words);
                }
                return Code;
            }};
}

Verb UsageVerb() {
    const auto Words = std::make_shared<ListWords>();
    return {.Name = "du",
            .Group = "listings",
            .Summary = "the bytes of files, and of those below directories",
            .Parameters = {PathParameter(*Words, "directories and files, masks too"),
                           {"-s,--summarize", "one line for each PATH", &Words->Summary},
                           {"-h,--human", "sizes for people", &Words->Human}},
            .Run = [Words](Session &Running) {
                int Code = 0;
                const int Failed = ForEachPath(PathsOf(*Words, Running), [&](const std::u16string &Path) {
                    RemoteFile Top(Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
                    const RemoteFile::Answer Standard =
                        Top.Query(FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION));
                    FILE_STANDARD_INFORMATION Record;
                    memcpy(&Record, Standard.Bytes.data(), sizeof(Record));
                    uint64_t Sum = 0;
                    if (Record.Directory) {
                        Code |= Usage(Path, *Words, Sum, {});
                    } else {
                        PrintUsage(Path, static_cast<uint64_t>(Record.EndOfFile.QuadPart), *Words);
                    }
                });
                return Code | Failed;
            }};
}

} // namespace

void AddListingVerbs(VerbList &List) {
    List.push_back(ListVerb());
    List.push_back(FindVerbOf());
    List.push_back(TreeVerb());
    List.push_back(UsageVerb());
}

} // namespace app
