// The image as the driver under test: mapped afresh for every kernel, at the address the test program was linked for.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <unistd.h>

#include <gtest/gtest.h>

#include "embedded/base/probe.h"
#include "embedded/loader/driver_image.h"
#include "embedded/verifier/rules.h"
#include "provider/framework.h"
#include "tests/support/driver_under_test.h"

extern "C" const uintptr_t LinkedImageBase;

namespace test {

namespace {

// Calls of each import over all mappings of this process.
std::map<std::string, uint64_t> &Calls() {
    static auto &Instance = *new std::map<std::string, uint64_t>;
    return Instance;
}

std::unique_ptr<embedded::DriverImage> Map() {
    embedded::ImageOptions Options;
    Options.Modules = {{"zelm.sys", "ZelmCreateInstance", reinterpret_cast<void *>(ZelmCreateInstance), 4}};
    Options.Base = LinkedImageBase;
    Options.Recording = embedded::CallRecording::Counted;
    return std::make_unique<embedded::DriverImage>(ImageUnderTest(), std::move(Options));
}

void CountCalls(const embedded::DriverImage &Image) {
    for (const auto &Record : Image.Calls()) {
        Calls()[Record->Module + " " + Record->Called.Name] += Record->Calls.load();
    }
}

// There is always a mapping: tests call functions of the driver, and look at its variables, without a kernel too.
std::unique_ptr<embedded::DriverImage> &Mapping() {
    static auto &Instance = *new std::unique_ptr<embedded::DriverImage>;
    if (Instance == nullptr) {
        Instance = Map();
    }
    return Instance;
}

// Maps the image before the first test, and writes what was called when the last has run: one line an import, with the
// number of calls, into the file that RVFSD_CALL_COUNTS names.
class ImageOfAllTests : public testing::Environment {
public:
    void SetUp() override {
        Mapping();
    }
    void TearDown() override {
        CountCalls(*Mapping());
        // What the driver itself takes of the kernel's 24 KiB; services and a Provider have the rest. What these took
        // here was compiled for finding faults.
        const embedded::StackUse Use = embedded::DeepestStackUse();
        printf("[ STACK    ] %zu bytes at the most, where the driver calls %.*s; %zu where it calls the Provider. With "
               "what "
               "this kernel's services take %zu. The Provider %zu.\n",
               static_cast<size_t>(Use.AtService), static_cast<int>(Use.Service.size()), Use.Service.data(),
               static_cast<size_t>(Use.AtProvider), static_cast<size_t>(Use.Whole), static_cast<size_t>(Use.Provider));
        EXPECT_LT(Use.AtService, embedded::KernelStackBytes / 2);
        EXPECT_LT(Use.AtProvider, embedded::KernelStackBytes / 2);
        if (const char *Name = getenv("RVFSD_CALL_COUNTS"); Name != nullptr && *Name != 0) {
            std::ofstream File(Name);
            for (const auto &[Import, Count] : Calls()) {
                File << Import << ' ' << Count << '\n';
            }
            ASSERT_TRUE(File.good()) << Name;
        }
    }
};

// A test that runs no kernel leaves the driver's variables to nobody either.
class FreshImage : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &) override {
        ResetDriverUnderTest();
    }
};

[[maybe_unused]] const bool Listening = (testing::UnitTest::GetInstance()->listeners().Append(new FreshImage), true);
[[maybe_unused]] const testing::Environment *const Registered = testing::AddGlobalTestEnvironment(new ImageOfAllTests);

} // namespace

NTSTATUS LoadDriverUnderTest(embedded::Kernel &Kernel) {
    return Kernel.LoadDriver(*Mapping(), u"RVFSD");
}

void ResetDriverUnderTest() {
    CountCalls(*Mapping());
    Mapping().reset();
    Mapping();
}

void *ServiceBehind(void *Function) {
    const embedded::DriverImage &Image = *Mapping();
    const auto *Code = static_cast<const unsigned char *>(Function);
    // jmp through the slot of an import, which lies relative to the next instruction
    if (Image.Contains(Function) && Code[0] == 0xFF && Code[1] == 0x25) {
        int32_t Distance;
        memcpy(&Distance, Code + 2, sizeof(Distance));
        const auto Slot = static_cast<uint32_t>(reinterpret_cast<const char *>(Code) + 6 + Distance - Image.Base());
        const auto &Imports = Image.Format().Imports;
        for (size_t Index = 0; Index < Imports.size(); ++Index) {
            if (Imports[Index].SlotRva == Slot) {
                return Image.Calls()[Index]->Target;
            }
        }
    }
    return Function;
}

std::string ImageUnderTest() {
    return RVFSD_IMAGE_UNDER_TEST;
}

} // namespace test
