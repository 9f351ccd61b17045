// Staying inside the exported directory: links that lead out, and a tree that changes while it is being walked.
#include "providers/directory/beneath.h"

#include <atomic>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/providers/directory_fixture.h"
#include "tests/support/without_override.h"

namespace providers::directory {
namespace {

// Everything outside the export that must stay as it is.
class BeneathTest : public DirectoryProviderTest {
protected:
    void SetUp() override {
        DirectoryProviderTest::SetUp();
        fs::create_directories(Outer / "secret" / "sub");
        std::ofstream(Outer / "secret" / "file") << "secret";
        fs::create_directories(Root / "in" / "sub");
        Write("in/file", "inside");
        fs::create_symlink("../secret", Root / "out");
        fs::create_symlink(Outer / "secret", Root / "absolute");
        fs::create_symlink("in", Root / "link");
        fs::create_symlink("../secret/file", Root / "leaf");
        fs::create_symlink("/proc/self/root", Root / "magic");
        fs::create_symlink("../../secret", Root / "in" / "deep");
        fs::create_symlink("../in/file", Root / "in" / "up");
        fs::create_symlink("loop", Root / "loop");
    }

    // Runs Test as who runs the tests and as another user, whose tree it is then.
    void AsBoth(const std::function<void()> &Test) {
        Test();
        if (geteuid() != 0) {
            return;
        }
        fs::permissions(Outer, fs::perms(0755));
        for (const auto &Each : fs::recursive_directory_iterator(Outer)) {
            ASSERT_EQ(lchown(Each.path().c_str(), test::AnotherUser, test::AnotherUser), 0);
        }
        test::AsAnotherUser(Test);
    }

    void ExpectOutsideUntouched() {
        std::ifstream File(Outer / "secret" / "file");
        std::string Text{std::istreambuf_iterator<char>(File), {}};
        EXPECT_EQ(Text, "secret");
        EXPECT_TRUE(fs::is_directory(Outer / "secret" / "sub"));
        EXPECT_EQ(std::distance(fs::directory_iterator(Outer / "secret"), fs::directory_iterator()), 2);
        EXPECT_EQ(std::distance(fs::directory_iterator(Outer), fs::directory_iterator()), 2);
    }
};

TEST_F(BeneathTest, NoOperationGoesThroughALinkThatLeadsOut) {
    AsBoth([this] {
        for (const std::u16string Way : {u"out", u"absolute", u"in\\deep", u"magic", u"loop", u"LINK\\Deep"}) {
            const auto What = testing::PrintToString(Way);
            RVHANDLE Folder = 0;
            EXPECT_EQ(OpenFolder(Way, Folder), RVSTATUS::AccessDenied) << What;
            EXPECT_EQ(OpenFolder(Way + u"\\sub", Folder), RVSTATUS::AccessDenied) << What;
            for (const ULONG Disposition : {0, 1, 2, 3, 4, 5}) {
                EXPECT_TRUE(RvIsError(Try(Way + u"\\file", ReadWrite, Disposition))) << What << Disposition;
                EXPECT_TRUE(RvIsError(Try(Way + u"\\new", ReadWrite, Disposition))) << What << Disposition;
            }
            EXPECT_TRUE(RvIsError(MakeFolder(Way + u"\\new"))) << What;
            EXPECT_TRUE(RvIsError(Delete(Way + u"\\file"))) << What;
            EXPECT_TRUE(RvIsError(DeleteFolder(Way + u"\\sub"))) << What;
            EXPECT_TRUE(RvIsError(Move(Way + u"\\file", u"stolen"))) << What;
            EXPECT_TRUE(RvIsError(Move(u"in\\file", Way + u"\\planted"))) << What;
            ExpectOutsideUntouched();
        }
        for (const ULONG Disposition : {2, 3, 4, 5}) {
            EXPECT_EQ(Try(u"leaf", ReadWrite, Disposition), RVSTATUS::AccessDenied) << Disposition;
        }
        for (const std::u16string Path : {u"..\\secret\\file", u"in\\..\\..\\secret\\file", u"in/../../secret/file",
                                          u"\uF02E\uF02E\\secret\\file", u".\uF02E\\secret\\file", u"/etc/passwd"}) {
            EXPECT_TRUE(RvIsError(Try(Path))) << testing::PrintToString(Path);
        }
        ExpectOutsideUntouched();
    });
}

TEST_F(BeneathTest, LinksThatStayInsideAreFollowed) {
    EXPECT_EQ(Content(u"LINK\\FILE"), "inside");
    fs::create_symlink(Root / "in" / "up", Root / "whole");
    fs::create_symlink(Root / "in", Root / "in" / "sub" / "round");
    fs::create_symlink(Outer / "export-not", Root / "alike");
    EXPECT_EQ(Content(u"WHOLE"), "inside");
    EXPECT_EQ(Content(u"in\\sub\\ROUND\\sub\\round\\file"), "inside");
    EXPECT_EQ(Try(u"alike"), RVSTATUS::AccessDenied);
    RVHANDLE Folder = 0;
    ASSERT_EQ(OpenFolder(u"in", Folder), RVSTATUS::Success);
    // A link that leads up out of the base handle's directory, but not out of the export.
    RVHANDLE File = 0;
    EXPECT_EQ(Table->RVFsdCreateFile(Fsd, nullptr, Folder, u"up", RV_ACCESS_READ, 7, 3, 0, 0, &File, &Action),
              RVSTATUS::Success);
    Close(File);
    EXPECT_EQ(Table->RVFsdCreateFile(Fsd, nullptr, Folder, u"deep\\file", RV_ACCESS_READ, 7, 3, 0, 0, &File, &Action),
              RVSTATUS::AccessDenied);
    EXPECT_EQ(Table->RVFsdCloseDirectory(Fsd, nullptr, Folder), RVSTATUS::Success);
    EXPECT_EQ(DeleteFolder(u"link"), RVSTATUS::Success) << "the link goes, not what it leads to";
    EXPECT_EQ(Read("in/file"), "inside");
}

TEST_F(BeneathTest, LinksThatLeadOutAreListedAsThemselves) {
    for (const Listed &Entry : List(Volume)) {
        if (Entry.Name == u"out" || Entry.Name == u"leaf") {
            EXPECT_EQ(Entry.Attributes & RV_ATTR_DIRECTORY, 0u) << "nothing of the target may show";
        }
        if (Entry.Name == u"link") {
            EXPECT_EQ(Entry.Attributes & RV_ATTR_DIRECTORY, ULONG{RV_ATTR_DIRECTORY});
        }
    }
}

class WithoutOpenat2Test : public BeneathTest {
    ExportOptions Options() const override {
        return {.UseOpenat2 = false};
    }
};

TEST_F(WithoutOpenat2Test, EveryLinkIsRefused) {
    AsBoth([this] {
        EXPECT_EQ(Content(u"IN\\file"), "inside");
        EXPECT_EQ(Try(u"in\\new", ReadWrite, RV_DISPOSITION_CREATE_NEW), RVSTATUS::Success);
        EXPECT_EQ(Delete(u"in\\NEW"), RVSTATUS::Success);
        RVHANDLE Folder = 0;
        for (const std::u16string Way : {u"out", u"absolute", u"link", u"magic", u"in\\deep"}) {
            EXPECT_EQ(OpenFolder(Way, Folder), RVSTATUS::AccessDenied) << testing::PrintToString(Way);
            EXPECT_TRUE(RvIsError(Try(Way + u"\\file"))) << testing::PrintToString(Way);
        }
        EXPECT_EQ(Try(u"leaf"), RVSTATUS::AccessDenied);
        ExpectOutsideUntouched();
    });
}

// Runs Act over and over while another thread exchanges the directory "swap" with a link that leads out.
void WhileSwapping(const fs::path &Root, int Rounds, const std::function<void()> &Act) {
    std::atomic<bool> Stop = false;
    std::thread Swapper([&] {
        while (!Stop) {
            renameat2(AT_FDCWD, (Root / "swap").c_str(), AT_FDCWD, (Root / "trap").c_str(), RENAME_EXCHANGE);
        }
    });
    for (int Round = 0; Round < Rounds; ++Round) {
        Act();
    }
    Stop = true;
    Swapper.join();
}

TEST_F(BeneathTest, SwappingADirectoryForALinkNeverLeadsOut) {
    fs::create_directory(Root / "swap");
    Write("swap/file", "inside");
    fs::create_symlink("../secret", Root / "trap");
    Write("mine", "mine");
    struct stat Secret;
    ASSERT_EQ(stat((Outer / "secret" / "file").c_str(), &Secret), 0);
    int Escapes = 0;
    int Reached = 0;
    // RVFSD_SWAP_ROUNDS makes a campaign of it.
    const char *Rounds = getenv("RVFSD_SWAP_ROUNDS");
    const auto Race = [&] {
        RVHANDLE Handle = 0;
        ULONG64 Id = 0;
        if (Open(u"SWAP\\file", Handle, ReadWrite) == RVSTATUS::Success) {
            ++Reached;
            Escapes += Table->RVFsdGetFileId(Fsd, nullptr, Handle, &Id) == RVSTATUS::Success && Id == Secret.st_ino;
            Close(Handle);
        }
        if (Open(u"swap\\file", Handle, 1, RV_DISPOSITION_QUERY) == RVSTATUS::Success) {
            Escapes += Table->RVFsdGetFileId(Fsd, nullptr, Handle, &Id) == RVSTATUS::Success && Id == Secret.st_ino;
            USHORT Rights = 0;
            Table->RVFsdGetEffectiveRights(Fsd, nullptr, Handle, &Rights);
            Close(Handle);
        }
        if (OpenFolder(u"swap\\sub", Handle) == RVSTATUS::Success) {
            ++Escapes; // only the outside has it
            Table->RVFsdCloseDirectory(Fsd, nullptr, Handle);
        }
        Escapes += DeleteFolder(u"swap\\sub") == RVSTATUS::Success;
        if (Open(u"swap\\planted", Handle, ReadWrite, RV_DISPOSITION_OPEN_OR_CREATE) == RVSTATUS::Success) {
            Close(Handle);
        }
        MakeFolder(u"swap\\made");
        Move(u"mine", u"swap\\mine");
        Move(u"swap\\mine", u"mine");
        Delete(u"swap\\planted");
        DeleteFolder(u"swap\\made");
    };
    // On a busy machine the swapper may have the directory nearly all the time.
    for (int Tries = 0; Tries < 25 && Reached == 0; ++Tries) {
        WhileSwapping(Root, Rounds != nullptr ? atoi(Rounds) : 700, Race);
    }
    EXPECT_EQ(Escapes, 0);
    EXPECT_GT(Reached, 0);
    ExpectOutsideUntouched();
}

} // namespace
} // namespace providers::directory
