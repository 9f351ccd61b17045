// Providers from shared libraries through the program: the example as a stranger builds it, and libraries that are
// none.

#include "tests/app/program.h"

namespace {

using namespace test;
using namespace testing;

TEST(ExampleProvider, ServesEveryVerb) {
    const ScratchDirectory Scratch;
    Scratch.Write("in.txt", std::string(100'000, 'x') + "end");
    const std::string Script = "mkdir \\\\lab\\scratch\\new\n"
                               "cp " +
                               Scratch.File("in.txt") +
                               " \\\\lab\\scratch\\new\\One.txt\n"
                               "mv \\\\lab\\scratch\\new\\one.txt \\\\lab\\scratch\\docs\\two.txt\n"
                               "rmdir \\\\lab\\scratch\\new\n"
                               "attrib +r-a \\\\lab\\scratch\\docs\\two.txt\n"
                               "ls -l \\\\lab\\scratch\\docs\\t*.txt\n"
                               "cp \\\\lab\\scratch\\docs\\TWO.TXT " +
                               Scratch.File("out.txt") +
                               "\n"
                               "find \\\\lab\\scratch\n"
                               "df \\\\lab\\scratch\n"
                               "rm \\\\lab\\scratch\\docs\\two.txt\n"
                               "put " +
                               Scratch.File("in.txt") + " \\\\lab\\scratch\\big\n";
    const auto Ran = RunProgram(
        {"--provider", RVFSD_EXAMPLE_PROVIDER, "--provider-options", "volume=\\\\lab\\scratch,size=128K", "console"},
        Script);
    EXPECT_EQ(Ran.Code, 1) << Ran.Error; // of the last verb; 3 would say that something was left behind
    EXPECT_THAT(Ran.Out, HasSubstr("-r---         100003"));
    EXPECT_THAT(Ran.Out, HasSubstr("\\\\lab\\scratch\\docs\\two.txt\n"));
    EXPECT_THAT(Ran.Out, HasSubstr("131072"));
    EXPECT_EQ(Scratch.Read("out.txt"), Scratch.Read("in.txt"));
    EXPECT_THAT(Ran.Error, HasSubstr("STATUS_CANNOT_DELETE")) << "a read-only file was deleted";
    EXPECT_THAT(Ran.Error, HasSubstr("STATUS_DISK_FULL"));
}

TEST(ExampleProvider, Conforms) {
    const auto Ran = RunProgram({"check-provider", RVFSD_EXAMPLE_PROVIDER});
    EXPECT_EQ(Ran.Code, 0);
    EXPECT_THAT(Ran.Out, EndsWith("checks\nconforms\n"));
}

TEST(ProviderLibrary, OneThatIsNoneIsRefusedWithTheReason) {
    const ScratchDirectory Scratch;
    Scratch.Write("text.so", "no library");
    const struct {
        std::vector<std::string> Arguments;
        std::string Error;
    } Rows[] = {
        {{"--provider", Scratch.File("text.so"), "ls", "//x/y"}, "text.so does not load: "},
        {{"--provider", Scratch.File("none.so"), "ls", "//x/y"}, "none.so does not load: "},
        {{"--provider", RVFSD_FAULTY_PROVIDERS "/libwithout_entry.so", "ls", "//x/y"}, "it has no RvfsdProvider"},
        {{"--provider", RVFSD_FAULTY_PROVIDERS "/libother_version.so", "ls", "//x/y"},
         "speaks version 99 of the Provider interface, this program version 1"},
        {{"check-provider", RVFSD_FAULTY_PROVIDERS "/libno_volumes.so"}, "it offers no volume"},
        {{"--provider", RVFSD_EXAMPLE_PROVIDER, "--provider-options", "sise=1", "ls", "//x/y"},
         "memory: unknown option 'sise=1'"},
        {{"--provider", RVFSD_EXAMPLE_PROVIDER, "--export", "//a/b=/tmp", "ls", "//a/b"}, "volumes of its own"},
        {{"--provider-options", "x", "ls", "//a/b"}, "--provider-options: "},
    };
    for (const auto &Row : Rows) {
        const auto Ran = RunProgram(Row.Arguments);
        EXPECT_EQ(Ran.Code, 2);
        EXPECT_THAT(Ran.Error, HasSubstr(Row.Error));
        EXPECT_EQ(Ran.Out, "");
    }
}

} // namespace
