// Opens: open, cleanup and close of an existing file, and the pool that an open costs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "bench/rows.h"
#include "embedded/ex/ex.h"

namespace bench {
namespace {

void ThroughDriver(benchmark::State &State, ProviderKind Kind, DriverKind Driver) {
    Use(Kind, Driver);
    const std::u16string Path = FilePath(NeverWritten);
    for (auto _ : State) {
        Close(Open(Path));
    }
}

void ProviderCalls(benchmark::State &State, ProviderKind Kind) {
    const std::u16string Path = FilePath(NeverWritten);
    UseRecorded(Kind);
    const std::string Difference =
        DifferenceBetween([&Path] { Close(Open(Path)); }, [&Path] { CallsOfOpenAndClose(Path); });
    if (!Difference.empty()) {
        Fail(Difference);
    }
    Use(Kind);
    for (auto _ : State) {
        CallsOfOpenAndClose(Path);
    }
}

void Native(benchmark::State &State) {
    const std::string Path = NativePath(NeverWritten);
    for (auto _ : State) {
        close(open(Path.c_str(), O_RDONLY | O_CLOEXEC));
    }
}

// The first open of a path and a further one; not a time, but a count of bytes.
void Pool(benchmark::State &State) {
    Use(ProviderKind::Stub);
    const std::u16string Path = FilePath(1);
    Close(Open(Path)); // whatever is made once is there now
    const LONG64 Before = embedded::PoolBytesInUse();
    for (auto _ : State) {
        const HANDLE First = Open(Path);
        const LONG64 AfterFirst = embedded::PoolBytesInUse();
        const HANDLE Further = Open(Path);
        State.counters["first"] = static_cast<double>(AfterFirst - Before);
        State.counters["further"] = static_cast<double>(embedded::PoolBytesInUse() - AfterFirst);
        Close(Further);
        Close(First);
        State.counters["left"] = static_cast<double>(embedded::PoolBytesInUse() - Before);
    }
}

} // namespace

void RegisterOpens(DriverKind Driver) {
    using benchmark::RegisterBenchmark;
    const std::string Under = Prefix(Driver) + "open/";
    RegisterBenchmark((Under + "stub/driver").c_str(), ThroughDriver, ProviderKind::Stub, Driver);
    RegisterBenchmark((Under + "directory/driver").c_str(), ThroughDriver, ProviderKind::Directory, Driver);
    if (Driver != DriverKind::Linked) {
        return;
    }
    RegisterBenchmark("open/native", Native);
    RegisterBenchmark("open/stub/direct", ProviderCalls, ProviderKind::Stub);
    RegisterBenchmark("open/directory/direct", ProviderCalls, ProviderKind::Directory);
    RegisterBenchmark("pool/open", Pool)->Iterations(16);
}

} // namespace bench
