#include "tests/app/program.h"

#include <csignal>
#include <cstdlib>
#include <iterator>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utility>

#include "tests/support/driver_under_test.h"

extern char **environ;

namespace test {

namespace {

constexpr int LongestMilliseconds = 60'000;

std::vector<char *> Pointers(std::vector<std::string> &Words) {
    std::vector<char *> Result;
    for (std::string &Word : Words) {
        Result.push_back(Word.data());
    }
    Result.push_back(nullptr);
    return Result;
}

std::vector<std::string> CommandLine(const std::vector<std::string> &Arguments) {
    std::vector<std::string> Words = {RVFSD_PROGRAM};
    if (const std::string Image = ImageUnderTest(); !Image.empty()) {
        Words.insert(Words.end(), {"--image", Image});
    }
    Words.insert(Words.end(), Arguments.begin(), Arguments.end());
    return Words;
}

int CodeOf(int Status) {
    return WIFEXITED(Status) ? WEXITSTATUS(Status) : 128 + WTERMSIG(Status);
}

int WaitFor(pid_t Child) {
    const int Process = static_cast<int>(syscall(SYS_pidfd_open, Child, 0));
    pollfd Ended = {Process, POLLIN, 0};
    if (poll(&Ended, 1, LongestMilliseconds) != 1) {
        kill(Child, SIGKILL);
    }
    close(Process);
    int Status = 0;
    waitpid(Child, &Status, 0);
    return CodeOf(Status);
}

std::string Contents(const std::filesystem::path &Name) {
    std::ifstream Stream(Name, std::ios::binary);
    return {std::istreambuf_iterator<char>(Stream), {}};
}

// The user whose program runs has a home of their own, without any configuration.
void UseOwnHome() {
    static const ScratchDirectory Home;
    setenv("HOME", Home.Path().c_str(), 1);
    for (const char *Name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "NO_COLOR"}) {
        unsetenv(Name);
    }
}

// Starts the program with these as its standard streams; closes none of them.
pid_t Start(const std::vector<std::string> &Arguments, int Input, int Output, int Error) {
    UseOwnHome();
    std::vector<std::string> Words = CommandLine(Arguments);
    posix_spawn_file_actions_t Actions;
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_adddup2(&Actions, Input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&Actions, Output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&Actions, Error, STDERR_FILENO);
    pid_t Child = -1;
    const int Failed = posix_spawn(&Child, RVFSD_PROGRAM, &Actions, nullptr, Pointers(Words).data(), environ);
    posix_spawn_file_actions_destroy(&Actions);
    if (Failed != 0) {
        throw std::runtime_error("cannot start " RVFSD_PROGRAM);
    }
    return Child;
}

int OpenFile(const std::filesystem::path &Name, int Flags) {
    const int Descriptor = open(Name.c_str(), Flags | O_CLOEXEC, 0600);
    if (Descriptor < 0) {
        throw std::runtime_error("cannot open " + Name.string());
    }
    return Descriptor;
}

} // namespace

namespace {

// Runs the program, Meanwhile beside it, with Input as its standard input; its output goes to a file of that name, or
// comes back.
Ran RunBetween(const std::vector<std::string> &Arguments, int Input, const std::filesystem::path &Output,
               const std::function<void(pid_t)> &Meanwhile) {
    const ScratchDirectory Streams;
    const int Out = Output.empty() ? OpenFile(Streams.File("out"), O_WRONLY | O_CREAT) : OpenFile(Output, O_WRONLY);
    const int Error = OpenFile(Streams.File("error"), O_WRONLY | O_CREAT);
    const pid_t Child = Start(Arguments, Input, Out, Error);
    close(Input);
    Meanwhile(Child);
    Ran Result;
    Result.Code = WaitFor(Child);
    close(Out);
    close(Error);
    Result.Out = Output.empty() ? Streams.Read("out") : "";
    Result.Error = Streams.Read("error");
    return Result;
}

} // namespace

Ran RunProgramInto(const std::filesystem::path &Output, const std::vector<std::string> &Arguments) {
    return RunBetween(Arguments, OpenFile("/dev/null", O_RDONLY), Output, [](pid_t) {});
}

Ran RunProgram(const std::vector<std::string> &Arguments, std::string_view Input) {
    const ScratchDirectory Streams;
    Streams.Write("in", Input);
    return RunBetween(Arguments, OpenFile(Streams.File("in"), O_RDONLY), {}, [](pid_t) {});
}

Ran RunProgramWith(const std::vector<std::string> &Arguments, const std::function<void(pid_t, int)> &Meanwhile) {
    int Pipe[2];
    if (pipe2(Pipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    return RunBetween(Arguments, Pipe[0], {}, [&](pid_t Child) {
        Meanwhile(Child, Pipe[1]);
        close(Pipe[1]);
    });
}

Terminal::Terminal(const std::vector<std::string> &Arguments) {
    std::vector<std::string> Words = CommandLine(Arguments);
    const std::vector<char *> Argv = Pointers(Words);
    UseOwnHome();
    winsize Size = {50, 200, 0, 0};
    Child_ = forkpty(&Master_, nullptr, nullptr, &Size);
    if (Child_ < 0) {
        throw std::runtime_error("no terminal");
    }
    if (Child_ == 0) {
        setenv("TERM", "dumb", 1);
        execv(RVFSD_PROGRAM, Argv.data());
        _exit(127);
    }
}

bool Terminal::CanBeHad() {
    int Master, Slave;
    if (openpty(&Master, &Slave, nullptr, nullptr, nullptr) != 0) {
        return false;
    }
    close(Master);
    close(Slave);
    return true;
}

Terminal::~Terminal() {
    if (Child_ > 0) {
        kill(Child_, SIGKILL);
        WaitFor(Child_);
    }
    close(Master_);
}

void Terminal::Type(std::string_view Text) {
    while (!Text.empty()) {
        const ssize_t Put = write(Master_, Text.data(), Text.size());
        if (Put <= 0) {
            throw std::runtime_error("the terminal takes nothing");
        }
        Text.remove_prefix(static_cast<size_t>(Put));
    }
}

bool Terminal::ReadMore() {
    pollfd Ready = {Master_, POLLIN, 0};
    char Bytes[4096];
    const ssize_t Got = poll(&Ready, 1, LongestMilliseconds) == 1 ? read(Master_, Bytes, sizeof(Bytes)) : 0;
    if (Got <= 0) {
        return false;
    }
    Pending_.append(Bytes, static_cast<size_t>(Got));
    return true;
}

std::string Terminal::Expect(std::string_view Text) {
    size_t At;
    while ((At = Pending_.find(Text)) == std::string::npos) {
        if (!ReadMore()) {
            return std::exchange(Pending_, {});
        }
    }
    std::string Shown = Pending_.substr(0, At + Text.size());
    Pending_.erase(0, Shown.size());
    return Shown;
}

int Terminal::Finish() {
    while (ReadMore()) {
    }
    return WaitFor(std::exchange(Child_, -1));
}

ScratchDirectory::ScratchDirectory() {
    std::string Name = (std::filesystem::temp_directory_path() / "rvfsd-test-XXXXXX").string();
    if (mkdtemp(Name.data()) == nullptr) {
        throw std::runtime_error("no directory");
    }
    Path_ = Name;
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code Error;
    std::filesystem::remove_all(Path_, Error);
}

void ScratchDirectory::Write(std::string_view Name, std::string_view Bytes) const {
    std::ofstream(Path_ / Name, std::ios::binary) << Bytes;
}

std::string ScratchDirectory::Read(std::string_view Name) const {
    return Contents(Path_ / Name);
}

bool ScratchDirectory::Has(std::string_view Name) const {
    return std::filesystem::exists(Path_ / Name);
}

} // namespace test
