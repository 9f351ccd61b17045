// What the Provider says about a path, and the existence probe.

#include "names/paths.h"
#include "tests/driver/create_client.h"

namespace {

using namespace test;

constexpr RVSTATUS Warning = static_cast<RVSTATUS>(0x80000007);

class Paths : public CreateFixture {
protected:
    void SetUp() override {
        Bind();
    }
    RV_SECURITY_CONTEXT Security = providers::Framework::DefaultCaller;

    RVSTATUS VolumeOf(PCWSTR Path, OwnedString &Answer) {
        return NtFsdQueryPathForVolume(&Security, Path, Answer.Get());
    }
    RVSTATUS PhysicalOf(std::u16string_view Path, OwnedString &Answer) {
        UNICODE_STRING Asked = ToUnicodeString(Path);
        return NtFsdGetDFSPhysicalPath(&Security, &Asked, Answer.Get());
    }
    static void ExpectEmpty(const OwnedString &Text) {
        EXPECT_EQ(Text.Get()->Buffer, nullptr);
        EXPECT_EQ(Text.Get()->Length, 0);
        EXPECT_EQ(Text.Get()->MaximumLength, 0);
    }
};

TEST_F(Paths, AnAnswerIsTakenUnlessItIsAnError) {
    const std::u16string Longest = u"\\" + std::u16string(4094, u'v');
    struct {
        std::u16string_view Answer; // empty: what the tree says; "x": without an end
        ULONG Raw;
        std::u16string_view Volume; // empty: an error
        ULONG Error = 0;
    } const Cases[] = {
        {u"", 0, u"\\srv\\vol"},    {u"", 0x80000007, u"\\srv\\vol"},    {Longest, 0, Longest},
        {u"x", 0, u"", 0xC7E70001}, {u"-", 0xC7E70517, u"", 0xC7E70517}, // without a path: an error with its code
        {u"-", 0, u"", 0xC7E70001}, {u"-", 0x80000007, u"", 0xC7E70007},
    };
    for (const auto &Each : Cases) {
        SCOPED_TRACE(Each.Raw);
        Rule &Rule = Provider.OnCall(Slot::QueryPathForVolume);
        if (Each.Answer == u"x") {
            Rule.AnswerUnterminatedPath();
        } else if (Each.Answer == u"-") {
            Rule.Return(static_cast<RVSTATUS>(Each.Raw));
        } else {
            Rule.ReturnAfter(static_cast<RVSTATUS>(Each.Raw));
            if (!Each.Answer.empty()) {
                Rule.AnswerPath(std::u16string(Each.Answer));
            }
        }
        OwnedString Volume;
        const RVSTATUS Status = VolumeOf(u"\\srv\\vol\\docs\\f.txt", Volume);
        if (Each.Volume.empty()) {
            EXPECT_EQ(Status, static_cast<RVSTATUS>(Each.Error));
            ExpectEmpty(Volume);
        } else {
            EXPECT_EQ(Status, static_cast<RVSTATUS>(Each.Raw));
            EXPECT_EQ(View(*Volume.Get()), Each.Volume);
            EXPECT_EQ(Volume->MaximumLength, 8192) << "room for the largest answer";
        }
        Provider.ClearScript();
    }
    OwnedString Physical;
    EXPECT_EQ(PhysicalOf(u"\\srv\\vol\\a", Physical), RVSTATUS::NotDistributedPath);
    ExpectEmpty(Physical);
    Provider.Edit([](Tree &Tree) { Tree.AddDistributedLink(u"\\srv\\vol", u"\\phys\\share"); });
    Provider.OnCall(Slot::GetDFSPhysicalPath).AnswerPath(u"\\phys\\share").ReturnAfter(Warning);
    EXPECT_EQ(PhysicalOf(u"\\srv\\vol\\a", Physical), Warning);
    EXPECT_EQ(View(*Physical.Get()), u"\\phys\\share");
    Provider.ClearScript();
    Provider.OnCall(Slot::GetDFSPhysicalPath).Answer([](Outputs &Out) {
        std::fill_n(Out.CountedPath->Buffer, RV_PATH_BUFFER_BYTES / sizeof(WCHAR), u'x');
    });
    OwnedString Endless;
    EXPECT_TRUE(RvIsError(PhysicalOf(u"\\srv\\vol\\a", Endless)));
    ExpectEmpty(Endless);
}

TEST_F(Paths, ACountedAnswerKeepsTheDriversBufferWhateverTheProviderDoesToTheString) {
    Provider.Edit([](Tree &Tree) { Tree.AddDistributedLink(u"\\srv\\vol", u"\\phys\\share"); });
    Provider.OnCall(Slot::GetDFSPhysicalPath).Answer([](Outputs &Out) {
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
        const PlannedFaults NoMemory({});
        const FaultScope InDriver;
        OwnedString Answer;
        EXPECT_EQ(Counts ? PhysicalOf(u"\\srv\\vol\\a", Answer) : VolumeOf(u"\\srv\\vol\\a", Answer),
                  RVSTATUS::BufferAllocation);
        ExpectEmpty(Answer);
    }
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

class Probe : public Paths {
protected:
    NTSTATUS Verify(std::u16string_view Path, NTSTATUS *FileStatus) {
        IRP_CONTEXT Request = Context();
        return NtFsdVerifyFile(&Request, Path.data(), static_cast<ULONG>(Path.size() * sizeof(WCHAR)), FileStatus);
    }
};

TEST_F(Probe, TellsWhatIsThere) {
    const Calls File = {"CreateFile", "CloseFile"}, Asked = {"CreateFile"};
    const Calls Root = {"QueryPathForVolume", "OpenVolume", "CloseVolume"};
    constexpr NTSTATUS Good = STATUS_SUCCESS, Bad = STATUS_BAD_NETWORK_PATH;
    struct {
        std::u16string_view Path;
        NTSTATUS Status, FileStatus;
        Calls Made;
    } const Cases[] = {
        {u"\\srv\\vol\\a.txt", Good, Good, File},
        {u"\\srv\\vol\\docs", Good, STATUS_FILE_IS_A_DIRECTORY, Asked},
        {u"\\srv\\vol\\docs\\no", Good, STATUS_NO_SUCH_FILE, Asked},
        {u"\\srv\\vol\\no\\no", STATUS_OBJECT_PATH_NOT_FOUND, Good, Asked},
        {u"\\srv\\vol\\secret", Good, STATUS_ACCESS_DENIED, Asked},
        {u"\\srv\\vol", Good, STATUS_FILE_IS_A_DIRECTORY, Root},
        {u"\\\\srv\\vol\\", Good, STATUS_FILE_IS_A_DIRECTORY, Root},
        {u"\\srv\\none", Bad, Bad, {"QueryPathForVolume"}},
        {u"\\srv", Bad, Bad, {}},
        {u"\\", Bad, Bad, {}},
        {u"", Bad, Bad, {}},
    };
    Provider.Edit([](Tree &Tree) { Tree.AddFile(u"\\srv\\vol\\secret").Denied = true; });
    for (const auto &Each : Cases) {
        SCOPED_TRACE(ToUtf8(Each.Path));
        Provider.ClearCalls();
        NTSTATUS FileStatus = STATUS_INTERNAL_ERROR;
        EXPECT_EQ(Verify(Each.Path, &FileStatus), Each.Status);
        EXPECT_EQ(FileStatus, Each.FileStatus);
        EXPECT_EQ(Provider.CompareCalls(Each.Made), "");
        // Who does not want to know what is there may still ask.
        EXPECT_EQ(Verify(Each.Path, nullptr), Each.Status);
        ExpectNothingOpen("the probe");
    }
}

TEST_F(Probe, AsksAsWhoeverQueriesAttributes) {
    const std::u16string_view Text = u"\\srv\\vol\\docs\\f.txt\\GARBAGE"; // behind the end
    NTSTATUS FileStatus;
    EXPECT_EQ(Verify(Text.substr(0, 20), &FileStatus), STATUS_SUCCESS);
    const Call Asked = Last(Slot::CreateFile);
    EXPECT_EQ(Asked.Format().substr(0, Asked.Format().find(" ->")),
              "RVFsdCreateFile(base=0, path=\"\\srv\\vol\\docs\\f.txt\", access=1, share=7, disposition=0, "
              "options=0, attributes=0)");
    EXPECT_EQ(Asked.Security.Words[0], Security.Words[0]);
    EXPECT_EQ(Asked.Security.Words[1], Security.Words[1]);
}

TEST_F(Probe, JudgesTheProvidersAnswers) {
    struct {
        RVSTATUS Raw;
        NTSTATUS Status, FileStatus;
    } constexpr Cases[] = {
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
    for (const auto &Each : Cases) {
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

TEST_F(Probe, OfAPathThatCannotBeCopiedAsksNobody) {
    const std::u16string Long = u"\\srv\\vol\\" + std::u16string(0x8000, u'x');
    NTSTATUS FileStatus;
    EXPECT_EQ(Verify(Long, &FileStatus), STATUS_NAME_TOO_LONG);
    {
        const PlannedFaults NoMemory({});
        const FaultScope InDriver;
        EXPECT_EQ(Verify(u"\\srv\\vol\\a.txt", &FileStatus), STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

} // namespace
