// Processes and system threads.
//
// Processes are records with a name; a thread acts for one of them. The lists have one mutex each, held for no wait.
#pragma once

#include <string_view>

#include "embedded/base/process.h"
#include "embedded/ke/ke.h"
#include "embedded/se/se.h"

namespace embedded {

// A new process; lives until DeleteProcess. Never NULL. Its threads act for Token, or for SYSTEM when there is none.
PEPROCESS CreateProcess(std::string_view Name, Ref<TokenObject> Token = {});
// Stops with 0xCB when pages are still locked for the process. No thread may act for it any more.
void DeleteProcess(PEPROCESS Process);

// The calling thread acts for Process during the life of this object.
class [[nodiscard]] AttachProcess {
public:
    explicit AttachProcess(PEPROCESS Process) : Old_(CurrentThread().Process) {
        CurrentThread().Process = Process;
    }
    ~AttachProcess() {
        CurrentThread().Process = Old_;
    }
    AttachProcess(const AttachProcess &) = delete;
    AttachProcess &operator=(const AttachProcess &) = delete;

private:
    PEPROCESS Old_;
};

// Handles of system threads. The object manager's ZwClose passes to CloseThreadHandle what IsThreadHandle knows.
bool IsThreadHandle(HANDLE Handle);
// FALSE if the handle is not open.
bool CloseThreadHandle(HANDLE Handle);
// The thread behind an open handle, to wait for; NULL if the handle is not open.
PKTHREAD ThreadOfHandle(HANDLE Handle);

SIZE_T OpenThreadHandles();
// System threads that have not ended.
SIZE_T RunningSystemThreads();

// The machine goes down: every system thread that is in a delay, or enters one, ends there, as if it had called
// PsTerminateSystemThread; all are joined. Pool that such a thread allocated and still has is no leak: it is freed.
// Waits for threads that are busy; one that has not come to a delay without a lock after a minute stops the process
// with the place where it began.
void StopSystemThreads();

} // namespace embedded
