// The console: one running driver, many verbs.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <editline/readline.h>
#include <fmt/format.h>

#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

void BeginConsoleWaits();
void EndConsoleWaits();

namespace {

Session *Current = nullptr;
std::vector<std::string> Words;

// Verbs for the first word; for others the exports' names.
char *NextCompletion(const char *Text, int State) {
    static size_t Next;
    if (State == 0) {
        Next = 0;
    }
    while (Next < Words.size()) {
        const std::string &Word = Words[Next++];
        if (Word.compare(0, strlen(Text), Text) == 0) {
            return strdup(Word.c_str());
        }
    }
    return nullptr;
}

char **Complete(const char *Text, int Start, int) {
    rl_attempted_completion_over = 1;
    Words.clear();
    if (Start == 0) {
        CLI::App App;
        Command Chosen;
        AddVerbs(App, Chosen);
        for (const CLI::App *Verb : App.get_subcommands({})) {
            Words.push_back(Verb->get_name());
        }
        Words.insert(Words.end(), {"help", "requests", "quit"});
    } else {
        for (const Export &One : Current->Exports()) {
            Words.push_back(One.Name + "\\");
        }
    }
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

void RunVerb(Session &Running, std::vector<std::string> Parts) {
    CLI::App App("verbs of the console", "");
    Command Chosen;
    AddVerbs(App, Chosen);
    App.require_subcommand(1);
    std::reverse(Parts.begin(), Parts.end());
    try {
        App.parse(Parts);
    } catch (const CLI::ParseError &Error) {
        App.exit(Error);
        return;
    }
    Chosen(Running);
}

// FALSE when the console ends.
bool RunLine(Session &Running, const std::string &Line) {
    const std::vector<std::string> Parts = SplitLine(Line);
    if (Parts.empty()) {
        return true;
    }
    if (Parts[0] == "quit" || Parts[0] == "exit") {
        return false;
    }
    if (Parts[0] == "help") {
        CLI::App App("The console runs these verbs over one driver; requests on|off shows what it is asked; quit ends.",
                     "");
        Command Chosen;
        AddVerbs(App, Chosen);
        fmt::print("{}", App.help());
        return true;
    }
    if (Parts[0] == "requests") {
        const bool On = Parts.size() == 2 && Parts[1] == "on";
        if (!On && !(Parts.size() == 2 && Parts[1] == "off")) {
            throw UsageError("requests on, or requests off");
        }
        Running.Watch(On ? [](const std::string &Told) { fmt::print("{}\n", Told); }
                         : std::function<void(const std::string &)>());
        return true;
    }
    RunVerb(Running, Parts);
    return true;
}

} // namespace

int RunConsole(Session &Running) {
    Current = &Running;
    rl_attempted_completion_function = Complete;
    using_history();
    fmt::print("rvfsd console; exports:");
    for (const Export &One : Running.Exports()) {
        fmt::print(" {}", One.Name);
    }
    fmt::print("\nhelp lists the verbs, quit or end of input ends.\n");
    fflush(stdout);
    BeginConsoleWaits();
    for (bool Goes = true; Goes;) {
        char *Line = readline("rvfsd> ");
        if (Line == nullptr) {
            fmt::print("\n");
            break;
        }
        if (*Line != '\0') {
            add_history(Line);
        }
        try {
            Goes = RunLine(Running, Line);
        } catch (const std::exception &Error) {
            fflush(stdout);
            fmt::print(stderr, "{}\n", Error.what());
        }
        fflush(stdout);
        free(Line);
    }
    EndConsoleWaits();
    return 0;
}

} // namespace app
