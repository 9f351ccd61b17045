// Renames that change nothing but the letter case of a name, and those that look alike.

#include "tests/driver/rename_client.h"

namespace {

using providers::Slot;

class CaseOnly : public test::RenameFixture, public testing::WithParamInterface<bool> {}; // replace
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
    const providers::Call Move = Last(Slot::MoveFile);
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
    Provider.OnCall(providers::Slot::MoveFile).Return(test::RvError(0x0510));
    EXPECT_EQ(RenameTo(Handle, u"\\srv\\vol\\d\\f.txt", GetParam()), STATUS_SUCCESS) << "it collides with itself";
    EXPECT_EQ(Provider.Content(u"\\srv\\vol\\d\\f.txt"), "kept");
    // Directories alike.
    Provider.AddFile(u"\\srv\\vol\\e\\sub\\f.txt", "x");
    const HANDLE Directory = OpenDirectory(u"\\srv\\vol\\e\\sub");
    EXPECT_EQ(RenameTo(Directory, u"\\srv\\vol\\e\\SUB", GetParam()), STATUS_SUCCESS);
    EXPECT_EQ(Made(), (Calls{"RVFsdMoveDirectory", "RVFsdCloseDirectory"}));
    ExpectNamed(Directory, u"\\srv\\vol\\e\\SUB");
}

using NotCaseOnly = test::RenameFixture;

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
