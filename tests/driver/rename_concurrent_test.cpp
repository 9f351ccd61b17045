// Renames beside opens and other renames.

#include "tests/driver/rename_client.h"

namespace {

using namespace test;

class RenamesConcurrent : public RenameFixture {
protected:
    static constexpr int Rounds = 40;

    // Runs Work in its own thread, Rounds times.
    template <typename T>
    void Run(T Work) {
        Threads_.emplace_back([Work] {
            for (int Round = 0; Round < Rounds; ++Round) {
                Work(Round);
            }
        });
    }
    void Join() {
        Threads_.clear(); // joins them
    }
    // Opens Path, if it is there, and reads what must be in it.
    void ReadIfThere(std::u16string_view Path, const std::string &Content) {
        const CreateResult Opened = Create(Path);
        if (Opened.Status == STATUS_SUCCESS) {
            EXPECT_EQ(ReadAll(Opened.Handle), Content);
            Close(Opened.Handle);
        } else {
            EXPECT_TRUE(Opened.Status == STATUS_OBJECT_NAME_NOT_FOUND || Opened.Status == STATUS_NO_SUCH_FILE ||
                        Opened.Status == STATUS_OBJECT_PATH_NOT_FOUND)
                << std::hex << Opened.Status;
        }
    }
    // Denied: somebody's open of the new name, or of one below a directory, is not quite gone.
    static void ExpectRenamedOrDenied(NTSTATUS Status) {
        EXPECT_TRUE(Status == STATUS_SUCCESS || Status == STATUS_ACCESS_DENIED) << std::hex << Status;
    }
    void ExpectWhereItSays(HANDLE Handle) {
        EXPECT_TRUE(Provider.Exists(PathOf(Handle))) << ToUtf8(PathOf(Handle));
        EXPECT_TRUE(Fcb(Handle)->OpenFlags & FCB_STATE_IN_PREFIX_TABLE);
    }

private:
    std::vector<std::jthread> Threads_;
};

TEST_F(RenamesConcurrent, WithOpensOfTheOldAndTheNewName) {
    const HANDLE Handle = OpenFile();
    Run([&](int Round) {
        ExpectRenamedOrDenied(Rename(Handle, Round % 2 ? u"\\srv\\vol\\a.txt" : u"\\srv\\vol\\b.txt", true));
    });
    Run([&](int) { ReadIfThere(u"\\srv\\vol\\a.txt", "0123456789"); });
    Run([&](int) { ReadIfThere(u"\\srv\\vol\\B.TXT", "0123456789"); });
    Join();
    EXPECT_EQ(FcbPrefixCount, 1u);
    EXPECT_EQ(Rename(Handle, u"\\srv\\vol\\c.txt"), STATUS_SUCCESS);
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\c.txt"), "0123456789");
    ExpectWhereItSays(Handle);
}

// Two handles of one file rename it and mark it for deletion; it goes with the last of them, under the name it has.
TEST_F(RenamesConcurrent, ThroughSeveralHandlesOfOneFile) {
    const HANDLE One = OpenFile();
    const HANDLE Two = OpenFile();
    const auto Try = [&](HANDLE Handle, std::u16string_view Name) {
        // The other one may have been there between the open of the target and the rename.
        const NTSTATUS Status = Rename(Handle, Name);
        EXPECT_TRUE(Status == STATUS_SUCCESS || Status == STATUS_OBJECT_NAME_COLLISION) << std::hex << Status;
    };
    Run([&](int Round) { Try(One, Round % 2 ? u"\\srv\\vol\\b.txt" : u"\\srv\\vol\\d\\b.txt"); });
    Run([&](int Round) { Try(Two, Round % 2 ? u"\\srv\\vol\\c.txt" : u"\\srv\\vol\\d\\C.TXT"); });
    Run([&](int) {
        UCHAR Byte;
        EXPECT_EQ(Read(Two, &Byte, 1, 3).Status, STATUS_SUCCESS);
        EXPECT_EQ(Byte, '3');
    });
    Join();
    ExpectWhereItSays(One);
    const std::u16string Path = PathOf(One);
    EXPECT_EQ(SetDisposition(One, true), STATUS_SUCCESS);
    Close(One);
    EXPECT_TRUE(Provider.Exists(Path));
    Close(Two);
    EXPECT_FALSE(Provider.Exists(Path));
}

// A directory is renamed while the Provider is asked about a name below it; its old name is gone, or another takes it.
class RenamesMeanwhile : public RenameFixture, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "mine");
        Directory_ = OpenDirectory(u"\\srv\\vol\\d");
        File_ = OpenFile();
        Provider.OnCall(Slot::CreateFile).Nth(1).Do([this](const Call &) {
            EXPECT_EQ(Rename(Directory_, u"\\srv\\vol\\e"), STATUS_SUCCESS);
            if (GetParam()) {
                Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "theirs");
            }
        });
    }
    HANDLE Directory_ = nullptr;
    HANDLE File_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Replaced, RenamesMeanwhile, testing::Bool());

TEST_P(RenamesMeanwhile, AnOpenBelowItIsOfTheFileThatItFinds) {
    Open Below = ForChange;
    Below.Related = Directory_;
    const HANDLE Mine = MustOpen(u"f.txt", Below);
    EXPECT_EQ(PathOf(Mine), u"\\srv\\vol\\e\\f.txt");
    EXPECT_EQ(ReadAll(Mine), "mine");
    if (GetParam()) {
        const HANDLE Theirs = OpenFile(u"\\srv\\vol\\d\\f.txt");
        EXPECT_NE(Fcb(Mine), Fcb(Theirs));
        EXPECT_EQ(ReadAll(Theirs), "theirs");
    }
    EXPECT_EQ(SetDisposition(Mine, true), STATUS_SUCCESS);
    Close(Mine);
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\e\\f.txt"));
    EXPECT_EQ(Provider.Exists(u"\\srv\\vol\\d\\f.txt"), GetParam());
}

TEST_P(RenamesMeanwhile, ARenameIntoItIsIntoTheDirectoryThatItFinds) {
    const std::u16string Name = GetParam() ? u"f.txt" : u"new.txt";
    EXPECT_EQ(Rename(File_, Name, GetParam(), Directory_), STATUS_SUCCESS);
    ExpectNamed(File_, u"\\srv\\vol\\e\\" + Name);
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\e\\" + Name), "0123456789");
    EXPECT_TRUE(!GetParam() || Provider.Content(u"\\srv\\vol\\d\\f.txt") == "theirs");
}

TEST_F(RenamesConcurrent, ANameThatACreateHasOnlyLookedUpIsFree) {
    const HANDLE Handle = OpenFile();
    const HANDLE Target = OpenTarget(u"\\srv\\vol\\new");
    std::thread Renamer;
    // The create has its FCB and asks what is there when the rename comes, which waits for it with the table.
    Provider.OnCall(Slot::OpenDirectory).Nth(1).Do([&](const Call &) {
        Renamer = std::thread([&] { EXPECT_EQ(RenameThrough(Handle, Target), STATUS_SUCCESS); });
        for (bool Waiting = false; !Waiting; std::this_thread::yield()) {
            KeEnterCriticalRegion();
            Waiting = !ExAcquireResourceExclusiveLite(&FcbTableResource, FALSE);
            if (!Waiting) {
                ExReleaseResourceLite(&FcbTableResource);
            }
            KeLeaveCriticalRegion();
        }
    });
    EXPECT_EQ(Create(u"\\srv\\vol\\new").Status, STATUS_OBJECT_NAME_NOT_FOUND);
    Renamer.join();
    ExpectNamed(Handle, u"\\srv\\vol\\new");
    EXPECT_EQ(FcbPrefixCount, 2u) << "the file and the target's directory";
    EXPECT_TRUE(Fcb(Handle)->OpenFlags & FCB_STATE_IN_PREFIX_TABLE);
}

} // namespace
