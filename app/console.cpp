// The console: one running driver, many verbs.

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <langinfo.h>
#include <memory>
#include <unistd.h>

#include <editline/readline.h>
#include <fmt/format.h>

#include "app/command_line.h"
#include "app/completion.h"
#include "app/help.h"
#include "app/interrupt.h"
#include "app/output.h"
#include "app/text.h"
#include "app/transfer.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

// The line editor's callbacks have no argument of ours.
Session *Current = nullptr;
std::vector<std::string> Offered;

char *NextCompletion(const char *, int State) {
    static size_t Next;
    if (State == 0) {
        Next = 0;
    }
    return Next < Offered.size() ? strdup(Offered[Next++].c_str()) : nullptr;
}

// The editor ends a word at quotation marks and blanks: the word is looked for from the line's start, and what is
// offered begins where the editor thinks that the word does.
char **Complete(const char *, int Start, int) {
    rl_attempted_completion_over = 1;
    const std::string_view Line = std::string_view(rl_line_buffer).substr(0, static_cast<size_t>(rl_point));
    const LastWord Word = FindLastWord(Line);
    try {
        Offered = Completions(*Current, Line.substr(0, Word.Start), Word.Text);
    } catch (const std::exception &) {
        Offered.clear(); // the line stays as it is; the verb will say what is wrong
    }
    const bool GoesOn = Offered.size() == 1 && (Offered[0].ends_with('\\') || Offered[0].ends_with('/'));
    for (std::string &Each : Offered) {
        Each = Respell(Each, Word, static_cast<size_t>(Start), Offered.size() == 1 && !GoesOn);
    }
    const std::string Text(Line.substr(static_cast<size_t>(Start)));
    rl_completion_append_character = GoesOn ? '\0' : ' ';
    return rl_completion_matches(Text.c_str(), NextCompletion);
}

// Words separated by blanks; quotation marks keep blanks, and a word that begins with # ends the line. Backslashes are
// characters of paths.
std::vector<std::string> SplitLine(const std::string &Line) {
    std::vector<std::string> Parts;
    std::string Part;
    bool Open = false;
    char Quote = 0;
    for (const char Byte : Line) {
        if (Quote != 0) {
            if (Byte == Quote) {
                Quote = 0;
            } else {
                Part += Byte;
            }
        } else if (Byte == '"' || Byte == '\'') {
            Quote = Byte;
            Open = true;
        } else if (Byte == ' ' || Byte == '\t' || Byte == '\r') {
            if (Open) {
                Parts.push_back(Part);
            }
            Part.clear();
            Open = false;
        } else if (Byte == '#' && !Open) {
            break;
        } else {
            Part += Byte;
            Open = true;
        }
    }
    if (Quote != 0) {
        throw UsageError("a quotation mark is not closed");
    }
    if (Open) {
        Parts.push_back(Part);
    }
    return Parts;
}

using Parts = std::vector<std::string>;

int RunVerb(Session &Running, const Parts &Line) {
    const VerbList List = Verbs();
    if (FindVerb(List, Line[0]) == nullptr) {
        throw UsageError(NoSuchVerb(Line[0]));
    }
    bool Json = false;
    const bool Always = WantsJson(); // the program's own option
    const ParsedLine Parsed = ParseLine(Line, List, {{"--json", "facts as one JSON object a line", &Json}});
    if (Parsed.WantsHelp) {
        fmt::print("{}", VerbHelp(*Parsed.Chosen, true));
        return 0;
    }
    if (Line[0] == "console") {
        throw UsageError("this is the console");
    }
    SetJson(Json || Always);
    int Code = 1;
    try {
        Code = Parsed.Chosen->Alone ? Parsed.Chosen->Alone() : Parsed.Chosen->Run(Running);
    } catch (...) {
        SetJson(Always);
        throw;
    }
    SetJson(Always);
    return Code;
}

constexpr auto OwnHelp = "of the console\n"
                         "  help VERB               what a verb takes\n"
                         "  cd [PATH], pwd          the remote directory that other paths are relative to\n"
                         "  lcd [DIR], lpwd         the local directory\n"
                         "  set                     the driver's switches and their values\n"
                         "  trace CATEGORY,... on|off\n"
                         "                          the driver's messages; the driver is started again\n"
                         "  requests on|off         every request and every call of the Provider\n"
                         "  # ...                   a comment\n"
                         "  quit                    end; so does the end of input\n";

bool IsOwnWord(const std::string &Word);

void Help(Session &, const Parts &Line) {
    const VerbList List = Verbs();
    if (Line.size() > 1 && IsOwnWord(Line[1])) {
        fmt::print("{}", OwnHelp);
        return;
    }
    if (Line.size() > 1) {
        const Verb *Which = FindVerb(List, Line[1]);
        if (Which == nullptr) {
            throw UsageError(NoSuchVerb(Line[1]));
        }
        fmt::print("{}", VerbHelp(*Which, true));
        return;
    }
    fmt::print("{}\n{}", ProgramHelp(List, true), OwnHelp);
}

void ShowSwitches(Session &Running, const Parts &Line) {
    if (Line.size() != 1) {
        throw UsageError("set shows the switches; they are given at the start, with --set NAME=VALUE");
    }
    for (const Switch &Each : KnownSwitches()) {
        const auto Given = Running.Switches().find(Each.Name);
        const bool Is = Given != Running.Switches().end();
        fmt::print("{:<34} 0x{:x}{}\n", Each.Name, Is ? Given->second : Each.Default, Is ? "" : "  (default)");
    }
}

// TRUE for on, FALSE for off, as the last word of a line of Count words.
bool OnOrOff(const Parts &Line, size_t Count, const char *Usage) {
    if (Line.size() != Count || (Line.back() != "on" && Line.back() != "off")) {
        throw UsageError(Usage);
    }
    return Line.back() == "on";
}

void SwitchTrace(Session &Running, const Parts &Line) {
    const bool On = OnOrOff(Line, 3, "trace CATEGORY,... on, or trace CATEGORY,... off");
    const uint32_t Mask = ParseCategories(Line[1]);
    // Waits are of the driver that runs now.
    EndConsoleWaits();
    EndConsoleLocks();
    BeginConsoleWaits();
    BeginConsoleLocks();
    const uint32_t Now = Running.Trace(Mask, On);
    fmt::print("the driver was started again; categories traced: {} (0x{:x})\n", ShowCategories(Now), Now);
}

void SwitchRequests(Session &Running, const Parts &Line) {
    Running.Watch(OnOrOff(Line, 2, "requests on, or requests off")
                      ? [](const std::string &Told) { fmt::print("{}\n", Told); }
                      : std::function<void(const std::string &)>());
}

void ChangeRemote(Session &Running, const Parts &Line) {
    if (Line.size() > 2) {
        throw UsageError("cd PATH");
    }
    if (Line.size() == 1) {
        SetRemoteDirectory({});
        return;
    }
    static_cast<void>(Running);
    std::u16string Path = RemotePath(Line[1]);
    RemoteFile(Path, {.Access = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                      .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
    SetRemoteDirectory(std::move(Path));
}

void ShowRemote(Session &, const Parts &) {
    if (RemoteDirectory().empty()) {
        throw UsageError("no remote directory yet: cd \\\\server\\volume");
    }
    fmt::print("{}\n", ShowPath(RemoteDirectory()));
}

void ShowLocal(Session &, const Parts &) {
    fmt::print("{}\n", std::filesystem::current_path().string());
}

void ChangeLocal(Session &Running, const Parts &Line) {
    if (Line.size() > 2) {
        throw UsageError("lcd DIR");
    }
    if (Line.size() == 2) {
        const char *Home = getenv("HOME");
        const std::string Name = Line[1].starts_with("~/") && Home != nullptr ? Home + Line[1].substr(1) : Line[1];
        std::error_code Error;
        std::filesystem::current_path(Name, Error);
        if (Error) {
            throw std::runtime_error(fmt::format("{}: {}", Name, Error.message()));
        }
    }
    ShowLocal(Running, Line);
}

constexpr struct {
    const char *Word;
    void (*Run)(Session &Running, const Parts &Line);
} OwnWords[] = {{"help", Help},
                {"?", Help},
                {"set", ShowSwitches},
                {"trace", SwitchTrace},
                {"requests", SwitchRequests},
                {"cd", ChangeRemote},
                {"pwd", ShowRemote},
                {"lcd", ChangeLocal},
                {"lpwd", ShowLocal}};

bool IsOwnWord(const std::string &Word) {
    return Word == "quit" || Word == "exit" ||
           std::any_of(std::begin(OwnWords), std::end(OwnWords), [&](const auto &Own) { return Word == Own.Word; });
}

// The code of the line; nothing when the console ends.
std::optional<int> RunLine(Session &Running, const std::string &Line) {
    const Parts Words = SplitLine(Line);
    if (Words.empty()) {
        return 0;
    }
    if (Words[0] == "quit" || Words[0] == "exit") {
        return std::nullopt;
    }
    for (const auto &Own : OwnWords) {
        if (Words[0] == Own.Word) {
            Own.Run(Running, Words);
            return 0;
        }
    }
    return RunVerb(Running, Words);
}

// A line of a script: as it is, without prompt and editing.
bool ReadScript(std::string &Line) {
    Line.clear();
    for (int Byte; (Byte = getchar()) != EOF;) {
        if (Byte == '\n') {
            return true;
        }
        Line += static_cast<char>(Byte);
    }
    return !Line.empty() && !WasInterrupted();
}

// The next line; FALSE at the end of input. Ctrl-C gives up a line, not the console.
bool ReadLine(std::string &Line) {
    for (;;) {
        const std::string Prompt =
            RemoteDirectory().empty() ? "rvfsd> " : "rvfsd " + ShowPath(RemoteDirectory()) + "> ";
        const std::unique_ptr<char, void (*)(void *)> Read(readline(Prompt.c_str()), free);
        if (Read != nullptr) {
            Line = Read.get();
            return true;
        }
        fmt::print("\n");
        if (!WasInterrupted()) {
            return false;
        }
        LowerInterrupt();
    }
}

// The line editor takes text apart by the locale; names are UTF-8 whatever the user's is.
void UseUtf8() {
    setlocale(LC_CTYPE, "");
    if (strcmp(nl_langinfo(CODESET), "UTF-8") != 0) {
        setlocale(LC_CTYPE, "C.UTF-8");
    }
}

// The lines of earlier consoles, kept in $XDG_STATE_HOME/rvfsd/history.
class History {
public:
    History() {
        using_history();
        const char *State = getenv("XDG_STATE_HOME");
        const char *Home = getenv("HOME");
        if (State != nullptr && *State == '/') {
            File_ = std::filesystem::path(State) / "rvfsd/history";
        } else if (Home != nullptr && *Home == '/') {
            File_ = std::filesystem::path(Home) / ".local/state/rvfsd/history";
        }
        if (!File_.empty()) {
            read_history(File_.c_str());
        }
    }
    ~History() {
        constexpr int Kept = 1000;
        std::error_code Error;
        if (!File_.empty() && Added_) {
            std::filesystem::create_directories(File_.parent_path(), Error);
            stifle_history(Kept);
            write_history(File_.c_str()); // a history that cannot be kept is not worth a word
        }
    }
    History(const History &) = delete;
    History &operator=(const History &) = delete;

    void Add(const std::string &Line) {
        if (!Line.empty() && Line != Last_) {
            add_history(Line.c_str());
            Last_ = Line;
            Added_ = true;
        }
    }

private:
    std::filesystem::path File_;
    std::string Last_;
    bool Added_ = false;
};

// Runs one line: its code, or nothing at the end.
std::optional<int> RunGuarded(Session &Running, const std::string &Line) {
    std::optional<int> Code;
    try {
        Code = RunLine(Running, Line);
    } catch (const UsageError &Error) {
        Complain(Error.what());
        Code = 2;
    } catch (const Interrupted &Error) {
        Complain(Error.what());
        Code = InterruptedCode;
    } catch (const std::exception &Error) {
        Complain(Error.what());
        Code = 1;
    }
    LowerInterrupt();
    fflush(stdout);
    return Code;
}

void RunOnTerminal(Session &Running) {
    Current = &Running;
    rl_attempted_completion_function = Complete;
    rl_basic_word_break_characters = " \t\"'"; // not the backslash
    UseUtf8();
    History Kept;
    fmt::print("rvfsd console; exports:");
    for (const Export &One : Running.Exports()) {
        fmt::print(" {}", One.Name);
    }
    fmt::print("\nhelp lists the verbs, quit or end of input ends.\n");
    fflush(stdout);
    std::string Line;
    while (ReadLine(Line)) {
        Kept.Add(Line);
        if (!RunGuarded(Running, Line)) {
            break;
        }
    }
}

int RunScript(Session &Running, bool EndAtFailure) {
    int Last = 0;
    std::string Line;
    while (ReadScript(Line)) {
        const std::optional<int> Code = RunGuarded(Running, Line);
        if (!Code) {
            break;
        }
        Last = *Code != 0 ? *Code : Last;
        if (Last != 0 && (EndAtFailure || Last == InterruptedCode)) {
            break;
        }
    }
    return Last;
}

} // namespace

int RunConsole(Session &Running, bool EndAtFailure) {
    BeginConsoleWaits();
    BeginConsoleLocks();
    int Code = 0;
    if (isatty(STDIN_FILENO) != 0) {
        RunOnTerminal(Running);
    } else {
        Code = RunScript(Running, EndAtFailure);
    }
    EndConsoleWaits();
    EndConsoleLocks();
    SetRemoteDirectory({});
    return Code;
}

} // namespace app
