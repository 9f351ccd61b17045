// Raw requests and traces for tests of the driver's frame.
#pragma once

#include "embedded/io/probe.h"
#include "provider/binding.h"
#include "tests/support/driver_fixture.h"

namespace test {

// A driver with the file \srv\vol\a.txt and the directory \srv\vol\docs.
class FrameFixture : public DriverFixture {
protected:
    using Lines = std::vector<std::string>;
    using Class = FrameworkClass;
    // Requests over it may not wait.
    static constexpr Open Asynchronous = {.Access = FILE_READ_DATA | FILE_WRITE_DATA, .Options = 0};

    FrameFixture() {
        Provider.AddFile(u"\\srv\\vol\\a.txt", "0123456789");
        Provider.AddDirectory(u"\\srv\\vol\\docs");
    }

    IO_STATUS_BLOCK Send(const IrpBuilder &Builder) {
        return SendIrpAndWait(Device(), Builder);
    }
    CCHAR BoostOf(const IrpBuilder &Builder) {
        return SendIrp(Device(), Builder).PriorityBoost();
    }
    // How many opens of the device are counted; without one there is no record either.
    static ULONG DeviceOpens() {
        EXPECT_EQ(IsListEmpty(&DriverFcb->InstanceList), DriverFcb->OpenCount == 0);
        return DriverFcb->OpenCount;
    }
    // Only a test lets the driver bind again, so that it can shut down; it must not obtain twice what it kept.
    static void Forget() {
        NtFsdReleaseSecurityContextInterface();
        NtFsdReleaseProviderInterfaces();
        NtFsdReleaseRvplInterface();
        g_bFrameworkBindFailed = 0;
    }
    // Opens the device itself.
    HANDLE OpenDevice() {
        const CreateResult Result = Create(u"");
        EXPECT_EQ(Result.Status, STATUS_SUCCESS);
        EXPECT_EQ(Result.Information, static_cast<ULONG_PTR>(FILE_OPENED));
        return Result.Handle;
    }
};

} // namespace test
