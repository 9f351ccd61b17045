// The control device: prefix claims of the multiple UNC provider, other controls, and opens of the device itself.

#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/driver/frame_client.h"

namespace {

using namespace test;

class Claims : public FrameFixture {
protected:
    struct Answer {
        NTSTATUS Status;
        ULONG Accepted;
    };
    IrpBuilder Question(UNICODE_STRING Name) {
        Request_ = {};
        Request_.PathName = Name;
        Response_.LengthAccepted = 0xDEAD;
        IrpBuilder Builder = Plain(IRP_MJ_DEVICE_CONTROL, nullptr);
        Builder.UserBuffer = &Response_;
        Builder.Fill = [this](PIO_STACK_LOCATION IrpSp) {
            auto &Control = IrpSp->Parameters.DeviceIoControl;
            Control.IoControlCode = IOCTL_REDIR_QUERY_PATH_EX;
            Control.InputBufferLength = InputBytes;
            Control.OutputBufferLength = OutputBytes;
            Control.Type3InputBuffer = &Request_;
        };
        return Builder;
    }
    static UNICODE_STRING Counted(std::u16string_view Text, USHORT MoreBytes = 0) {
        const auto Bytes = static_cast<USHORT>(Text.size() * sizeof(WCHAR) + MoreBytes);
        return {Bytes, Bytes, const_cast<PWSTR>(Text.data())};
    }
    Answer Ask(UNICODE_STRING Name) {
        const IO_STATUS_BLOCK Block = Send(Question(Name));
        EXPECT_EQ(Block.Information, 0u);
        return {Block.Status, Response_.LengthAccepted};
    }
    Answer Ask(std::u16string_view Name) {
        return Ask(Counted(Name));
    }
    void StartFiltering(bool Filter, ULONG Mask = 0x1000) {
        Start({.Switches = {{u"UNCPathFilterBehavior", Filter},
                            {u"EnableDebug", 1},
                            {u"FsDisplayOutput", 1},
                            {u"FsDebugLevel", Mask}}});
        Bind();
        Printed.clear();
    }

    ULONG InputBytes = sizeof(QUERY_PATH_REQUEST_EX);
    ULONG OutputBytes = sizeof(QUERY_PATH_RESPONSE);

private:
    QUERY_PATH_REQUEST_EX Request_ = {};
    QUERY_PATH_RESPONSE Response_ = {};
};

constexpr std::string_view Prefix = "[RVFSD] [RVFSD] IOCTL_REDIR_QUERY_PATH_EX ";

struct StatusRow {
    ULONG Raw;
    NTSTATUS Off, On;
    ULONG ClaimOn;                 // with the filter on; off, only a success claims
    const char *Name, *StatusName; // as they are told
};

constexpr StatusRow Rows[] = {
    {0xC7E70517, STATUS_BAD_NETWORK_PATH, STATUS_BAD_NETWORK_PATH, 0, "RVFS_UNKNOWN_SERVER", "STATUS_BAD_NETWORK_PATH"},
    {0xC7E70536, STATUS_LOGON_FAILURE, STATUS_LOGON_FAILURE, 0, "RVFS_NOT_AUTHENTICATED", "STATUS_LOGON_FAILURE"},
    {0xC7E70006, STATUS_LOGON_FAILURE, STATUS_LOGON_FAILURE, 0, "RV_STATUS_ACCESS_DENIED", "STATUS_LOGON_FAILURE"},
    {0xC7E7050A, STATUS_BAD_NETWORK_NAME, STATUS_SUCCESS, 8, "RVFS_UNRECOGNIZED_VOLUME", "STATUS_BAD_NETWORK_NAME"},
    {0xC7E70503, STATUS_BAD_NETWORK_NAME, STATUS_SUCCESS, 8, "RVFS_PATH_NOT_FOUND", "STATUS_BAD_NETWORK_NAME"},
    {0xC7E70102, STATUS_BAD_NETWORK_PATH, STATUS_BAD_NETWORK_PATH, 0, nullptr, "STATUS_BAD_NETWORK_PATH"},
    // An error without a code is no success.
    {0xC7E70000, STATUS_BAD_NETWORK_PATH, STATUS_BAD_NETWORK_PATH, 0, nullptr, "STATUS_BAD_NETWORK_PATH"},
};

// The line that tells a refusal.
std::string Told(const StatusRow &Row) {
    const std::string Status = fmt::format("{} (0x{:08X}).\n", Row.StatusName, static_cast<ULONG>(Row.Off));
    return Row.Name != nullptr
               ? fmt::format("failed \"\" with {} (0x{:08X}); setting status {}", Row.Name, Row.Raw, Status)
               : fmt::format("failed \"\" with unexpected status 0x{:08X}; setting Windows status {}", Row.Raw, Status);
}

TEST_F(Claims, AreDecidedByTheProvidersStatusAndTheFilter) {
    for (const bool Filter : {false, true}) {
        StartFiltering(Filter);
        for (const StatusRow &Row : Rows) {
            SCOPED_TRACE(fmt::format("{:08X}, filter {}", Row.Raw, Filter));
            Provider.OnCall(Slot::QueryPathForVolume).Return(static_cast<RVSTATUS>(Row.Raw));
            Printed.clear();
            const Answer Got = Ask(u"\\srv\\vol\\docs");
            EXPECT_EQ(Got.Status, Filter ? Row.On : Row.Off);
            EXPECT_EQ(Got.Accepted, Filter ? Row.ClaimOn : 0u);
            const std::string Claimed = fmt::format("for \"\\srv\\vol\\docs\" returned {} (0x{:08X}), but successfully "
                                                    "claiming \"\\srv\" of \"\\srv\\vol\\docs\" (8 bytes).\n",
                                                    Row.Name != nullptr ? Row.Name : "", Row.Raw);
            EXPECT_TRUE(WasPrinted(std::string(Prefix) + (Got.Accepted != 0 ? Claimed : Told(Row)))) << Printed;
            Provider.ClearScript();
        }
        Stop();
    }
}

TEST_F(Claims, AskForServerAndShareAndClaimTheServer) {
    struct {
        std::u16string_view Name, Asked; // of the Provider
        ULONG Filtered;                  // the claim with the filter on
    } constexpr Names[] = {
        {u"\\srv\\vol\\docs\\a.txt", u"\\srv\\vol", 8},
        {u"\\srv\\vol", u"\\srv\\vol", 8},
        {u"\\srv\\vol\\", u"\\srv\\vol", 8},
        {u"\\\\srv\\vol\\docs", u"\\\\srv\\vol", 10},
        {u"\\srv", u"\\srv", 8},
        {u"\\srv\\", u"\\srv\\", 10},
        {u"\\srv\\\\vol", u"\\srv\\\\vol", 18}, // an empty share is none
        {u"\\", u"\\", 2},
        {u"srv\\vol\\x", u"srv\\vol", 6},
    };
    StartFiltering(true);
    Provider.OnCall(Slot::QueryPathForVolume).ReturnAfter(RVSTATUS::Success).AnswerPath(u"\\srv\\vol");
    for (const auto &Row : Names) {
        Provider.ClearCalls();
        const Answer Got = Ask(Row.Name);
        EXPECT_EQ(Got.Status, STATUS_SUCCESS) << ToUtf8(Row.Name);
        EXPECT_EQ(Got.Accepted, Row.Filtered) << ToUtf8(Row.Name);
        EXPECT_EQ(Provider.CallRecords().at(0).String("path"), Row.Asked);
    }
    // Half a character at the end is no part of the name.
    EXPECT_EQ(Ask(Counted(u"\\srv\\vol", 1)).Accepted, 8u);
    EXPECT_EQ(Ask(Counted(u"\\srv", 1)).Accepted, 8u);
    // Without the filter the claim is as long as the path that the Provider answers, whatever was asked.
    Stop();
    StartFiltering(false);
    for (const std::u16string_view Path : {u"\\srv\\vol", u"\\srv", u"\\longer\\than\\asked\\for"}) {
        Provider.OnCall(Slot::QueryPathForVolume).ReturnAfter(RVSTATUS::Success).AnswerPath(std::u16string(Path));
        EXPECT_EQ(Ask(u"\\srv\\vol\\docs").Accepted, Path.size() * sizeof(WCHAR));
        Provider.ClearScript();
    }
    EXPECT_TRUE(
        WasPrinted(std::string(Prefix) + "successfully claiming \"\\srv\" of \"\\srv\\vol\\docs\" (8 bytes).\n"));
}

TEST_F(Claims, NeverTakeTheTwoRefusedNames) {
    StartFiltering(true);
    for (const std::u16string_view Name : {u"\\SYSTEM.INI", u"\\system.Ini", u"\\LocalHost"}) {
        EXPECT_EQ(Ask(Name).Status, STATUS_BAD_NETWORK_NAME);
    }
    EXPECT_EQ(CallNames(), Lines{});
    EXPECT_TRUE(WasPrinted(std::string(Prefix) +
                           "matched request \"\\LocalHost\" against \"\\LOCALHOST\"; STATUS_BAD_NETWORK_NAME.\n"));
    EXPECT_EQ(Ask(u"\\LOCALHOST\\vol").Status, STATUS_BAD_NETWORK_PATH) << "the Provider knows no such server";
    EXPECT_EQ(Provider.CountCalls(), 1u);
}

TEST_F(Claims, NeedAKernelCallerAndRoomForBothRecords) {
    using Case = std::tuple<ULONG, ULONG, KPROCESSOR_MODE, NTSTATUS>;
    StartFiltering(false);
    for (const auto &[Input, Output, Mode, Status] :
         {Case{79, 4, KernelMode, STATUS_INVALID_PARAMETER}, Case{80, 3, KernelMode, STATUS_INVALID_PARAMETER},
          Case{0, 0, UserMode, STATUS_INVALID_DEVICE_REQUEST}, Case{80, 4, UserMode, STATUS_INVALID_DEVICE_REQUEST},
          Case{80, 4, KernelMode, STATUS_SUCCESS}}) {
        InputBytes = Input;
        OutputBytes = Output;
        Printed.clear();
        IrpBuilder Builder = Question(Counted(u"\\srv\\vol"));
        Builder.RequestorMode = Mode;
        SentIrp Sent = SendIrp(Device(), Builder);
        EXPECT_EQ(Sent.Wait().Status, Status);
        EXPECT_EQ(Sent.PriorityBoost(), 2);
        EXPECT_EQ(WasPrinted(fmt::format("called with insufficient buffer size; input {} bytes, output {} bytes.\n",
                                         Input, Output)),
                  Input < 80 || Output < 4);
    }
}

TEST_F(Claims, WithoutMemoryForTheNameAreRefused) {
    StartFiltering(false, 0);
    for (const ULONG64 Nth : {2, 3}) { // after the context: the name, the Provider's buffer
        const PlannedFaults NoMemory({.Kinds = FaultBit(FaultKind::Pool), .Nth = Nth});
        const Answer Got = Ask(u"\\srv\\vol");
        EXPECT_EQ(Got.Status, Nth == 2 ? STATUS_INSUFFICIENT_RESOURCES : STATUS_BAD_NETWORK_PATH);
        EXPECT_EQ(Got.Accepted, 0u);
    }
    EXPECT_EQ(CallNames(), Lines{});
}

TEST_F(Claims, OtherControlsAreInvalidByBothFunctions) {
    Start();
    for (const UCHAR MajorFunction : {IRP_MJ_DEVICE_CONTROL, IRP_MJ_FILE_SYSTEM_CONTROL}) {
        for (const ULONG Code : {0u, 0xFFFFFFFFu, FSCTL_GET_COMPRESSION + 0u, FSCTL_SET_COMPRESSION + 0u}) {
            IrpBuilder Builder = Plain(MajorFunction, nullptr);
            Builder.Fill = [Code](PIO_STACK_LOCATION IrpSp) { IrpSp->Parameters.DeviceIoControl.IoControlCode = Code; };
            SentIrp Sent = SendIrp(Device(), Builder);
            const bool Posted = Code == FSCTL_GET_COMPRESSION || Code == FSCTL_SET_COMPRESSION;
            EXPECT_EQ(Sent.Returned(), Posted ? STATUS_PENDING : STATUS_INVALID_DEVICE_REQUEST);
            EXPECT_EQ(Sent.Wait().Status, STATUS_INVALID_DEVICE_REQUEST);
        }
    }
}

TEST_F(Claims, DeviceOpensAreCountedByProcess) {
    StartTracing(0x220);
    const PEPROCESS Other = CreateProcess("other");
    const HANDLE One = OpenDevice();
    const HANDLE Two = OpenDevice();
    EXPECT_EQ(FileObject(One)->FsContext2, FileObject(Two)->FsContext2) << "one record a process";
    EXPECT_EQ(FileObject(One)->FsContext, DriverFcb);
    EXPECT_EQ(FileObject(One)->SectionObjectPointer, &DriverFcb->SectionObjectPointers);
    EXPECT_TRUE(WasPrinted("[RVFSD]        Instance count for this process: 2\n"));
    {
        const AttachProcess Attached(Other);
        const HANDLE Third = OpenDevice();
        EXPECT_NE(FileObject(Third)->FsContext2, FileObject(One)->FsContext2);
        EXPECT_EQ(DeviceOpens(), 3u);
        Printed.clear();
        Close(Third);
        EXPECT_TRUE(WasPrinted("[RVFSD] Process termination, cleaning resources.\n"
                               "[RVFSD]        Instance count for driver FCB: 3\n"));
    }
    Close(One);
    EXPECT_EQ(DeviceOpens(), 1u);
    Close(Two);
    EXPECT_EQ(DeviceOpens(), 0u);
    DeleteProcess(Other);
}

TEST_F(Claims, ADeviceOpenWithoutMemoryAttachesNothing) {
    Start();
    Bind();
    const PlannedFaults NoMemory({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool)});
    EXPECT_THAT(Create(u""), Ends(STATUS_INSUFFICIENT_RESOURCES, FILE_DOES_NOT_EXIST));
    EXPECT_EQ(DeviceOpens(), 0u);
}

using ConcurrentClaims = Claims;

// Opens of the device are counted under the control device's lock, which its cleanup does not take.
TEST_F(ConcurrentClaims, DeviceOpensAndClosesAreAllCounted) {
    Start();
    Bind();
    const auto OpenAndClose = [this] {
        for (int Round = 0; Round < 200; ++Round) {
            Close(OpenDevice());
        }
    };
    std::thread Other(OpenAndClose);
    OpenAndClose();
    Other.join();
    EXPECT_EQ(DeviceOpens(), 0u);
}

} // namespace
