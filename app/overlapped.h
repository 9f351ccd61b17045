// Requests that go on beside their caller, over a handle that was opened without FILE_SYNCHRONOUS_IO_*.
#pragma once

#include <functional>

#include "app/remote_file.h"

namespace app {

// One request with its status block and its event. What the request writes into must outlive its end: the destructor
// waits for it.
class PendingRequest {
public:
    PendingRequest();
    PendingRequest(const PendingRequest &) = delete;
    PendingRequest &operator=(const PendingRequest &) = delete;
    ~PendingRequest();

    // Sends a request by Send, which passes on the event and the status block. Not while one is pending.
    void Begin(const std::function<NTSTATUS(HANDLE Done, PIO_STATUS_BLOCK IoStatus)> &Send);
    // True once it has ended.
    bool WaitFor(LONGLONG Milliseconds);
    void Wait();
    // Of a request that has ended.
    NTSTATUS Status() const {
        return Status_;
    }
    ULONG_PTR Information() const {
        return IoStatus_.Information;
    }

private:
    HANDLE Done_ = nullptr;
    IO_STATUS_BLOCK IoStatus_ = {};
    NTSTATUS Status_ = STATUS_SUCCESS;
    bool Pending_ = false;
};

// Reads the whole file with InFlight requests of Block bytes at a time over its one handle. Results arrive in any
// order, and Take gets them in the file's. StatusError when a read fails; Interrupted passes.
void ReadInOrder(RemoteFile &File, size_t InFlight, ULONG Block,
                 const std::function<void(const char *Bytes, size_t Length)> &Take);

} // namespace app
