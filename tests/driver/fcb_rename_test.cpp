// FCBs under a new path, and how they are looked up.

#include "tests/driver/create_client.h"

namespace {

using test::AsDirectory;
using test::Open;

class RenamedFcbs : public test::CreateFixture {
protected:
    std::u16string PathLeft(HANDLE Handle) {
        return Instance(Handle)->PathLeft;
    }
    std::u16string FullPath(HANDLE Handle) {
        return View(Fcb(Handle)->FullPath);
    }
    NTSTATUS Rename(HANDLE Handle, std::u16string_view NewPath) {
        UNICODE_STRING Name = Counted(NewPath);
        const PFCB Renamed = Fcb(Handle);
        ResourceHold Table;
        Table.AcquireExclusive(&FcbTableResource, TRUE);
        ResourceHold Hold;
        Hold.AcquireExclusive(&Renamed->Resource, TRUE);
        NewPathRecord Record;
        const NTSTATUS Status = Record.Make(&Name);
        if (NT_SUCCESS(Status)) {
            NtFsdRenameFcb(Renamed, Record);
        }
        Record.Drop();
        return Status;
    }
    PFCB Find(std::u16string_view Path) {
        UNICODE_STRING Name = Counted(Path);
        UNICODE_STRING Remaining;
        ResourceHold Table;
        Table.AcquireExclusive(&FcbTableResource, TRUE);
        const PFCB Found = NtFsdFindFcb(&Name, &Remaining);
        EXPECT_EQ(Remaining.MaximumLength, Remaining.Length);
        return Remaining.Length == 0 ? Found : nullptr;
    }
};

TEST_F(RenamedFcbs, AreFoundUnderTheNewPathAndEveryOpenNamesIt) {
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    const HANDLE First = MustOpen(u"\\srv\\vol\\docs\\f.txt");
    const HANDLE Second = MustOpen(u"\\srv\\vol\\docs\\f.txt");
    Open Below = {};
    Below.Related = Directory;
    const HANDLE Third = MustOpen(u"f.txt", Below);
    const PCUNICODE_STRING Before = NtFsdStablePath(Fcb(First));
    ASSERT_EQ(Rename(First, u"\\srv\\vol\\renamed"), STATUS_SUCCESS);
    EXPECT_EQ(View(*Before), u"\\srv\\vol\\docs\\f.txt") << "a reader without the lock still has the old path";
    EXPECT_EQ(Find(u"\\SRV\\vol\\renamed"), Fcb(First));
    EXPECT_EQ(Find(u"\\srv\\vol\\docs\\f.txt"), nullptr);
    for (const HANDLE Each : {First, Second, Third}) {
        EXPECT_EQ(PathLeft(Each), u"\\srv\\vol\\renamed");
        EXPECT_EQ(Instance(Each)->BaseHandle, 0u);
        EXPECT_EQ(Instance(Each)->PathLeft, Fcb(Each)->FullPath.Buffer);
    }
    for (const HANDLE Each : {Directory, First, Second, Third}) {
        Close(Each);
    }
    ExpectNothingOpen("closing renamed opens");
}

// Whatever opens, goes or takes another path below it, in whatever letter case.
TEST_F(RenamedFcbs, KeepTheirDirectoriesFromBeingRenamedWhileTheyLieBelow) {
    const auto HasBelow = [](std::u16string_view Path) {
        const UNICODE_STRING Name = Counted(Path);
        ResourceHold Table;
        Table.AcquireExclusive(&FcbTableResource, TRUE);
        return NtFsdHasFcbBelow(&Name);
    };
    Provider.AddFile(u"\\srv\\vol\\docs\\sub\\g.txt");
    MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    EXPECT_FALSE(HasBelow(u"\\srv\\vol\\docs")) << "it is not below itself";
    const HANDLE Deep = MustOpen(u"\\srv\\vol\\DOCS\\Sub\\g.txt");
    const HANDLE Near = MustOpen(u"\\srv\\vol\\docs\\f.txt");
    EXPECT_TRUE(HasBelow(u"\\srv\\vol\\docs"));
    EXPECT_TRUE(HasBelow(u"\\SRV\\vol\\docs\\sub"));
    EXPECT_FALSE(HasBelow(u"\\srv\\vol\\docs\\f.txt"));
    EXPECT_FALSE(HasBelow(u"\\srv\\vol\\doc"));
    EXPECT_EQ(Rename(Deep, u"\\srv\\vol\\other\\g.txt"), STATUS_SUCCESS);
    EXPECT_FALSE(HasBelow(u"\\srv\\vol\\docs\\sub"));
    EXPECT_TRUE(HasBelow(u"\\srv\\vol\\docs"));
    EXPECT_TRUE(HasBelow(u"\\srv\\vol\\other"));
    Close(Near);
    EXPECT_FALSE(HasBelow(u"\\srv\\vol\\docs"));
    Close(Deep);
    EXPECT_FALSE(HasBelow(u"\\srv\\vol\\other"));
}

TEST_F(RenamedFcbs, OntoAPathThatIsOpenStayOutOfTheTable) {
    const HANDLE Target = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Source = MustOpen(u"\\srv\\vol\\docs\\f.txt");
    EXPECT_EQ(Rename(Source, u"\\srv\\VOL\\A.txt"), STATUS_SUCCESS);
    EXPECT_NE(Printed.find("[RVFSD] NtFsdRenameFcb RtlInsertUnicodePrefix for \"\\srv\\VOL\\A.txt\" on FCB 0x"),
              std::string::npos);
    EXPECT_FALSE(Fcb(Source)->OpenFlags & FCB_STATE_IN_PREFIX_TABLE);
    EXPECT_EQ(Find(u"\\srv\\vol\\a.txt"), Fcb(Target));
    EXPECT_EQ(FcbPrefixCount, 1u);
    EXPECT_EQ(FullPath(Source), u"\\srv\\VOL\\A.txt");
    Close(Target);
    const HANDLE Fresh = MustOpen(u"\\srv\\vol\\a.txt");
    EXPECT_NE(Fcb(Fresh), Fcb(Source));
    Close(Fresh);
    Close(Source);
    ExpectNothingOpen("the close of an FCB outside the table");
}

// ---- Looking up

TEST_F(RenamedFcbs, AreLookedUpByTheLongestPathInFront) {
    Bind();
    const HANDLE Docs = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    const HANDLE Root = MustOpen(u"\\srv\\vol", AsDirectory);
    struct {
        std::u16string_view Path;
        HANDLE Found;
        std::u16string_view Remaining;
    } const Cases[] = {
        {u"\\srv\\vol\\docs", Docs, u""},      {u"\\SRV\\VOL\\DOCS\\a\\b", Docs, u"a\\b"},
        {u"\\srv\\vol\\docs\\", Docs, u""},    {u"\\srv\\vol\\docs2", Root, u"docs2"},
        {u"\\srv\\vo", nullptr, u"\\srv\\vo"}, {u"\\other\\vol\\docs", nullptr, u"\\other\\vol\\docs"},
    };
    ResourceHold Table;
    Table.AcquireExclusive(&FcbTableResource, TRUE);
    for (const auto &Each : Cases) {
        UNICODE_STRING Name = Counted(Each.Path);
        UNICODE_STRING Remaining;
        EXPECT_EQ(NtFsdFindFcb(&Name, &Remaining), Each.Found != nullptr ? Fcb(Each.Found) : nullptr);
        EXPECT_EQ(View(Remaining), Each.Remaining);
    }
    Table.Release();
}

} // namespace
