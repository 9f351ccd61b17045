// Opens: open, cleanup and close of an existing file, and the pool that an open costs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "bench/world.h"
#include "embedded/ex.h"

namespace bench {
namespace {

void ThroughDriver(benchmark::State &State, ProviderKind Kind) {
    Use(Kind);
    const std::u16string Path = FilePath(0);
    for (auto _ : State) {
        Close(Open(Path));
    }
}

void ProviderCalls(benchmark::State &State, ProviderKind Kind) {
    if (const std::string Difference = DifferenceOfCalls(Kind); !Difference.empty()) {
        Fail(Difference);
    }
    Use(Kind);
    const std::u16string Path = FilePath(0);
    for (auto _ : State) {
        CallsOfOpenAndClose(Path);
    }
}

void Native(benchmark::State &State) {
    const std::string Path = NativePath(0);
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

const bool Registered = [] {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("open/native", Native);
    RegisterBenchmark("open/stub/driver", ThroughDriver, ProviderKind::Stub);
    RegisterBenchmark("open/stub/direct", ProviderCalls, ProviderKind::Stub);
    RegisterBenchmark("open/directory/driver", ThroughDriver, ProviderKind::Directory);
    RegisterBenchmark("open/directory/direct", ProviderCalls, ProviderKind::Directory);
    RegisterBenchmark("pool/open", Pool)->Iterations(16);
    return true;
}();

} // namespace
} // namespace bench
