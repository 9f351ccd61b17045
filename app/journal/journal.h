// --journal: every request with its calls of the Provider in a file of trace events, the JSON that trace viewers open.
//
// One track per thread. A request is a span in the thread that sent it, and what the Provider was called for in it lies
// inside; one that pends is besides an asynchronous span from its beginning to its completion. Two counters show opens
// and FCBs. Each event is written out when it happens, so that a file whose program was killed still tells how far it
// came; it then lacks only its closing bracket, which readers of the format do without.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <unordered_set>

#include "app/journal/request_tap.h"

namespace app {

class Journal final : public RequestListener {
public:
    // UsageError when File cannot be written.
    explicit Journal(const std::filesystem::path &File);
    ~Journal() override;
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;

    // Ends the file. What went wrong since it was begun, or nothing. Not while anything is told.
    std::string Close();

private:
    void RequestSent(const Request &About) noexcept override;
    void RequestCompleted(const Request &About) noexcept override;
    void RequestReturned(const Request &About, NTSTATUS Status) noexcept override;
    void OpensChanged(OpenCounts Now) noexcept override;
    void CallBegan(const providers::ProviderCall &Call) noexcept override;
    void CallEnded(const providers::ProviderCall &Call) noexcept override;

    // Fields is what stands behind the fields that every event has.
    void Event(char Phase, int64_t When, const std::string &Fields) noexcept;
    void Pended(const Request &About) noexcept;
    void Write(const std::string &Bytes) noexcept; // needs Lock_

    const std::filesystem::path File_;
    const int64_t Begun_;
    std::mutex Lock_;
    int Descriptor_ = -1;
    int Failure_ = 0; // errno of the first write that failed; nothing is written after it
    bool First_ = true;
    std::unordered_set<pid_t> Named_; // threads
};

} // namespace app
