// Configuration files, and what "config" tells of them.

#include <cstdlib>

#include "tests/app/program.h"

namespace {

using namespace test;
using namespace testing;

class ProgramConfig : public testing::Test {
protected:
    // Runs with a configuration file of this text.
    Ran With(const std::string &Text, const std::vector<std::string> &Words) const {
        Scratch.Write("c.json", Text);
        std::vector<std::string> Line = {"--config", Scratch.File("c.json")};
        Line.insert(Line.end(), Words.begin(), Words.end());
        return RunProgram(Line);
    }
    std::string Setting(const char *Kind, const char *Name, const std::string &Value, const std::string &From) const {
        return std::string("{\"kind\":\"") + Kind + "\",\"name\":\"" + Name + "\",\"value\":\"" + Value +
               "\",\"from\":\"" + From + "\"}\n";
    }

    test::ScratchDirectory Scratch;
};

constexpr auto Everything = R"({ // of a test
    "exports": {"//srv/data": "served", "//dfs/l": "\\\\srv\\data\\d"},
    "quotas": {"//srv/data": "64K"},
    "switches": {"EnableDirectoryNotify": true, "EnableDebug": 2},
    "trace": "error", "log": "the.log"})";

TEST_F(ProgramConfig, TellsWhatIsInForceAndWhereItIsSaid) {
    std::filesystem::create_directories(Scratch.Path() / "served" / "d");
    const std::string File = Scratch.File("c.json");
    const std::string Common = Setting("export", R"(\\\\dfs\\l)", R"(\\\\srv\\data\\d)", File);
    const Ran Shown = With(Everything, {"config", "--json"});
    EXPECT_EQ(Shown.Error, "");
    EXPECT_THAT(Shown.Out,
                StartsWith(Setting("export", R"(\\\\srv\\data)", Scratch.File("served"), File) + Common +
                           Setting("quota", R"(\\\\srv\\data)", "64K", File) +
                           Setting("switch", "EnableDirectoryNotify", "1", File) +
                           Setting("switch", "EnableDebug", "2", File) + Setting("trace", "", "error", File) +
                           Setting("log", "", Scratch.File("the.log"), File)));
    EXPECT_THAT(Shown.Out, HasSubstr(Setting("switch", "EnableAsyncIo", "0", "default")));
    // The command line counts for what it names.
    const Ran Over = With(Everything, {"--export", R"(\\srv\data=)" + Scratch.File("other"), "--set", "EnableDebug=0",
                                       "config", "--json"});
    EXPECT_THAT(Over.Out,
                HasSubstr(Setting("export", R"(\\\\srv\\data)", Scratch.File("other"), "command line") + Common));
    EXPECT_THAT(Over.Out, HasSubstr(Setting("switch", "EnableDebug", "0", "command line")));
    // It really is in force.
    Scratch.Write("served/d/f", "f");
    const Ran Used = With(Everything, {"df", R"(\\dfs\l)"});
    EXPECT_THAT(Used.Out, HasSubstr(" 65536 "));
    EXPECT_TRUE(Scratch.Has("the.log"));
    EXPECT_EQ(RunProgram({"--config", File, "--no-config", "cat", R"(\\dfs\l\f)"}).Code, 1);
}

TEST_F(ProgramConfig, IsReadFromTheUsualPlace) {
    EXPECT_THAT(RunProgram({"config"}).Out, HasSubstr("/.local/share/rvfsd/demo"));
    const std::filesystem::path Home = getenv("HOME"); // of all programs that are run here
    std::filesystem::create_directories(Home / ".config/rvfsd");
    Scratch.Write("f", "of the file");
    std::filesystem::create_directory_symlink(Scratch.Path(), Home / "data");
    Scratch.Write("c", R"({"exports": {"//h/d": "~/data"}})");
    std::filesystem::copy(Scratch.Path() / "c", Home / ".config/rvfsd/config.json");
    EXPECT_EQ(RunProgram({"cat", R"(\\h\d\f)"}).Out, "of the file");
    EXPECT_EQ(RunProgram({"--no-config", "cat", R"(\\h\d\f)"}).Code, 1);
    std::filesystem::remove_all(Home / ".config");
    std::filesystem::remove(Home / "data");
}

TEST_F(ProgramConfig, WhatItCannotMeanIsSaidWithItsPlace) {
    const struct {
        const char *Text, *Error;
    } Cases[] = {
        {"{", "parse error at line 1"},
        {"[]", "an object is expected"},
        {R"({"exprts": {}})", "exprts: no such setting; there are exports, quotas, switches, trace, log, image"},
        {R"({"exports": []})", "exports: an object is expected"},
        {R"({"exports": {"//a/b": 1.5}})", "exports: //a/b: a text or a number is expected"},
        {R"({"exports": {"//a/b": true}})", "exports: //a/b: a text or a number is expected"},
        {R"({"exports": {"//a/b": ""}})", "exports: //a/b: a name is expected"},
        {R"({"exports": {"a": "/"}})", "exports: a: a remote path begins with"},
        {R"({"quotas": {"//a/b": "1Q"}})", "1Q: a size reads like"},
        {R"({"switches": {"Frob": 1}})", "the driver has no switch Frob; it has Enable"},
        {R"({"switches": {"EnableDebug": "x"}})", "x: not a number"},
        {R"({"trace": "bogus"})", "bogus: no category of messages"},
    };
    for (const auto &Each : Cases) {
        const Ran Refused = With(Each.Text, {"config"});
        EXPECT_EQ(Refused.Code, 2) << Each.Text;
        EXPECT_THAT(Refused.Error, StartsWith(Scratch.File("c.json") + ": " + Each.Error));
        EXPECT_EQ(Refused.Out, "");
    }
}

} // namespace
