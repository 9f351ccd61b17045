// Setting what files and directories are: attributes and times, the byte offset, sizes; and requests that are refused.

#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/driver/request_log.h"
#include "tests/driver/set_client.h"

namespace {

using namespace test;

// Failures of the server, as it says them and as callers hear of them.
constexpr std::pair<ULONG, NTSTATUS> Refusals[] = {{0xC7E70006, STATUS_ACCESS_DENIED},
                                                   {0xC7E70000, STATUS_UNSUCCESSFUL},
                                                   {0xC7E7000E, STATUS_UNSUCCESSFUL},
                                                   {0x0000000E, STATUS_UNSUCCESSFUL},
                                                   {0x80000007, STATUS_BUFFER_OVERFLOW}};

using Setting = SetFixture;

// ---- Attributes and times

TEST_F(Setting, OfBasicInformationSendsWhatChangesAndNothingElse) {
    struct {
        ULONG Attributes;
        LONG64 Creation, LastAccess, LastWrite;
        const char *Sent; // behind the handle; NULL: no call
        bool IsDirectory = false;
    } constexpr Cases[] = {
        {0, 0, 0, 0, nullptr},
        {0, -1, -1, -1, nullptr},
        {0, 0, -1, 0, nullptr},
        {FILE_ATTRIBUTE_NORMAL, 0, 0, 0, "attributes=0, creation=null, lastWrite=null, lastAccess=null"},
        {FILE_ATTRIBUTE_TEMPORARY, 0, 0, 0, "attributes=0, creation=null"},
        {0xFFFFFFFF, -1, 0, -1, "attributes=0x27, creation=null, lastWrite=null, lastAccess=null"},
        {FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_HIDDEN, 0, 0, 0, "attributes=2, creation=null"},
        {0, 5, 0, 0, "attributes=null, creation=5, lastWrite=null, lastAccess=null"},
        {0, -1, 6, 0, "attributes=null, creation=null, lastWrite=null, lastAccess=6"},
        {0, 0, 0, 7, "attributes=null, creation=null, lastWrite=7, lastAccess=null"},
        {1, 1, 2, 3, "attributes=1, creation=1, lastWrite=3, lastAccess=2"},
        // A directory stays one.
        {FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_NORMAL, 0, 0, 0, "attributes=0x12, creation=null", true},
        {0, 0, 0, 9, "attributes=null, creation=null, lastWrite=9, lastAccess=null", true},
    };
    for (const auto &Each : Cases) {
        Provider.AddFile(u"\\srv\\vol\\b.txt");
        const HANDLE Handle = Each.IsDirectory ? MustOpen(u"\\srv\\vol\\d", DirectoryForChange)
                                               : MustOpen(u"\\srv\\vol\\b.txt", ForChange);
        Provider.ClearCalls();
        FILE_BASIC_INFORMATION Basic = {};
        Basic.FileAttributes = Each.Attributes;
        Basic.CreationTime.QuadPart = Each.Creation;
        Basic.LastAccessTime.QuadPart = Each.LastAccess;
        Basic.LastWriteTime.QuadPart = Each.LastWrite;
        Basic.ChangeTime.QuadPart = 77; // counts for nothing
        EXPECT_EQ(Set(Handle, FileBasicInformation, Basic), STATUS_SUCCESS);
        const Slot Setter = Each.IsDirectory ? Slot::SetDirectoryInformation : Slot::SetFileInformation;
        ASSERT_EQ(CallNames(), Each.Sent == nullptr ? Calls{} : Calls{NameOf(Setter)});
        if (Each.Sent != nullptr) {
            EXPECT_NE(Provider.Calls()[0].find(Each.Sent), std::string::npos) << Provider.Calls()[0];
            EXPECT_EQ(Last(Setter).Number("handle"),
                      Each.IsDirectory ? Instance(Handle)->DirHandle : Instance(Handle)->FileHandle);
        }
        Close(Handle);
    }
}

// The handle that such an open names itself by is its parent's. What needs none opens none.
TEST_F(Setting, ADirectoryThatWasCreatedButNotOpenedIsOpenedBeforeItIsChanged) {
    Provider.AddFile(u"\\srv\\vol\\d\\sibling.txt");
    HANDLE Handle = CreateUnopened(u"\\srv\\vol\\d\\new");
    FILE_BASIC_INFORMATION Basic = {};
    const UCHAR Replace = 0;
    Provider.ClearCalls();
    EXPECT_EQ(Set(Handle, FileBasicInformation, Basic), STATUS_SUCCESS);
    EXPECT_EQ(SetDisposition(Handle, false), STATUS_SUCCESS);
    EXPECT_EQ(Send(Handle, FileRenameInformation, &Replace, 1), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(CallNames(), Calls{});
    const HANDLE Second = MustOpen(u"\\srv\\vol\\d\\new", DirectoryForChange);
    Provider.ClearCalls();
    EXPECT_EQ(SetDisposition(Handle, true), STATUS_CANNOT_DELETE);
    EXPECT_EQ(CallNames(), Calls{});
    EXPECT_EQ(Instance(Handle)->DirHandle, 0u);
    Close(Second);

    Basic.FileAttributes = FILE_ATTRIBUTE_HIDDEN;
    Provider.OnCall(Slot::OpenDirectory).Return(ProviderError(0x0102)).Times(1);
    Provider.ClearCalls();
    EXPECT_EQ(Set(Handle, FileBasicInformation, Basic), STATUS_NETWORK_BUSY);
    EXPECT_EQ(CallNames(), Calls{"RVFsdOpenDirectory"});
    EXPECT_EQ(Set(Handle, FileBasicInformation, Basic), STATUS_SUCCESS);
    EXPECT_EQ(Provider.Attributes(u"\\srv\\vol\\d\\new") & RV_ATTR_HIDDEN, RV_ATTR_HIDDEN + 0u);
    EXPECT_EQ(Provider.Attributes(u"\\srv\\vol\\d") & RV_ATTR_HIDDEN, 0u);
    Close(Handle);
    // Its own entries count, not its parent's.
    Handle = CreateUnopened(u"\\srv\\vol\\d\\gone");
    EXPECT_EQ(SetDisposition(Handle, true), STATUS_SUCCESS);
    EXPECT_NE(Instance(Handle)->DirHandle, 0u);
    Close(Handle);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\d\\gone"));
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\d\\sibling.txt"));
}

TEST_F(Setting, ARefusalOfTheProviderIsTheAnswer) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    FILE_BASIC_INFORMATION Basic = {};
    Basic.FileAttributes = FILE_ATTRIBUTE_HIDDEN;
    for (const auto &[Raw, Status] : Refusals) {
        Provider.ClearScript();
        Provider.OnCall(Slot::SetFileInformation).Return(RVSTATUS{Raw});
        EXPECT_EQ(Set(Handle, FileBasicInformation, Basic), Status);
    }
}

// ---- Classes, lengths, devices

TEST_F(Setting, OfShortBuffersIsRefusedBeforeAnybodyReadsThem) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    constexpr std::pair<ULONG, ULONG> Needed[] = {
        {FileBasicInformation, 40},    {FileRenameInformation, 1}, {FileDispositionInformation, 1},
        {FilePositionInformation, 8},  {FileAllInformation, 88},   {FileAllocationInformation, 8},
        {FileEndOfFileInformation, 8},
    };
    for (const auto &[InfoClass, InputBytes] : Needed) {
        SCOPED_TRACE(InfoClass);
        Provider.ClearCalls();
        for (ULONG Length = 0; Length < InputBytes; ++Length) {
            const std::vector<UCHAR> Exact(Length); // the sanitizer sees a byte read behind it
            EXPECT_EQ(Send(Handle, InfoClass, Exact.data(), Length), STATUS_INFO_LENGTH_MISMATCH) << Length;
        }
        EXPECT_EQ(Send(Handle, InfoClass, nullptr, 100), STATUS_INFO_LENGTH_MISMATCH);
        EXPECT_EQ(CallNames(), Calls{});
        for (ULONG Length : {InputBytes, InputBytes + 9}) {
            const std::vector<UCHAR> Zeros(Length);
            EXPECT_NE(Send(Handle, InfoClass, Zeros.data(), Length), STATUS_INFO_LENGTH_MISMATCH);
        }
    }
}

TEST_F(Setting, OtherClassesAreNotKnownAndLinksAreNotOffered) {
    StartTracing(1);
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    const std::vector<UCHAR> Zeros(200);
    Provider.ClearCalls();
    for (ULONG InfoClass = 0; InfoClass < 70; ++InfoClass) {
        constexpr ULONG Known[] = {FileBasicInformation,    FileRenameInformation, FileDispositionInformation,
                                   FilePositionInformation, FileAllInformation,    FileAllocationInformation,
                                   FileEndOfFileInformation};
        if (std::find(std::begin(Known), std::end(Known), InfoClass) == std::end(Known)) {
            const bool Link = InfoClass == FileLinkInformation;
            EXPECT_EQ(Send(Handle, InfoClass, Zeros.data(), 200),
                      Link ? STATUS_INVALID_DEVICE_REQUEST : STATUS_INVALID_PARAMETER)
                << InfoClass;
        }
    }
    EXPECT_EQ(Send(Handle, 0xFFFFFFFF, Zeros.data(), 200), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CallNames(), Calls{});
    EXPECT_TRUE(WasPrinted("SetFileInformation Error: Invalid Level 0x5\n"));
    EXPECT_TRUE(WasPrinted("SetFileInformation Error: Invalid Level 0xFFFFFFFF\n"));
}

TEST_F(Setting, TheDeviceItselfHasNothingToSet) {
    StartTracing(128);
    const HANDLE Handle = MustOpen(u"", {.Access = FILE_READ_DATA | SYNCHRONIZE});
    const FILE_BASIC_INFORMATION Basic = {};
    EXPECT_EQ(Send(Handle, FileBasicInformation, &Basic, sizeof(Basic)), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(WasPrinted("Error: Attempted to set info on a device.\n"));
}

TEST_F(Setting, OnABusyFileIsPendingAndDone) {
    Start({.Switches = {{u"EnableAsyncIo", 1}}});
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", {.Access = ForChange.Access & ~SYNCHRONIZE, .Options = 0});
    const LONG64 Size = 4;
    const PlannedFaults Busy({.Kinds = FaultBit(FaultKind::TryAcquire), .Nth = 1});
    SentIrp Posted = SendIrp(Device(), Request(Handle, FileEndOfFileInformation, &Size, 8));
    EXPECT_EQ(Posted.Returned(), STATUS_PENDING);
    EXPECT_EQ(Posted.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\a.txt"), "0123");
}

// ---- The byte offset

TEST_F(Setting, ThePositionIsTakenAsItIs) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    Provider.ClearCalls();
    for (LONG64 Position : {LONG64{0}, LONG64{7}, INT64_MAX, LONG64{-1}}) {
        EXPECT_EQ(Send(Handle, FilePositionInformation, &Position, 8), STATUS_SUCCESS);
        EXPECT_EQ(FileObject(Handle)->CurrentByteOffset.QuadPart, Position);
    }
    EXPECT_EQ(CallNames(), Calls{});
}

TEST_F(Setting, AllInformationSetsBasicAndPositionWhateverBecomesOfTheFirst) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    UCHAR All[88] = {};
    All[32] = FILE_ATTRIBUTE_HIDDEN;
    All[80] = 33;
    Provider.OnCall(Slot::SetFileInformation).Nth(2).Return(RVSTATUS::AccessDenied);
    EXPECT_EQ(Send(Handle, FileAllInformation, All, 88), STATUS_SUCCESS);
    EXPECT_EQ(Provider.Attributes(u"\\srv\\vol\\a.txt"), RV_ATTR_HIDDEN + 0u);
    EXPECT_EQ(FileObject(Handle)->CurrentByteOffset.QuadPart, 33);
    All[80] = 34;
    EXPECT_EQ(Send(Handle, FileAllInformation, All, 88), STATUS_SUCCESS);
    EXPECT_EQ(FileObject(Handle)->CurrentByteOffset.QuadPart, 34);
}

// ---- Sizes

class SettingSizes : public Setting, public testing::WithParamInterface<ULONG> {
protected:
    void SetUp() override {
        Handle = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
        Provider.ClearCalls();
    }
    NTSTATUS SetSize(LONG64 Size) {
        return Send(Handle, GetParam(), &Size, sizeof(Size));
    }
    void SetFree(ULONG64 Bytes) {
        Provider.Edit([=](Tree &Tree) { Tree.FindVolume(u"\\srv\\vol")->FreeAfterQuota = Bytes; });
    }
    bool IsMarkedChanged() {
        constexpr ULONG Both = FO_FILE_MODIFIED | FO_FILE_SIZE_CHANGED;
        return (FileObject(Handle)->Flags & Both) == Both;
    }

    HANDLE Handle = nullptr;
};

INSTANTIATE_TEST_SUITE_P(EndOfFileAndAllocation, SettingSizes,
                         testing::Values(FileEndOfFileInformation, FileAllocationInformation));

TEST_P(SettingSizes, IsAWriteOfNothingAtTheNewEnd) {
    EXPECT_EQ(SetSize(4), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), (Calls{"RVFsdGetDFSPhysicalPath", "RVFsdQueryPathForVolume", "RVFsdOpenVolume",
                                  "RVFsdGetVolumeSize", "RVFsdCloseVolume", "RVFsdWriteFile"}));
    const Call Written = Last(Slot::WriteFile);
    EXPECT_EQ(Written.Number("offset"), 4u);
    EXPECT_EQ(Written.Number("length"), 0u);
    EXPECT_EQ(Written.Number("data"), 0u);
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\a.txt"), "0123");
    EXPECT_EQ(FileSize(Handle), 4);
    EXPECT_TRUE(IsMarkedChanged());
    EXPECT_EQ(SetSize(4), STATUS_SUCCESS);
    EXPECT_EQ(Provider.CountCalls(Slot::WriteFile), 2u) << "the same size still tells the server";
    EXPECT_EQ(SetSize(6), STATUS_SUCCESS);
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\a.txt"), std::string("0123\0\0", 6));
    EXPECT_EQ(FileSize(Handle), 6);
    EXPECT_EQ(SetSize(0), STATUS_SUCCESS);
    EXPECT_EQ(FileSize(Handle), 0);
}

TEST_P(SettingSizes, FailsAsTheServerFailsAndLeavesTheSizes) {
    for (const auto &[Raw, Status] : Refusals) {
        Provider.ClearScript();
        Provider.OnCall(Slot::WriteFile).Return(RVSTATUS{Raw});
        EXPECT_EQ(SetSize(4), Status);
        EXPECT_EQ(FileSize(Handle), 10);
        EXPECT_TRUE(IsMarkedChanged()); // the server may have begun
    }
}

TEST_P(SettingSizes, NegativeOnesAndThoseBeyondTheFreeSpaceAreRefusedAndNotAByteSooner) {
    for (LONG64 Negative : {LONG64{-1}, INT64_MIN}) {
        EXPECT_EQ(SetSize(Negative), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(CallNames(), Calls{});
    EXPECT_FALSE(Instance(Handle)->DiskFullLatched);
    SetFree(10);
    EXPECT_EQ(SetSize(11), STATUS_DISK_FULL);
    EXPECT_EQ(SetSize(INT64_MAX), STATUS_DISK_FULL);
    EXPECT_EQ(Provider.CountCalls(Slot::WriteFile), 0u);
    EXPECT_FALSE(FileObject(Handle)->Flags & FO_FILE_SIZE_CHANGED);
    EXPECT_EQ(FileSize(Handle), 10);
    EXPECT_EQ(SetSize(10), STATUS_SUCCESS);
}

// A refused size refuses the writes that follow, through this open and for five seconds.
TEST_P(SettingSizes, ARefusalIsRememberedForTheWritesThatFollow) {
    const HANDLE Other = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    SetFree(10);
    EXPECT_EQ(SetSize(11), STATUS_DISK_FULL);
    EXPECT_EQ(Instance(Handle)->DiskFullAvailable, 10u);
    SetFree(1000);
    EXPECT_EQ(Write(Handle, "abc", 3, 7).Status, STATUS_SUCCESS);
    EXPECT_EQ(Write(Handle, "abc", 3, 8).Status, STATUS_DISK_FULL);
    EXPECT_EQ(Write(Handle, "abc", 3, -1).Status, STATUS_DISK_FULL) << "appended, too";
    EXPECT_EQ(Write(Other, "abc", 3, 8).Status, STATUS_SUCCESS);
    Clock::Advance(5 * Clock::Second - 1);
    EXPECT_EQ(Write(Handle, "abc", 3, 8).Status, STATUS_DISK_FULL);
    // Another refusal begins the five seconds anew.
    SetFree(10);
    EXPECT_EQ(SetSize(12), STATUS_DISK_FULL);
    SetFree(1000);
    Clock::Advance(5 * Clock::Second - 1);
    EXPECT_EQ(Write(Handle, "abc", 3, 8).Status, STATUS_DISK_FULL);
    EXPECT_EQ(SetSize(20), STATUS_SUCCESS); // sizes are judged afresh
    EXPECT_TRUE(Instance(Handle)->DiskFullLatched);
    Clock::Advance(1);
    EXPECT_EQ(Write(Handle, "abc", 3, 8).Status, STATUS_SUCCESS);
    EXPECT_FALSE(Instance(Handle)->DiskFullLatched);
    EXPECT_EQ(Instance(Handle)->DiskFullAvailable, 0u);
}

TEST_P(SettingSizes, WithoutAnAnswerAboutTheSpaceNothingIsRefused) {
    SetFree(1);
    for (Slot Fails : {Slot::QueryPathForVolume, Slot::OpenVolume, Slot::GetVolumeSize}) {
        Provider.ClearScript();
        Provider.OnCall(Fails).Return(ProviderError(0x0102));
        EXPECT_EQ(SetSize(8), STATUS_SUCCESS) << NameOf(Fails);
    }
    Provider.ClearScript();
    EXPECT_EQ(SetSize(8), STATUS_DISK_FULL);
}

TEST_P(SettingSizes, ADirectoryHasNone) {
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\d", DirectoryForChange);
    Provider.ClearCalls();
    for (LONG64 Size : {LONG64{5}, LONG64{-5}}) {
        EXPECT_EQ(Send(Directory, GetParam(), &Size, sizeof(Size)), STATUS_INVALID_DEVICE_REQUEST);
    }
    EXPECT_EQ(CallNames(), Calls{});
}

TEST_F(Setting, AdvanceOnlyMakesNoDifference) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt", ForChange);
    for (const bool AdvanceOnly : {true, false}) {
        const LONG64 Size = AdvanceOnly ? 4 : 2;
        IrpBuilder Builder = Request(Handle, FileEndOfFileInformation, &Size, 8);
        Builder.Fill = [Usual = Builder.Fill, AdvanceOnly](PIO_STACK_LOCATION Stack) {
            Usual(Stack);
            Stack->Parameters.SetFile.AdvanceOnly = AdvanceOnly;
        };
        EXPECT_EQ(SendIrpAndWait(Device(), Builder).Status, STATUS_SUCCESS);
        EXPECT_EQ(FileSize(Handle), Size);
    }
}

} // namespace
