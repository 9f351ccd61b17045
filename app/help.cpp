#include "app/help.h"

#include <algorithm>
#include <cstring>
#include <fstream>

#include <fmt/format.h>

#include "app/command_line.h"
#include "app/output.h"
#include "app/shell_completion.h"
#include "app/text.h"

namespace app {

namespace {

constexpr size_t Width = 100;
constexpr size_t Column = 26;

struct Group {
    std::string Name;
    std::string Title;
};

// The groups of verbs, in the order of the manual.
const Group KnownGroups[] = {{"files", "read, write and copy files"},
                             {"changes", "change files and directories"},
                             {"listings", "list directories and wait for changes"},
                             {"information", "what files and volumes say of themselves"},
                             {"drives", "drive letters, and the sessions that have them"},
                             {"mount", "the volumes as directories of this system"},
                             {"requests", "single requests and what the driver makes of them"},
                             {"journal", "records of requests, and reports of them"},
                             {"providers", "Providers of one's own"},
                             {"program", "the program itself"}};

bool IsOfGroup(const Verb &Each, const std::string &Group) {
    return !Each.Hidden && Each.Group == Group;
}

// Those that have verbs; one without a title of its own comes last, under its name.
std::vector<Group> GroupsOf(const VerbList &List) {
    std::vector<Group> Groups;
    for (const Group &Each : KnownGroups) {
        if (std::any_of(List.begin(), List.end(), [&](const Verb &One) { return IsOfGroup(One, Each.Name); })) {
            Groups.push_back(Each);
        }
    }
    for (const Verb &Each : List) {
        const auto Same = [&Each](const Group &One) { return One.Name == Each.Group; };
        if (!Each.Hidden && std::none_of(Groups.begin(), Groups.end(), Same)) {
            Groups.push_back({Each.Group, Each.Group});
        }
    }
    return Groups;
}

// Text behind Left at the column of explanations, in lines of at most Width.
std::string Explained(const std::string &Left, const std::string &Text) {
    std::string Out = "  " + Left;
    if (Out.size() + 2 > Column) {
        Out += '\n';
        Out.append(Column, ' ');
    } else {
        Out.append(Column - Out.size(), ' ');
    }
    size_t Used = Column;
    for (size_t At = 0; At < Text.size();) {
        const size_t End = std::min(Text.find(' ', At), Text.size());
        const size_t Length = End - At;
        if (Used > Column && Used + 1 + Length > Width) {
            Out += '\n';
            Out.append(Column, ' ');
            Used = Column;
        } else if (Used > Column) {
            Out += ' ';
            ++Used;
        }
        Out.append(Text, At, Length);
        Used += Length;
        At = End + 1;
    }
    return Out + '\n';
}

std::string ShownNames(const Parameter &Each) {
    std::string Names = Each.Names;
    for (size_t At; (At = Names.find(',')) != std::string::npos && Names.find(", ") != At;) {
        Names.replace(At, 1, "\x01 ");
    }
    std::replace(Names.begin(), Names.end(), '\x01', ',');
    if (!Each.IsOption()) {
        return Each.Shown.empty() ? Each.Names : Each.Shown;
    }
    return Each.IsFlag() ? Names : Names + ' ' + (Each.Shown.empty() ? "VALUE" : Each.Shown);
}

std::string HelpOf(const Parameter &Each) {
    std::string Text = Each.Help;
    if (!Each.OneOf.empty()) {
        Text += ": " + fmt::format("{}", fmt::join(Each.OneOf, ", "));
    }
    if (const auto Default = std::get_if<std::string *>(&Each.Goes); Default != nullptr && !(**Default).empty()) {
        Text += fmt::format(" ({} when left out)", **Default);
    } else if (const auto Number = std::get_if<uint32_t *>(&Each.Goes)) {
        Text += fmt::format(" ({} when left out)", **Number);
    }
    return Text;
}

std::string Synopsis(const Verb &Which) {
    std::string Line = Which.Name;
    const bool Options = std::any_of(Which.Parameters.begin(), Which.Parameters.end(),
                                     [](const Parameter &Each) { return Each.IsOption() && !Each.Hidden; });
    if (Options) {
        Line += " [OPTION...]";
    }
    for (const Parameter &Each : Which.Parameters) {
        if (!Each.IsOption()) {
            const bool Several = std::holds_alternative<std::vector<std::string> *>(Each.Goes);
            const std::string Shown = Each.Shown.empty() ? Each.Names + (Several ? "..." : "") : Each.Shown;
            Line += Each.Required || Shown.starts_with('[') ? " " + Shown : " [" + Shown + "]";
        }
    }
    return Line;
}

constexpr auto ExitCodes =
    "0: all was done. 1: the driver, the kernel or the local system refused something; the message "
    "names the status and the object. 2: the words were not understood. 3: something was left "
    "behind when the driver stopped, which is a fault to report. 130: interrupted.";

// ---- Manual pages

// Text for troff: nothing in it is taken for a request.
std::string Troff(const std::string &Text) {
    std::string Out;
    for (size_t At = 0; At < Text.size(); ++At) {
        const char Byte = Text[At];
        if (Byte == '\\') {
            Out += "\\e";
        } else if (Byte == '-') {
            Out += "\\-";
        } else if ((Byte == '.' || Byte == '\'') && (At == 0 || Text[At - 1] == '\n')) {
            Out += std::string("\\&") + Byte;
        } else if (Byte == '\'') {
            Out += "\\(aq";
        } else {
            Out += Byte;
        }
    }
    return Out;
}

std::string TroffOption(const Parameter &Each) {
    return fmt::format(".TP\n.B {}\n{}\n", Troff(ShownNames(Each)), Troff(HelpOf(Each)));
}

std::string PageHead(const std::string &Name, const std::string &What) {
    std::string Capitals = Name;
    std::transform(Capitals.begin(), Capitals.end(), Capitals.begin(),
                   [](unsigned char Letter) { return static_cast<char>(toupper(Letter)); });
    return fmt::format(".TH {} 1 \"\" \"rvfsd " RVFSD_VERSION "\" \"User Commands\"\n.SH NAME\n{} \\- {}\n",
                       Troff(Capitals), Troff(Name), Troff(What));
}

std::string VerbSection(const Verb &Which) {
    std::string Page =
        fmt::format(".SS {}\n.B rvfsd {}\n.PP\n{}.\n", Troff(Which.Name), Troff(Synopsis(Which)), Troff(Which.Summary));
    if (!Which.Text.empty()) {
        Page += ".PP\n" + Troff(Which.Text) + "\n";
    }
    for (const Parameter &Each : Which.Parameters) {
        if (!Each.Hidden) {
            Page += TroffOption(Each);
        }
    }
    for (const std::string &Example : Which.Examples) {
        Page += fmt::format(".PP\nExample:\n.RS\n.EX\nrvfsd {}\n.EE\n.RE\n", Troff(Example));
    }
    return Page;
}

std::string MainPage(const VerbList &List) {
    std::string Page = PageHead("rvfsd", "a network redirector's driver, run in user mode");
    Page +=
        ".SH SYNOPSIS\n.B rvfsd\n[OPTION...] [VERB [WORD...]]\n"
        ".SH DESCRIPTION\nThe driver of the redirector runs on an embedded kernel and serves local directories as "
        "volumes of servers. A verb works with them through the whole driver: paths are named as the redirector's "
        "users "
        "name them, " +
        Troff("\\\\server\\volume\\path, or //server/volume/path. Without a verb it is the console on a terminal, and "
              "elsewhere the tour of one request. Options of the program may stand behind the verb.") +
        "\n.SH OPTIONS\n";
    GlobalOptions Text;
    for (const Parameter &Each : GlobalParameters(Text)) {
        Page += TroffOption(Each);
    }
    Page += ".SH VERBS\n";
    for (const auto &Group : GroupsOf(List)) {
        std::string Names;
        for (const Verb &Each : List) {
            if (IsOfGroup(Each, Group.Name)) {
                Names += (Names.empty() ? "" : ", ") + Each.Name;
            }
        }
        if (!Names.empty()) {
            Page += fmt::format(".TP\n.BR rvfsd\\-{} (1)\n{}: {}\n", Group.Name, Group.Title, Troff(Names));
        }
    }
    Page +=
        std::string(".SH EXIT STATUS\n") + Troff(ExitCodes) +
        "\n.SH FILES\n.TP\n.I /etc/rvfsd/config.json\n.TP\n.I $XDG_CONFIG_HOME/rvfsd/config.json\nWhat is served and "
        "switched when the command line says nothing else: see\n.B rvfsd config\nin\n.BR rvfsd\\-program (1).\n"
        ".TP\n.I $XDG_DATA_HOME/rvfsd/demo\nThe copy of the sample tree that is served when nothing else is.\n"
        ".SH ENVIRONMENT\n.TP\n.B NO_COLOR\nwhen set, nothing is coloured.\n";
    return Page;
}

std::string GroupPage(const VerbList &List, const std::string &Group, const std::string &Title) {
    std::string Page = PageHead("rvfsd-" + Group, "verbs of rvfsd: " + Title);
    Page += ".SH SYNOPSIS\n";
    bool First = true;
    for (const Verb &Each : List) {
        if (IsOfGroup(Each, Group)) {
            Page += (First ? "" : ".br\n") + std::string(".B rvfsd ") + Troff(Synopsis(Each)) + "\n";
            First = false;
        }
    }
    Page += ".SH DESCRIPTION\nThe options of\n.BR rvfsd (1)\nmay stand before and behind the verb.\n.SH VERBS\n";
    for (const Verb &Each : List) {
        if (IsOfGroup(Each, Group)) {
            Page += VerbSection(Each);
        }
    }
    return Page + ".SH SEE ALSO\n.BR rvfsd (1)\n";
}

void WriteFile(const std::filesystem::path &Name, const std::string &Text) {
    std::ofstream Stream(Name, std::ios::trunc);
    if (!(Stream << Text) || !Stream.flush()) {
        throw std::runtime_error(fmt::format("{}: {}", Name.string(), strerror(errno)));
    }
}

} // namespace

std::string ProgramHelp(const VerbList &List, bool InConsole) {
    std::string Out;
    if (!InConsole) {
        Out = "A network redirector's driver, run in user mode over local directories.\n\n"
              "rvfsd [OPTION...] [VERB [WORD...]]\n";
    }
    for (const auto &Group : GroupsOf(List)) {
        Out += fmt::format("{}{}\n", Out.empty() ? "" : "\n", Coloured(Colour::Bold, Group.Title));
        for (const Verb &Each : List) {
            if (IsOfGroup(Each, Group.Name)) {
                Out += Explained(Each.Name, Each.Summary);
            }
        }
    }
    if (InConsole) {
        return Out;
    }
    Out += "\n" + Coloured(Colour::Bold, "options, before or behind the verb") + "\n";
    GlobalOptions Text;
    for (const Parameter &Each : GlobalParameters(Text)) {
        Out += Explained(ShownNames(Each), HelpOf(Each));
    }
    return Out + Explained("-h, --help", "this; VERB --help or help VERB tells what a verb takes");
}

std::string VerbHelp(const Verb &Which, bool InConsole) {
    std::string Out = fmt::format("{}{}\n\n{}\n", InConsole ? "" : "rvfsd ", Synopsis(Which), Which.Summary);
    if (!Which.Text.empty()) {
        Out += "\n" + Which.Text + "\n";
    }
    if (!Which.Parameters.empty()) {
        Out += "\n";
    }
    for (const Parameter &Each : Which.Parameters) {
        if (!Each.Hidden) {
            Out += Explained(ShownNames(Each), HelpOf(Each));
        }
    }
    for (const std::string &Example : Which.Examples) {
        Out += fmt::format("{}{}{}\n", &Example == &Which.Examples.front() ? "\nfor example: " : "             ",
                           InConsole ? "" : "rvfsd ", Example);
    }
    return Out;
}

std::string ReadmeTable(const VerbList &List) {
    std::string Out = "| verbs | |\n|---|---|\n";
    for (const auto &Group : GroupsOf(List)) {
        std::string Names;
        for (const Verb &Each : List) {
            if (IsOfGroup(Each, Group.Name)) {
                Names += (Names.empty() ? "`" : ", `") + Each.Name + '`';
            }
        }
        if (!Names.empty()) {
            Out += fmt::format("| {} | {} |\n", Names, Group.Title);
        }
    }
    return Out;
}

void WriteManual(const VerbList &List, const std::filesystem::path &Directory) {
    std::filesystem::create_directories(Directory / "man");
    WriteFile(Directory / "man" / "rvfsd.1", MainPage(List));
    for (const auto &Group : GroupsOf(List)) {
        WriteFile(Directory / "man" / fmt::format("rvfsd-{}.1", Group.Name), GroupPage(List, Group.Name, Group.Title));
    }
    for (const char *Shell : {"bash", "zsh", "fish"}) {
        WriteFile(Directory / fmt::format("rvfsd.{}", Shell), CompletionScript(List, Shell));
    }
}

void AddHelpVerbs(VerbList &List) {
    const auto Word = std::make_shared<std::string>();
    List.push_back({.Name = "help",
                    .Group = "program",
                    .Summary = "the verbs, or what one of them takes",
                    .Parameters = {{"VERB", "the verb", Word.get()}},
                    .Alone = [Word] {
                        const VerbList Known = Verbs();
                        if (Word->empty()) {
                            fmt::print("{}", ProgramHelp(Known, false));
                            return 0;
                        }
                        const Verb *Which = FindVerb(Known, *Word);
                        if (Which == nullptr) {
                            throw UsageError(NoSuchVerb(*Word));
                        }
                        fmt::print("{}", VerbHelp(*Which, false));
                        return 0;
                    }});
    const auto Shell = std::make_shared<std::string>();
    List.push_back({.Name = "completion",
                    .Group = "program",
                    .Summary = "print the completion script for a shell",
                    .Parameters = {Parameter{"SHELL", "bash, zsh or fish", Shell.get()}.Needed()},
                    .Examples = {"completion bash >/etc/bash_completion.d/rvfsd"},
                    .Alone = [Shell] {
                        fmt::print("{}", CompletionScript(Verbs(), *Shell));
                        return 0;
                    }});
    const auto Directory = std::make_shared<std::string>();
    List.push_back(
        {.Name = "manual",
         .Group = "program",
         .Summary = "write manual pages and completions into a directory; without one the README's table of verbs",
         .Parameters = {{"DIR", "the directory", Directory.get()}},
         .Alone =
             [Directory] {
                 if (Directory->empty()) {
                     fmt::print("{}", ReadmeTable(Verbs()));
                 } else {
                     WriteManual(Verbs(), *Directory);
                 }
                 return 0;
             },
         .Hidden = true});
}

} // namespace app
