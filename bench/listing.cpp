// Listing a large directory: through the driver in buffers of 64 KiB, and at the Provider itself in the batches that
// the driver asks for.
#include <cstring>
#include <filesystem>
#include <vector>

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "bench/rows.h"
#include "providers/directory/directory_provider.h"

namespace bench {
namespace {

constexpr ULONG BufferBytes = 65536;
constexpr ULONG BatchBytes = 12288;

// Lists the directory from its beginning. Take is given every answer with its length.
template <typename Taker>
void ListThroughDriver(HANDLE Directory, std::vector<UCHAR> &Buffer, Taker Take) {
    for (BOOLEAN Restart = TRUE;; Restart = FALSE) {
        IO_STATUS_BLOCK Iosb;
        const NTSTATUS Status =
            NtQueryDirectoryFile(Directory, nullptr, nullptr, nullptr, &Iosb, Buffer.data(), BufferBytes,
                                 FileBothDirectoryInformation, FALSE, nullptr, Restart);
        if (Status == STATUS_NO_MORE_FILES) {
            return;
        }
        if (!NT_SUCCESS(Status)) {
            Fail(fmt::format("a listing failed: 0x{:08X}", static_cast<ULONG>(Status)));
        }
        Take(Iosb.Information);
    }
}

ULONG Ulong(const UCHAR *At) {
    ULONG Value;
    memcpy(&Value, At, sizeof Value);
    return Value;
}

// How many there are in a chain of entries or records, which both begin with the way to the next.
unsigned CountChain(const UCHAR *At) {
    unsigned Count = 1;
    for (; Ulong(At) != 0; At += Ulong(At)) {
        ++Count;
    }
    return Count;
}

void RequireAll(unsigned Count, unsigned Wanted) {
    if (Count != Wanted) {
        Fail(fmt::format("{} entries were listed in place of {}", Count, Wanted));
    }
}

void ThroughDriver(benchmark::State &State, ProviderKind Kind, DriverKind Driver) {
    Use(Kind, Driver);
    const HANDLE Directory = OpenDirectory(ListedDirectory());
    std::vector<UCHAR> Buffer(BufferBytes);
    unsigned Count = 0;
    ListThroughDriver(Directory, Buffer, [&](ULONG_PTR) { Count += CountChain(Buffer.data()); });
    RequireAll(Count, ListedEntries + 2); // "." and ".."
    for (auto _ : State) {
        ListThroughDriver(Directory, Buffer, [](ULONG_PTR Bytes) { benchmark::DoNotOptimize(Bytes); });
    }
    State.SetItemsProcessed(State.iterations() * ListedEntries);
    Close(Directory);
}

template <typename Taker>
void ListDirect(RVHANDLE Directory, std::vector<UCHAR> &Buffer, Taker Take, RVIOM_FSD *To = Provider()) {
    for (ULONG ResumeKey = 0;;) {
        ULONG Bytes = BatchBytes;
        const RVSTATUS Status =
            To->Table->RVFsdEnumerateDirectoryEx(To, Security(), Directory, u"*", 0, &ResumeKey, &Bytes, Buffer.data());
        if (RvIsError(Status)) {
            return;
        }
        Take();
    }
}

void Direct(benchmark::State &State, ProviderKind Kind) {
    Use(Kind);
    RVIOM_FSD *To = Provider();
    RVHANDLE Directory = 0;
    if (RvIsError(To->Table->RVFsdOpenDirectory(To, Security(), 0, ListedDirectory().c_str(), &Directory))) {
        Fail("the directory does not open");
    }
    std::vector<UCHAR> Buffer(BatchBytes);
    unsigned Count = 0;
    ListDirect(Directory, Buffer, [&] { Count += CountChain(Buffer.data()); });
    RequireAll(Count, ListedEntries);
    for (auto _ : State) {
        ListDirect(Directory, Buffer, [] {});
    }
    State.SetItemsProcessed(State.iterations() * ListedEntries);
    To->Table->RVFsdCloseDirectory(To, Security(), Directory);
}

// The first listing of a directory by a Provider that knows nothing of it, nor of its entries.
void First(benchmark::State &State) {
    Use(ProviderKind::Directory);
    const std::string Path = NativeListedDirectory();
    std::vector<UCHAR> Buffer(BatchBytes);
    for (auto _ : State) {
        State.PauseTiming();
        for (const auto &Entry : std::filesystem::directory_iterator(Path)) {
            chmod(Entry.path().c_str(), 0644); // another change time
        }
        providers::DirectoryProvider Fresh;
        RVHANDLE Directory = 0;
        RVIOM_FSD *To = Fresh.Interface();
        if (!Fresh.AddExport(u"srv", u"vol", Path).empty() ||
            RvIsError(To->Table->RVFsdOpenVolume(To, Security(), u"\\srv\\vol", &Directory))) {
            Fail("the directory is not served");
        }
        unsigned Count = 0;
        State.ResumeTiming();
        ListDirect(
            Directory, Buffer, [&] { Count += CountChain(Buffer.data()); }, To);
        State.PauseTiming();
        RequireAll(Count, ListedEntries);
        To->Table->RVFsdCloseVolume(To, Security(), Directory);
        To->Table->Release(To);
        State.ResumeTiming();
    }
    State.SetItemsProcessed(State.iterations() * ListedEntries);
}

// An extended attribute of an entry, the cheapest way that the kernel has.
void NativeAttribute(int Directory, const char *Name) {
    constexpr long GetXAttrAt = 464;
    char Value[64];
    struct {
        uint64_t Value;
        uint32_t Size;
        uint32_t Flags;
    } Arguments = {reinterpret_cast<uint64_t>(Value), sizeof Value, 0};
    constexpr char Attribute[] = "user.rvfsd.attributes";
    if (syscall(GetXAttrAt, Directory, Name, AT_SYMLINK_NOFOLLOW, Attribute, &Arguments, sizeof Arguments) < 0 &&
        errno == ENOSYS) {
        lgetxattr(fmt::format("/proc/self/fd/{}/{}", Directory, Name).c_str(), Attribute, Value, sizeof Value);
    }
}

// The same facts without a Provider: each name, its status and one extended attribute; or names alone.
void Native(benchmark::State &State, bool Facts) {
    const std::string Path = NativeListedDirectory();
    for (auto _ : State) {
        DIR *Directory = opendir(Path.c_str());
        for (const dirent *Entry; (Entry = readdir(Directory)) != nullptr;) {
            benchmark::DoNotOptimize(Entry->d_type);
            if (Facts) {
                struct statx Stat;
                statx(dirfd(Directory), Entry->d_name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &Stat);
                NativeAttribute(dirfd(Directory), Entry->d_name);
            }
        }
        closedir(Directory);
    }
    State.SetItemsProcessed(State.iterations() * ListedEntries);
}

} // namespace

void RegisterListings(DriverKind Driver) {
    for (const auto &[Kind, Name] : {std::pair{ProviderKind::Stub, "stub"},
                                     {ProviderKind::Scripted, "scripted"},
                                     {ProviderKind::Directory, "directory"}}) {
        const std::string Under = fmt::format("{}listing/{}", Prefix(Driver), Name);
        benchmark::RegisterBenchmark((Under + "/driver").c_str(), ThroughDriver, Kind, Driver);
        if (Driver == DriverKind::Linked) {
            benchmark::RegisterBenchmark((Under + "/direct").c_str(), Direct, Kind);
        }
    }
    if (Driver == DriverKind::Linked) {
        benchmark::RegisterBenchmark("listing/directory/first", First);
        benchmark::RegisterBenchmark("listing/native/facts", Native, true);
        benchmark::RegisterBenchmark("listing/native/names", Native, false);
    }
}

} // namespace bench
