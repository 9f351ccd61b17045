// FCBs: one per path, found by path; how opens name their object to the Provider; the file-object check.

#include "embedded/io/probe.h"
#include "tests/driver/create_client.h"

namespace {

using namespace test;

class Fcbs : public CreateFixture {
protected:
    // What the open calls its object when it asks the Provider.
    std::u16string PathLeft(HANDLE Handle) {
        return Instance(Handle)->PathLeft;
    }
    std::u16string FullPath(HANDLE Handle) {
        return View(Fcb(Handle)->FullPath);
    }
    NTSTATUS Rename(HANDLE Handle, std::u16string_view NewPath) {
        UNICODE_STRING Name = ToUnicodeString(NewPath);
        const PFCB Renamed = Fcb(Handle);
        ResourceHold Table;
        Table.AcquireExclusive(&FcbTableResource, TRUE);
        ResourceHold Hold;
        Hold.AcquireExclusive(&Renamed->Resource, TRUE);
        NewPathRecord Record;
        const NTSTATUS Status = Record.Make(Renamed, &Name);
        if (NT_SUCCESS(Status)) {
            NtFsdRenameFcb(Renamed, Record);
        }
        Record.Drop();
        return Status;
    }
};

TEST_F(Fcbs, HaveAHeaderThatTheSystemUnderstands) {
    const HANDLE Handle = MustOpen(u"\\srv\\vol\\a.txt");
    const PFCB Found = Fcb(Handle);
    EXPECT_EQ(Found->Header.NodeTypeCode, 0x7705);
    EXPECT_EQ(Found->Header.NodeByteSize, 0x58);
    EXPECT_EQ(Found->NodeTypeCode, 0x7704u);
    EXPECT_TRUE(Found->Header.Flags & FSRTL_FLAG_ADVANCED_HEADER);
    EXPECT_TRUE(Found->Header.Flags2 & FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS);
    EXPECT_EQ(Found->Header.IsFastIoPossible, FastIoIsNotPossible);
    EXPECT_EQ(Found->Header.Resource, &Found->Resource);
    EXPECT_EQ(Found->Header.PagingIoResource, &Found->PagingIoResource);
    EXPECT_EQ(Found->PrefixState, 1);
    EXPECT_TRUE(Found->OpenFlags & FCB_STATE_IN_PREFIX_TABLE);
    EXPECT_EQ(FileSize(Handle), 10);
    EXPECT_EQ(Instance(Handle)->NodeTypeCode, 0x7706u);
    EXPECT_EQ(Instance(Handle)->FileObject, FileObject(Handle));
}

// ---- Names

TEST_F(Fcbs, ANameThatCannotBeIsInvalidBeforeTheProviderIsAsked) {
    Bind();
    constexpr std::u16string_view Names[] = {u"\\srv\\vol\\*.txt",
                                             u"\\srv\\vol\\a?",
                                             u"\\srv\\vol\\docs\\*",
                                             u"\\srv\\vol\\a*\\",
                                             u"\\srv\\vol\\\\a.txt",
                                             u"\\srv\\vol\\docs\\\\",
                                             u"\\\\",
                                             u"\\",
                                             {u"\\srv\\vol\\a\0b", 12}};
    for (const std::u16string_view Each : Names) {
        ExpectRefused(Each, With({}, FILE_OPEN_IF), STATUS_OBJECT_NAME_INVALID);
    }
    ExpectRefused(u"\\srv", {}, STATUS_BAD_NETWORK_PATH);
    EXPECT_EQ(Provider.CountCalls(), 0u);
    // A wildcard in an earlier component is the Provider's business.
    ExpectRefused(u"\\srv\\vol\\d*cs\\f.txt", {}, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Provider.CountCalls(), 1u);
    // Of a target the parent may have none, and the name is the rename's business.
    Provider.OnCall(Slot::CreateFile).Return(ProviderError(0x0506));
    for (const std::u16string_view Each : Names) {
        if (Each.find_first_of(u"*?") == Each.npos) {
            ExpectRefused(Each, AsTarget, STATUS_OBJECT_NAME_INVALID);
        }
    }
    ExpectRefused(u"\\srv", AsTarget, STATUS_OBJECT_NAME_INVALID);
    ExpectRefused(u"\\srv\\vol", AsTarget, STATUS_BAD_NETWORK_PATH); // its parent is a server
    ExpectRefused(u"\\srv\\vol\\d*\\new", AsTarget, STATUS_OBJECT_NAME_INVALID);
    ExpectNothingOpen("refused names");
}

TEST_F(Fcbs, APathOf32KilobytesIsOpenedAndALongerOneRefused) {
    const std::u16string Parent = u"\\srv\\vol\\" + std::u16string(16000, u'p');
    const std::u16string Path = Parent + u"\\" + std::u16string(16000, u'f');
    Provider.AddFile(Path, "far away");
    const HANDLE Handle = MustOpen(Path);
    EXPECT_EQ(FullPath(Handle), Path);
    EXPECT_EQ(ReadAll(Handle), "far away");
    Close(Handle);
    const HANDLE Directory = MustOpen(Parent, AsDirectory);
    Open Below = {};
    Below.Related = Directory;
    Provider.ClearCalls();
    ExpectRefused(std::u16string(16800, u'x'), Below, STATUS_OBJECT_NAME_INVALID); // 65534 bytes with its base
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

// ---- How opens name their object

TEST_F(Fcbs, APathIsSplitOnlyAtAComponentThatTheProviderCallsItsVolumeAndOpens) {
    Provider.AddFile(u"\\srv\\vol\\f.txt", "inside");
    struct {
        std::u16string_view Answer, PathLeft; // of \srv\vol\docs\f.txt
        Slot Fails = Slot::Any;               // which one: none
    } constexpr Cases[] = {
        {u"\\srv\\vol", u"docs\\f.txt"},
        {u"\\srv\\vol\\docs", u"f.txt"},
        {u"\\srv\\vo", u"\\srv\\vol\\docs\\f.txt"},
        {u"\\srv\\vol\\do", u"\\srv\\vol\\docs\\f.txt"},
        {u"\\srv\\vol\\docs\\f.txt\\and\\more", u"\\srv\\vol\\docs\\f.txt"},
        {u"\\srv\\vol", u"\\srv\\vol\\docs\\f.txt", Slot::QueryPathForVolume},
        {u"\\srv\\vol", u"\\srv\\vol\\docs\\f.txt", Slot::OpenVolume},
    };
    for (const auto &Each : Cases) {
        SCOPED_TRACE(ToUtf8(Each.Answer) + NameOf(Each.Fails));
        RVHANDLE Volume = 0;
        if (Each.Fails != Slot::Any) {
            Provider.OnCall(Each.Fails).Return(ProviderError(0x0101));
        } else {
            Provider.Edit([&](Tree &Tree) { Tree.OpenVolume(u"\\srv\\vol", &Volume); });
            Provider.OnCall(Slot::QueryPathForVolume).AnswerPath(std::u16string(Each.Answer));
            Provider.OnCall(Slot::OpenVolume).ReturnAfter({}).AnswerHandle(Volume); // whatever it is called
        }
        const HANDLE Handle = MustOpen(u"\\srv\\vol\\docs\\f.txt");
        EXPECT_EQ(PathLeft(Handle), Each.PathLeft);
        EXPECT_EQ(Instance(Handle)->VolumeHandle, Each.PathLeft[0] != u'\\' ? Volume : 0);
        EXPECT_EQ(Instance(Handle)->BaseHandle, Instance(Handle)->VolumeHandle);
        EXPECT_EQ(Instance(Handle)->RelatedHandle, Instance(Handle)->VolumeHandle);
        EXPECT_EQ(ReadAll(Handle), "inside");
        Close(Handle);
        Provider.ClearScript();
        ExpectNothingOpen("the close");
    }
}

// ---- Relative opens

class RelativeOpens : public Fcbs {
protected:
    Open Below(HANDLE Related, Open Request = {}) {
        Request.Related = Related;
        return Request;
    }
};

TEST_F(RelativeOpens, AreNamedByTheDirectorysHandleAndShareTheFcbOfThePath) {
    const HANDLE Whole = MustOpen(u"\\srv\\vol\\docs\\f.txt");
    for (const bool Root : {false, true}) {
        const HANDLE Directory = MustOpen(Root ? u"\\srv\\vol" : u"\\srv\\vol\\docs", AsDirectory);
        const HANDLE Relative = MustOpen(Root ? u"Docs\\F.txt" : u"F.txt", Below(Directory));
        EXPECT_EQ(Fcb(Whole), Fcb(Relative));
        EXPECT_EQ(PathLeft(Relative), Root ? u"docs\\f.txt" : u"f.txt");
        const RVHANDLE Lent = Root ? Instance(Directory)->VolumeHandle : Instance(Directory)->DirHandle;
        EXPECT_EQ(Instance(Relative)->BaseHandle, Lent);
        EXPECT_EQ(Instance(Relative)->RelatedHandle, Lent);
        EXPECT_EQ(Instance(Relative)->VolumeHandle, 0u);
        EXPECT_EQ(Instance(Relative)->PathLeft, Fcb(Relative)->FullPath.Buffer + (Root ? 9 : 14)) << "inside the path";
        Close(Directory);
        EXPECT_EQ(ReadAll(Relative), "inside");
        Close(Relative);
    }
}

TEST_F(RelativeOpens, OfAnEmptyNameOpenTheSameObjectAgain) {
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
    const HANDLE File = MustOpen(u"\\srv\\vol\\a.txt");
    for (const auto &[Related, Name, Left] :
         {std::tuple{Directory, u"", u"docs"}, {Directory, u"\\", u"docs"}, {File, u"", u"a.txt"}}) {
        const HANDLE Again = MustOpen(Name, Below(Related, Related == File ? Open{} : AsDirectory));
        EXPECT_EQ(Fcb(Again), Fcb(Related));
        EXPECT_EQ(PathLeft(Again), Left);
        EXPECT_NE(Instance(Again)->VolumeHandle, 0u);
        EXPECT_EQ(Instance(Again)->FileHandle != 0, Related == File);
    }
}

TEST_F(RelativeOpens, ThroughADirectoryThatWasCreatedOnlyStayInIt) {
    Open Creating = With(AsDirectory, FILE_CREATE);
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\docs\\new", Creating);
    EXPECT_EQ(Instance(Directory)->DirHandle, 0u);
    Open Making = Below(Directory, With({.Access = FILE_WRITE_DATA | SYNCHRONIZE}, FILE_CREATE));
    MustOpen(u"x.txt", Making);
    EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\docs\\new\\x.txt"));
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\docs\\x.txt"));
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\x.txt"));
}

TEST_F(RelativeOpens, BelowAFileAreRefused) {
    const HANDLE File = MustOpen(u"\\srv\\vol\\a.txt");
    Provider.OnCall(Slot::CreateFile, IsQuestion).Return(ProviderError(0x0506));
    ExpectRefused(u"x", Below(File), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(Fcb(File)->OpenCount, 1u);
}

TEST_F(RelativeOpens, OfAForeignFileObjectAreRefusedBeforeTheProviderIsAsked) {
    Bind();
    const HANDLE OurDevice = MustOpen(u"");
    ExpectRefused(u"a.txt", Below(OurDevice), STATUS_NOT_A_DIRECTORY);
    ExpectRefused(u"a.txt", Below(OurDevice, AsTarget), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(Provider.CountCalls(), 0u);
    Close(OurDevice);

    const std::pair<ULONG, void *> Contexts[] = {{0, nullptr}, {0x7701, &Provider}, {0x7704, nullptr}};
    for (const auto &[Signature, Instance] : Contexts) {
        auto Record = std::make_unique<FCB>();
        Record->NodeTypeCode = Signature;
        const OwnedFile Related(Device(), u"r"), File(Device(), u"a.txt");
        Related->FsContext = Signature != 0 ? Record.get() : nullptr;
        Related->FsContext2 = Instance;
        File->RelatedFileObject = Related;
        EXPECT_EQ(SendIrpAndWait(Device(), CreateOf(File)).Status, STATUS_INVALID_HANDLE);
        File->RelatedFileObject = nullptr;
        Related->FsContext = Related->FsContext2 = nullptr;
    }
    EXPECT_EQ(Provider.CountCalls(), 0u);
}

TEST_F(RelativeOpens, DeleteTheRightObjectWhenTheDirectoryIsClosedFirst) {
    Provider.AddFile(u"\\srv\\vol\\other\\x.txt", "stays");
    for (const bool Root : {false, true}) {
        Provider.AddFile(u"\\srv\\vol\\docs\\x.txt", "goes");
        const HANDLE Directory = MustOpen(Root ? u"\\srv\\vol" : u"\\srv\\vol\\docs", AsDirectory);
        const HANDLE File = MustOpen(Root ? u"docs\\x.txt" : u"x.txt",
                                     Below(Directory, With(ForDelete, FILE_OPEN, FILE_DELETE_ON_CLOSE)));
        const RVHANDLE Borrowed = Instance(File)->BaseHandle;
        Close(Directory);
        EXPECT_EQ(Instance(File)->BaseHandle, 0u);
        EXPECT_EQ(Instance(File)->RelatedHandle, 0u);
        EXPECT_EQ(PathLeft(File), u"\\srv\\vol\\docs\\x.txt");
        Provider.ClearCalls();
        Close(File);
        EXPECT_NE(Last(Slot::DeleteFile).Number("base"), Borrowed);
        EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\docs\\x.txt"));
        EXPECT_TRUE(Provider.Exists(u"\\srv\\vol\\other\\x.txt"));
    }
}

TEST_F(RelativeOpens, OfOpensThatBorrowKeepTheirOwnDirectoryHandle) {
    const HANDLE Root = MustOpen(u"\\srv\\vol", AsDirectory);
    const HANDLE Docs = MustOpen(u"docs", Below(Root, AsDirectory));
    const HANDLE File = MustOpen(u"f.txt", Below(Docs));
    Close(Root);
    EXPECT_EQ(Instance(Docs)->BaseHandle, 0u);
    EXPECT_NE(Instance(Docs)->DirHandle, 0u);
    EXPECT_EQ(Instance(Docs)->RelatedHandle, Instance(Docs)->DirHandle);
    EXPECT_EQ(Instance(File)->BaseHandle, Instance(Docs)->DirHandle);
    const HANDLE Again = MustOpen(u"sub", Below(Docs, AsDirectory));
    EXPECT_EQ(FullPath(Again), u"\\srv\\vol\\docs\\sub");
    Close(Docs);
    EXPECT_EQ(PathLeft(File), u"\\srv\\vol\\docs\\f.txt");
    EXPECT_EQ(ReadAll(File), "inside");
}

// ---- Looking up

TEST_F(Fcbs, ALookUpIsTracedOnceForAnOpen) {
    StartTracing(0x200000);
    Bind();
    Printed.clear();
    Close(MustOpen(u"\\srv\\vol\\a.txt"));
    EXPECT_EQ(Printed.find("   Trying to find : "), Printed.rfind("   Trying to find : "));
    ExpectPrintedInOrder(
        {"   Trying to find : \\srv\\vol\\a.txt\n", "   Didn't find it.\n", "   Current # entries in table: 0\n",
         "   Didn't find the prefix entry.\n", "   Remaining Path = \\srv\\vol\\a.txt.\n", "   Remaining Len  = 28.\n",
         "   Allocating new FCB\n", " Open Vol \"\\srv\\vol\\a.txt\", handle=0x", " Path past volume level = a.txt\n"});
    Create(u"\\srv\\vol\\no\\no");
    EXPECT_TRUE(WasPrinted("NtFsdVerifyFile for \"\\srv\\vol\\no\\no\" failed; status 0xC000003A.\n")) << Printed;
}

TEST_F(Fcbs, TakeNewPathsUntilAMegabyteOfOldOnesIsKept) {
    const HANDLE File = MustOpen(u"\\srv\\vol\\docs\\f.txt");
    std::u16string Long = u"\\srv\\vol\\" + std::u16string(16000, u'x');
    unsigned Renamed = 0;
    while (Renamed < 100 && NT_SUCCESS(Rename(File, Long))) {
        Long.back() = static_cast<char16_t>(0x4E00 + ++Renamed);
    }
    EXPECT_EQ(Renamed, 33u);
    EXPECT_EQ(Rename(File, Long), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Rename(File, u"\\srv\\vol\\docs\\f.txt"), STATUS_SUCCESS) << "it had this one before";
    EXPECT_EQ(Rename(File, Long), STATUS_INSUFFICIENT_RESOURCES);
    Close(File);
    ExpectNothingOpen("closing it");
}

TEST_F(Fcbs, RenamedOntoAPathThatIsOpenStayOutOfTheTable) {
    const HANDLE Target = MustOpen(u"\\srv\\vol\\a.txt");
    const HANDLE Source = MustOpen(u"\\srv\\vol\\docs\\f.txt");
    EXPECT_EQ(Rename(Source, u"\\srv\\VOL\\A.txt"), STATUS_SUCCESS);
    EXPECT_TRUE(WasPrinted("[RVFSD] NtFsdRenameFcb RtlInsertUnicodePrefix for \"\\srv\\VOL\\A.txt\" on FCB 0x"));
    EXPECT_FALSE(Fcb(Source)->OpenFlags & FCB_STATE_IN_PREFIX_TABLE);
    EXPECT_EQ(FcbPrefixCount, 1u);
    EXPECT_EQ(FullPath(Source), u"\\srv\\VOL\\A.txt");
    Close(Target);
    const HANDLE Fresh = MustOpen(u"\\srv\\vol\\a.txt");
    EXPECT_NE(Fcb(Fresh), Fcb(Source));
    Close(Fresh);
    Close(Source);
    ExpectNothingOpen("the close of an FCB outside the table");
}

TEST_F(Fcbs, AreLookedUpByTheLongestPathInFront) {
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
        UNICODE_STRING Name = ToUnicodeString(Each.Path);
        UNICODE_STRING Remaining;
        EXPECT_EQ(NtFsdFindFcb(&Name, &Remaining), Each.Found != nullptr ? Fcb(Each.Found) : nullptr);
        EXPECT_EQ(View(Remaining), Each.Remaining);
        EXPECT_EQ(Remaining.MaximumLength, Remaining.Length);
    }
    Table.Release();
}

// Where the array of their table cannot grow, and where it grows, every directory stays one that has something below.
TEST_F(Fcbs, AreFoundBelowTheirDirectoriesHoweverManyThereAre) {
    Bind();
    constexpr unsigned COUNT = 600;
    const auto PathOf = [](unsigned At, std::u16string_view Name) {
        std::u16string Path = u"\\srv\\vol\\";
        Path += static_cast<char16_t>(0x4E00 + At);
        return Path.append(Name);
    };
    const ExclusiveHold Table(&FcbTableResource);
    const FaultScope AsTheDriver;
    const auto ExpectHeld = [&](unsigned First, unsigned End) HOLDING(FcbTableResource) {
        for (unsigned At = 0; At < COUNT; ++At) {
            const std::u16string Path = PathOf(At, u"");
            const UNICODE_STRING Directory = ToUnicodeString(Path);
            EXPECT_EQ(NtFsdHasFcbBelow(&Directory), At >= First && At < End) << At << " of " << First << ".." << End;
        }
    };
    std::vector<PARENT_RECORD *> Held(COUNT);
    std::array<unsigned, 2> Growths = {}; // without memory for it, with
    for (unsigned At = 0; At < COUNT; ++At) {
        const std::u16string Path = PathOf(At, u"\\f");
        const UNICODE_STRING File = ToUnicodeString(Path);
        const bool MayGrow = At >= COUNT / 2;
        // One block for the record; a second call is the array's.
        const PlannedFaults Faults({.Kinds = FaultBit(FaultKind::Pool), .Nth = MayGrow ? 100u : 2u});
        ASSERT_EQ(NtFsdHoldParent(&File, &Held[At]), STATUS_SUCCESS);
        Growths[MayGrow] += static_cast<unsigned>(GetFaultCounts().TotalCalls() - 1);
        if (At + 1 == COUNT / 2) {
            ExpectHeld(0, COUNT / 2);
        }
    }
    EXPECT_THAT(Growths, testing::ElementsAre(300 - 128, 3)) << "above 2 for each of 64 chains; to 128, 256 and 512";
    ExpectHeld(0, COUNT);
    for (unsigned At = 0; At < COUNT; ++At) {
        NtFsdReleaseParent(Held[At]);
        if (At == COUNT / 2) {
            ExpectHeld(At + 1, COUNT);
        }
    }
    ExpectHeld(0, 0); // that the array has gone, too, the kernel proves when it stops
}

// ---- References and the file-object check

TEST_F(Fcbs, ADereferenceWithoutAnFcbFreesTheInstance) {
    Bind();
    IRP_CONTEXT Request = Context();
    for (const bool WithInstance : {false, true}) {
        PINSTANCE_CONTEXT Orphan = nullptr;
        if (WithInstance) {
            Orphan = static_cast<PINSTANCE_CONTEXT>(TwAllocMemory(sizeof(INSTANCE_CONTEXT)));
            InitializeListHead(&Orphan->Borrowers);
            InitializeListHead(&Orphan->BorrowLinks);
        }
        BOOLEAN Freed = FALSE;
        ResourceHold None;
        EXPECT_EQ(TwSupDereference(&Request, nullptr, Orphan, &Freed, None), STATUS_INVALID_PARAMETER);
        EXPECT_TRUE(Freed); // that nothing leaks the kernel proves when it stops
    }
}

TEST_F(Fcbs, ADereferenceDeletesByTheWholePathAndAnswersWhatCameOfIt) {
    constexpr std::tuple<std::u16string_view, USHORT, NTSTATUS> Cases[] = {
        {u"\\srv\\vol\\docs\\sub", 0x0502, STATUS_SUCCESS}, // somebody else was faster
        {u"\\srv\\vol\\a.txt", 0x0502, STATUS_NO_SUCH_FILE},  {u"\\srv\\vol\\a.txt", 0x0503, STATUS_SUCCESS},
        {u"\\srv\\vol\\a.txt", 0x0006, STATUS_ACCESS_DENIED}, {u"\\srv\\vol", 0, STATUS_CANNOT_DELETE},
    };
    for (const auto &[Path, Code, Status] : Cases) {
        const HANDLE Handle = MustOpen(Path);
        IRP_CONTEXT Request = Context(FileObject(Handle));
        const PFCB Its = Fcb(Handle);
        const INSTANCE_CONTEXT Made = *Instance(Handle);
        const bool IsDirectory = Made.DirHandle != 0;
        Its->OpenFlags |= FCB_STATE_DELETE_DISPOSITION;
        Provider.OnCall(IsDirectory ? Slot::DeleteDirectory : Slot::DeleteFile).Return(ProviderError(Code));
        Provider.ClearCalls();
        ResourceHold Table, Hold;
        Table.AcquireExclusive(&FcbTableResource, TRUE);
        Hold.AcquireExclusive(&Its->Resource, TRUE);
        BOOLEAN Freed = FALSE;
        EXPECT_EQ(TwSupDereference(&Request, Its, Instance(Handle), &Freed, Hold), Status);
        EXPECT_TRUE(Freed);
        EXPECT_EQ(Provider.CountCalls(), Code != 0 ? 1u : 0u);
        Table.Release();
        Close(Handle);
        for (const auto &[Own, End] : {std::pair{Made.FileHandle, &RVFsdCloseFile},
                                       {Made.DirHandle, &RVFsdCloseDirectory},
                                       {Made.VolumeHandle, &RVFsdCloseVolume}}) {
            EXPECT_TRUE(Own == 0 || End(&Request.SecurityContext, Own) == RVSTATUS::Success);
        }
        Provider.ClearScript();
    }
    ExpectNothingOpen("the dereferences");
}

TEST_F(Fcbs, TheFileObjectCheckLooksAtOneThingAfterAnother) {
    Bind();
    auto Record = std::make_unique<FCB>();
    const PFILE_OBJECT File = CreateFileObject(Device(), u"x", 0);
    INSTANCE_CONTEXT Open = {};
    Open.FileHandle = 1;
    struct {
        bool Fcb, Instance;
        ULONG Signature, Flags, Expected;
        NTSTATUS Status;
    } constexpr Cases[] = {
        {false, false, 0x7704, 0, 0, STATUS_INVALID_HANDLE},
        {false, true, 0x7704, 0, 0, STATUS_INVALID_HANDLE},
        {true, false, 0x1234, FCB_STATE_DELETED, 3, STATUS_INVALID_HANDLE},
        {true, true, 0x1234, FCB_STATE_DELETED, 3, STATUS_INVALID_PARAMETER},
        {true, true, 0x7706, 0, 0, STATUS_INVALID_PARAMETER},
        {true, true, 0x7704, FCB_STATE_DELETED, 3, STATUS_DELETE_PENDING},
        {true, true, 0x7704, 0, OPEN_TYPE_DIRECTORY, STATUS_INVALID_PARAMETER},
        {true, true, 0x7704, 0, OPEN_TYPE_FILE, STATUS_SUCCESS},
        {true, true, 0x7704, FCB_STATE_DELETE_DISPOSITION, 0, STATUS_SUCCESS},
    };
    for (const auto &Each : Cases) {
        Record->NodeTypeCode = Each.Signature;
        Record->OpenFlags = Each.Flags;
        Record->OpenType = OPEN_TYPE_FILE;
        // Only a record with the signature has a path.
        Record->CurrentPath = Each.Signature == 0x7704 ? &Record->FirstPath : reinterpret_cast<PATH_RECORD *>(8);
        File->FsContext = Each.Fcb ? Record.get() : nullptr;
        File->FsContext2 = Each.Instance ? &Open : nullptr;
        PFCB Found;
        PINSTANCE_CONTEXT Made;
        EXPECT_EQ(NtFsdDecodeFileObject(File, &Found, &Made, Each.Expected), Each.Status);
        EXPECT_EQ(Found, File->FsContext);
        EXPECT_EQ(Made, File->FsContext2);
    }
    File->FsContext = File->FsContext2 = nullptr;
    DereferenceFileObject(File);
}

TEST_F(Fcbs, AnOpenedDirectorysHandleIsNotLostToANote) {
    const HANDLE Directory = MustOpen(u"\\srv\\vol\\new", With(AsDirectory, FILE_CREATE));
    Provider.OnCall(Slot::OpenDirectory).ReturnAfter(static_cast<RVSTATUS>(0x80000007));
    IRP_CONTEXT Request = Context();
    EXPECT_FALSE(NT_SUCCESS(NtFsdEnsureDirectoryHandle(&Request, Instance(Directory))));
    EXPECT_EQ(Instance(Directory)->DirHandle, 0u);
    Provider.ClearScript();
    EXPECT_EQ(NtFsdEnsureDirectoryHandle(&Request, Instance(Directory)), STATUS_SUCCESS);
    EXPECT_NE(Instance(Directory)->DirHandle, 0u);
    Close(Directory);
    ExpectNothingOpen("the close");
}

} // namespace
