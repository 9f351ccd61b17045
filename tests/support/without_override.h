// Permissions that hold for root too, and another user.
#pragma once

#include <exception>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace test {

// Runs Action in a thread to which permissions apply even if it is root's, and so to the programs that it starts.
template <class Action>
void WithoutOverride(Action Run) {
    std::thread([&Run] {
        if (geteuid() == 0) {
            __user_cap_header_struct Header = {_LINUX_CAPABILITY_VERSION_3, 0};
            __user_cap_data_struct Data[2] = {};
            ASSERT_EQ(syscall(SYS_capget, &Header, Data), 0);
            for (const unsigned Right : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) {
                ASSERT_EQ(prctl(PR_CAPBSET_DROP, Right, 0, 0, 0), 0);
                Data[0].effective &= ~(1u << Right);
                Data[0].permitted &= ~(1u << Right);
                Data[0].inheritable &= ~(1u << Right);
            }
            ASSERT_EQ(syscall(SYS_capset, &Header, Data), 0);
        }
        Run();
    }).join();
}

// Runs Action as another user than root: in a thread that has become one, or as who runs the tests anyway.
constexpr unsigned AnotherUser = 60'001;
template <class Action>
void AsAnotherUser(Action Run) {
    std::thread([&Run] {
        if (geteuid() == 0) {
            // The system calls themselves change one thread.
            ASSERT_EQ(syscall(SYS_setgroups, 0, nullptr), 0);
            ASSERT_EQ(syscall(SYS_setresgid, AnotherUser, AnotherUser, AnotherUser), 0);
            ASSERT_EQ(syscall(SYS_setresuid, AnotherUser, AnotherUser, AnotherUser), 0);
        }
        Run();
    }).join();
    prctl(PR_SET_DUMPABLE, 1); // which a change of users takes away
}

} // namespace test
