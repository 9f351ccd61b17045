// Drive letters at the command line and in the console: use, verify, session, and paths through a letter.

#include "tests/app/program.h"

namespace {

using namespace test;
using namespace testing;

class ProgramDrives : public ProgramOverExport {
protected:
    ProgramDrives() {
        std::filesystem::create_directories(Served.Path() / "docs/old");
        Served.Write("docs/a.txt", "through the letter\n");
    }
};

TEST_F(ProgramDrives, EveryVerbTakesPathsThroughALetter) {
    Options.insert(Options.end(), {"--use", "G:=\\\\srv\\vol\\docs"});
    struct {
        std::vector<std::string> Words;
        const char *Out;
    } const Cases[] = {
        {{"cat", "G:\\a.txt"}, "through the letter\n"},
        {{"cat", "g:/a.txt"}, "through the letter\n"},
        {{"ls", "G:"}, "a.txt"},
        {{"ls", "G:\\*.txt"}, "a.txt"},
        {{"find", "G:\\"}, "G:\\a.txt"},
        {{"stat", "G:\\a.txt"}, "\\\\srv\\vol\\docs\\a.txt"},
        {{"mkdir", "-p", "G:\\new\\deep"}, ""},
        {{"mv", "G:\\new", "G:\\renamed"}, ""},
        {{"cp", "G:\\a.txt", "G:\\renamed\\b.txt"}, ""},
        {{"mv", "G:\\renamed\\b.txt", "\\\\srv\\vol\\c.txt"}, ""},
        {{"cat", "//srv/vol/c.txt"}, "through the letter\n"},
        {{"rm", "-r", "G:\\renamed"}, ""},
        {{"verify", "G:\\old"}, "STATUS_SUCCESS"},
        {{"df", "G:\\"}, "G:"},
        {{"use"}, "G:  default    -          0  \\\\srv\\vol\\docs\n"},
        {{"use", "G:"}, "\\\\srv\\vol\\docs\n"},
        {{"use", "--json"},
         R"({"drive":"G:","path":"\\\\srv\\vol\\docs","session":"default","linked":false,"server":0})"},
        {{"use", "G:", "--json"}, R"({"drive":"G:","path":"\\\\srv\\vol\\docs","session":"default"})"},
        {{"verify", "G:\\old", "--json"}, R"({"path":"G:\\old","status":"STATUS_SUCCESS)"},
        {{"session", "--json"}, R"({"name":"default","acting":true,"who":")"},
    };
    for (const auto &Case : Cases) {
        EXPECT_THAT(Out(Case.Words), HasSubstr(Case.Out)) << Case.Words[0];
    }
    EXPECT_FALSE(Served.Has("docs/renamed"));
}

TEST_F(ProgramDrives, LettersBelongToSessions) {
    const Ran Linked = Run({"--set", "EnableLinkedConnections=1", "--session", "filtered", "console"},
                           "use G: \\\\srv\\vol\\docs --server 7\n"
                           "use\n"
                           "session elevated\n"
                           "cat G:\\a.txt\n"
                           "use H: \\\\srv\\vol --server 7\n"
                           "session second\n"
                           "cat G:\\a.txt\n"
                           "use H: \\\\srv\\vol --session default\n"
                           "session stranger\n"
                           "use G: /delete\n"
                           "session filtered\n"
                           "use --server 7 /delete\n"
                           "use\n");
    EXPECT_THAT(Linked.Out, HasSubstr("G:  filtered   linked     7  \\\\srv\\vol\\docs\n"));
    EXPECT_THAT(Linked.Out, HasSubstr("through the letter\n"));
    EXPECT_THAT(Linked.Out, testing::EndsWith("H:  default    -          0  \\\\srv\\vol\n"));
    EXPECT_THAT(Linked.Error, HasSubstr("(0xC000003A): G:\\a.txt"));
    EXPECT_THAT(Linked.Error, HasSubstr("STATUS_RESOURCE_NOT_OWNED (0xC0000264): G:"));

    const Ran Apart = Run({"--session", "elevated", "--use", "G:=\\\\srv\\vol", "console"},
                          "session filtered\nls G:\nuse G: \\\\srv\\vol\\docs\ncat G:\\a.txt\nuse\n");
    EXPECT_THAT(Apart.Error, HasSubstr("STATUS_OBJECT_NAME_NOT_FOUND"));
    EXPECT_THAT(Apart.Out, HasSubstr("through the letter\n"));
    EXPECT_THAT(Apart.Out, HasSubstr("G:  elevated   -          0  \\\\srv\\vol\nG:  filtered   -          0"));
}

TEST_F(ProgramDrives, WhatCannotBeMappedIsSaid) {
    struct {
        std::vector<std::string> Words;
        int Code;
        const char *Error;
    } const Cases[] = {
        {{"--use", "G:=\\\\srv\\vol\\docs", "use", "G:", "\\\\srv\\vol"}, 1, "STATUS_OBJECT_NAME_COLLISION"},
        {{"--use", "G:=\\\\srv\\vol\\docs\\a.txt", "ls", "G:"}, 1, "G: \\\\srv\\vol\\docs\\a.txt"},
        {{"use", "G:", "\\\\nobody\\vol"}, 1, "STATUS_BAD_NETWORK_PATH (0xC00000BE): G: \\\\nobody\\vol"},
        {{"use", "G:", "\\\\srv\\vol\\docs\\a.txt"}, 1, "STATUS_NOT_A_DIRECTORY"},
        {{"use", "G:", "/delete"}, 1, "STATUS_RESOURCE_NOT_OWNED"},
        {{"use", "G:"}, 1, "STATUS_RESOURCE_NOT_OWNED"},
        {{"use", "GG:", "\\\\srv\\vol"}, 2, "a drive is a letter with a colon"},
        {{"use", "G:", "H:\\x"}, 2, "a path with server and volume is wanted"},
        {{"use", "/delete"}, 2, "use G: PATH"},
        {{"--use", "G", "ls"}, 2, "expected --use"},
        {{"--session", "nobody", "use"}, 2, "there is no such session"},
        {{"session", "nobody"}, 2, "no such session"},
        {{"verify", "\\\\srv\\nope"}, 1, "STATUS_BAD_NETWORK_PATH"},
        {{"verify", "G:\\x"}, 1, "STATUS_RESOURCE_NOT_OWNED"},
        {{"cat", "G:\\a.txt"}, 1, "G:\\a.txt"},
    };
    for (const auto &Case : Cases) {
        const Ran Result = Run(Case.Words);
        EXPECT_EQ(Result.Code, Case.Code) << Case.Words.back() << Result.Error;
        EXPECT_THAT(Result.Error, HasSubstr(Case.Error));
        EXPECT_THAT(Result.Error, Not(HasSubstr("left behind")));
    }
}

TEST_F(ProgramDrives, ADriverThatIsStartedAgainHasItsLetters) {
    const Ran Again = Run({"console"}, "use G: \\\\srv\\vol\\docs\ntrace create on\ncat G:\\a.txt\nuse\n");
    EXPECT_EQ(Again.Code, 0) << Again.Error;
    EXPECT_THAT(Again.Out, HasSubstr("through the letter\n"));
    EXPECT_THAT(Again.Out, HasSubstr("G:  default"));
}

} // namespace
