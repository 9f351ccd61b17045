// The benchmark program. bench/README.md says how to run it and what the names mean.
//
//   rvfsd_bench [--image RVFSD.sys] [options of Google Benchmark]
#include <benchmark/benchmark.h>

#include <string_view>

#include "bench/rows.h"

namespace {

// The file named by the option, which is taken out of the command line; null without one.
const char *TakeImage(int *Count, char **Arguments) {
    if (*Count < 3 || std::string_view(Arguments[1]) != "--image") {
        return nullptr;
    }
    const char *File = Arguments[2];
    for (int Index = 1; Index + 2 <= *Count; ++Index) {
        Arguments[Index] = Arguments[Index + 2]; // the null at the end too
    }
    *Count -= 2;
    return File;
}

void RegisterEndToEnd(bench::DriverKind Driver) {
    bench::RegisterTransfers(Driver);
    bench::RegisterOpens(Driver);
    bench::RegisterQueries(Driver);
    bench::RegisterListings(Driver);
}

} // namespace

int main(int Count, char **Arguments) {
    const char *Image = TakeImage(&Count, Arguments);
    benchmark::Initialize(&Count, Arguments);
    if (benchmark::ReportUnrecognizedArguments(Count, Arguments)) {
        return 1;
    }
    RegisterEndToEnd(bench::DriverKind::Linked);
    if (Image != nullptr) {
        bench::SetImage(Image);
        RegisterEndToEnd(bench::DriverKind::Image);
    }
    bench::RegisterMappings();
    bench::RegisterNames();
    bench::RegisterTables();
    bench::RegisterQueue();
    bench::RegisterLocks();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    bench::EmptyTable();
    bench::StopWorld();
    return 0;
}
