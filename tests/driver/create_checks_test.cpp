// Create: what is checked before and after the Provider opens: deletion, space, the right to erase, the parent.

#include "tests/driver/create_client.h"

namespace {

using namespace test;

using CreateChecks = CreateFixture;

// ---- Delete on close

TEST_F(CreateChecks, ForDeleteOnCloseNeedTheRightToDelete) {
    Provider.AddFile(u"\\srv\\vol\\d.txt", "x");
    ExpectRefused(u"\\srv\\vol\\d.txt", With({}, FILE_OPEN, FILE_DELETE_ON_CLOSE), STATUS_ACCESS_DENIED);
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\d.txt"));
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\d.txt", With(ForDelete, FILE_OPEN, FILE_DELETE_ON_CLOSE));
    EXPECT_TRUE(Fcb(Handle)->OpenFlags & FCB_STATE_DELETE_ON_CLOSE);
    Close(Handle);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\d.txt"));
}

TEST_F(CreateChecks, ForDeleteOnCloseThatAreRefusedLeaveNoFileBehindThatTheyMade) {
    Provider.AddFile(u"\\srv\\vol\\r.txt", "x", RV_ATTR_READONLY);
    ExpectRefused(u"\\srv\\vol\\r.txt", With(ForDelete, FILE_OPEN, FILE_DELETE_ON_CLOSE), STATUS_CANNOT_DELETE,
                  FILE_SUPERSEDED);
    EXPECT_EQ(Provider.CountCalls(Slot::DeleteFile), 0u);
    EXPECT_EQ(Provider.Attributes(u"\\srv\\vol\\r.txt"), RV_ATTR_READONLY + 0u);
    // A new file that is read-only, and one whose attributes cannot be had.
    Open Making = With(ForDelete, FILE_CREATE, FILE_DELETE_ON_CLOSE | N);
    Making.Attributes = FILE_ATTRIBUTE_READONLY;
    ExpectRefused(u"\\srv\\vol\\stray", Making, STATUS_CANNOT_DELETE, FILE_SUPERSEDED);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\stray"));
    for (const ULONG Attributes : {0u, FILE_ATTRIBUTE_READONLY + 0u}) {
        Making.Attributes = Attributes;
        Provider.OnCall(Slot::GetFileInformation).Return(ProviderError(0x0102));
        ExpectRefused(u"\\srv\\vol\\stray", Making, STATUS_NETWORK_BUSY, FILE_SUPERSEDED);
        EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\stray"));
    }
    // One that was there stays.
    ExpectRefused(u"\\srv\\vol\\a.txt", With(ForDelete, FILE_OPEN, FILE_DELETE_ON_CLOSE), STATUS_NETWORK_BUSY,
                  FILE_SUPERSEDED);
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\a.txt"));
    ExpectNothingOpen("refusals");
}

TEST_F(CreateChecks, ThatEndInANoteLeaveNoFileBehindThatTheyMade) {
    // The Provider opened, and answered with a warning whose code is a failure.
    Provider.OnCall(Slot::CreateFile, IsRealOpen).ReturnAfter(static_cast<RVSTATUS>(0x80000007));
    for (const ULONG Attributes : {0u, FILE_ATTRIBUTE_READONLY + 0u}) {
        Open Making = With({}, FILE_CREATE, N);
        Making.Attributes = Attributes;
        ExpectRefused(u"\\srv\\vol\\stray", Making, STATUS_OBJECT_NAME_COLLISION, FILE_EXISTS);
        EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\stray"));
    }
    ExpectRefused(u"\\srv\\vol\\stray", With({}, FILE_OPEN_IF), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\stray"));
    // One that was there stays.
    ExpectRefused(u"\\srv\\vol\\a.txt", With({}, FILE_OPEN_IF), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\a.txt"));
    ExpectNothingOpen("refusals");
}

// ---- Space

TEST_F(CreateChecks, OfMoreThanTheCallerMayUseFindTheDiskFull) {
    Provider.AddFile(u"\\srv\\vol\\a.txt"); // overwriting an empty one frees nothing
    Provider.Edit([](Tree &Tree) {
        Tree.FindVolume(u"\\srv\\vol")->FreeAfterQuota = 1000;
        Tree.FindVolume(u"\\srv\\vol")->Free = 5000;
    });
    for (const LONGLONG Size : {0, 999, 1000, 1001, -1}) {
        for (const ULONG Disposition : {FILE_OPEN, FILE_OPEN_IF, FILE_OVERWRITE}) {
            Open Sized = With({.AllocationSize = Size}, Disposition);
            Provider.ClearCalls();
            EXPECT_EQ(Try(u"\\srv\\vol\\a.txt", Sized).Status, Size == 1001 ? STATUS_DISK_FULL : STATUS_SUCCESS);
            EXPECT_EQ(Provider.CountCalls(Slot::GetVolumeSize), Size != 0 ? 1u : 0u);
        }
    }
    ExpectRefused(u"\\srv\\vol\\a.txt", {.AllocationSize = 1001}, STATUS_DISK_FULL);
    // A directory takes no room; a volume that cannot be asked refuses nothing.
    Open Directory = AsDirectory;
    Directory.AllocationSize = 1001;
    ExpectOpened(u"\\srv\\vol\\docs", Directory, FILE_OPENED);
    for (const ULONG Raw : {0xC7E70102u, 0x80000007u, 0xC7E70000u}) {
        Provider.OnCall(Slot::GetVolumeSize).ReturnAfter(static_cast<RVSTATUS>(Raw));
        ExpectOpened(u"\\srv\\vol\\a.txt", {.AllocationSize = 1001}, FILE_OPENED);
        Provider.ClearScript();
    }
    ExpectNothingOpen("size checks");
}

TEST_F(CreateChecks, AskThePhysicalVolumeForItsSpace) {
    Provider.Edit([](Tree &Tree) {
        Tree.AddVolume(u"\\phys\\disk").FreeAfterQuota = 7;
        Tree.AddDistributedLink(u"\\srv\\vol", u"\\phys\\disk\\deep\\down");
    });
    ExpectRefused(u"\\srv\\vol\\a.txt", {.AllocationSize = 8}, STATUS_DISK_FULL);
    ExpectOpened(u"\\srv\\vol\\a.txt", {.AllocationSize = 7}, FILE_OPENED);
    // Any other failure than "not distributed" falls back just so.
    Provider.OnCall(Slot::GetDFSPhysicalPath).Return(ProviderError(0x0102));
    ExpectOpened(u"\\srv\\vol\\a.txt", {.AllocationSize = 8}, FILE_OPENED);
    // So does a warning, whose path is given back.
    Provider.ClearScript();
    Provider.OnCall(Slot::GetDFSPhysicalPath).ReturnAfter(static_cast<RVSTATUS>(0x80000007));
    ExpectOpened(u"\\srv\\vol\\a.txt", {.AllocationSize = 8}, FILE_OPENED);
    ExpectNothingOpen("size checks");
}

// ---- The right to erase

class EraseChecks : public CreateChecks {
protected:
    static constexpr Open ToDelete = {.Access = AsDirectory.Access | DELETE, .Options = AsDirectory.Options};

    void MayNotErase(std::u16string_view Path) {
        Provider.Edit([&](Tree &Tree) { Tree.Find(Path)->Rights = 0xEF; });
    }
};

TEST_F(EraseChecks, RefuseDeleteAccessToWhatMayNotBeErased) {
    MayNotErase(u"\\srv\\vol\\a.txt");
    MayNotErase(u"\\srv\\vol\\docs");
    ExpectRefused(u"\\srv\\vol\\a.txt", ForDelete, STATUS_ACCESS_DENIED);
    ExpectRefused(u"\\srv\\vol\\docs", ToDelete, STATUS_ACCESS_DENIED);
    ExpectRefused(u"\\srv\\vol\\docs", With(ToDelete, FILE_OPEN_IF), STATUS_ACCESS_DENIED);
    ExpectOpened(u"\\srv\\vol\\a.txt", {}, FILE_OPENED);
    ExpectOpened(u"\\srv\\vol\\docs", AsDirectory, FILE_OPENED);
    // With the directory open already, the answer tells that it was there.
    const HANDLE Open = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    ExpectRefused(u"\\srv\\vol\\docs", With(ToDelete, FILE_OPEN_IF), STATUS_ACCESS_DENIED, FILE_OPENED);
    Close(Open);
    ExpectNothingOpen("refusals");
}

TEST_F(EraseChecks, OfWhatIsNotThereYetLookAtTheParent) {
    MayNotErase(u"\\srv\\vol\\docs");
    ExpectRefused(u"\\srv\\vol\\docs\\new", With(ForDelete, FILE_OPEN_IF), STATUS_ACCESS_DENIED);
    ExpectRefused(u"\\srv\\vol\\docs\\new", With(ToDelete, FILE_CREATE), STATUS_ACCESS_DENIED);
    ExpectRefused(u"\\srv\\vol\\docs\\new", With(ToDelete, FILE_OPEN_IF), STATUS_ACCESS_DENIED);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\docs\\new"));
    ExpectOpened(u"\\srv\\vol\\new", With(ForDelete, FILE_OPEN_IF), FILE_CREATED);
    // A parent that cannot be opened denies nothing.
    Provider.OnPath(Slot::OpenDirectory, u"\\srv\\vol\\docs").Return(ProviderError(0x0102));
    ExpectOpened(u"\\srv\\vol\\docs\\new", With(ForDelete, FILE_OPEN_IF), FILE_CREATED);
    ExpectNothingOpen("refusals");
}

TEST_F(EraseChecks, ThatCannotFindOutDenyNothing) {
    MayNotErase(u"\\srv\\vol\\a.txt");
    Provider.OnCall(Slot::GetEffectiveRights).ReturnAfter(ProviderError(0x0102));
    ExpectOpened(u"\\srv\\vol\\a.txt", ForDelete, FILE_OPENED);
    Provider.ClearScript();
    // The check is the third question: it has the whole path and comes after the probe.
    Provider.OnCall(Slot::CreateFile, [](const Call &Made) { return IsQuestion(Made) && Made.Number("base") == 0; })
        .Nth(2)
        .Return(ProviderError(0x0102));
    ExpectOpened(u"\\srv\\vol\\a.txt", ForDelete, FILE_OPENED);
    ExpectRefused(u"\\srv\\vol\\a.txt", ForDelete, STATUS_ACCESS_DENIED);
    // A warning comes with rights.
    Provider.ClearScript();
    Provider.OnCall(Slot::GetEffectiveRights).ReturnAfter(static_cast<RVSTATUS>(0x80000007));
    ExpectRefused(u"\\srv\\vol\\a.txt", ForDelete, STATUS_ACCESS_DENIED);
    ExpectNothingOpen("checks");
}

TEST_F(EraseChecks, AreNotMadeWhenTheyAreDeferred) {
    Start({.Switches = {{u"Defer Windows DELETE Access Check", 1}}});
    MayNotErase(u"\\srv\\vol\\a.txt");
    MayNotErase(u"\\srv\\vol\\docs");
    ExpectOpened(u"\\srv\\vol\\a.txt", ForDelete, FILE_OPENED);
    ExpectOpened(u"\\srv\\vol\\docs", ToDelete, FILE_OPENED);
    ExpectOpened(u"\\srv\\vol\\docs\\new", With(ToDelete, FILE_CREATE), FILE_CREATED);
    EXPECT_EQ(Provider.CountCalls(Slot::GetEffectiveRights), 0u);
    IRP_CONTEXT Request = Context();
    EXPECT_FALSE(ErasePermissionIsNotAvailableByHandle(&Request, nullptr, 1));
    EXPECT_EQ(Provider.CountCalls(Slot::GetEffectiveRights), 0u);
}

// ---- The parent's absence, asked directly

TEST_F(CreateChecks, AParentIsMissingOnlyWhenItIsKnownToBe) {
    Bind();
    IRP_CONTEXT Request = Context();
    struct {
        std::u16string_view Path;
        bool Missing;
        unsigned Calls;
    } constexpr Cases[] = {
        {u"", false, 0},
        {u"\\srv", false, 0},
        {u"\\srv\\vol", false, 0},
        {u"\\srv\\vol\\", false, 0},
        {u"\\srv\\vol\\a", false, 3},       // the root, which is there
        {u"\\none\\vol\\a", true, 1},       // a root that is not
        {u"\\srv\\vol\\docs\\x", false, 1}, // a directory
        {u"\\srv\\vol\\no\\x", true, 1},
        {u"\\srv\\vol\\no\\no\\x", false, 1}, // its own parent is missing: not known
        {u"\\srv\\vol\\a.txt\\x", false, 2},  // a file
    };
    for (const auto &Each : Cases) {
        const std::u16string Text(Each.Path);
        const UNICODE_STRING Path = ToUnicodeString(Text);
        Provider.ClearCalls();
        EXPECT_EQ(ParentEntryDoesNotExist(&Request, &Path), Each.Missing ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL)
            << ToUtf8(Each.Path);
        EXPECT_EQ(Provider.CountCalls(), Each.Calls) << ToUtf8(Each.Path);
    }
}

} // namespace
