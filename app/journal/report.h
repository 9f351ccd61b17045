// rvfsd report: one self-contained page for a browser, made from a journal.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace app {

// The page as it stands in report.html, without its data.
extern const std::string_view ReportPage;

struct ReportFacts {
    size_t Requests = 0;
    size_t Calls = 0;
    size_t Unfinished = 0; // when the journal ended
};

// The page in Html. A journal that ends in the middle, as that of a killed program does, is read as far as it goes.
// UsageError when File cannot be read or is no journal.
ReportFacts MakeReport(const std::filesystem::path &File, std::string &Html);

} // namespace app
