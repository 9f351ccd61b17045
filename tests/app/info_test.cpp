// Asking and changing what files and volumes are, as users do: stat, df, vol, attrib, touch, truncate, rm, rmdir, mv.

#include "tests/app/program.h"

namespace {

using namespace test;
using namespace testing;

// An export \\s\v with a file and a directory, and links to it.
class Information : public ProgramOverExport {
protected:
    Information() : ProgramOverExport(R"(\\s\v)") {
        Served.Write("f", "content");
        std::filesystem::create_directories(Served.Path() / "d" / "e");
        Options.insert(Options.end(), {"--export", R"(\\dfs\l=\\S\V\d)"});
    }
};

TEST_F(Information, StatShowsEveryClassWithTheNamesOfItsFlags) {
    const std::string Shown = Out({"stat", R"(\\s\v\f)"});
    for (const char *Line : {
             "FileBasicInformation +created 20.* accessed 20",
             "attributes 0x80 NORMAL\n",
             "FileStandardInformation +size 7  allocated 7  links 1  delete pending no  directory no\n",
             "FileInternalInformation +index 0x[0-9a-f]{16}\n",
             "FileEaInformation +size 0\n",
             "FileAccessInformation +access 0x100080 READ_ATTRIBUTES SYNCHRONIZE\n",
             R"(FileNameInformation +\\\\s\\v\\f)",
             "FilePositionInformation +offset 0\n",
             "FileModeInformation +mode 0x20 SYNCHRONOUS_IO_NONALERT\n",
             "FileAlignmentInformation +requirement 0\n",
             "FileAllInformation +112 bytes",
             R"(FileAlternateNameInformation +\\\\s\\v\\f)",
             R"(FileStreamInformation +STATUS_INVALID_PARAMETER \(0xC000000D\))",
             "FileNetworkOpenInformation +size 7  allocated 7  attributes 0x80 NORMAL\n",
             "FileAttributeTagInformation +attributes 0x0  reparse tag 0\n",
         }) {
        EXPECT_THAT(Shown, ContainsRegex(Line));
    }
    EXPECT_THAT(Out({"stat", R"(\\s\v\d)"}), HasSubstr("attributes 0x10 DIRECTORY\n"));
    // The same as a record.
    EXPECT_THAT(
        Out({"stat", "--json", R"(\\s\v\f)"}),
        ContainsRegex(
            "^\\{\"path\":\"[^\"]*\",\"created\":\"20.*\"attributes\":\\[\"NORMAL\"\\],\"size\":7,.*\"directory\":"
            "false,\"index\":\"0x[0-9a-f]{16}\",\"ea_size\":0,\"refused\":\\[\"FileStreamInformation "
            "STATUS_INVALID_PARAMETER\"\\]\\}\n$"));
}

TEST_F(Information, OneClassIsShownAsItCame) {
    const Ran Cut = Run({"stat", R"(\\s\v\f)", "--class", "9", "--length", "9"});
    EXPECT_EQ(Cut.Code, 1);
    EXPECT_EQ(Cut.Out, "STATUS_BUFFER_OVERFLOW (0x80000005)\nInformation 9\n"
                       "0000  0c 00 00 00 5c 00 73 00 5c                       ....\\.s.\\\n");
    EXPECT_EQ(Out({"stat", R"(\\s\v\f)", "--class", "7", "--length", "100"}),
              "STATUS_SUCCESS (0x00000000)\nInformation 4\n"
              "0000  00 00 00 00                                      ....\n");
    EXPECT_THAT(Out({"vol", R"(\\s\v)", "--class", "4"}), HasSubstr("0000  07 00 00 00 30 00 00 00 "));
    for (const char *Number : {"0", "1", "1000"}) {
        EXPECT_THAT(Run({"stat", R"(\\s\v\f)", "--class", Number}).Out,
                    HasSubstr("STATUS_INVALID_INFO_CLASS (0xC0000003)\nInformation 0\n"));
    }
    EXPECT_THAT(Run({"stat", R"(\\s\v\f)", "--class", "4", "--length", "39"}).Out,
                HasSubstr("STATUS_INFO_LENGTH_MISMATCH (0xC0000004)\nInformation 0\n"));
    EXPECT_EQ(Run({"stat", R"(\\s\v\f)", "--length", "4"}).Code, 2) << "of which class?";
}

TEST_F(Information, VolumesAnswerAlikeThroughADistributedPath) {
    const auto Volume = [this](const char *Path, std::vector<std::string> Options) {
        Options.insert(Options.end(), {"vol", Path});
        const std::string Shown = Out(Options);
        return Shown.substr(Shown.find('\n')); // behind the path
    };
    const std::vector<std::string> Quota = {"--quota", R"(\\s\v=100000)"};
    const std::string Direct = Volume(R"(\\s\v\d)", Quota);
    EXPECT_EQ(Volume(R"(\\dfs\l)", Quota), Direct);
    EXPECT_THAT(Direct, HasSubstr("label \"V\""));
    EXPECT_THAT(Direct, HasSubstr("units 24 (98304 bytes)"));
    EXPECT_THAT(Direct, HasSubstr("attributes 0xa2 CASE_PRESERVED_NAMES VOLUME_QUOTAS SUPPORTS_REPARSE_POINTS\n"));
    EXPECT_THAT(Volume(R"(\\dfs\l\e)", {}),
                HasSubstr("attributes 0x82 CASE_PRESERVED_NAMES SUPPORTS_REPARSE_POINTS\n"));
    const std::string Space = Out({"--quota", R"(\\s\v=100000)", "df"});
    for (const char *Name : {R"(\\\\s\\v)", R"(\\\\dfs\\l)"}) {
        EXPECT_THAT(Space, ContainsRegex(std::string(Name) + " +98304 +[0-9]+ +[0-9]+  quota\n"));
    }
}

TEST_F(Information, ALinkServesADirectoryOfAnotherExport) {
    EXPECT_EQ(Out({"claim", R"(\\dfs\l\e)"}), "STATUS_SUCCESS (0x00000000)\nclaimed \\\\dfs\\l (12 bytes)\n");
    EXPECT_EQ(Out({"mv", R"(\\s\v\f)", R"(\\dfs\l\g)"}), "");
    EXPECT_EQ(Out({"cat", R"(\\DFS\L\G)"}), "content");
    EXPECT_EQ(Out({"find", R"(\\dfs\l)"}), "\\\\dfs\\l\\e\n\\\\dfs\\l\\g\n");
    EXPECT_EQ(Out({"rm", R"(\\dfs\l\g)"}), "");
    EXPECT_FALSE(Served.Has("d/g"));
    ExpectRefused({"rmdir", R"(\\dfs\l)"}, 1, "STATUS_CANNOT_DELETE (0xC0000121): \\\\dfs\\l\n");
}

TEST_F(Information, AttributesAndTimesAreChangedAndKept) {
    EXPECT_EQ(Out({"attrib", "+rhsa", R"(\\s\v\f)"}), "");
    EXPECT_THAT(Out({"stat", R"(\\s\v\f)"}), HasSubstr("attributes 0x27 READONLY HIDDEN SYSTEM ARCHIVE\n"));
    ExpectRefused({"rm", R"(\\s\v\f)"}, 1, "STATUS_CANNOT_DELETE (0xC0000121): \\\\s\\v\\f\n");
    EXPECT_EQ(Out({"mv", R"(\\s\v\f)", R"(\\s\v\F)"}), "") << "read-only files may be renamed";
    EXPECT_EQ(Out({"attrib", "-hs", R"(\\s\v\f)"}), "") << "-h is a change, not a call for help";
    EXPECT_THAT(Out({"stat", R"(\\s\v\f)"}), HasSubstr("attributes 0x21 READONLY ARCHIVE\n"));
    EXPECT_EQ(Out({"attrib", R"(\\s\v\F*)"}), "-r--a  \\\\s\\v\\F\n");
    EXPECT_EQ(Out({"touch", "-d", "2001-02-03T04:05:07.25Z", R"(\\s\v\f)"}), "");
    EXPECT_THAT(Out({"stat", "--json", R"(\\s\v\f)"}), HasSubstr("\"written\":\"2001-02-03T04:05:07.2500000Z\""));
    EXPECT_EQ(Out({"touch", "--time", "2001-02-03 04:05:06", R"(\\s\v\f)"}), "");
    const std::string Kept = Out({"stat", R"(\\s\v\f)"});
    EXPECT_THAT(Kept, HasSubstr("written 2001-02-03 04:05:06.0000000"));
    for (const char *Unchanged : {"0", "-1"}) {
        EXPECT_EQ(Out({"touch", "--time", Unchanged, R"(\\s\v\f)"}), "");
    }
    ExpectRefused({"touch", "--time", "9223372036854775807", R"(\\s\v\f)"}, 1,
                  "STATUS_INVALID_PARAMETER (0xC000000D): \\\\s\\v\\f\n");
    EXPECT_EQ(Out({"stat", R"(\\s\v\f)"}), Kept);
    EXPECT_EQ(Out({"rm", "--force", R"(\\s\v\f)"}), "");
    EXPECT_FALSE(Served.Has("F"));
}

TEST_F(Information, WhatIsNoChangeIsBadUsage) {
    for (const char *Text : {"+", "-", "+-h", "+h-", "h", "+x", ""}) {
        ExpectRefused({"attrib", Text, R"(\\s\v\f)"}, 2, std::string(Text) + ": a change reads like +r-ha");
    }
    ExpectRefused({"touch", "--time", "2001-02-03 04:05:06x", R"(\\s\v\f)"}, 2, "2001-02-03 04:05:06x: x does not");
    for (const char *NoDay : {"2026-02-31", "2026-02-31 10:00:00", "2025-02-29"}) {
        ExpectRefused({"touch", "--time", NoDay, R"(\\s\v\f)"}, 2, std::string(NoDay) + ": there is no such day\n");
    }
    for (const char *NoTime : {"-2", "yesterday"}) {
        ExpectRefused({"touch", "--time", NoTime, R"(\\s\v\f)"}, 2, std::string(NoTime) + ": a time reads like 2026-");
    }
    ExpectRefused({"--export", R"(\\a\b=\\s\v\nope)", "df"}, 2, "cannot link \\\\a\\b to \\\\s\\v\\nope: there is no");
    ExpectRefused({"--export", R"(\\a\b=\s\v)", "df"}, 2, "\\s\\v: a remote path begins with");
    ExpectRefused({"--export", R"(\\a\b=\\s)", "df"}, 2, "\\\\s: a remote path names a server and a volume");
    ExpectRefused({"--quota", R"(\\dfs\l=5)", "df"}, 2, "--quota \\\\dfs\\l: a link has the quota of the export that");
    ExpectRefused({"rm"}, 2, "rm: PATH is required");
    ExpectRefused({"truncate", R"(\\s\v\f)"}, 2, "truncate: to which size?");
    ExpectRefused({"attrib", "+r"}, 2, "attrib: PATH is required");
    ExpectRefused({"tour"}, 2, "tour: there is no \\\\s\\v\\docs\\a.txt to be read");
    for (const char *NoSize : {"1Q", "-1", "M"}) {
        ExpectRefused({"truncate", R"(\\s\v\f)", NoSize}, 2, std::string(NoSize) + ": a size reads like 4096, 64K");
    }
}

TEST_F(Information, RefusedChangesLeaveEverythingAsItWas) {
    Served.Write("g", "other");
    ExpectRefused({"truncate", R"(\\s\v\f)", "9223372036854775807"}, 1, "STATUS_DISK_FULL (0xC000007F): \\\\s\\v\\f\n");
    ExpectRefused({"truncate", R"(\\s\v\d)", "1"}, 1, "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA): \\\\s\\v\\d\n");
    ExpectRefused({"mv", R"(\\s\v\f)", R"(\\s\v\g)"}, 1,
                  "STATUS_OBJECT_NAME_COLLISION (0xC0000035): \\\\s\\v\\g; --rep");
    ExpectRefused({"mv", R"(\\s\v\f)", R"(\\s\v\no\g)"}, 1,
                  "STATUS_OBJECT_PATH_NOT_FOUND (0xC000003A): \\\\s\\v\\no\\g");
    ExpectRefused({"mv", R"(\\s\v\no)", R"(\\s\v\x)"}, 1, "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): \\\\s\\v\\no");
    ExpectRefused({"rm", R"(\\s\v\d)"}, 1, "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA): \\\\s\\v\\d; -r deletes");
    ExpectRefused({"mv", R"(\\s\v\d)", R"(\\s\v\g)", "--replace"}, 1, "STATUS_OBJECT_NAME_COLLISION (0xC0000035)");
    ExpectRefused({"mv", R"(\\s\v\d)", R"(\\s\v\D\e\x)"}, 1, "\\\\s\\v\\D\\e\\x: a directory is not moved into itself");
    ExpectRefused({"mv", R"(\\s\v\f)", R"(\\no\v\x)"}, 1, "STATUS_BAD_NETWORK_PATH (0xC00000BE): \\\\no\\v\\x");
    for (const std::vector<std::string> &Words :
         {std::vector<std::string>{"rm"}, {"cat"}, {"ls"}, {"touch"}, {"mv", R"(\\s\v\d)"}}) {
        std::vector<std::string> Line = Words;
        Line.insert(Line.begin() + 1, R"(\\s\v\f\)");
        ExpectRefused(Line, 1, "STATUS_NOT_A_DIRECTORY (0xC0000103): \\\\s\\v\\f\n");
    }
    ExpectRefused({"rmdir", R"(\\s\v\d)"}, 1, "STATUS_DIRECTORY_NOT_EMPTY (0xC0000101): \\\\s\\v\\d\n");
    EXPECT_EQ(Served.Read("f"), "content");
    EXPECT_EQ(Served.Read("g"), "other");
    EXPECT_EQ(Out({"mv", R"(\\s\v\f)", R"(\\s\v\g)", "--replace"}), "");
    EXPECT_EQ(Served.Read("g"), "content");
    EXPECT_EQ(Out({"truncate", "-s", "3", R"(\\s\v\g)"}), "");
    EXPECT_EQ(Served.Read("g"), "con");
    EXPECT_EQ(Out({"rmdir", R"(\\s\v\d\e)", R"(\\s\v\d)"}), "");
    EXPECT_FALSE(Served.Has("d"));
}

TEST_F(Information, SeveralFilesGoIntoADirectoryAndFromVolumeToVolume) {
    const test::ScratchDirectory Elsewhere;
    const auto With = [&](std::vector<std::string> Words) {
        Words.insert(Words.begin(), {"--export", R"(\\s\w=)" + Elsewhere.Path().string()});
        return Run(Words);
    };
    Served.Write("g.txt", "g");
    Served.Write("h.txt", "h");
    std::filesystem::create_directories(Served.Path() / "m" / "e");
    EXPECT_EQ(Out({"mv", R"(\\s\v\*.txt)", R"(\\s\v\f)", R"(\\s\v\m\)"}), "");
    EXPECT_EQ(Served.Read("m/g.txt") + Served.Read("m/h.txt") + Served.Read("m/f"), "ghcontent");
    EXPECT_EQ(Out({"mv", R"(\\s\v\m)", R"(\\s\v\M)"}), "") << "a change of case is no move into itself";
    EXPECT_EQ(Out({"touch", "--time", "2001-02-03", R"(\\s\v\M\f)"}), "");
    EXPECT_EQ(With({"mv", R"(\\s\v\M)", R"(\\s\w)"}).Error, "");
    EXPECT_EQ(Elsewhere.Read("M/f"), "content");
    EXPECT_TRUE(Elsewhere.Has("M/e"));
    EXPECT_FALSE(Served.Has("M"));
    EXPECT_THAT(With({"ls", "-l", R"(\\s\w\M\f)"}).Out, HasSubstr("2001-02-03 00:00:00"));
    Served.Write("f", "new");
    const Ran Kept = With({"mv", R"(\\s\v\f)", R"(\\s\w\M)"});
    EXPECT_EQ(Kept.Error, "STATUS_OBJECT_NAME_COLLISION (0xC0000035): \\\\s\\w\\M\\f; --replace replaces a file\n");
    EXPECT_EQ(Served.Read("f") + Elsewhere.Read("M/f"), "newcontent");
    EXPECT_EQ(With({"mv", "-f", R"(\\s\v\f)", R"(\\s\w\M)"}).Code, 0);
    EXPECT_EQ(Elsewhere.Read("M/f"), "new");
}

TEST_F(Information, WholeTreesAreMadeAndDeleted) {
    EXPECT_EQ(Out({"mkdir", "-p", R"(\\s\v\d\x\y\)", R"(\\s\v\d\x)"}), "");
    EXPECT_TRUE(Served.Has("d/x/y"));
    ExpectRefused({"mkdir", "-p", R"(\\s\v\f\x)"}, 1, "STATUS_OBJECT_NAME_COLLISION (0xC0000035): \\\\s\\v\\f");
    EXPECT_EQ(Out({"attrib", "+r", R"(\\s\v\f)"}), "");
    EXPECT_EQ(Out({"rm", "-rf", R"(\\s\v\d\x)", R"(\\s\v\f)"}), "");
    EXPECT_FALSE(Served.Has("f") || Served.Has("d/x"));
    // What a link leads to is not of the tree.
    std::filesystem::create_directory(Served.Path() / "kept");
    Served.Write("kept/file", "kept");
    std::filesystem::create_directory_symlink("../kept", Served.Path() / "d" / "link");
    ExpectRefused({"rm", "-rf", R"(\\s\v\d)"}, 1, "\\\\s\\v\\d\\link: a link to a directory, which is neither");
    EXPECT_EQ(Served.Read("kept/file"), "kept");
    EXPECT_FALSE(Served.Has("d/e"));
    EXPECT_EQ(Out({"rm", "-f", R"(\\s\v\nope)", R"(\\s\v\no\where)", R"(\\s\v\*.no)"}), "");
    EXPECT_EQ(Out({"rm", "-f"}), "");
    ExpectRefused({"rm", R"(\\s\v\nope)"}, 1, "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): \\\\s\\v\\nope");
}

TEST_F(Information, AQuotaReallyCounts) {
    const auto With = [this](std::vector<std::string> Words) {
        Words.insert(Words.begin(), {"--quota", R"(\\s\v=100000)"});
        return Run(Words);
    };
    EXPECT_EQ(With({"truncate", R"(\\s\v\f)", "99000"}).Code, 0);
    const Ran Full = With({"truncate", R"(\\s\v\f)", "100001"});
    EXPECT_EQ(Full.Code, 1);
    EXPECT_EQ(Full.Error, "STATUS_DISK_FULL (0xC000007F): \\\\s\\v\\f\n");
    EXPECT_THAT(With({"df", R"(\\s\v)"}).Out, ContainsRegex(" 98304 +98304 +0  quota\n"));
    EXPECT_EQ(With({"rm", R"(\\s\v\f)"}).Code, 0);
    EXPECT_THAT(With({"df", R"(\\s\v)"}).Out, ContainsRegex(" 98304 +0 +98304  quota\n"));
}

} // namespace
