// put and cp: bytes arrive whole or not at all, and nothing is overwritten unasked.

#include <csignal>
#include <sys/xattr.h>

#include "tests/app/program.h"

namespace {

using namespace test;
using namespace testing;

class ProgramCopy : public ProgramOverExport {
protected:
    ProgramCopy() {
        // More than two buffers, and no multiple of anything.
        for (size_t Index = 0; Bytes.size() < (5u << 19) + 77; ++Index) {
            Bytes += std::to_string(Index * 2654435761u) + '\n';
        }
        Local.Write("big", Bytes);
        Served.Write("there", "old");
    }

    void Succeeds(const std::vector<std::string> &Words, std::string_view Input = {}) const {
        EXPECT_EQ(Out(Words, Input), "");
    }
    void Fails(const std::vector<std::string> &Words, const std::string &Message) const {
        ExpectRefused(Words, 1, Message);
    }

    // Gives a file another owner where that may be done, rights for one user more, and a note.
    static void Mark(const std::string &File) {
        static_cast<void>(chown(File.c_str(), 1234, 1235) == 0 || errno == EPERM);
        ASSERT_EQ(chmod(File.c_str(), 0640), 0);
        setxattr(File.c_str(), "system.posix_acl_access", AccessList, sizeof AccessList, 0);
        setxattr(File.c_str(), "user.note", "mark", 4, 0);
    }
    static std::string Marks(const std::string &File) {
        struct stat Status = {};
        EXPECT_EQ(stat(File.c_str(), &Status), 0);
        std::string All = fmt::format("{} {} {:o}", Status.st_uid, Status.st_gid, Status.st_mode);
        for (const char *Name : {"system.posix_acl_access", "user.note"}) {
            char Value[256];
            const ssize_t Size = getxattr(File.c_str(), Name, Value, sizeof Value);
            All += fmt::format(" {}", testing::PrintToString(std::string(Value, std::max<ssize_t>(Size, 0))));
        }
        return All;
    }
    // Version 2; owner rw-, user 1236 r--, group ---, mask r--, others ---.
    static constexpr unsigned char AccessList[] = {2,  0, 0, 0,                      //
                                                   1,  0, 6, 0, 255,  255, 255, 255, //
                                                   2,  0, 4, 0, 0xD4, 4,   0,   0,   //
                                                   4,  0, 0, 0, 255,  255, 255, 255, //
                                                   16, 0, 4, 0, 255,  255, 255, 255, //
                                                   32, 0, 0, 0, 255,  255, 255, 255};

    ScratchDirectory Local;
    std::string Bytes;
};

TEST_F(ProgramCopy, GoesInOutAndAcross) {
    Succeeds({"cp", Local.File("big"), R"(\\srv\vol\in)"});
    EXPECT_EQ(Served.Read("in"), Bytes);
    Succeeds({"cp", R"(\\srv\vol\in)", R"(\\srv\vol\across)"});
    EXPECT_EQ(Served.Read("across"), Bytes);
    Succeeds({"cp", "//srv/vol/across", Local.File("out")});
    EXPECT_EQ(Local.Read("out"), Bytes);
    Succeeds({"mkdir", R"(\\srv\vol\dir)"});
    Succeeds({"cp", Local.File("big"), R"(\\srv\vol\dir)"});
    EXPECT_EQ(Served.Read("dir/big"), Bytes) << "a directory takes it in";
    Succeeds({"cp", R"(\\srv\vol\across)", Local.Path().string()});
    EXPECT_EQ(Local.Read("across"), Bytes);
    Succeeds({"put", Local.File("big"), R"(\\srv\vol\put)"});
    EXPECT_EQ(Served.Read("put"), Bytes);
    Succeeds({"put", "-", R"(\\srv\vol\stdin)"}, "of standard input");
    EXPECT_EQ(Served.Read("stdin"), "of standard input");
    Succeeds({"put", "-", R"(\\srv\vol\empty)"});
    EXPECT_TRUE(Served.Has("empty"));
    Succeeds({"get", R"(\\srv\vol\p*)", Local.Path().string()});
    EXPECT_EQ(Local.Read("put"), Bytes);
    for (const std::vector<std::string> &Words :
         {std::vector<std::string>{"cat", R"(\\srv\vol\ac*)"}, {"get", R"(\\srv\vol\across)", "-"}}) {
        EXPECT_EQ(Run(Words).Out, Bytes);
    }
}

TEST_F(ProgramCopy, OverwritesOnlyWithForce) {
    Local.Write("there", "old");
    for (const char *Verb : {"cp", "put"}) {
        Fails({Verb, Local.File("big"), R"(\\srv\vol\THERE)"},
              "STATUS_OBJECT_NAME_COLLISION (0xC0000035): \\\\srv\\vol\\THERE; --force replaces a file\n");
    }
    Served.Write("small", "new");
    Fails({"cp", R"(\\srv\vol\small)", Local.File("there")},
          Local.File("there") + ": File exists; --force replaces it\n");
    EXPECT_EQ(Served.Read("there"), "old");
    EXPECT_EQ(Local.Read("there"), "old");

    Succeeds({"cp", "--force", R"(\\srv\vol\small)", R"(\\srv\vol\there)"});
    EXPECT_EQ(Served.Read("there"), "new");
    Local.Write("there", Bytes);
    Mark(Local.File("there"));
    const std::string Before = Marks(Local.File("there"));
    Succeeds({"cp", "--force", R"(\\srv\vol\small)", Local.File("there")});
    EXPECT_EQ(Local.Read("there"), "new") << "what was longer is cut";
    EXPECT_EQ(Marks(Local.File("there")), Before);

    // What replaces a file has its attributes, and is another file unless it is written in place.
    Succeeds({"attrib", "+h", R"(\\srv\vol\there)"});
    std::filesystem::create_hard_link(Served.File("there"), Served.File("link"));
    Succeeds({"put", "--inplace", "-f", Local.File("big"), R"(\\srv\vol\there)"});
    EXPECT_EQ(Served.Read("link"), Bytes);
    Mark(Served.File("there"));
    Succeeds({"put", "-f", "-", R"(\\srv\vol\there)"}, "newer");
    EXPECT_EQ(Served.Read("there"), "newer");
    EXPECT_EQ(Marks(Served.File("there")), Before);
    EXPECT_EQ(Served.Read("link"), Bytes);
    EXPECT_THAT(Run({"ls", "-l", R"(\\srv\vol\there)"}).Out, StartsWith("--h--"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Served.Path()), {}), 3) << "no part is left";
    Succeeds({"attrib", "+r", R"(\\srv\vol\there)"});
    Fails({"put", "-f", Local.File("big"), R"(\\srv\vol\there)"},
          "STATUS_ACCESS_DENIED (0xC0000022): \\\\srv\\vol\\there is read-only; attrib -r changes that\n");
    Succeeds({"cp", "-fp", R"(\\srv\vol\there)", R"(\\srv\vol\link)"});
    EXPECT_THAT(Run({"ls", "-l", R"(\\srv\vol\link)"}).Out, StartsWith("-rh--"));
    EXPECT_EQ(Served.Read("link"), "newer");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Served.Path()), {}), 3);
}

TEST_F(ProgramCopy, NeverEmptiesAFileByCopyingItOntoItself) {
    std::filesystem::create_hard_link(Served.File("there"), Served.File("link"));
    const std::pair<std::string, std::string> Pairs[] = {
        {R"(\\srv\vol\there)", R"(\\srv\vol\there)"}, {R"(\\srv\vol\there)", R"(\\SRV\VOL\THERE)"},
        {R"(\\srv\vol\there)", R"(\\srv\vol\link)"},  {R"(\\srv\vol\there)", Served.File("link")},
        {Served.File("link"), R"(\\srv\vol\there)"},
    };
    for (const auto &[From, To] : Pairs) {
        Fails({"cp", "--force", From, To}, To + ": source and target are the same file\n");
        EXPECT_EQ(Served.Read("there"), "old") << From << " to " << To;
    }
}

TEST_F(ProgramCopy, RemovesAPartThatItMadeAndNothingElse) {
    const std::string Quota = R"(\\srv\vol=1500000)";
    Fails({"--quota", Quota, "cp", Local.File("big"), R"(\\srv\vol\part)"},
          "STATUS_QUOTA_EXCEEDED (0xC0000044): \\\\srv\\vol\\part\n");
    EXPECT_FALSE(Served.Has("part"));
    Fails({"--quota", Quota, "cp", "--force", Local.File("big"), R"(\\srv\vol\there)"}, "STATUS_QUOTA_EXCEEDED");
    EXPECT_EQ(Served.Read("there"), "old") << "it was there before, and is whole";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Served.Path()), {}), 1);

    // A source that opens and cannot be read.
    Fails({"put", Local.Path().string(), R"(\\srv\vol\part)"}, Local.Path().string() + ": a directory; -r copies");
    EXPECT_FALSE(Served.Has("part"));
    Fails({"cp", R"(\\srv\vol\nope)", Local.File("out")}, "STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): ");
    EXPECT_FALSE(Local.Has("out"));
    Fails({"put", Local.File("big"), R"(\\srv\vol\part\)"}, "\\\\srv\\vol\\part: there is no such directory\n");
    Fails({"put", "-", R"(\\srv\vol)"}, "STATUS_FILE_IS_A_DIRECTORY (0xC00000BA): \\\\srv\\vol; name the file in it\n");
    Fails({"cp", Local.File("nope"), R"(\\srv\vol\part)"}, Local.File("nope") + ": No such file or directory\n");
    EXPECT_FALSE(Served.Has("part"));
    Fails({"cp", R"(\\srv\vol\there)", Local.File("no/where")}, Local.File("no/where") + ": No such file or directory");
}

TEST_F(ProgramCopy, CtrlCEndsItCleanly) {
    const Ran Broken =
        test::RunProgramWith(Line({"put", "-f", "-", R"(\\srv\vol\there)"}), [this](pid_t Child, int Input) {
            // Once the program has taken most of it, its target is open.
            for (size_t At = 0; At < Bytes.size();) {
                const ssize_t Put = write(Input, Bytes.data() + At, Bytes.size() - At);
                ASSERT_GT(Put, 0);
                At += static_cast<size_t>(Put);
            }
            kill(Child, SIGINT);
        });
    EXPECT_EQ(Broken.Code, 130);
    EXPECT_EQ(Broken.Error, "interrupted\n") << "or something was left behind in the driver";
    EXPECT_EQ(Served.Read("there"), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Served.Path()), {}), 1);
}

TEST_F(ProgramCopy, DirectoriesGoWithAllBelow) {
    std::filesystem::create_directories(Local.Path() / "tree" / "sub" / "empty");
    Local.Write("tree/a", "a");
    Local.Write("tree/sub/b", "b");
    Fails({"cp", Local.File("tree"), R"(\\srv\vol)"}, Local.File("tree") + ": a directory; -r copies directories\n");
    Succeeds({"cp", "-r", Local.File("tree"), Local.File("big"), R"(\\srv\vol\)"});
    EXPECT_EQ(Served.Read("tree/sub/b") + Served.Read("big"), "b" + Bytes);
    Succeeds({"cp", "-r", R"(\\srv\vol\tree)", R"(\\srv\vol\twin)"});
    EXPECT_TRUE(Served.Has("twin/sub/empty"));
    Succeeds({"get", "-r", R"(\\srv\vol\twin\)", Local.File("back")});
    EXPECT_EQ(Local.Read("back/a") + Local.Read("back/sub/b"), "ab");
    // Times go with them, in, across and out.
    const auto Old = std::filesystem::file_time_type(std::chrono::seconds(-1'000'000'000));
    std::filesystem::last_write_time(Local.Path() / "tree" / "sub", Old);
    Succeeds({"cp", "-rp", Local.File("tree"), R"(\\srv\vol\kept)"});
    EXPECT_THAT(Run({"cp", "-av", R"(\\srv\vol\kept)", R"(\\srv\vol\again)"}).Out,
                HasSubstr("\\\\srv\\vol\\kept\\sub\\b -> \\\\srv\\vol\\again\\sub\\b\n"));
    Succeeds({"get", "-rp", R"(\\srv\vol\again)", Local.File("kept")});
    for (const std::string &Copy : {Served.File("kept/sub"), Served.File("again/sub"), Local.File("kept/sub")}) {
        EXPECT_EQ(std::filesystem::last_write_time(Copy), Old) << Copy;
    }
    for (const std::string &Inside : {std::string(R"(\\srv\vol\twin\sub)"), Served.File("twin/sub/new")}) {
        const Ran Refused = Run({"cp", "-r", R"(\\SRV\vol\TWIN)", Inside});
        EXPECT_EQ(Refused.Code, 1);
        EXPECT_TRUE(Refused.Error.ends_with(": a directory is not copied into itself\n")) << Refused.Error;
    }
    // One that fails does not keep the others.
    const Ran Some = Run({"cp", "-r", R"(\\srv\vol\tree)", R"(\\srv\vol\nope)", Local.Path().string()});
    EXPECT_EQ(Some.Code, 1);
    EXPECT_THAT(Some.Error, testing::HasSubstr("STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034): \\\\srv\\vol\\nope\n"));
}

} // namespace
