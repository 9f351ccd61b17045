// What tests look at and plant: the use of the driver's stacks.
#pragma once

#include <string_view>

#include "kernel/kernel.h"

namespace embedded {

// The most of each that any thread used since the process began, in bytes, while Verifying().
struct StackUse {
    ULONG_PTR AtService;      // by the driver alone, where it called a service
    std::string_view Service; // that one
    ULONG_PTR AtProvider;     // by the driver alone, where it called the Provider
    ULONG_PTR Whole;          // of a driver's stack: what its services take of it included
    ULONG_PTR Provider;       // by the Provider alone; MeasuredProviderBytes stands for that and more
};

// Sums up what the threads that have ended and the calling one used.
StackUse DeepestStackUse();

} // namespace embedded
