// Searches of the directory Provider beside each other, and entries that refuse to be looked at.

#include "tests/providers/directory_fixture.h"
#include "tests/support/without_override.h"

namespace providers::directory {
namespace {

constexpr UCHAR OneBatch = 1;

TEST_F(DirectoryProviderTest, EntriesThatWillNotBeLookedAtAreListedWithWhatIsKnown) {
    fs::create_directories(Root / "d" / "sub");
    Write("d/a", "text");
    Write("d/z", "text");
    RVHANDLE Folder = 0;
    ASSERT_EQ(OpenFolder(u"d", Folder), Done);
    // Readable and not to be searched: names are told and nothing else, whether they are known already or not.
    for (const bool Known : {false, true}) {
        if (Known) {
            EXPECT_EQ(Names(Folder).size(), 3u);
        }
        fs::permissions(Root / "d", fs::perms::owner_read);
        test::WithoutOverride([&] {
            for (const char16_t *Mask : {u"*", u"sub"}) {
                for (const Listed &Entry : List(Folder, Mask)) {
                    EXPECT_EQ(Entry.Attributes, Entry.Name == u"sub" ? RV_ATTR_DIRECTORY : 0u);
                    EXPECT_EQ(Entry.Size, 0u);
                }
            }
            EXPECT_EQ(Names(Folder), (std::vector<std::u16string>{u"a", u"sub", u"z"}));
            EXPECT_EQ(Names(Folder, u"sub"), (std::vector<std::u16string>{u"sub"}));
        });
        fs::permissions(Root / "d", fs::perms::owner_all);
    }
    EXPECT_EQ(List(Folder)[0].Size, 4u);
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
}

TEST_F(DirectoryProviderTest, AListingThatFailsSaysSo) {
    fs::create_directory(Root / "d");
    Write("d/a", "text");
    RVHANDLE Folder = 0;
    ASSERT_EQ(OpenFolder(u"d", Folder), Done);
    fs::permissions(Root / "d", fs::perms::owner_exec);
    test::WithoutOverride([&] {
        std::vector<Listed> Entries;
        ULONG Key = 0;
        EXPECT_EQ(Batch(Folder, u"*", Key, Entries), RVSTATUS::AccessDenied);
        EXPECT_EQ(Content(u"d\\a"), "text") << "an exact name needs no listing";
        EXPECT_EQ(Try(u"d\\A"), Failure(CODE_NO_SUCH_FILE));
    });
    fs::permissions(Root / "d", fs::perms::owner_all);
    EXPECT_EQ(Names(Folder).size(), 1u);
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
}

class SearchesOfOneHandle : public DirectoryProviderTest {
protected:
    void SetUp() override {
        DirectoryProviderTest::SetUp();
        for (int Index = 0; Index < 20; ++Index) {
            Write("a name of some length " + std::to_string(Index), "");
        }
    }
    // The status of the next batch, and of a new search for Key 0.
    RVSTATUS Ask(ULONG &Key, UCHAR Flag = 0, ULONG Size = 576) {
        return Batch(Volume, u"*", Key, Entries, false, Size, Flag);
    }
    std::vector<Listed> Entries;
};

TEST_F(SearchesOfOneHandle, CountingCostsNoOtherSearchItsPlace) {
    ULONG Key = 0;
    ASSERT_EQ(Ask(Key), Done);
    const auto PerBatch = static_cast<std::ptrdiff_t>(Entries.size());
    for (int Count = 0; Count < 20; ++Count) {
        ULONG Other = 0;
        EXPECT_EQ(Ask(Other, OneBatch), Done);
        EXPECT_EQ(Ask(Other), Failure(0x0101)) << "there is no second batch, and that is not the end";
    }
    Entries.erase(Entries.begin() + PerBatch, Entries.end());
    RVSTATUS Status;
    while (!RvIsError(Status = Ask(Key))) {
    }
    EXPECT_EQ(Status, Failure(CODE_NO_MORE_FILES));
    EXPECT_EQ(Entries.size(), 20u);
}

// Whether a directory is empty is asked of it each time.
TEST_F(SearchesOfOneHandle, CountingSeesWhatOthersDid) {
    RVHANDLE Folder = 0;
    fs::create_directory(Root / "d");
    ASSERT_EQ(OpenFolder(u"d", Folder), Done);
    for (const bool IsThere : {false, true, false, true}) {
        IsThere ? Write("d/file", "") : static_cast<void>(fs::remove(Root / "d/file"));
        for (const char16_t *Mask : {u"*", u"F*", u"*.*"}) {
            ULONG Key = 0;
            Entries.clear();
            EXPECT_EQ(Batch(Folder, Mask, Key, Entries, false, 576, OneBatch),
                      IsThere ? Done : Failure(CODE_NO_MORE_FILES));
            EXPECT_EQ(Entries.size(), IsThere ? 1u : 0u);
        }
    }
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), Done);
}

TEST_F(SearchesOfOneHandle, OneThatGaveWayIsNotOver) {
    ULONG Key = 0;
    ASSERT_EQ(Ask(Key), Done);
    for (int Count = 0; Count < 8; ++Count) {
        ULONG Other = 0;
        EXPECT_EQ(Ask(Other), Done);
    }
    EXPECT_EQ(Ask(Key), Failure(0x0101)) << "a lost connection: nobody takes what came for the whole";
}

TEST_F(SearchesOfOneHandle, OneThatIsUsedKeepsItsKeyToItself) {
    ULONG Key = 0;
    ASSERT_EQ(Ask(Key), Done);
    const ULONG Mine = Key >> 24;
    for (int Count = 0; Count < 600; ++Count) {
        ULONG Other = 0;
        EXPECT_EQ(Ask(Other), Done);
        EXPECT_NE(Other >> 24, Mine);
        EXPECT_EQ(Ask(Key, 0, 60), Failure(0x0007)) << "used, and no further than before";
    }
    EXPECT_EQ(Ask(Key), Done);
}

} // namespace
} // namespace providers::directory
