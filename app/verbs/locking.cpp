// lock, unlock, flush, read: requests that other programs make overlapped.

#include <fmt/format.h>

#include <map>

#include "app/interrupt.h"
#include "app/overlapped.h"
#include "app/session.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

// The open files whose locks the console holds, by path: one handle for each, so that an unlock finds its lock.
using HeldFiles = std::map<std::u16string, RemoteFile>;
std::unique_ptr<HeldFiles> ConsoleFiles;

constexpr OpenRequest Overlapped = {.Access = FILE_READ_DATA | FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                                    .Options = FILE_NON_DIRECTORY_FILE};

// A tenth of a second, or until a signal comes.
void SleepBriefly() {
    const timespec Pause = {.tv_sec = 0, .tv_nsec = 100000000};
    nanosleep(&Pause, nullptr);
}

struct LockWords {
    std::string Path;
    std::string Offset;
    std::string Length;
    bool Shared = false;
    bool Wait = false;
    uint32_t Key = 0;

    LARGE_INTEGER At() const {
        return {.QuadPart = static_cast<LONGLONG>(ParseSize(Offset))};
    }
    LARGE_INTEGER Bytes() const {
        return {.QuadPart = static_cast<LONGLONG>(ParseSize(Length))};
    }
};

std::vector<Parameter> RangeOf(LockWords &Words) {
    return {Parameter{"PATH", "the file", &Words.Path}.Needed(),
            Parameter{"OFFSET", "the first byte of the range: a number, or 64K, 1M, 2G", &Words.Offset}.Needed(),
            Parameter{"LENGTH", "its bytes, likewise", &Words.Length}.Needed()};
}

// A shared lock needs no right to write.
OpenRequest OpenFor(const LockWords &Words) {
    OpenRequest Request = Overlapped;
    if (Words.Shared) {
        Request.Access &= ~static_cast<ACCESS_MASK>(FILE_WRITE_DATA);
    }
    return Request;
}

// Asks for the lock and waits for the answer, also while another of the driver's callers has the range.
NTSTATUS AskForLock(RemoteFile &File, const LockWords &Words) {
    LARGE_INTEGER Offset = Words.At();
    LARGE_INTEGER Length = Words.Bytes();
    PendingRequest Request;
    Request.Begin([&](HANDLE Done, PIO_STATUS_BLOCK IoStatus) {
        return NtLockFile(File.Handle(), Done, nullptr, nullptr, IoStatus, &Offset, &Length, Words.Key, !Words.Wait,
                          !Words.Shared);
    });
    try {
        while (!Request.WaitFor(100)) {
            CheckInterrupt();
        }
    } catch (const Interrupted &) {
        File.Close(); // ends the wait
        Request.Wait();
        throw;
    }
    return Request.Status();
}

// The server tells nobody when a range that another program has there becomes free: it is asked again.
NTSTATUS AskUntilGranted(RemoteFile &File, const LockWords &Words) {
    const QuietDriver Quiet; // which says each time that the server refused
    for (;;) {
        const NTSTATUS Status = AskForLock(File, Words);
        if (Status != STATUS_LOCK_NOT_GRANTED && Status != STATUS_FILE_LOCK_CONFLICT) {
            return Status;
        }
        SleepBriefly();
        CheckInterrupt();
    }
}

void LockRange(RemoteFile &File, const LockWords &Words) {
    const NTSTATUS Status = Words.Wait ? AskUntilGranted(File, Words) : AskForLock(File, Words);
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, ShowPath(File.Path()));
    }
}

void LockOnce(const LockWords &Words) {
    const std::u16string Path = RemotePath(Words.Path);
    if (ConsoleFiles != nullptr) {
        const auto Held = ConsoleFiles->find(Path);
        if (Held != ConsoleFiles->end()) {
            return LockRange(Held->second, Words);
        }
        RemoteFile File(Path, OpenFor(Words));
        LockRange(File, Words);
        ConsoleFiles->emplace(Path, std::move(File));
        return;
    }
    RemoteFile File(Path, OpenFor(Words));
    LockRange(File, Words);
    fmt::print("locked {}; until interrupted\n", ShowPath(Path));
    std::fflush(stdout);
    while (!WasInterrupted()) {
        SleepBriefly();
    }
    LowerInterrupt();
}

void UnlockOnce(const LockWords &Words) {
    const std::u16string Path = RemotePath(Words.Path);
    LARGE_INTEGER Offset = Words.At();
    LARGE_INTEGER Length = Words.Bytes();
    if (ConsoleFiles == nullptr || !ConsoleFiles->contains(Path)) {
        throw StatusError(STATUS_RANGE_NOT_LOCKED, ShowPath(Path));
    }
    IO_STATUS_BLOCK IoStatus = {};
    const NTSTATUS Status = NtUnlockFile(ConsoleFiles->at(Path).Handle(), &IoStatus, &Offset, &Length, Words.Key);
    if (!NT_SUCCESS(Status)) {
        throw StatusError(Status, ShowPath(Path));
    }
}

void FlushOnce(const std::u16string &Path) {
    RemoteFile File(Path, {.Access = FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                           .Options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT});
    File.Flush();
    File.End();
}

struct ReadWords {
    std::string Path;
    uint32_t InFlight = 8;
    std::string Block = "64K";
};

void ReadOverlapped(const ReadWords &Words) {
    if (Words.InFlight == 0) {
        throw UsageError("read: at least one request is in flight");
    }
    OpenRequest Request = Overlapped;
    Request.Access &= ~static_cast<ACCESS_MASK>(FILE_WRITE_DATA);
    RemoteFile File(RemotePath(Words.Path), Request);
    ReadInOrder(File, Words.InFlight, static_cast<ULONG>(ParseSize(Words.Block, 1u << 30)),
                [](const char *Bytes, size_t Length) {
                    if (std::fwrite(Bytes, 1, Length, stdout) != Length) {
                        throw std::system_error(errno, std::generic_category(), "standard output");
                    }
                });
}

} // namespace

void BeginConsoleLocks() {
    ConsoleFiles = std::make_unique<HeldFiles>();
}

void EndConsoleLocks() {
    ConsoleFiles.reset();
}

void AddLockingVerbs(VerbList &List) {
    const auto Lock = std::make_shared<LockWords>();
    std::vector<Parameter> Parameters = RangeOf(*Lock);
    Parameters.push_back({"--shared", "a lock that others may share", &Lock->Shared});
    Parameters.push_back({"--wait", "wait until the range is free", &Lock->Wait});
    Parameters.push_back({"--key", "the key of the lock", &Lock->Key});
    List.push_back({.Name = "lock",
                    .Group = "requests",
                    .Summary = "lock a range of a file's bytes",
                    .Parameters = Parameters,
                    .Run = [Lock](Session &) { return Guarded([&] { LockOnce(*Lock); }); },
                    .Text = "In the console the lock is held until unlock or the console's end, elsewhere until the "
                            "program is interrupted."});
    const auto Unlock = std::make_shared<LockWords>();
    Parameters = RangeOf(*Unlock);
    Parameters.push_back({"--key", "the key of the lock", &Unlock->Key});
    List.push_back({.Name = "unlock",
                    .Group = "requests",
                    .Summary = "give back a range that the console has locked",
                    .Parameters = Parameters,
                    .Run = [Unlock](Session &) { return Guarded([&] { UnlockOnce(*Unlock); }); }});
    const auto Paths = std::make_shared<std::vector<std::string>>();
    List.push_back({.Name = "flush",
                    .Group = "requests",
                    .Summary = "ask the server to commit the data of files",
                    .Parameters = {Parameter{"PATH", "files; the last component may be a mask", Paths.get()}.Needed()},
                    .Run = [Paths](Session &) { return ForEachPath(*Paths, FlushOnce); }});
    const auto Read = std::make_shared<ReadWords>();
    List.push_back(
        {.Name = "read",
         .Group = "requests",
         .Summary = "print a file that is read with many requests in flight over one handle",
         .Parameters = {Parameter{"PATH", "the file", &Read->Path}.Needed(),
                        {"--in-flight", "how many requests", &Read->InFlight},
                        Parameter{"--block", "bytes of a request: a number, or 64K, 1M", &Read->Block}.As("BYTES")},
         .Run = [Read](Session &) { return Guarded([&] { ReadOverlapped(*Read); }); }});
}

} // namespace app
