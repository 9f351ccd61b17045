// What the directory Provider's names cost, called without the driver, beside the same facts fetched natively: opens of
// known, missing and otherwise spelled names, creates and deletes in a large directory, two threads, and what idle
// opens and known names hold.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include "bench/rows.h"
#include "providers/directory/directory_provider.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr ULONG ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr unsigned SmallEntries = 100;

// The entries of the large directory; RVFSD_BENCH_NAMES has another number.
unsigned LargeEntries() {
    const char *Wanted = std::getenv("RVFSD_BENCH_NAMES");
    return Wanted != nullptr ? static_cast<unsigned>(std::strtoul(Wanted, nullptr, 10)) : 200'000;
}

std::string NameOf(unsigned Index) {
    return fmt::format("Known Name {:07}.txt", Index);
}

// Asked one by one: to list them takes one more, and when all are in use there is none.
size_t Descriptors() {
    rlimit Limit{};
    if (getrlimit(RLIMIT_NOFILE, &Limit) != 0) {
        Fail("no limit of descriptors is to be had");
    }
    size_t Used = 0;
    for (int Each = 0; static_cast<rlim_t>(Each) < Limit.rlim_cur; ++Each) {
        Used += fcntl(Each, F_GETFD) >= 0 ? 1 : 0;
    }
    return Used;
}

// Two directories of a few entries and a large one, in memory and served. Gone with the program.
class Served {
public:
    static Served &Get() {
        static Served Instance;
        return Instance;
    }
    Served(const Served &) = delete;
    Served &operator=(const Served &) = delete;

    std::string Native(const std::string &Name) const {
        return Root_ + "/" + Name;
    }
    static std::u16string Path(std::string Name) {
        std::replace(Name.begin(), Name.end(), '/', '\\');
        return {Name.begin(), Name.end()};
    }
    // Opens and closes; whether it was there.
    bool Try(const std::u16string &Path, ULONG Access = RV_ACCESS_READ,
             ULONG Disposition = RV_DISPOSITION_OPEN_EXISTING) const {
        RVHANDLE File = 0;
        if (RvIsError(Open(Path, File, Access, Disposition))) {
            return false;
        }
        Close(File);
        return true;
    }
    RVSTATUS Open(const std::u16string &Path, RVHANDLE &File, ULONG Access, ULONG Disposition) const {
        ULONG Action = 0;
        return To_->Table->RVFsdCreateFile(To_, nullptr, Volume_, Path.c_str(), Access, ShareAll, Disposition, 0, 0,
                                           &File, &Action);
    }
    void Close(RVHANDLE File) const {
        To_->Table->RVFsdCloseFile(To_, nullptr, File);
    }
    void Delete(const std::u16string &Path) const {
        if (RvIsError(To_->Table->RVFsdDeleteFile(To_, nullptr, Volume_, Path.c_str()))) {
            Fail("a delete failed");
        }
    }
    RVHANDLE OpenVolume() const {
        RVHANDLE Volume = 0;
        To_->Table->RVFsdOpenVolume(To_, nullptr, u"\\srv\\vol", &Volume);
        return Volume;
    }
    void CloseVolume(RVHANDLE Volume) const {
        To_->Table->RVFsdCloseVolume(To_, nullptr, Volume);
    }
    size_t Scans() const {
        return Provider_->Exports()[0].DirectoryScans;
    }
    // Makes the large directory, once.
    void NeedLarge() {
        if (fs::create_directory(Native("large"))) {
            for (unsigned Index = 0; Index < LargeEntries(); ++Index) {
                std::ofstream(Native("large/" + NameOf(Index)));
            }
        }
    }

private:
    Served() : Root_(fmt::format("/dev/shm/rvfsd-bench-names-{}", getpid())) {
        for (const char *Directory : {"one", "two"}) {
            fs::create_directories(Native(Directory));
            for (unsigned Index = 0; Index < SmallEntries; ++Index) {
                std::ofstream(Native(std::string(Directory) + "/" + NameOf(Index)));
            }
        }
        Provider_ = std::make_unique<providers::DirectoryProvider>();
        if (const std::string Why = Provider_->AddExport(u"srv", u"vol", Root_); !Why.empty()) {
            Fail(Why);
        }
        To_ = Provider_->Interface();
        Volume_ = OpenVolume();
    }
    ~Served() {
        CloseVolume(Volume_);
        To_->Table->Release(To_);
        std::error_code Ignored;
        fs::remove_all(Root_, Ignored);
    }

    const std::string Root_;
    std::unique_ptr<providers::DirectoryProvider> Provider_;
    RVIOM_FSD *To_ = nullptr;
    RVHANDLE Volume_ = 0;
};

enum class Spelling { Known, OtherCase, Missing };

std::string Spelled(Spelling How, const std::string &Directory, unsigned Index) {
    std::string Name = NameOf(Index);
    if (How == Spelling::OtherCase) {
        Name[0] = 'k';
    } else if (How == Spelling::Missing) {
        Name[0] = 'x';
    }
    return Directory + "/" + Name;
}

void Opens(benchmark::State &State, Spelling How) {
    const Served &Tree = Served::Get();
    const std::u16string Path = Served::Path(Spelled(How, "one", 7));
    for (auto _ : State) {
        benchmark::DoNotOptimize(Tree.Try(Path));
    }
}

void NativeOpens(benchmark::State &State, Spelling How) {
    const std::string Path = Served::Get().Native(Spelled(How, "one", 7));
    for (auto _ : State) {
        if (const int Fd = open(Path.c_str(), O_RDONLY | O_CLOEXEC); Fd >= 0) {
            close(Fd);
        }
    }
}

// Known names of the large directory, each another one; how many directories were read for them is counted.
void OpensInLarge(benchmark::State &State) {
    Served &Tree = Served::Get();
    Tree.NeedLarge();
    const size_t Before = Tree.Scans();
    unsigned Index = 0;
    for (auto _ : State) {
        Index = (Index + 7919) % LargeEntries();
        benchmark::DoNotOptimize(Tree.Try(Served::Path(Spelled(Spelling::Known, "large", Index))));
    }
    State.counters["scans"] = static_cast<double>(Tree.Scans() - Before);
}

void NativeOpensInLarge(benchmark::State &State) {
    Served &Tree = Served::Get();
    Tree.NeedLarge();
    unsigned Index = 0;
    for (auto _ : State) {
        Index = (Index + 7919) % LargeEntries();
        close(open(Tree.Native(Spelled(Spelling::Known, "large", Index)).c_str(), O_RDONLY | O_CLOEXEC));
    }
}

enum class Beside { Nothing, Collision, DanglingLink };

// A create and a delete in the large directory beside what was costly once.
void CreatesAndDeletes(benchmark::State &State, Beside What) {
    Served &Tree = Served::Get();
    Tree.NeedLarge();
    const std::string Extra = Tree.Native(What == Beside::Collision ? "large/KNOWN name 0000007.txt" : "large/nowhere");
    if (What == Beside::Collision) {
        std::ofstream{Extra};
    } else if (What == Beside::DanglingLink) {
        fs::create_symlink("not there", Extra);
    }
    Tree.Try(u"large\\otherwise spelled"); // the directory is read, if it has to be
    const size_t Before = Tree.Scans();
    const std::u16string Path = u"large\\New Name.txt";
    for (auto _ : State) {
        if (!Tree.Try(Path, RV_ACCESS_READ | RV_ACCESS_WRITE, RV_DISPOSITION_CREATE_NEW)) {
            Fail("a create failed");
        }
        Tree.Delete(Path);
    }
    State.counters["scans"] = static_cast<double>(Tree.Scans() - Before);
    fs::remove(Extra);
}

std::string OwnDirectory(const benchmark::State &State) {
    return State.thread_index() == 0 ? "one" : "two";
}

void ThreadsOpen(benchmark::State &State) {
    const Served &Tree = Served::Get();
    const std::u16string Path = Served::Path(Spelled(Spelling::Known, OwnDirectory(State), 7));
    for (auto _ : State) {
        benchmark::DoNotOptimize(Tree.Try(Path));
    }
    State.SetItemsProcessed(State.iterations());
}

void ThreadsOpenNatively(benchmark::State &State) {
    const std::string Path = Served::Get().Native(Spelled(Spelling::Known, OwnDirectory(State), 7));
    for (auto _ : State) {
        close(open(Path.c_str(), O_RDONLY | O_CLOEXEC));
    }
    State.SetItemsProcessed(State.iterations());
}

// Not times but counts: descriptors of idle opens and volumes, bytes of names that are known, and how many distinct
// files can be open at once, up to a hundred thousand.
void Holdings(benchmark::State &State) {
    Served &Tree = Served::Get();
    Tree.NeedLarge();
    providers::DirectoryProvider::RaiseDescriptorLimit();
    constexpr unsigned Wanted = 100'000;
    for (auto _ : State) {
        const size_t Idle = Descriptors();
        const RVHANDLE Volume = Tree.OpenVolume();
        State.counters["per_volume"] = static_cast<double>(Descriptors() - Idle);
        Tree.CloseVolume(Volume);
        std::vector<RVHANDLE> Files;
        RVHANDLE File = 0;
        while (
            Files.size() < std::min(Wanted, LargeEntries()) &&
            !RvIsError(Tree.Open(Served::Path(Spelled(Spelling::Known, "large", static_cast<unsigned>(Files.size()))),
                                 File, RV_ACCESS_READ, RV_DISPOSITION_OPEN_EXISTING))) {
            Files.push_back(File);
        }
        State.counters["opens"] = static_cast<double>(Files.size());
        State.counters["per_open"] =
            static_cast<double>(Descriptors() - Idle) / static_cast<double>(std::max<size_t>(Files.size(), 1));
        for (const RVHANDLE Each : Files) {
            Tree.Close(Each);
        }
        // A Provider that does not know the directory yet.
        providers::DirectoryProvider Fresh;
        if (!Fresh.AddExport(u"srv", u"vol", Tree.Native("large")).empty()) {
            Fail("the large directory is not served");
        }
        RVIOM_FSD *To = Fresh.Interface();
        const size_t Before = mallinfo2().uordblks + mallinfo2().hblkhd;
        ULONG Action = 0;
        To->Table->RVFsdCreateFile(To, nullptr, 0, u"\\srv\\vol\\not there", RV_ACCESS_READ, ShareAll,
                                   RV_DISPOSITION_OPEN_EXISTING, 0, 0, &File, &Action);
        State.counters["per_name"] =
            static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd - Before) / LargeEntries();
        State.counters["known_descriptors"] = static_cast<double>(Descriptors() - Idle);
        To->Table->Release(To);
    }
}

} // namespace

void RegisterNames() {
    using benchmark::RegisterBenchmark;
    for (const auto &[How, Name] :
         {std::pair{Spelling::Known, "known"}, {Spelling::OtherCase, "other_case"}, {Spelling::Missing, "missing"}}) {
        RegisterBenchmark(fmt::format("names/{}/directory", Name).c_str(), Opens, How);
        // What the file system knows under another spelling only is missing to it.
        RegisterBenchmark(fmt::format("names/{}/native", Name).c_str(), NativeOpens,
                          How == Spelling::OtherCase ? Spelling::Known : How);
    }
    RegisterBenchmark("names/large/directory", OpensInLarge);
    RegisterBenchmark("names/large/native", NativeOpensInLarge);
    RegisterBenchmark("names/create_and_delete/alone", CreatesAndDeletes, Beside::Nothing);
    RegisterBenchmark("names/create_and_delete/collision", CreatesAndDeletes, Beside::Collision);
    RegisterBenchmark("names/create_and_delete/dangling_link", CreatesAndDeletes, Beside::DanglingLink);
    for (const int Threads : {1, 2}) {
        RegisterBenchmark("threads/names/directory", ThreadsOpen)->Threads(Threads)->UseRealTime();
        RegisterBenchmark("threads/names/native", ThreadsOpenNatively)->Threads(Threads)->UseRealTime();
    }
    RegisterBenchmark("pool/names", Holdings)->Iterations(1);
}

} // namespace bench
