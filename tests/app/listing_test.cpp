// ls, find and watch as their users meet them.

#include "tests/app/program.h"
#include "tests/support/without_override.h"

namespace {

using namespace test;
using namespace testing;

class ProgramListing : public ProgramOverExport {
protected:
    ProgramListing() {
        std::filesystem::create_directories(Served.Path() / "d" / "sub");
        for (const char *Name : {"d/a.txt", "d/B.TXT", "d/abc", "d/a rather long name.html", "d/sub/below.txt"}) {
            Served.Write(Name, "x");
        }
    }
};

constexpr auto Whole = ".\n..\na rather long name.html\na.txt\nabc\nB.TXT\nsub\n";

TEST_F(ProgramListing, EveryClassAndEveryWayOfAskingTellsTheSame) {
    for (const char *Class : {"directory", "full", "both", "names", "id_both", "id_full"}) {
        EXPECT_EQ(Out({"ls", "-a", "--class", Class, "--buffer", "200", R"(\\srv\vol\d)"}), Whole) << Class;
    }
    EXPECT_EQ(Out({"ls", "-a", "--single", R"(\\srv\vol\d)"}), Whole);
    EXPECT_EQ(Out({"ls", "-a", "--single", "--restart", R"(\\srv\vol\d)"}), std::string(".\n") + Whole);
    EXPECT_EQ(".\n..\n" + Out({"ls", "--buffer", "200", R"(\\srv\vol\d)"}), Whole);
    EXPECT_EQ(
        Out({"ls", "-R", R"(\\srv\vol\d)"}),
        "\\\\srv\\vol\\d:\na rather long name.html\na.txt\nabc\nB.TXT\nsub\n\n\\\\srv\\vol\\d\\sub:\nbelow.txt\n");
    EXPECT_EQ(Out({"find", R"(\\srv\vol\d)", "-name", "*.txt"}),
              "\\\\srv\\vol\\d\\a.txt\n\\\\srv\\vol\\d\\B.TXT\n\\\\srv\\vol\\d\\sub\\below.txt\n");
}

TEST_F(ProgramListing, TheLastComponentIsAMaskOrTheNameOfAFile) {
    const struct {
        const char *Mask, *Out;
    } Cases[] = {{"*.txt", "a.txt\nB.TXT\n"}, {"ab?", "abc\n"},      {"abc>>>", "abc\n"},
                 {"<.txt", "a.txt\nB.TXT\n"}, {"a\"txt", "a.txt\n"}, {"*~?.htm", "a rather long name.html\n"},
                 {"b.txt", "B.TXT\n"}};
    for (const auto &Case : Cases) {
        EXPECT_EQ(Out({"ls", std::string(R"(\\srv\vol\d\)") + Case.Mask}), Case.Out) << Case.Mask;
    }
    for (auto &[Mask, Error] : {std::pair{"z*", "STATUS_NO_SUCH_FILE (0xC000000F): \\\\srv\\vol\\d\\z*"},
                                {"abc\\*", "STATUS_NOT_A_DIRECTORY (0xC0000103): \\\\srv\\vol\\d\\abc"}}) {
        ExpectRefused({"ls", std::string(R"(\\srv\vol\d\)") + Mask}, 1, Error);
    }
}

TEST_F(ProgramListing, AnOrderIsTheServersOrTimesOrSizesAndTheOtherWayRound) {
    Served.Write("d/abc", "four");
    std::filesystem::last_write_time(Served.Path() / "d" / "B.TXT",
                                     std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
    const struct {
        std::vector<std::string> Words;
        const char *Out;
    } Cases[] = {{{"-1", "*.txt"}, "a.txt\nB.TXT\n"},
                 {{"-t", "*.txt"}, "B.TXT\na.txt\n"},
                 {{"-t", "-r", "*.txt"}, "a.txt\nB.TXT\n"},
                 {{"-S", "a*"}, "abc\na rather long name.html\na.txt\n"},
                 {{"-R", "-r", "*b*"}, "\\\\srv\\vol\\d:\nsub\nB.TXT\nabc\n\n\\\\srv\\vol\\d\\sub:\nbelow.txt\n"}};
    for (const auto &[Words, Shown] : Cases) {
        std::vector<std::string> Line = {"ls"};
        Line.insert(Line.end(), Words.begin(), Words.end() - 1);
        Line.push_back(R"(\\srv\vol\d\)" + Words.back());
        EXPECT_EQ(Out(Line), Shown);
    }
    ExpectRefused({"ls", "-t", "--class", "names", R"(\\srv\vol\d)"}, 2,
                  R"(ls: the class "names" tells neither times nor sizes)");
}

TEST_F(ProgramListing, TreesAndSizesAreDrawnForPeopleAndForScripts) {
    Served.Write("d/sub/below.txt", std::string(3000, 'x'));
    EXPECT_EQ(Out({"tree", R"(\\srv\vol\d\)"}), "\\\\srv\\vol\\d\n"
                                                "├── a rather long name.html\n├── a.txt\n├── abc\n├── B.TXT\n"
                                                "└── sub\n    └── below.txt\n\n1 directories, 5 files\n");
    EXPECT_EQ(Out({"du", "-h", R"(\\srv\vol)"}),
              "  2.9K  \\\\srv\\vol\\d\\sub\n  2.9K  \\\\srv\\vol\\d\n  2.9K  \\\\srv\\vol\n");
    EXPECT_EQ(Out({"du", R"(\\srv\vol\d\*b*)"}), "             1  \\\\srv\\vol\\d\\abc\n"
                                                 "             1  \\\\srv\\vol\\d\\B.TXT\n"
                                                 "          3000  \\\\srv\\vol\\d\\sub\n");
    EXPECT_EQ(Out({"du", "-s", "--json", R"(\\srv\vol\d)"}), "{\"path\":\"\\\\\\\\srv\\\\vol\\\\d\",\"bytes\":3004}\n");
    EXPECT_THAT(
        Out({"ls", R"(\\srv\vol\d\sub\below.txt)", "--json"}),
        ContainsRegex("^\\{\"path\":\"[^\"]*below.txt\",\"name\":\"below.txt\",\"short_name\":\"[^\"]*\",\"directory\":"
                      "false,\"size\":3000,\"written\":\"20[-0-9]*T[0-9:.]*Z\",\"attributes\":\"-----\"\\}\n$"));
    EXPECT_EQ(Out({"ls"}), "\\\\srv\\vol\n");
}

TEST_F(ProgramListing, LinksThatLeadBackAreListedAndNotEntered) {
    const std::filesystem::path Loop = Served.Path() / "loop";
    std::filesystem::create_directory(Loop);
    std::filesystem::create_directory_symlink(".", Loop / "a");
    std::filesystem::create_directory_symlink(".", Loop / "b");
    std::filesystem::create_directory(Loop / "c");
    std::filesystem::create_directory_symlink("..", Loop / "c" / "up");
    EXPECT_EQ(Out({"ls", "-R", R"(\\srv\vol\loop)"}), "\\\\srv\\vol\\loop:\na\nb\nc\n\n\\\\srv\\vol\\loop\\c:\nup\n");
    EXPECT_EQ(Out({"find", R"(\\srv\vol\loop)"}),
              "\\\\srv\\vol\\loop\\a\n\\\\srv\\vol\\loop\\b\n\\\\srv\\vol\\loop\\c\n\\\\srv\\vol\\loop\\c\\up\n");
}

TEST_F(ProgramListing, ADirectoryThatDoesNotOpenIsToldAndTheOthersAreListed) {
    // Names of "half" may be read, and nothing in it be reached.
    const std::filesystem::path Half = Served.Path() / "d" / "half";
    std::filesystem::create_directories(Half / "inner");
    std::filesystem::permissions(Half, std::filesystem::perms::owner_read);
    for (const std::vector<std::string> &Verb : {std::vector<std::string>{"ls", "-R"}, {"find"}}) {
        std::vector<std::string> Words = Verb;
        Words.push_back(R"(\\srv\vol\d)");
        Ran Done;
        test::WithoutOverride([&] { Done = Run(Words); });
        EXPECT_EQ(Done.Code, 1);
        EXPECT_THAT(Done.Error, HasSubstr("STATUS_ACCESS_DENIED (0xC0000022): \\\\srv\\vol\\d\\half\\inner"));
        EXPECT_THAT(Done.Out, AllOf(HasSubstr("inner\n"), HasSubstr("below.txt\n")));
    }
    // Nothing of "half" may be read: that is told, and is no empty directory.
    std::filesystem::permissions(Half, std::filesystem::perms::owner_exec);
    for (const std::vector<std::string> &Verb :
         {std::vector<std::string>{"ls", R"(\\srv\vol\d\half)"}, {"find", R"(\\srv\vol\d)"}}) {
        Ran Done;
        test::WithoutOverride([&] { Done = Run(Verb); });
        EXPECT_EQ(Done.Code, 1) << Verb[0];
        EXPECT_THAT(Done.Error, HasSubstr("STATUS_ACCESS_DENIED (0xC0000022): \\\\srv\\vol\\d\\half"));
    }
    std::filesystem::permissions(Half, std::filesystem::perms::owner_all);
}

TEST_F(ProgramListing, AnEmptyVolumeIsListedAsEmptyAndAMaskThatMatchesNothingIsTold) {
    const test::ScratchDirectory Empty;
    const std::string Export = R"(\\srv\new=)" + Empty.Path().string();
    Options = {"--export", Export};
    EXPECT_EQ(Out({"ls", R"(\\srv\new)"}), "");
    EXPECT_EQ(Out({"ls", "-l", "--single", R"(\\srv\new)"}), "");
    EXPECT_EQ(Out({"find", R"(\\srv\new)"}), "");
    ExpectRefused({"ls", R"(\\srv\new\*)"}, 1, "STATUS_NO_SUCH_FILE");
}

TEST_F(ProgramListing, ShortNamesAreShownUnlessLazyCloseIsOn) {
    const std::string Mask = R"(\\srv\vol\d\a r*)";
    EXPECT_THAT(Out({"ls", "-l", Mask}), ContainsRegex(" AR[0-9A-Z]{4}~[1-9]\\.HTM +a rather long name"));
    for (auto &[Value, Expected] : {std::pair{"1", false}, {"0", true}}) {
        const Ran Listed = RunProgram(
            Line({"--set", std::string("Enable Lazy Close=") + Value, "ls", "-l", "--class", "id_both", Mask}));
        EXPECT_EQ((Listed.Out.find(".HTM ") != std::string::npos), Expected) << Listed.Out << Listed.Error;
    }
}

TEST_F(ProgramListing, AWaitInTheConsoleIsEndedByOtherVerbsAndByTheConsole) {
    const Ran Off = Run({"watch", R"(\\srv\vol\d)"});
    EXPECT_EQ(Off.Code, 1);
    EXPECT_THAT(Off.Error, HasSubstr("d; --set EnableDirectoryNotify=1 turns notification on"));

    const std::string Changed = "watch \\\\srv\\vol\\d: STATUS_NOTIFY_ENUM_DIR (0x0000010C)";
    const std::string Ended = "watch \\\\srv\\vol\\d: STATUS_SUCCESS (0x00000000)";
    const std::pair<const char *, std::string> Cases[] = {
        {R"(touch \\srv\vol\d\new)", Changed},    {R"(rm \\srv\vol\d\new)", Changed},
        {R"(mkdir \\srv\vol\d\made)", Changed},   {R"(rmdir \\srv\vol\d\made)", Changed},
        {R"(find \\srv\vol\d --name no)", Ended}, {"quit", Ended}};
    for (const auto &[Verb, Told] : Cases) {
        const Ran Session =
            Run({"--set", "EnableDirectoryNotify=1", "console"}, std::string("watch \\\\srv\\vol\\d\n") + Verb + "\n");
        EXPECT_EQ(Session.Code, 0) << Session.Error;
        EXPECT_EQ(Session.Out, "watching \\\\srv\\vol\\d\n" + Told + "\n") << Verb;
    }
}

} // namespace
