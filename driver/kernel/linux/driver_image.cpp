#include "kernel/linux/driver_image.h"

#include "kernel/kernel.h"

extern "C" {
extern char __start_rvfsd_data[];
extern char __stop_rvfsd_data[];
}

namespace {

constexpr size_t SnapshotBytes = 64 * 1024; // the benchmarks have three drivers

// Deliberately outside the driver's own section: it must survive the reset.
char Snapshot[SnapshotBytes];
size_t SnapshotLength;

__attribute__((constructor)) void TakeSnapshot() {
    const size_t Length = static_cast<size_t>(__stop_rvfsd_data - __start_rvfsd_data);
    if (Length > SnapshotBytes) {
        __builtin_trap();
    }
    memcpy(Snapshot, __start_rvfsd_data, Length);
    SnapshotLength = Length;
}

} // namespace

void ResetDriverImage() {
    memcpy(__start_rvfsd_data, Snapshot, SnapshotLength);
}
