// The options that exchange the driver for an image: what is no image is said in one line and ends with 2.
#include <algorithm>

#include "tests/app/program.h"
#include "tests/support/driver_under_test.h"

using namespace test;
using testing::HasSubstr;

namespace {

const std::string File = R"(\\demo\files\docs\a.txt)";

TEST(ImageOption, WhatIsNoDriverIsSaidInOneLineAndEndsWithTwo) {
    const ScratchDirectory Scratch;
    Scratch.Write("text", "hello");
    Scratch.Write("empty", "");
    Scratch.Write("cut", std::string("MZ") + std::string(200, '\0'));
    const struct {
        std::string Image;
        const char *Says;
    } Cases[] = {
        {Scratch.File("missing"), "no such file"},        {Scratch.File("."), "not a regular file"},
        {Scratch.File("text"), "does not begin with MZ"}, {Scratch.File("empty"), "does not begin with MZ"},
        {Scratch.File("cut"), "there is no PE header"},   {RVFSD_PROGRAM, "does not begin with MZ"},
    };
    for (const auto &Case : Cases) {
        for (const std::vector<std::string> &Rest : {std::vector<std::string>{"cat", File}, {"--version"}}) {
            std::vector<std::string> Words = {"--image", Case.Image};
            Words.insert(Words.end(), Rest.begin(), Rest.end());
            const Ran Result = RunProgram(Words);
            EXPECT_EQ(Result.Code, 2) << Case.Image;
            EXPECT_EQ(Result.Out, "");
            EXPECT_THAT(Result.Error, HasSubstr(Case.Image + ": "));
            EXPECT_THAT(Result.Error, HasSubstr(Case.Says));
            EXPECT_EQ(std::count(Result.Error.begin(), Result.Error.end(), '\n'), 1) << Result.Error;
        }
    }
}

TEST(ImageOption, CallsAreRecordedOfAnImageOnly) {
    const ScratchDirectory Scratch;
    const Ran Result = RunProgram({"--calls", Scratch.File("calls"), "cat", File});
    if (ImageUnderTest().empty()) {
        EXPECT_EQ(Result.Code, 2);
        EXPECT_THAT(Result.Error, HasSubstr("--calls: only the calls of an image"));
        return;
    }
    EXPECT_EQ(Result.Code, 0) << Result.Error;
    const std::string Calls = Scratch.Read("calls");
    // One line a call: when, who, at which level, what, with which result.
    EXPECT_THAT(Calls,
                testing::ContainsRegex("\n[0-9]+ thread 0x[0-9a-f]+ irql [0-9] IoCreateDevice\\(.*\\) = 0x00000000\n"));
    EXPECT_THAT(Calls, HasSubstr(" ZelmCreateInstance("));
    EXPECT_THAT(Calls, HasSubstr(" MmProbeAndLockPages("));
    const Ran Nowhere = RunProgram({"--calls", "/nowhere/calls", "cat", File});
    EXPECT_EQ(Nowhere.Code, 2);
    EXPECT_THAT(Nowhere.Error, HasSubstr("--calls /nowhere/calls: "));

    // Neither the image nor what names its lines is written over.
    for (const char *Extension : {".sys", ".pdb"}) {
        const auto Original = std::filesystem::path(ImageUnderTest()).replace_extension(Extension);
        std::filesystem::copy_file(Original, Scratch.File(Original.filename().string()));
    }
    const std::string Copy = Scratch.File("RVFSD.sys"), Pdb = Scratch.File("RVFSD.pdb");
    for (const std::string &Own : {Copy, Pdb}) {
        const uintmax_t Size = std::filesystem::file_size(Own);
        EXPECT_EQ(RunProgram({"--image", Copy, "--calls", Own, "cat", File}).Code, 2) << Own;
        EXPECT_EQ(std::filesystem::file_size(Own), Size);
    }
}

} // namespace
