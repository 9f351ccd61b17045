// Files that are opened again and again: whatever others do to the name, an open never gets anything but what an
// ordinary look would have found.
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "providers/directory/beneath.h"
#include "providers/directory/known_files.h"
#include "tests/providers/directory_fixture.h"
#include "tests/support/without_override.h"

namespace providers::directory {
namespace {

class KnownFilesTest : public DirectoryProviderTest {
protected:
    static constexpr char16_t Path[] = u"a\\b\\file";
    static constexpr char16_t OtherCase[] = u"A\\B\\FILE";
    const fs::path Holder = "a/b";

    // A tree in which the file is known under both spellings.
    void MakeKnown() {
        fs::create_directories(Root / Holder);
        Write(Holder / "file", "inside");
        Write(Holder / "other", "other");
        for (int Time = 0; Time < 4; ++Time) {
            ASSERT_EQ(Content(Path), "inside");
            ASSERT_EQ(Content(OtherCase), "inside");
            ASSERT_EQ(Try(u"a\\b\\missing"), Failure(CODE_NO_SUCH_FILE));
        }
    }
    void Exchange(const fs::path &One, const fs::path &Other) const {
        ASSERT_EQ(renameat2(AT_FDCWD, (Root / One).c_str(), AT_FDCWD, (Root / Other).c_str(), RENAME_EXCHANGE), 0);
    }
    RVSTATUS Ask(RVHANDLE Handle, ULONG64 &Size, ULONG *Attributes = nullptr) {
        return Table->RVFsdGetFileInformation(Fsd, nullptr, Handle, Attributes, nullptr, nullptr, nullptr, &Size,
                                              nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    // Puts a link to where it is then in the place of what is moved out of the export.
    void MoveOut(const fs::path &What) const {
        fs::rename(Root / What, Outer / "moved");
        fs::create_symlink(Outer / "moved", Root / What);
    }
};

TEST_F(KnownFilesTest, AreOpenedOnlyAsWhatTheirNameLeadsTo) {
    const std::string Denied = "failed " + std::to_string(RvCode(RVSTATUS::AccessDenied));
    const std::string Missing = "failed " + std::to_string(CODE_NO_SUCH_FILE);
    const struct {
        std::function<void()> Change;
        std::string Content;
        RVSTATUS OfMissing;
    } Cases[] = {
        {[] {}, "inside", Failure(CODE_NO_SUCH_FILE)},
        {[&] { fs::rename(Root / Holder / "other", Root / Holder / "file"); }, "other", Failure(CODE_NO_SUCH_FILE)},
        {[&] { fs::remove(Root / Holder / "file"); }, Missing, Failure(CODE_NO_SUCH_FILE)},
        {[&] { fs::create_hard_link(Root / Holder / "file", Root / "second"); }, "inside", Failure(CODE_NO_SUCH_FILE)},
        {[&] { MoveOut(Holder / "file"); }, Denied, Failure(CODE_NO_SUCH_FILE)},
        {[&] { MoveOut(Holder); }, Denied, RVSTATUS::AccessDenied},
        {[&] { MoveOut("a"); }, Denied, RVSTATUS::AccessDenied},
        {[&] {
             fs::create_directories(Root / "c" / "b");
             Write("c/b/file", "second");
             Write("c/b/missing", "");
             fs::rename(Root / "a", Root / "d");
             fs::rename(Root / "c", Root / "a");
         },
         "second", Done},
        {[&] {
             fs::rename(Root / "a", Root / "d");
             fs::create_symlink("d", Root / "a");
             Write("a/b/missing", "");
         },
         "inside", Done},
        {[&] { Exchange(Holder / "file", Holder / "other"); }, "other", Failure(CODE_NO_SUCH_FILE)},
        {[&] {
             fs::create_hard_link(Root / Holder / "file", Root / "second");
             fs::rename(Root / Holder / "other", Root / Holder / "file");
         },
         "other", Failure(CODE_NO_SUCH_FILE)},
        {[&] {
             // Gone and back, but not as it was: nobody watches it meanwhile.
             fs::rename(Root / "a", Root / "d");
             EXPECT_TRUE(RvIsError(Try(Path)));
             fs::rename(Root / "d/b/other", Root / "d/b/file");
             fs::rename(Root / "d", Root / "a");
         },
         "other", Failure(CODE_NO_SUCH_FILE)},
    };
    for (const auto &Case : Cases) {
        MakeKnown();
        Case.Change();
        EXPECT_EQ(Content(Path), Case.Content) << &Case - Cases;
        EXPECT_EQ(Content(OtherCase), Case.Content) << &Case - Cases;
        EXPECT_EQ(Try(u"a\\b\\missing"), Case.OfMissing) << &Case - Cases;
        for (const fs::path &Each : {Root / "a", Root / "c", Root / "d", Root / "second", Outer / "moved"}) {
            fs::remove_all(Each);
        }
    }
}

// What happens between the mark and the deletion: only the file that was marked is deleted, under the name that it had,
// and the right to erase is that of the directory in which the name is by then.
TEST_F(KnownFilesTest, ADeletionTakesWhatWasMarkedOrNothing) {
    const RVSTATUS Missing = Failure(CODE_NO_SUCH_FILE);
    const RVSTATUS Denied = RVSTATUS::AccessDenied;
    const auto Exchange = [&] {
        fs::create_directories(Root / "c/b");
        Write("c/b/file", "second");
        fs::rename(Root / "a", Root / "d");
        fs::rename(Root / "c", Root / "a");
    };
    enum class WHO : uint8_t { Root, Powerless, Another };
    const struct {
        std::function<void()> Change;
        WHO Who;
        RVSTATUS Asked; // for the rights
        bool May;
        RVSTATUS Deleted;
    } Cases[] = {
        {[] {}, WHO::Root, Done, true, Done},
        {[&] { fs::rename(Root / Holder / "other", Root / Holder / "file"); }, WHO::Root, Missing, false, Missing},
        {[&] { fs::rename(Root / "a", Root / "d"); }, WHO::Root, Missing, false, Failure(RVFS_PATH_NOT_FOUND)},
        {Exchange, WHO::Root, Missing, false, Missing},
        {[&] { MoveOut(Holder); }, WHO::Root, Denied, false, Denied},
        {[&] { MoveOut("a"); }, WHO::Root, Denied, false, Denied},
        {[&] { fs::permissions(Root / Holder, fs::perms(0555)); }, WHO::Powerless, Done, false, Denied},
        {[&] { fs::permissions(Root / Holder, fs::perms(0755)); }, WHO::Another, Done, false, Denied},
        {[&] { fs::permissions(Root / Holder, fs::perms(01777)); }, WHO::Another, Done, false, Denied},
    };
    fs::permissions(Outer, fs::perms(0755));
    for (const auto &Case : Cases) {
        if (Case.Who == WHO::Another && geteuid() != 0) {
            continue; // files of two users are needed
        }
        MakeKnown();
        RVHANDLE Query = 0;
        RVHANDLE Marked = 0;
        ASSERT_EQ(Open(Path, Query, RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done);
        ASSERT_EQ(Open(Path, Marked, RV_ACCESS_DELETE), Done);
        const ULONG Reserve = RV_OPTION_RESERVE_DELETE;
        EXPECT_EQ(Table->RVFsdModifyFileAccess(Fsd, nullptr, Marked, RV_ACCESS_DELETE, 7, Reserve), Done);
        Case.Change();
        const auto Files = [&] {
            return std::count_if(fs::recursive_directory_iterator(Outer), fs::recursive_directory_iterator(),
                                 [](const fs::directory_entry &Each) { return Each.is_regular_file(); });
        };
        const auto Before = Files();
        const auto Finish = [&] {
            USHORT Rights = 0;
            EXPECT_EQ(Table->RVFsdGetEffectiveRights(Fsd, nullptr, Query, &Rights), Case.Asked) << &Case - Cases;
            EXPECT_EQ(Rights != 0, Case.May) << &Case - Cases;
            Close(Query);
            Close(Marked);
            EXPECT_EQ(Delete(Path), Case.Deleted) << &Case - Cases;
        };
        Case.Who == WHO::Root        ? Finish()
        : Case.Who == WHO::Powerless ? test::WithoutOverride(Finish)
                                     : test::AsAnotherUser(Finish);
        EXPECT_EQ(Before - Files(), Case.Deleted == Done ? 1 : 0) << &Case - Cases;
        for (const fs::path &Each : {Root / "a", Root / "c", Root / "d", Outer / "moved"}) {
            fs::remove_all(Each);
        }
    }
}

TEST_F(KnownFilesTest, APipeInTheirPlaceIsNotOpened) {
    MakeKnown();
    RVHANDLE Query = 0;
    ASSERT_EQ(Open(Path, Query, RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done);
    const fs::path Pipe = Root / Holder / "pipe";
    ASSERT_EQ(mkfifo(Pipe.c_str(), 0600), 0);
    fs::rename(Pipe, Root / Holder / "file");
    Close(Query); // the look is kept for the open
    RVHANDLE Handle = 0;
    static_cast<void>(Open(Path, Handle));
    const UniqueFd Writer(open((Root / Holder / "file").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_TRUE(!Writer && errno == ENXIO) << "the pipe has a reader";
    if (Handle != 0) {
        Close(Handle);
    }
    EXPECT_TRUE(RvIsError(Try(Path)));
}

// A query open that was made without a descriptor answers all the same, and for the file that it found.
TEST_F(KnownFilesTest, AQueryOpenTellsOfTheFileItFound) {
    MakeKnown();
    RVHANDLE Query = 0;
    ASSERT_EQ(Open(Path, Query, RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done);
    fs::rename(Root / Holder / "file", Root / "away");
    Write(Holder / "file", "another one");
    ULONG64 Size = 0;
    EXPECT_EQ(Ask(Query, Size), Done);
    EXPECT_EQ(Size, 6u);
    Close(Query);
}

// A file system may give a later file the number of one that is gone.
TEST_F(KnownFilesTest, ALaterFileOfTheSameNumberIsNotMissing) {
    const fs::path File = Root / Holder / "file";
    for (int Time = 0; Time < 8; ++Time) {
        MakeKnown();
        struct stat Before {};
        struct stat After {};
        ASSERT_EQ(stat(File.c_str(), &Before), 0);
        fs::remove(File);
        Write(Holder / "file", "later");
        ASSERT_EQ(stat(File.c_str(), &After), 0);
        if (Before.st_ino != After.st_ino) {
            continue;
        }
        RVHANDLE Query = 0;
        ASSERT_EQ(Open(Path, Query, RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done);
        ULONG64 Size = 0;
        EXPECT_EQ(Ask(Query, Size), Done);
        EXPECT_EQ(Size, 5u);
        Close(Query);
        EXPECT_EQ(Content(Path), "later");
        return;
    }
    GTEST_SKIP() << "no number is given again";
}

TEST_F(KnownFilesTest, WhatIsMountedOverThemIsSeen) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "file systems have to be mounted";
    }
    const fs::path Over = Root / Holder;
    MakeKnown();
    if (mount("none", Over.c_str(), "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "no file system can be mounted";
    }
    EXPECT_EQ(Content(Path), "failed " + std::to_string(CODE_NO_SUCH_FILE));
    EXPECT_EQ(Content(OtherCase), "failed " + std::to_string(CODE_NO_SUCH_FILE));
    Write(Holder / "Missing", "mounted");
    EXPECT_EQ(Content(u"a\\b\\missing"), "mounted");
    ASSERT_EQ(umount(Over.c_str()), 0);
    EXPECT_EQ(Content(Path), "inside");
    // The same directory, where nothing may be written.
    ASSERT_EQ(mount(Over.c_str(), Over.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(mount(nullptr, Over.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_TRUE(RvIsError(Try(Path, RV_ACCESS_WRITE)));
    ASSERT_EQ(umount(Over.c_str()), 0);
    EXPECT_EQ(Try(Path, RV_ACCESS_WRITE), Done);
    // Another file over it.
    ASSERT_EQ(mount((Over / "other").c_str(), (Over / "file").c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(Content(Path), "other");
    EXPECT_EQ(Content(OtherCase), "other");
    ASSERT_EQ(umount((Over / "file").c_str()), 0);
    EXPECT_EQ(Content(Path), "inside");
}

// Two exports of one directory watch it each for itself.
TEST_F(KnownFilesTest, AreKnownByOneExportAlone) {
    ASSERT_EQ(Provider.AddExport(u"srv", u"again", Root, Options()), "");
    MakeKnown();
    const auto OfBoth = [&] {
        const RVHANDLE Mine = std::exchange(Volume, 0);
        EXPECT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\srv\\again", &Volume), Done);
        const std::string Text = Content(Path);
        EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, std::exchange(Volume, Mine)), Done);
        return Text + " " + Content(Path);
    };
    Exchange(Holder / "file", Holder / "other");
    EXPECT_EQ(OfBoth(), "other other");
    for (int Time = 0; Time < 4; ++Time) {
        Exchange(Holder / "file", Holder / "other");
        EXPECT_EQ(OfBoth(), Time % 2 == 0 ? "inside inside" : "other other");
    }
}

// What others have made of the file itself shows, although nothing is asked of its name: its mode, its size, its end.
TEST_F(KnownFilesTest, AreOpenedAsTheyAreByNow) {
    const fs::path File = Root / Holder / "file";
    MakeKnown();
    for (int Time = 0; Time < 3; ++Time) {
        fs::permissions(File, fs::perms(0444));
        for (const bool AfterQuestion : {false, true}) {
            RVHANDLE Query = 0;
            ULONG64 Size = 0;
            ASSERT_EQ(Open(Path, Query, RV_ACCESS_ATTRIBUTES, RV_DISPOSITION_QUERY), Done);
            EXPECT_EQ(AfterQuestion ? this->Ask(Query, Size) : Done, Done);
            Close(Query);
            EXPECT_EQ(Try(Path, RV_ACCESS_WRITE), RVSTATUS::AccessDenied);
        }
        EXPECT_EQ(Content(Path), "inside");
        fs::permissions(File, fs::perms(0644));
        EXPECT_EQ(Try(Path, RV_ACCESS_WRITE), Done);
    }
    const struct {
        std::function<void(RVHANDLE)> Change;
        ULONG64 Size;
    } Changes[] = {
        {[](RVHANDLE) {}, 6},
        {[&](RVHANDLE Other) { EXPECT_EQ(WriteAt(Other, 9, "!"), Done); }, 10},
        {[&](RVHANDLE Other) { EXPECT_EQ(SetSize(Other, 10), Done); }, 10},
        {[&](RVHANDLE) {
             EXPECT_EQ(Content(Path), "inside"); // another open is what was looked at last
             fs::resize_file(File, 10);
         },
         10},
    };
    for (const auto &Case : Changes) {
        RVHANDLE Writer = 0;
        RVHANDLE Opened = 0;
        ULONG64 Size = 0;
        fs::resize_file(File, 6);
        ASSERT_EQ(Open(Path, Writer, RV_ACCESS_WRITE), Done);
        ASSERT_EQ(Open(Path, Opened), Done);
        Case.Change(Writer);
        EXPECT_EQ(Ask(Opened, Size), Done);
        EXPECT_EQ(Size, Case.Size) << &Case - Changes;
        fs::resize_file(File, 5);
        EXPECT_EQ(Ask(Opened, Size), Done);
        EXPECT_EQ(Size, 5u) << &Case - Changes;
        Close(Opened);
        Close(Writer);
        Write(Holder / "file", "inside");
    }
}

// A path that is too long to be remembered is looked at each time.
TEST_F(KnownFilesTest, LongPathsLeadWhereTheyLead) {
    const std::string Long(140, 'x');
    const std::u16string Asked(u"d\\" + std::u16string(140, u'x') + u"\\f");
    fs::create_directories(Root / "d" / Long);
    for (int Round = 0; Round < 8; ++Round) {
        Write("d/" + Long + "/new", std::to_string(Round / 4));
        fs::rename(Root / "d" / Long / "new", Root / "d" / Long / "f");
        for (int Time = 0; Time < 4; ++Time) {
            EXPECT_EQ(Content(Asked), std::to_string(Round / 4)) << Round;
        }
    }
}

// Whoever hears of a change has told the others before it is done with it: an open that begins after a change sees it,
// whatever other threads are about.
TEST_F(KnownFilesTest, NoThreadOpensWhatAnotherHasHeardTheEndOf) {
    constexpr int Threads = 4;
    constexpr int Rounds = 400;
    MakeKnown();
    std::vector<std::thread> All;
    for (int Thread = 0; Thread < Threads; ++Thread) {
        All.emplace_back([&, Thread] {
            const std::string Name = (Holder / std::to_string(Thread)).string();
            const auto OpenNumber = [&](int Number) {
                const std::u16string Asked = u"a\\b\\" + ServedNumber(Number % Threads);
                RVHANDLE Handle = 0;
                ULONG Taken = 0;
                static_cast<void>(Table->RVFsdCreateFile(Fsd, nullptr, Volume, Asked.c_str(), RV_ACCESS_READ, 7,
                                                         RV_DISPOSITION_OPEN_EXISTING, 0, 0, &Handle, &Taken));
                return Handle;
            };
            Write(Name, "0");
            Write(Name + "other", "1");
            for (int Round = 0; Round < Rounds; ++Round) {
                Exchange(Name, Name + "other"); // the file that was known stays there
                for (int Time = 0; Time < 4; ++Time) {
                    std::string Found;
                    const RVHANDLE Handle = OpenNumber(Thread);
                    EXPECT_EQ(ReadAt(Handle, 0, 16, Found), Done);
                    EXPECT_EQ(Found, std::to_string((Round + 1) % 2)) << Name;
                    Close(Handle);
                    if (const RVHANDLE Another = OpenNumber(Thread + 1); Another != 0) {
                        Close(Another); // its name was exchanged before or after this, or just then
                    }
                }
            }
        });
    }
    // A directory that goes out of the export, with a link to where it is in its place, and comes back.
    All.emplace_back([&] {
        const auto Status = [&] {
            RVHANDLE Handle = 0;
            ULONG Taken = 0;
            const RVSTATUS Opened = Table->RVFsdCreateFile(Fsd, nullptr, Volume, u"c\\d\\file", RV_ACCESS_READ, 7,
                                                           RV_DISPOSITION_OPEN_EXISTING, 0, 0, &Handle, &Taken);
            if (Handle != 0) {
                Close(Handle);
            }
            return Opened;
        };
        fs::create_directories(Root / "c/d");
        Write("c/d/file", "");
        for (int Round = 0; Round < Rounds; ++Round) {
            for (int Time = 0; Time < 4; ++Time) {
                EXPECT_EQ(Status(), Done);
            }
            MoveOut("c");
            EXPECT_EQ(Status(), RVSTATUS::AccessDenied);
            fs::remove(Root / "c");
            fs::rename(Outer / "moved", Root / "c");
        }
    });
    // Whoever asks hears of these, too: of names in plenty, and of mounts.
    fs::create_directory(Root / "mount");
    Write(Holder / "noise", "");
    for (int Round = 0; Round < Rounds; ++Round) {
        for (int Time = 0; Time < 20; ++Time) {
            Exchange(Holder / "noise", Holder / "other");
        }
        if (geteuid() == 0 && mount("none", (Root / "mount").c_str(), "tmpfs", 0, nullptr) == 0) {
            umount((Root / "mount").c_str());
        }
    }
    for (std::thread &Each : All) {
        Each.join();
    }
}

// Directories whose way leads through a link are watched in vain, and not all of them at a time.
TEST_F(KnownFilesTest, WatchesStayFew) {
    constexpr size_t Most = 2048;
    Write("file", "");
    const UniqueFd Top(open(Root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd File(open((Root / "file").c_str(), O_PATH | O_CLOEXEC));
    struct stat Stat {};
    ASSERT_EQ(fstat(File.Get(), &Stat), 0);
    KnownFiles Known(Top.Get(), true);
    for (size_t Number = 0; Number < Most + 100; ++Number) {
        const std::string Name = std::to_string(Number);
        fs::create_directory(Root / Name);
        fs::create_directory_symlink(".", Root / Name / "link");
        for (int Time = 0; Time < 3; ++Time) {
            Known.Note(Name + "/link/file", File.Get(), Stat);
        }
    }
    size_t Watches = 0;
    for (const auto &Each : fs::directory_iterator("/proc/self/fdinfo")) {
        std::ifstream Lines(Each.path());
        for (std::string Line; std::getline(Lines, Line);) {
            Watches += Line.starts_with("inotify wd:") ? 1 : 0;
        }
    }
    EXPECT_LE(Watches, Most);
}

// A handle of an inode's number and a generation is taken by the file system for any generation when it has none.
TEST(FileHandleTest, NamesOneFileOnlyWithAGeneration) {
    const struct {
        FileHandle Handle;
        bool NamesOne;
    } Cases[] = {
        {{8, 1, {12, 0, 0, 0, 0, 0, 0, 0}}, false},       {{8, 1, {12, 0, 0, 0, 0, 0, 1, 0}}, true},
        {{12, 1, {1, 2, 3, 4, 0, 0, 0, 0}}, true}, // the generation comes first
        {{12, 0x81, {12, 0, 0, 0, 0, 0, 0, 0, 1}}, true}, {{}, false},
    };
    for (const auto &Case : Cases) {
        EXPECT_EQ(NamesOneFile(Case.Handle), Case.NamesOne) << &Case - Cases;
    }
}

// What is remembered of a file that has just changed holds only until it changes again.
TEST_F(KnownFilesTest, AttributesThatOthersSetAreSeenHoweverSoon) {
    Write("file", "");
    RVHANDLE Handle = 0;
    ASSERT_EQ(Open(u"file", Handle, RV_ACCESS_ATTRIBUTES), Done);
    for (uint32_t Round = 0; Round < 200; ++Round) {
        const uint32_t Wanted = Round % 2 == 0 ? RV_ATTR_HIDDEN : RV_ATTR_SYSTEM;
        const uint32_t Record[6] = {1, Wanted};
        if (setxattr((Root / "file").c_str(), "user.rvfsd.attributes", Record, sizeof Record, 0) != 0) {
            Close(Handle);
            GTEST_SKIP() << "no extended attributes";
        }
        ULONG Attributes = 0;
        ULONG64 Size = 0;
        ASSERT_EQ(Ask(Handle, Size, &Attributes), Done);
        ASSERT_EQ(Attributes, Wanted) << Round;
    }
    Close(Handle);
}

} // namespace
} // namespace providers::directory
