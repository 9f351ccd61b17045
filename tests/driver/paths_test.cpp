// What the Provider says about a path, and the existence probe.

#include "embedded/faults.h"
#include "names/paths.h"
#include "tests/driver/create_client.h"

namespace {

using providers::ProviderError;
using providers::Slot;

constexpr RVSTATUS Warning = static_cast<RVSTATUS>(0x80000007);

class Paths : public test::CreateFixture {
protected:
    void SetUp() override {
        Bind();
    }
    RV_SECURITY_CONTEXT Security = providers::Framework::DefaultCaller;

    RVSTATUS VolumeOf(PCWSTR Path, OwnedString &Answer) {
        return NtFsdQueryPathForVolume(&Security, Path, Answer.Get());
    }
    RVSTATUS PhysicalOf(std::u16string_view Path, OwnedString &Answer) {
        UNICODE_STRING Asked = Counted(Path);
        return NtFsdGetDFSPhysicalPath(&Security, &Asked, Answer.Get());
    }
    static void ExpectEmpty(const OwnedString &Text) {
        EXPECT_EQ(Text.Get()->Buffer, nullptr);
        EXPECT_EQ(Text.Get()->Length, 0);
        EXPECT_EQ(Text.Get()->MaximumLength, 0);
    }
};

TEST_F(Paths, TheVolumeOfAPathIsAnOwnedStringWithRoomForTheLargestAnswer) {
    OwnedString Volume;
    EXPECT_EQ(VolumeOf(u"\\srv\\vol\\docs\\f.txt", Volume), RVSTATUS::Success);
    EXPECT_EQ(View(*Volume.Get()), u"\\srv\\vol");
    EXPECT_EQ(Volume->MaximumLength, 8192);
}

TEST_F(Paths, AWarningStillBringsThePath) {
    Provider.OnCall(Slot::QueryPathForVolume).ReturnAfter(Warning);
    OwnedString Volume;
    EXPECT_EQ(VolumeOf(u"\\srv\\vol\\a", Volume), Warning);
    EXPECT_EQ(View(*Volume.Get()), u"\\srv\\vol");
    Provider.OnCall(Slot::GetDFSPhysicalPath).AnswerPath(u"\\phys\\share").ReturnAfter(Warning);
    Provider.Edit([](providers::Tree &Tree) { Tree.AddDistributedLink(u"\\srv\\vol", u"\\phys\\share"); });
    OwnedString Physical;
    EXPECT_EQ(PhysicalOf(u"\\srv\\vol\\a", Physical), Warning);
    EXPECT_EQ(View(*Physical.Get()), u"\\phys\\share");
}

TEST_F(Paths, AnErrorLeavesNothing) {
    Provider.OnCall(Slot::QueryPathForVolume).Return(ProviderError(RVFS_UNKNOWN_SERVER));
    OwnedString Volume;
    EXPECT_EQ(VolumeOf(u"\\srv\\vol\\a", Volume), ProviderError(RVFS_UNKNOWN_SERVER));
    ExpectEmpty(Volume);
    OwnedString Physical;
    EXPECT_EQ(PhysicalOf(u"\\srv\\vol\\a", Physical), RVSTATUS::NotDistributedPath);
    ExpectEmpty(Physical);
}

TEST_F(Paths, AnAnswerThatDoesNotEndInItsBufferIsAnError) {
    Provider.OnCall(Slot::QueryPathForVolume).AnswerUnterminatedPath();
    Provider.Edit([](providers::Tree &Tree) { Tree.AddDistributedLink(u"\\srv\\vol", u"\\phys\\share"); });
    Provider.OnCall(Slot::GetDFSPhysicalPath).Answer([](providers::Outputs &Out) {
        std::fill_n(Out.CountedPath->Buffer, RV_PATH_BUFFER_BYTES / sizeof(WCHAR), u'x');
    });
    OwnedString Volume;
    EXPECT_TRUE(RvIsError(VolumeOf(u"\\srv\\vol\\a", Volume)));
    ExpectEmpty(Volume);
    OwnedString Physical;
    EXPECT_TRUE(RvIsError(PhysicalOf(u"\\srv\\vol\\a", Physical)));
    ExpectEmpty(Physical);
}

TEST_F(Paths, ASuccessWithoutAPathIsAnErrorWithItsCode) {
    struct Case {
        ULONG Raw, Error;
    };
    for (const Case &Each : {Case{0, 0xC7E70001}, Case{0x80000007, 0xC7E70007}, Case{0xC7E70517, 0xC7E70517}}) {
        Provider.OnCall(Slot::QueryPathForVolume).Return(static_cast<RVSTATUS>(Each.Raw));
        OwnedString Volume;
        EXPECT_EQ(VolumeOf(u"\\srv\\vol\\a", Volume), static_cast<RVSTATUS>(Each.Error));
        ExpectEmpty(Volume);
        Provider.ClearScript();
    }
}

TEST_F(Paths, TheLongestAnswerIsTakenWhole) {
    const std::u16string Longest = u"\\" + std::u16string(4094, u'v');
    Provider.OnCall(Slot::QueryPathForVolume).AnswerPath(Longest);
    OwnedString Volume;
    EXPECT_EQ(VolumeOf(u"\\srv\\vol\\a", Volume), RVSTATUS::Success);
    EXPECT_EQ(View(*Volume.Get()), Longest);
}

TEST_F(Paths, ACountedAnswerKeepsTheDriversBufferWhateverTheProviderDoesToTheString) {
    Provider.Edit([](providers::Tree &Tree) { Tree.AddDistributedLink(u"\\srv\\vol", u"\\phys\\share"); });
    Provider.OnCall(Slot::GetDFSPhysicalPath).Answer([](providers::Outputs &Out) {
        Out.CountedPath->Buffer = nullptr;
        Out.CountedPath->Length = Out.CountedPath->MaximumLength = 0xFFFE;
    });
    OwnedString Physical;
    EXPECT_EQ(PhysicalOf(u"\\srv\\vol\\a", Physical), RVSTATUS::Success);
    EXPECT_EQ(View(*Physical.Get()), u"\\phys\\share\\a");
    EXPECT_EQ(Physical->MaximumLength, 8192);
}

TEST_F(Paths, WithoutABufferTheProviderIsNotAsked) {
    for (const bool Counts : {false, true}) {
        const embedded::PlannedFaults NoMemory({});
        const embedded::FaultScope InDriver;
        OwnedString Answer;
        EXPECT_EQ(Counts ? PhysicalOf(u"\\srv\\vol\\a", Answer) : VolumeOf(u"\\srv\\vol\\a", Answer),
                  RVSTATUS::BufferAllocation);
        ExpectEmpty(Answer);
    }
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

// ---- The existence probe

struct ProbeCase {
    const char *Name;
    std::u16string_view Path;
    NTSTATUS Status;
    NTSTATUS FileStatus;
    std::vector<std::string> Calls;
};

class Probe : public Paths, public testing::WithParamInterface<ProbeCase> {
protected:
    NTSTATUS Verify(std::u16string_view Path, NTSTATUS *FileStatus) {
        IRP_CONTEXT Request = Context();
        return NtFsdVerifyFile(&Request, Path.data(), static_cast<ULONG>(Path.size() * sizeof(WCHAR)), FileStatus);
    }
};

TEST_P(Probe, TellsWhatIsThere) {
    Provider.Edit([](providers::Tree &Tree) { Tree.AddFile(u"\\srv\\vol\\secret").Denied = true; });
    NTSTATUS FileStatus = STATUS_INTERNAL_ERROR;
    EXPECT_EQ(Verify(GetParam().Path, &FileStatus), GetParam().Status);
    EXPECT_EQ(FileStatus, GetParam().FileStatus);
    EXPECT_EQ(Provider.CompareCalls(GetParam().Calls), "");
    // Who does not want to know what is there may still ask.
    EXPECT_EQ(Verify(GetParam().Path, nullptr), GetParam().Status);
    ExpectNothingOpen("the probe");
}

INSTANTIATE_TEST_SUITE_P(
    Paths, Probe,
    testing::Values(
        ProbeCase{"AFile", u"\\srv\\vol\\a.txt", STATUS_SUCCESS, STATUS_SUCCESS, {"CreateFile", "CloseFile"}},
        ProbeCase{"ADirectory", u"\\srv\\vol\\docs", STATUS_SUCCESS, STATUS_FILE_IS_A_DIRECTORY, {"CreateFile"}},
        ProbeCase{"AMissingName", u"\\srv\\vol\\docs\\no", STATUS_SUCCESS, STATUS_NO_SUCH_FILE, {"CreateFile"}},
        ProbeCase{
            "AMissingParent", u"\\srv\\vol\\no\\no", STATUS_OBJECT_PATH_NOT_FOUND, STATUS_SUCCESS, {"CreateFile"}},
        ProbeCase{"ADeniedFile", u"\\srv\\vol\\secret", STATUS_SUCCESS, STATUS_ACCESS_DENIED, {"CreateFile"}},
        ProbeCase{"AVolumeRoot",
                  u"\\srv\\vol",
                  STATUS_SUCCESS,
                  STATUS_FILE_IS_A_DIRECTORY,
                  {"QueryPathForVolume", "OpenVolume", "CloseVolume"}},
        ProbeCase{"DoubledLeadingAndTrailingBackslashes",
                  u"\\\\srv\\vol\\",
                  STATUS_SUCCESS,
                  STATUS_FILE_IS_A_DIRECTORY,
                  {"QueryPathForVolume", "OpenVolume", "CloseVolume"}},
        ProbeCase{"AnUnknownVolume",
                  u"\\srv\\none",
                  STATUS_BAD_NETWORK_PATH,
                  STATUS_BAD_NETWORK_PATH,
                  {"QueryPathForVolume"}},
        ProbeCase{"AServer", u"\\srv", STATUS_BAD_NETWORK_PATH, STATUS_BAD_NETWORK_PATH, {}},
        ProbeCase{"ABackslash", u"\\", STATUS_BAD_NETWORK_PATH, STATUS_BAD_NETWORK_PATH, {}},
        ProbeCase{"Nothing", u"", STATUS_BAD_NETWORK_PATH, STATUS_BAD_NETWORK_PATH, {}}),
    [](const auto &Info) { return Info.param.Name; });

TEST_F(Probe, AsksAsWhoeverQueriesAttributes) {
    NTSTATUS FileStatus;
    EXPECT_EQ(Verify(u"\\srv\\vol\\docs\\f.txt\\", &FileStatus), STATUS_SUCCESS);
    const providers::Call Asked = Last(Slot::CreateFile);
    EXPECT_EQ(Asked.Format().substr(0, Asked.Format().find(" ->")),
              "RVFsdCreateFile(base=0, path=\"\\srv\\vol\\docs\\f.txt\", access=1, share=7, disposition=0, "
              "options=0, attributes=0)");
    EXPECT_EQ(Asked.Security.Words[0], Security.Words[0]);
    EXPECT_EQ(Asked.Security.Words[1], Security.Words[1]);
}

struct AnswerCase {
    RVSTATUS Raw;
    NTSTATUS Status;
    NTSTATUS FileStatus;
};

TEST_F(Probe, JudgesTheProvidersAnswers) {
    constexpr AnswerCase Cases[] = {
        {ProviderError(0x0009), STATUS_ACCESS_DENIED, STATUS_SUCCESS}, // no more entries
        {static_cast<RVSTATUS>(0x80000009), STATUS_ACCESS_DENIED, STATUS_SUCCESS},
        {ProviderError(0x0006), STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {ProviderError(0x0107), STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {ProviderError(0x0502), STATUS_SUCCESS, STATUS_NO_SUCH_FILE},
        {ProviderError(0x0521), STATUS_SUCCESS, STATUS_FILE_IS_A_DIRECTORY},
        {static_cast<RVSTATUS>(0x80000521), STATUS_SUCCESS, STATUS_FILE_IS_A_DIRECTORY},
        {ProviderError(0x0503), STATUS_OBJECT_PATH_NOT_FOUND, STATUS_SUCCESS},
        {ProviderError(0x000B), STATUS_OBJECT_NAME_NOT_FOUND, STATUS_SUCCESS},
        {ProviderError(0x0536), STATUS_NOT_SUPPORTED, STATUS_SUCCESS},
        {ProviderError(0x0000), STATUS_UNSUCCESSFUL, STATUS_SUCCESS}, // an error that translates to success
    };
    for (const AnswerCase &Each : Cases) {
        Provider.OnCall(Slot::CreateFile).Return(Each.Raw);
        NTSTATUS FileStatus = STATUS_INTERNAL_ERROR;
        EXPECT_EQ(Verify(u"\\srv\\vol\\a.txt", &FileStatus), Each.Status) << std::hex << static_cast<ULONG>(Each.Raw);
        EXPECT_EQ(FileStatus, Each.FileStatus) << std::hex << static_cast<ULONG>(Each.Raw);
        Provider.ClearScript();
    }
}

TEST_F(Probe, ClosesWhatAWarningOrANoteOpened) {
    for (const ULONG Raw : {0x80000007u, 0x00000516u, 0x80000521u, 0x40000000u}) {
        Provider.OnCall(Slot::CreateFile).ReturnAfter(static_cast<RVSTATUS>(Raw));
        Provider.OnCall(Slot::OpenVolume).ReturnAfter(static_cast<RVSTATUS>(Raw));
        NTSTATUS FileStatus;
        Verify(u"\\srv\\vol\\a.txt", &FileStatus);
        ExpectNothingOpen("a file that was opened with a note");
        EXPECT_EQ(Verify(u"\\srv\\vol", &FileStatus), STATUS_BAD_NETWORK_PATH);
        EXPECT_EQ(FileStatus, STATUS_BAD_NETWORK_PATH);
        ExpectNothingOpen("a volume that was opened with a note");
        Provider.ClearScript();
    }
}

TEST_F(Probe, OfAVolumeRootTakesAnyTroubleForABadPath) {
    for (const Slot Fails : {Slot::QueryPathForVolume, Slot::OpenVolume}) {
        for (const ULONG Raw : {0xC7E70006u, 0xC7E70503u, 0xC7E70000u, 0x80000007u}) {
            Provider.OnCall(Fails).ReturnAfter(static_cast<RVSTATUS>(Raw));
            NTSTATUS FileStatus;
            EXPECT_EQ(Verify(u"\\srv\\vol", &FileStatus), STATUS_BAD_NETWORK_PATH);
            EXPECT_EQ(FileStatus, STATUS_BAD_NETWORK_PATH);
            Provider.ClearScript();
        }
    }
    ExpectNothingOpen("volume roots");
}

TEST_F(Probe, TakesTextThatIsNotTerminated) {
    const std::u16string Text = u"\\srv\\vol\\a.txtGARBAGE";
    NTSTATUS FileStatus;
    EXPECT_EQ(Verify(std::u16string_view(Text).substr(0, 14), &FileStatus), STATUS_SUCCESS);
    EXPECT_EQ(FileStatus, STATUS_SUCCESS);
    EXPECT_EQ(Last(Slot::CreateFile).String("path"), u"\\srv\\vol\\a.txt");
}

TEST_F(Probe, OfAPathThatCannotBeCopiedAsksNobody) {
    const std::u16string Long = u"\\srv\\vol\\" + std::u16string(0x8000, u'x');
    NTSTATUS FileStatus;
    EXPECT_EQ(Verify(Long, &FileStatus), STATUS_NAME_TOO_LONG);
    {
        const embedded::PlannedFaults NoMemory({});
        const embedded::FaultScope InDriver;
        EXPECT_EQ(Verify(u"\\srv\\vol\\a.txt", &FileStatus), STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

} // namespace
