// rvfsd: the redirector's driver on the embedded kernel, over local directories.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "app/interrupt.h"
#include "app/session.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace {

using namespace app;

struct GlobalOptions {
    std::vector<std::string> Exports;
    std::vector<std::string> Quotas;
    std::vector<std::string> Switches;
    std::string Trace;
    std::string Log;
    std::string Image;
    std::string Calls;
    bool Version = false;
};

// NAME=VALUE at its first '='.
std::pair<std::string, std::string> SplitPair(const std::string &Text, const char *What) {
    const size_t At = Text.find('=');
    if (At == std::string::npos || At == 0 || At + 1 == Text.size()) {
        throw UsageError(fmt::format("{}: expected {}", Text, What));
    }
    return {Text.substr(0, At), Text.substr(At + 1)};
}

SessionOptions SessionOf(const GlobalOptions &Text) {
    SessionOptions Options;
    for (const std::string &One : Text.Exports) {
        const auto [Name, Served] = SplitPair(One, "--export '\\\\server\\volume=DIR'");
        const std::string Volume = ShowPath(RemotePath(Name));
        if (Served[0] == '\\') {
            Options.Exports.push_back({Volume, {}, ShowPath(RemotePath(Served))});
        } else {
            Options.Exports.push_back({Volume, Served});
        }
    }
    for (const std::string &One : Text.Quotas) {
        const auto [Name, Bytes] = SplitPair(One, "--quota '\\\\server\\volume=BYTES'");
        Options.Quotas[ShowPath(RemotePath(Name))] = ParseNumber(Bytes);
    }
    for (const std::string &One : Text.Switches) {
        const auto [Name, Value] = SplitPair(One, "--set NAME=VALUE");
        const std::span<const Switch> Known = KnownSwitches();
        if (std::none_of(Known.begin(), Known.end(),
                         [&Name = Name](const Switch &Each) { return Each.Name == Name; })) {
            std::string Names;
            for (const Switch &Each : Known) {
                Names += std::string(Names.empty() ? "" : ", ") + Each.Name;
            }
            throw UsageError(fmt::format("--set: the driver has no switch {}; it has {}", Name, Names));
        }
        Options.Switches[Name] = ParseWord(Value);
    }
    if (!Text.Trace.empty()) {
        Options.TraceMask = ParseWord(Text.Trace);
    }
    if (!Text.Log.empty()) {
        Options.Log = Text.Log;
    }
    if (!Text.Image.empty()) {
        Options.Image = Text.Image;
    }
    if (!Text.Calls.empty()) {
        if (!Options.Image) {
            throw UsageError("--calls: only the calls of an image can be recorded (--image)");
        }
        Options.Calls = Text.Calls;
    }
    return Options;
}

// An empty name would be taken for an option that was not given.
std::string NotEmpty(const std::string &Text) {
    return Text.empty() ? "the name of a file is missing" : "";
}

void AddGlobalOptions(CLI::App &App, GlobalOptions &Text) {
    App.add_option("--export", Text.Exports,
                   "serve DIR as a volume, '\\\\server\\volume=DIR', or a directory of another export, "
                   "'\\\\server\\volume=\\\\other\\vol\\dir'; may be repeated. Without one the sample tree is "
                   "\\\\demo\\files")
        ->take_all()
        ->expected(1)
        ->allow_extra_args(false);
    App.add_option("--quota", Text.Quotas, "limit an export, '\\\\server\\volume=BYTES'")
        ->take_all()
        ->expected(1)
        ->allow_extra_args(false);
    App.add_option("--set", Text.Switches, "a switch of the driver's, NAME=VALUE; may be repeated")
        ->take_all()
        ->expected(1)
        ->allow_extra_args(false);
    App.add_option("--trace", Text.Trace, "the driver's messages of these categories on standard error");
    App.add_option("--log", Text.Log, "the driver's log file");
    App.add_option("--image", Text.Image, "run this image of the driver (RVFSD.sys) instead of the one linked in")
        ->take_last()
        ->check(NotEmpty);
    App.add_option("--calls", Text.Calls, "write every kernel service that the image calls into this file")
        ->check(NotEmpty);
    App.add_flag("--version", Text.Version, "which program this is, and which driver it holds");
}

void ShowVersion(const GlobalOptions &Text) {
    if (Text.Image.empty()) {
        fmt::print("rvfsd " RVFSD_VERSION ", the driver linked natively\n");
        return;
    }
    fmt::print("rvfsd " RVFSD_VERSION ", the driver is the image {}\n",
               LoadImage(Text.Image, embedded::CallRecording::None)->Describe());
}

// What went wrong, told; the exit code that says so.
int CodeOf(const std::exception &Error) {
    Complain(Error.what());
    return dynamic_cast<const UsageError *>(&Error) != nullptr    ? 2
           : dynamic_cast<const Interrupted *>(&Error) != nullptr ? InterruptedCode
                                                                  : 1;
}

// Runs Chosen over a driver of its own; what is left behind afterwards is exit code 3.
int RunOver(const SessionOptions &Options, const Command &Chosen) {
    Session Running(Options);
    int Code = 0;
    try {
        Code = Chosen(Running);
    } catch (const std::exception &Error) {
        Code = CodeOf(Error);
    }
    if (fflush(stdout) != 0 && Code == 0) {
        Complain(fmt::format("standard output: {}", strerror(errno)));
        Code = 1;
    }
    const std::string Findings = Running.Stop();
    if (!Findings.empty()) {
        Complain("left behind when the driver stopped:\n" + Findings);
        return 3;
    }
    return Code;
}

// The command line's first fault in words of ours where the library's mislead.
int BadUsage(const CLI::App &App, const CLI::ParseError &Error) {
    const std::vector<std::string> Extra = App.remaining();
    if (App.get_subcommands().empty() && !Extra.empty() && !Extra[0].starts_with('-')) {
        Complain(fmt::format("{}: no such verb; --help lists them", Extra[0]));
    } else {
        App.exit(Error, std::cerr, std::cerr);
    }
    return 2;
}

int Main(int Count, char **Words) {
    CLI::App App("A network redirector's driver, run in user mode over local directories.", "rvfsd");
    GlobalOptions Text;
    Command Chosen;
    AddGlobalOptions(App, Text);
    AddVerbs(App, Chosen);
    App.add_subcommand("console", "the verbs over one running driver")->callback([&Chosen] { Chosen = RunConsole; });
    App.require_subcommand(0, 1);
    try {
        App.parse(Count, Words);
    } catch (const CLI::Success &Help) {
        return App.exit(Help);
    } catch (const CLI::ParseError &Error) {
        return BadUsage(App, Error);
    }
    if (Text.Version) {
        ShowVersion(Text);
        return 0;
    }
    if (!Chosen) {
        Chosen = isatty(STDIN_FILENO) && isatty(STDOUT_FILENO) ? Command(RunConsole) : Command(RunTour);
    }
    return RunOver(SessionOf(Text), Chosen);
}

} // namespace

int main(int Count, char **Words) {
    CatchInterrupts();
    try {
        return Main(Count, Words);
    } catch (const std::exception &Error) {
        return CodeOf(Error);
    }
}
