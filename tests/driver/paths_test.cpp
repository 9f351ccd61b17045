// Counted strings: copies, components, composed paths; what the Provider says about a path, and the existence probe.

#include "names/paths.h"
#include "names/strings.h"
#include "tests/driver/create_client.h"

namespace {

using namespace test;

constexpr RVSTATUS Warning = static_cast<RVSTATUS>(0x80000007);

void ExpectEmpty(const OwnedString &Text) {
    EXPECT_EQ(Text.Get()->Buffer, nullptr);
    EXPECT_EQ(Text.Get()->Length, 0);
    EXPECT_EQ(Text.Get()->MaximumLength, 0);
}

class Strings : public DriverFixture {
protected:
    void SetUp() override {
        Start({.Switches = {}, .StartsTheDriver = false});
    }
};

TEST_F(Strings, ACopyIsTerminatedAndReusesABufferThatIsLargeEnough) {
    OwnedString Copy;
    struct {
        const char16_t *Text;
        USHORT Bytes;
        USHORT Room; // of the copy afterwards
    } constexpr Cases[] = {{nullptr, 0, 2},       {u"12345678", 16, 18}, {u"1", 2, 18}, {u"", 0, 18},
                           {u"87654321", 16, 18}, {u"abc", 5, 18}, // half a character at the end is dropped
                           {u"123456789", 18, 20}};
    for (const auto &Each : Cases) {
        const UNICODE_STRING Source = {Each.Bytes, Each.Bytes, const_cast<PWSTR>(Each.Text)};
        const UNICODE_STRING Before = *Copy.Get();
        ASSERT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), STATUS_SUCCESS);
        EXPECT_EQ(View(*Copy.Get()), std::u16string(Each.Text != nullptr ? Each.Text : u"", Each.Bytes / 2));
        EXPECT_EQ(Copy->Buffer[Each.Bytes / 2], 0);
        EXPECT_EQ(Copy->MaximumLength, Each.Room);
        EXPECT_EQ(Copy->Buffer == Before.Buffer, Each.Room == Before.MaximumLength);
        EXPECT_NE(Copy->Buffer, Source.Buffer);
    }
}

TEST_F(Strings, WithoutMemoryAreEmptyAndSayHowMuchTheyWanted) {
    OwnedString Copy, Path;
    UNICODE_STRING Source = ToUnicodeString(u"ab");
    ASSERT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), STATUS_SUCCESS);
    Source = ToUnicodeString(u"abc");
    ULONG Bytes = 0;
    {
        const NoMemoryInTheDriver NoMemory;
        EXPECT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(NtFsdComposePath(nullptr, &Source, Path.Get(), &Bytes), STATUS_INSUFFICIENT_RESOURCES);
    }
    ExpectEmpty(Copy);
    ExpectEmpty(Path);
    EXPECT_TRUE(WasPrinted("[RVFSD] NtFsdUpdateUnicodeString alloc for 8 bytes failed.\n"));
    EXPECT_EQ(Bytes, 8u);
}

TEST_F(Strings, ACopyBeyondASixteenBitSizeIsRefusedBeforeItTouchesTheDestination) {
    const std::u16string Text(0x8000, u'x');
    for (const USHORT Bytes : {65531, 65532, 65533, 65534, 65535}) {
        const bool Fits = Bytes < 65534;
        OwnedString Copy;
        const UNICODE_STRING Old = ToUnicodeString(u"old");
        ASSERT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Old), STATUS_SUCCESS);
        const UNICODE_STRING Source = {Bytes, Bytes, const_cast<PWSTR>(Text.data())};
        EXPECT_EQ(NtFsdUpdateUnicodeString(Copy.Get(), &Source), Fits ? STATUS_SUCCESS : STATUS_NAME_TOO_LONG);
        EXPECT_EQ(View(*Copy.Get()), Fits ? Text.substr(0, Bytes / 2) : u"old") << Bytes;
    }
}

TEST(Components, AreCountedBetweenBackslashes) {
    struct {
        std::u16string_view Path;
        ULONG Count;
    } constexpr Cases[] = {
        {u"", 0},
        {u"\\", 0},
        {u"\\\\\\", 0},
        {u"\\server", 1},
        {u"server", 1},
        {u"\\server\\", 1},
        {u"\\\\server", 1},
        {u"\\server\\volume", 2},
        {u"\\server\\volume\\", 2},
        {u"\\server\\volume\\a\\b", 4},
        {u"a\\\\b", 3},
        {u"a\\\\", 2}, // the empty component counts, the end does not
        {std::u16string_view(u"\\a\0\\b", 5), 1},
        {std::u16string_view(u"\\\0a", 3), 0},
        {std::u16string_view(u"\\a\\\0b", 5), 1},
    };
    for (const auto &Each : Cases) {
        const UNICODE_STRING Path = ToUnicodeString(Each.Path);
        EXPECT_EQ(NtFsdCountPathComponents(&Path), Each.Count) << ToUtf8(Each.Path);
    }
    const UNICODE_STRING Half = {7, 7, const_cast<PWSTR>(u"\\a\\b")}; // of its last character
    EXPECT_EQ(NtFsdCountPathComponents(&Half), 1u);
}

TEST_F(Strings, AComposedPathHasOneSeparator) {
    struct {
        const char16_t *Base; // nullptr: none
        std::u16string_view Name, Path;
    } constexpr Cases[] = {
        {nullptr, u"\\srv\\vol", u"\\srv\\vol"},
        {nullptr, u"", u""},
        {u"\\srv\\vol", u"a", u"\\srv\\vol\\a"},
        {u"\\srv\\vol\\", u"a", u"\\srv\\vol\\a"},
        {u"\\srv\\vol", u"", u"\\srv\\vol\\"},
        {u"\\srv\\vol\\", u"", u"\\srv\\vol\\"},
        {u"", u"a", u"\\a"},
        {u"\\srv", u"\\a", u"\\srv\\\\a"},
    };
    for (const auto &Each : Cases) {
        const UNICODE_STRING Base = ToUnicodeString(Each.Base != nullptr ? Each.Base : u"");
        const UNICODE_STRING Name = ToUnicodeString(Each.Name);
        OwnedString Path;
        ULONG Bytes = 0;
        ASSERT_EQ(NtFsdComposePath(Each.Base != nullptr ? &Base : nullptr, &Name, Path.Get(), &Bytes), STATUS_SUCCESS);
        EXPECT_EQ(View(*Path.Get()), Each.Path);
        EXPECT_EQ(Path->Buffer[Path->Length / 2], 0);
        EXPECT_EQ(Path->MaximumLength, Path->Length + sizeof(WCHAR));
        EXPECT_EQ(Bytes, Path->MaximumLength);
    }
}

TEST_F(Strings, AComposedPathBeyondASixteenBitSizeIsRefused) {
    const std::u16string Base(16000, u'b');
    const UNICODE_STRING BaseString = ToUnicodeString(Base);
    for (const ULONG TextBytes : {65530u, 65532u, 65534u, 65536u}) {
        // with its terminator the largest even 16-bit size is the longest
        const std::u16string Name(TextBytes / 2 - Base.size() - 1, u'n');
        const UNICODE_STRING NameString = ToUnicodeString(Name);
        OwnedString Path;
        const NTSTATUS Status = NtFsdComposePath(&BaseString, &NameString, Path.Get(), nullptr);
        EXPECT_EQ(Status, TextBytes <= 65532 ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID) << TextBytes;
        EXPECT_EQ(Path->Length, TextBytes <= 65532 ? TextBytes : 0u);
    }
}

// ---- What the Provider says about a path

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
    NTSTATUS Verify(std::u16string_view Path, NTSTATUS *FileStatus) {
        IRP_CONTEXT Request = Context();
        return NtFsdVerifyFile(&Request, Path.data(), static_cast<ULONG>(Path.size() * sizeof(WCHAR)), FileStatus);
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

TEST_F(Paths, ThatCannotBeCopiedReachNoProvider) {
    OwnedString Volume, Physical;
    NTSTATUS FileStatus;
    EXPECT_EQ(Verify(u"\\srv\\vol\\" + std::u16string(0x8000, u'x'), &FileStatus), STATUS_NAME_TOO_LONG);
    {
        const NoMemoryInTheDriver NoMemory;
        EXPECT_EQ(VolumeOf(u"\\srv\\vol\\a", Volume), RVSTATUS::BufferAllocation);
        EXPECT_EQ(PhysicalOf(u"\\srv\\vol\\a", Physical), RVSTATUS::BufferAllocation);
        EXPECT_EQ(Verify(u"\\srv\\vol\\a.txt", &FileStatus), STATUS_INSUFFICIENT_RESOURCES);
    }
    ExpectEmpty(Volume);
    ExpectEmpty(Physical);
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

// ---- The existence probe

using Probe = Paths;

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

// What was opened with a warning or a note is closed; a volume root takes any trouble for a bad path.
TEST_F(Probe, LeavesNothingOpenWhateverTheAnswer) {
    for (const ULONG Raw :
         {0x80000007u, 0x00000516u, 0x80000521u, 0x40000000u, 0xC7E70006u, 0xC7E70503u, 0xC7E70000u}) {
        for (const Slot Answers : {Slot::QueryPathForVolume, Slot::OpenVolume, Slot::CreateFile}) {
            SCOPED_TRACE(testing::Message() << NameOf(Answers) << std::hex << Raw);
            Provider.OnCall(Answers).ReturnAfter(static_cast<RVSTATUS>(Raw));
            NTSTATUS FileStatus = STATUS_INTERNAL_ERROR;
            const bool OfAFile = Answers == Slot::CreateFile;
            const bool Answered = Answers == Slot::QueryPathForVolume && Raw == 0x40000000; // a note without a code
            const NTSTATUS Status = Verify(OfAFile ? u"\\srv\\vol\\a.txt" : u"\\srv\\vol", &FileStatus);
            EXPECT_TRUE(OfAFile || Answered || (Status == STATUS_BAD_NETWORK_PATH && FileStatus == Status));
            ExpectNothingOpen("the probe");
            Provider.ClearScript();
        }
    }
}

} // namespace
