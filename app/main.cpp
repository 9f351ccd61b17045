// rvfsd: the redirector's driver on the embedded kernel, over local directories.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

#include "app/command_line.h"
#include "app/config.h"
#include "app/help.h"
#include "app/interrupt.h"
#include "app/output.h"
#include "app/session.h"
#include "app/text.h"

namespace {

using namespace app;

void ShowVersion(const SessionOptions &Options) {
    const std::string Driver = Options.Image
                                   ? "the image " + LoadImage(*Options.Image, embedded::CallRecording::None)->Describe()
                                   : "linked natively";
    if (WantsJson()) {
        PrintRecord({{"program", std::string("rvfsd")}, {"version", std::string(RVFSD_VERSION)}, {"driver", Driver}});
    } else {
        fmt::print("rvfsd " RVFSD_VERSION ", the driver {}{}\n", Options.Image ? "is " : "", Driver);
    }
}

// What went wrong, told; the exit code that says so.
int CodeOf(const std::exception &Error) {
    Complain(Error.what());
    return dynamic_cast<const UsageError *>(&Error) != nullptr    ? 2
           : dynamic_cast<const Interrupted *>(&Error) != nullptr ? InterruptedCode
                                                                  : 1;
}

// Runs Action; output that cannot be written is a failure too.
template <typename T>
int Told(const T &Action) {
    int Code = 0;
    int Earlier = EIO; // of a write that failed before the last one
    try {
        Code = Action();
    } catch (const std::system_error &Error) {
        // Of the printing library, which names the file by its number at most.
        const bool OfOutput = Error.code().category() == std::generic_category() && ferror(stdout) != 0;
        Code = OfOutput ? 0 : CodeOf(Error);
        Earlier = OfOutput ? Error.code().value() : EIO;
    } catch (const std::exception &Error) {
        Code = CodeOf(Error);
    }
    const int Failed = fflush(stdout) != 0 ? errno : ferror(stdout) != 0 ? Earlier : 0;
    if (Failed != 0 && Code == 0) {
        Complain(fmt::format("standard output: {}", strerror(Failed)));
        Code = 1;
    }
    return Code;
}

// Runs Chosen over a driver of its own; what is left behind afterwards is exit code 3.
int RunOver(const SessionOptions &Options, const Command &Chosen) {
    Session Running(Options);
    const int Code = Told([&] {
        for (const std::string &Each : Options.Uses) {
            UseDrive(Running.Drives(), Each);
        }
        return Chosen(Running);
    });
    const std::string Findings = Running.Stop();
    if (!Findings.empty()) {
        Complain("left behind when the driver stopped:\n" + Findings);
        return 3;
    }
    return Code;
}

// An empty name would be taken for an option that was not given.
void CheckNames(const std::vector<std::string> &Words) {
    for (size_t Index = 0; Index < Words.size(); ++Index) {
        for (const char *Option : {"--image", "--calls", "--log", "--config", "--journal", "--provider"}) {
            const bool Bare = Words[Index] == Option && Index + 1 < Words.size() && Words[Index + 1].empty();
            if (Bare || Words[Index] == std::string(Option) + "=") {
                throw UsageError(fmt::format("{}: the name of a file is missing", Option));
            }
        }
    }
}

int Main(const std::vector<std::string> &Words) {
    GlobalOptions Text;
    const VerbList List = Verbs();
    CheckNames(Words);
    const ParsedLine Line = ParseLine(Words, List, GlobalParameters(Text));
    SetJson(Text.Json);
    if (Line.WantsHelp) {
        return Told([&] {
            fmt::print("{}", Line.Chosen != nullptr ? VerbHelp(*Line.Chosen, false) : ProgramHelp(List, false));
            return 0;
        });
    }
    std::vector<Setting> Settings = Configure(Text);
    SetInForce(Settings);
    SessionOptions Options = SessionOf(Settings);
    if (Text.Version) {
        return Told([&] {
            ShowVersion(Options);
            return 0;
        });
    }
    if (Line.Chosen != nullptr && Line.Chosen->Alone) {
        return Told(Line.Chosen->Alone);
    }
    if (Line.Chosen == nullptr) {
        const bool OnTerminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
        return RunOver(Options, OnTerminal ? FindVerb(List, "console")->Run : Command(RunTour));
    }
    if (Line.Chosen->Before) {
        std::optional<int> Code;
        const int Failed = Told([&] {
            Code = Line.Chosen->Before(Options);
            return Code.value_or(0);
        });
        if (Code || Failed != 0) {
            return Failed;
        }
    }
    return RunOver(Options, Line.Chosen->Run);
}

} // namespace

int main(int Count, char **Words) {
    CatchInterrupts();
    try {
        return Main({Words + 1, Words + Count});
    } catch (const std::exception &Error) {
        return CodeOf(Error);
    }
}
