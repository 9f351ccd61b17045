// report: a page from a journal.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include <fmt/format.h>

#include "app/journal/report.h"
#include "app/output.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

int Report(const std::string &Journal, const std::string &Given) {
    std::string Html;
    const ReportFacts Facts = MakeReport(Journal, Html);
    const std::string Target =
        Given.empty() ? std::filesystem::path(Journal).replace_extension("html").string() : Given;
    if (Target == "-") {
        fwrite(Html.data(), 1, Html.size(), stdout);
        return 0;
    }
    std::error_code Error;
    if (std::filesystem::equivalent(Target, Journal, Error)) {
        throw UsageError(fmt::format("{}: that is the journal", Target));
    }
    std::ofstream Page(Target, std::ios::trunc);
    Page.write(Html.data(), static_cast<std::streamsize>(Html.size()));
    Page.close();
    if (!Page) {
        Complain(fmt::format("{}: {}", Target, strerror(errno)));
        return 1;
    }
    if (WantsJson()) {
        PrintRecord({{"page", Target},
                     {"requests", uint64_t{Facts.Requests}},
                     {"calls", uint64_t{Facts.Calls}},
                     {"unfinished", uint64_t{Facts.Unfinished}}});
    } else {
        fmt::print("{}: {} requests, {} Provider calls{}\n", Target, Facts.Requests, Facts.Calls,
                   Facts.Unfinished == 0 ? "" : fmt::format(", {} not finished", Facts.Unfinished));
    }
    return 0;
}

} // namespace

void AddReportVerb(VerbList &List) {
    const auto Journal = std::make_shared<std::string>();
    const auto Target = std::make_shared<std::string>();
    List.push_back({.Name = "report",
                    .Group = "requests",
                    .Summary = "a page for a browser from a journal",
                    .Parameters = {Parameter{"JOURNAL", "what --journal wrote", Journal.get()}.Needed(),
                                   Parameter{"-o,--output",
                                             "where the page goes; - for standard output; otherwise beside the "
                                             "journal",
                                             Target.get()}
                                       .As("FILE")},
                    .Text = "Time lines of requests and their Provider calls, the slowest, counts and latencies by "
                            "operation, opens and FCBs over time. The page needs nothing but itself.",
                    .Examples = {"--journal run.json cp -r //demo/files/docs copy", "report run.json"},
                    .Alone = [Journal, Target] { return Report(*Journal, *Target); }});
}

} // namespace app
