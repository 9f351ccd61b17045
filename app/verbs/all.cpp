#include <fmt/format.h>

#include "app/config.h"
#include "app/help.h"
#include "app/verbs/verbs.h"

namespace app {

VerbList Verbs() {
    VerbList List;
    AddFileVerbs(List);
    AddChangeVerbs(List);
    AddListingVerbs(List);
    AddWatchVerb(List);
    AddInfoVerbs(List);
    AddOpenVerbs(List);
    AddLockingVerbs(List);
    AddMappingVerbs(List);
    AddTourVerb(List);
    AddProviderVerb(List);
    AddReportVerb(List);
    AddMonitorVerbs(List);
    AddMountVerb(List);
    const auto EndAtFailure = std::make_shared<bool>(false);
    List.push_back({.Name = "console",
                    .Group = "program",
                    .Summary = "the verbs over one running driver",
                    .Parameters = {{"-e,--errexit", "end at the first failure", EndAtFailure.get()}},
                    .Run = [EndAtFailure](Session &Running) { return RunConsole(Running, *EndAtFailure); },
                    .Text = "It reads commands, on a terminal with editing, completion and a history that is kept, and "
                            "elsewhere one a line: then it ends with the code of its last failure. What follows a # is "
                            "a comment. Its own words are cd, pwd, lcd, lpwd, set, trace, requests, help and quit."});
    AddConfigVerb(List);
    AddHelpVerbs(List);
    return List;
}

const Verb *FindVerb(const VerbList &List, const std::string &Name) {
    for (const Verb &Each : List) {
        if (Each.Name == Name) {
            return &Each;
        }
    }
    return nullptr;
}

std::string NoSuchVerb(const std::string &Word) {
    return fmt::format("{}: no such verb; help lists them", Word);
}

} // namespace app
