#include "app/journal/asking_program.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string_view>
#include <unordered_map>

#include <unistd.h>

#include <fmt/format.h>

namespace app {

namespace {

using Clock = std::chrono::steady_clock;

constexpr pid_t Nobody = -1;
constexpr size_t MostKept = 1024;
constexpr std::chrono::milliseconds KeptFor{10};

thread_local pid_t Asking = Nobody;

struct Known {
    Program What;
    Clock::time_point Asked;
};

// The files "status" and "comm" are made without waiting for what the thread holds while it waits for us; "cmdline" and
// "exe" are not.
bool Ask(pid_t Thread, Program *Found) {
    std::ifstream Status(fmt::format("/proc/{}/status", Thread));
    constexpr std::string_view Field = "Tgid:\t";
    pid_t Process = 0;
    for (std::string Line; Process == 0 && std::getline(Status, Line);) {
        if (Line.starts_with(Field)) {
            Process = static_cast<pid_t>(strtol(Line.c_str() + Field.size(), nullptr, 10));
        }
    }
    std::ifstream Name(fmt::format("/proc/{}/comm", Process));
    if (Process == 0 || !std::getline(Name, Found->Name)) {
        return false;
    }
    Found->Process = Process;
    std::replace_if(
        Found->Name.begin(), Found->Name.end(), [](unsigned char Byte) { return iscntrl(Byte) != 0; }, '?');
    return true;
}

} // namespace

AskedBy::AskedBy(pid_t Thread) noexcept {
    Asking = Thread;
}

AskedBy::~AskedBy() {
    Asking = Nobody;
}

pid_t AskingThread() noexcept {
    return Asking == Nobody ? getpid() : Asking;
}

Program ProgramOf(pid_t Thread) {
    if (Thread == 0) {
        return {0, "kernel"};
    }
    static std::mutex Lock;
    static std::unordered_map<pid_t, Known> All;
    const std::lock_guard Hold(Lock);
    if (All.size() >= MostKept && !All.contains(Thread)) {
        All.clear();
    }
    Known &Of = All[Thread];
    const Clock::time_point Now = Clock::now();
    const bool First = Of.Asked == Clock::time_point();
    if (First || Now - Of.Asked > KeptFor) {
        // Of one that has ended meanwhile what was known holds.
        if (!Ask(Thread, &Of.What) && First) {
            Of.What = {Thread, ""};
        }
        Of.Asked = Now;
    }
    return Of.What;
}

} // namespace app
