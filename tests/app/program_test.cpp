// The program from outside: what it prints, what it says, how it ends.

#include <array>
#include <cstdlib>

#include "tests/app/program.h"
#include "tests/support/driver_under_test.h"

namespace {

using namespace test;
using namespace testing;

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
    const Case Cases[] = {
        {{"cat", R"(\\demo\files\docs\a.txt)"}, 0, SampleText, ""},
        {{"cat", "//demo/files/docs/a.txt"}, 0, SampleText, ""},
        {{"cat", R"(\\DEMO\Files\DOCS\A.TXT)"}, 0, SampleText, ""},
        {{"cat", R"(\\demo\files\docs\empty.txt)"}, 0, "", ""},
        {{"cat", R"(\\demo\files\docs\old\größe UND maß.txt)"},
         0,
         "Names with blanks and letters outside ASCII are names like any other.\n",
         ""},
        {{"claim", R"(\\demo\files\docs)"}, 0, "STATUS_SUCCESS (0x00000000)\nclaimed \\\\demo\\files (22 bytes)\n", ""},
        {{"--set", "UNCPathFilterBehavior=1", "claim", R"(\\demo\nosuch\docs)"},
         0,
         "STATUS_SUCCESS (0x00000000)\nclaimed \\\\demo (10 bytes)\n",
         ""},
        // A failure among several: the others are served.
        {{"cat", R"(\\demo\files\nope)", R"(\\demo\files\docs\b.txt)"},
         1,
         "A second file, so that a listing has something to list.\n",
         "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): \\\\demo\\files\\nope\n"},
    };
    for (const Case &Each : Cases) {
        Check(Each);
    }
    const std::array<std::string, 3> Failures[] = {
        {"cat", R"(\\demo\files\no\where)", "STATUS_OBJECT_PATH_NOT_FOUND (0xC000003A)"},
        {"cat", R"(\\demo\files\docs)", "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA)"},
        {"cat", R"(\\demo\files)", "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA)"},
        {"cat", R"(\\nosuch\files\x)", "STATUS_BAD_NETWORK_PATH (0xC00000BE)"},
        {"cat", R"(\\demo\nosuch\x)", "STATUS_BAD_NETWORK_NAME (0xC00000CC)"},
        {"claim", R"(\\demo\nosuch\docs)", "STATUS_BAD_NETWORK_NAME (0xC00000CC)"},
    };
    for (const auto &[Verb, Path, Status] : Failures) {
        Check({{Verb, Path}, 1, "", Status + ": " + Path + "\n"});
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
    const struct {
        std::vector<std::string> Arguments;
        std::string Error;
    } Cases[] = {
        {{"frobnicate"}, "frobnicate: no such verb; help lists them\n"},
        {{"--set", "EnableDebug=0", "frobnicate"}, "frobnicate: no such verb; help lists them\n"},
        {{"put", R"(\\demo\files\there)", "here"}, "put: the target comes last: put here \\\\demo\\files\\there\n"},
        {{"--bogus"}, "The following argument was not expected: --bogus..."},
        {{"cat"}, "cat: PATH is required; help cat tells what it takes\n"},
        {{"cat", "docs/a.txt"}, "docs/a.txt: a remote path begins with \\\\server\\volume\n"},
        {{"cat", ""}, ": a remote path begins with..."},
        {{"cat", R"(\\demo)"}, "\\\\demo: a remote path names a server and a volume..."},
        {{"cat", R"(\\demo\)"}, "\\\\demo\\: a remote path names a server and a volume..."},
        {{"cat", R"(\\\files\a.txt)"}, "\\\\\\files\\a.txt: a remote path names a server and a volume..."},
        {{"cat", "\\\\demo\\files\\\xff"}, "an argument is not valid UTF-8\n"},
        {{"cp", "/etc/passwd", "/tmp/x"}, "one side at least is remote..."},
        {{"--export", "x", "tour"}, "x: expected --export '\\\\server\\volume=DIR'\n"},
        {{"--export", R"(\\a\b=)", "tour"}, "\\\\a\\b=: expected --export..."},
        {{"--export", R"(\\a=/tmp)", "tour"}, "\\\\a: a remote path names a server and a volume..."},
        {{"--export", R"(\\a\b\c=/tmp)", "tour"}, "cannot export /tmp: the name must be \\\\server\\volume..."},
        {{"--export", R"(\\a\b=/no/where)", "tour"}, "cannot export /no/where: No such file or directory\n"},
        {{"--export", R"(\\a\b=/etc/passwd)", "tour"}, "cannot export /etc/passwd: Not a directory\n"},
        {{"--export", R"(\\a\b=/tmp)", "--export", R"(\\A\B=/etc)", "tour"}, "cannot export /etc: its volume..."},
        {{"--quota", R"(\\a\b=1)", "tour"}, "--quota \\\\a\\b: no export of that name\n"},
        {{"--set", "Frobnicate=1", "tour"}, "--set: the driver has no switch Frobnicate; it has Enable..."},
        {{"--set", "EnableDebug", "tour"}, "EnableDebug: expected --set NAME=VALUE\n"},
        {{"--set", "EnableDebug=yes", "tour"}, "yes: not a number\n"},
        {{"--set", "EnableDebug=0x100000000", "tour"}, "0x100000000: larger than 4294967295\n"},
        {{"--trace", "create,bogus", "tour"}, "bogus: no category of messages; there are entry, read, start,..."},
        {{"--log", "/no/where/log", "tour"}, "--log /no/where/log: No such file or directory\n"},
        {{"--log", "/dev/null", "tour"}, "--log /dev/null: not a regular file\n"},
        {{"open", R"(\\demo\files)", "--access", "look"}, "--access: look is none of append, delete..."},
        {{"open", R"(\\demo\files)", "--share", "x"}, "--share: x is none of the letters -drw\n"},
        {{"open", R"(\\demo\files)", "--disposition", "x"}, "--disposition: x is none of create, open..."},
        {{"open", R"(\\demo\files)", "--options", "x"}, "--options: x is none of delete_on_close..."},
        {{"open", R"(\\demo\files)", "--allocation-size", "-1"}, "-1: a size reads like..."},
    };
    for (const auto &Each : Cases) {
        Check({Each.Arguments, 2, "", Each.Error});
    }
}

using Opening = ProgramOverExport;

TEST_F(Opening, TellsStatusAndInformationOfEveryDisposition) {
    std::filesystem::create_directories(Served.Path() / "full" / "inside");
    Options.push_back("open");
    const auto Open = [this](const std::vector<std::string> &Words) { return Line(Words); };
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
    EXPECT_THAT(RunProgram({"help", "mount"}).Out, AllOf(HasSubstr("\n  max_read="), HasSubstr("\n  remount ")));
    for (const char *Verb : {"cat", "put", "cp", "open", "claim", "console", "tour"}) {
        EXPECT_THAT(Help.Out, ContainsRegex(std::string("\n  ") + Verb + "  ")) << Verb;
    }
}

} // namespace
