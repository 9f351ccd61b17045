// attrib, touch, truncate, mkdir, rm, rmdir, mv: changes of files and directories.

#include <algorithm>

#include <fmt/format.h>

#include "app/output.h"
#include "app/text.h"
#include "app/tree_copy.h"
#include "app/verbs/verbs.h"
#include "app/walk.h"
#include "text/upcase.h"

namespace app {

namespace {

// "+rh-a" as bits to set and bits to clear.
struct AttributeChange {
    ULONG Set = 0;
    ULONG Clear = 0;
};

AttributeChange ParseChange(const std::string &Text) {
    AttributeChange Change;
    char Sign = 0;
    bool Complete = false; // a sign has its letter
    for (const char Letter : Text) {
        if ((Letter == '+' || Letter == '-') && (Sign == 0 || Complete)) {
            Sign = Letter;
            Complete = false;
            continue;
        }
        const ULONG Bit = Letter == 'r'   ? FILE_ATTRIBUTE_READONLY
                          : Letter == 'h' ? FILE_ATTRIBUTE_HIDDEN
                          : Letter == 's' ? FILE_ATTRIBUTE_SYSTEM
                          : Letter == 'a' ? FILE_ATTRIBUTE_ARCHIVE
                                          : 0;
        if (Sign == 0 || Bit == 0) {
            throw UsageError(fmt::format("{}: a change reads like +r-ha, of the letters r, h, s, a", Text));
        }
        (Sign == '+' ? Change.Set : Change.Clear) |= Bit;
        Complete = true;
    }
    if (!Complete) {
        throw UsageError(fmt::format("{}: a change reads like +r-ha, of the letters r, h, s, a", Text));
    }
    return Change;
}

void ShowAttributesOf(const std::u16string &Path) {
    RemoteFile File(Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    const std::string Letters = ShowAttributes(Basic(File).FileAttributes);
    if (WantsJson()) {
        PrintRecord({{"path", ShowPath(Path)}, {"attributes", Letters}});
    } else {
        fmt::print("{}  {}\n", Letters, ShowPath(Path));
    }
}

void ChangeAttributes(const std::u16string &Path, const AttributeChange &Change) {
    RemoteFile File(Path, {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE});
    const ULONG Old = Basic(File).FileAttributes;
    FILE_BASIC_INFORMATION New = {};
    New.FileAttributes = (Old | Change.Set) & ~Change.Clear & ~static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL);
    if (New.FileAttributes == 0) {
        New.FileAttributes = FILE_ATTRIBUTE_NORMAL; // 0 would mean: leave as it is
    }
    SetBasic(File, New);
    File.End();
}

// Opens a file or makes it. Those who watch its directory are told of a file that is asked for as a new one, not of one
// that an open makes because there is none.
RemoteFile OpenOrMake(const std::u16string &Path) {
    OpenRequest Request = {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE};
    try {
        return RemoteFile(Path, Request);
    } catch (const StatusError &Missing) {
        if (Missing.Status != STATUS_OBJECT_NAME_NOT_FOUND) {
            throw;
        }
    }
    Request.Disposition = FILE_CREATE;
    return RemoteFile(Path, Request);
}

void Touch(const std::u16string &Path, LONG64 Time) {
    RemoteFile File = OpenOrMake(Path);
    FILE_BASIC_INFORMATION Record = {};
    Record.LastAccessTime.QuadPart = Time;
    Record.LastWriteTime.QuadPart = Time;
    SetBasic(File, Record);
    File.End();
}

void Truncate(const std::u16string &Path, LONG64 Size) {
    RemoteFile File(Path, {.Access = FILE_WRITE_DATA | SYNCHRONIZE,
                           .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
    File.Set(FileEndOfFileInformation, &Size, sizeof(Size));
    File.End();
}

struct ChangeWords {
    std::vector<std::string> Paths;
    std::string Text;
    bool Flag = false;
    bool Other = false;
};

Verb AttributeVerb() {
    const auto Words = std::make_shared<ChangeWords>();
    return {.Name = "attrib",
            .Group = "changes",
            .Summary = "set and clear attributes, as in: attrib +r-h PATH, or show them",
            .Parameters = {Parameter{"PATH",
                                     "a change of the letters r, h, s, a, or none to see what they are; then files, "
                                     "masks too",
                                     &Words->Paths}
                               .Needed()
                               .As("[CHANGE] PATH..."),
                           Parameter{"--change", "the change", &Words->Text}.Unseen()},
            .Run =
                [Words](Session &) {
                    if (Words->Text.empty()) {
                        return ForEachPath(Words->Paths, ShowAttributesOf);
                    }
                    const AttributeChange Change = ParseChange(Words->Text.substr(1));
                    return ForEachPath(Words->Paths,
                                       [&](const std::u16string &Path) { ChangeAttributes(Path, Change); });
                },
            .Examples = {R"(attrib +r '\\demo\files\docs\*.txt')"},
            // -h is a change here, and any first word that is no option with a name of several letters.
            .Prepare =
                [](std::vector<std::string> &Given) {
                    const auto Change = std::find_if(Given.begin(), Given.end(),
                                                     [](const std::string &Word) { return !Word.starts_with("--"); });
                    if (Change != Given.end() && !IsRemote(*Change)) {
                        Change->insert(0, "--change=:"); // the mark keeps an empty one apart from none
                    }
                }};
}

Verb TouchVerb() {
    const auto Words = std::make_shared<ChangeWords>();
    return {
        .Name = "touch",
        .Group = "changes",
        .Summary = "set the times of files, making those that are missing",
        .Parameters = {Parameter{"PATH", "files, masks too", &Words->Paths}.Needed(),
                       Parameter{"-d,--date,--time",
                                 "\"YYYY-MM-DD HH:MM:SS\", a time as --json shows it, or 100-ns units since 1601; now "
                                 "when left out",
                                 &Words->Text}
                           .As("TIME")},
        .Run = [Words](Session &) {
            const LONG64 Time = ParseTime(Words->Text);
            return ForEachPath(Words->Paths, [&](const std::u16string &Path) { Touch(Path, Time); });
        }};
}

Verb TruncateVerb() {
    const auto Words = std::make_shared<ChangeWords>();
    return {.Name = "truncate",
            .Group = "changes",
            .Summary = "set the size of files",
            .Parameters = {Parameter{"PATH", "files, masks too; then their size, unless --size says it", &Words->Paths}
                               .Needed()
                               .As("PATH... SIZE"),
                           Parameter{"-s,--size", "bytes, or 64K, 1M, 2G", &Words->Text}.As("SIZE")},
            .Run = [Words](Session &) {
                std::vector<std::string> Paths = Words->Paths;
                std::string Size = Words->Text;
                if (Size.empty()) {
                    Size = Paths.back();
                    Paths.pop_back();
                }
                if (Paths.empty()) {
                    throw UsageError("truncate: to which size? truncate PATH... SIZE");
                }
                const auto Bytes = static_cast<LONG64>(ParseSize(Size, INT64_MAX));
                return ForEachPath(Paths, [&](const std::u16string &Path) { Truncate(Path, Bytes); });
            }};
}

// Deletes what a path of rm stands for.
int RemoveOne(Session &Running, const std::u16string &Path, bool Recursive, bool Force) {
    int Code = 0;
    const int Failed = Guarded([&] {
        try {
            Remove(Path, FILE_NON_DIRECTORY_FILE, Force);
        } catch (const StatusError &Refused) {
            if (Refused.Status == STATUS_FILE_IS_A_DIRECTORY && Recursive) {
                Code = RemoveTree(Running, Path, Force);
            } else if (Refused.Status == STATUS_FILE_IS_A_DIRECTORY) {
                throw StatusError(Refused.Status, ShowPath(Path) + "; -r deletes directories with all below");
            } else {
                throw;
            }
        }
    });
    return Code | Failed;
}

bool IsAbsent(NTSTATUS Status) {
    return Status == STATUS_NO_SUCH_FILE || Status == STATUS_OBJECT_NAME_NOT_FOUND ||
           Status == STATUS_OBJECT_PATH_NOT_FOUND;
}

// What Text stands for; with Force nothing when nothing is there.
std::vector<std::u16string> Doomed(const std::string &Text, bool Force) {
    try {
        std::vector<std::u16string> Paths = Expand(Text);
        if (Force && Paths.size() == 1) {
            const embedded::CreateResult Found = OpenRemote(Paths[0], {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
            if (!NT_SUCCESS(Found.Status)) {
                throw StatusError(Found.Status, ShowPath(Paths[0]));
            }
            NtClose(Found.Handle);
        }
        return Paths;
    } catch (const StatusError &Missing) {
        if (Force && IsAbsent(Missing.Status)) {
            return {};
        }
        throw;
    }
}

Verb RemoveVerb() {
    const auto Words = std::make_shared<ChangeWords>();
    return {.Name = "rm",
            .Group = "changes",
            .Summary = "delete files",
            .Parameters = {Parameter{"PATH", "files, masks too", &Words->Paths}.As("PATH..."),
                           {"-r,-R,--recursive", "directories with all below", &Words->Other},
                           {"-f,--force", "read-only files too; what is not there is no failure", &Words->Flag}},
            .Run = [Words](Session &Running) {
                if (Words->Paths.empty() && !Words->Flag) {
                    throw UsageError("rm: PATH is required; help rm tells what it takes");
                }
                int Code = 0;
                for (const std::string &Text : Words->Paths) {
                    std::vector<std::u16string> Paths;
                    Code |= Guarded([&] { Paths = Doomed(Text, Words->Flag); });
                    for (const std::u16string &Path : Paths) {
                        Code |= RemoveOne(Running, Path, Words->Other, Words->Flag);
                    }
                }
                return Code;
            }};
}

Verb RemoveDirectoryVerb() {
    const auto Words = std::make_shared<ChangeWords>();
    return {.Name = "rmdir",
            .Group = "changes",
            .Summary = "delete empty directories",
            .Parameters = {Parameter{"PATH", "directories, masks too", &Words->Paths}.Needed()},
            .Run = [Words](Session &) {
                return ForEachPath(Words->Paths,
                                   [](const std::u16string &Path) { Remove(Path, FILE_DIRECTORY_FILE, false); });
            }};
}

// Path and every directory above it that is missing; what is there already is no failure.
void MakeWay(const std::u16string &Path) {
    for (size_t End = RootLength(Path); End < Path.size();) {
        End = Path.find(u'\\', End + 1);
        const std::u16string Step = Path.substr(0, End);
        try {
            MakeDirectory(Step);
        } catch (const StatusError &Refused) {
            if (Refused.Status != STATUS_OBJECT_NAME_COLLISION || KindOf(Step) != Kind::Directory) {
                throw;
            }
        }
    }
}

Verb MakeVerb() {
    const auto Words = std::make_shared<ChangeWords>();
    return {.Name = "mkdir",
            .Group = "changes",
            .Summary = "make directories",
            .Parameters = {Parameter{"PATH", "the directories", &Words->Paths}.Needed(),
                           {"-p,--parents", "those above too; what is there already is no failure", &Words->Flag}},
            .Run = [Words](Session &) {
                int Code = 0;
                for (const std::string &Text : Words->Paths) {
                    Code |= Guarded([&] { Words->Flag ? MakeWay(RemotePath(Text)) : MakeDirectory(RemotePath(Text)); });
                }
                return Code;
            }};
}

// Every file below From has the same bytes below To.
void Verify(const Place &From, const Place &To, WayDown Way) {
    if (From.WhatIsThere() != Kind::Directory) {
        if (!SameBytes(From.Path, To.Path)) {
            throw std::runtime_error(fmt::format("{}: the copy differs; {} stays", To.Show(), From.Show()));
        }
        return;
    }
    for (const DirectoryEntry &Entry : EntriesOn(From.Path, Way)) {
        Verify(From.Child(Narrow(Entry.Name)), To.Child(Narrow(Entry.Name)), Way);
    }
}

// From one volume to another: copied, compared, deleted.
int MoveAcross(Session &Running, const Place &From, const Place &To, bool Replace) {
    const bool Directory = From.WhatIsThere() == Kind::Directory;
    if (Directory && To.WhatIsThere() != Kind::Missing) {
        throw StatusError(STATUS_OBJECT_NAME_COLLISION, To.Show());
    }
    if (const int Code = CopyTree(Running, From, To, true, {.Force = Replace, .Preserve = true}); Code != 0) {
        Complain(fmt::format("{}: not all of it could be copied; it stays, and so does what is in {}", From.Show(),
                             To.Show()));
        return Code;
    }
    Verify(From, To, {});
    return Directory ? RemoveTree(Running, From.Path, true) : RemoveOne(Running, From.Path, false, true);
}

// Two names of one directory, as far as the volume has identifiers.
bool SameDirectory(const std::u16string &One, const std::u16string &Other) {
    if (ParentOf(One).size() != ParentOf(Other).size() || LastOf(One).size() != LastOf(Other).size()) {
        return false;
    }
    try {
        WayDown Way;
        RemoteFile First(One, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        RemoteFile Second(Other, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE});
        return LeadsBack(First, Way) || LeadsBack(Second, Way);
    } catch (const StatusError &) {
        return false;
    }
}

bool IsBelow(const std::u16string &Path, const std::u16string &Directory) {
    return Path.size() > Directory.size() && Path[Directory.size()] == u'\\' &&
           std::equal(Directory.begin(), Directory.end(), Path.begin(),
                      [](char16_t One, char16_t Other) { return text::UpcaseUnit(One) == text::UpcaseUnit(Other); });
}

int Move(Session &Running, const Place &From, const Place &Target, bool Replace) {
    // A change of case names the same directory: that is no move into it.
    const bool Same = Target.WhatIsThere() == Kind::Directory && SameDirectory(From.Path, Target.Path);
    const Place To = Same ? Target : TargetOf(From, Target);
    // What is wrong with From is told in its name, so that what comes after is the target's.
    RemoteFile(From.Path, {.Access = FILE_READ_ATTRIBUTES | SYNCHRONIZE}).End();
    if (IsBelow(To.Path, From.Path) && From.WhatIsThere() == Kind::Directory) {
        throw std::runtime_error(fmt::format("{}: a directory is not moved into itself", To.Show()));
    }
    try {
        Rename(From.Path, To.Path, Replace);
        return 0;
    } catch (const StatusError &Refused) {
        if (Refused.Status == STATUS_OBJECT_NAME_COLLISION) {
            throw StatusError(Refused.Status, To.Show() + (Replace ? "" : "; --replace replaces a file"));
        }
        if (Refused.Status == STATUS_OBJECT_NAME_NOT_FOUND || Refused.Status == STATUS_OBJECT_PATH_NOT_FOUND) {
            throw StatusError(Refused.Status, From.WhatIsThere() == Kind::Missing ? From.Show() : To.Show());
        }
        if (Refused.Status == STATUS_FILE_IS_A_DIRECTORY || Refused.Status == STATUS_BAD_NETWORK_PATH ||
            Refused.Status == STATUS_BAD_NETWORK_NAME) {
            throw StatusError(Refused.Status, To.Show());
        }
        if (Refused.Status != STATUS_NOT_SAME_DEVICE) {
            throw;
        }
    }
    return MoveAcross(Running, From, To, Replace);
}

Verb MoveVerb() {
    const auto Words = std::make_shared<ChangeWords>();
    return {.Name = "mv",
            .Group = "changes",
            .Summary = "rename or move; from one volume to another by a copy that is compared",
            .Parameters = {Parameter{"PATH",
                                     "files and directories, masks too; then the new name, or the directory to go into",
                                     &Words->Paths}
                               .Needed()
                               .As("SOURCE... TARGET"),
                           {"-f,--replace", "replace files that are there", &Words->Flag}},
            .Run = [Words](Session &Running) {
                if (Words->Paths.size() < 2) {
                    throw UsageError("mv: where to? mv SOURCE... TARGET");
                }
                const Place To = Place::Of(Words->Paths.back(), true);
                std::vector<std::u16string> From;
                int Code = 0;
                for (size_t Index = 0; Index + 1 < Words->Paths.size(); ++Index) {
                    Code |= Guarded([&] {
                        for (std::u16string &Path : Expand(Words->Paths[Index])) {
                            From.push_back(std::move(Path));
                        }
                    });
                }
                if (From.size() > 1 && To.WhatIsThere() != Kind::Directory) {
                    throw UsageError(fmt::format("{}: several files are moved into a directory only", To.Show()));
                }
                for (const std::u16string &Path : From) {
                    Code |= Guarded([&] { Code |= Move(Running, {true, Path, {}}, To, Words->Flag); });
                }
                return Code;
            }};
}

} // namespace

void AddChangeVerbs(VerbList &List) {
    List.push_back(AttributeVerb());
    List.push_back(TouchVerb());
    List.push_back(TruncateVerb());
    List.push_back(MakeVerb());
    List.push_back(RemoveVerb());
    List.push_back(RemoveDirectoryVerb());
    List.push_back(MoveVerb());
}

} // namespace app
