#include "providers/scripted/scripted_provider.h"
#include "providers/stub/stub_provider.h"

#include <cstring>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace providers;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr RVSTATUS Ok = RVSTATUS::Success;
constexpr ULONG ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Calls any Provider's table with one security context.
struct Client {
    explicit Client(RVIOM_FSD &Fsd) : Fsd(Fsd), T(*Fsd.Table) {
    }
    RVHANDLE OpenVolume(PCWSTR Path = u"\\srv\\vol") {
        T.RVFsdOpenVolume(&Fsd, &Sec, Path, &Handle);
        return Handle;
    }
    RVSTATUS CreateFile(RVHANDLE Base, PCWSTR Path, ULONG Access = RV_ACCESS_READ | RV_ACCESS_WRITE,
                        ULONG Disposition = RV_DISPOSITION_OPEN_EXISTING, ULONG Share = ShareAll) {
        return T.RVFsdCreateFile(&Fsd, &Sec, Base, Path, Access, Share, Disposition, 0, 0, &Handle, &Action);
    }
    RVSTATUS CloseFile(RVHANDLE File) {
        return T.RVFsdCloseFile(&Fsd, &Sec, File);
    }
    RVSTATUS OpenDirectory(RVHANDLE Base, PCWSTR Path) {
        return T.RVFsdOpenDirectory(&Fsd, &Sec, Base, Path, &Handle);
    }
    RVSTATUS Write(RVHANDLE File, LONG64 Offset, std::string Data) {
        return T.RVFsdWriteFile(&Fsd, &Sec, File, &Offset, Data.size(), Data.data(), &Bytes);
    }
    RVSTATUS SetSize(RVHANDLE File, LONG64 Size) {
        return T.RVFsdWriteFile(&Fsd, &Sec, File, &Size, 0, nullptr, &Bytes);
    }
    std::string Read(RVHANDLE File, LONG64 Offset, ULONG64 Length) {
        std::string Buffer(Length, '?');
        Bytes = Length;
        Status = T.RVFsdReadFile(&Fsd, &Sec, File, &Offset, Length, Buffer.data(), &Bytes);
        return RvIsError(Status) ? "(error)" : Buffer.substr(0, Bytes);
    }

    // The names of all batches of BatchBytes, with "/short" where there is a short name.
    std::vector<std::string> List(RVHANDLE Directory, PCWSTR Mask, bool ShortNames, ULONG BatchBytes = 12288) {
        std::vector<std::string> Names;
        std::vector<UCHAR> Buffer(BatchBytes);
        for (ULONG Key = 0;;) {
            ULONG Size = BatchBytes;
            Status = ShortNames ? T.RVFsdEnumerateDirectoryEx(&Fsd, &Sec, Directory, Mask, 0, &Key, &Size, &Buffer[0])
                                : T.RVFsdEnumerateDirectory(&Fsd, &Sec, Directory, Mask, 0, &Key, &Size, &Buffer[0]);
            if (RvIsError(Status)) {
                return Names;
            }
            for (ULONG Next = 1, At = 0; Next != 0; At += Next) {
                std::memcpy(&Next, &Buffer[At], 4);
                Names.push_back(Word(&Buffer[At], ShortNames ? 88 : 60, ShortNames ? 84 : 56));
                if (ShortNames) {
                    Names.back() += "/" + Word(&Buffer[At], 60, 56);
                }
            }
        }
    }
    static std::string Word(const UCHAR *Record, ULONG At, ULONG LengthAt) {
        ULONG Units = 0;
        std::memcpy(&Units, Record + LengthAt, 4);
        std::u16string Name(Units, u' ');
        std::memcpy(Name.data(), Record + At, Units * 2);
        return ToUtf8(Name);
    }

    RVIOM_FSD &Fsd;
    const RVIOM_FSD_TABLE &T;
    RV_SECURITY_CONTEXT Sec = {{1000, 1000}};
    RVHANDLE Handle = 0;
    ULONG Action = 0;
    ULONG64 Bytes = 0;
    RVSTATUS Status = Ok;
};

class ScriptedTest : public testing::Test {
protected:
    ScriptedProvider P;
    Client C{P};
};

TEST_F(ScriptedTest, ACallIsRecordedWithItsArgumentsAnswersAndCaller) {
    P.AddFile(u"\\srv\\vol\\a.txt", "hello");
    ASSERT_EQ(C.CreateFile(0, u"\\srv\\vol\\a.txt", 1, RV_DISPOSITION_QUERY), Ok);
    EXPECT_EQ(C.CreateFile(0, u"\\srv\\vol\\none", 0x11), ProviderError(CodeNoSuchFile));
    EXPECT_THAT(P.Calls(),
                ElementsAre(R"(RVFsdCreateFile(base=0, path="\srv\vol\a.txt", access=1, share=7, disposition=0, )"
                            R"(options=0, attributes=0) -> 0x00000000 handle=1 action=1)",
                            R"(RVFsdCreateFile(base=0, path="\srv\vol\none", access=0x11, share=7, disposition=3, )"
                            R"(options=0, attributes=0) -> 0xC7E70506)"));
    const Call First = P.CallRecords()[0];
    EXPECT_EQ(First.Security.Words[0], 1000u);
    EXPECT_EQ(First.Thread, std::this_thread::get_id());
    EXPECT_EQ(First.Number("handle"), 1u);
    EXPECT_EQ(First.String("path"), u"\\srv\\vol\\a.txt");
    EXPECT_EQ(P.CompareCalls({"CreateFile", "RVFsdCreateFile"}), "");
    EXPECT_THAT(P.CompareCalls({"CreateFile"}), HasSubstr("called:"));
    EXPECT_EQ(P.CountCalls(Slot::CreateFile), 2u);
}

TEST_F(ScriptedTest, EveryHandleIsAccountedFor) {
    P.AddFile(u"\\srv\\vol\\docs\\a.txt");
    const RVHANDLE Volume = C.OpenVolume();
    ASSERT_EQ(C.CreateFile(Volume, u"docs\\a.txt"), Ok);
    const RVHANDLE File = C.Handle;
    EXPECT_THAT(P.OpenHandles(), ElementsAre(R"(volume 1 "\srv\vol")", R"(file 2 "docs\a.txt")"));
    EXPECT_EQ(P.Violations(), std::vector<std::string>());

    EXPECT_EQ(C.CloseFile(Volume), RVSTATUS::InvalidHandle);
    EXPECT_EQ(C.CloseFile(File), Ok);
    EXPECT_EQ(C.CloseFile(File), RVSTATUS::InvalidHandle);
    EXPECT_EQ(C.Read(File, 0, 1), "(error)");
    EXPECT_EQ(C.CloseFile(99), RVSTATUS::InvalidHandle);
    EXPECT_EQ(C.OpenDirectory(Volume, u"\\docs"), RVSTATUS::InvalidParameter);
    EXPECT_THAT(P.Violations(),
                ElementsAre("RVFsdCloseFile: handle 1 is a volume handle", "RVFsdCloseFile: handle 2 is closed",
                            "RVFsdReadFile: handle 2 is closed", "RVFsdCloseFile: handle 99 is unknown",
                            "RVFsdOpenDirectory: a path below a handle begins with a backslash: "
                            "\"\\docs\""));
    EXPECT_EQ(C.T.RVFsdCloseVolume(&P, &C.Sec, Volume), Ok);
    EXPECT_THAT(P.OpenHandles(), IsEmpty());
}

TEST_F(ScriptedTest, RulesReplaceStatusesHandlesPathsAndCounts) {
    P.AddFile(u"\\srv\\vol\\a", "hello");
    P.OnCall(Slot::OpenVolume).Nth(2).Return(RVSTATUS::NoMemory);
    EXPECT_EQ(C.OpenVolume(), 1u);
    EXPECT_EQ(C.T.RVFsdOpenVolume(&P, &C.Sec, u"\\srv\\vol", &C.Handle), RVSTATUS::NoMemory);
    EXPECT_NE(C.OpenVolume(), 1u);

    Rule &Warned = P.OnPath(Slot::CreateFile, u"\\SRV\\vol\\A").Times(1).ReturnAfter(RVSTATUS{0x80000007});
    EXPECT_EQ(C.CreateFile(0, u"\\srv\\vol\\a"), RVSTATUS{0x80000007});
    EXPECT_EQ(Warned.Fired(), 1u);
    const RVHANDLE File = C.Handle;
    EXPECT_EQ(P.OpenHandles().size(), 3u) << "a warning leaves the handle open";

    P.OnCall(Slot::ReadFile).AnswerBytes(99);
    C.Read(File, 0, 3);
    EXPECT_EQ(C.Bytes, 99u);
    P.OnCall(Slot::CreateFile).AnswerHandle(0);
    EXPECT_EQ(C.CreateFile(0, u"\\srv\\vol\\a"), Ok);
    EXPECT_EQ(C.Handle, 0u);
    EXPECT_EQ(P.OpenHandles().size(), 3u) << "what the caller never learnt of is not its leak";

    std::vector<WCHAR> Buffer(RV_PATH_BUFFER_BYTES / 2);
    P.OnCall(Slot::QueryPathForVolume).Nth(1).AnswerPath(u"\\srv\\vol\\longer");
    P.OnCall(Slot::QueryPathForVolume).Nth(2).AnswerUnterminatedPath();
    C.T.RVFsdQueryPathForVolume(&P, &C.Sec, u"\\srv\\vol", Buffer.data());
    EXPECT_EQ(std::u16string(Buffer.data()), u"\\srv\\vol\\longer");
    C.T.RVFsdQueryPathForVolume(&P, &C.Sec, u"\\srv\\vol", Buffer.data());
    EXPECT_EQ(std::count(Buffer.begin(), Buffer.end(), u'x'), 4096);
}

TEST_F(ScriptedTest, AScriptedFailureOfACloseStillEndsTheHandle) {
    const RVHANDLE Volume = C.OpenVolume();
    P.OnCall(Slot::CloseVolume).Times(1).Return(RVSTATUS::Unsuccessful);
    EXPECT_EQ(C.T.RVFsdCloseVolume(&P, &C.Sec, Volume), RVSTATUS::Unsuccessful);
    EXPECT_THAT(P.OpenHandles(), IsEmpty());
    EXPECT_THAT(P.Violations(), IsEmpty());
    C.T.RVFsdCloseVolume(&P, &C.Sec, Volume);
    EXPECT_THAT(P.Violations(), ElementsAre("RVFsdCloseVolume: handle 1 is closed"));
}

TEST_F(ScriptedTest, ABlockedCallWaitsWhileOthersRunAndIsShownUnderWay) {
    Rule &Held = P.OnCall(Slot::OpenDirectory).Block();
    auto Opening = std::async(std::launch::async, [&] { return Client(P).OpenDirectory(0, u"\\srv\\vol"); });
    ASSERT_TRUE(Held.WaitUntilBlocked());
    EXPECT_NE(C.OpenVolume(), 0u);
    EXPECT_THAT(P.Calls(), Contains(HasSubstr("under way")));
    Held.Release();
    EXPECT_EQ(Opening.get(), Ok);
    EXPECT_EQ(P.OnCall(Slot::Any).Fired(), 0u);
}

TEST_F(ScriptedTest, AFaultSweepReachesEveryCallOnceAndEnds) {
    unsigned Rounds = 0;
    for (unsigned Nth = 1;; Nth++) {
        P.FailEverything(Slot::Any, Nth, RVSTATUS::NoMemory);
        const RVHANDLE Volume = C.OpenVolume();
        if (Nth > 1) {
            C.T.RVFsdCloseVolume(&P, &C.Sec, Volume);
        }
        if (!P.FaultFired()) {
            break;
        }
        Rounds = Nth;
    }
    EXPECT_EQ(Rounds, 2u);
    EXPECT_THAT(P.OpenHandles(), IsEmpty());
    EXPECT_THAT(P.Violations(), IsEmpty());
}

TEST_F(ScriptedTest, ManyThreadsMayCallAtOnce) {
    P.AddFile(u"\\srv\\vol\\a", "0123456789");
    std::vector<std::jthread> Threads;
    for (int Index = 0; Index < 4; Index++) {
        Threads.emplace_back([&] {
            Client Mine(P);
            for (int Turn = 0; Turn < 200; Turn++) {
                ASSERT_EQ(Mine.CreateFile(0, u"\\srv\\vol\\a"), Ok);
                ASSERT_EQ(Mine.Write(Mine.Handle, Turn, "z"), Ok);
                ASSERT_EQ(Mine.CloseFile(Mine.Handle), Ok);
            }
        });
    }
    Threads.clear(); // joins them
    EXPECT_EQ(P.CountCalls(), 2400u);
    EXPECT_EQ(P.Content(u"\\srv\\vol\\a"), std::string(200, 'z'));
    EXPECT_THAT(P.OpenHandles(), IsEmpty());
}

TEST(StubTest, ServesItsTreeByNameAlone) {
    StubProvider Stub({.EntriesPerDirectory = 500, .FileSize = 10});
    Client C(Stub);
    EXPECT_EQ(C.OpenVolume(), StubProvider::VolumeHandle);
    EXPECT_EQ(C.OpenDirectory(1, u"docs"), Ok);
    EXPECT_EQ(C.OpenDirectory(1, u"docs\\a.txt"), RVSTATUS{0xC7E70520});
    EXPECT_EQ(C.CreateFile(1, u"docs\\a.txt"), Ok);
    EXPECT_EQ(C.CreateFile(1, u"docs\\!a.txt"), RVSTATUS{0xC7E70506});
    EXPECT_EQ(C.Read(3, 0, 5), "?????") << "the buffer stays as it was";
    EXPECT_THAT(C.List(2, u"*", false), testing::SizeIs(500));
    EXPECT_THAT(C.List(2, u"*", true), testing::SizeIs(500));
    EXPECT_THAT(C.List(2, u"a.txt", false), ElementsAre("a.txt"));
    std::vector<WCHAR> Buffer(RV_PATH_BUFFER_BYTES / 2);
    EXPECT_EQ(C.T.RVFsdQueryPathForVolume(&Stub, &C.Sec, u"\\s\\v\\d\\f", Buffer.data()), Ok);
    EXPECT_EQ(std::u16string(Buffer.data()), u"\\s\\v");
}

} // namespace
