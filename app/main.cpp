// rvfsd: the redirector's driver on the embedded kernel, over local directories.

#include <cstdio>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

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
        const auto [Name, Directory] = SplitPair(One, "--export '\\\\server\\volume=DIR'");
        Options.Exports.push_back({ShowPath(RemotePath(Name)), Directory});
    }
    for (const std::string &One : Text.Quotas) {
        const auto [Name, Bytes] = SplitPair(One, "--quota '\\\\server\\volume=BYTES'");
        Options.Quotas[ShowPath(RemotePath(Name))] = ParseNumber(Bytes);
    }
    for (const std::string &One : Text.Switches) {
        const auto [Name, Value] = SplitPair(One, "--set NAME=VALUE");
        const auto &Known = KnownSwitches();
        if (std::find(Known.begin(), Known.end(), Name) == Known.end()) {
            throw UsageError(fmt::format("--set: the driver has no switch {}; it has {}", Name,
                                         fmt::join(Known.begin(), Known.end(), ", ")));
        }
        Options.Switches[Name] = static_cast<uint32_t>(ParseNumber(Value));
    }
    if (!Text.Trace.empty()) {
        Options.TraceMask = static_cast<uint32_t>(ParseNumber(Text.Trace));
    }
    if (!Text.Log.empty()) {
        Options.Log = Text.Log;
    }
    return Options;
}

void AddGlobalOptions(CLI::App &App, GlobalOptions &Text) {
    App.add_option("--export", Text.Exports,
                   "serve DIR as a volume, '\\\\server\\volume=DIR'; may be repeated. Without "
                   "one the sample tree is \\\\demo\\files")
        ->take_all()
        ->expected(1);
    App.add_option("--quota", Text.Quotas, "limit an export, '\\\\server\\volume=BYTES'")->take_all()->expected(1);
    App.add_option("--set", Text.Switches, "a value of the driver's service key, NAME=VALUE; may be repeated")
        ->take_all()
        ->expected(1);
    App.add_option("--trace", Text.Trace, "the driver's messages of these categories on standard error");
    App.add_option("--log", Text.Log, "the driver's log file");
    App.set_version_flag("--version", std::string("rvfsd " RVFSD_VERSION ", the driver linked natively"));
}

// Runs Chosen over a driver of its own; what is left behind afterwards is exit code 3.
int RunOver(const SessionOptions &Options, const Command &Chosen) {
    Session Running(Options);
    const int Code = Chosen(Running);
    fflush(stdout);
    const std::string Findings = Running.Stop();
    if (!Findings.empty()) {
        fmt::print(stderr, "{}", Findings);
        return 3;
    }
    return Code;
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
        App.exit(Error, std::cerr, std::cerr);
        return 2;
    }
    if (!Chosen) {
        Chosen = isatty(STDIN_FILENO) && isatty(STDOUT_FILENO) ? Command(RunConsole) : Command(RunTour);
    }
    return RunOver(SessionOf(Text), Chosen);
}

} // namespace

int main(int Count, char **Words) {
    try {
        return Main(Count, Words);
    } catch (const UsageError &Error) {
        fmt::print(stderr, "{}\n", Error.what());
        return 2;
    } catch (const std::exception &Error) {
        fmt::print(stderr, "{}\n", Error.what());
        return 1;
    }
}
