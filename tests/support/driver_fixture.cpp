#include "tests/support/driver_fixture.h"

#include <mutex>

#include "embedded/base/driver_stack.h"
#include "embedded/io/probe.h"
#include "embedded/rtl/counted.h"
#include "tests/support/driver_under_test.h"

namespace test {

namespace {

std::mutex PrintedLock;
} // namespace

DriverFixture::DriverFixture() = default;

DriverFixture::~DriverFixture() = default;

void DriverFixture::Start(const StartOptions &Options) {
    Options_ = Options;
    Started_ = true;
    embedded::KernelOptions Boot;
    for (const auto &[Name, Value] : Options.Switches) {
        Boot.Registry.push_back({ServiceKey, Name, Value});
    }
    Boot.SystemSize = Options.SystemSize;
    Boot.SystemVolume = Options.SystemVolume;
    Boot.DebugSink = [this](std::string_view Text) {
        const std::lock_guard Hold(PrintedLock);
        Printed += Text;
    };
    Boot.ResetDriverImage = ResetDriverUnderTest;
    Kernel_ = std::make_unique<embedded::Kernel>(std::move(Boot));
    Framework = std::make_unique<providers::Framework>(Options.Provider != nullptr ? Options.Provider : &Provider);
    Framework->SetTimeSource([] { return embedded::Clock::SystemTime(); });
    Framework->SetOperationCaller(embedded::RunProvider);
    if (Options.StartsTheDriver) {
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
}

NTSTATUS DriverFixture::Load() {
    const NTSTATUS Status = LoadDriverUnderTest(*Kernel_);
    Booted_ = NT_SUCCESS(Status);
    return Status;
}

embedded::Kernel &DriverFixture::Kernel() {
    if (!Started_) {
        Start();
    }
    return *Kernel_;
}

PDEVICE_OBJECT DriverFixture::Device() {
    return Kernel().Device();
}

void DriverFixture::TearDown() {
    if (Kernel_ != nullptr) {
        Stop();
    }
}

void DriverFixture::CheckBooks() {
    for (const std::string &Line : Provider.OpenHandles()) {
        ADD_FAILURE() << "a Provider handle is left: " << Line;
    }
    for (const std::string &Line : Provider.Violations()) {
        ADD_FAILURE() << "the Provider was misused: " << Line;
    }
    for (const std::string &Line : Framework->LeakReport()) {
        ADD_FAILURE() << "the framework was not given back: " << Line;
    }
    for (const std::string &Line : Frame().Violations()) {
        ADD_FAILURE() << "the framework was misused: " << Line;
    }
}

void DriverFixture::Stop() {
    Kernel_->CloseOpenHandles();
    EXPECT_EQ(Kernel_->Stop(), "");
    CheckBooks();
    Framework.reset();
    Kernel_.reset();
    Started_ = false;
}

void DriverFixture::StopWithLeftovers() {
    embedded::SetVerifierLevel(embedded::VerifierLevel::Off);
    Kernel_->CloseOpenHandles();
    Kernel_->Stop();
    embedded::SetVerifierLevel(embedded::VerifierLevel::On);
    Framework.reset();
    Kernel_.reset();
    Started_ = false;
}

embedded::CreateResult DriverFixture::Create(std::u16string_view Path, const Open &Request) {
    Kernel();
    const std::u16string Name =
        Request.Related != nullptr ? std::u16string(Path) : u"\\Device\\RvFsd" + std::u16string(Path);
    UNICODE_STRING ObjectName = embedded::ToUnicodeString(Name);
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, &ObjectName, OBJ_CASE_INSENSITIVE, Request.Related, nullptr);
    LARGE_INTEGER Allocation = {.QuadPart = Request.AllocationSize};
    embedded::CreateParameters Parameters;
    Parameters.ObjectAttributes = &Attributes;
    Parameters.DesiredAccess = Request.Access;
    Parameters.AllocationSize = Request.AllocationSize != 0 ? &Allocation : nullptr;
    Parameters.FileAttributes = Request.Attributes;
    Parameters.ShareAccess = Request.Share;
    Parameters.Disposition = Request.Disposition;
    Parameters.Options = Request.Options;
    Parameters.StackFlags = Request.StackFlags;
    Parameters.CheckParameters = Request.CheckParameters;
    return embedded::CreateFile(Parameters);
}

HANDLE DriverFixture::MustOpen(std::u16string_view Path, const Open &Request) {
    const embedded::CreateResult Result = Create(Path, Request);
    EXPECT_EQ(Result.Status, STATUS_SUCCESS);
    return Result.Handle;
}

NTSTATUS DriverFixture::Close(HANDLE Handle) {
    return NtClose(Handle);
}

Transfer DriverFixture::Read(HANDLE Handle, void *Buffer, ULONG Length, LONGLONG Offset) {
    IO_STATUS_BLOCK IoStatus = {};
    LARGE_INTEGER At = {.QuadPart = Offset};
    const NTSTATUS Status = NtReadFile(Handle, nullptr, nullptr, nullptr, &IoStatus, Buffer, Length, &At, nullptr);
    return {Status, IoStatus.Information};
}

Transfer DriverFixture::Write(HANDLE Handle, const void *Buffer, ULONG Length, LONGLONG Offset) {
    IO_STATUS_BLOCK IoStatus = {};
    LARGE_INTEGER At = {.QuadPart = Offset};
    const NTSTATUS Status =
        NtWriteFile(Handle, nullptr, nullptr, nullptr, &IoStatus, const_cast<void *>(Buffer), Length, &At, nullptr);
    return {Status, IoStatus.Information};
}

std::string DriverFixture::ReadAll(HANDLE Handle, ULONG Length) {
    std::string Text(Length, '\0');
    const Transfer Result = Read(Handle, Text.data(), Length, 0);
    EXPECT_TRUE(Result.Status == STATUS_SUCCESS || Result.Status == STATUS_END_OF_FILE);
    Text.resize(Result.Information);
    return Text;
}

void DriverFixture::StartTracing(ULONG Mask, ULONG EnableDebug) {
    Start({.Switches = {{u"EnableDebug", EnableDebug}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", Mask}}});
    embedded::Clock::Settle();
}

providers::Call DriverFixture::Last(Slot Operation) {
    providers::Call Found;
    for (const providers::Call &Each : Provider.CallRecords()) {
        if (Each.Operation == Operation) {
            Found = Each;
        }
    }
    EXPECT_EQ(Found.Operation, Operation) << "no such call";
    return Found;
}

void DriverFixture::ExpectPrintedInOrder(std::initializer_list<const char *> Lines) {
    size_t At = 0;
    for (const char *Line : Lines) {
        At = Printed.find(Line, At);
        ASSERT_NE(At, std::string::npos) << "missing or too early: " << Line << Printed;
    }
}

PFILE_OBJECT DriverFixture::FileObject(HANDLE Handle) {
    PFILE_OBJECT Object = embedded::FileObjectFromHandle(Handle);
    EXPECT_NE(Object, nullptr);
    embedded::DereferenceFileObject(Object);
    return Object;
}

PFCB DriverFixture::Fcb(HANDLE Handle) {
    return static_cast<PFCB>(FileObject(Handle)->FsContext);
}

PINSTANCE_CONTEXT DriverFixture::Instance(HANDLE Handle) {
    return static_cast<PINSTANCE_CONTEXT>(FileObject(Handle)->FsContext2);
}

} // namespace test
