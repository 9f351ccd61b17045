// Which program a request is made for, and what it is called.
#pragma once

#include <string>

#include <sys/types.h>

namespace app {

// While it lives, what this thread asks the driver for is asked for a thread of another program; 0: for the kernel.
class AskedBy {
public:
    explicit AskedBy(pid_t Thread) noexcept;
    ~AskedBy();
    AskedBy(const AskedBy &) = delete;
    AskedBy &operator=(const AskedBy &) = delete;
};

// The thread that this one asks for; without an AskedBy this program.
pid_t AskingThread() noexcept;

struct Program {
    pid_t Process = 0; // 0: the kernel
    std::string Name;  // "kernel" for that; empty when the system does not tell it
};

// The program that a thread belongs to. Any thread, with any locks. What the system said of the last 1024 threads is
// kept for ten milliseconds, since a process gets another name with another program.
Program ProgramOf(pid_t Thread);

} // namespace app
