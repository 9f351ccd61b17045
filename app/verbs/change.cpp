// attrib, touch, truncate, rm, rmdir, mv: changes of files and directories.

#include <cstring>
#include <ctime>

#include <fmt/format.h>

#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"
#include "embedded/ke.h"

namespace app {

namespace {

FILE_BASIC_INFORMATION Basic(RemoteFile &File) {
    const RemoteFile::Answer Answer = File.Query(FileBasicInformation, sizeof(FILE_BASIC_INFORMATION));
    FILE_BASIC_INFORMATION Record;
    memcpy(&Record, Answer.Bytes.data(), sizeof(Record));
    return Record;
}

void SetBasic(RemoteFile &File, const FILE_BASIC_INFORMATION &Record) {
    File.Set(FileBasicInformation, &Record, sizeof(Record));
}

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

void ChangeAttributes(const std::string &Path, const AttributeChange &Change) {
    RemoteFile File(RemotePath(Path), {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE});
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
RemoteFile OpenOrMake(const std::string &Path) {
    OpenRequest Request = {.Access = FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE};
    try {
        return RemoteFile(RemotePath(Path), Request);
    } catch (const StatusError &Missing) {
        if (Missing.Status != STATUS_OBJECT_NAME_NOT_FOUND) {
            throw;
        }
    }
    Request.Disposition = FILE_CREATE;
    return RemoteFile(RemotePath(Path), Request);
}

void Touch(const std::string &Path, LONG64 Time) {
    RemoteFile File = OpenOrMake(Path);
    FILE_BASIC_INFORMATION Record = {};
    Record.LastAccessTime.QuadPart = Time;
    Record.LastWriteTime.QuadPart = Time;
    SetBasic(File, Record);
    File.End();
}

void Truncate(const std::string &Path, LONG64 Size) {
    RemoteFile File(RemotePath(Path), {.Access = FILE_WRITE_DATA | SYNCHRONIZE,
                                       .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
    File.Set(FileEndOfFileInformation, &Size, sizeof(Size));
    File.End();
}

void Remove(const std::string &Path, ULONG Kind, bool Force) {
    const std::u16string Name = RemotePath(Path);
    if (Force) {
        ChangeAttributes(Path, {.Set = 0, .Clear = FILE_ATTRIBUTE_READONLY});
    }
    RemoteFile File(
        Name, {.Access = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE, .Options = Kind | FILE_SYNCHRONOUS_IO_NONALERT});
    const UCHAR Delete = 1;
    File.Set(FileDispositionInformation, &Delete, sizeof(Delete));
    File.End(); // which carries the deletion out
}

void Move(const std::string &From, const std::string &To, bool Replace) {
    const std::u16string Target = u"\\??\\UNC" + RemotePath(To);
    RemoteFile File(RemotePath(From), {.Access = DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    // FILE_RENAME_INFORMATION: replace at 0, root directory at 8, length of the name at 16, the name at 20.
    constexpr size_t NameOffset = 20;
    std::vector<UCHAR> Record(NameOffset + Target.size() * sizeof(WCHAR));
    Record[0] = Replace ? 1 : 0;
    const ULONG NameBytes = static_cast<ULONG>(Target.size() * sizeof(WCHAR));
    memcpy(Record.data() + 16, &NameBytes, sizeof(NameBytes));
    memcpy(Record.data() + NameOffset, Target.data(), NameBytes);
    File.Set(FileRenameInformation, Record.data(), static_cast<ULONG>(Record.size()));
    File.End();
}

LONG64 ParseTime(const std::string &Text) {
    if (Text.empty()) {
        return embedded::Clock::SystemTime();
    }
    if (Text == "-1") {
        return -1; // which leaves a time as it is, as 0 does
    }
    tm Local = {};
    const char *End = strptime(Text.c_str(), "%Y-%m-%d %H:%M:%S", &Local);
    if (End == nullptr) {
        return static_cast<LONG64>(ParseNumber(Text, INT64_MAX));
    }
    if (*End != 0) {
        throw UsageError(fmt::format("{}: {} does not belong to a time", Text, End));
    }
    Local.tm_isdst = -1;
    return (static_cast<LONG64>(mktime(&Local)) + 11644473600) * 10000000;
}

} // namespace

void AddChangeVerbs(CLI::App &App, Command &Chosen) {
    struct Options {
        std::vector<std::string> Paths;
        std::string Text;
        std::string Second;
        bool Flag = false;
    };
    const auto ForEach = [&Chosen](std::shared_ptr<Options> Chose,
                                   std::function<void(const Options &, const std::string &)> Action) {
        return [&Chosen, Chose, Action] {
            Chosen = [Chose, Action](Session &) {
                int Code = 0;
                for (const std::string &Path : Chose->Paths) {
                    Code |= Guarded([&] { Action(*Chose, Path); });
                }
                return Code;
            };
        };
    };

    auto Attributes = std::make_shared<Options>();
    auto *AttributeVerb = App.add_subcommand("attrib", "set and clear attributes, as in: attrib +r-h PATH");
    AttributeVerb->prefix_command();
    AttributeVerb->set_help_flag("--help", "Print this help message and exit"); // -h is a change
    AttributeVerb->callback([&Chosen, Attributes, AttributeVerb] {
        std::vector<std::string> Words = AttributeVerb->remaining();
        if (Words.size() < 2) {
            throw UsageError("attrib: a change (as +r-h) and paths are needed");
        }
        Chosen = [Words](Session &) {
            const AttributeChange Change = ParseChange(Words[0]);
            int Code = 0;
            for (size_t Index = 1; Index < Words.size(); ++Index) {
                Code |= Guarded([&] { ChangeAttributes(Words[Index], Change); });
            }
            return Code;
        };
    });

    auto Touching = std::make_shared<Options>();
    auto *TouchVerb = App.add_subcommand("touch", "set the times of files, making those that are missing");
    TouchVerb->add_option("PATH", Touching->Paths)->required();
    TouchVerb->add_option("--time", Touching->Text, "\"YYYY-MM-DD HH:MM:SS\" or 100-ns units since 1601; default now");
    TouchVerb->callback(
        ForEach(Touching, [](const Options &Chose, const std::string &Path) { Touch(Path, ParseTime(Chose.Text)); }));

    auto Sizing = std::make_shared<Options>();
    auto *TruncateVerb = App.add_subcommand("truncate", "set the size of a file");
    TruncateVerb->add_option("PATH", Sizing->Text)->required();
    TruncateVerb->add_option("SIZE", Sizing->Second, "bytes")->required();
    TruncateVerb->callback([&Chosen, Sizing] {
        Chosen = [Sizing](Session &) {
            return Guarded(
                [&] { Truncate(Sizing->Text, static_cast<LONG64>(ParseNumber(Sizing->Second, INT64_MAX))); });
        };
    });

    auto Removing = std::make_shared<Options>();
    auto *RemoveVerb = App.add_subcommand("rm", "delete files");
    RemoveVerb->add_option("PATH", Removing->Paths)->required();
    RemoveVerb->add_flag("-f,--force", Removing->Flag, "read-only files too");
    RemoveVerb->callback(ForEach(Removing, [](const Options &Chose, const std::string &Path) {
        Remove(Path, FILE_NON_DIRECTORY_FILE, Chose.Flag);
    }));

    auto Directories = std::make_shared<Options>();
    auto *RemoveDirectoryVerb = App.add_subcommand("rmdir", "delete empty directories");
    RemoveDirectoryVerb->add_option("PATH", Directories->Paths)->required();
    RemoveDirectoryVerb->callback(ForEach(
        Directories, [](const Options &, const std::string &Path) { Remove(Path, FILE_DIRECTORY_FILE, false); }));

    auto Making = std::make_shared<Options>();
    auto *MakeVerb = App.add_subcommand("mkdir", "make directories");
    MakeVerb->add_option("PATH", Making->Paths)->required();
    MakeVerb->callback(ForEach(Making, [](const Options &, const std::string &Path) {
        RemoteFile(RemotePath(Path), {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                      .Disposition = FILE_CREATE,
                                      .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT})
            .End();
    }));

    auto Moving = std::make_shared<Options>();
    auto *MoveVerb = App.add_subcommand("mv", "rename or move within a volume");
    MoveVerb->add_option("SOURCE", Moving->Text)->required();
    MoveVerb->add_option("TARGET", Moving->Second)->required();
    MoveVerb->add_flag("--replace", Moving->Flag, "replace a file that is there");
    MoveVerb->callback([&Chosen, Moving] {
        Chosen = [Moving](Session &) { return Guarded([&] { Move(Moving->Text, Moving->Second, Moving->Flag); }); };
    });
}

} // namespace app
