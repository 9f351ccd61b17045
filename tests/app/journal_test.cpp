// The journal and its report, from outside.

#include <csignal>
#include <map>

#include <nlohmann/json.hpp>

#include "tests/app/program.h"

namespace {

using nlohmann::json;
using namespace test;
using namespace testing;

// Every event stands where it may, and what is left open at the end: by thread, the outermost first.
std::vector<std::string> Unfinished(const json &Events) {
    std::map<int, std::vector<json>> Open;
    for (const json &Event : Events) {
        auto &Of = Open[Event.at("tid")];
        const std::string Phase = Event.at("ph");
        if (Phase == "B") {
            EXPECT_TRUE(Event.at("cat") == "request" || !Of.empty()) << "a call outside every request: " << Event;
            Of.push_back(Event);
        } else if (Phase == "E") {
            EXPECT_FALSE(Of.empty());
            EXPECT_EQ(Event.at("name"), Of.back().at("name"));
            EXPECT_GE(Event.at("ts"), Of.back().at("ts"));
            EXPECT_NE(Event.at("args").at("status"), "");
            Of.pop_back();
        }
    }
    std::vector<std::string> Names;
    for (const auto &[Thread, Of] : Open) {
        for (const json &Event : Of) {
            Names.push_back(Event.at("name"));
        }
    }
    return Names;
}

size_t Count(const json &Events, const std::string &Name, const std::string &Path) {
    return static_cast<size_t>(std::count_if(Events.begin(), Events.end(), [&](const json &Event) {
        return Event.at("ph") == "B" && Event.at("name") == Name && Event.at("args").value("path", "") == Path;
    }));
}

TEST(ProgramJournal, HoldsEveryRequestWithItsCalls) {
    const ScratchDirectory Scratch;
    const std::string Journal = Scratch.File("run.json");
    EXPECT_EQ(RunProgram({"--journal", Journal, "cat", "\\\\demo\\files\\docs\\a.txt"}).Code, 0);
    const json Events = json::parse(Scratch.Read("run.json"));
    EXPECT_TRUE(Unfinished(Events).empty());
    EXPECT_GE(Count(Events, "IRP_MJ_CREATE", "\\\\demo\\files\\docs\\a.txt"), 1u);
    EXPECT_GE(Count(Events, "IRP_MJ_READ", "\\\\demo\\files\\docs\\a.txt"), 1u);
    EXPECT_GE(Count(Events, "RVFsdCreateFile", "docs\\a.txt"), 1u);
    const auto LastCount =
        std::find_if(Events.rbegin(), Events.rend(), [](const json &E) { return E.at("ph") == "C"; });
    ASSERT_NE(LastCount, Events.rend());
    EXPECT_EQ(LastCount->at("args").at("opens"), 0);
    EXPECT_EQ(LastCount->at("args").at("fcbs"), 0);

    const auto Report = RunProgram({"report", Journal});
    EXPECT_EQ(Report.Code, 0) << Report.Error;
    EXPECT_THAT(Report.Out, EndsWith(" Provider calls\n"));
    EXPECT_THAT(Scratch.Read("run.html"), HasSubstr("docs\\\\a.txt"));
}

TEST(ProgramJournal, OfAKilledProgramItTellsHowFarItCame) {
    const ScratchDirectory Scratch;
    const std::string Journal = Scratch.File("run.json");
    const auto Ran =
        test::RunProgramWith({"--journal", Journal, "--set", "EnableDirectoryNotify=1", "watch", "\\\\demo\\files"},
                             [&](pid_t Program, int) {
                                 while (Scratch.Read("run.json").find("\"STATUS_PENDING\"") == std::string::npos) {
                                     usleep(1000);
                                 }
                                 kill(Program, SIGKILL);
                             });
    EXPECT_EQ(Ran.Code, 128 + SIGKILL);
    const std::string Text = Scratch.Read("run.json");
    const json Events = json::parse(Text + "\n]"); // what readers of the format do
    EXPECT_GE(Count(Events, "IRP_MJ_DIRECTORY_CONTROL", "\\\\demo\\files"), 1u);
    // Cut within an event it is read as far as it goes; with an open request it says so.
    const size_t Last = Text.rfind("{\"ph\":\"B\"");
    Scratch.Write("cut.json", Text.substr(0, Text.find('\n', Last) + 20));
    const auto Report = RunProgram({"report", Scratch.File("cut.json"), "-o", Scratch.File("page.html")});
    EXPECT_EQ(Report.Code, 0) << Report.Error;
    EXPECT_THAT(Report.Out, EndsWith(", 1 not finished\n"));
    EXPECT_THAT(Scratch.Read("page.html"), StartsWith("<!doctype html>"));
}

TEST(ProgramJournal, WhatIsNoneIsRefused) {
    const ScratchDirectory Scratch;
    Scratch.Write("text", "no journal\nat all\n");
    Scratch.Write("empty", "[\n]\n");
    for (const auto &[File, Error] : {std::pair{"text", "text:1: no event of a journal\n"},
                                      {"empty", "empty: no journal: it has no request\n"},
                                      {"none", "none: No such file or directory\n"}}) {
        const auto Report = RunProgram({"report", Scratch.File(File)});
        EXPECT_EQ(Report.Code, 2);
        EXPECT_THAT(Report.Error, EndsWith(Error));
    }
    EXPECT_EQ(RunProgram({"--journal", "/proc/none", "vol"}).Code, 2);
}

} // namespace
