// What requests were completed with, in the order of their completion, while one of these lives.
#pragma once

#include <mutex>
#include <vector>

#include "embedded/io/io.h"

namespace test {

class RequestLog {
public:
    RequestLog() {
        embedded::SetIoObserver([this](const embedded::CompletedRequest &Request) {
            const std::lock_guard Hold(Lock_);
            Entries_.push_back({Request.MajorFunction, Request.Status, Request.Information});
        });
    }
    ~RequestLog() {
        embedded::SetIoObserver({});
    }
    RequestLog(const RequestLog &) = delete;
    RequestLog &operator=(const RequestLog &) = delete;

    // The bytes that the last request was completed with.
    ULONG_PTR LastInformation() const {
        const std::lock_guard Hold(Lock_);
        return Entries_.empty() ? 0 : Entries_.back().Information;
    }
    // The statuses of one kind of request.
    std::vector<NTSTATUS> Of(UCHAR MajorFunction) const {
        const std::lock_guard Hold(Lock_);
        std::vector<NTSTATUS> Statuses;
        for (const Entry &Each : Entries_) {
            if (Each.MajorFunction == MajorFunction) {
                Statuses.push_back(Each.Status);
            }
        }
        return Statuses;
    }

private:
    struct Entry {
        UCHAR MajorFunction;
        NTSTATUS Status;
        ULONG_PTR Information;
    };
    mutable std::mutex Lock_;
    std::vector<Entry> Entries_;
};

} // namespace test
