// A started driver over the scripted Provider, for tests that speak NT: open, read, write, close, and look at what the
// Provider was asked. When the fixture goes the kernel stops and proves that nothing is left.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include <fmt/format.h>

#include "embedded/ex/ex.h"
#include "embedded/io/io.h"
#include "embedded/io/probe.h"
#include "embedded/kernel.h"
#include "embedded/ps/ps.h"
#include "embedded/rtl/counted.h"
#include "embedded/verifier/faults.h"
#include "embedded/verifier/probe.h"
#include "embedded/zw/zw.h"
#include "names/fcb.h"
#include "providers/framework/probe.h"
#include "providers/scripted/scripted_provider.h"
#include "tests/support/devices.h"

namespace test {

using namespace embedded;
using namespace providers;

inline constexpr const char16_t *ServiceKey = u"\\REGISTRY\\Machine\\System\\CurrentControlSet\\Services\\RVFSD";

// What an open asks for; the defaults open a file for reading with full sharing.
struct Open {
    ACCESS_MASK Access = FILE_READ_DATA | SYNCHRONIZE;
    ULONG Share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG Disposition = FILE_OPEN;
    ULONG Options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG Attributes = 0;
    LONGLONG AllocationSize = 0;
    HANDLE Related = nullptr;
    UCHAR StackFlags = 0;
    bool CheckParameters = true;
};

inline constexpr Open AsDirectory = {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                     .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};

// The result of a read or write.
struct Transfer {
    NTSTATUS Status;
    ULONG_PTR Information;
};

// What a request, an open or a transfer ended with.
MATCHER_P2(Ends, Status, Information,
           fmt::format("ends with 0x{:08X} and {}", static_cast<ULONG>(Status), static_cast<ULONG_PTR>(Information))) {
    *result_listener << fmt::format("0x{:08X} and {}", static_cast<ULONG>(arg.Status), arg.Information);
    return arg.Status == Status && arg.Information == static_cast<ULONG_PTR>(Information);
}

inline std::u16string View(const UNICODE_STRING &Text) {
    return {Text.Buffer, Text.Length / sizeof(WCHAR)};
}

// While one of these lives nothing that the test calls in the driver itself gets memory.
struct NoMemoryInTheDriver {
    const PlannedFaults Faults{{.How = FaultPlan::Mode::NthAndAfter}};
    const FaultScope AsTheDriver;
};

// Options of a start.
struct StartOptions {
    std::map<std::u16string, ULONG> Switches; // of the service key
    bool StartsTheDriver = true;
    RVIOM_FSD *Provider = nullptr; // instead of the scripted one
    MM_SYSTEMSIZE SystemSize = MmMediumSystem;
    std::optional<std::filesystem::path> SystemVolume; // where \??\C:\ leads; memory when not given
};

// A file object that the test owns.
class OwnedFile {
public:
    OwnedFile(PDEVICE_OBJECT Device, std::u16string_view Name)
        : File_(CreateFileObject(Device, Name, FO_SYNCHRONOUS_IO)) {
    }
    ~OwnedFile() {
        DereferenceFileObject(File_);
    }
    OwnedFile(const OwnedFile &) = delete;
    OwnedFile &operator=(const OwnedFile &) = delete;
    operator PFILE_OBJECT() const {
        return File_;
    }
    PFILE_OBJECT operator->() const {
        return File_;
    }

private:
    PFILE_OBJECT File_;
};

class DriverFixture : public testing::Test {
protected:
    using Calls = std::vector<std::string>;
    using Slot = providers::Slot;

    static constexpr Open AsDirectory = test::AsDirectory;
    // Makes a directory, which the driver does not open for that.
    static constexpr Open MakingADirectory = {
        .Access = AsDirectory.Access, .Disposition = FILE_CREATE, .Options = AsDirectory.Options};
    static constexpr Open Writer = {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE};

    DriverFixture();
    ~DriverFixture() override;

    void TearDown() override;

    // Boots a kernel and starts the driver. Called by a test that wants other switches, before anything else; otherwise
    // by the first use of the driver.
    void Start(const StartOptions &Options = {});
    // Starts nothing yet; the status of DriverEntry.
    NTSTATUS Load();
    // Closes what the test left open, in the order of the opens; shutdown, and the proof that nothing is left.
    void Stop();
    // For tests of a driver that refuses to shut down (an unbound framework, a failed start): what is left is expected.
    void StopWithLeftovers();

    embedded::Kernel &Kernel();
    PDEVICE_OBJECT Device();

    // Sends the first request, with which the framework is bound: the driver's routines may be called directly then.
    void Bind() {
        Close(MustOpen(u"\\srv\\vol", AsDirectory));
        Provider.ClearCalls();
    }
    // Opens a path of the form \srv\vol\...; relative to Request.Related when that is given.
    embedded::CreateResult Create(std::u16string_view Path, const Open &Request = {});
    // Opens and expects success. A test closes what it wants closed at a time of its own.
    HANDLE MustOpen(std::u16string_view Path, const Open &Request = {});
    NTSTATUS Close(HANDLE Handle);

    Transfer Read(HANDLE Handle, void *Buffer, ULONG Length, LONGLONG Offset);
    Transfer Write(HANDLE Handle, const void *Buffer, ULONG Length, LONGLONG Offset);
    std::string ReadAll(HANDLE Handle, ULONG Length = 4096);

    // The file object behind a handle, its FCB and its instance. The reference is dropped at once: the handle keeps it.
    PFILE_OBJECT FileObject(HANDLE Handle);
    PFCB Fcb(HANDLE Handle);
    PINSTANCE_CONTEXT Instance(HANDLE Handle);

    // The file's three sizes, which are one here.
    LONGLONG FileSize(HANDLE Handle) {
        const FSRTL_ADVANCED_FCB_HEADER &Header = Fcb(Handle)->Header;
        EXPECT_EQ(Header.AllocationSize.QuadPart, Header.FileSize.QuadPart);
        EXPECT_EQ(Header.ValidDataLength.QuadPart, Header.FileSize.QuadPart);
        return Header.FileSize.QuadPart;
    }

    // Traces of the categories Mask go to Printed. The driver's threads have said what they say at start.
    void StartTracing(ULONG Mask, ULONG EnableDebug = 1);
    bool WasPrinted(std::string_view Text) const {
        return Printed.find(Text) != std::string::npos;
    }
    // Each of these stands in what the driver printed, behind the one before it.
    void ExpectPrintedInOrder(std::initializer_list<const char *> Lines);

    // A request that carries nothing but its file object.
    static embedded::IrpBuilder Plain(UCHAR MajorFunction, PFILE_OBJECT File) {
        embedded::IrpBuilder Builder;
        Builder.MajorFunction = MajorFunction;
        Builder.FileObject = File;
        return Builder;
    }

    // An open of the file object for reading, as the I/O manager sends it.
    embedded::IrpBuilder CreateOf(PFILE_OBJECT File, UCHAR StackFlags = 0) {
        embedded::IrpBuilder Builder = Plain(IRP_MJ_CREATE, File);
        Builder.StackFlags = StackFlags;
        Builder.Fill = [this](PIO_STACK_LOCATION IrpSp) {
            Security_.DesiredAccess = FILE_READ_DATA;
            IrpSp->Parameters.Create.SecurityContext = &Security_;
            IrpSp->Parameters.Create.Options = FILE_OPEN << 24;
        };
        return Builder;
    }

    // The last call of that kind since the last ClearCalls, and the names of all.
    providers::Call Last(Slot Operation);
    std::vector<std::string> CallNames() {
        return Provider.CallNames();
    }

    // What the framework was asked, and what it is to fail at.
    providers::FrameworkProbe Frame() {
        return providers::FrameworkProbe(*Framework);
    }

    providers::ScriptedProvider Provider;
    std::unique_ptr<providers::Framework> Framework;
    std::string Printed; // what the driver printed to the debugger

private:
    void CheckBooks();

    std::unique_ptr<embedded::Kernel> Kernel_;
    StartOptions Options_;
    IO_SECURITY_CONTEXT Security_ = {};
    bool Started_ = false;
    bool Booted_ = false;
};

} // namespace test
