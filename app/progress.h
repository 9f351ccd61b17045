// How far a transfer is, on a terminal and only when it lasts.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace app {

class Progress {
public:
    // Total is -1 when nobody knows it.
    Progress(std::string Name, int64_t Total);
    ~Progress(); // wipes the line
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void Show(int64_t Done);
    // The bytes are all handed over; what is waited for now.
    void Wait(const char *What);

private:
    using Time = std::chrono::steady_clock::time_point;

    bool IsDue();
    void Write(const std::string &Line);

    std::string Name_;
    int64_t Total_;
    bool Possible_;
    Time Begun_;
    Time Last_;
    size_t Width_ = 0; // of the line that stands there
};

} // namespace app
