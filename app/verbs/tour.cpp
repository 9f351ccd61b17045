// tour: the road of one request, with everything that was asked of the driver and of the Provider.

#include <cstdio>
#include <vector>

#include <fmt/format.h>

#include "app/remote_file.h"
#include "app/text.h"
#include "app/transfer.h"
#include "app/verbs/verbs.h"
#include "embedded/mup.h"

namespace app {

namespace {

// A request is told when it ends, behind the calls that it made of the Provider. It is shown before them.
class Collector {
public:
    explicit Collector(Session &Running) : Running_(Running) {
        Running_.Watch([this](const std::string &Line) { Lines_.push_back(Line); });
    }
    ~Collector() {
        Running_.Watch({});
    }
    void Print(const char *Step) {
        fmt::print("\n{}\n", Step);
        std::vector<std::string> Calls;
        for (const std::string &Line : Lines_) {
            if (Line.starts_with(' ')) {
                Calls.push_back(Line);
                continue;
            }
            fmt::print("  {}\n", Line);
            for (const std::string &Call : Calls) {
                fmt::print("  {}\n", Call);
            }
            Calls.clear();
        }
        Lines_.clear();
    }

private:
    Session &Running_;
    std::vector<std::string> Lines_;
};

int RunTourOf(const std::u16string &Path, Session &Running) {
    return Guarded([&] {
        fmt::print("The road of one request: reading {}\n", ShowPath(Path));
        Collector Log(Running);
        const embedded::PathClaim Claim = embedded::QueryPathClaim(Path);
        if (!NT_SUCCESS(Claim.Status)) {
            throw StatusError(Claim.Status, ShowPath(Path));
        }
        Log.Print(fmt::format("claim: {} of the name belongs to the driver",
                              ShowPath(Path.substr(0, Claim.BytesClaimed / sizeof(WCHAR))))
                      .c_str());
        RemoteFile File(Path, {.Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
        Log.Print("open");
        std::string Text(65536, '\0');
        Text.resize(File.Read(0, Text.data(), Text.size()));
        Log.Print("read");
        const NTSTATUS Closed = File.Close();
        Log.Print("cleanup and close");
        if (!NT_SUCCESS(Closed)) {
            throw StatusError(Closed, ShowPath(Path));
        }
        fmt::print("\nthe file, {} bytes:\n", Text.size());
        fwrite(Text.data(), 1, Text.size(), stdout);
    });
}

} // namespace

int RunTour(Session &Running) {
    const std::u16string Sample = Widen(Running.Exports().front().Name).substr(1) + u"\\docs\\a.txt";
    if (KindOf(Sample) != Kind::File) {
        throw UsageError(
            fmt::format("tour: there is no {} to be read: tour PATH takes a file of yours", ShowPath(Sample)));
    }
    return RunTourOf(Sample, Running);
}

void AddTourVerb(VerbList &List) {
    const auto Path = std::make_shared<std::string>();
    List.push_back(
        {.Name = "tour",
         .Group = "requests",
         .Summary = "walk the road of one request and show every step",
         .Parameters = {{"PATH", "the file to read; docs\\a.txt of the first export when it is left out", Path.get()}},
         .Run = [Path](Session &Running) {
             return Path->empty() ? RunTour(Running) : RunTourOf(RemotePath(*Path), Running);
         }});
}

} // namespace app
