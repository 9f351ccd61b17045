// monitor and stats: what a running mount is asked, live.

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "app/journal/request_tap.h"
#include "app/monitor/client.h"
#include "app/output.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

using nlohmann::json;

std::string Lower(std::string Text) {
    std::transform(Text.begin(), Text.end(), Text.begin(),
                   [](unsigned char Byte) { return static_cast<char>(tolower(Byte)); });
    return Text;
}

bool Holds(const std::string &Text, const std::string &Part) {
    return Lower(Text).find(Lower(Part)) != std::string::npos;
}

// An operation as people write it.
std::string Plain(const std::string &Operation) {
    const std::string Text = Lower(Operation);
    return Text.starts_with("irp_mj_") ? Text.substr(7) : Text;
}

struct Filter {
    std::string Path;
    std::vector<std::string> Operations;
    std::string Status;
    std::string Process; // its number, or a part of its name
    uint32_t Slower = 0; // microseconds

    // UsageError for what no request can have: nothing would ever be shown.
    void Check() const {
        std::vector<std::string> Known;
        for (int Major = 0; Major <= IRP_MJ_MAXIMUM_FUNCTION; ++Major) {
            Known.push_back(Plain(embedded::MajorFunctionName(static_cast<UCHAR>(Major))));
        }
        for (const std::string &One : Operations) {
            if (std::find(Known.begin(), Known.end(), Plain(One)) == Known.end()) {
                throw UsageError(fmt::format("--operation {}: known are {}", One, fmt::join(Known, ", ")));
            }
        }
        if (Status == "failed" || Status == "success") {
            return;
        }
#define STATUS_NAME(Name, Value) #Name,
        const std::vector<std::string> Statuses = {NTSTATUS_LIST(STATUS_NAME)};
#undef STATUS_NAME
        if (std::none_of(Statuses.begin(), Statuses.end(), [this](const auto &One) { return Holds(One, Status); })) {
            throw UsageError(fmt::format("--status {}: known are failed, success, and parts of {}", Status,
                                         fmt::join(Statuses, ", ")));
        }
    }

    bool Passes(const json &Line) const {
        const std::string Operation = Plain(Line.at("operation"));
        const bool Named = Operations.empty() || std::any_of(Operations.begin(), Operations.end(),
                                                             [&](const auto &One) { return Plain(One) == Operation; });
        const bool Failed = Line.at("failed");
        const bool Ended = Status == "failed"    ? Failed
                           : Status == "success" ? !Failed
                                                 : Holds(Line.at("status"), Status);
        const bool Asked = Holds(Line.at("program"), Process) || Process == Line.at("process").dump();
        return Named && Ended && Asked && Holds(Line.at("path"), Path) &&
               Line.at("nanoseconds").get<uint64_t>() >= uint64_t{Slower} * 1000;
    }
};

std::string Details(const json &Line) {
    std::string Text;
    const json All = Line.value("details", json::object());
    for (const auto &[Name, Value] : All.items()) {
        Text += fmt::format(" {}={}", Name, Value.get<std::string>());
    }
    return Text;
}

double Micros(const json &Nanoseconds) {
    return Nanoseconds.get<double>() / 1000;
}

// Nanoseconds since 1970, as the clock on the wall has them here.
std::string TimeOfDay(int64_t Nanoseconds) {
    const time_t Seconds = Nanoseconds / 1'000'000'000;
    struct tm Local = {};
    localtime_r(&Seconds, &Local);
    return fmt::format("{:02}:{:02}:{:02}.{:06}", Local.tm_hour, Local.tm_min, Local.tm_sec,
                       Nanoseconds / 1000 % 1'000'000);
}

int Monitor(const std::string &Which, const Filter &Wanted) {
    Wanted.Check();
    monitor::Client Mount(Which);
    Mount.Ask('m');
    while (const std::optional<json> Line = Mount.Next()) {
        if (Line->contains("lost")) {
            Complain(fmt::format("{} requests are not shown: they came faster than they were read",
                                 Line->at("lost").get<uint64_t>()));
        } else if (!Wanted.Passes(*Line)) {
            continue;
        } else if (WantsJson()) {
            fmt::print("{}\n", Line->dump());
        } else {
            const std::string Path = Line->at("path");
            fmt::print("{} {:>7} {:>7} {:<15} {:>10.1f} us  {:<24} {:<30} {}{}\n", TimeOfDay(Line->at("time_ns")),
                       Line->at("thread").get<int>(), Line->at("process").get<int>(),
                       Line->at("program").get<std::string>(), Micros(Line->at("nanoseconds")),
                       Plain(Line->at("operation")), Line->at("status").get<std::string>(),
                       Path.empty() ? "(the device)" : Path, Details(*Line));
        }
        fflush(stdout);
    }
    return 0;
}

int Stats(const std::string &Which, uint32_t Seconds) {
    monitor::Client Mount(Which);
    Mount.Ask('s');
    const int64_t Begun = Ticks();
    Mount.Wait(static_cast<int>(std::min(Seconds, 1'000'000u)) * 1000);
    Mount.EndAsking();
    const int64_t Milliseconds = (Ticks() - Begun) / 1'000'000;
    const json &Of = Mount.Mount();
    const std::optional<json> Answer = Mount.Next();
    if (!Answer) {
        throw std::runtime_error(
            fmt::format("{}: the mount was killed, its counts are lost", Of.at("serves").get<std::string>()));
    }
    const json &Now = *Answer;
    if (WantsJson()) {
        PrintRecord({{"process", Of.at("process").get<int64_t>()},
                     {"mountpoint", Of.at("serves").get<std::string>()},
                     {"milliseconds", Milliseconds},
                     {"opens", Now.at("opens").get<uint64_t>()},
                     {"fcbs", Now.at("fcbs").get<uint64_t>()}});
    } else {
        fmt::print("{}, process {}: {} files open, {} FCBs\n{:<24} {:>10} {:>8} {:>10} {:>10} {:>10} {:>10}\n",
                   Of.at("serves").get<std::string>(), Of.at("process").get<int>(), Now.at("opens").get<uint64_t>(),
                   Now.at("fcbs").get<uint64_t>(), fmt::format("in {:.1f} s", static_cast<double>(Milliseconds) / 1000),
                   "count", "failed", "p50 us", "p90 us", "p99 us", "max us");
    }
    while (const std::optional<json> Line = Mount.Next()) {
        if (WantsJson()) {
            fmt::print("{}\n", Line->dump());
        } else {
            fmt::print("{:<24} {:>10} {:>8} {:>10.1f} {:>10.1f} {:>10.1f} {:>10.1f}\n", Plain(Line->at("operation")),
                       Line->at("count").get<uint64_t>(), Line->at("failed").get<uint64_t>(),
                       Micros(Line->at("p50_ns")), Micros(Line->at("p90_ns")), Micros(Line->at("p99_ns")),
                       Micros(Line->at("max_ns")));
        }
    }
    return 0;
}

Parameter WhichMount(std::string *Goes) {
    return {"MOUNT", "its mount point or process, when several are running", Goes};
}

} // namespace

void AddMonitorVerbs(VerbList &List) {
    const auto Which = std::make_shared<std::string>();
    const auto Wanted = std::make_shared<Filter>();
    List.push_back(
        {.Name = "monitor",
         .Group = "requests",
         .Summary = "the requests of a running mount, as they come",
         .Parameters =
             {WhichMount(Which.get()), Parameter{"--path", "only paths with this in them", &Wanted->Path}.As("TEXT"),
              Parameter{"--operation", "only these, such as create or read; may be repeated", &Wanted->Operations}.As(
                  "NAME"),
              Parameter{"--status", "only failed, success, or statuses with this in their name", &Wanted->Status}.As(
                  "TEXT"),
              Parameter{"--process", "only those of this process, or of programs with this in their name",
                        &Wanted->Process}
                  .As("TEXT"),
              Parameter{"--slower", "only those that took so long", &Wanted->Slower}.As("MICROSECONDS")},
         .Text = "One line for each completed request: when it ended, the mount's thread that sent it, the process "
                 "that asked for it and its name (0, kernel: the kernel itself), how long it took, the operation, the "
                 "status, the path, what else tells it from others. Nothing is watched, and nothing slower, while "
                 "nobody is attached.",
         .Examples = {"monitor --operation create --status failed", "monitor --slower 1000 --path docs /mnt",
                      "monitor --process git"},
         .Alone = [Which, Wanted] { return Monitor(*Which, *Wanted); }});
    const auto Of = std::make_shared<std::string>();
    const auto Seconds = std::make_shared<uint32_t>(1);
    List.push_back(
        {.Name = "stats",
         .Group = "requests",
         .Summary = "counts, latencies and open files of a running mount",
         .Parameters = {WhichMount(Of.get()), Parameter{"--for", "how long to count", Seconds.get()}.As("SECONDS")},
         .Text =
             "Counts what is completed while it waits, which an interrupt ends: nothing is counted while nobody asks. "
             "Percentiles are right to 6 %.",
         .Examples = {"stats --for 10 /mnt"},
         .Alone = [Of, Seconds] { return Stats(*Of, *Seconds); }});
}

} // namespace app
