// A client of the published class: it maps letters as the users and sessions of a machine do.
#pragma once

#include "embedded/names/logon.h"
#include "embedded/names/names.h"
#include "embedded/se/se.h"
#include "embedded/verifier/rules.h"
#include "mapping/drive_mapping.h"
#include "mapping/mapping_object.h"
#include "provider/class_factory.h"
#include "tests/driver/frame_client.h"

namespace test {

// A map request as bytes, with a path that need not be what its length says.
struct MapRequest {
    ULONG Drive = 7;
    std::string Path;
    ULONG ConnectionId = 0;
    ULONG Options = 0;
    ULONG Utf8 = 1;
    std::optional<ULONG> Length = {};

    std::vector<char> Bytes() const {
        const ULONG Words[] = {Drive, Options, ConnectionId, Length.value_or(static_cast<ULONG>(Path.size())), Utf8};
        std::vector<char> Result(sizeof(Words));
        memcpy(Result.data(), Words, sizeof(Words));
        Result.insert(Result.end(), Path.begin(), Path.end());
        Result.push_back(0);
        return Result;
    }
};

// The users' logons: one whose logon is split in two sessions, one with two separate sessions, and a stranger.
struct Users {
    SplitLogon Split = LogOnSplit(500);
    TokenRef Third = LogOn(500);
    TokenRef Stranger = LogOn(501);
};

class MappingFixture : public FrameFixture {
protected:
    static constexpr const char *Docs = "\\\\srv\\vol\\docs";

    // Traces of the categories Mask go to Printed, and with External what clients hand in.
    void StartMapping(ULONG Mask = 0, ULONG External = 0) {
        Start({.Switches = {{u"EnableDebug", Mask != 0 || External != 0},
                            {u"FsDisplayOutput", 1},
                            {u"FsDebugLevel", Mask},
                            {u"RvioctlDbgMsg", External}}});
        Clock::Settle();
        Framework->SetCaller([] {
            const ULONG64 Account = CallerAccount();
            return RV_SECURITY_CONTEXT{{Account, Account}};
        });
        Logons.emplace();
        Mapping = NewMapping();
        Provider.ClearCalls();
    }
    static RVFSD_MAPPING *NewMapping() {
        PVOID Out = nullptr;
        EXPECT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &IID_IClassFactory, &Out), RVPSTATUS::Success);
        const auto Maker = static_cast<RVFSD_FACTORY *>(Out);
        EXPECT_EQ(Maker->Table->CreateInstance(Maker, nullptr, &IID_RvfsdMapping, &Out), RVPSTATUS::Success);
        Maker->Table->Release(Maker);
        return static_cast<RVFSD_MAPPING *>(Out);
    }
    void StopMapping() {
        EXPECT_EQ(Mapping->Table->Release(Mapping), 0u);
        Mapping = nullptr;
        Logons.reset();
        Stop();
    }
    void TearDown() override {
        if (Mapping != nullptr) {
            Mapping->Table->Release(Mapping);
        }
        DriverFixture::TearDown();
    }

    // Runs Call in a process of Who's, as driver code.
    template <typename F>
    auto As(const TokenRef &Who, F Call) {
        const PEPROCESS Client = CreateProcess("client", Who);
        const ScopeExit Gone([Client] { DeleteProcess(Client); });
        const AttachProcess Attached(Client);
        const RequireUnchanged Unchanged(DriverCall::Other, "an operation of the mapping object");
        const FaultScope Faults;
        return Call();
    }
    NTSTATUS Map(const TokenRef &Who, const MapRequest &Request) {
        const std::vector<char> Bytes = Request.Bytes();
        return As(Who, [&] {
            return Mapping->Table->MapDrive(Mapping, reinterpret_cast<const MAP_REQUEST *>(Bytes.data()));
        });
    }
    NTSTATUS Unmap(const TokenRef &Who, ULONG Drive = 7) {
        return As(Who, [&] { return Mapping->Table->UnMapDrive(Mapping, &Drive); });
    }
    NTSTATUS UnmapServer(const TokenRef &Who, ULONG ConnectionId) {
        return As(Who, [&] { return Mapping->Table->UnMapServer(Mapping, ConnectionId); });
    }
    NTSTATUS Query(const TokenRef &Who, ULONG Drive = 7, QUERY_DRIVE *Answer = nullptr) {
        const auto Own = std::make_unique<QUERY_DRIVE>();
        QUERY_DRIVE *To = Answer != nullptr ? Answer : Own.get();
        To->DriveNumber = Drive;
        return As(Who, [&] { return Mapping->Table->QueryDrive(Mapping, To); });
    }
    NTSTATUS Verify(const std::string &Path) {
        return As(Logons->Third, [&] { return Mapping->Table->VerifyPath(Mapping, 1, Path.c_str()); });
    }
    // Where a letter leads in a session; empty when there is no link there, or one of everybody's.
    static std::string LinkOf(const TokenRef &Who, char Letter = 'G') {
        std::u16string Target;
        const std::string Name =
            fmt::format("\\Sessions\\0\\DosDevices\\{:08X}-{:08X}\\{}:", static_cast<ULONG>(Who->Session->Id.HighPart),
                        Who->Session->Id.LowPart, Letter);
        return NT_SUCCESS(QuerySymbolicLink(std::u16string(Name.begin(), Name.end()), &Target))
                   ? std::string(Target.begin(), Target.end())
                   : "";
    }
    // Deletes or makes a link as anybody else of the session might.
    static void RemoveLink(const TokenRef &Who) {
        const Impersonate Client(Who);
        EXPECT_TRUE(RemoveName(u"\\??\\G:"));
    }
    static void MakeLink(const TokenRef &Who, std::u16string_view Target) {
        const Impersonate Client(Who);
        EXPECT_EQ(CreateSymbolicLink(u"\\??\\G:", Target), STATUS_SUCCESS);
    }
    static void SetPolicy(std::u16string_view Key, ULONG Value) {
        SetRegistryDword(Key, u"EnableLinkedConnections", Value);
    }
    static MAPPED_DEVICE *FirstRecord() {
        return IsListEmpty(&g_MappedDeviceList) ? nullptr
                                                : CONTAINING_RECORD(g_MappedDeviceList.Flink, MAPPED_DEVICE, Links);
    }
    // Nothing of any mapping is left: no record, no Provider handle, no link, no handle, no block.
    void ExpectNothingLeft(std::string_view Where = {}) {
        EXPECT_EQ(g_uMappedDeviceCount, 0u) << Where;
        EXPECT_EQ(Provider.OpenHandles(), Lines{}) << Where;
        EXPECT_EQ(DescribeDriversLinks(), "") << Where;
        EXPECT_EQ(Frame().LiveBlocks(), 1u) << Where << ": the mapping object alone";
        EXPECT_EQ(DescribeOpenHandles().find("token"), std::string::npos) << Where;
        EXPECT_EQ(DescribeOpenHandles().find("link"), std::string::npos) << Where;
        EXPECT_EQ(DescribeOpenHandles().find("key"), std::string::npos) << Where;
    }

    RVFSD_MAPPING *Mapping = nullptr;
    std::optional<Users> Logons;
};

} // namespace test
