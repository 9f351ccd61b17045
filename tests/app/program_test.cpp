// The program from outside: what it prints, what it says, how it ends.

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/app/program.h"
#include "tests/support/driver_under_test.h"

namespace {

using test::ImageUnderTest;
using test::Ran;
using test::RunProgram;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

const std::string SampleText = "This is a.txt, served as \\\\demo\\files\\docs\\a.txt.\n\n"
                               "It came through the whole driver: the prefix was claimed, the file opened,\n"
                               "read and closed.\n";

TEST(Program, WithoutArgumentsAndTerminalItWalksTheRoadOfOneRequest) {
    const Ran Walk = RunProgram({});
    EXPECT_EQ(Walk.Code, 0);
    EXPECT_EQ(Walk.Error, "");
    // Each request with what the Provider was asked for it, in the order of the road.
    constexpr const char *Road[] = {
        "claim: \\\\demo\\files of the name",
        "IRP_MJ_DEVICE_CONTROL    STATUS_SUCCESS (0x00000000)                  Information 0",
        "RVFsdQueryPathForVolume(path=\"\\demo\\files\") -> 0x00000000 volume=\"\\demo\\files\"",
        "IRP_MJ_CREATE            STATUS_SUCCESS (0x00000000)                  Information 1",
        "RVFsdCreateFile(base=0, path=\"\\demo\\files\\docs\\a.txt\", access=0x1, share=0x7, disposition=0x0, "
        "options=0x0, "
        "attributes=0x0) -> 0x00000000 handle=",
        "RVFsdOpenVolume(path=\"\\demo\\files\") -> 0x00000000 handle=",
        "path=\"docs\\a.txt\", access=0x3, share=0x7, disposition=0x3",
        "IRP_MJ_READ              STATUS_SUCCESS (0x00000000)                  Information 143",
        "RVFsdReadFile(handle=",
        "bytes=143",
        "IRP_MJ_CLEANUP           STATUS_SUCCESS (0x00000000)                  Information 0",
        "IRP_MJ_CLOSE             STATUS_SUCCESS (0x00000000)                  Information 0",
        "RVFsdCloseFile(handle=",
        "RVFsdCloseVolume(handle=",
        "the file, 143 bytes:",
    };
    size_t At = 0;
    for (const char *Step : Road) {
        const size_t Found = Walk.Out.find(Step, At);
        ASSERT_NE(Found, std::string::npos) << Step << "\nis not behind the step before it in\n" << Walk.Out;
        At = Found;
    }
    EXPECT_TRUE(Walk.Out.ends_with(SampleText));
}

struct Case {
    std::vector<std::string> Arguments;
    int Code;
    std::string Out;   // exactly
    std::string Error; // exactly; a text that ends in "..." is only the beginning
};

void Check(const Case &Each) {
    std::string Shown;
    for (const std::string &Word : Each.Arguments) {
        Shown += Word.substr(0, 80) + ' ';
    }
    SCOPED_TRACE(Shown);
    const Ran Result = RunProgram(Each.Arguments);
    EXPECT_EQ(Result.Code, Each.Code);
    EXPECT_EQ(Result.Out, Each.Out);
    if (Each.Error.ends_with("...")) {
        EXPECT_THAT(Result.Error, StartsWith(Each.Error.substr(0, Each.Error.size() - 3)));
    } else {
        EXPECT_EQ(Result.Error, Each.Error);
    }
}

TEST(Program, DataGoesToStandardOutputAndAStatusOfTheDriverEndsACommand) {
    const std::string Second = "A second file, so that a listing has something to list.\n";
    const Case Cases[] = {
        {{"cat", R"(\\demo\files\docs\a.txt)"}, 0, SampleText, ""},
        {{"cat", "//demo/files/docs/a.txt"}, 0, SampleText, ""},
        {{"cat", R"(\\DEMO\Files\DOCS\A.TXT)"}, 0, SampleText, ""},
        {{"cat", R"(\\demo\files\docs\empty.txt)"}, 0, "", ""},
        {{"cat", R"(\\demo\files\docs\old\größe UND maß.txt)"},
         0,
         "Names with blanks and letters outside ASCII are names like any other.\n",
         ""},
        // A failure among several: the others are served.
        {{"cat", R"(\\demo\files\nope)", R"(\\demo\files\docs\b.txt)"},
         1,
         Second,
         "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): \\\\demo\\files\\nope\n"},
        {{"cat", R"(\\demo\files\no\where)"},
         1,
         "",
         "STATUS_OBJECT_PATH_NOT_FOUND (0xC000003A): \\\\demo\\files\\no\\where\n"},
        {{"cat", R"(\\demo\files\docs)"}, 1, "", "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA): \\\\demo\\files\\docs\n"},
        {{"cat", R"(\\demo\files)"}, 1, "", "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA): \\\\demo\\files\n"},
        {{"cat", R"(\\nosuch\files\x)"}, 1, "", "STATUS_BAD_NETWORK_PATH (0xC00000BE): \\\\nosuch\\files\\x\n"},
        {{"cat", R"(\\demo\nosuch\x)"}, 1, "", "STATUS_BAD_NETWORK_NAME (0xC00000CC): \\\\demo\\nosuch\\x\n"},
        {{"claim", R"(\\demo\files\docs)"}, 0, "STATUS_SUCCESS (0x00000000)\nclaimed \\\\demo\\files (22 bytes)\n", ""},
        {{"--set", "UNCPathFilterBehavior=1", "claim", R"(\\demo\nosuch\docs)"},
         0,
         "STATUS_SUCCESS (0x00000000)\nclaimed \\\\demo (10 bytes)\n",
         ""},
        {{"claim", R"(\\demo\nosuch\docs)"}, 1, "", "STATUS_BAD_NETWORK_NAME (0xC00000CC): \\\\demo\\nosuch\\docs\n"},
    };
    for (const Case &Each : Cases) {
        Check(Each);
    }
}

TEST(Program, NamesThatAreNoneAreRefusedByTheDriver) {
    const std::string Component(300, 'a');
    const std::string Long(32'700, 'b');
    const std::string Longer(70'000, 'c');
    for (const std::string &Rest :
         {std::string("do*\\a.txt"), std::string("\\docs\\a.txt"), std::string("docs\\\\a.txt"),
          std::string("..\\passwd"), std::string("docs\\a.txt:stream"), std::string("a\tb"), Component, Long, Longer}) {
        const std::string Path = R"(\\demo\files\)" + Rest;
        Check({{"cat", Path}, 1, "", "STATUS_OBJECT_NAME_INVALID (0xC0000033): " + Path + "\n"});
    }
}

TEST(Program, BadUsageIsSaidAndEndsWithTwo) {
    const Case Cases[] = {
        {{"frobnicate"}, 2, "", "frobnicate: no such verb; help lists them\n"},
        {{"--set", "EnableDebug=0", "frobnicate"}, 2, "", "frobnicate: no such verb; help lists them\n"},
        {{"put", R"(\\demo\files\there)", "here"},
         2,
         "",
         "put: the target comes last: put here \\\\demo\\files\\there\n"},
        {{"--bogus"}, 2, "", "The following argument was not expected: --bogus..."},
        {{"cat"}, 2, "", "cat: PATH is required; help cat tells what it takes\n"},
        {{"cat", "docs/a.txt"}, 2, "", "docs/a.txt: a remote path begins with \\\\server\\volume\n"},
        {{"cat", ""}, 2, "", ": a remote path begins with..."},
        {{"cat", R"(\\demo)"}, 2, "", "\\\\demo: a remote path names a server and a volume..."},
        {{"cat", R"(\\demo\)"}, 2, "", "\\\\demo\\: a remote path names a server and a volume..."},
        {{"cat", R"(\\\files\a.txt)"}, 2, "", "\\\\\\files\\a.txt: a remote path names a server and a volume..."},
        {{"cat", "\\\\demo\\files\\\xff"}, 2, "", "an argument is not valid UTF-8\n"},
        {{"cp", "/etc/passwd", "/tmp/x"}, 2, "", "one side at least is remote..."},
        {{"--export", "x", "tour"}, 2, "", "x: expected --export '\\\\server\\volume=DIR'\n"},
        {{"--export", R"(\\a\b=)", "tour"}, 2, "", "\\\\a\\b=: expected --export..."},
        {{"--export", R"(\\a=/tmp)", "tour"}, 2, "", "\\\\a: a remote path names a server and a volume..."},
        {{"--export", R"(\\a\b\c=/tmp)", "tour"}, 2, "", "cannot export /tmp: the name must be \\\\server\\volume..."},
        {{"--export", R"(\\a\b=/no/where)", "tour"}, 2, "", "cannot export /no/where: No such file or directory\n"},
        {{"--export", R"(\\a\b=/etc/passwd)", "tour"}, 2, "", "cannot export /etc/passwd: Not a directory\n"},
        {{"--export", R"(\\a\b=/tmp)", "--export", R"(\\A\B=/etc)", "tour"},
         2,
         "",
         "cannot export /etc: its volume..."},
        {{"--quota", R"(\\a\b=1)", "tour"}, 2, "", "--quota \\\\a\\b: no export of that name\n"},
        {{"--set", "Frobnicate=1", "tour"}, 2, "", "--set: the driver has no switch Frobnicate; it has Enable..."},
        {{"--set", "EnableDebug", "tour"}, 2, "", "EnableDebug: expected --set NAME=VALUE\n"},
        {{"--set", "EnableDebug=yes", "tour"}, 2, "", "yes: not a number\n"},
        {{"--set", "EnableDebug=0x100000000", "tour"}, 2, "", "0x100000000: larger than 4294967295\n"},
        {{"--trace", "create,bogus", "tour"},
         2,
         "",
         "bogus: no category of messages; there are entry, read, start,..."},
        {{"--log", "/no/where/log", "tour"}, 2, "", "--log /no/where/log: No such file or directory\n"},
        {{"--log", "/dev/null", "tour"}, 2, "", "--log /dev/null: not a regular file\n"},
        {{"open", R"(\\demo\files)", "--access", "look"}, 2, "", "--access: look is none of append, delete..."},
        {{"open", R"(\\demo\files)", "--share", "x"}, 2, "", "--share: x is none of the letters -drw\n"},
        {{"open", R"(\\demo\files)", "--disposition", "x"}, 2, "", "--disposition: x is none of create, open..."},
        {{"open", R"(\\demo\files)", "--options", "x"}, 2, "", "--options: x is none of delete_on_close..."},
        {{"open", R"(\\demo\files)", "--allocation-size", "-1"}, 2, "", "-1: a size reads like..."},
    };
    for (const Case &Each : Cases) {
        Check(Each);
    }
}

TEST(Program, OpenTellsStatusAndInformationOfEveryDisposition) {
    const test::ScratchDirectory Served;
    std::filesystem::create_directories(Served.Path() / "full" / "inside");
    const auto Open = [&Served](std::vector<std::string> Options) {
        std::vector<std::string> Words = {"--export", "\\\\srv\\vol=" + Served.Path().string(), "open"};
        Words.insert(Words.end(), Options.begin(), Options.end());
        return Words;
    };
    const std::string File = R"(\\srv\vol\f)";
    const std::string Good = "STATUS_SUCCESS (0x00000000)\nInformation ";
    const Case Cases[] = {
        {Open({File}), 1, "Information FILE_DOES_NOT_EXIST\n", "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): ..."},
        {Open({File, "--disposition", "create", "--access", "write,synchronize", "--options",
               "non_directory_file,synchronous_io_nonalert"}),
         0, Good + "FILE_CREATED\n", ""},
        {Open({File, "--disposition", "create"}), 1, "Information FILE_EXISTS\n",
         "STATUS_OBJECT_NAME_COLLISION (0xC0000035): ..."},
        {Open({File, "--disposition", "open_if"}), 0, Good + "FILE_OPENED\n", ""},
        {Open({File, "--disposition", "overwrite", "--access", "0x120116"}), 0, Good + "FILE_OVERWRITTEN\n", ""},
        {Open({R"(\\srv\vol\d)", "--disposition", "create", "--options", "directory_file"}), 0, Good + "FILE_CREATED\n",
         ""},
        {Open({R"(\\srv\vol\d)", "--options", "non_directory_file"}), 1, "Information FILE_DOES_NOT_EXIST\n",
         "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA): ..."},
        {Open({R"(\\srv\vol\big)", "--disposition", "create", "--allocation-size", "0x7fffffffffffffff"}), 1,
         "Information FILE_DOES_NOT_EXIST\n", "STATUS_DISK_FULL (0xC000007F): ..."},
        {Open({R"(\\srv\vol\r)", "--disposition", "create", "--access", "delete,synchronize", "--attributes", "r",
               "--options", "delete_on_close,non_directory_file,synchronous_io_nonalert"}),
         1, "Information FILE_SUPERSEDED\n", "STATUS_CANNOT_DELETE (0xC0000121): ..."},
        {Open({File, "--access", "0"}), 1, "Information none: the driver was not asked\n",
         "STATUS_INVALID_PARAMETER (0xC000000D): ..."},
        {Open({File, "--access", "delete,synchronize", "--options", "delete_on_close,synchronous_io_nonalert"}), 0,
         Good + "FILE_OPENED\n", ""},
        // What the close says of the deletion counts too.
        {Open({R"(\\srv\vol\full)", "--access", "delete", "--options", "delete_on_close,directory_file"}), 1,
         Good + "FILE_OPENED\n", "STATUS_DIRECTORY_NOT_EMPTY (0xC0000101): \\\\srv\\vol\\full\n"},
    };
    for (const Case &Each : Cases) {
        Check(Each);
    }
    EXPECT_FALSE(Served.Has("f")) << "delete-on-close left the file";
    EXPECT_TRUE(Served.Has("d"));
    EXPECT_FALSE(Served.Has("big") || Served.Has("r"));
}

TEST(Program, TraceAndLogBringTheDriversOwnLines) {
    const test::ScratchDirectory Scratch;
    const std::vector<std::string> Claim = {"claim", R"(\\demo\files)"};
    const auto With = [&Claim](std::vector<std::string> Options) {
        Options.insert(Options.end(), Claim.begin(), Claim.end());
        return RunProgram(Options);
    };
    const std::string Line =
        "IOCTL_REDIR_QUERY_PATH_EX successfully claiming \"\\demo\\files\" of \"\\demo\\files\" (22 "
        "bytes).\n";

    const Ran Traced = With({"--trace", "0x1000"});
    EXPECT_EQ(Traced.Code, 0);
    EXPECT_THAT(Traced.Error, HasSubstr("[RVFSD] [RVFSD] " + Line));
    EXPECT_THAT(Traced.Error, Not(HasSubstr("DriverEntry"))) << "a category that was not asked for";
    EXPECT_THAT(With({"--trace", "0x1000", "--set", "EnableDebug=6"}).Error,
                ContainsRegex("\\[TID - 0x[0-9A-F]+\\] \\[PID - 0x[0-9A-F]+\\] \\[RVFSD\\] "));

    Scratch.Write("log", std::string(1 << 20, 'x')); // of an earlier run
    const Ran Logged = With({"--log", Scratch.File("log")});
    EXPECT_EQ(Logged.Code, 0);
    EXPECT_EQ(Logged.Error, "");
    const std::string Log = Scratch.Read("log");
    EXPECT_THAT(Log, StartsWith("Twfs Log starting "));
    EXPECT_THAT(Log, HasSubstr("\n[RVFSD] [RVFSD] " + Line));
    EXPECT_THAT(Log, Not(HasSubstr("xxxx")));
    With({"--log", Scratch.File("log"), "--set", "DebugLogging=3"}); // the driver deletes the old log itself
    EXPECT_THAT(Scratch.Read("log"), StartsWith("Twfs Log starting "));
}

TEST(Program, OutputThatCannotBeWrittenIsAFailure) {
    const Ran Walk = test::RunProgramInto("/dev/full", {});
    EXPECT_EQ(Walk.Code, 1);
    EXPECT_EQ(Walk.Error, "standard output: No space left on device\n");
    EXPECT_EQ(test::RunProgramInto("/dev/full", {"cat", R"(\\demo\files\docs\a.txt)"}).Code, 1);
    EXPECT_EQ(test::RunProgramInto("/dev/full", {"--help"}).Error, Walk.Error);
}

TEST(Program, ShellsCompleteVerbsAndOptions) {
    const test::ScratchDirectory Scratch;
    Scratch.Write("rvfsd.bash", RunProgram({"completion", "bash"}).Out);
    const std::pair<const char *, const char *> Cases[] = {
        {"rvfsd pu", "put"},          {"rvfsd --json cl", "claim"},
        {"rvfsd help pu", "put"},     {"rvfsd put --in", "--inplace"},
        {"rvfsd put --js", "--json"}, {"rvfsd put pu", ""},
        {"rvfsd completion z", "zsh"}};
    for (const auto &[Line, Offered] : Cases) {
        const std::string Words =
            "set -- " + std::string(Line) + "; . '" + Scratch.File("rvfsd.bash") +
            "'; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _rvfsd; echo -n \"${COMPREPLY[*]}\" >'" +
            Scratch.File("out") + "'";
        Scratch.Write("script", Words);
        EXPECT_EQ(std::system(("bash '" + Scratch.File("script") + "'").c_str()), 0);
        EXPECT_EQ(Scratch.Read("out"), Offered) << Line;
    }
}

TEST(Program, TellsItsVersionAndItsDriver) {
    const Ran Version = RunProgram({"--version"});
    EXPECT_EQ(Version.Code, 0);
    EXPECT_THAT(Version.Out, ContainsRegex("^rvfsd [0-9]+\\.[0-9]+\\.[0-9]+, the driver "));
    EXPECT_THAT(Version.Out,
                HasSubstr(ImageUnderTest().empty() ? "linked natively\n" : "is the image " + ImageUnderTest()));
    const Ran Help = RunProgram({"--help"});
    EXPECT_EQ(Help.Code, 0);
    for (const char *Verb : {"cat", "put", "cp", "open", "claim", "console", "tour"}) {
        EXPECT_THAT(Help.Out, ContainsRegex(std::string("\n  ") + Verb + "  ")) << Verb;
    }
}

} // namespace
