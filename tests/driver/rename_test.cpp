// Renames: what is moved, what stands in the way, and what the FCB and its opens are called afterwards.

#include "embedded/io/probe.h"
#include "embedded/verifier/probe.h"
#include "tests/driver/rename_client.h"

namespace {

using namespace test;

class Renaming : public RenameFixture {
protected:
    // With another name in the target's file object.
    NTSTATUS RenameAs(HANDLE Handle, HANDLE Target, std::u16string_view Name) {
        const auto Bytes = static_cast<USHORT>(Name.size() * sizeof(WCHAR));
        const UNICODE_STRING Old =
            std::exchange(FileObject(Target)->FileName, {Bytes, Bytes, const_cast<PWSTR>(Name.data())});
        const NTSTATUS Status = RenameThrough(Handle, Target, true);
        FileObject(Target)->FileName = Old;
        return Status;
    }
};

// ---- The move

TEST_F(Renaming, MovesFromTheOpensOwnHandleAndPathToTheDirectorysHandleAndTheNewName) {
    const HANDLE Handle = OpenFile();
    const HANDLE Target = OpenTarget(u"\\srv\\vol\\d\\new.txt");
    const RVHANDLE Directory = Instance(Target)->DirHandle;
    const PCUNICODE_STRING Before = NtFsdStablePath(Fcb(Handle));
    EXPECT_EQ(RenameThrough(Handle, Target), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), (Calls{"RVFsdMoveFile", "RVFsdCloseDirectory"}));
    EXPECT_EQ(View(Before), u"\\srv\\vol\\a.txt") << "a reader without the lock still has the old path";
    const Call Move = Last(Slot::MoveFile);
    EXPECT_EQ(Move.Number("sourceBase"), Instance(Handle)->VolumeHandle);
    EXPECT_EQ(Move.String("source"), u"a.txt");
    EXPECT_EQ(Move.Number("targetBase"), Directory);
    EXPECT_EQ(Move.String("target"), u"new.txt");
    ExpectNamed(Handle, u"\\srv\\vol\\d\\new.txt");
    EXPECT_EQ(Fcb(OpenFile(u"\\srv\\vol\\d\\NEW.TXT")), Fcb(Handle));
    EXPECT_EQ(Create(u"\\srv\\vol\\a.txt").Status, STATUS_OBJECT_NAME_NOT_FOUND);
    // The target's directory handle is used up.
    EXPECT_EQ(Instance(Target)->DirHandle, 0u);
    EXPECT_EQ(Instance(Target)->RelatedHandle, Instance(Target)->BaseHandle);
    Close(Target);
    // The next one starts from the whole path.
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\back.txt"), STATUS_SUCCESS);
    ExpectNamed(Handle, u"\\srv\\vol\\back.txt");
}

TEST_F(Renaming, ADirectoryKeepsItsHandleForTheNamesBelowIt) {
    Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "inside");
    const HANDLE Handle = OpenDirectory(u"\\srv\\vol\\d");
    const HANDLE Target = OpenTarget(u"\\srv\\vol\\e");
    EXPECT_EQ(RenameThrough(Handle, Target), STATUS_SUCCESS);
    EXPECT_EQ(Last(Slot::MoveDirectory).Number("sourceBase"), Instance(Handle)->VolumeHandle);
    EXPECT_EQ(Last(Slot::MoveDirectory).String("source"), u"d");
    EXPECT_EQ(Last(Slot::MoveDirectory).String("target"), u"e");
    Close(Target);
    ExpectNamed(Handle, u"\\srv\\vol\\e");
    Open Below = {.Related = Handle};
    const HANDLE Child = MustOpen(u"f.txt", Below);
    EXPECT_EQ(PathOf(Child), u"\\srv\\vol\\e\\f.txt");
    EXPECT_EQ(ReadAll(Child), "inside");
}

TEST_F(Renaming, ADirectoryThatWasCreatedButNotOpenedMovesItself) {
    const HANDLE Handle = CreateUnopened(u"\\srv\\vol\\d\\new");
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\moved"), STATUS_SUCCESS);
    EXPECT_EQ(Made(), (Calls{"RVFsdMoveDirectory", "RVFsdCloseDirectory"})); // it needed no handle
    ExpectNamed(Handle, u"\\srv\\vol\\moved");
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\d"));
    // The handle that is opened later is of the directory where it is now, and never its parent's.
    Provider.Edit([](Tree &Tree) { Tree.Find(u"\\srv\\vol\\moved")->Attributes = RV_ATTR_READONLY; });
    Provider.OnCall(Slot::MoveDirectory).Nth(1).Return(RVSTATUS::AccessDenied);
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\d\\back"), STATUS_SUCCESS);
    EXPECT_EQ(Made(), (Calls{"RVFsdMoveDirectory", "RVFsdOpenDirectory", "RVFsdGetDirectoryInformation",
                             "RVFsdSetDirectoryInformation", "RVFsdMoveDirectory", "RVFsdSetDirectoryInformation",
                             "RVFsdCloseDirectory"}));
    EXPECT_EQ(Provider.Attributes(u"\\srv\\vol\\d\\back"), RV_ATTR_READONLY | RV_ATTR_DIRECTORY);
    EXPECT_EQ(Provider.Attributes(u"\\srv\\vol\\d") & RV_ATTR_READONLY, 0u);
}

TEST_F(Renaming, ThatTheServerFailsLeavesNameAndKey) {
    const HANDLE File = OpenFile();
    const HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    for (const auto &[Raw, Status] : {std::pair{0xC7E70102, STATUS_NETWORK_BUSY},
                                      {0xC7E70107, STATUS_ACCESS_DENIED},
                                      {0xC7E70510, STATUS_OBJECT_NAME_COLLISION},
                                      {0xC7E70000, STATUS_UNSUCCESSFUL},
                                      {0x0000000Eu, STATUS_UNSUCCESSFUL}, // pending
                                      {0x80000008, STATUS_NO_DATA_DETECTED}}) {
        SCOPED_TRACE(Raw);
        Provider.OnCall(Slot::MoveFile).Return(static_cast<RVSTATUS>(Raw));
        Provider.OnCall(Slot::MoveDirectory).Return(static_cast<RVSTATUS>(Raw));
        EXPECT_EQ(RenameTo(File, u"\\srv\\vol\\new"), Status);
        EXPECT_EQ(Made(), (Calls{"RVFsdMoveFile", "RVFsdCloseDirectory"}));
        EXPECT_EQ(RenameTo(Directory, u"\\srv\\vol\\new"), Status);
        EXPECT_EQ(Made(), (Calls{"RVFsdMoveDirectory", "RVFsdCloseDirectory"}));
        EXPECT_EQ(PathOf(File), u"\\srv\\vol\\a.txt");
        EXPECT_EQ(PathOf(Directory), u"\\srv\\vol\\d");
        const HANDLE Again = OpenFile(u"\\srv\\vol\\a.txt");
        EXPECT_EQ(Fcb(Again), Fcb(File));
        Close(Again);
        Provider.ClearScript();
    }
}

TEST_F(Renaming, ToAndFroTakesNoMemory) {
    const HANDLE Handle = OpenFile();
    for (int Round = 0; Round < 100; ++Round) {
        ASSERT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt"), STATUS_SUCCESS);
        ASSERT_EQ(RenameTo(Handle, u"\\srv\\vol\\a.txt"), STATUS_SUCCESS);
    }
    ExpectNamed(Handle, u"\\srv\\vol\\a.txt");
    const PATH_RECORD *Old = Fcb(Handle)->CurrentPath->Older;
    ASSERT_NE(Old, nullptr);
    EXPECT_EQ(std::u16string(Old->Path.Buffer), u"\\srv\\vol\\b.txt");
    EXPECT_EQ(Old->Older, nullptr);
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\B.txt"), STATUS_SUCCESS) << "another spelling is another record";
    ExpectNamed(Handle, u"\\srv\\vol\\B.txt");
}

// ---- What stands in the way

TEST_F(Renaming, AnExistingTargetIsACollisionUnlessItIsToBeReplaced) {
    Provider.AddFile(u"\\srv\\vol\\d\\b.txt", "old");
    const HANDLE Handle = OpenFile();
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\d\\b.txt"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Made(), Calls{"RVFsdCloseDirectory"});
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\d\\b.txt"), "old");

    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\d\\b.txt", true), STATUS_SUCCESS);
    ExpectMadeAfterLooking({"RVFsdDeleteFile", "RVFsdMoveFile", "RVFsdCloseDirectory"});
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\d\\b.txt"), "0123456789");
    ExpectNamed(Handle, u"\\srv\\vol\\d\\b.txt");
}

TEST_F(Renaming, ATargetThatCannotBeDeletedStays) {
    Provider.AddFile(u"\\srv\\vol\\b.txt", "old", RV_ATTR_READONLY);
    const HANDLE Handle = OpenFile();
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_ACCESS_DENIED);
    ExpectMadeAfterLooking({"RVFsdDeleteFile", "RVFsdCloseDirectory"});
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\a.txt"), "0123456789");
    EXPECT_EQ(PathOf(Handle), u"\\srv\\vol\\a.txt");
    // One that vanished meanwhile is out of the way.
    Provider.Edit([](Tree &Tree) { Tree.Find(u"\\srv\\vol\\b.txt")->Attributes = 0; });
    Provider.OnCall(Slot::DeleteFile).ReturnAfter(ProviderError(0x0506));
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_SUCCESS);
}

// A directory replaces nothing; one that is in a file's way is not deleted like a file, which is for the server to say.
TEST_F(Renaming, DirectoriesNeitherReplaceNorAreReplaced) {
    Provider.AddFile(u"\\srv\\vol\\b.txt", "old");
    Provider.AddDirectory(u"\\srv\\vol\\e");
    const HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    for (const bool Replace : {false, true}) {
        for (std::u16string_view Name : {u"\\srv\\vol\\b.txt", u"\\srv\\vol\\e"}) {
            EXPECT_EQ(RenameTo(Directory, Name, Replace), STATUS_OBJECT_NAME_COLLISION);
            EXPECT_EQ(Made(), Calls{"RVFsdCloseDirectory"});
        }
    }
    const HANDLE Handle = OpenFile();
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\e", true), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(PathOf(Handle), u"\\srv\\vol\\a.txt");
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\a.txt"), "0123456789");
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\e"));
}

TEST_F(Renaming, AnOpenTargetIsNotReplacedUnderItsOpens) {
    Provider.AddFile(u"\\srv\\vol\\b.txt", "old");
    const HANDLE Handle = OpenFile();
    const HANDLE Victim = OpenFile(u"\\srv\\vol\\B.txt");
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Made(), Calls{"RVFsdCloseDirectory"});
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", false), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(ReadAll(Victim), "old");
    Close(Victim);
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_SUCCESS);
}

// Whatever opens, goes or takes another path below it, in whatever letter case.
TEST_F(Renaming, ADirectoryWithOpensBelowItStays) {
    Provider.AddFile(u"\\srv\\vol\\d\\s\u00FCb\\f.txt", "x");
    Provider.AddFile(u"\\srv\\vol\\d\\near.txt", "x");
    Provider.AddFile(u"\\srv\\vol\\dd\\f.txt", "x");
    const HANDLE Handle = OpenDirectory(u"\\srv\\vol\\d");
    const HANDLE Other = OpenDirectory(u"\\srv\\vol\\dd");
    const auto ExpectBelow = [&](HANDLE Directory, bool Is) {
        for (std::u16string_view Name : {u"\\srv\\vol\\e", u"\\srv\\vol\\D"}) {
            const std::u16string Before = PathOf(Directory);
            EXPECT_EQ(RenameTo(Directory, Name), Is ? STATUS_ACCESS_DENIED : STATUS_SUCCESS);
            EXPECT_EQ(Made(), Is ? Calls{"RVFsdCloseDirectory"} : (Calls{"RVFsdMoveDirectory", "RVFsdCloseDirectory"}));
            EXPECT_TRUE(Is || RenameTo(Directory, Before) == STATUS_SUCCESS);
        }
    };
    const HANDLE Deep = OpenFile(u"\\SRV\\vol\\D\\s\u00FCb\\f.txt");
    const HANDLE Sub = OpenDirectory(u"\\srv\\vol\\d\\S\u00DCb");
    EXPECT_EQ(RenameTo(Sub, u"\\srv\\vol\\e"), STATUS_ACCESS_DENIED);
    Close(Sub);
    const HANDLE Near = OpenFile(u"\\srv\\vol\\d\\near.txt");
    ExpectBelow(Handle, true);
    EXPECT_EQ(RenameTo(Deep, u"\\srv\\vol\\dd\\g.txt"), STATUS_SUCCESS); // begins alike, lies elsewhere
    ExpectBelow(Handle, true);
    EXPECT_EQ(RenameTo(Other, u"\\srv\\vol\\other"), STATUS_ACCESS_DENIED);
    Close(Near);
    ExpectBelow(Handle, false);
    Close(Deep);
    EXPECT_EQ(RenameTo(Other, u"\\srv\\vol\\other"), STATUS_SUCCESS);
}

// ---- Read-only objects

TEST_F(Renaming, AReadOnlyOneIsMovedWithTheAttributeOffAndHasItAgainWhateverHappened) {
    constexpr PCWSTR Old = u"\\srv\\vol\\r", New = u"\\srv\\vol\\d\\r2";
    struct {
        bool ReadOnly;
        unsigned Fails; // which of the calls: move, query, clear, move, restore
        NTSTATUS Status;
        unsigned Calls;
    } constexpr Cases[] = {{true, 0, STATUS_SUCCESS, 5},       {false, 1, STATUS_ACCESS_DENIED, 2},
                           {true, 2, STATUS_ACCESS_DENIED, 2}, {true, 3, STATUS_ACCESS_DENIED, 3},
                           {true, 4, STATUS_NETWORK_BUSY, 5},  {true, 5, STATUS_SUCCESS, 5}};
    for (const bool IsDirectory : {false, true}) {
        for (const auto &Each : Cases) {
            SCOPED_TRACE(Each.Fails);
            IsDirectory ? Provider.AddDirectory(Old) : Provider.AddFile(Old, "x");
            Provider.Edit([&](Tree &Tree) {
                Tree.Find(Old)->Attributes = RV_ATTR_HIDDEN | (Each.ReadOnly ? RV_ATTR_READONLY + 0u : 0u);
            });
            const HANDLE Handle = MustOpen(Old, IsDirectory ? DirectoryForChange : WithoutData);
            const HANDLE Target = OpenTarget(New);
            if (Each.Fails != 0) {
                Provider.FailEverything(Slot::Any, Each.Fails,
                                        Each.Fails == 1 ? RVSTATUS::AccessDenied : ProviderError(0x0102));
            }
            EXPECT_EQ(RenameThrough(Handle, Target), Each.Status);
            Calls Expected = IsDirectory ? Calls{"RVFsdMoveDirectory", "RVFsdGetDirectoryInformation",
                                                 "RVFsdSetDirectoryInformation", "RVFsdMoveDirectory",
                                                 "RVFsdSetDirectoryInformation"}
                                         : Calls{"RVFsdMoveFile", "RVFsdGetBasicFileInformation",
                                                 "RVFsdSetFileInformation", "RVFsdMoveFile", "RVFsdSetFileInformation"};
            Expected.resize(Each.Calls);
            Expected.push_back("RVFsdCloseDirectory");
            EXPECT_EQ(CallNames(), Expected);
            Provider.ClearScript();
            const PCWSTR Now = Each.Status == STATUS_SUCCESS ? New : Old;
            EXPECT_EQ(PathOf(Handle), Now);
            EXPECT_FALSE(Provider.Exists(Now == New ? Old : New));
            const ULONG Left = Provider.Attributes(Now);
            EXPECT_EQ((Left & RV_ATTR_READONLY) != 0, Each.ReadOnly && Each.Fails != 5);
            EXPECT_TRUE(Left & RV_ATTR_HIDDEN) << "the rest of the word is untouched";
            Close(Target);
            Close(Handle);
            Provider.Edit([&](Tree &Tree) {
                Tree.Find(Now)->Attributes = 0;
                Tree.Delete(IsDirectory, 0, Now);
            });
        }
    }
}

// ---- Other opens

// Every open of the file, however it was named, names the renamed file and nothing else, and deletes it by disposition
// or as it was opened for.
TEST_F(Renaming, EveryOtherOpenStaysValidAndDeletesTheRenamedFile) {
    for (int Turn = 0; Turn < 4; ++Turn) {
        const int Deleting = Turn % 3;
        Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "mine");
        const HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
        Open Below = ForChange;
        Below.Related = Directory;
        Open First = ForChange;
        First.Options |= Turn == 3 ? FILE_DELETE_ON_CLOSE : 0;
        const HANDLE Handles[] = {MustOpen(u"\\srv\\vol\\d\\f.txt", First), MustOpen(u"f.txt", Below),
                                  OpenFile(u"\\srv\\vol\\D\\F.TXT")};
        EXPECT_EQ(Rename(Handles[0], u"\\srv\\vol\\moved.txt"), STATUS_SUCCESS);
        Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "a new one");
        for (HANDLE Each : Handles) {
            ExpectNamed(Each, u"\\srv\\vol\\moved.txt");
            EXPECT_EQ(ReadAll(Each), "mine");
        }
        EXPECT_EQ(Turn == 3 ? STATUS_SUCCESS : SetDisposition(Handles[Deleting], true), STATUS_SUCCESS);
        Close(Handles[(Deleting + 1) % 3]);
        Close(Directory);
        Close(Handles[(Deleting + 2) % 3]);
        EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\moved.txt"));
        Close(Handles[Deleting]);
        EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\moved.txt"));
        EXPECT_EQ(Provider.Content(u"\\srv\\vol\\d\\f.txt"), "a new one");
    }
}

TEST_F(Renaming, OpensBelowTheTargetOutliveItsHandle) {
    Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "inside");
    const HANDLE Handle = OpenFile();
    const HANDLE Target = OpenTarget(u"\\srv\\vol\\d\\new.txt");
    Open Below = ForChange;
    Below.Related = Target;
    const HANDLE Child = MustOpen(u"f.txt", Below);
    EXPECT_EQ(RenameThrough(Handle, Target), STATUS_SUCCESS);
    ExpectNamed(Child, u"\\srv\\vol\\d\\f.txt");
    EXPECT_EQ(Rename(Child, u"\\srv\\vol\\d\\g.txt"), STATUS_SUCCESS);
}

// ---- Refusals

TEST_F(Renaming, WithoutATargetIsNotSupported) {
    StartTracing(128);
    const HANDLE Handle = OpenFile();
    Provider.ClearCalls();
    EXPECT_EQ(Rename(Handle, u"b.txt"), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(CallNames(), Calls{});
    EXPECT_TRUE(WasPrinted("   Called for a simple rename.  Not supported!\n"));
}

TEST_F(Renaming, ATargetThatIsNoDirectoryOpenedForItIsRefused) {
    Provider.AddFile(u"\\srv\\vol\\b.txt");
    const HANDLE Handle = OpenFile();
    const HANDLE Other = OpenFile(u"\\srv\\vol\\b.txt");
    const HANDLE Directory = OpenDirectory(u"\\srv\\vol\\d");
    const PFILE_OBJECT Foreign = CreateFileObject(Device(), u"\\x", 0);
    const UCHAR Replace = 1;
    Provider.ClearCalls();
    EXPECT_EQ(Send(Handle, FileRenameInformation, &Replace, 1, Foreign), STATUS_INVALID_HANDLE);
    EXPECT_EQ(RenameThrough(Handle, Other, true), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RenameThrough(Handle, Directory), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(CallNames(), Calls{});
    EXPECT_NE(Instance(Directory)->DirHandle, 0u) << "its handle is its owner's, who goes on using it";
    DereferenceFileObject(Foreign);
}

// Such an open still has its volume's handle: the move would land in the root and replace what is there.
TEST_F(Renaming, ATargetDirectoryThatCouldNotBeOpenedIsRefused) {
    Provider.AddFile(u"\\srv\\vol\\d\\new.txt", "theirs");
    Provider.AddFile(u"\\srv\\vol\\new.txt", "in the root");
    const HANDLE Handle = OpenFile();
    for (USHORT Code : {RV_STATUS_ACCESS_DENIED, RVFS_NOT_A_DIRECTORY}) {
        Provider.OnCall(Slot::OpenDirectory).Return(ProviderError(Code)).Times(1);
        const HANDLE Target = OpenTarget(u"\\srv\\vol\\d\\new.txt");
        EXPECT_EQ(Instance(Target)->DirHandle, 0u);
        const NTSTATUS Expected =
            Code == RVFS_NOT_A_DIRECTORY ? STATUS_INVALID_PARAMETER : STATUS_OBJECT_PATH_NOT_FOUND;
        EXPECT_EQ(RenameThrough(Handle, Target, true), Expected);
        EXPECT_EQ(CallNames(), Calls{});
        Close(Target);
    }
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\new.txt"), "in the root");
}

// Wherever it begins and however it is named: an open relative to its parent is none of the root's own, but of the same
// FCB.
TEST_F(Renaming, TheRootOfAVolumeHasNoNameToChange) {
    Provider.OnPath(Slot::QueryPathForVolume, u"\\srv\\vol\\d").AnswerPath(u"\\srv\\vol\\d");
    Provider.OnPath(Slot::OpenVolume, u"\\srv\\vol\\d").ReturnAfter(RVSTATUS::Success).Answer([this](Outputs &Out) {
        Provider.Edit([&](Tree &Tree) { Tree.OpenVolume(u"\\srv\\vol", Out.Handle); });
    });
    const HANDLE Parent = OpenDirectory(u"\\srv\\vol");
    const HANDLE Root = OpenDirectory(u"\\srv\\vol\\d");
    ASSERT_EQ(Instance(Root)->PathLeft[0], 0);
    Open Below = DirectoryForChange;
    Below.Related = Parent;
    const HANDLE Relative = MustOpen(u"d", Below);
    ASSERT_EQ(Fcb(Relative), Fcb(Root));
    for (const HANDLE Each : {Parent, Root, Relative}) {
        EXPECT_EQ(RenameTo(Each, u"\\srv\\vol\\x"), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(Made(), Calls{});
    }
    Close(Relative);
    Provider.ClearCalls();
    EXPECT_EQ(SetDisposition(Root, true), STATUS_CANNOT_DELETE);
    EXPECT_EQ(SetDisposition(Parent, true), STATUS_CANNOT_DELETE);
    EXPECT_EQ(CallNames(), Calls{});
    Close(Root);
    // Nor does an open that was made before it was known for a root take it along.
    Below.Access |= DELETE;
    Below.Options |= FILE_DELETE_ON_CLOSE;
    const HANDLE Earlier = MustOpen(u"d", Below);
    const HANDLE Later = OpenDirectory(u"\\srv\\vol\\d");
    ASSERT_EQ(Fcb(Earlier), Fcb(Later));
    Close(Later);
    Close(Earlier);
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\d"));
}

TEST_F(Renaming, ToANameThatCannotBeIsRefusedBeforeAnythingIsAsked) {
    const HANDLE Handle = OpenFile();
    for (const std::u16string &Name :
         {std::u16string(), std::u16string(u"\\"), std::u16string(u"\\x"), std::u16string(u"x\\"),
          std::u16string(u"x\\y"), std::u16string(u"x*"), std::u16string(u"?y"), std::u16string(u"x\0y", 3),
          std::u16string(32767, u'n'),    // too long itself
          std::u16string(32756, u'n')}) { // by one, below "\srv\vol\d"
        const HANDLE Target = OpenTarget(u"\\srv\\vol\\d\\new.txt");
        EXPECT_EQ(RenameAs(Handle, Target, Name), STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(CallNames(), Calls{"RVFsdCloseDirectory"});
        EXPECT_EQ(PathOf(Handle), u"\\srv\\vol\\a.txt");
        Close(Target);
    }
    // The path may be as long as a size can say.
    const HANDLE Target = OpenTarget(u"\\srv\\vol\\d\\new.txt");
    const std::u16string Name(32755, u'n');
    Provider.OnCall(Slot::MoveFile).Return(RVSTATUS::Success);
    EXPECT_EQ(RenameAs(Handle, Target, Name), STATUS_SUCCESS);
    EXPECT_EQ(PathOf(Handle), u"\\srv\\vol\\d\\" + Name);
}

// ---- Faults

// Memory is had before the server hears of it, or nothing happens.
TEST_F(Renaming, WithoutMemoryNothingHasChanged) {
    for (std::u16string_view Name : {u"\\srv\\vol\\d\\new.txt", u"\\srv\\vol\\A.TXT"}) {
        for (ULONG64 Nth = 1;; ++Nth) {
            Provider.AddFile(u"\\srv\\vol\\a.txt", "mine");
            const HANDLE Handle = OpenFile();
            const HANDLE Target = OpenTarget(Name);
            NTSTATUS Status;
            bool Failed;
            {
                const PlannedFaults NoMemory({.Kinds = FaultBit(FaultKind::Pool), .Nth = Nth});
                Status = RenameThrough(Handle, Target);
                Failed = GetFaultCounts().TotalFailed() != 0;
            }
            const bool Moved = Provider.CountCalls(Slot::MoveFile) != 0;
            EXPECT_EQ(Status, Moved ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES);
            EXPECT_EQ(PathOf(Handle), Moved ? Name : u"\\srv\\vol\\a.txt");
            EXPECT_TRUE(Fcb(Handle)->OpenFlags & FCB_STATE_IN_PREFIX_TABLE);
            EXPECT_TRUE(Provider.Exists(PathOf(Handle)));
            EXPECT_EQ(SetDisposition(Handle, true), STATUS_SUCCESS);
            Close(Target);
            Close(Handle);
            if (!Failed) {
                EXPECT_GT(Nth, 3u);
                break;
            }
        }
    }
}

// Whatever the server fails, the driver's name of the file is the server's.
TEST_F(Renaming, AnyFailureOfTheProviderLeavesFileAndFcbOfOneName) {
    for (unsigned Nth = 1;; ++Nth) {
        Provider.AddFile(u"\\srv\\vol\\r.txt", "mine", RV_ATTR_READONLY);
        Provider.AddFile(u"\\srv\\vol\\d\\b.txt", "theirs");
        const HANDLE Handle = MustOpen(u"\\srv\\vol\\r.txt", WithoutData);
        Provider.FailEverything(Slot::Any, Nth, ProviderError(0x0102));
        const NTSTATUS Status = Rename(Handle, u"\\srv\\vol\\d\\b.txt", true);
        const bool Fired = Provider.FaultFired();
        Provider.ClearScript();
        EXPECT_EQ(PathOf(Handle), Status == STATUS_SUCCESS ? u"\\srv\\vol\\d\\b.txt" : u"\\srv\\vol\\r.txt") << Nth;
        EXPECT_EQ(Provider.Content(PathOf(Handle)), "mine") << Nth;
        Close(Handle);
        if (!Fired) {
            EXPECT_EQ(Status, STATUS_SUCCESS);
            break;
        }
        Provider.Edit([](Tree &Tree) {
            for (std::u16string_view Path : {u"\\srv\\vol\\r.txt", u"\\srv\\vol\\d\\b.txt"}) {
                if (Node *Left = Tree.Find(Path)) {
                    Left->Attributes = 0;
                }
            }
        });
    }
}

} // namespace
