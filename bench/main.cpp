// The benchmark program. bench/README.md says how to run it and what the names mean.
#include <benchmark/benchmark.h>

#include "bench/world.h"

int main(int Count, char **Arguments) {
    benchmark::Initialize(&Count, Arguments);
    if (benchmark::ReportUnrecognizedArguments(Count, Arguments)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    bench::EmptyTable();
    bench::StopWorld();
    return 0;
}
