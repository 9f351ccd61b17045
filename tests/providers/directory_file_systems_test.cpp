// File systems that keep less than others, that fold case themselves, that come and go, and one that never answers; and
// what the kernel runs out of. Root alone may mount: for others these tests skip.
#include <cstdlib>
#include <future>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <malloc.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "providers/directory/beneath.h"
#include "tests/providers/directory_fixture.h"

namespace providers::directory {
namespace {

namespace fs = std::filesystem;

constexpr RVSTATUS Done = RVSTATUS::Success;
constexpr RVSTATUS Missing = Failure(CODE_NO_SUCH_FILE);

class FileSystems : public DirectoryProviderTest {
protected:
    // In mounts of its own, so that none stays whatever happens.
    void SetUp() override {
        MayMount = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        DirectoryProviderTest::SetUp();
    }
    RVSTATUS Set(const std::u16string &Path, ULONG Attributes, LONG64 LastWrite = 0) {
        RVHANDLE Handle = 0;
        EXPECT_EQ(Open(Path, Handle, RV_ACCESS_ATTRIBUTES), Done);
        const RVSTATUS Status = Table->RVFsdSetFileInformation(
            Fsd, nullptr, Handle, Attributes != 0 ? &Attributes : nullptr, nullptr, &LastWrite, nullptr);
        Close(Handle);
        return Status;
    }
    std::pair<ULONG, LONG64> Get(const std::u16string &Path) {
        RVHANDLE Handle = 0;
        ULONG Attributes = 0;
        LONG64 LastWrite = 0;
        EXPECT_EQ(Open(Path, Handle, RV_ACCESS_ATTRIBUTES), Done);
        EXPECT_EQ(Table->RVFsdGetBasicFileInformation(Fsd, nullptr, Handle, &Attributes, nullptr, &LastWrite, nullptr),
                  Done);
        Close(Handle);
        return {Attributes, LastWrite};
    }

    bool MayMount = false;
};

TEST_F(FileSystems, WhatOneCannotKeepIsRefusedAndNotDropped) {
    if (!MayMount) {
        GTEST_SKIP() << "file systems have to be mounted";
    }
    const struct {
        const char16_t *Name;
        const char *Make;
        bool Attributes, AnyTime, FoldsAndSaysSo;
    } Cases[] = {
        {u"ramfs", "mount -t ramfs ramfs ramfs", false, true, false},
        {u"seconds", "mkfs.ext4 -q -I 128 -O ^has_journal old 2M && mount -o loop old seconds", true, false, false},
        {u"folds", "mkfs.ext4 -q -O casefold,^has_journal -E encoding=utf8 new 2M && mount -o loop new folds", true,
         false, true},
        {u"fat", "mkfs.vfat -C stick 2048 && mount -o loop stick fat", false, false, false},
        {u"exfat", "truncate -s 8M card && mkfs.exfat card && mount -o loop card exfat", false, false, false},
    };
    const auto First = std::pair{Root, Volume};
    std::string Skipped;
    for (const auto &Case : Cases) {
        Root = Outer / Case.Name;
        SCOPED_TRACE(Root);
        fs::create_directory(Root);
        if (system(fmt::format("cd {} && ({}) >/dev/null 2>&1", Outer.string(), Case.Make).c_str()) != 0) {
            Skipped += " " + Root.filename().string();
            continue;
        }
        ASSERT_EQ(Provider.AddExport(u"fs", Case.Name, Root, {.UseNotifications = false}), "");
        ASSERT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, (std::u16string(u"\\fs\\") + Case.Name).c_str(), &Volume), Done);
        // Changes are seen, however coarse its time stamps are.
        for (int Round = 0; Round < 20; ++Round) {
            EXPECT_EQ(Try(u"FILE"), Missing);
            Write("File", "now");
            EXPECT_EQ(Content(u"FILE"), "now");
            fs::remove(Root / "File");
        }
        RVHANDLE Handle = 0;
        const RVSTATUS Hidden = Case.Attributes ? Done : Failure(CODE_NOT_SUPPORTED);
        EXPECT_EQ(Open(u"hidden", Handle, RV_ACCESS_READ, RV_DISPOSITION_CREATE_NEW, 7, RV_ATTR_HIDDEN), Hidden);
        EXPECT_EQ(fs::exists(Root / "hidden"), Case.Attributes);
        if (Handle != 0) {
            Close(Handle);
        }
        Write("file", "text");
        EXPECT_EQ(Set(u"file", RV_ATTR_HIDDEN), Hidden);
        EXPECT_EQ(Get(u"file").first & RV_ATTR_HIDDEN, Case.Attributes ? ULONG{RV_ATTR_HIDDEN} : 0u);
        EXPECT_EQ(Set(u"file", RV_ATTR_READONLY), Done);
        EXPECT_EQ(Get(u"file").first, ULONG{RV_ATTR_READONLY});
        // A time of the year 2700 and one that is none; one that it has and the platform does not.
        const LONG64 Before = Get(u"file").second;
        constexpr LONG64 Late = 0x4D00000'00000000;
        EXPECT_EQ(Set(u"file", 0, Late), Case.AnyTime ? Done : RVSTATUS::InvalidParameter);
        EXPECT_EQ(Get(u"file").second, Case.AnyTime ? Late : Before);
        for (const time_t Seconds : {time_t{-20'000'000'000}, time_t{1'000'000'000'000}}) {
            const timespec Times[2] = {{Seconds, 0}, {Seconds, 0}};
            EXPECT_EQ(utimensat(AT_FDCWD, (Root / "file").c_str(), Times, 0), 0);
            EXPECT_TRUE(!Case.AnyTime || Get(u"file").second == (Seconds < 0 ? 0 : INT64_MAX));
        }
        // What finds names in any case itself is not read for one.
        fs::create_directory(Root / "fold");
        const UniqueFd Fold(open((Root / "fold").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        int Flags = 0;
        EXPECT_EQ(ioctl(Fold.Get(), FS_IOC_GETFLAGS, &Flags) == 0 && (Flags |= FS_CASEFOLD_FL) != 0 &&
                      ioctl(Fold.Get(), FS_IOC_SETFLAGS, &Flags) == 0,
                  Case.FoldsAndSaysSo);
        Write("fold/File", "folded");
        const size_t Scans = Provider.Exports().back().DirectoryScans;
        EXPECT_EQ(Content(u"fold\\FILE"), "folded");
        EXPECT_EQ(Try(u"fold\\other"), Missing);
        EXPECT_EQ(Try(u"fold\\fILE", RV_ACCESS_WRITE, RV_DISPOSITION_CREATE_NEW), Failure(CODE_EXISTS));
        EXPECT_EQ(Provider.Exports().back().DirectoryScans == Scans, Case.FoldsAndSaysSo);
        EXPECT_EQ(Move(u"fold\\file", u"fold\\FILE"), Done);
        EXPECT_EQ(fs::directory_iterator(Root / "fold")->path().filename(), "FILE");
        Table->RVFsdCloseVolume(Fsd, nullptr, Volume);
        umount2(Root.c_str(), MNT_DETACH);
    }
    std::tie(Root, Volume) = First;
    if (!Skipped.empty()) {
        GTEST_SKIP() << "not to be had:" << Skipped;
    }
}

TEST_F(FileSystems, MountsAreSeenAndOneThatHangsHangsWhoAsks) {
    if (!MayMount) {
        GTEST_SKIP() << "file systems have to be mounted";
    }
    Write("File", "here");
    fs::create_directory(Root / "Dir");
    Write("Dir/Below", "below");
    for (int Round = 0; Round < 2; ++Round) {
        EXPECT_EQ(Content(u"DIR\\BELOW"), "below");
        ASSERT_EQ(mount("ramfs", (Root / "Dir").c_str(), "ramfs", 0, nullptr), 0);
        EXPECT_EQ(Try(u"dir\\below"), Missing);
        Write("Dir/Mounted", "mounted");
        EXPECT_EQ(Content(u"DIR\\MOUNTED"), "mounted");
        ASSERT_EQ(umount2((Root / "Dir").c_str(), 0), 0) << "a mount is held on to";
        EXPECT_EQ(Try(u"dir\\mounted"), Missing);
    }
    UniqueFd Nobody(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!Nobody || mount("hung", (Root / "Dir").c_str(), "fuse", 0,
                         fmt::format("fd={},rootmode=40000,user_id=0,group_id=0", Nobody.Get()).c_str()) != 0) {
        GTEST_SKIP() << "FUSE is not to be had";
    }
    std::promise<void> Begun;
    auto Asked = std::async(std::launch::async, [&] {
        Begun.set_value();
        RVHANDLE Folder = 0;
        return OpenFolder(u"Dir\\below", Folder);
    });
    Begun.get_future().wait();
    EXPECT_EQ(Content(u"FILE"), "here");
    EXPECT_EQ(Try(u"New", RV_ACCESS_WRITE, RV_DISPOSITION_CREATE_NEW), Done);
    EXPECT_EQ(Move(u"NEW", u"newer"), Done);
    EXPECT_EQ(Delete(u"NEWER"), Done);
    EXPECT_EQ(Try(u"missing"), Missing);
    EXPECT_EQ(Asked.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "nothing hung";
    Nobody = UniqueFd();
    EXPECT_TRUE(RvIsError(Asked.get()));
    EXPECT_EQ(umount2((Root / "Dir").c_str(), MNT_DETACH), 0);
    EXPECT_EQ(Content(u"DIR\\BELOW"), "below");
}

TEST_F(FileSystems, ChangesAreSeenWhenTheKernelLosesEventsAndHasNoWatchesLeft) {
    Write("File", "");
    EXPECT_EQ(Try(u"FILE"), Done);
    // More events than the queue has room for.
    std::ifstream Limit("/proc/sys/fs/inotify/max_queued_events");
    int Events = 16384;
    Limit >> Events;
    for (int Event = 0; Event < Events && Event < 100'000; Event += 4) {
        ASSERT_EQ(rename((Root / "File").c_str(), (Root / "Other").c_str()), 0);
        ASSERT_EQ(rename((Root / "Other").c_str(), (Root / "File").c_str()), 0);
    }
    Write("Last", "last");
    const size_t Scans = Provider.Exports()[0].DirectoryScans;
    EXPECT_EQ(Content(u"LAST"), "last");
    EXPECT_EQ(Provider.Exports()[0].DirectoryScans, Scans + 1) << "no event was lost";

    fs::create_directories(Root / "One");
    fs::create_directories(Root / "Two");
    const pid_t Child = fork();
    if (Child == 0) {
        // 1: it works; 2: that cannot be tried here.
        if (unshare(CLONE_NEWUSER) != 0 || !(std::ofstream("/proc/sys/user/max_inotify_watches") << 1 << std::flush)) {
            _exit(2);
        }
        DirectoryProvider Own;
        bool Right = Own.AddExport(u"srv", u"own", Root).empty();
        RVIOM_FSD *To = Own.Interface();
        for (int Round = 0; Round < 5; ++Round) {
            for (const char16_t *Path : {u"\\srv\\own\\One\\NEW", u"\\srv\\own\\Two\\NEW"}) {
                const fs::path File = Root / (Path[9] == u'O' ? "One/new" : "Two/new");
                for (const bool There : {false, true}) {
                    RVHANDLE Handle = 0;
                    const RVSTATUS Status = To->Table->RVFsdCreateFile(
                        To, nullptr, 0, Path, RV_ACCESS_READ, 7, RV_DISPOSITION_OPEN_EXISTING, 0, 0, &Handle, &Action);
                    Right = Right && RvIsError(Status) != There;
                    if (There) {
                        To->Table->RVFsdCloseFile(To, nullptr, Handle);
                        fs::remove(File);
                    } else {
                        std::ofstream{File};
                    }
                }
            }
        }
        _exit(Right ? 1 : 0);
    }
    int Status = 0;
    ASSERT_EQ(waitpid(Child, &Status, 0), Child);
    EXPECT_TRUE(WIFEXITED(Status) && WEXITSTATUS(Status) != 0) << Status;
}

// Of a tree deeper than there are descriptors.
TEST_F(FileSystems, FewDescriptorsCountADeepTreeForItsQuota) {
    std::string Path = "deep";
    for (int Depth = 0; Depth < 40; ++Depth) {
        fs::create_directory(Root / Path);
        Write(Path + "/file", "12345");
        Path += "/d";
    }
    rlimit Before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &Before), 0);
    const UniqueFd Next(dup(0));
    const rlimit Few{static_cast<rlim_t>(Next.Get()) + 18, Before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &Few), 0);
    EXPECT_EQ(Provider.AddExport(u"srv", u"quota", Root, {.QuotaBytes = 5000}), "");
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &Before), 0);
    RVHANDLE Quota = 0;
    ULONG64 After = 0;
    ASSERT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\srv\\quota", &Quota), Done);
    EXPECT_EQ(Table->RVFsdGetVolumeSize(Fsd, nullptr, Quota, nullptr, nullptr, nullptr, &After), Done);
    EXPECT_EQ(After, 5000u - 40 * 5);
    EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, Quota), Done);
}

// RVFSD_OPEN_FILES has another number of distinct files. Opens beyond the limit say why they end.
TEST_F(FileSystems, AsManyFilesAreOpenAsThereAreDescriptors) {
    const char *Wanted = std::getenv("RVFSD_OPEN_FILES");
    const size_t Files = Wanted != nullptr ? std::strtoul(Wanted, nullptr, 10) : 1000;
    rlimit Before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &Before), 0);
    const UniqueFd Next(dup(0));
    // Some are the Provider's own, and the test may have been started with one or two beyond the first that is free.
    const size_t Tried = Files + 12;
    const rlim_t Limit = static_cast<rlim_t>(Next.Get()) + Tried;
    const rlimit Enough{Limit, std::max(Limit, Before.rlim_max)};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &Enough), 0) << Limit << " descriptors are not to be had";
    fs::create_directory(Root / "many");
    for (size_t Index = 0; Index < Tried; ++Index) {
        Write(fmt::format("many/File {}", Index), std::to_string(Index));
    }
    std::vector<RVHANDLE> Opened;
    RVHANDLE File = 0;
    const size_t Memory = mallinfo2().uordblks + mallinfo2().hblkhd;
    RVSTATUS Ended = Done;
    while (Opened.size() < Tried &&
           !RvIsError(Ended = Open(u"many\\file " + ServedNumber(static_cast<int>(Opened.size())), File))) {
        Opened.push_back(File);
    }
    EXPECT_EQ(Ended, Failure(0x0504));
    ASSERT_GE(Opened.size(), Files);
    const size_t Each = (mallinfo2().uordblks + mallinfo2().hblkhd - Memory) / Opened.size();
    for (const size_t Index : {size_t{0}, Files / 2, Files - 1}) {
        std::string Text;
        EXPECT_EQ(ReadAt(Opened[Index], 0, 10, Text), Done);
        EXPECT_EQ(Text, std::to_string(Index));
    }
    Close(Opened.back());
    EXPECT_EQ(Open(u"many\\FILE 0", Opened.back(), RV_ACCESS_ATTRIBUTES), Done);
    for (const RVHANDLE Handle : Opened) {
        Close(Handle);
    }
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &Before), 0);
    // Said only now: the sanitizer looks at the stream by a descriptor.
    std::cout << Opened.size() << " files were open, each for " << Each << " bytes, its name's among them\n";
}

} // namespace
} // namespace providers::directory
