// Renames whose new name is taken, by another object or, in another letter case, by the one that is renamed: whatever
// is in the way, and by whatever name, no content is lost but the replaced file's.

#include "providers/directory/probe.h"
#include "tests/app/program.h"
#include "tests/driver/rename_client.h"

namespace {

using namespace test;

// ---- Over the scripted Provider

class Replacing : public RenameFixture {
protected:
    void SetUp() override {
        Provider.AddFile(u"\\srv\\vol\\b.txt", "theirs");
    }
    void ExpectBothThere() {
        EXPECT_EQ(Provider.Content(u"\\srv\\vol\\a.txt"), "0123456789");
        EXPECT_EQ(Provider.Content(u"\\srv\\vol\\b.txt"), "theirs");
    }
};

// Two names of one file: what bears the new name is what is to be moved.
TEST_F(Replacing, TheFileItselfUnderAnotherNameIsNotDeleted) {
    Provider.Edit([](Tree &Tree) { Tree.Find(u"\\srv\\vol\\b.txt")->Id = Tree.Find(u"\\srv\\vol\\a.txt")->Id; });
    const HANDLE Handle = OpenFile();
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_OBJECT_NAME_COLLISION); // the Provider's word
    ExpectMadeAfterLooking({"RVFsdMoveFile", "RVFsdCloseDirectory"});
    ExpectBothThere();
    EXPECT_EQ(PathOf(Handle), u"\\srv\\vol\\a.txt");
}

// The move would be refused: the file in its way would be gone for nothing.
TEST_F(Replacing, NothingIsDeletedInAVolumeThatTheFileCannotBeMovedInto) {
    // With an identifier of its own, with that of the other volume (a clone), without one, and both with one that is
    // none.
    constexpr int Cloned = 0x55;
    for (const auto &[Flags, Byte] : {std::pair{RV_VOLUME_IDENTIFIER_VALID + 0u, 0x77},
                                      {RV_VOLUME_IDENTIFIER_VALID + 0u, Cloned},
                                      {0u, 0x77},
                                      {RV_VOLUME_IDENTIFIER_VALID + 0u, 0}}) {
        Provider.Edit([Flags = Flags, Byte = Byte](Tree &Tree) {
            Volume &Other = Tree.AddVolume(u"\\srv\\vol2");
            Other.Flags = Flags;
            for (Volume *Each : {&Other, Byte == 0 || Byte == Cloned ? Tree.FindVolume(u"\\srv\\vol") : &Other}) {
                memset(Each->Identifier, Byte, sizeof(Each->Identifier));
            }
        });
        Provider.AddFile(u"\\srv\\vol2\\b.txt", "theirs");
        const HANDLE Handle = OpenFile();
        EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol2\\b.txt", true), STATUS_NOT_SAME_DEVICE);
        EXPECT_EQ(std::count(Made().begin(), Made().end(), "RVFsdDeleteFile"), 0);
        EXPECT_EQ(std::count(Made().begin(), Made().end(), "RVFsdMoveFile"), 0);
        EXPECT_EQ(Provider.Content(u"\\srv\\vol2\\b.txt"), "theirs");
        ExpectBothThere();
        Close(Handle);
    }
}

TEST_F(Replacing, AVolumeThatBeginsBelowAnotherIsAnother) {
    Provider.AddFile(u"\\srv\\vol\\d\\b.txt", "theirs");
    for (const bool ByIdentifier : {true, false}) {
        const HANDLE Handle = OpenFile();
        const HANDLE Target = OpenTarget(u"\\srv\\vol\\d\\b.txt");
        if (ByIdentifier) {
            Provider.OnCall(Slot::GetVolumeInformation).Nth(2).Answer([](Outputs &Out) {
                memset(Out.Identifier, 0x77, 16);
            });
        } else {
            Provider.Edit([](Tree &Tree) { Tree.FindVolume(u"\\srv\\vol")->Flags = 0; });
            Provider.OnPath(Slot::QueryPathForVolume, u"\\srv\\vol\\d").AnswerPath(u"\\srv\\vol\\d");
        }
        EXPECT_EQ(RenameThrough(Handle, Target, true), STATUS_NOT_SAME_DEVICE);
        EXPECT_EQ(Provider.CountCalls(Slot::DeleteFile) + Provider.CountCalls(Slot::MoveFile), 0u);
        Close(Target);
        Close(Handle);
    }
}

// A question that is not answered might have shown the file itself, which would be deleted.
TEST_F(Replacing, InDoubtDeletesNothing) {
    struct {
        const char *What;
        Slot Question;
        unsigned Nth; // 0: every one
        RVSTATUS Answer;
        NTSTATUS Status;
        bool Identified = true;
    } const Cases[] = {
        {"its own identifier", Slot::GetFileId, 1, ProviderError(0x0102), STATUS_NETWORK_BUSY},
        {"that of the other", Slot::GetFileId, 2, ProviderError(0x0102), STATUS_NETWORK_BUSY},
        {"a warning", Slot::GetFileId, 2, static_cast<RVSTATUS>(0x80000008), STATUS_NO_DATA_DETECTED},
        {"the open", Slot::CreateFile, 1, ProviderError(0x0102), STATUS_NETWORK_BUSY},
        {"a denied open", Slot::CreateFile, 1, RVSTATUS::AccessDenied, STATUS_ACCESS_DENIED},
        {"the volumes", Slot::GetVolumeInformation, 0, ProviderError(0x0102), STATUS_NETWORK_BUSY},
        {"their paths", Slot::QueryPathForVolume, 2, ProviderError(0x0102), STATUS_NETWORK_BUSY, false},
        {"nothing there, which is an answer", Slot::CreateFile, 1, ProviderError(0x0506), STATUS_SUCCESS},
        {"no identifiers: nothing can be told apart", Slot::GetFileId, 0, ProviderError(0x0102), STATUS_SUCCESS, false},
    };
    for (const auto &Each : Cases) {
        SCOPED_TRACE(Each.What);
        Provider.AddFile(u"\\srv\\vol\\a.txt", "0123456789");
        Provider.AddFile(u"\\srv\\vol\\b.txt", "theirs");
        const HANDLE Handle = OpenFile();
        const HANDLE Target = OpenTarget(u"\\srv\\vol\\b.txt");
        Provider.Edit([&](Tree &Tree) {
            Tree.FindVolume(u"\\srv\\vol")->Flags = Each.Identified ? RV_VOLUME_IDENTIFIER_VALID + 0u : 0u;
        });
        Rule &Rule = Provider.OnCall(Each.Question).Return(Each.Answer);
        if (Each.Nth != 0) {
            Rule.Nth(Each.Nth);
        }
        EXPECT_EQ(RenameThrough(Handle, Target, true), Each.Status);
        if (Each.Status != STATUS_SUCCESS) {
            EXPECT_EQ(Provider.CountCalls(Slot::DeleteFile) + Provider.CountCalls(Slot::MoveFile), 0u);
            ExpectBothThere();
            EXPECT_EQ(PathOf(Handle), u"\\srv\\vol\\a.txt");
        } else {
            ExpectNamed(Handle, u"\\srv\\vol\\b.txt");
            EXPECT_EQ(Provider.Content(u"\\srv\\vol\\b.txt"), "0123456789");
            EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\a.txt"));
        }
        Provider.ClearScript();
        Close(Target);
        Close(Handle);
    }
}

// ---- Over local directories, where one file has many names

struct AliasCase {
    const char *Name;
    std::u16string_view Source, Target;
    NTSTATUS Status;
    const char *Place; // where the file is afterwards
};

class Aliases : public RenameFixture, public testing::WithParamInterface<AliasCase> {
protected:
    void SetUp() override {
        std::filesystem::create_directories(Root_.File("vol/dir"));
        std::filesystem::create_directories(Root_.File("other"));
        std::filesystem::create_directory_symlink("dir", Root_.File("vol/link"));
        Root_.Write("vol/dir/f.txt", "mine");
        std::filesystem::create_hard_link(Root_.File("vol/dir/f.txt"), Root_.File("vol/dir/hard.txt"));
        Root_.Write("vol/theirs.txt", "theirs");
        Root_.Write("other/theirs.txt", "theirs");
        ASSERT_EQ(Local_.AddExport(u"\\\\srv\\vol", Root_.File("vol")), "");
        ASSERT_EQ(Local_.AddExport(u"\\\\srv\\other", Root_.File("other")), "");
        ASSERT_EQ(Local_.AddLinks({{u"\\\\dfs\\team", u"\\\\srv\\vol\\dir"}}), "");
        Interface_ = Local_.Interface();
        Start({.Provider = Interface_});
    }
    void TearDown() override {
        RenameFixture::TearDown();
        EXPECT_EQ(directory::ObjectsOf(Interface_), 0u);
        Interface_->Table->Release(Interface_);
    }

    ScratchDirectory Root_;
    DirectoryProvider Local_;
    RVIOM_FSD *Interface_ = nullptr;
};

TEST_P(Aliases, LoseNothing) {
    const AliasCase &Case = GetParam();
    const HANDLE Handle = MustOpen(Case.Source, WithoutData);
    EXPECT_EQ(Rename(Handle, Case.Target, true), Case.Status);
    EXPECT_EQ(PathOf(Handle), Case.Status == STATUS_SUCCESS ? Case.Target : Case.Source);
    Close(Handle);
    EXPECT_EQ(Root_.Read(Case.Place), "mine");
    EXPECT_EQ(Root_.Read("other/theirs.txt"), "theirs");
    const bool Replaces = std::string_view(Case.Place) == "vol/theirs.txt";
    EXPECT_EQ(Root_.Read("vol/theirs.txt"), Replaces ? "mine" : "theirs");
}

INSTANTIATE_TEST_SUITE_P(Names, Aliases,
                         testing::Values(AliasCase{"ADistributedPath", u"\\dfs\\team\\f.txt", u"\\srv\\vol\\dir\\f.txt",
                                                   STATUS_SUCCESS, "vol/dir/f.txt"},
                                         AliasCase{"BackThroughADistributedPath", u"\\srv\\vol\\dir\\f.txt",
                                                   u"\\dfs\\team\\F.TXT", STATUS_SUCCESS, "vol/dir/F.TXT"},
                                         AliasCase{"ALinkedDirectory", u"\\srv\\vol\\link\\f.txt",
                                                   u"\\srv\\vol\\dir\\f.txt", STATUS_SUCCESS, "vol/dir/f.txt"},
                                         AliasCase{"AHardLink", u"\\srv\\vol\\dir\\f.txt", u"\\srv\\vol\\dir\\hard.txt",
                                                   STATUS_OBJECT_NAME_COLLISION, "vol/dir/f.txt"},
                                         AliasCase{"AnotherFileThroughADistributedPath", u"\\dfs\\team\\f.txt",
                                                   u"\\srv\\vol\\theirs.txt", STATUS_SUCCESS, "vol/theirs.txt"},
                                         AliasCase{"AnotherVolume", u"\\srv\\vol\\dir\\f.txt",
                                                   u"\\srv\\other\\theirs.txt", STATUS_NOT_SAME_DEVICE,
                                                   "vol/dir/f.txt"}),
                         [](const auto &Info) { return std::string(Info.param.Name); });

// ---- Nothing but the letter case of a name changes, or what looks alike

class CaseOnly : public RenameFixture, public testing::WithParamInterface<bool> {}; // replace
INSTANTIATE_TEST_SUITE_P(Replace, CaseOnly, testing::Bool());

// The object itself is no obstacle, and is never deleted to make room for itself.
TEST_P(CaseOnly, OfAFileMovesByTheOldNameInTheTargetDirectory) {
    StartTracing(128);
    Provider.AddFile(u"\\srv\\vol\\d\\file.txt", "kept");
    const HANDLE Handle = OpenFile(u"\\srv\\vol\\d\\file.txt");
    const HANDLE Target = OpenTarget(u"\\srv\\vol\\D\\FILE.TXT");
    const RVHANDLE Directory = Instance(Target)->DirHandle;
    EXPECT_EQ(RenameThrough(Handle, Target, GetParam()), STATUS_SUCCESS);
    EXPECT_EQ(CallNames(), (Calls{"RVFsdMoveFile", "RVFsdCloseDirectory"}));
    const Call Move = Last(Slot::MoveFile);
    EXPECT_EQ(Move.Number("sourceBase"), Directory);
    EXPECT_EQ(Move.String("source"), u"file.txt");
    EXPECT_EQ(Move.Number("targetBase"), Directory);
    EXPECT_EQ(Move.String("target"), u"FILE.TXT");
    Close(Target);
    ExpectNamed(Handle, u"\\srv\\vol\\D\\FILE.TXT");
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\d\\FILE.TXT"), "kept");
    EXPECT_TRUE(WasPrinted("NtFsdFileSetRenameInfo determined \"file.txt\" and \"FILE.TXT\" represent a case-only "
                           "rename.\n"));
    EXPECT_TRUE(WasPrinted("NtFsdFileSetRenameInfo constructed pCaseOnlyRenameSourceName \"file.txt\".\n"));
    // Once more through the same handle, whose file object still has its first name.
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\d\\File.Txt", GetParam()), STATUS_SUCCESS);
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\d\\file.txt"), "kept");
    EXPECT_EQ(FcbPrefixCount, 1u);
}

// The FCB has the spelling of its first opener, the server perhaps another.
TEST_P(CaseOnly, ToTheNameThatItHasIsCarriedToTheServer) {
    Provider.AddFile(u"\\srv\\vol\\d\\f.txt", "kept");
    const HANDLE Handle = OpenFile(u"\\srv\\vol\\d\\f.txt");
    for (std::u16string_view Name : {u"\\srv\\vol\\d\\f.txt", u"\\SRV\\Vol\\D\\f.txt"}) {
        EXPECT_EQ(RenameTo(Handle, Name, GetParam()), STATUS_SUCCESS);
        EXPECT_EQ(Made(), (Calls{"RVFsdMoveFile", "RVFsdCloseDirectory"}));
        ExpectNamed(Handle, Name);
    }
    Provider.OnCall(Slot::MoveFile).Return(ProviderError(0x0510));
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\d\\f.txt", GetParam()), STATUS_SUCCESS) << "it collides with itself";
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\d\\f.txt"), "kept");
    // Directories alike.
    Provider.AddFile(u"\\srv\\vol\\e\\sub\\f.txt", "x");
    const HANDLE Directory = OpenDirectory(u"\\srv\\vol\\e\\sub");
    EXPECT_EQ(RenameTo(Directory, u"\\srv\\vol\\e\\SUB", GetParam()), STATUS_SUCCESS);
    EXPECT_EQ(Made(), (Calls{"RVFsdMoveDirectory", "RVFsdCloseDirectory"}));
    ExpectNamed(Directory, u"\\srv\\vol\\e\\SUB");
}

using NotCaseOnly = RenameFixture;

// Into itself, or where the target exists and is another file: it stays, or is deleted where that was asked for.
TEST_F(NotCaseOnly, IsWhatOnlyLooksAlike) {
    const std::string Cannot = "NtFsdFileSetRenameInfo determined cannot be case-only rename based on ";
    struct {
        std::u16string_view Source, Target;
        std::string Printed;
    } const Cases[] = {
        {u"\\srv\\vol\\f.txt", u"\\srv\\vol\\directory\\F.TXT",
         Cannot +
             "length:\n        source: \"\\srv\\vol\\f.txt\" (28)\n        target: \"\\srv\\vol\\directory\" (36)\n"},
        {u"\\srv\\vol\\docs2\\f.txt", u"\\srv\\vol\\docs\\F.TXT",
         Cannot + "parent directory backslash:\n        source: \"\\srv\\vol\\docs2\\f.txt\"\n        target: "
                  "\"\\srv\\vol\\docs\"\n"},
        {u"\\srv\\vol\\abcd\\f.txt", u"\\srv\\vol\\docs\\F.TXT",
         Cannot + "parent directory compare:\n        source: \"\\srv\\vol\\abcd\\f.txt\"\n        target: "
                  "\"\\srv\\vol\\docs\"\n"},
        // Of one name, but not directly in the target directory.
        {u"\\srv\\vol\\sub\\f.txt", u"\\srv\\vol\\F.TXT", "\"f.txt\" and \"F.TXT\" are not a case-only rename.\n"},
        {u"\\srv\\vol\\sub\\f.txt", u"\\srv\\vol\\f.txt", "\"f.txt\" and \"f.txt\" are not a case-only rename.\n"},
        // Of one length, and none in the other.
        {u"\\srv\\vol\\ab.txt", u"\\srv\\vol\\abcdef\\G",
         Cannot + "parent directory compare:\n        source: \"\\srv\\vol\\ab.txt\"\n        target: "
                  "\"\\srv\\vol\\abcdef\"\n"},
        // Only the end of the longer name is compared.
        {u"\\srv\\vol\\ff.txt", u"\\srv\\vol\\F.TXT",
         Cannot +
             "final component backslash:\n        source: \"\\srv\\vol\\ff.txt\"\n        target: \"\\srv\\vol\"\n"},
        {u"\\srv\\vol\\f.txt", u"\\srv\\vol\\G.TXT", "\"f.txt\" and \"G.TXT\" are not a case-only rename.\n"},
        {u"\\srv\\vol\\f.txt", u"\\srv\\vol\\F.TXT2", "\"f.txt\" and \"F.TXT2\" are not a case-only rename.\n"},
    };
    StartTracing(128);
    Provider.AddDirectory(u"\\srv\\vol\\d");
    EXPECT_EQ(RenameTo(OpenDirectory(u"\\srv\\vol\\d"), u"\\srv\\vol\\D\\d"), STATUS_OBJECT_PATH_INVALID);
    EXPECT_TRUE(WasPrinted("determined \"d\" and \"d\" are not a case-only rename.\n")) << Printed;
    for (const auto &Each : Cases) {
        Printed.clear();
        Provider.AddFile(Each.Source, "mine");
        Provider.AddFile(Each.Target, "theirs");
        const HANDLE Handle = OpenFile(Each.Source);
        EXPECT_EQ(RenameTo(Handle, Each.Target), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_TRUE(WasPrinted(Each.Printed)) << Printed;
        EXPECT_FALSE(WasPrinted("represent a case-only rename"));
        EXPECT_EQ(Provider.Content(Each.Target), "theirs");
        EXPECT_EQ(RenameTo(Handle, Each.Target, true), STATUS_SUCCESS);
        EXPECT_EQ(Provider.Content(Each.Target), "mine");
        EXPECT_FALSE(Provider.Exists(Each.Source));
        Close(Handle);
    }
}

} // namespace
