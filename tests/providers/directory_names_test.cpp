#include "providers/directory/directory_provider.h"

#include <map>
#include <random>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>

#include "providers/directory/collision_names.h"
#include "providers/directory/names.h"
#include "tests/providers/directory_fixture.h"

namespace providers::directory {
namespace {

TEST_F(DirectoryProviderTest, ChangesMadeElsewhereAreSeenAtOnce) {
    fs::create_directory(Root / "Dir");
    for (int Round = 0; Round < 50; ++Round) {
        EXPECT_EQ(Try(u"dir\\FILE"), Failure(0x0506));
        Write("Dir/File", "now");
        EXPECT_EQ(Content(u"dir\\FILE"), "now");
        fs::rename(Root / "Dir" / "File", Root / "Dir" / "fILE");
        EXPECT_EQ(Content(u"dir\\FILE"), "now");
        Write("Dir/Second", "second");
        EXPECT_EQ(Content(u"dir\\SECOND"), "second");
        EXPECT_EQ(
            renameat2(AT_FDCWD, (Root / "Dir/Second").c_str(), AT_FDCWD, (Root / "Dir/fILE").c_str(), RENAME_EXCHANGE),
            0);
        EXPECT_EQ(Content(u"dir\\SECOND") + Content(u"dir\\FILE"), "nowsecond");
        fs::remove(Root / "Dir" / "Second");
        fs::rename(Root / "Dir", Root / "Other");
        EXPECT_EQ(Try(u"dir\\FILE"), Failure(0x0503));
        fs::create_directory(Root / "dir");
        EXPECT_EQ(Try(u"DIR\\file"), Failure(0x0506));
        fs::remove(Root / "dir");
        fs::rename(Root / "Other", Root / "Dir");
        fs::remove(Root / "Dir" / "fILE");
    }
}

TEST_F(DirectoryProviderTest, KnownDirectoriesAreNotReadAgain) {
    fs::create_directories(Root / "a" / "b");
    for (int Index = 0; Index < 200; ++Index) {
        EXPECT_EQ(Try(u"A\\B\\file" + ServedNumber(Index), ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
        EXPECT_EQ(Try(u"a\\b\\FILE" + ServedNumber(Index)), Done);
    }
    EXPECT_EQ(Provider.Exports()[0].DirectoryScans, 3u);
}

TEST_F(DirectoryProviderTest, AMoveUnderAnotherSpellingOfADirectoryStaysInIt) {
    fs::create_directory(Root / "docs");
    Write("docs/a.txt", "inside");
    Write("a.txt", "outside");
    EXPECT_EQ(Move(u"DOCS\\a.txt", u"a.txt"), Failure(CODE_EXISTS));
    EXPECT_EQ(Move(u"DOCS\\a.txt", u"DOCS\\A.TXT"), Done);
    EXPECT_TRUE(fs::exists(Root / "docs/A.TXT"));
    EXPECT_EQ(Content(u"docs\\a.txt"), "inside");
    EXPECT_EQ(Content(u"a.txt"), "outside");
}

TEST_F(DirectoryProviderTest, NamesThatDifferOnlyInCaseAreAllServedAndNeverMixed) {
    const std::string Long(250, 'l');
    const std::string Natives[] = {"readme.txt", "Readme.txt", "README.txt", Long + ".html", Long + ".HTML"};
    for (const std::string &Native : Natives) {
        Write(Native, Native);
        EXPECT_EQ(Content({Native.begin(), Native.end()}), Native) << "an exact spelling is that very entry";
    }
    EXPECT_EQ(Content(u"rEADME.tXT"), "failed 1296") << "one spelling of several names is none of them";
    EXPECT_EQ(Try(u"rEADME.tXT", ReadWrite, RV_DISPOSITION_OPEN_OR_CREATE), Failure(CODE_EXISTS));
    // Replacing one of them, which is a deletion and a move, needs no free spelling; anything else does.
    Write("other", "other");
    EXPECT_EQ(Move(u"other", u"README.txt"), Failure(CODE_EXISTS));
    for (const char16_t *Name : {u"Readme.txt", u"README.TXT"}) {
        EXPECT_EQ(Delete(Name), Name[1] == u'e' ? Done : Failure(CODE_EXISTS));
    }
    EXPECT_EQ(Move(u"other", u"Readme.txt"), Failure(CODE_EXISTS)) << "the deletion was not the last thing done";
    fs::rename(Root / "readme.txt", Root / "Readme.txt");
    EXPECT_EQ(Delete(u"Readme.txt"), Done);
    EXPECT_EQ(Move(u"other", u"Readme.txt"), Done);
    EXPECT_EQ(Move(u"Readme.txt", u"other"), Done);
    EXPECT_EQ(Move(u"other", u"Readme.txt"), Failure(CODE_EXISTS));
    Write("readme.txt", "readme.txt");
    EXPECT_EQ(Delete(u"other"), Done);
    Write("Readme.txt", "Readme.txt");
    const std::vector<std::u16string> Listed = Names(Volume);
    std::map<std::string, std::u16string> Marked;
    for (const std::u16string &Name : Listed) {
        EXPECT_LE(Name.size(), 255u);
        Marked[Content(Name)] = Name;
        EXPECT_EQ(Names(Volume, Name.c_str()), std::vector{Name});
    }
    ASSERT_EQ(Marked.size(), std::size(Natives)) << "each leads to another entry";
    // A name that was handed out names its file whatever goes and comes beside it, and nothing when that is gone.
    for (const std::string &Native : Natives) {
        fs::remove(Root / Native);
        EXPECT_EQ(Delete(Marked[Native]), Failure(CODE_NO_SUCH_FILE));
        for (const auto &[Other, Name] : Marked) {
            if (fs::exists(Root / Other)) {
                EXPECT_EQ(Content(Name), Other);
            }
        }
    }
    Write("readme.txt", "alone again");
    EXPECT_EQ(Names(Volume), std::vector<std::u16string>{u"readme.txt"});
    EXPECT_EQ(Delete(Marked["readme.txt"]), Done);
    EXPECT_FALSE(fs::exists(Root / "readme.txt"));
}

TEST_F(DirectoryProviderTest, NamesForbiddenOnThePlatformAreReachable) {
    const std::string Natives[] = {"a:b",   "tail.",         "tail ",    "q?*\"<>|",     "back\\slash",
                                   "\x01x", "latin\xE9.txt", "\xFF\xFE", "\xED\xA0\x80", "\xEF\x80\xAA"};
    for (const std::string &Native : Natives) {
        Write(Native, Native);
    }
    const std::vector<Listed> Entries = List(Volume);
    ASSERT_EQ(Entries.size(), std::size(Natives));
    std::set<std::string> Seen;
    for (const Listed &Entry : Entries) {
        Seen.insert(Content(Entry.Name));
    }
    EXPECT_EQ(Seen, std::set<std::string>(std::begin(Natives), std::end(Natives)));
}

TEST_F(DirectoryProviderTest, ListingsAreCompleteWhileEntriesComeAndGo) {
    for (int Index = 0; Index < 300; ++Index) {
        Write("name" + std::to_string(Index), std::string(static_cast<size_t>(Index), 'x'));
    }
    ULONG Key = 0;
    std::vector<Listed> Entries;
    std::vector<Listed> Count;
    for (int Round = 0;; ++Round) {
        const size_t Before = Entries.size();
        if (RvIsError(Batch(Volume, u"*", Key, Entries, Round % 2 != 0, 576))) {
            break;
        }
        // What was listed goes at once, new names come, and other searches run on the same handle.
        for (size_t Index = Before; Index < Entries.size(); ++Index) {
            EXPECT_EQ(Delete(Entries[Index].Name), Done);
            Write("aaa" + std::to_string(Index), "");
        }
        ULONG Other = 0;
        EXPECT_EQ(Batch(Volume, nullptr, Other, Count, false, 576), Done);
    }
    EXPECT_EQ(Key, 0xFFFFFFFFu);
    EXPECT_EQ(Batch(Volume, u"*", Key, Entries), Failure(0x0505)) << "asked again after the end";
    std::set<std::u16string> Distinct;
    for (const Listed &Entry : Entries) {
        EXPECT_TRUE(Distinct.insert(Entry.Name).second) << "listed twice";
        EXPECT_EQ(std::to_string(Entry.Size), std::string(Entry.Name.begin() + 4, Entry.Name.end()));
    }
    EXPECT_EQ(Distinct.size(), 300u);
    EXPECT_EQ(Names(Volume, u"AAA1?").size(), 10u);
    EXPECT_EQ(Names(Volume, u"aaa299"), std::vector<std::u16string>{u"aaa299"});
    EXPECT_TRUE(Names(Volume, u"nothing").empty());
    Key = 0x12000001;
    EXPECT_EQ(Batch(Volume, u"*", Key, Count), Failure(0x0101)) << "not a key that anybody got";
    Key = 0;
    EXPECT_EQ(Batch(Volume, u"*", Key, Count, false, 60), Failure(0x0007));
}

TEST_F(DirectoryProviderTest, ShortNamesLeadBackToTheirFiles) {
    Write("a rather long name.html", "long");
    Write("PLAIN.TXT", "plain");
    const std::vector<Listed> Entries = List(Volume, u"*", true);
    ASSERT_EQ(Entries.size(), 2u);
    const std::u16string Short = Entries[0].Short;
    EXPECT_EQ(Content(Short), "long");
    EXPECT_EQ(Entries[1].Short, u"");
    // A mask meets it in either form of the records, with and without wildcards.
    const std::vector<std::u16string> Long = {u"a rather long name.html"};
    for (const std::u16string &Mask : {Short, Short.substr(0, 6) + u"*", u"*~?" + Short.substr(8)}) {
        EXPECT_EQ(Names(Volume, Mask.c_str()), Long);
        EXPECT_EQ(List(Volume, Mask.c_str(), true)[0].Short, Short);
    }
    // A file of that very name takes it away, and gives it back.
    Write(std::string(Short.begin(), Short.end()), "other");
    EXPECT_EQ(List(Volume, u"a r*", true)[0].Short, u"");
    EXPECT_EQ(Content(Short), "other");
    EXPECT_EQ(Delete(Short), Done);
    EXPECT_EQ(List(Volume, u"a r*", true)[0].Short, Short);
    EXPECT_EQ(Delete(Short), Done);
    EXPECT_EQ(Content(Short), "failed 1286");
}

TEST_F(DirectoryProviderTest, ShortNamesAreUniqueInTheirDirectoryAndStayWhatTheyAre) {
    const auto Native = [](int Index) { return "one of many long names " + std::to_string(Index) + ".text"; };
    // A few hundred names, and pairs whose short names would be the same.
    std::set<int> Indices;
    std::map<std::u16string, int> Made;
    for (int Index = 0; Index < 40000; ++Index) {
        const auto [First, New] =
            Made.try_emplace(std::u16string(providers::directory::ShortName(Native(Index))), Index);
        if (Index < 500 || !New) {
            Indices.insert({First->second, Index});
        }
    }
    ASSERT_GT(Indices.size(), 500u) << "some must collide, or this shows nothing";
    for (const int Index : Indices) {
        Write(Native(Index), Native(Index));
    }
    std::map<std::u16string, std::u16string> ByShort;
    size_t Without = 0;
    for (const Listed &Entry : List(Volume, u"*", true)) {
        Without += Entry.Short.empty();
        EXPECT_TRUE(Entry.Short.empty() || ByShort.emplace(Entry.Short, Entry.Name).second);
    }
    EXPECT_GT(Without, 0u);
    EXPECT_LT(Without, Indices.size() - 400);
    for (const int Index : Indices) {
        if (Index % 2 == 0) {
            fs::remove(Root / Native(Index));
        }
    }
    for (const Listed &Entry : List(Volume, u"*", true)) {
        if (!Entry.Short.empty()) {
            EXPECT_EQ(ByShort.try_emplace(Entry.Short, Entry.Name).first->second, Entry.Name);
            EXPECT_EQ(Content(Entry.Short), std::string(Entry.Name.begin(), Entry.Name.end()));
        }
    }
}

TEST_F(DirectoryProviderTest, ListingsAreInTheOrderOfFoldedNames) {
    const std::vector<std::string> Plain = {"a", "A", "b", "Z", "_", "~", "0", "00000000", "same beginning ", ".x"};
    std::vector<std::string> Any = Plain;
    Any.insert(Any.end(), {"\xC3\xA9", "\xC3\x89", "\xF0\x9F\x98\x80", "\xEF\xBF\xBD", ":", "\xFF"});
    std::vector<std::string> Latin = Plain;
    Latin.insert(Latin.end(), {"\xC3\xA9", "\xC3\x89", "\xC3\xBE"});
    std::vector<std::string> Long = Plain;
    Long.push_back(std::string(33, 'l'));
    const unsigned Seed = testing::UnitTest::GetInstance()->random_seed() + static_cast<unsigned>(time(nullptr));
    std::mt19937 Random(Seed);
    for (const auto &[Folder, Parts] :
         {std::pair{u"plain", Plain}, {u"any", Any}, {u"latin", Latin}, {u"long", Long}, {u"none", {}}}) {
        SCOPED_TRACE(Seed);
        ASSERT_EQ(MakeFolder(Folder), Done);
        std::set<std::string> Natives;
        for (int Count = 0; Count < 400 && !Parts.empty(); ++Count) {
            std::string Name;
            for (auto Left = Random() % 7 + 1; Left != 0; --Left) {
                Name += Parts[Random() % Parts.size()];
            }
            Natives.insert(Name);
        }
        std::multimap<std::u16string, std::string> Expected; // of one key in the order of insertion
        for (const std::string &Native : Natives) {
            std::ofstream(Root / fs::path(Folder) / Native);
            Expected.emplace(Fold(ServedName(Native)), Native);
        }
        std::vector<std::u16string> Order;
        for (const auto &[Folded, Native] : Expected) {
            Order.push_back(Expected.count(Folded) == 1 ? ServedName(Native) : MarkedName(Native));
        }
        RVHANDLE Handle = 0;
        ASSERT_EQ(OpenFolder(Folder, Handle), Done);
        EXPECT_EQ(Names(Handle), Order);
        EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Handle), Done);
    }
}

TEST_F(DirectoryProviderTest, LongPathsAreReached) {
    std::u16string Path;
    for (int Level = 0; Level < 40; ++Level) {
        Path += (Level == 0 ? u"" : u"\\") + std::u16string(200, u'd');
        ASSERT_EQ(MakeFolder(Path), Done) << Level;
    }
    EXPECT_EQ(Try(Path + u"\\file", ReadWrite, RV_DISPOSITION_CREATE_NEW), Done);
    EXPECT_EQ(Try(Path + u"\\FILE"), Done);
    EXPECT_EQ(Delete(Path + u"\\file"), Done);
}

class DirectoryTimeStampTest : public DirectoryProviderTest {
    ExportOptions Options() const override {
        return {.UseNotifications = false};
    }
};

TEST_F(DirectoryTimeStampTest, ChangesMadeElsewhereAreSeenWithoutNotifications) {
    fs::create_directory(Root / "Dir");
    for (int Round = 0; Round < 50; ++Round) {
        EXPECT_EQ(Try(u"dir\\FILE"), Failure(0x0506));
        Write("Dir/File", "now");
        EXPECT_EQ(Content(u"dir\\FILE"), "now");
        fs::remove(Root / "Dir" / "File");
    }
}

} // namespace
} // namespace providers::directory
