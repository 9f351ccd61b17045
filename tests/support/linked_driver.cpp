#include "kernel/linux/driver_image.h"
#include "tests/support/driver_under_test.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace test {

NTSTATUS LoadDriverUnderTest(embedded::Kernel &Kernel) {
    return Kernel.LoadDriver(DriverEntry, u"RVFSD");
}

void ResetDriverUnderTest() {
    ResetDriverImage();
}

void *ServiceBehind(void *Function) {
    return Function;
}

std::string ImageUnderTest() {
    return {};
}

} // namespace test
