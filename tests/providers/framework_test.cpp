#include "providers/framework/framework.h"
#include "providers/scripted/scripted_provider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace providers;
using namespace testing;

constexpr RVPSTATUS Broken{0xC7E70001};

struct ClassCase {
    FrameworkClass Class;
    const GUID &Clsid;
    const GUID &Iid;
};
const ClassCase Classes[] = {
    {FrameworkClass::Rvpl, CLSID_Rvpl, IID_Rvpl},
    {FrameworkClass::Transport, CLSID_Transport, IID_Transport},
    {FrameworkClass::Quillon, CLSID_Quillon, IID_Quillon},
    {FrameworkClass::Provider, CLSID_Provider, IID_Provider},
    {FrameworkClass::SecurityContext, CLSID_SecurityContext, IID_SecurityContext},
};

class FrameworkTest : public testing::Test {
protected:
    template <class Interface>
    RVPSTATUS Create(FrameworkClass Class, Interface **Out) {
        const ClassCase &Case = Classes[static_cast<unsigned>(Class)];
        PVOID Object = this;
        const RVPSTATUS Status = ZelmCreateInstance(&Case.Clsid, nullptr, &Case.Iid, &Object);
        *Out = static_cast<Interface *>(Object);
        return Status;
    }
    // Through the interface's own table type.
    static ULONG Release(FrameworkClass Class, PVOID Object) {
        auto Call = [](auto *Typed) { return Typed->Table->Release(Typed); };
        switch (Class) {
        case FrameworkClass::Rvpl:
            return Call(static_cast<RVPL *>(Object));
        case FrameworkClass::Provider:
            return Call(static_cast<RVIOM_FSD *>(Object));
        case FrameworkClass::SecurityContext:
            return Call(static_cast<RV_SECURITY *>(Object));
        default:
            return Call(static_cast<RVP_OBJECT *>(Object));
        }
    }
    RVPL *Rvpl() {
        RVPL *Made = nullptr;
        EXPECT_EQ(Create(FrameworkClass::Rvpl, &Made), RVPSTATUS::Success);
        return Made;
    }

    ScriptedProvider Provider;
    Framework Frame{&Provider};
};

TEST_F(FrameworkTest, EveryClassIsCountedUntilItsReleaseThroughSlotTwo) {
    for (const ClassCase &Case : Classes) {
        void *Object = nullptr;
        ASSERT_EQ(Create(Case.Class, &Object), RVPSTATUS::Success) << NameOf(Case.Class);
        ASSERT_NE(Object, nullptr);
        EXPECT_EQ(Frame.References(Case.Class), 1);
        EXPECT_EQ(Frame.LeakReport().size(), 1u);
        EXPECT_EQ(Release(Case.Class, Object), 0u);
        EXPECT_THAT(Frame.LeakReport(), IsEmpty());
    }
    EXPECT_THAT(Frame.Violations(), IsEmpty());
}

TEST_F(FrameworkTest, AReleaseTooManyAndAUseAfterTheLastOneAreViolations) {
    RVPL *Services = Rvpl();
    Services->Table->Release(Services);
    Services->Table->Release(Services);
    ULONG Counter = 0;
    Services->Table->Increment(Services, &Counter);
    EXPECT_THAT(Frame.Violations(),
                ElementsAre("RVPL released without a reference", "slot 72 of RVPL called after its last release"));
}

TEST_F(FrameworkTest, MemoryIsCountedUnzeroedAndFailsOnDemand) {
    RVPL *Services = Rvpl();
    Frame.FailAllocate(2);
    auto *First = static_cast<UCHAR *>(Services->Table->Allocate(Services, 100));
    EXPECT_EQ(Services->Table->AllocateForText(Services, 8), nullptr);
    PVOID Third = Services->Table->AllocateForText(Services, 8);
    EXPECT_EQ(First[99], 0xA5);
    Services->Table->Clear(Services, First, 100);
    EXPECT_EQ(First[99], 0);
    EXPECT_EQ(Frame.LiveBytes(), 108u);
    EXPECT_EQ(Frame.AllocationCount(), 3u);
    Services->Table->Free(Services, First);
    EXPECT_THAT(Frame.LeakReport(), ElementsAre("RVPL: 1 references", "block of 8 bytes from slot 25"));
    Services->Table->Free(Services, Third);
    Services->Table->Free(Services, &Services);
    EXPECT_EQ(Frame.Violations().size(), 1u);
}

TEST_F(FrameworkTest, MutexesAreAccountedFor) {
    RVPL *Services = Rvpl();
    const RVPL_TABLE *Slots = Services->Table;
    RVPL_MUTEX Mutex = 0;
    Frame.FailCreateMutex(Broken, true);
    EXPECT_EQ(Slots->CreateMutex(Services, 1, &Mutex), Broken);
    Slots->DestroyMutex(Services, Mutex);
    ASSERT_EQ(Slots->CreateMutex(Services, 1, &Mutex), RVPSTATUS::Success);

    EXPECT_EQ(Slots->AcquireMutex(Services, Mutex), RVPSTATUS::Success);
    Slots->ReleaseMutex(Services, Mutex);
    Frame.FailAcquireMutex(Broken);
    EXPECT_EQ(Slots->AcquireMutex(Services, Mutex), Broken);
    EXPECT_THAT(Frame.Violations(), IsEmpty());
    Slots->ReleaseMutex(Services, Mutex);
    EXPECT_EQ(Frame.Violations().size(), 1u);
    EXPECT_EQ(Frame.LiveMutexes(), 1u);
    Slots->DestroyMutex(Services, Mutex);
    EXPECT_EQ(Frame.LiveMutexes(), 0u);
}

TEST_F(FrameworkTest, AnUnexpectedSlotEndsTheProgramByName) {
    RVPL *Services = Rvpl();
    auto *Slot = reinterpret_cast<void(NTAPI *)()>(Services->Table->Unused45To58[1]);
    EXPECT_DEATH(Slot(), "unexpected slot 46 of RVPL called");
}

TEST(FrameworkAlone, WithoutOneEveryClassIsUnknownAndTheProviderGetsItsTableBack) {
    ScriptedProvider Provider;
    const RVIOM_FSD_TABLE *Own = Provider.Table;
    {
        Framework Frame(&Provider);
        EXPECT_NE(Provider.Table, Own);
    }
    EXPECT_EQ(Provider.Table, Own);
    PVOID Object = nullptr;
    EXPECT_EQ(ZelmCreateInstance(&CLSID_Rvpl, nullptr, &IID_Rvpl, &Object), RVPSTATUS::NoSuchClass);
}

} // namespace
