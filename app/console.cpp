// The console: one running driver, many verbs.

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <memory>
#include <unistd.h>

#include <editline/readline.h>
#include <fmt/format.h>

#include "app/completion.h"
#include "app/interrupt.h"
#include "app/text.h"
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

char **Complete(const char *Text, int Start, int) {
    rl_attempted_completion_over = 1;
    try {
        Offered = Completions(*Current, std::string_view(rl_line_buffer).substr(0, static_cast<size_t>(Start)), Text);
    } catch (const std::exception &) {
        Offered.clear(); // the line stays as it is; the verb will say what is wrong
    }
    const bool GoesOn = Offered.size() == 1 && (Offered[0].ends_with('\\') || Offered[0].ends_with('/'));
    rl_completion_append_character = GoesOn ? '\0' : ' ';
    return rl_completion_matches(Text, NextCompletion);
}

// Words separated by blanks; quotation marks keep blanks. Backslashes are characters of paths.
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
        } else if (Byte == ' ' || Byte == '\t') {
            if (Open) {
                Parts.push_back(Part);
            }
            Part.clear();
            Open = false;
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

void RunVerb(Session &Running, Parts Line) {
    CLI::App App("verbs of the console", "");
    Command Chosen;
    AddVerbs(App, Chosen);
    if (FindVerb(App, Line[0]) == nullptr) {
        throw UsageError(fmt::format("{}: no such verb; help lists them", Line[0]));
    }
    std::reverse(Line.begin(), Line.end());
    try {
        App.parse(std::move(Line));
    } catch (const CLI::ParseError &Error) {
        App.exit(Error);
        return;
    }
    Chosen(Running);
}

void Help(Session &, const Parts &) {
    CLI::App App;
    Command Chosen;
    AddVerbs(App, Chosen);
    fmt::print("The console runs these verbs over one driver.\n{}\n"
               "Of the console:\n"
               "  VERB --help                 what a verb takes\n"
               "  set                         the driver's switches and their values\n"
               "  trace MASK on|off           the driver's messages of these categories\n"
               "  requests on|off             every request and every call of the Provider\n"
               "  quit                        end; so does the end of input\n",
               CLI::Formatter().make_subcommands(&App, CLI::AppFormatMode::Normal));
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
    const bool On = OnOrOff(Line, 3, "trace MASK on, or trace MASK off");
    fmt::print("categories traced: 0x{:x}\n", Running.Trace(ParseWord(Line[1]), On));
}

void SwitchRequests(Session &Running, const Parts &Line) {
    Running.Watch(OnOrOff(Line, 2, "requests on, or requests off")
                      ? [](const std::string &Told) { fmt::print("{}\n", Told); }
                      : std::function<void(const std::string &)>());
}

constexpr struct {
    const char *Word;
    void (*Run)(Session &Running, const Parts &Line);
} OwnWords[] = {{"help", Help}, {"set", ShowSwitches}, {"trace", SwitchTrace}, {"requests", SwitchRequests}};

// FALSE when the console ends.
bool RunLine(Session &Running, const std::string &Line) {
    const Parts Words = SplitLine(Line);
    if (Words.empty()) {
        return true;
    }
    if (Words[0] == "quit" || Words[0] == "exit") {
        return false;
    }
    for (const auto &Own : OwnWords) {
        if (Words[0] == Own.Word) {
            Own.Run(Running, Words);
            return true;
        }
    }
    RunVerb(Running, Words);
    return true;
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
    if (!isatty(STDIN_FILENO)) {
        return ReadScript(Line);
    }
    for (;;) {
        const std::unique_ptr<char, void (*)(void *)> Read(readline("rvfsd> "), free);
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

} // namespace

int RunConsole(Session &Running) {
    Current = &Running;
    rl_attempted_completion_function = Complete;
    rl_basic_word_break_characters = " \t\"'"; // not the backslash
    UseUtf8();
    using_history();
    fmt::print("rvfsd console; exports:");
    for (const Export &One : Running.Exports()) {
        fmt::print(" {}", One.Name);
    }
    fmt::print("\nhelp lists the verbs, quit or end of input ends.\n");
    fflush(stdout);
    BeginConsoleWaits();
    std::string Line;
    for (bool Goes = true; Goes && ReadLine(Line);) {
        if (!Line.empty()) {
            add_history(Line.c_str());
        }
        try {
            Goes = RunLine(Running, Line);
        } catch (const std::exception &Error) {
            Complain(Error.what());
        }
        LowerInterrupt();
        fflush(stdout);
    }
    EndConsoleWaits();
    return 0;
}

} // namespace app
