// What the tests and benchmarks stand on: the scripted Provider's books, the framework's, the stub Provider's tree.

#include "providers/conformance/provider_client.h"
#include "providers/framework/probe.h"
#include "providers/scripted/scripted_provider.h"
#include "providers/stub/stub_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace providers;
using namespace testing;
using conformance::Client;

void Fails(const std::string &Fault) {
    ADD_FAILURE() << Fault;
}

class ScriptedTest : public testing::Test {
protected:
    ScriptedProvider P;
    Client C{P, Fails};
    RVHANDLE File = 0;
    ULONG Action = 0;
};

TEST_F(ScriptedTest, ACallIsRecordedWithItsArgumentsAnswersAndCaller) {
    P.AddFile(u"\\srv\\vol\\a.txt", "hello");
    ASSERT_EQ(C.OpenFile(0, u"\\srv\\vol\\a.txt", RV_DISPOSITION_QUERY, File, Action), RVSTATUS::Success);
    EXPECT_EQ(C.OpenFile(0, u"\\srv\\vol\\none", RV_DISPOSITION_OPEN_EXISTING, File, Action), ProviderError(0x0506));
    const Call First = P.CallRecords()[0];
    EXPECT_THAT(First.Format(),
                MatchesRegex(R"(RVFsdCreateFile\(base=0, path="\\srv\\vol\\a.txt", access=.*, share=7, )"
                             R"(disposition=0, options=0, attributes=0\) -> 0x00000000 handle=1 action=1)"));
    EXPECT_THAT(P.Calls()[1], MatchesRegex(R"(RVFsdCreateFile\(base=0, path="\\srv\\vol\\none", .* -> 0xC7E70506)"));
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
    RVHANDLE Volume = 0, None = 0;
    std::string Data = "?";
    const auto Close = [&](RVHANDLE Handle) {
        return C.Call(&RVIOM_FSD_TABLE::RVFsdCloseFile, "RVFsdCloseFile", Handle);
    };
    C.OpenVolume(u"\\srv\\vol", Volume);
    ASSERT_EQ(C.OpenFile(Volume, u"docs\\a.txt", RV_DISPOSITION_OPEN_EXISTING, File, Action), RVSTATUS::Success);
    EXPECT_THAT(P.OpenHandles(), ElementsAre(R"(volume 1 "\srv\vol")", R"(file 2 "docs\a.txt")"));
    EXPECT_EQ(P.Violations(), std::vector<std::string>());

    EXPECT_EQ(Close(Volume), RVSTATUS::InvalidHandle);
    EXPECT_EQ(Close(File), RVSTATUS::Success);
    EXPECT_EQ(Close(File), RVSTATUS::InvalidHandle);
    EXPECT_EQ(C.Read(File, 0, Data), RVSTATUS::InvalidHandle);
    EXPECT_EQ(Close(99), RVSTATUS::InvalidHandle);
    EXPECT_EQ(C.OpenDirectory(Volume, u"\\docs", None), RVSTATUS::InvalidParameter);
    EXPECT_THAT(P.Violations(),
                ElementsAre("RVFsdCloseFile: handle 1 is a volume handle", "RVFsdCloseFile: handle 2 is closed",
                            "RVFsdReadFile: handle 2 is closed", "RVFsdCloseFile: handle 99 is unknown",
                            "RVFsdOpenDirectory: a path below a handle begins with a backslash: \"\\docs\""));
    C.CloseVolume(Volume);
    EXPECT_THAT(P.OpenHandles(), IsEmpty());
}

TEST(StubTest, ServesItsTreeByNameAlone) {
    StubProvider Stub({.EntriesPerDirectory = 500, .FileSize = 10});
    Client C(Stub, Fails);
    RVHANDLE Handle = 0;
    ULONG Action = 0;
    C.OpenVolume(u"\\srv\\vol", Handle);
    EXPECT_EQ(Handle, StubProvider::VolumeHandle);
    EXPECT_EQ(C.OpenDirectory(1, u"docs", Handle), RVSTATUS::Success);
    EXPECT_EQ(C.OpenDirectory(1, u"docs\\a.txt", Handle), RVSTATUS{0xC7E70520});
    EXPECT_EQ(C.OpenFile(1, u"docs\\a.txt", RV_DISPOSITION_OPEN_EXISTING, Handle, Action), RVSTATUS::Success);
    EXPECT_EQ(C.OpenFile(1, u"docs\\!a.txt", RV_DISPOSITION_OPEN_EXISTING, Handle, Action), RVSTATUS{0xC7E70506});
    std::string Data = "?????";
    EXPECT_EQ(C.Read(3, 0, Data), RVSTATUS::Success);
    EXPECT_EQ(Data.size(), 5u);
    for (const auto &[Mask, Short, Count] :
         {std::tuple{u"*", false, 500u}, {u"*", true, 500u}, {u"a.txt", false, 1u}}) {
        std::vector<conformance::Record> Found;
        EXPECT_EQ(C.List(2, Mask, Short, 12288, Found), RVSTATUS{0xC7E70505});
        EXPECT_EQ(Found.size(), Count);
    }
    std::u16string Volume;
    EXPECT_EQ(C.VolumePath(u"\\s\\v\\d\\f", Volume), RVSTATUS::Success);
    EXPECT_EQ(Volume, u"\\s\\v");
}

class FrameworkTest : public testing::Test {
protected:
    static RVPSTATUS Create(RVPL **Out) {
        PVOID Object = &Object;
        const RVPSTATUS Status = ZelmCreateInstance(&CLSID_Rvpl, nullptr, &IID_Rvpl, &Object);
        *Out = static_cast<RVPL *>(Object);
        return Status;
    }

    ScriptedProvider Provider;
    const RVIOM_FSD_TABLE *const Own = Provider.Table;
    std::optional<Framework> Frame{&Provider};
    FrameworkProbe Probe{*Frame};
    RVPL *Services = nullptr;
    void SetUp() override {
        ASSERT_EQ(Create(&Services), RVPSTATUS::Success);
    }
};

TEST_F(FrameworkTest, AReleaseTooManyAndAUseAfterTheLastOneAreViolations) {
    EXPECT_EQ(Services->Table->Release(Services), 0u);
    EXPECT_THAT(Frame->LeakReport(), IsEmpty());
    EXPECT_THAT(Probe.Violations(), IsEmpty());
    Services->Table->Release(Services);
    ULONG Counter = 0;
    Services->Table->Increment(Services, &Counter);
    EXPECT_THAT(Probe.Violations(),
                ElementsAre("RVPL released without a reference", "slot 72 of RVPL called after its last release"));
}

TEST_F(FrameworkTest, MemoryIsCountedUnzeroedAndFailsOnDemand) {
    Probe.FailAllocate(2);
    auto *First = static_cast<UCHAR *>(Services->Table->Allocate(Services, 100));
    EXPECT_EQ(Services->Table->AllocateForText(Services, 8), nullptr);
    PVOID Third = Services->Table->AllocateForText(Services, 8);
    EXPECT_EQ(First[99], 0xA5);
    Services->Table->Clear(Services, First, 100);
    EXPECT_EQ(First[99], 0);
    EXPECT_EQ(Probe.LiveBytes(), 108u);
    EXPECT_EQ(Probe.AllocationCount(), 3u);
    Services->Table->Free(Services, First);
    EXPECT_THAT(Frame->LeakReport(), ElementsAre("RVPL: 1 references", "block of 8 bytes from slot 25"));
    Services->Table->Free(Services, Third);
    Services->Table->Free(Services, &Services);
    EXPECT_EQ(Probe.Violations().size(), 1u);
}

TEST_F(FrameworkTest, MutexesAreAccountedFor) {
    constexpr RVPSTATUS Broken{0xC7E70001};
    const RVPL_TABLE *Slots = Services->Table;
    RVPL_MUTEX Mutex = 0;
    Probe.FailCreateMutex(Broken, true);
    EXPECT_EQ(Slots->CreateMutex(Services, 1, &Mutex), Broken);
    Slots->DestroyMutex(Services, Mutex);
    ASSERT_EQ(Slots->CreateMutex(Services, 1, &Mutex), RVPSTATUS::Success);
    EXPECT_EQ(Slots->AcquireMutex(Services, Mutex), RVPSTATUS::Success);
    Slots->ReleaseMutex(Services, Mutex);
    Probe.FailAcquireMutex(Broken);
    EXPECT_EQ(Slots->AcquireMutex(Services, Mutex), Broken);
    EXPECT_THAT(Probe.Violations(), IsEmpty());
    Slots->ReleaseMutex(Services, Mutex);
    EXPECT_EQ(Probe.Violations().size(), 1u);
    EXPECT_EQ(Probe.LiveMutexes(), 1u);
    Slots->DestroyMutex(Services, Mutex);
    EXPECT_EQ(Probe.LiveMutexes(), 0u);
}

TEST_F(FrameworkTest, AnUnexpectedSlotEndsTheProgramByName) {
    auto *Slot = reinterpret_cast<void(NTAPI *)()>(Services->Table->Unused45To58[1]);
    EXPECT_DEATH(Slot(), "unexpected slot 46 of RVPL called");
}

TEST_F(FrameworkTest, ThatEndsGivesTheProviderItsTableBackAndKnowsNoClass) {
    EXPECT_NE(Provider.Table, Own);
    Frame.reset();
    EXPECT_EQ(Provider.Table, Own);
    EXPECT_EQ(Create(&Services), RVPSTATUS::NoSuchClass);
}

} // namespace
