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

struct OpenCase {
    const char *Why;
    PCWSTR Path;
    ULONG Disposition;
    RVSTATUS Status;
    ULONG Action;
};
const OpenCase OpenCases[] = {
    {"query", u"\\srv\\vol\\a.txt", 0, Ok, 1},
    {"query of a directory", u"\\srv\\vol\\docs", 0, ProviderError(CodeIsADirectory), 0},
    {"a missing name", u"\\srv\\vol\\b.txt", 3, ProviderError(CodeNoSuchFile), 0},
    {"a missing parent", u"\\srv\\vol\\x\\b.txt", 4, ProviderError(RVFS_PATH_NOT_FOUND), 0},
    {"a file as parent", u"\\srv\\vol\\a.txt\\b", 3, ProviderError(RVFS_PATH_NOT_FOUND), 0},
    {"new, there already, in other case", u"\\SRV\\Vol\\A.TXT", 1, ProviderError(CodeNameCollision), 0},
    {"new", u"\\srv\\vol\\b.txt", 1, Ok, RV_CREATE_ACTION_CREATED},
    {"open or create, there", u"\\srv\\vol\\a.txt", 4, Ok, RV_CREATE_ACTION_OPENED},
    {"replace, there", u"\\srv\\vol\\a.txt", 2, Ok, 3},
    {"overwrite, missing", u"\\srv\\vol\\b.txt", 5, ProviderError(CodeNoSuchFile), 0},
    {"write to a read-only file", u"\\srv\\vol\\ro.txt", 3, RVSTATUS::AccessDenied, 0},
    {"unknown server", u"\\other\\vol\\a", 3, ProviderError(RVFS_UNKNOWN_SERVER), 0},
    {"unknown volume", u"\\srv\\other\\a", 3, ProviderError(RVFS_UNRECOGNIZED_VOLUME), 0},
    {"wildcard in a new name", u"\\srv\\vol\\b*", 1, ProviderError(CodeNameInvalid), 0},
};

TEST_F(ScriptedTest, OpensFollowTheDispositionAndWhatIsThere) {
    for (const OpenCase &Case : OpenCases) {
        ScriptedProvider Fresh;
        Client Asking(Fresh);
        Fresh.AddDirectory(u"\\srv\\vol\\docs");
        Fresh.AddFile(u"\\srv\\vol\\a.txt", "hello");
        Fresh.AddFile(u"\\srv\\vol\\ro.txt", "hello", RV_ATTR_READONLY);
        EXPECT_EQ(Asking.CreateFile(0, Case.Path, 6, Case.Disposition), Case.Status) << Case.Why;
        EXPECT_EQ(Asking.Action, Case.Action) << Case.Why;
        EXPECT_EQ(Fresh.OpenHandles().size(), Case.Status == Ok ? 1u : 0u) << Case.Why;
        EXPECT_THAT(Fresh.Violations(), IsEmpty()) << Case.Why;
    }
}

TEST_F(ScriptedTest, DataGoesInAndOutAndTheVolumeFillsUp) {
    ASSERT_EQ(C.CreateFile(0, u"\\srv\\vol\\a", 6, RV_DISPOSITION_CREATE_NEW), Ok);
    EXPECT_EQ(C.Write(C.Handle, 4094, "abcdef"), Ok);
    EXPECT_EQ(C.Bytes, 6u);
    EXPECT_EQ(C.Read(C.Handle, 4092, 100), std::string("\0\0abcdef", 8));
    EXPECT_EQ(C.Read(C.Handle, 4100, 1), "");
    EXPECT_EQ(C.Status, Ok);
    EXPECT_EQ(C.SetSize(C.Handle, 4095), Ok);
    EXPECT_EQ(C.SetSize(C.Handle, 4098), Ok);
    EXPECT_EQ(C.Read(C.Handle, 4094, 100), std::string("a\0\0\0", 4));
    EXPECT_EQ(C.SetSize(C.Handle, 1ll << 40), Ok);
    P.Edit([](Tree &T) { T.FindVolume(u"\\srv\\vol")->FreeAfterQuota = 3; });
    EXPECT_EQ(C.Write(C.Handle, 1ll << 40, "1234"), ProviderError(CodeDiskFull));
    EXPECT_EQ(C.Write(C.Handle, 1ll << 40, "123"), Ok);
}

TEST_F(ScriptedTest, SharingAndLocksHoldBetweenHandles) {
    P.AddFile(u"\\srv\\vol\\a", "0123456789");
    ASSERT_EQ(C.CreateFile(0, u"\\srv\\vol\\a", 6, 3, FILE_SHARE_READ | FILE_SHARE_WRITE), Ok);
    const RVHANDLE One = C.Handle;
    EXPECT_EQ(C.CreateFile(0, u"\\srv\\vol\\a", 2, 3, FILE_SHARE_READ), ProviderError(CodeSharingViolation));
    EXPECT_EQ(C.CreateFile(0, u"\\srv\\vol\\a", 1, 0, 0), Ok) << "an attribute open shares with anyone";
    ASSERT_EQ(C.CreateFile(0, u"\\srv\\vol\\a"), Ok);
    const RVHANDLE Two = C.Handle;
    EXPECT_EQ(C.T.RVFsdDeleteFile(&P, &C.Sec, 0, u"\\srv\\vol\\a"), ProviderError(CodeSharingViolation));

    EXPECT_EQ(C.T.RVFsdLockFile(&P, &C.Sec, One, 1, 2, 3), Ok);
    EXPECT_EQ(C.T.RVFsdLockFile(&P, &C.Sec, Two, 0, 4, 1), ProviderError(CodeLockNotGranted));
    EXPECT_EQ(C.T.RVFsdLockFile(&P, &C.Sec, Two, 0, 5, 1), Ok);
    EXPECT_EQ(C.Read(Two, 0, 3), "(error)");
    EXPECT_EQ(C.Read(One, 0, 3), "012");
    EXPECT_EQ(C.Write(One, 5, "x"), ProviderError(CodeLockConflict));
    EXPECT_EQ(C.T.RVFsdUnlockFile(&P, &C.Sec, One, 2, 2), ProviderError(CodeRangeNotLocked));
    EXPECT_EQ(C.CloseFile(One), Ok);
    EXPECT_EQ(C.Read(Two, 0, 3), "012") << "a close gives the locks back";
}

TEST_F(ScriptedTest, NamesMoveAndGo) {
    P.AddFile(u"\\srv\\vol\\docs\\a.txt", "x", RV_ATTR_READONLY);
    P.AddFile(u"\\srv\\vol\\docs\\b.txt");
    C.OpenDirectory(0, u"\\srv\\vol\\docs");
    const RVHANDLE Docs = C.Handle;
    auto Move = [&](PCWSTR From, PCWSTR To) { return C.T.RVFsdMoveFile(&P, &C.Sec, Docs, From, Docs, To); };
    EXPECT_EQ(Move(u"a.txt", u"c.txt"), RVSTATUS::AccessDenied);
    P.Edit([](Tree &T) { T.Find(u"\\srv\\vol\\docs\\a.txt")->Attributes = 0; });
    EXPECT_EQ(Move(u"a.txt", u"b.txt"), ProviderError(CodeNameCollision));
    EXPECT_EQ(Move(u"a.txt", u"A.TXT"), Ok);
    EXPECT_THAT(C.List(Docs, u"A*", false), ElementsAre("A.TXT"));
    EXPECT_EQ(C.T.RVFsdMoveDirectory(&P, &C.Sec, 0, u"\\srv\\vol\\docs", Docs, u"in"), ProviderError(CodePathInvalid));
    EXPECT_EQ(C.T.RVFsdDeleteDirectory(&P, &C.Sec, 0, u"\\srv\\vol\\docs"), ProviderError(CodeDirectoryNotEmpty));
    EXPECT_EQ(C.T.RVFsdDeleteFile(&P, &C.Sec, Docs, u"a.txt"), Ok);
    EXPECT_EQ(C.T.RVFsdDeleteFile(&P, &C.Sec, Docs, u"a.txt"), ProviderError(CodeNoSuchFile));
    EXPECT_FALSE(P.Exists(u"\\srv\\vol\\docs\\a.txt"));
}

TEST_F(ScriptedTest, ListingsComeInBothLayoutsAndInBatches) {
    std::vector<std::string> Names;
    for (char Letter = 'a'; Letter <= 'z'; Letter++) {
        Names.push_back(std::string(1, Letter) + ".txt");
        P.AddFile(u"\\srv\\vol\\" + std::u16string(1, static_cast<char16_t>(Letter)) + u".txt");
    }
    P.AddFile(u"\\srv\\vol\\A long name.document");
    Names.push_back("A long name.document");
    const RVHANDLE Volume = C.OpenVolume();
    EXPECT_EQ(C.List(Volume, nullptr, false, 200), Names);
    EXPECT_EQ(C.Status, ProviderError(0x0505));
    EXPECT_THAT(C.List(Volume, u"A*", true), ElementsAre("a.txt/", "A long name.document/ALONG~27.DOC"));
    EXPECT_THAT(C.List(Volume, u"?\xF8FFtxt", false, 12288), testing::SizeIs(26));
    EXPECT_THAT(C.List(Volume, u"b\xF8FC", false), ElementsAre("b.txt"));
    EXPECT_THAT(C.List(Volume, u"none", false), IsEmpty());
    EXPECT_THAT(C.List(Volume, nullptr, false, 65), IsEmpty());
    EXPECT_EQ(C.Status, ProviderError(0x0007));
}

TEST_F(ScriptedTest, VolumePathsAndDistributedPathsAreAnswered) {
    std::vector<WCHAR> Buffer(RV_PATH_BUFFER_BYTES / 2);
    EXPECT_EQ(C.T.RVFsdQueryPathForVolume(&P, &C.Sec, u"\\SRV\\vol\\docs\\a", Buffer.data()), Ok);
    EXPECT_EQ(std::u16string(Buffer.data()), u"\\SRV\\vol");
    EXPECT_EQ(C.T.RVFsdQueryPathForVolume(&P, &C.Sec, u"\\srv", Buffer.data()), Ok);
    EXPECT_EQ(std::u16string(Buffer.data()), u"\\srv");

    std::u16string Link = u"\\srv\\vol\\link\\a";
    UNICODE_STRING Path = {static_cast<USHORT>(Link.size() * 2), 0, Link.data()};
    UNICODE_STRING Physical = {0, RV_PATH_BUFFER_BYTES, Buffer.data()};
    EXPECT_EQ(C.T.RVFsdGetDFSPhysicalPath(&P, &C.Sec, 0, &Path, &Physical), RVSTATUS::NotDistributedPath);
    P.Edit([](Tree &T) { T.AddDistributedLink(u"\\srv\\vol\\link", u"\\far\\share"); });
    EXPECT_EQ(C.T.RVFsdGetDFSPhysicalPath(&P, &C.Sec, 0, &Path, &Physical), Ok);
    EXPECT_EQ(std::u16string(Buffer.data(), Physical.Length / 2), u"\\far\\share\\a");
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

TEST_F(ScriptedTest, CodeRunsInTheMidstOfACallAndDelaysGoToTheClock) {
    LONG64 Passed = 0;
    P.SetDelay([&](LONG64 Units) { Passed += Units; });
    P.OnCall(Slot::OpenDirectory).Delay(5).Do([&](const Call &) { P.AddDirectory(u"\\srv\\vol\\late"); });
    EXPECT_EQ(C.OpenDirectory(0, u"\\srv\\vol\\late"), Ok);
    EXPECT_EQ(Passed, 5);
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
    std::vector<std::thread> Threads;
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
    for (std::thread &Each : Threads) {
        Each.join();
    }
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
