#include "app/mount/spellings.h"

#include "app/mount/nodes.h"

namespace app::mount {

namespace {

uint64_t KeyOf(uint64_t Parent, std::string_view Name) {
    return Parent * 0x9E3779B97F4A7C15u ^ FoldedHash(Name);
}

} // namespace

Spellings::Spellings(Tell To, More Also, std::chrono::milliseconds Kept)
    : Tell_(std::move(To)), More_(std::move(Also)), Kept_(Kept), Thread_([this] { Run(); }) {
}

Spellings::~Spellings() {
    Stop();
}

void Spellings::Stop() {
    {
        const std::lock_guard Hold(Lock_);
        Ending_ = true;
    }
    Something_.notify_one();
    if (Thread_.joinable()) {
        Thread_.join();
    }
}

void Spellings::Note(uint64_t Parent, std::string_view Name) {
    const uint64_t Key = KeyOf(Parent, Name);
    const Clock::time_point Now = Clock::now();
    const std::lock_guard Hold(Lock_);
    while (!Order_.empty() && (Order_.front().Until < Now || Order_.size() > Most)) {
        const auto [First, Last] = Known_.equal_range(Order_.front().Key);
        for (auto Each = First; Each != Last; ++Each) {
            if (Each->second == Order_.front().Name) {
                Known_.erase(Each);
                break;
            }
        }
        Order_.pop_front();
    }
    Known_.emplace(Key, Name);
    Order_.push_back({Key, std::string(Name), Now + Kept_});
}

void Spellings::Changed(uint64_t Parent, std::string_view Name) {
    {
        const std::lock_guard Hold(Lock_);
        const auto [First, Last] = Known_.equal_range(KeyOf(Parent, Name));
        const size_t Before = ToTell_.size();
        for (auto Each = First; Each != Last; ++Each) {
            if (Each->second != Name) {
                ToTell_.emplace_back(Parent, Each->second);
            }
        }
        if (ToTell_.size() == Before) {
            return;
        }
    }
    Something_.notify_one();
}

void Spellings::Wake() {
    {
        const std::lock_guard Hold(Lock_);
        Asked_ = true;
    }
    Something_.notify_one();
}

void Spellings::Run() {
    std::unique_lock Hold(Lock_);
    while (!Ending_) {
        const auto Something = [this] { return Ending_ || !ToTell_.empty(); };
        if (Asked_) {
            Something_.wait_for(Hold, Pace, Something);
        } else {
            Something_.wait(Hold, [&] { return Asked_ || Something(); });
        }
        const bool Ask = Asked_;
        Asked_ = false;
        const auto Now = std::move(ToTell_);
        ToTell_.clear();
        Hold.unlock();
        for (const auto &[Parent, Name] : Now) {
            Tell_(Parent, Name);
        }
        const bool Again = Ask && More_();
        Hold.lock();
        Asked_ = Asked_ || Again;
    }
}

} // namespace app::mount
