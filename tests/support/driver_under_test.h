// The driver that the tests run: the one linked into the test program, or, in the test program for the image, the
// image. Which one is decided where the program is linked; no test knows.
#pragma once

#include <string>

#include "embedded/kernel.h"

namespace test {

// Runs the driver's initialisation; its status.
NTSTATUS LoadDriverUnderTest(embedded::Kernel &Kernel);

// The driver's variables are what they are before its first start. Called when no kernel runs it.
void ResetDriverUnderTest();

// The file of the image; empty when the driver is linked in.
std::string ImageUnderTest();

// The kernel's service that a function pointer of the driver's leads to: itself, or what the image's jump to an import
// is bound to.
void *ServiceBehind(void *Function);

} // namespace test
