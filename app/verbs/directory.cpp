// ls, find, watch: directories.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "app/interrupt.h"
#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

const std::map<std::string, ULONG> ClassNames = {
    {"directory", FileDirectoryInformation},     {"full", FileFullDirectoryInformation},
    {"both", FileBothDirectoryInformation},      {"names", FileNamesInformation},
    {"id_both", FileIdBothDirectoryInformation}, {"id_full", FileIdFullDirectoryInformation}};

constexpr auto MaskCharacters = u"*?<>\"";

OpenRequest ForListing() {
    return {.Access = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
            .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};
}

// A path whose last component may be a mask.
struct Target {
    std::u16string Directory;
    std::u16string Mask = u"*";
    bool IsMasked = false;
};

Target Split(const std::string &Text) {
    std::u16string Path = RemotePath(Text);
    const size_t Last = Path.rfind(u'\\');
    if (Path.find_first_of(MaskCharacters, Last) == std::u16string::npos) {
        return {Path};
    }
    return {Path.substr(0, Last), Path.substr(Last + 1), true};
}

struct ListOptions {
    std::vector<std::string> Paths;
    bool Long = false;
    bool Recursive = false;
    std::string Class = "both";
    uint32_t Buffer = 65536;
    bool Restart = false;
    bool Single = false;
};

void PrintEntry(const DirectoryEntry &Entry, bool Long) {
    if (Long) {
        fmt::print("{} {:>14}  {}  {:<14}{}\n", ShowAttributes(Entry.Attributes), Entry.Size,
                   ShowTime(Entry.LastWrite).substr(0, 19), Narrow(Entry.ShortName), Narrow(Entry.Name));
    } else {
        fmt::print("{}\n", Narrow(Entry.Name));
    }
}

// Opens what Where names; for the name of a file the directory that holds it, with the name as the mask.
RemoteFile OpenTarget(Target &Where) {
    try {
        return RemoteFile(Where.Directory, ForListing());
    } catch (const StatusError &Refused) {
        if (Refused.Status != STATUS_NOT_A_DIRECTORY || Where.IsMasked) {
            throw;
        }
    }
    const size_t Last = Where.Directory.rfind(u'\\');
    Where.Mask = Where.Directory.substr(Last + 1);
    Where.Directory.resize(Last);
    return RemoteFile(Where.Directory, ForListing());
}

// The listing as the driver gives it: dot entries, one class, one buffer length.
void ListRaw(Target Where, const ListOptions &Options) {
    RemoteFile Directory = OpenTarget(Where);
    const ULONG InfoClass = ClassNames.at(Options.Class);
    // With --restart the search is begun again after the first answer.
    bool Begun = false;
    bool Restarted = !Options.Restart;
    for (;;) {
        const RemoteFile::Answer Batch =
            Directory.List(InfoClass, Options.Buffer, Where.Mask, Begun && !Restarted, Options.Single);
        Restarted = Restarted || Begun;
        // The root of a volume has no dot entries: there an empty directory is one in which nothing matches.
        const bool IsEmpty = Batch.Status == STATUS_NO_SUCH_FILE && !Where.IsMasked && Where.Mask == u"*";
        if (Batch.Status == STATUS_NO_MORE_FILES || IsEmpty) {
            return;
        }
        if (!NT_SUCCESS(Batch.Status)) {
            throw StatusError(Batch.Status, ShowPath(Where.Directory + u"\\" + Where.Mask));
        }
        for (const DirectoryEntry &Entry : UnpackEntries(Batch, InfoClass)) {
            PrintEntry(Entry, Options.Long);
        }
        Begun = true;
    }
}

// The identifiers of the directories that a walk has come through, from the top.
using WayDown = std::vector<LONG64>;

// A link of the server may lead back to a directory that the walk is in, which then has no end. Adds Directory to Way;
// TRUE when it is on it already. A volume without identifiers cannot say.
bool LeadsBack(RemoteFile &Directory, WayDown &Way) {
    constexpr LONG64 NoIdentifier = 0xABA00000020; // the driver's, for such volumes
    LONG64 Identifier = 0;                         // and for a file of which it could not be had
    const RemoteFile::Answer Answer = Directory.Ask(FileInternalInformation, sizeof(Identifier));
    if (NT_SUCCESS(Answer.Status)) {
        memcpy(&Identifier, Answer.Bytes.data(), sizeof(Identifier));
    }
    const bool Known = Identifier != 0 && Identifier != NoIdentifier;
    const bool Back = Known && std::find(Way.begin(), Way.end(), Identifier) != Way.end();
    Way.push_back(Identifier);
    return Back;
}

// Errors are told and the walk goes on.
int ListTree(const Target &Where, const ListOptions &Options, WayDown Way) {
    std::vector<DirectoryEntry> Entries;
    int Code = Guarded([&] {
        RemoteFile Directory(Where.Directory, ForListing());
        const bool IsFirst = Way.empty();
        if (LeadsBack(Directory, Way)) {
            return;
        }
        fmt::print("{}{}:\n", IsFirst ? "" : "\n", ShowPath(Where.Directory));
        Entries = ListDirectory(Directory, Where.Mask, Options.Buffer);
    });
    for (const DirectoryEntry &Entry : Entries) {
        PrintEntry(Entry, Options.Long);
    }
    for (const DirectoryEntry &Entry : Entries) {
        if (Entry.Attributes & FILE_ATTRIBUTE_DIRECTORY) {
            Code |= ListTree({Where.Directory + u"\\" + Entry.Name}, Options, Way);
        }
    }
    return Code;
}

// Every path below Directory; with a Mask (Shown is false) those whose last name matches it. Errors are told and the
// walk goes on.
int Find(const std::u16string &Directory, const std::u16string &Mask, bool Shown, WayDown Way) {
    std::vector<DirectoryEntry> Entries;
    std::vector<DirectoryEntry> Matches;
    int Code = Guarded([&] {
        RemoteFile Open(Directory, ForListing());
        if (LeadsBack(Open, Way)) {
            return;
        }
        Entries = ListDirectory(Open, u"*", 65536);
        if (!Shown) {
            RemoteFile Again(Directory, ForListing());
            Matches = ListDirectory(Again, Mask, 65536);
        }
    });
    for (const DirectoryEntry &Entry : Shown ? Entries : Matches) {
        fmt::print("{}\n", ShowPath(Directory + u"\\" + Entry.Name));
    }
    for (const DirectoryEntry &Entry : Entries) {
        if (Entry.Attributes & FILE_ATTRIBUTE_DIRECTORY) {
            Code |= Find(Directory + u"\\" + Entry.Name, Mask, Shown, Way);
        }
    }
    return Code;
}

// A wait on an asynchronous handle; the handle's close ends it.
class Wait {
public:
    explicit Wait(const std::u16string &Path)
        : Directory_(Path, {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE}) {
        constexpr ULONG Everything = 0xFFF;
        NTSTATUS Status = embedded::CreateEventHandle(NotificationEvent, false, &Ended_);
        if (NT_SUCCESS(Status)) {
            Status = NtNotifyChangeDirectoryFile(Directory_.Handle(), Ended_, nullptr, nullptr, &IoStatus_, Buffer_,
                                                 sizeof(Buffer_), Everything, FALSE);
        }
        if (!NT_SUCCESS(Status)) {
            if (Ended_ != nullptr) {
                NtClose(Ended_);
            }
            throw StatusError(Status, ShowPath(Path));
        }
    }
    Wait(const Wait &) = delete;
    Wait &operator=(const Wait &) = delete;
    ~Wait() {
        End();
        NtClose(Ended_);
    }
    // TRUE when the wait has ended.
    bool WaitFor(LONGLONG Milliseconds) {
        LARGE_INTEGER Timeout;
        Timeout.QuadPart = -Milliseconds * 10000;
        return NtWaitForSingleObject(Ended_, FALSE, &Timeout) == STATUS_SUCCESS;
    }
    // Ends it now, if it has not: the request writes into this object until it is completed.
    void End() {
        Directory_.Close();
        NtWaitForSingleObject(Ended_, FALSE, nullptr);
    }
    NTSTATUS Status() const {
        return IoStatus_.Status;
    }
    const std::u16string &Path() const {
        return Directory_.Path();
    }

private:
    RemoteFile Directory_;
    HANDLE Ended_ = nullptr;
    IO_STATUS_BLOCK IoStatus_ = {};
    UCHAR Buffer_[1024];
};

// Waits of the console, which go on while other verbs run; each is told when it ends, at the latest with the console.
class Background {
public:
    ~Background() {
        Stop_ = true;
        for (std::thread &Thread : Threads_) {
            Thread.join();
        }
    }
    void Add(std::unique_ptr<Wait> Waiting) {
        Threads_.emplace_back([this, Watched = std::move(Waiting)] {
            while (!Stop_ && !Watched->WaitFor(50)) {
            }
            Watched->End();
            fmt::print("watch {}: {}\n", ShowPath(Watched->Path()), ShowStatus(Watched->Status()));
            fflush(stdout);
        });
    }

private:
    std::atomic<bool> Stop_ = false;
    std::vector<std::thread> Threads_;
};

std::unique_ptr<Background> ConsoleWaits;

int Watch(const std::string &Path) {
    return Guarded([&] {
        auto Waiting = std::make_unique<Wait>(RemotePath(Path));
        if (ConsoleWaits != nullptr) {
            fmt::print("watching {}\n", ShowPath(Waiting->Path()));
            ConsoleWaits->Add(std::move(Waiting));
            return;
        }
        while (!Waiting->WaitFor(200)) {
            CheckInterrupt();
        }
        fmt::print("{}\n", ShowStatus(Waiting->Status()));
    });
}

} // namespace

void BeginConsoleWaits() {
    ConsoleWaits = std::make_unique<Background>();
}

void EndConsoleWaits() {
    ConsoleWaits.reset();
}

void AddDirectoryVerbs(CLI::App &App, Command &Chosen) {
    auto *ListVerb = App.add_subcommand("ls", "list directories; the last component may be a mask");
    auto Options = std::make_shared<ListOptions>();
    ListVerb->add_option("PATH", Options->Paths, "'\\\\server\\volume\\dir[\\MASK]'")->required();
    ListVerb->add_flag("-l", Options->Long, "attributes, size, time, short name");
    auto *Recursive = ListVerb->add_flag("-R", Options->Recursive, "directories below too, without dot entries");
    ListVerb->add_option("--class", Options->Class, "the class of information asked for")
        ->capture_default_str()
        ->check(CLI::IsMember(ClassNames))
        ->excludes(Recursive);
    ListVerb->add_option("--buffer", Options->Buffer, "bytes of each query's buffer")
        ->capture_default_str()
        ->check(CLI::Range(0u, 1u << 24));
    ListVerb->add_flag("--restart", Options->Restart, "begin again after the first answer")->excludes(Recursive);
    ListVerb->add_flag("--single", Options->Single, "one entry a query")->excludes(Recursive);
    ListVerb->callback([&Chosen, Options] {
        Chosen = [Options](Session &) {
            int Code = 0;
            for (const std::string &Path : Options->Paths) {
                int Below = 0;
                Code |= Guarded([&] {
                    const Target Where = Split(Path);
                    if (Options->Recursive) {
                        Below = ListTree(Where, *Options, {});
                    } else {
                        ListRaw(Where, *Options);
                    }
                });
                Code |= Below;
            }
            return Code;
        };
    });

    struct FindOptions {
        std::string Path;
        std::string Name;
    };
    auto *FindVerb = App.add_subcommand("find", "every path below a directory");
    auto Finding = std::make_shared<FindOptions>();
    FindVerb->add_option("PATH", Finding->Path)->required();
    FindVerb->add_option("--name", Finding->Name, "only names that match this mask");
    FindVerb->callback([&Chosen, Finding] {
        Chosen = [Finding](Session &) {
            return Find(RemotePath(Finding->Path), Widen(Finding->Name), Finding->Name.empty(), {});
        };
    });

    auto *WatchVerb = App.add_subcommand("watch", "wait until an entry appears or vanishes (EnableDirectoryNotify=1)");
    auto Path = std::make_shared<std::string>();
    WatchVerb->add_option("PATH", *Path)->required();
    WatchVerb->callback([&Chosen, Path] { Chosen = [Path](Session &) { return Watch(*Path); }; });
}

} // namespace app
