// gdb with windows/gdb/rvfsd.py: breakpoints by name and by line stop inside the image, and the way there is shown.
#include <array>
#include <cstdio>
#include <sys/wait.h>

#include "tests/app/program.h"
#include "tests/support/driver_under_test.h"

using namespace testing;

namespace test {
namespace {

struct Source {
    std::string Name; // from the root of the sources
    unsigned Line;    // from 1; 0 when the text is nowhere
    std::string Text;
};

// The first line of the file that has What, or the one that lies Behind further.
Source FindLine(const std::string &Name, std::string_view What, unsigned Behind = 0) {
    std::ifstream Stream(std::filesystem::path(RVFSD_SOURCE_DIR) / Name);
    std::string Text;
    unsigned Found = 0;
    for (unsigned Line = 1; std::getline(Stream, Text); ++Line) {
        if (Found == 0 && Text.find(What) != std::string::npos) {
            Found = Line;
        }
        if (Found != 0 && Line == Found + Behind) {
            return {Name, Line, Text};
        }
    }
    return {Name, 0, {}};
}

class Gdb : public testing::Test {
protected:
    void SetUp() override {
        if (system("command -v gdb >/dev/null") != 0) {
            GTEST_SKIP() << "gdb is not installed";
        }
    }

    // What gdb shows when it carries out Commands on rvfsd, which prints a file over Image.
    static std::string Debug(const std::string &Image, const std::vector<std::string> &Commands) {
        std::string Line = "gdb -nx -batch -x '" RVFSD_SOURCE_DIR "/windows/gdb/rvfsd.py' "
                           // Sanitizers cannot look for leaks under a debugger.
                           "-ex 'set environment ASAN_OPTIONS=detect_leaks=0'";
        for (const std::string &Command : Commands) {
            Line += fmt::format(" -ex '{}'", Command);
        }
        Line += fmt::format(R"( --args '{}' --image '{}' cat '\\demo\files\docs\a.txt' 2>&1 </dev/null)", RVFSD_PROGRAM,
                            Image);
        std::string Shown;
        FILE *Pipe = popen(Line.c_str(), "r");
        std::array<char, 4096> Buffer;
        while (const size_t Bytes = fread(Buffer.data(), 1, Buffer.size(), Pipe)) {
            Shown.append(Buffer.data(), Bytes);
        }
        EXPECT_EQ(pclose(Pipe), 0);
        return Shown;
    }
    static bool Forbidden(const std::string &Shown) {
        return Shown.find("ptrace: Operation not permitted") != std::string::npos;
    }
};

TEST_F(Gdb, StopsInTheImageByNameAndByLineAndShowsTheWayThere) {
    const Source Read = FindLine("driver/io/read.cpp", "NTSTATUS NtFsdCommonRead(", 1);
    const Source Close = FindLine("driver/close/close.cpp", "NTSTATUS NtFsdCommonClose(", 1);
    ASSERT_NE(Read.Line, 0u);
    ASSERT_NE(Close.Line, 0u);
    const std::string Shown =
        Debug(ImageUnderTest(),
              {"break NtFsdCommonRead", fmt::format("break {}:{}", Close.Name, Close.Line), "run", "backtrace",
               "finish", "delete 1", "continue", "print IrpContext->MajorFunction", "delete", "continue"});
    if (Forbidden(Shown)) {
        GTEST_SKIP() << "programs may not be debugged here";
    }
    SCOPED_TRACE(Shown);
    EXPECT_THAT(Shown, HasSubstr("symbols from RVFSD.debug"));
    EXPECT_THAT(Shown, ContainsRegex("hit Breakpoint 1\\.[0-9]+, NtFsdCommonRead \\(IrpContext=0x[0-9a-f]+\\)"));
    EXPECT_THAT(Shown, HasSubstr(fmt::format("{}:{}\n{}\t{}\n", Read.Name, Read.Line, Read.Line, Read.Text)));
    // Out of the image's frames, by its own tables, and on to who called the driver.
    EXPECT_THAT(Shown, ContainsRegex("#0 +NtFsdCommonRead [^\n]*read\\.cpp:[0-9]+\n(.*\n)*"
                                     "#[0-9]+ [^\n]*Serve \\([^\n]*entry\\.cpp:[0-9]+\n(.*\n)*"
                                     "#[0-9]+ [^\n]*embedded::CallDriver[^\n]*irp\\.cpp:[0-9]+\n(.*\n)*"
                                     "#[0-9]+ [^\n]*NtReadFile [^\n]*file\\.cpp:[0-9]+\n(.*\n)*"
                                     "#[0-9]+ [^\n]* main \\("));
    EXPECT_THAT(Shown, ContainsRegex("\n0x[0-9a-f]+ in [^\n]*entry\\.cpp:[0-9]+\n[0-9]+\t"))
        << "finished, in its caller";
    EXPECT_THAT(Shown, ContainsRegex("hit Breakpoint 2\\.[0-9]+, NtFsdCommonClose"));
    EXPECT_THAT(Shown, HasSubstr(fmt::format("{}:{}\n", Close.Name, Close.Line)));
    EXPECT_THAT(Shown, HasSubstr("$2 = 2 '\\002'")) << "a close";
    EXPECT_THAT(Shown, HasSubstr("exited normally"));
}

TEST_F(Gdb, SaysWhyAnImageHasNoSymbolsAndLetsItRun) {
    const ScratchDirectory Scratch;
    const std::string Alone = Scratch.File("RVFSD.sys");
    std::filesystem::copy_file(ImageUnderTest(), Alone);
    const std::string Without = Debug(Alone, {"run"});
    if (Forbidden(Without)) {
        GTEST_SKIP() << "programs may not be debugged here";
    }
    EXPECT_THAT(Without, HasSubstr("no symbols for " + Alone));
    EXPECT_THAT(Without, HasSubstr("exited normally"));

    // The debug information of another build would lead to wrong lines.
    std::ifstream Twin(std::filesystem::path(ImageUnderTest()).replace_extension(".debug"), std::ios::binary);
    std::string Bytes{std::istreambuf_iterator<char>(Twin), {}};
    ASSERT_NE(Bytes.find("RSDS"), std::string::npos);
    Bytes[Bytes.find("RSDS") + 4] ^= 1;
    std::ofstream(Scratch.File("RVFSD.debug"), std::ios::binary) << Bytes;
    EXPECT_THAT(Debug(Alone, {"run"}), HasSubstr("RVFSD.debug is of another build than"));
}

} // namespace
} // namespace test
