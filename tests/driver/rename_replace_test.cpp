// Renames that may replace a file: whatever is in the way, and by whatever name, no content is lost but the replaced
// file's.

#include <fstream>

#include "providers/directory/directory_provider.h"
#include "tests/driver/rename_client.h"

namespace {

using test::Open;

// ---- Over the scripted Provider
// ---------------------------------------------------------------------------------------

class Replacing : public test::RenameFixture {
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
    Provider.Edit(
        [](providers::Tree &Tree) { Tree.Find(u"\\srv\\vol\\b.txt")->Id = Tree.Find(u"\\srv\\vol\\a.txt")->Id; });
    const HANDLE Handle = OpenFile();
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_OBJECT_NAME_COLLISION); // the Provider's word
    EXPECT_EQ(Made(),
              (Calls{"RVFsdGetVolumeInformation", "RVFsdGetVolumeInformation", "RVFsdGetFileId", "RVFsdCreateFile",
                     "RVFsdGetFileId", "RVFsdCloseFile", "RVFsdMoveFile", "RVFsdCloseDirectory"}));
    ExpectBothThere();
    EXPECT_EQ(PathOf(Handle), u"\\srv\\vol\\a.txt");
    Close(Handle);
}

// The move would be refused: the file in its way would be gone for nothing.
TEST_F(Replacing, NothingIsDeletedInAVolumeThatTheFileCannotBeMovedInto) {
    for (const ULONG Flags : {RV_VOLUME_IDENTIFIER_VALID + 0u, 0u}) {
        Provider.Edit([=](providers::Tree &Tree) {
            providers::Volume &Other = Tree.AddVolume(u"\\srv\\vol2");
            Other.Identifier[0] = 0x77;
            Other.Flags = Flags;
        });
        Provider.AddFile(u"\\srv\\vol2\\b.txt", "theirs");
        const HANDLE Handle = OpenFile();
        EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol2\\b.txt", true), STATUS_NOT_SAME_DEVICE);
        EXPECT_EQ(Made(), (Calls{"RVFsdGetVolumeInformation", "RVFsdGetVolumeInformation", "RVFsdCloseDirectory"}));
        EXPECT_EQ(Provider.Content(u"\\srv\\vol2\\b.txt"), "theirs");
        ExpectBothThere();
        Close(Handle);
    }
}

TEST_F(Replacing, AVolumeThatBeginsBelowAnotherIsAnother) {
    Provider.OnCall(Slot::GetVolumeInformation).Nth(2).Answer([](providers::Outputs &Out) {
        *Out.VolumeFlags = RV_VOLUME_IDENTIFIER_VALID;
        memset(Out.Identifier, 0x77, 16);
    });
    const HANDLE Handle = OpenFile();
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_NOT_SAME_DEVICE);
    ExpectBothThere();
    Close(Handle);
}

// What cannot be told apart is replaced as it was asked for.
class UntoldReplacing : public Replacing, public testing::WithParamInterface<int> {};

TEST_P(UntoldReplacing, IsCarriedOut) {
    const HANDLE Handle = OpenFile();
    switch (GetParam()) {
    case 0:
        Provider.Edit([](providers::Tree &Tree) { Tree.FindVolume(u"\\srv\\vol")->Flags = 0; });
        break;
    case 1:
        Provider.OnCall(Slot::GetFileId).Nth(1).Return(test::RvError(0x0102));
        break;
    case 2:
        Provider.OnCall(Slot::GetFileId).Nth(2).Return(test::RvError(0x0102));
        break;
    default:
        break;
    }
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\b.txt", true), STATUS_SUCCESS);
    ExpectNamed(Handle, u"\\srv\\vol\\b.txt");
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\b.txt"), "0123456789");
    EXPECT_FALSE(Provider.Exists(u"\\srv\\vol\\a.txt"));
    Close(Handle);
}

INSTANTIATE_TEST_SUITE_P(Reasons, UntoldReplacing, testing::Values(0, 1, 2));

// ---- Over local directories, where one file has many names
// ----------------------------------------------------------

struct AliasCase {
    const char *Name;
    std::u16string_view Source;
    std::u16string_view Target;
    NTSTATUS Status;
    const char *Place; // where the file is afterwards
};

class Aliases : public test::RenameFixture, public testing::WithParamInterface<AliasCase> {
protected:
    void SetUp() override {
        char Template[] = "/tmp/rename-test-XXXXXX";
        ASSERT_NE(mkdtemp(Template), nullptr);
        Root_ = Template;
        std::filesystem::create_directories(Root_ / "vol/dir");
        std::filesystem::create_directories(Root_ / "other");
        std::filesystem::create_directory_symlink("dir", Root_ / "vol/link");
        Write("vol/dir/f.txt", "mine");
        std::filesystem::create_hard_link(Root_ / "vol/dir/f.txt", Root_ / "vol/dir/hard.txt");
        Write("vol/theirs.txt", "theirs");
        Write("other/theirs.txt", "theirs");
        ASSERT_EQ(Local_.AddExport(u"\\\\srv\\vol", Root_ / "vol"), "");
        ASSERT_EQ(Local_.AddExport(u"\\\\srv\\other", Root_ / "other"), "");
        ASSERT_EQ(Local_.AddLinks({{u"\\\\dfs\\team", u"\\\\srv\\vol\\dir"}}), "");
        Interface_ = Local_.Interface();
        Start({.Provider = Interface_});
    }
    void TearDown() override {
        test::RenameFixture::TearDown();
        EXPECT_EQ(Local_.OpenHandles(), 0u);
        Interface_->Table->Release(Interface_);
        std::filesystem::remove_all(Root_);
    }
    void Write(const char *Name, const char *Content) {
        std::ofstream(Root_ / Name) << Content;
    }
    std::string Content(const char *Name) {
        std::ifstream File(Root_ / Name);
        return {std::istreambuf_iterator<char>(File), {}};
    }

    std::filesystem::path Root_;
    providers::DirectoryProvider Local_;
    RVIOM_FSD *Interface_ = nullptr;
};

TEST_P(Aliases, LoseNothing) {
    const AliasCase &Case = GetParam();
    const HANDLE Handle = MustOpen(Case.Source, WithoutData);
    EXPECT_EQ(Rename(Handle, Case.Target, true), Case.Status);
    EXPECT_EQ(PathOf(Handle), Case.Status == STATUS_SUCCESS ? Case.Target : Case.Source);
    Close(Handle);
    EXPECT_EQ(Content(Case.Place), "mine");
    EXPECT_EQ(Content("other/theirs.txt"), "theirs");
    const bool Replaces = std::string_view(Case.Place) == "vol/theirs.txt";
    EXPECT_EQ(Content("vol/theirs.txt"), Replaces ? "mine" : "theirs");
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

} // namespace
