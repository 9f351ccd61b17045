// The built program as its users meet it: arguments and standard input in, standard output, messages and exit code out.
#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace test {

struct Ran {
    int Code = -1; // exit code; 128 + n when signal n ended it
    std::string Out, Error;
};

// Runs rvfsd to its end, without a terminal. One that does not end within a minute is killed (137).
Ran RunProgram(const std::vector<std::string> &Arguments, std::string_view Input = {});
// The same with standard output going to a file, such as /dev/full.
Ran RunProgramInto(const std::filesystem::path &Output, const std::vector<std::string> &Arguments);
// The same, but Meanwhile runs beside it and holds the writing end of its standard input, which is closed afterwards.
Ran RunProgramWith(const std::vector<std::string> &Arguments, const std::function<void(pid_t, int Input)> &Meanwhile);

// The program on a terminal of its own.
class Terminal {
public:
    explicit Terminal(const std::vector<std::string> &Arguments);
    ~Terminal(); // kills what still runs
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    // FALSE where the system hands out no pseudo terminals: tests that need one are skipped there.
    static bool CanBeHad();

    void Type(std::string_view Text);
    // What was shown since the last call, up to and including Text; all there is, when a minute brings no Text.
    std::string Expect(std::string_view Text);
    // Reads on to the end of the program; its exit code.
    int Finish();

private:
    bool ReadMore();

    pid_t Child_ = -1;
    int Master_ = -1;
    std::string Pending_;
};

// A directory that goes with its object.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory &) = delete;
    ScratchDirectory &operator=(const ScratchDirectory &) = delete;

    const std::filesystem::path &Path() const {
        return Path_;
    }
    std::string File(std::string_view Name) const {
        return (Path_ / Name).string();
    }
    void Write(std::string_view Name, std::string_view Bytes) const;
    std::string Read(std::string_view Name) const;
    bool Has(std::string_view Name) const;

private:
    std::filesystem::path Path_;
};

// The program over an export of a directory of the test's.
class ProgramOverExport : public testing::Test {
protected:
    explicit ProgramOverExport(const std::string &Name = R"(\\srv\vol)")
        : Options({"--export", Name + "=" + Served.File("")}) {
    }
    std::vector<std::string> Line(const std::vector<std::string> &Words) const {
        std::vector<std::string> All = Options;
        All.insert(All.end(), Words.begin(), Words.end());
        return All;
    }
    Ran Run(const std::vector<std::string> &Words, std::string_view Input = {}) const {
        return RunProgram(Line(Words), Input);
    }
    // What it says when it succeeds.
    std::string Out(const std::vector<std::string> &Words, std::string_view Input = {}) const {
        const Ran Result = Run(Words, Input);
        EXPECT_EQ(Result.Code, 0) << Result.Error;
        EXPECT_EQ(Result.Error, "");
        return Result.Out;
    }
    // What must be refused with that message in front, and nothing said on standard output.
    void ExpectRefused(const std::vector<std::string> &Words, int Code, const std::string &Message) const {
        const Ran Result = Run(Words);
        EXPECT_EQ(Result.Code, Code) << Message;
        EXPECT_EQ(Result.Error.substr(0, Message.size()), Message);
        EXPECT_EQ(Result.Out, "");
    }

    ScratchDirectory Served;
    std::vector<std::string> Options;
};

} // namespace test
