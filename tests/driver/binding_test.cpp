// Binding to the component framework on the first request, and the class that the driver publishes.

#include "embedded/ke/ke.h"
#include "frame/driver.h"
#include "provider/binding.h"
#include "provider/class_factory.h"
#include "tests/driver/frame_client.h"

namespace {

using namespace test;

class Binding : public FrameFixture {
protected:
    NTSTATUS FirstRequest() {
        return Send(Plain(IRP_MJ_DEVICE_CONTROL, nullptr)).Status;
    }
    // What a request is answered that reached its common routine.
    static constexpr NTSTATUS Served = STATUS_INVALID_DEVICE_REQUEST;
};

TEST_F(Binding, HappensOnceWithTheFirstRequestAfterTheStartInItsOrder) {
    Start();
    g_bDriverEntryDone = 0;
    EXPECT_EQ(FirstRequest(), STATUS_UNSUCCESSFUL) << "the start has not finished";
    EXPECT_EQ(Frame().Log(), Lines{});
    g_bDriverEntryDone = 1;
    NTSTATUS Within = STATUS_SUCCESS; // of a request that the framework sends meanwhile
    Frame().BeforeCreate(Class::Quillon, [&] { Within = FirstRequest(); });
    EXPECT_EQ(FirstRequest(), Served);
    EXPECT_EQ(Within, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Frame().Log(),
              (Lines{"create RVPL -> 0x00000000", "create Transport -> 0x00000000", "create Quillon -> 0x00000000",
                     "create Provider -> 0x00000000", "create SecurityContext -> 0x00000000"}));
    EXPECT_EQ(FirstRequest(), Served);
    EXPECT_EQ(Frame().Log().size(), 5u);
}

struct FailedClass {
    FrameworkClass Class;
    const char *Told;
    bool AnyStatusFails; // otherwise only an error does
};

constexpr FailedClass Classes[] = {
    {FrameworkClass::Rvpl, "VEYFSD: Unable to obtain RVPL interface\n", false},
    {FrameworkClass::Transport, "VEYFSD: Unable to obtain RVP Transport interface, status = C7E70002\n", false},
    {FrameworkClass::Quillon, "VEYFSD: Error Loading Quillon, status = C7E70002\n", false},
    {FrameworkClass::Provider, "Unable to obtain RVIOM Fsd interface\n", true},
    {FrameworkClass::SecurityContext, "Unable to obtain Local Security Context interface\n", true},
};

TEST_F(Binding, ThatFailsIsToldNeverRetriedAndKeepsWhatItGot) {
    for (const FailedClass &Failed : Classes) {
        StartTracing(0x10000);
        Printed.clear();
        Frame().FailCreate(Failed.Class, RVPSTATUS::NoSuchClass);
        EXPECT_EQ(FirstRequest(), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(Printed, std::string("[RVFSD] ") + Failed.Told);
        EXPECT_EQ(FirstRequest(), STATUS_UNSUCCESSFUL);
        for (const FailedClass &Each : Classes) {
            EXPECT_EQ(Frame().References(Each.Class), Each.Class < Failed.Class ? 1 : 0);
            EXPECT_EQ(Frame().CreateCount(Each.Class), Each.Class <= Failed.Class ? 1u : 0u);
        }
        EXPECT_EQ(g_bFrameworkBound, 0);
        Forget();
        Stop();
    }
}

TEST_F(Binding, TakesANoteForSuccessWhereOnlyAnErrorFails) {
    constexpr auto Note = static_cast<RVPSTATUS>(0x40000001);
    for (const FailedClass &Each : Classes) {
        Start();
        Frame().AnswerCreate(Each.Class, Note);
        EXPECT_EQ(FirstRequest(), Each.AnyStatusFails ? STATUS_UNSUCCESSFUL : Served);
        if (Each.AnyStatusFails) {
            Forget();
        }
        Stop();
        // A success without an object is none.
        Start();
        Frame().FailCreate(Each.Class, RVPSTATUS::Success);
        EXPECT_EQ(FirstRequest(), STATUS_UNSUCCESSFUL);
        Forget();
        Stop();
    }
}

class PublishedClass : public Binding {
protected:
    RVFSD_FACTORY *Factory(const GUID &Iid = IID_IClassFactory) {
        PVOID Out = nullptr;
        EXPECT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &Iid, &Out), RVPSTATUS::Success);
        return static_cast<RVFSD_FACTORY *>(Out);
    }
};

TEST_F(PublishedClass, IsFoundByItsIdentifierAlone) {
    Start();
    ASSERT_NE(ORCOM_Table[0], nullptr);
    EXPECT_EQ(memcmp(ORCOM_Table[0], &CLSID_RvfsdMapping, sizeof(GUID)), 0);
    EXPECT_EQ(ORCOM_Table[1], nullptr);
    PVOID Out = this;
    EXPECT_EQ(DllGetClassObject(&IID_RvfsdMapping, &IID_IUnknown, &Out), RVPSTATUS::NoSuchClass);
    EXPECT_EQ(Out, this) << "untouched";
    EXPECT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &IID_RvfsdMapping, &Out), RVPSTATUS::NoSuchClass);
    EXPECT_EQ(Out, nullptr);
    EXPECT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &IID_IUnknown, nullptr), RVPSTATUS::BadPointer);
    RVFSD_FACTORY *const One = Factory();
    EXPECT_EQ(Factory(IID_IUnknown), One);
    EXPECT_EQ(One->RefCount, 2u);
    RVFSD_FACTORY Record = *One;
    EXPECT_EQ(Record.Table->QueryInterface(&Record, &IID_IClassFactory, &Out), RVPSTATUS::Success);
    EXPECT_EQ(Out, &Record) << "a record that is asked answers itself";
    EXPECT_EQ(Record.RefCount, 3u);
    EXPECT_EQ(One->RefCount, 2u);
    EXPECT_EQ(One->Table->LockServer(One, 1), RVPSTATUS::Success);
    EXPECT_EQ(One->LockCount, 1u);
    EXPECT_EQ(One->Table->LockServer(One, 2), RVPSTATUS::Success) << "anything but 1 unlocks";
    EXPECT_EQ(One->LockCount, 0u);
    EXPECT_EQ(One->Table->Release(One), 1u);
    EXPECT_EQ(One->Table->Release(One), 0u);
}

TEST_F(PublishedClass, MakesObjectsThatGoWithTheirLastReference) {
    Start();
    RVFSD_FACTORY *const Maker = Factory();
    for (const GUID *Iid : {&IID_IUnknown, &IID_RvfsdMapping}) {
        PVOID Out = nullptr;
        ASSERT_EQ(Maker->Table->CreateInstance(Maker, nullptr, Iid, &Out), RVPSTATUS::Success);
        const auto Mapping = static_cast<RVFSD_MAPPING *>(Out);
        PVOID Again = nullptr;
        EXPECT_EQ(Mapping->Table->QueryInterface(Mapping, &IID_RvfsdMapping, &Again), RVPSTATUS::Success);
        EXPECT_EQ(Again, Mapping);
        EXPECT_EQ(Mapping->Table->QueryInterface(Mapping, &IID_IClassFactory, &Again), RVPSTATUS::NoSuchClass);
        EXPECT_EQ(Again, nullptr);
        EXPECT_EQ(Mapping->Table->QueryInterface(Mapping, &IID_IUnknown, nullptr), RVPSTATUS::BadPointer);
        EXPECT_EQ(Mapping->Table->Release(Mapping), 1u);
        EXPECT_EQ(Frame().LiveBlocks(), 1u);
        EXPECT_EQ(Mapping->Table->Release(Mapping), 0u);
        EXPECT_EQ(Frame().LiveBlocks(), 0u);
    }
}

TEST_F(PublishedClass, RefusesWhatItCannotMakeAndKeepsNothing) {
    StartTracing(0x20000);
    RVFSD_FACTORY *const Maker = Factory();
    const auto Make = [&](PVOID Outer, const GUID *Iid, PVOID *Out) {
        return Maker->Table->CreateInstance(Maker, Outer, Iid, Out);
    };
    PVOID Out = this;
    Printed.clear();
    EXPECT_EQ(Make(this, &IID_IUnknown, &Out), RVPSTATUS::BadPointer) << "no aggregation";
    EXPECT_EQ(Printed, "[RVFSD] Call to RvfsdFactoryCreateInstance\n");
    EXPECT_EQ(Make(nullptr, &IID_IUnknown, nullptr), RVPSTATUS::BadPointer);
    EXPECT_EQ(Make(nullptr, &IID_IClassFactory, &Out), RVPSTATUS::NoSuchClass);
    EXPECT_EQ(Out, nullptr);
    Frame().FailAllocate();
    EXPECT_EQ(Make(nullptr, &IID_IUnknown, &Out), RVPSTATUS::NoMemory);
    for (const auto &[Answer, Wanted] : {std::pair{RVPSTATUS::NoMemory, RVPSTATUS::NoMemory},
                                         std::pair{static_cast<RVPSTATUS>(0x40000001), RVPSTATUS::NoSuchClass}}) {
        const unsigned Before = Frame().AllocationCount();
        Frame().FailAcquireMutex(Answer);
        EXPECT_EQ(Make(nullptr, &IID_IUnknown, &Out), Wanted);
        EXPECT_EQ(Frame().AllocationCount(), Before);
    }
    EXPECT_EQ(Frame().LiveBlocks(), 0u);
}

TEST_F(PublishedClass, IsSetUpUnderTheLockOfTheFramework) {
    Start();
    Bind();
    std::atomic<bool> Asks = false;
    std::thread Asking;
    {
        ResourceHold Hold;
        Hold.AcquireExclusive(&g_FrameworkInitResource, TRUE);
        Asking = std::thread([&] {
            const SettleWith Counting;
            Asks = true;
            Asks.notify_one();
            EXPECT_NE(Factory(), nullptr);
        });
        Asks.wait(false);
        Clock::Settle();
        EXPECT_EQ(Frame().LiveMutexes(), 0u);
    }
    Asking.join();
}

TEST_F(PublishedClass, IsNotThereWithoutItsMutexOrTheFramework) {
    StartTracing(0x10000);
    PVOID Out = nullptr;
    Bind();
    for (const bool Stored : {false, true}) {
        Printed.clear();
        Frame().FailCreateMutex(RVPSTATUS::NoMemory, Stored);
        EXPECT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &IID_IUnknown, &Out), RVPSTATUS::NoSuchClass);
        EXPECT_EQ(Printed, "[RVFSD] Failed to create Rvfsd class mutex\n");
        EXPECT_EQ(Frame().LiveMutexes(), 0u) << "a handle that was stored all the same is destroyed";
        EXPECT_EQ(g_hClassMutex, 0u);
    }
    EXPECT_NE(Factory(), nullptr) << "it may be tried again";
    Stop();
    Start();
    Frame().FailCreate(Class::Rvpl, RVPSTATUS::NoSuchClass);
    EXPECT_EQ(DllGetClassObject(&CLSID_RvfsdMapping, &IID_IUnknown, &Out), RVPSTATUS::NoSuchClass);
    Forget();
}

} // namespace
