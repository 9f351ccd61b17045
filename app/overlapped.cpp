#include "app/overlapped.h"

#include <memory>
#include <vector>

#include "app/interrupt.h"
#include "app/text.h"

namespace app {

PendingRequest::PendingRequest() {
    if (const NTSTATUS Status = embedded::CreateEventHandle(NotificationEvent, false, &Done_); !NT_SUCCESS(Status)) {
        throw StatusError(Status, "an event");
    }
}

PendingRequest::~PendingRequest() {
    Wait();
    NtClose(Done_);
}

void PendingRequest::Begin(const std::function<NTSTATUS(HANDLE, PIO_STATUS_BLOCK)> &Send) {
    IoStatus_ = {};
    Status_ = Send(Done_, &IoStatus_);
    Pending_ = Status_ == STATUS_PENDING;
}

bool PendingRequest::WaitFor(LONGLONG Milliseconds) {
    LARGE_INTEGER Timeout = {.QuadPart = -Milliseconds * 10000};
    if (Pending_ && NtWaitForSingleObject(Done_, FALSE, &Timeout) == STATUS_SUCCESS) {
        Pending_ = false;
        Status_ = IoStatus_.Status;
    }
    return !Pending_;
}

void PendingRequest::Wait() {
    while (!WaitFor(1000)) {
    }
}

namespace {

struct BlockRead {
    std::vector<char> Bytes;
    LONG64 Offset = 0;
    PendingRequest Request; // goes first: it may still write into Bytes
};

void BeginRead(RemoteFile &File, BlockRead &Read, LONG64 Offset) {
    Read.Offset = Offset;
    LARGE_INTEGER At = {.QuadPart = Offset};
    Read.Request.Begin([&](HANDLE Done, PIO_STATUS_BLOCK IoStatus) {
        return NtReadFile(File.Handle(), Done, nullptr, nullptr, IoStatus, Read.Bytes.data(),
                          static_cast<ULONG>(Read.Bytes.size()), &At, nullptr);
    });
}

} // namespace

void ReadInOrder(RemoteFile &File, size_t InFlight, ULONG Block,
                 const std::function<void(const char *Bytes, size_t Length)> &Take) {
    std::vector<std::unique_ptr<BlockRead>> Reads;
    LONG64 Next = 0;
    for (size_t Index = 0; Index < InFlight; ++Index) {
        Reads.push_back(std::make_unique<BlockRead>());
        Reads.back()->Bytes.resize(Block);
        BeginRead(File, *Reads.back(), Next);
        Next += Block;
    }
    for (size_t Oldest = 0;; Oldest = (Oldest + 1) % InFlight) {
        BlockRead &Read = *Reads[Oldest];
        size_t Filled = 0;
        while (Filled < Block) {
            while (!Read.Request.WaitFor(200)) {
                CheckInterrupt();
            }
            if (Read.Request.Status() == STATUS_END_OF_FILE) {
                return;
            }
            if (!NT_SUCCESS(Read.Request.Status())) {
                throw StatusError(Read.Request.Status(), ShowPath(File.Path()));
            }
            const size_t Count = Read.Request.Information();
            Take(Read.Bytes.data(), Count);
            Filled += Count;
            if (Filled < Block) {
                BeginRead(File, Read, Read.Offset + static_cast<LONG64>(Count)); // a short read: the rest of the block
            }
        }
        CheckInterrupt();
        BeginRead(File, Read, Next);
        Next += Block;
    }
}

} // namespace app
