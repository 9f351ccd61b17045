#include "embedded/verifier/leaks.h"

#include <map>
#include <mutex>

#include <fmt/format.h>

#include "embedded/verifier/locks.h"
#include "embedded/verifier/report.h"

namespace embedded {
namespace {

struct LeakChecks {
    std::mutex Mutex;
    std::map<std::string, std::function<std::string()>, std::less<>> Checks;
};

LeakChecks &Leaks() {
    static LeakChecks &Instance = *new LeakChecks;
    return Instance;
}

} // namespace

void RegisterLeakCheck(std::string_view Name, std::function<std::string()> Check) {
    std::lock_guard Guard(Leaks().Mutex);
    Leaks().Checks[std::string(Name)] = std::move(Check);
}

std::string DescribeLeaks() {
    std::string Text = DescribeHeldLocks(CurrentThread());
    std::map<std::string, std::function<std::string()>, std::less<>> Checks;
    {
        std::lock_guard Guard(Leaks().Mutex);
        Checks = Leaks().Checks;
    }
    for (const auto &[Name, Check] : Checks) {
        if (std::string Found = Check(); !Found.empty()) {
            Text += fmt::format("{}: {}{}", Name, Found, Found.back() == '\n' ? "" : "\n");
        }
    }
    return Text;
}

} // namespace embedded
