// check-provider: what the driver relies on, asked of a Provider from a shared library.

#include <memory>

#include <fmt/format.h>

#include "app/output.h"
#include "app/text.h"
#include "app/verbs/verbs.h"
#include "providers/conformance/conformance.h"
#include "providers/shared_library/shared_library.h"

namespace app {

namespace {

int CheckLibrary(const std::string &File, const std::string &Options) {
    std::unique_ptr<providers::SharedLibrary> Library;
    try {
        Library = std::make_unique<providers::SharedLibrary>(File, Options);
    } catch (const providers::LibraryError &Refused) {
        throw UsageError(Refused.what());
    }
    size_t Failures = 0;
    for (const std::string &Volume : Library->Volumes()) {
        const auto Result = providers::CheckProvider(*Library->Interface(), Widen(Volume).substr(1));
        Failures += Result.Failures.size();
        if (WantsJson()) {
            PrintRecord({{"volume", Volume},
                         {"provider", Library->Name()},
                         {"checks", uint64_t{Result.Checked.size()}},
                         {"writable", Result.Writable},
                         {"failures", Result.Failures}});
            continue;
        }
        fmt::print("{} of {}: {} checks{}\n", Volume, Library->Name(), Result.Checked.size(),
                   Result.Writable ? "" : "; it takes no changes, so that only reading was checked");
        for (const std::string &Failure : Result.Failures) {
            fmt::print("  FAILED  {}\n", Failure);
        }
    }
    if (!WantsJson()) {
        fmt::print("{}\n", Failures == 0 ? "conforms" : fmt::format("{} failed", Failures));
    }
    return Failures == 0 ? 0 : 1;
}

} // namespace

void AddProviderVerb(VerbList &List) {
    const auto File = std::make_shared<std::string>();
    const auto Options = std::make_shared<std::string>();
    List.push_back({.Name = "check-provider",
                    .Group = "requests",
                    .Summary = "ask a Provider what the driver relies on, and print what fails",
                    .Parameters = {Parameter{"LIBRARY", "the shared library", File.get()}.Needed(),
                                   Parameter{"--options", "what the Provider is made from", Options.get()}.As("TEXT")},
                    .Text =
                        "The Provider is called as the driver calls it, in a directory of its own in the root of each "
                        "of its volumes. The code is 1 when something fails.",
                    .Examples = {"check-provider ./libmine.so"},
                    .Alone = [File, Options] { return CheckLibrary(*File, *Options); }});
}

} // namespace app
