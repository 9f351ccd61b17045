#include "app/progress.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

#include <fmt/format.h>

#include "app/output.h"

namespace app {

namespace {

constexpr auto Quiet = std::chrono::milliseconds(700); // what is done by then shows nothing
constexpr auto Step = std::chrono::milliseconds(200);

std::string ShowDuration(int64_t Seconds) {
    return Seconds >= 3600 ? fmt::format("{}:{:02}:{:02}", Seconds / 3600, Seconds / 60 % 60, Seconds % 60)
                           : fmt::format("{}:{:02}", Seconds / 60, Seconds % 60);
}

} // namespace

Progress::Progress(std::string Name, int64_t Total)
    : Name_(std::move(Name)), Total_(Total), Possible_(isatty(STDERR_FILENO) != 0),
      Begun_(std::chrono::steady_clock::now()), Last_(Begun_) {
}

Progress::~Progress() {
    if (Width_ != 0) {
        fmt::print(stderr, "\r{:{}}\r", "", Width_);
        fflush(stderr);
    }
}

bool Progress::IsDue() {
    if (!Possible_) {
        return false;
    }
    const Time Now = std::chrono::steady_clock::now();
    if (Now - Begun_ < Quiet || Now - Last_ < Step) {
        return false;
    }
    Last_ = Now;
    return true;
}

void Progress::Show(int64_t Done) {
    if (!IsDue()) {
        return;
    }
    const double Seconds = std::chrono::duration<double>(Last_ - Begun_).count();
    const double Rate = static_cast<double>(Done) / Seconds;
    std::string Line = HumanSize(static_cast<uint64_t>(Done));
    if (Total_ > 0) {
        const int64_t Most = std::max(Total_, Done); // the file may have grown meanwhile
        Line = fmt::format("{:3}%  {} of {}", Done * 100 / Most, Line, HumanSize(static_cast<uint64_t>(Most)));
        if (Rate > 0) {
            Line +=
                fmt::format("  {} left", ShowDuration(static_cast<int64_t>(static_cast<double>(Most - Done) / Rate)));
        }
    }
    Write(fmt::format("{}  {}  {}/s", Name_, Line, HumanSize(static_cast<uint64_t>(Rate))));
}

void Progress::Wait(const char *What) {
    if (Possible_ && std::chrono::steady_clock::now() - Begun_ >= Quiet) {
        Write(fmt::format("{}  {}", Name_, What));
    }
}

void Progress::Write(const std::string &Line) {
    fmt::print(stderr, "\r{:<{}}", Line, Width_);
    fflush(stderr);
    Width_ = std::max(Width_, Line.size());
}

} // namespace app
