#include "embedded/names/names.h"
#include "embedded/ob/ob.h"

#include "embedded/ps/ps.h"
#include "io_fixture.h"

namespace {

using namespace embedded;

struct Thing final : Object {
    explicit Thing(ObjectType Type = ObjectType::Event) : Object(Type) {
    }
    void OnLastHandleClosed() noexcept override {
        ++Cleanups;
    }
    int Cleanups = 0;
};

using Things = Ref<Thing>;

class ObTest : public ::testing::Test {
    Kernel Running;
};

TEST_F(ObTest, HandlesCleanUpWithTheLastOneAndAreNotGivenOutAgainSoon) {
    auto Target = Things::Adopt(new Thing);
    HANDLE First, Second, Next;
    ASSERT_EQ(InsertHandle(*Target.Get(), 0, 0, UserMode, &First), STATUS_SUCCESS);
    ASSERT_EQ(InsertHandle(*Target.Get(), 0, 0, UserMode, &Second), STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(First) % 4, 0u);
    EXPECT_NE(First, Second);
    EXPECT_EQ(Target->Handles(), 2);
    EXPECT_EQ(CloseHandle(First, UserMode), STATUS_SUCCESS);
    EXPECT_EQ(Target->Cleanups, 0);
    for (int Round = 0; Round < 40; ++Round) {
        InsertHandle(*Target.Get(), 0, 0, UserMode, &Next);
        EXPECT_NE(Next, First);
        CloseHandle(Next, UserMode);
    }
    EXPECT_EQ(CloseHandle(Second, UserMode), STATUS_SUCCESS);
    EXPECT_EQ(Target->Cleanups, 1);
    EXPECT_EQ(CloseHandle(Second, UserMode), STATUS_INVALID_HANDLE);
}

TEST_F(ObTest, TypeAccessAndModeAreChecked) {
    auto Target = Things::Adopt(new Thing);
    HANDLE Handle;
    InsertHandle(*Target.Get(), FILE_READ_DATA, 0, UserMode, &Handle);
    ObjectRef Found;
    EXPECT_EQ(ReferenceHandle(Handle, ObjectType::File, 0, UserMode, &Found), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(ReferenceHandle(Handle, ObjectType::Event, FILE_WRITE_DATA, UserMode, &Found), STATUS_ACCESS_DENIED);
    EXPECT_EQ(ReferenceHandle(Handle, ObjectType::Event, FILE_READ_DATA, UserMode, &Found), STATUS_SUCCESS);
    EXPECT_EQ(Found.Get(), Target.Get());
    Found.Reset();
    CloseHandle(Handle, UserMode);
    InsertHandle(*Target.Get(), 0, OBJ_KERNEL_HANDLE, KernelMode, &Handle);
    EXPECT_EQ(ReferenceHandle(Handle, ObjectType::Any, 0, UserMode, &Found), STATUS_INVALID_HANDLE);
    EXPECT_EQ(CloseHandle(Handle, UserMode), STATUS_INVALID_HANDLE);
    EXPECT_EQ(CloseHandle(Handle, KernelMode), STATUS_SUCCESS);
}

TEST_F(ObTest, NamesAreFoundIgnoringCaseThroughLinks) {
    auto Device = Things::Adopt(new Thing(ObjectType::Device));
    ASSERT_EQ(InsertName(u"\\Device\\Thing", *Device.Get()), STATUS_SUCCESS);
    ASSERT_EQ(CreateSymbolicLink(u"\\DosDevices\\T:", u"\\Device\\Thing\\base"), STATUS_SUCCESS);
    struct {
        const char16_t *Path;
        bool CaseInsensitive;
        NTSTATUS Status;
        const char16_t *Remaining;
    } const Cases[] = {
        {u"\\Device\\Thing", false, STATUS_SUCCESS, u""},
        {u"\\DEVICE\\tHING\\a\\b", true, STATUS_SUCCESS, u"\\a\\b"},
        {u"\\device\\Thing", false, STATUS_OBJECT_PATH_NOT_FOUND, u""},
        {u"\\??\\t:\\x", true, STATUS_SUCCESS, u"\\base\\x"},
        {u"\\DosDevices\\T:", true, STATUS_SUCCESS, u"\\base"},
        {u"\\Device\\Other", true, STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {u"\\Device\\Other\\x", true, STATUS_OBJECT_PATH_NOT_FOUND, u""},
        {u"Device\\Thing", true, STATUS_OBJECT_PATH_SYNTAX_BAD, u""},
        {u"\\Device\\\\Thing", true, STATUS_OBJECT_NAME_INVALID, u""},
        {u"", true, STATUS_OBJECT_PATH_SYNTAX_BAD, u""},
    };
    for (const auto &Case : Cases) {
        ParsedName Parsed;
        EXPECT_EQ(LookupName(Case.Path, Case.CaseInsensitive, &Parsed), Case.Status);
        if (NT_SUCCESS(Case.Status)) {
            EXPECT_EQ(Parsed.Target.Get(), Device.Get());
            EXPECT_EQ(Parsed.Remaining, Case.Remaining);
        }
    }
    // Links in a circle have an end.
    CreateSymbolicLink(u"\\??\\A", u"\\??\\B");
    CreateSymbolicLink(u"\\??\\B", u"\\??\\A");
    ParsedName Parsed;
    EXPECT_EQ(LookupName(u"\\??\\A\\x", true, &Parsed), STATUS_NAME_TOO_LONG);
    EXPECT_EQ(InsertName(u"\\Device\\THING", *Device.Get()), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_TRUE(RemoveName(u"\\device\\thing"));
    EXPECT_FALSE(RemoveName(u"\\device\\thing"));
}

} // namespace
