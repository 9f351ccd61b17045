// watch: waiting for changes of a directory.

#include <atomic>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "app/interrupt.h"
#include "app/output.h"
#include "app/remote_file.h"
#include "app/text.h"
#include "app/verbs/verbs.h"

namespace app {

namespace {

// A wait on an asynchronous handle; the handle's close ends it.
class Wait {
public:
    explicit Wait(const std::u16string &Path)
        : Directory_(Path, {.Access = FILE_LIST_DIRECTORY, .Options = FILE_DIRECTORY_FILE}) {
        constexpr ULONG Everything = 0xFFF;
        NTSTATUS Status = embedded::CreateEventHandle(NotificationEvent, false, &Ended_);
        if (NT_SUCCESS(Status)) {
            Status = NtNotifyChangeDirectoryFile(Directory_.Handle(), Ended_, nullptr, nullptr, &IoStatus_, Buffer_,
                                                 sizeof(Buffer_), Everything, FALSE);
        }
        if (!NT_SUCCESS(Status)) {
            if (Ended_ != nullptr) {
                NtClose(Ended_);
            }
            throw StatusError(Status, ShowPath(Path) + (Status == STATUS_NOT_IMPLEMENTED
                                                            ? "; --set EnableDirectoryNotify=1 turns notification on"
                                                            : ""));
        }
    }
    Wait(const Wait &) = delete;
    Wait &operator=(const Wait &) = delete;
    ~Wait() {
        End();
        NtClose(Ended_);
    }
    // TRUE when the wait has ended.
    bool WaitFor(LONGLONG Milliseconds) {
        LARGE_INTEGER Timeout;
        Timeout.QuadPart = -Milliseconds * 10000;
        return NtWaitForSingleObject(Ended_, FALSE, &Timeout) == STATUS_SUCCESS;
    }
    // Ends it now, if it has not: the request writes into this object until it is completed.
    void End() {
        Directory_.Close();
        NtWaitForSingleObject(Ended_, FALSE, nullptr);
    }
    NTSTATUS Status() const {
        return IoStatus_.Status;
    }
    const std::u16string &Path() const {
        return Directory_.Path();
    }

private:
    RemoteFile Directory_;
    HANDLE Ended_ = nullptr;
    IO_STATUS_BLOCK IoStatus_ = {};
    UCHAR Buffer_[1024];
};

void Tell(const std::string &Before, const Wait &Ended, bool Json) {
    if (Json) {
        PrintRecord({{"path", ShowPath(Ended.Path())}, {"status", StatusName(Ended.Status())}});
    } else {
        fmt::print("{}{}\n", Before, ShowStatus(Ended.Status()));
    }
}

// Waits of the console, which go on while other verbs run; each is told when it ends, at the latest with the console.
class Background {
public:
    ~Background() {
        Stop_ = true;
        for (std::thread &Thread : Threads_) {
            Thread.join();
        }
    }
    void Add(std::unique_ptr<Wait> Waiting) {
        // In the form that its own command asked for, whatever later ones do.
        Threads_.emplace_back([this, Watched = std::move(Waiting), Json = WantsJson()] {
            while (!Stop_ && !Watched->WaitFor(50)) {
            }
            Watched->End();
            Tell("watch " + ShowPath(Watched->Path()) + ": ", *Watched, Json);
            fflush(stdout);
        });
    }

private:
    std::atomic<bool> Stop_ = false;
    std::vector<std::thread> Threads_;
};

std::unique_ptr<Background> ConsoleWaits;

int Watch(const std::string &Path) {
    return Guarded([&] {
        auto Waiting = std::make_unique<Wait>(RemotePath(Path));
        if (ConsoleWaits != nullptr) {
            fmt::print("watching {}\n", ShowPath(Waiting->Path()));
            ConsoleWaits->Add(std::move(Waiting));
            return;
        }
        while (!Waiting->WaitFor(200)) {
            CheckInterrupt();
        }
        Tell("", *Waiting, WantsJson());
    });
}

} // namespace

void BeginConsoleWaits() {
    ConsoleWaits = std::make_unique<Background>();
}

void EndConsoleWaits() {
    ConsoleWaits.reset();
}

void AddWatchVerb(VerbList &List) {
    const auto Path = std::make_shared<std::string>();
    List.push_back({.Name = "watch",
                    .Group = "listings",
                    .Summary = "wait until an entry appears or vanishes (--set EnableDirectoryNotify=1)",
                    .Parameters = {Parameter{"PATH", "the directory", Path.get()}.Needed()},
                    .Run = [Path](Session &) { return Watch(*Path); },
                    .Text = "The driver tells what comes and goes through it: in the console, what its other lines do. "
                            "What other programs do at the server is not told."});
}

} // namespace app
