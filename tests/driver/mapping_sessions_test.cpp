// Drive letters in logon sessions: whose they are, where their links stand, and what is left when something fails.

#include "embedded/names/probe.h"
#include "embedded/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/driver/mapping_client.h"

namespace {

using namespace test;

class MappedSessions : public MappingFixture {
protected:
    const TokenRef &Filtered() {
        return Logons->Split.Filtered;
    }
    const TokenRef &Elevated() {
        return Logons->Split.Elevated;
    }
    // A mapping with both links, made by the filtered half.
    void MapBoth() {
        SetPolicy(kSystemPolicyKey, 1);
        ASSERT_EQ(Map(Filtered(), {.Path = Docs}), STATUS_SUCCESS);
        ASSERT_NE(LinkOf(Filtered()), "");
        ASSERT_NE(LinkOf(Elevated()), "");
    }
};

TEST_F(MappedSessions, ThePolicyDecidesOverTheSecondLink) {
    constexpr int None = -1, Short = -2, Text = -3;
    struct {
        int Own, Policy;
        bool Linked;
        const char *Told;
    } const Cases[] = {
        {None, None, false, "EnableLinkedConnections not in effect.\n"},
        {None, 0, false, "EnableLinkedConnections not in effect.\n"},
        {None, 1, true, "Policies\\System\" read \"EnableLinkedConnections\" value 0x00000001.\n"},
        {0, 1, false, "Parameters\" read \"EnableLinkedConnections\" value 0x00000000.\n"},
        {2, 0, true, "Parameters\" read \"EnableLinkedConnections\" value 0x00000002.\n"},
        {Short, 1, true, "\"EnableLinkedConnections\" failed; status 0xC0000024.\n"},
        {Text, None, true, "Parameters\" read \"EnableLinkedConnections\" value 0x00390031.\n"},
    };
    const auto Set = [](std::u16string_view Key, int Value) {
        DeleteRegistryValue(Key, u"EnableLinkedConnections");
        const std::byte Bytes[] = {std::byte{0x31}, {}, std::byte{0x39}, {}};
        if (Value == Short || Value == Text) {
            SetRegistryValue(Key, u"EnableLinkedConnections", Value == Short ? REG_BINARY : REG_SZ,
                             std::span(Bytes).first(Value == Short ? 3 : 4));
        } else if (Value != None) {
            SetPolicy(Key, static_cast<ULONG>(Value));
        }
    };
    StartMapping(0x80);
    for (const auto &Case : Cases) {
        SCOPED_TRACE(fmt::format("{} {}", Case.Own, Case.Policy));
        Set(kClientParametersKey, Case.Own);
        Set(kSystemPolicyKey, Case.Policy);
        for (const TokenRef &Who : {Filtered(), Elevated()}) {
            const TokenRef &Other = Who.Get() == Filtered().Get() ? Elevated() : Filtered();
            Printed.clear();
            ASSERT_EQ(Map(Who, {.Path = Docs}), STATUS_SUCCESS);
            EXPECT_TRUE(WasPrinted(Case.Told)) << Printed;
            EXPECT_EQ(LinkOf(Who), "\\Device\\RvFsd\\srv\\vol\\docs");
            EXPECT_EQ(LinkOf(Other), Case.Linked ? "\\Device\\RvFsd\\srv\\vol\\docs" : "");
            EXPECT_EQ(FirstRecord()->LinkedSessionLink, Case.Linked);
            // Found from the other session only with its link.
            const NTSTATUS Found = Case.Linked ? STATUS_SUCCESS : STATUS_RESOURCE_NOT_OWNED;
            EXPECT_EQ(Query(Other), Found);
            EXPECT_EQ(Query(Logons->Third), Found);
            EXPECT_EQ(Query(Logons->Stranger), STATUS_RESOURCE_NOT_OWNED);
            EXPECT_EQ(Unmap(Logons->Stranger), STATUS_RESOURCE_NOT_OWNED);
            if (!Case.Linked) {
                EXPECT_EQ(Unmap(Other), STATUS_RESOURCE_NOT_OWNED);
            }
            EXPECT_EQ(Unmap(Case.Linked ? Other : Who), STATUS_SUCCESS);
            ExpectNothingLeft();
        }
    }
}

TEST_F(MappedSessions, TheSecondLinkHasTheSecurityOfItsOwnSession) {
    StartMapping();
    MapBoth();
    Security Access;
    const auto SecurityOf = [&](const TokenRef &Who) {
        const Impersonate Client(Who);
        EXPECT_EQ(QueryNameSecurity(u"\\??\\G:", &Access), STATUS_SUCCESS);
        return Access.Dacl;
    };
    EXPECT_EQ(SecurityOf(Elevated()), Elevated()->DefaultSecurity.Dacl);
    EXPECT_EQ(SecurityOf(Filtered()), Filtered()->DefaultSecurity.Dacl);
    EXPECT_NE(Elevated()->DefaultSecurity.Dacl, Filtered()->DefaultSecurity.Dacl);
    EXPECT_EQ(Unmap(Filtered()), STATUS_SUCCESS);
    // A token without a list of its own: the link gets none either, rather than one that lets everybody in.
    Elevated()->DefaultSecurity = {};
    MapBoth();
    EXPECT_EQ(SecurityOf(Elevated()), Filtered()->DefaultSecurity.Dacl) << "what its maker gives by default";
    EXPECT_EQ(Unmap(Elevated()), STATUS_SUCCESS);
    ExpectNothingLeft();
}

TEST_F(MappedSessions, WhoIsNotLinkedHasOneLink) {
    StartMapping(0x80);
    SetPolicy(kSystemPolicyKey, 1);
    for (const TokenRef &Who : {Logons->Third, LogOn(0, Elevation::Default, LUID{0xFFFF, 7})}) {
        Printed.clear();
        EXPECT_EQ(Map(Who, {.Path = Docs}), STATUS_SUCCESS);
        EXPECT_TRUE(WasPrinted("\"G:\" no linked token found; status 0xC0000024.\n")) << Printed;
        EXPECT_EQ(FirstRecord()->LinkedSessionLink, 0);
        EXPECT_EQ(Unmap(Who), STATUS_SUCCESS);
        ExpectNothingLeft();
    }
    LogOff(*Elevated().Get());
    Printed.clear();
    EXPECT_EQ(Map(Filtered(), {.Path = Docs}), STATUS_SUCCESS);
    EXPECT_TRUE(WasPrinted("returned STATUS_NO_SUCH_LOGON_SESSION (process 0x")) << Printed;
    EXPECT_EQ(Unmap(Filtered()), STATUS_SUCCESS);
    ExpectNothingLeft();
}

TEST_F(MappedSessions, AnImpersonatingThreadMapsForItsClient) {
    StartMapping(0x80);
    const Impersonate Client(Logons->Third);
    EXPECT_EQ(Map(Logons->Stranger, {.Path = Docs}), STATUS_SUCCESS);
    EXPECT_NE(LinkOf(Logons->Third), "");
    EXPECT_EQ(LinkOf(Logons->Stranger), "");
    EXPECT_TRUE(FirstRecord()->LogonId == Logons->Third->Session->Id);
    {
        const Impersonate Nobody(Logons->Third, SecurityAnonymous);
        EXPECT_EQ(Query(Logons->Third), STATUS_RESOURCE_NOT_OWNED) << "a session that cannot be told is nobody's";
        EXPECT_EQ(Map(Logons->Third, {.Drive = 8, .Path = Docs}), STATUS_CANT_OPEN_ANONYMOUS);
        EXPECT_EQ(g_uMappedDeviceCount, 1u);
    }
    EXPECT_EQ(Unmap(Logons->Stranger), STATUS_SUCCESS);
    ExpectNothingLeft();
}

// ---- Links that others have touched

TEST_F(MappedSessions, WhatOthersDidToALinkIsRespected) {
    enum Change { Nothing, Removed, Replaced };
    struct {
        Change Own, Other;
        NTSTATUS Status; // of unmapping from the session that mapped
    } const Cases[] = {
        {Removed, Nothing, STATUS_OBJECT_NAME_NOT_FOUND},
        {Nothing, Removed, STATUS_SUCCESS},
        {Removed, Removed, STATUS_OBJECT_NAME_NOT_FOUND},
        {Replaced, Nothing, STATUS_OBJECT_NAME_NOT_FOUND},
        {Nothing, Replaced, STATUS_SUCCESS},
        {Replaced, Replaced, STATUS_OBJECT_NAME_NOT_FOUND},
    };
    // Other targets: shorter, as long, longer, none of ours.
    const std::u16string Foreign[] = {u"\\Device\\F", u"\\Device\\RvFsd\\srv\\vol\\dogs",
                                      u"\\Device\\RvFsd\\srv\\vol\\docs2"};
    StartMapping();
    for (const auto &Case : Cases) {
        for (const std::u16string &Target : Foreign) {
            MapBoth();
            for (const auto &[Who, How] : {std::pair{Filtered(), Case.Own}, std::pair{Elevated(), Case.Other}}) {
                if (How != Nothing) {
                    RemoveLink(Who);
                }
                if (How == Replaced) {
                    MakeLink(Who, Target);
                }
            }
            EXPECT_EQ(Unmap(Filtered()), Case.Status);
            ExpectNothingLeft();
            const std::string Kept(Target.begin(), Target.end());
            EXPECT_EQ(LinkOf(Filtered()), Case.Own == Replaced ? Kept : "");
            EXPECT_EQ(LinkOf(Elevated()), Case.Other == Replaced ? Kept : "");
            for (const auto &[Who, How] : {std::pair{Filtered(), Case.Own}, std::pair{Elevated(), Case.Other}}) {
                if (How == Replaced) {
                    RemoveLink(Who);
                }
            }
        }
    }
}

TEST_F(MappedSessions, ALetterThatOthersHaveIsLeftToThem) {
    StartMapping();
    SetPolicy(kSystemPolicyKey, 1);
    const std::string Target = "\\Device\\RvFsd\\srv\\vol\\docs";
    MakeLink(Elevated(), std::u16string(Target.begin(), Target.end())); // however alike
    EXPECT_EQ(Map(Elevated(), {.Path = Docs}), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(g_uMappedDeviceCount, 0u);
    EXPECT_EQ(Provider.OpenHandles(), Lines{});
    EXPECT_EQ(Map(Filtered(), {.Path = Docs}), STATUS_SUCCESS) << "with its own link alone";
    EXPECT_EQ(FirstRecord()->LinkedSessionLink, 0u);
    EXPECT_EQ(Unmap(Filtered()), STATUS_SUCCESS);
    EXPECT_EQ(LinkOf(Filtered()), "");
    EXPECT_EQ(LinkOf(Elevated()), Target);
    RemoveLink(Elevated());
    ExpectNothingLeft();
}

TEST_F(MappedSessions, AMappingGoesFromASessionThatHasNoneOfItsLinks) {
    StartMapping();
    MapBoth();
    MakeLink(Logons->Third, u"\\Device\\RvFsd\\srv\\vol\\docs"); // the caller's own, however alike
    EXPECT_EQ(Unmap(Logons->Third), STATUS_SUCCESS);
    ExpectNothingLeft();
    EXPECT_NE(LinkOf(Logons->Third), "");
    RemoveLink(Logons->Third);

    ASSERT_EQ(Map(Filtered(), {.Path = Docs, .ConnectionId = 9}), STATUS_SUCCESS);
    SetPolicy(kSystemPolicyKey, 0);
    ASSERT_EQ(Map(Elevated(), {.Drive = 8, .Path = Docs, .ConnectionId = 9}), STATUS_SUCCESS);
    EXPECT_EQ(UnmapServer(Logons->Third, 9), STATUS_SUCCESS);
    ExpectNothingLeft();

    // The global letters are the system's.
    const TokenRef System = {};
    ASSERT_EQ(Map(System, {.Path = Docs, .ConnectionId = 9}), STATUS_SUCCESS);
    std::u16string Target;
    EXPECT_EQ(QuerySymbolicLink(u"\\GLOBAL??\\G:", &Target), STATUS_SUCCESS);
    MapBoth();
    ASSERT_EQ(Map(Logons->Third, {.Path = Docs}), STATUS_SUCCESS) << "hides it";
    for (const TokenRef &Who : {Filtered(), Elevated(), Logons->Third}) {
        RemoveLink(Who);
    }
    for (const TokenRef &Who : {Elevated(), Logons->Third}) {
        EXPECT_EQ(Unmap(Who), STATUS_OBJECT_NAME_NOT_FOUND) << "and does not take it for its own, however alike";
        EXPECT_EQ(QuerySymbolicLink(u"\\GLOBAL??\\G:", &Target), STATUS_SUCCESS);
    }
    SetPolicy(kSystemPolicyKey, 0);
    // A linked session of the system's id has its second link among its own letters.
    const SplitLogon Odd = LogOnSplit(502, {0x3E7, 0});
    const std::u16string Second = u"\\Sessions\\0\\DosDevices\\00000000-000003E7\\G:";
    SetPolicy(kSystemPolicyKey, 1);
    ASSERT_EQ(Map(Odd.Filtered, {.Path = Docs}), STATUS_SUCCESS);
    EXPECT_EQ(QuerySymbolicLink(Second, &Target), STATUS_SUCCESS);
    EXPECT_EQ(Unmap(Odd.Filtered), STATUS_SUCCESS);
    EXPECT_EQ(QuerySymbolicLink(Second, &Target), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(QuerySymbolicLink(u"\\GLOBAL??\\G:", &Target), STATUS_SUCCESS);
    EXPECT_EQ(Unmap(System), STATUS_SUCCESS);
    ExpectNothingLeft();
}

// ---- What fails

TEST_F(MappedSessions, WhateverFailsInMappingLeavesNothing) {
    // How often mapping failed.
    const auto Sweep = [this](const char *What, const MapRequest &Request, auto Fail, auto Fired) {
        unsigned Failures = 0;
        for (unsigned Nth = 1; Nth < 100; ++Nth) {
            Fail(Nth);
            const NTSTATUS Status = Map(Filtered(), Request);
            const bool Done = !Fired();
            ClearFaultPlan();
            Provider.ClearScript();
            if (NT_SUCCESS(Status)) {
                // Without its second link a mapping is whole all the same.
                EXPECT_EQ(LinkOf(Elevated()).empty(), FirstRecord()->LinkedSessionLink == 0) << What << Nth;
                EXPECT_EQ(Unmap(Filtered()), STATUS_SUCCESS) << What << Nth;
            } else {
                ++Failures;
                EXPECT_EQ(LinkOf(Filtered()), "") << What << Nth;
            }
            ExpectNothingLeft(fmt::format("{} {}", What, Nth));
            if (Done) {
                EXPECT_EQ(Status, STATUS_SUCCESS) << What;
                return Failures;
            }
        }
        ADD_FAILURE() << What << " has no end";
        return Failures;
    };
    StartMapping();
    SetPolicy(kSystemPolicyKey, 1);
    // Without the registry only the second link is not made.
    const std::tuple<FaultKind, const char *, bool> Kinds[] = {{FaultKind::Pool, "pool", true},
                                                               {FaultKind::Token, "tokens", true},
                                                               {FaultKind::Link, "links", true},
                                                               {FaultKind::Registry, "registry", false}};
    for (const ULONG Utf8 : {0u, 1u}) {
        const MapRequest Request = {.Path = Docs, .Utf8 = Utf8};
        for (const auto &[Kind, Name, Needed] : Kinds) {
            const auto Plan = [Kind = Kind](unsigned Nth) { SetFaultPlan({.Kinds = FaultBit(Kind), .Nth = Nth}); };
            const auto Fired = [] { return GetFaultCounts().TotalFailed() != 0; };
            EXPECT_EQ(Sweep(Name, Request, Plan, Fired) != 0, Needed) << Name;
        }
        const auto Refuse = [this](unsigned Nth) { Provider.FailEverything(Slot::Any, Nth, ProviderError(6)); };
        EXPECT_NE(Sweep("Provider", Request, Refuse, [this] { return Provider.FaultFired(); }), 0u);
        // The framework's memory: the converted path; then both keys' buffers, the list of access, the descriptor.
        unsigned Block = 0;
        const auto Withhold = [&](unsigned Nth) { Frame().FailAllocate(Block = Nth); };
        EXPECT_EQ(Sweep("framework", Request, Withhold, [&] { return Block <= 5; }), Utf8);
    }
}

TEST_F(MappedSessions, WhateverFailsInUnmappingLeavesNothing) {
    StartMapping();
    const std::pair<FaultKind, const char *> Kinds[] = {{FaultKind::Pool, "pool"},
                                                        {FaultKind::Token, "tokens"},
                                                        {FaultKind::Link, "links"},
                                                        {FaultKind::Registry, "registry"}};
    for (const TokenRef &Who : {Filtered(), Elevated(), Logons->Third}) {
        for (const auto &[Kind, Name] : Kinds) {
            for (unsigned Nth = 1, Last = 0; Last == 0; ++Nth) {
                MapBoth();
                SetFaultPlan({.Kinds = FaultBit(Kind), .Nth = Nth});
                const NTSTATUS Status = Unmap(Who);
                Last = GetFaultCounts().TotalFailed() == 0 ? Nth : 0;
                ClearFaultPlan();
                if (!NT_SUCCESS(Status) && Kind == FaultKind::Pool) {
                    EXPECT_EQ(Status, STATUS_INSUFFICIENT_RESOURCES) << "before anything was done";
                    EXPECT_EQ(Unmap(Who), STATUS_SUCCESS);
                }
                ExpectNothingLeft(fmt::format("{} {}", Name, Nth));
            }
        }
        for (unsigned Nth = 1; Nth <= 2; ++Nth) {
            MapBoth();
            Provider.FailEverything(Slot::Any, Nth, ProviderError(6));
            EXPECT_EQ(Unmap(Who), STATUS_SUCCESS);
            Provider.ClearScript();
            ExpectNothingLeft("Provider");
        }
    }
}

TEST_F(MappedSessions, WithoutAContextNothingIsDone) {
    StartMapping(0x20000);
    MapBoth();
    // The records of requests come from a list that still has one.
    std::vector<PVOID> Taken;
    while (PVOID Each = ExpInterlockedPopEntrySList(&g_IrpContextLookasideList.L.ListHead)) {
        Taken.push_back(Each);
    }
    Printed.clear();
    SetFaultPlan({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool), .Nth = 2});
    EXPECT_EQ(Verify("\\\\srv\\vol"), STATUS_INSUFFICIENT_RESOURCES);
    SetFaultPlan({.How = FaultPlan::Mode::NthAndAfter, .Kinds = FaultBit(FaultKind::Pool), .Nth = 1});
    EXPECT_EQ(Unmap(Filtered()), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(UnmapServer(Filtered(), 0), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Query(Filtered()), STATUS_INSUFFICIENT_RESOURCES);
    ClearFaultPlan();
    for (PVOID Each : Taken) {
        ExpInterlockedPushEntrySList(&g_IrpContextLookasideList.L.ListHead, static_cast<PSLIST_ENTRY>(Each));
    }
    EXPECT_EQ(Unmap(Filtered()), STATUS_SUCCESS);
    ExpectNothingLeft();
}

// ---- The end

TEST_F(MappedSessions, TeardownReleasesWhatIsStillMappedAndWhatComesLaterIsRefused) {
    StartMapping();
    MapBoth();
    ASSERT_EQ(Map(Logons->Stranger, {.Path = "\\\\srv\\vol"}), STATUS_SUCCESS);
    const SplitLogon Odd = LogOnSplit(502, {0x3E7, 0}); // teardown runs in that session
    ASSERT_EQ(Map(Odd.Filtered, {.Path = Docs}), STATUS_SUCCESS);
    Kernel().SendShutdown();
    EXPECT_EQ(Provider.OpenHandles(), Lines{});
    EXPECT_EQ(g_uMappedDeviceCount, 0u);
    EXPECT_EQ(DescribeDriversLinks(), "");
    EXPECT_EQ(Map(Filtered(), {.Path = Docs}), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Unmap(Filtered()), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(UnmapServer(Filtered(), 0), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Query(Filtered()), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Verify("\\\\srv\\vol"), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Mapping->Table->TraceMessage(Mapping, "x"), STATUS_SUCCESS);
    EXPECT_EQ(Mapping->Table->Release(Mapping), 0u);
    Mapping = nullptr;
    // The object's block is the framework's now; its report would tell of it.
    StopWithLeftovers();
}

// ---- Many at once

using ConcurrentMapping = MappedSessions;

TEST_F(ConcurrentMapping, ARequestThatChangesWhileItIsReadIsReadOnce) {
    StartMapping();
    Provider.AddDirectory(u"\\srv\\vol\\doc");
    Provider.SetRecording(false);
    std::vector<char> Bytes = MapRequest{.Path = Docs}.Bytes();
    char *const Path = Bytes.data() + 20;
    ULONG *const Drive = reinterpret_cast<ULONG *>(Bytes.data());
    std::atomic<bool> Stop{false};
    std::thread Changer([&] {
        for (unsigned Turn = 0; !Stop; ++Turn) {
            __atomic_store_n(Path + 12, Turn % 2 == 0 ? 'c' : '\0', __ATOMIC_RELAXED);
            __atomic_store_n(Path + 13, Turn % 3 == 0 ? 's' : '\0', __ATOMIC_RELAXED);
            __atomic_store_n(Drive, Turn % 5 == 0 ? 0x10007u : 7u, __ATOMIC_RELAXED);
            __atomic_store_n(Drive + 3, Turn % 7 == 0 ? 0xFFFFFFFFu : 13u, __ATOMIC_RELAXED);
        }
    });
    unsigned Mapped = 0;
    // However rarely the other thread gets a processor.
    for (int Round = 0; Round < 2000 || (Mapped == 0 && Round < 10'000'000); ++Round) {
        const NTSTATUS Status = As(Logons->Third, [&] {
            return Mapping->Table->MapDrive(Mapping, reinterpret_cast<const MAP_REQUEST *>(Bytes.data()));
        });
        if (!NT_SUCCESS(Status)) {
            EXPECT_TRUE(Status == STATUS_INVALID_PARAMETER || NT_ERROR(Status));
            continue;
        }
        ++Mapped;
        const MAPPED_DEVICE *Record = FirstRecord();
        // Link, volume path and the caller's own text are of one reading.
        EXPECT_EQ(Record->DriveNumber, 7u);
        const std::string Sent(Record->pPathData);
        EXPECT_EQ(LinkOf(Logons->Third), "\\Device\\RvFsd" + Sent.substr(1));
        EXPECT_EQ(std::u16string(Record->pVolumePath), std::u16string(Sent.begin() + 1, Sent.end()));
        const NTSTATUS Gone = As(Logons->Third, [&] { return Mapping->Table->UnMapDrive(Mapping, Drive); });
        EXPECT_EQ(Gone == STATUS_RESOURCE_NOT_OWNED ? Unmap(Logons->Third) : Gone, STATUS_SUCCESS);
    }
    Stop = true;
    Changer.join();
    EXPECT_GT(Mapped, 0u);
    Provider.SetRecording(true);
    ExpectNothingLeft();
}

TEST_F(ConcurrentMapping, EachMappingIsMadeAndUnmappedOnce) {
    StartMapping();
    SetPolicy(kSystemPolicyKey, 1);
    std::atomic<int> Maps{0}, Unmaps{0};
    std::vector<std::jthread> Threads;
    // Another object, which goes with the thread that is the last to end.
    const auto Shared = NewMapping();
    std::atomic<int> Freed{0};
    for (int Index = 0; Index < 4; ++Index) {
        Shared->Table->AddRef(Shared);
        Threads.emplace_back([&, Index] {
            const TokenRef &Who = Index % 2 == 0 ? Filtered() : Elevated();
            for (ULONG Round = 0; Round < 150; ++Round) {
                const ULONG Drive = 1 + (Round + static_cast<ULONG>(Index)) % 3;
                const NTSTATUS Mapped = Map(Who, {.Drive = Drive, .Path = Docs, .ConnectionId = 1});
                EXPECT_TRUE(Mapped == STATUS_SUCCESS || Mapped == STATUS_OBJECT_NAME_COLLISION) << std::hex << Mapped;
                Maps += Mapped == STATUS_SUCCESS;
                const NTSTATUS Queried = Query(Who, Drive);
                EXPECT_TRUE(Queried == STATUS_SUCCESS || Queried == STATUS_RESOURCE_NOT_OWNED);
                const NTSTATUS Unmapped = Unmap(Who, Drive);
                Unmaps += Unmapped != STATUS_RESOURCE_NOT_OWNED;
                Shared->Table->AddRef(Shared);
                EXPECT_NE(Shared->Table->Release(Shared), 0u);
            }
            Freed += Shared->Table->Release(Shared) == 0;
        });
    }
    Freed += Shared->Table->Release(Shared) == 0;
    Threads.clear(); // joins them
    EXPECT_EQ(Freed, 1);
    const int Left = static_cast<int>(g_uMappedDeviceCount);
    EXPECT_EQ(Maps, Unmaps + Left);
    EXPECT_GT(Maps, 0);
    UnmapServer(Filtered(), 1);
    EXPECT_EQ(g_uMappedDeviceCount, 0u);
    EXPECT_EQ(Provider.OpenHandles(), Lines{});
}

} // namespace
