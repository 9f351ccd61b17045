// The console: verbs over one running driver, on a terminal and without one.

#include "tests/app/program.h"

namespace {

using test::Ran;
using testing::HasSubstr;

constexpr auto Prompt = "\nrvfsd> "; // a redrawn one begins with a carriage return
constexpr auto SecondFile = "A second file, so that a listing has something to list.";

TEST(ProgramConsole, ASessionOnATerminal) {
    if (!test::Terminal::CanBeHad()) {
        GTEST_SKIP() << "no pseudo terminals here";
    }
    test::Terminal Screen({});
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr("rvfsd console; exports: \\\\demo\\files"));

    Screen.Type("cat \\\\demo\\files\\docs\\b.txt\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr(SecondFile));
    // The tabulator finishes verbs, exports, directories, files and options.
    Screen.Type("cla\t\\\\de\tdo\t\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr("claimed \\\\demo\\files (22 bytes)"));
    Screen.Type("cat //demo/files/docs/b\t\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr(SecondFile));
    Screen.Type("cat \\\\demo\\files\\d\tb\t\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr(SecondFile));
    Screen.Type("cat \\\\demo\\files\\docs\\old\\\t\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr("Names with blanks"));
    Screen.Type("cat '\\\\demo\\files\\docs\\old\\Gr\t\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr("Names with blanks"));
    Screen.Type("open \\\\demo\\files\\x --dis\tcreate --acc\t0\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr("STATUS_INVALID_PARAMETER (0xC000000D)"));
    // The arrow brings the line before the last.
    Screen.Type("\x1b[A\x1b[A\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr("Names with blanks"));
    Screen.Type("nonsense\n");
    EXPECT_THAT(Screen.Expect(Prompt), HasSubstr("\nnonsense: no such verb; help lists them"));
    // Ctrl-D on an empty line ends. It must not come before the line editor has the terminal, which a completion shows.
    Screen.Type("qui\t");
    Screen.Expect("quit");
    Screen.Type("\x15\x04");
    EXPECT_EQ(Screen.Finish(), 0);
    // The next console has its lines.
    test::Terminal Later({});
    Later.Expect(Prompt);
    Later.Type("\x1b[A\x1b[A\n");
    EXPECT_THAT(Later.Expect(Prompt), HasSubstr("Names with blanks"));
}

TEST(ProgramConsole, ShowsSwitchesRequestsAndTraces) {
    const Ran Session = test::RunProgram({"--set", "UNCPathFilterBehavior=1", "console"},
                                         "set\n"
                                         "requests on\n"
                                         "cat \\\\demo\\files\\docs\\b.txt\n"
                                         "requests off\n"
                                         "trace control on\n"
                                         "claim \\\\demo\\files\n"
                                         "trace 0x1000 off\n"
                                         "cat \"\\\\demo\\files\\docs\\old\\Größe und Maß.txt\"\n"
                                         "quit\n");
    EXPECT_EQ(Session.Code, 0);
    EXPECT_THAT(Session.Out, HasSubstr("UNCPathFilterBehavior              0x1\n"));
    EXPECT_THAT(Session.Out, HasSubstr("FailDeleteInUseWorkaround          0x1  (default)\n"));
    EXPECT_THAT(Session.Out, HasSubstr("IRP_MJ_READ              STATUS_END_OF_FILE (0xC0000011)"));
    EXPECT_THAT(Session.Out, HasSubstr("    RVFsdCloseVolume(handle="));
    EXPECT_THAT(Session.Error, HasSubstr("NtFsdCommonDeviceControl() returning 0x0\n"));
    // After "off" there is nothing but the file.
    const std::string Last = "categories traced: none (0x0)\n"
                             "Names with blanks and letters outside ASCII are names like any other.\n";
    EXPECT_TRUE(Session.Out.ends_with(Last)) << Session.Out;
    EXPECT_THAT(Session.Error, Not(HasSubstr("NtFsdCreate")));
}

TEST(ProgramConsole, GoesOnAfterMistakes) {
    const Ran Session = test::RunProgram({"console"}, "\n"
                                                      "   \n"
                                                      "cat\n"
                                                      "cat \"open\n"
                                                      "cat \\\\demo\\files\\nope\n"
                                                      "trace x on\n"
                                                      "requests perhaps\n"
                                                      "set EnableDebug=1\n"
                                                      "\xff\xfe\n"
                                                      "cat \\\\demo\\files\\docs\\b.txt\n");
    EXPECT_EQ(Session.Code, 2) << "of the last failure";
    for (const char *Message : {"PATH is required", "a quotation mark is not closed",
                                "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): ", "x: no category of messages",
                                "requests on, or requests off", "set shows the switches"}) {
        EXPECT_THAT(Session.Error, HasSubstr(Message));
    }
    EXPECT_EQ(Session.Out, SecondFile + std::string("\n")) << "and no banner";
    const Ran Stopped = test::RunProgram({"console", "-e"}, "cat \\\\demo\\files\\nope\nls\n");
    EXPECT_EQ(Stopped.Code, 1);
    EXPECT_EQ(Stopped.Out, "");
}

TEST(ProgramConsole, HoldsLocksUntilTheyAreGivenBackAndReadsWithManyRequestsInFlight) {
    const Ran Session = test::RunProgram({"console"}, "lock //demo/files/docs/b.txt 0 4\n"
                                                      "lock //demo/files/docs/b.txt 8 4 --shared\n"
                                                      "unlock //demo/files/docs/b.txt 0 4\n"
                                                      "flush //demo/files/docs/b.txt\n"
                                                      "read //demo/files/docs/b.txt --in-flight 3 --block 5\n"
                                                      "unlock //demo/files/docs/b.txt 0 4\n");
    EXPECT_EQ(Session.Code, 1);
    EXPECT_EQ(Session.Out, SecondFile + std::string("\n"));
    EXPECT_THAT(Session.Error, HasSubstr("STATUS_RANGE_NOT_LOCKED"));
}

TEST(ProgramConsole, HasDirectoriesOfItsOwn) {
    const test::ScratchDirectory Local;
    Local.Write("mine", "mine");
    const Ran Session = test::RunProgram({"console"}, "lcd " + Local.Path().string() +
                                                          "\n"
                                                          "cd //demo/files/docs/ # where the texts are\n"
                                                          "cat b.txt\n"
                                                          "cd ..\\..\\..\npwd\n"
                                                          "put mine\n"
                                                          "cp .\\mine copy\n"
                                                          "cd nope\n"
                                                          "? rmdir\n"
                                                          "rm mine\n");
    EXPECT_EQ(Session.Code, 1);
    EXPECT_EQ(Session.Error, "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): \\\\demo\\files\\nope\n");
    EXPECT_THAT(Session.Out, HasSubstr(SecondFile + std::string("\n\\\\demo\\files\nrmdir PATH...\n")));
    EXPECT_EQ(Local.Read("copy"), "mine");
}

using ConsoleOverExport = test::ProgramOverExport;

// One process holds a range of a file, others over the same directory meet it, and no longer when it has ended.
TEST_F(ConsoleOverExport, TwoProcessesOverOneDirectorySeeEachOthersLocks) {
    Served.Write("file", "0123456789");
    const std::string File = R"(\\srv\vol\file)";
    const auto Session = [&](const std::string &Words) { return Run({"console"}, Words + "\n"); };
    const std::vector<std::string> Console = Line({"console"});
    // Types Words and a mkdir of Done, and waits until that was made.
    const auto TypeUntil = [&](int Input, const std::string &Words, const char *Done) {
        const std::string Text = Words + "mkdir \\\\srv\\vol\\" + Done + "\n";
        ASSERT_EQ(write(Input, Text.data(), Text.size()), static_cast<ssize_t>(Text.size()));
        for (int Tries = 0; !Served.Has(Done) && Tries < 60'000; ++Tries) {
            usleep(1000);
        }
        EXPECT_TRUE(Served.Has(Done));
    };
    const Ran Holder = test::RunProgramWith(Console, [&](pid_t, int Input) {
        TypeUntil(Input, "lock " + File + " 2 4\n", "locked");
        for (const char *Refused : {" 0 3", " 5 1 --shared", " 2 4 --key 7"}) {
            const Ran There = Session("lock " + File + Refused);
            EXPECT_EQ(There.Code, 1) << Refused;
            EXPECT_THAT(There.Error, HasSubstr("STATUS_"));
        }
        const Ran Beside = Session("lock " + File + " 6 4\nlock " + File + " 0 2 --shared");
        EXPECT_EQ(Beside.Code, 0) << Beside.Error;
        const Ran Waiter = test::RunProgramWith(Console, [&](pid_t, int Waiting) {
            TypeUntil(Waiting, "", "asks");
            const std::string Lock = "lock " + File + " 0 3 --wait\n";
            ASSERT_EQ(write(Waiting, Lock.data(), Lock.size()), static_cast<ssize_t>(Lock.size()));
            ASSERT_EQ(write(Input, "quit\n", 5), 5); // the holder, and its lock
            TypeUntil(Waiting, "", "granted");
        });
        EXPECT_EQ(Waiter.Code, 0) << Waiter.Error;
    });
    EXPECT_EQ(Holder.Code, 0) << Holder.Error;
    const Ran After = Session("lock " + File + " 0 10");
    EXPECT_EQ(After.Code, 0) << After.Error;
}

} // namespace
