// What a driver is asked and what it asks the Provider for, told to whoever listens: the journal, monitors, the
// console.
//
// Nothing is watched, and nothing costs anything, while nobody listens. Listeners are told in the thread where a thing
// happens, at whatever IRQL and with whatever locks the driver holds: they do not call the kernel and do not wait for
// anybody who does.
#pragma once

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

#include "embedded/io/io.h"
#include "providers/recorder/recorder.h"

namespace app {

struct Request {
    uint64_t Id;           // counts from 1
    pid_t Thread;          // that sent it
    pid_t AskedBy;         // the thread of the program that it is sent for, see ProgramOf
    const char *Operation; // "IRP_MJ_READ"
    std::string Path;      // \\server\volume\..., empty when it names none
    std::vector<providers::CallValue> Details;
    int64_t Started; // nanoseconds of Ticks()
    // When it is completed:
    NTSTATUS Status = 0;
    uint64_t Information = 0;
    int64_t Ended = 0;
    int64_t EndedAt = 0;   // nanoseconds since 1970
    bool Returned = false; // the driver's dispatch routine had come back before
};

// Opens and distinct FCBs since listening began.
struct OpenCounts {
    size_t Opens = 0;
    size_t Fcbs = 0;
};

class RequestListener : public providers::CallSink {
public:
    virtual void RequestSent(const Request &) noexcept {
    }
    virtual void RequestCompleted(const Request &) noexcept {
    }
    // The driver is back in the thread that sent it. Status is STATUS_PENDING for one that is, or was, completed
    // elsewhere or later.
    virtual void RequestReturned(const Request &, NTSTATUS) noexcept {
    }
    virtual void OpensChanged(OpenCounts) noexcept {
    }
    void CallBegan(const providers::ProviderCall &) noexcept override {
    }
    void CallEnded(const providers::ProviderCall &) noexcept override {
    }
};

// Nanoseconds of a clock that never goes back.
int64_t Ticks() noexcept;
// The calling thread's number in the system.
pid_t ThreadNumber() noexcept;

class RequestTap final : public embedded::IoTap, public providers::CallSink {
public:
    // Calls are told by Calls, which outlives this object; this object outlives the driver.
    explicit RequestTap(providers::Recorder &Calls) : Calls_(Calls) {
    }

    // Any thread, also while requests are running. After Remove the listener is not told anything any more.
    void Add(RequestListener &Listener);
    void Remove(RequestListener &Listener);
    // Nobody is told anything any more.
    void RemoveAll();

private:
    struct Open {
        std::string Path;
        const void *Fcb;
    };

    void Sent(const IRP *Irp, const IO_STACK_LOCATION &Location) noexcept override;
    void Completed(const embedded::CompletedRequest &Done) noexcept override;
    void Returned(const IRP *Irp, NTSTATUS Status) noexcept override;
    void CallBegan(const providers::ProviderCall &Call) noexcept override;
    void CallEnded(const providers::ProviderCall &Call) noexcept override;

    template <class Tell>
    void ToAll(const Tell &One);
    std::string PathOf(PFILE_OBJECT File, bool IsCreate);
    void CountOpen(const embedded::CompletedRequest &Done, const Request &About);

    providers::Recorder &Calls_;
    std::shared_mutex ListenersLock_;
    std::vector<RequestListener *> Listeners_;
    std::mutex Lock_; // the rest
    uint64_t LastId_ = 0;
    std::unordered_map<const IRP *, Request> UnderWay_; // not yet both completed and returned
    std::unordered_map<PFILE_OBJECT, Open> Opens_;
    std::unordered_map<const void *, size_t> Fcbs_;
};

} // namespace app
