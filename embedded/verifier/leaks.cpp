#include "embedded/verifier/leaks.h"

#include <map>
#include <mutex>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/ps/ps.h"
#include "embedded/verifier/report.h"

namespace embedded {
namespace {

struct LeakChecks {
    std::mutex Mutex;
    std::map<std::string, std::function<std::string()>, std::less<>> Checks;
};

LeakChecks &Leaks() {
    static LeakChecks Instance;
    return Instance;
}

} // namespace

void RegisterLeakCheck(std::string_view Name, std::function<std::string()> Check) {
    std::lock_guard Guard(Leaks().Mutex);
    Leaks().Checks[std::string(Name)] = std::move(Check);
}

std::string DescribeLeaks() {
    std::string Text = DescribePool(PoolKind::Pool) + DescribePool(PoolKind::Irp) + DescribePool(PoolKind::Mdl) +
                       DescribePool(PoolKind::Object);
    if (SIZE_T Count = LiveObjects(LiveKind::Resource)) {
        Text += fmt::format("{} resources not deleted\n", Count);
    }
    if (SIZE_T Count = LiveObjects(LiveKind::Lookaside)) {
        Text += fmt::format("{} lookaside lists not deleted\n", Count);
    }
    Text += DescribeHeldLocks(CurrentThread());
    if (SIZE_T Count = RunningSystemThreads()) {
        Text += fmt::format("{} system threads running\n", Count);
    }
    if (SIZE_T Count = OpenThreadHandles()) {
        Text += fmt::format("{} thread handles open\n", Count);
    }
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

void VerifyNothingLeft() {
    if (std::string Text = DescribeLeaks(); !Text.empty()) {
        BugCheck(bugcheck::Verifier, bugcheck::LeakAtUnload, static_cast<ULONG_PTR>(PoolBlocksInUse()),
                 static_cast<ULONG_PTR>(PoolBytesInUse()), 0, "left behind:\n" + Text);
    }
}

} // namespace embedded
