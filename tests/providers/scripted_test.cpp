#include "providers/scripted/scripted_provider.h"
#include "providers/stub/stub_provider.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace providers;
using namespace testing;

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
    std::string Read(RVHANDLE File, LONG64 Offset, ULONG64 Length) {
        std::string Buffer(Length, '?');
        Bytes = Length;
        Status = T.RVFsdReadFile(&Fsd, &Sec, File, &Offset, Length, Buffer.data(), &Bytes);
        return RvIsError(Status) ? "(error)" : Buffer.substr(0, Bytes);
    }

    // How many entries the batches of one listing hold.
    size_t Count(RVHANDLE Directory, PCWSTR Mask, bool ShortNames) {
        std::vector<UCHAR> Buffer(12288);
        size_t Found = 0;
        for (ULONG Key = 0;;) {
            ULONG Size = 12288;
            Status = ShortNames ? T.RVFsdEnumerateDirectoryEx(&Fsd, &Sec, Directory, Mask, 0, &Key, &Size, &Buffer[0])
                                : T.RVFsdEnumerateDirectory(&Fsd, &Sec, Directory, Mask, 0, &Key, &Size, &Buffer[0]);
            if (RvIsError(Status)) {
                return Found;
            }
            for (ULONG Next = 1, At = 0; Next != 0; At += Next, ++Found) {
                std::memcpy(&Next, &Buffer[At], 4);
            }
        }
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

TEST(StubTest, ServesItsTreeByNameAlone) {
    StubProvider Stub({.EntriesPerDirectory = 500, .FileSize = 10});
    Client C(Stub);
    EXPECT_EQ(C.OpenVolume(), StubProvider::VolumeHandle);
    EXPECT_EQ(C.OpenDirectory(1, u"docs"), Ok);
    EXPECT_EQ(C.OpenDirectory(1, u"docs\\a.txt"), RVSTATUS{0xC7E70520});
    EXPECT_EQ(C.CreateFile(1, u"docs\\a.txt"), Ok);
    EXPECT_EQ(C.CreateFile(1, u"docs\\!a.txt"), RVSTATUS{0xC7E70506});
    EXPECT_EQ(C.Read(3, 0, 5), "?????") << "the buffer stays as it was";
    EXPECT_EQ(C.Count(2, u"*", false), 500u);
    EXPECT_EQ(C.Count(2, u"*", true), 500u);
    EXPECT_EQ(C.Count(2, u"a.txt", false), 1u);
    std::vector<WCHAR> Buffer(RV_PATH_BUFFER_BYTES / 2);
    EXPECT_EQ(C.T.RVFsdQueryPathForVolume(&Stub, &C.Sec, u"\\s\\v\\d\\f", Buffer.data()), Ok);
    EXPECT_EQ(std::u16string(Buffer.data()), u"\\s\\v");
}

} // namespace
