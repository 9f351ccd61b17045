// Names that the kernel may hold under another spelling than the one that changes.
//
// The kernel tells names apart by case and keeps what it was told of each for a second: that README is missing, or
// leads to readme. When readme comes or goes, it is told to forget the others. That is done by a thread, since the
// kernel holds the directory while it waits for the answer that makes the change.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace app::mount {

class Spellings {
public:
    using Clock = std::chrono::steady_clock;
    using Tell = std::function<void(uint64_t Parent, const std::string &Name)>;
    // More is asked every Pace while the last answer was true; Wake begins it.
    using More = std::function<bool()>;

    Spellings(Tell To, More Also, std::chrono::milliseconds Kept);
    ~Spellings();
    Spellings(const Spellings &) = delete;
    Spellings &operator=(const Spellings &) = delete;

    // The kernel was told something of Name that another spelling may change.
    void Note(uint64_t Parent, std::string_view Name);
    // Name came or went.
    void Changed(uint64_t Parent, std::string_view Name);
    void Wake();
    // Nothing is told or asked any more; what is under way is waited for, so the kernel has to get its answers
    // meanwhile.
    void Stop();

private:
    struct Noted {
        uint64_t Key;
        std::string Name;
        Clock::time_point Until;
    };
    void Run();

    static constexpr std::chrono::milliseconds Pace{50};
    static constexpr size_t Most = 100'000;

    const Tell Tell_;
    const More More_;
    const std::chrono::milliseconds Kept_;
    std::mutex Lock_;
    std::condition_variable Something_;
    std::unordered_multimap<uint64_t, std::string> Known_;
    std::deque<Noted> Order_;
    std::vector<std::pair<uint64_t, std::string>> ToTell_;
    bool Asked_ = false;
    bool Ending_ = false;
    std::thread Thread_;
};

} // namespace app::mount
