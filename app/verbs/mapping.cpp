// use, verify, session: drive letters, paths, and the logon sessions that they belong to.

#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "app/drives.h"
#include "app/output.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

// Acts in another session for a while.
class ActingIn {
public:
    ActingIn(Drives &Of, const std::string &Logon) : Of_(Of), Before_(Of.Acting()) {
        if (!Logon.empty()) {
            Of_.Act(Logon);
        }
    }
    ~ActingIn() {
        Of_.Act(Before_);
    }
    ActingIn(const ActingIn &) = delete;
    ActingIn &operator=(const ActingIn &) = delete;

private:
    Drives &Of_;
    const std::string Before_;
};

char LetterOf(const std::string &Text) {
    const bool Fits = Text.size() == 2 && Text[1] == ':' && isalpha(static_cast<unsigned char>(Text[0])) != 0;
    if (!Fits) {
        throw UsageError(fmt::format("{}: a drive is a letter with a colon, as in G:", Text));
    }
    return static_cast<char>(toupper(static_cast<unsigned char>(Text[0])));
}

void ListUses(Drives &Of) {
    for (const Drives::Listed &Each : Of.List()) {
        if (WantsJson()) {
            PrintRecord({{"drive", std::string(1, Each.Use.Letter) + ":"},
                         {"path", Each.Path},
                         {"session", Each.Use.Logon},
                         {"linked", Each.Linked},
                         {"server", uint64_t{Each.Use.Server}}});
        } else {
            fmt::print("{}:  {:<10} {:<8} {:>3}  {}\n", Each.Use.Letter, Each.Use.Logon, Each.Linked ? "linked" : "-",
                       Each.Use.Server, Each.Path);
        }
    }
}

struct UseWords {
    std::vector<std::string> Rest; // [G: [PATH | /delete] | /delete]
    std::optional<uint32_t> Server;
    std::string Logon;
    bool Delete = false;
};

void RunUse(Drives &Of, UseWords Words) {
    std::vector<std::string> &Rest = Words.Rest;
    const bool Delete = Words.Delete || std::erase_if(Rest, [](const std::string &Word) {
                                            return Word == "/delete" || Word == "/d" || Word == "/DELETE";
                                        }) != 0;
    const ActingIn There(Of, Words.Logon);
    if (Delete && Rest.empty() && Words.Server) {
        Of.DeleteServer(*Words.Server);
    } else if (Delete && Rest.size() == 1 && !Words.Server) {
        Of.Delete(LetterOf(Rest[0]));
    } else if (!Delete && Rest.empty() && !Words.Server) {
        ListUses(Of);
    } else if (!Delete && Rest.size() == 1 && !Words.Server) {
        const char Letter = LetterOf(Rest[0]);
        const auto Path = Of.Ask(Letter);
        if (!Path) {
            throw StatusError(STATUS_RESOURCE_NOT_OWNED, std::string(1, Letter) + ":");
        }
        if (WantsJson()) {
            PrintRecord({{"drive", std::string(1, Letter) + ":"}, {"path", *Path}, {"session", Of.Acting()}});
        } else {
            fmt::print("{}\n", *Path);
        }
    } else if (!Delete && Rest.size() == 2) {
        Of.Use({LetterOf(Rest[0]), UncPath(Rest[1]), {}, Words.Server.value_or(0)});
    } else {
        throw UsageError("use G: PATH, use G: /delete, use --server N /delete, or use alone");
    }
}

// What a letter stands for takes its place.
std::string WithoutLetter(Drives &Of, const std::string &Text) {
    const std::u16string Path = RemotePath(Text);
    if (Path.starts_with(u'\\')) {
        return ShowPath(Path);
    }
    const auto Base = Of.Ask(static_cast<char>(Path[0]));
    if (!Base) {
        throw StatusError(STATUS_RESOURCE_NOT_OWNED, Text);
    }
    return *Base + Narrow(Path.substr(2));
}

} // namespace

void UseDrive(Drives &Of, const std::string &Text) {
    const size_t At = Text.find('=');
    if (At == std::string::npos) {
        throw UsageError(fmt::format("{}: expected --use 'G:=\\\\server\\volume'", Text));
    }
    Of.Use({LetterOf(Text.substr(0, At)), UncPath(Text.substr(At + 1)), {}, 0});
}

void AddMappingVerbs(VerbList &List) {
    const auto Words = std::make_shared<UseWords>();
    List.push_back(
        {.Name = "use",
         .Group = "drives",
         .Summary = "map a drive letter to a path, list or remove mappings",
         .Parameters =
             {Parameter{"WHAT", "a letter, and the path that it is to stand for, or /delete", &Words->Rest}.As(
                  "[G: [PATH]] [/delete]"),
              Parameter{"--server", "the connection that a mapping belongs to, or that is removed", &Words->Server}.As(
                  "N"),
              Parameter{"--session", "act in this logon session (session lists them)", &Words->Logon}.As("NAME"),
              {"-d,--delete", "remove", &Words->Delete}},
         .Run = [Words](Session &Running) { return Guarded([&] { RunUse(Running.Drives(), *Words); }); },
         .Text =
             "A mapping lives as long as the driver that holds it: in the console, until it is left. A single "
             "command gets its letters with --use. The list tells the session that a letter was mapped in, whether "
             "it is in the linked session too, its connection and its path. With the switch EnableLinkedConnections "
             "a letter that one half of a split logon maps appears in both.",
         .Examples = {"--use 'G:=\\\\demo\\files\\docs' cat 'G:\\a.txt'"}});
    const auto Path = std::make_shared<std::string>();
    List.push_back(
        {.Name = "verify",
         .Group = "drives",
         .Summary = "ask whether a path can be opened, as clients do before they map it",
         .Parameters = {Parameter{"PATH", "a volume or a directory", Path.get()}.Needed()},
         .Run =
             [Path](Session &Running) {
                 return Guarded([&] {
                     const NTSTATUS Status = Running.Drives().Verify(WithoutLetter(Running.Drives(), *Path));
                     if (!NT_SUCCESS(Status)) {
                         throw StatusError(Status, *Path);
                     }
                     if (WantsJson()) {
                         PrintRecord({{"path", ShowPath(RemotePath(*Path))}, {"status", StatusName(Status)}});
                     } else {
                         fmt::print("{}\n", ShowStatus(Status));
                     }
                 });
             },
         .Examples = {"verify '\\\\demo\\files\\docs'"}});
    const auto Name = std::make_shared<std::string>();
    List.push_back({.Name = "session",
                    .Group = "drives",
                    .Summary = "list the logon sessions, or act in one of them",
                    .Parameters = {{"NAME", "act in this one from now on", Name.get()}},
                    .Run =
                        [Name](Session &Running) {
                            return Guarded([&] {
                                if (!Name->empty()) {
                                    Running.Drives().Act(*Name);
                                    return;
                                }
                                for (const LogonName &Each : Logons()) {
                                    if (WantsJson()) {
                                        PrintRecord({{"name", std::string(Each.Name)},
                                                     {"acting", Each.Name == Running.Drives().Acting()},
                                                     {"who", std::string(Each.Who)}});
                                        continue;
                                    }
                                    fmt::print("{} {:<10} {}\n", Each.Name == Running.Drives().Acting() ? '*' : ' ',
                                               Each.Name, Each.Who);
                                }
                            });
                        },
                    .Text = "Drive letters belong to logon sessions. --session NAME starts the program in one."});
}

} // namespace app
