// Raw requests and traces for tests of the driver's frame.
#pragma once

#include <fmt/format.h>

#include "tests/support/driver_fixture.h"

namespace test {

// A driver with the file \srv\vol\a.txt and the directory \srv\vol\docs.
class FrameFixture : public DriverFixture {
protected:
    using Lines = std::vector<std::string>;
    using Slot = providers::Slot;
    using Class = providers::FrameworkClass;

    static constexpr Open AsDirectory = {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                         .Options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT};

    FrameFixture() {
        Provider.AddFile(u"\\srv\\vol\\a.txt", "0123456789");
        Provider.AddDirectory(u"\\srv\\vol\\docs");
    }

    // Traces of the categories Mask go to Printed. The driver's threads have said what they say at start.
    void StartTracing(ULONG Mask, ULONG EnableDebug = 1) {
        Start({.Switches = {{u"EnableDebug", EnableDebug}, {u"FsDisplayOutput", 1}, {u"FsDebugLevel", Mask}}});
        embedded::Clock::Settle();
    }
    // The framework is bound with the first request; this is one.
    void Bind() {
        Close(MustOpen(u"\\srv\\vol\\a.txt"));
        Provider.ClearCalls();
    }
    bool WasPrinted(std::string_view Text) const {
        return Printed.find(Text) != std::string::npos;
    }

    // A request that carries nothing but its file object.
    static embedded::IrpBuilder Plain(UCHAR MajorFunction, PFILE_OBJECT File) {
        embedded::IrpBuilder Builder;
        Builder.MajorFunction = MajorFunction;
        Builder.FileObject = File;
        return Builder;
    }
    IO_STATUS_BLOCK Send(const embedded::IrpBuilder &Builder) {
        return embedded::SendIrpAndWait(Device(), Builder);
    }
    CCHAR BoostOf(const embedded::IrpBuilder &Builder) {
        return embedded::SendIrp(Device(), Builder).PriorityBoost();
    }
    // Opens the device itself.
    HANDLE OpenDevice() {
        const embedded::CreateResult Result = Create(u"");
        EXPECT_EQ(Result.Status, STATUS_SUCCESS);
        EXPECT_EQ(Result.Information, static_cast<ULONG_PTR>(FILE_OPENED));
        return Result.Handle;
    }
};

// A file object that the test owns.
class OwnedFile {
public:
    OwnedFile(PDEVICE_OBJECT Device, std::u16string_view Name)
        : File_(embedded::CreateFileObject(Device, Name, FO_SYNCHRONOUS_IO)) {
    }
    ~OwnedFile() {
        embedded::DereferenceFileObject(File_);
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

} // namespace test
