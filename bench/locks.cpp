// Byte-range locks of one file: the test whether a lock conflicts, and a lock with its unlock, among few and many.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "bench/rows.h"
#include "embedded/fsrtl/fsrtl.h"
#include "embedded/fsrtl/probe.h"
#include "embedded/ps/ps.h"

namespace bench {
namespace {

constexpr ULONGLONG Stride = 16; // a lock of eight bytes every sixteen

// A table with Count shared locks, and one of a gigabyte that begins behind them.
class LockedFile {
public:
    explicit LockedFile(unsigned Count) : Count_(Count) {
        FsRtlInitializeFileLock(&Locks_, nullptr, nullptr);
        for (ULONGLONG Index = 0; Index < Count; ++Index) {
            Plant(Index * Stride, 8, 0, false);
        }
        Plant(Count * Stride, 1 << 30, 0, false);
    }
    ~LockedFile() {
        FsRtlUninitializeFileLock(&Locks_);
    }
    LockedFile(const LockedFile &) = delete;
    LockedFile &operator=(const LockedFile &) = delete;

    bool Plant(ULONGLONG Offset, ULONGLONG Length, ULONG Key, bool Exclusive) {
        return embedded::PlantFileLock(&Locks_, nullptr, embedded::SystemProcess(), Offset, Length, Key, Exclusive);
    }
    void Unlock(ULONGLONG Offset, ULONGLONG Length, ULONG Key) {
        LARGE_INTEGER At{}, Bytes{};
        At.QuadPart = static_cast<LONGLONG>(Offset);
        Bytes.QuadPart = static_cast<LONGLONG>(Length);
        static_cast<void>(
            FsRtlFastUnlockSingle(&Locks_, nullptr, &At, &Bytes, embedded::SystemProcess(), Key, nullptr, FALSE));
    }
    // The start of another of its locks each time.
    ULONGLONG Next() {
        At_ = (At_ + 7919) % Count_;
        return At_ * Stride;
    }

private:
    const unsigned Count_;
    FILE_LOCK Locks_{};
    ULONGLONG At_ = 0;
};

void Conflict(benchmark::State &State, unsigned Count) {
    LockedFile File(Count);
    for (auto _ : State) {
        if (File.Plant(File.Next() + 4, 8, 1, true)) {
            Fail("a lock was granted that conflicts");
        }
    }
}

void LockAndUnlock(benchmark::State &State, unsigned Count) {
    LockedFile File(Count);
    for (auto _ : State) {
        const ULONGLONG Gap = File.Next() + 8;
        if (!File.Plant(Gap, 8, 1, true)) {
            Fail("a lock was refused that does not conflict");
        }
        File.Unlock(Gap, 8, 1);
    }
}

} // namespace

void RegisterLocks() {
    for (const unsigned Count : {100u, 1'000u, 100'000u}) {
        benchmark::RegisterBenchmark(fmt::format("locks/conflict/{}", Count).c_str(), Conflict, Count);
        benchmark::RegisterBenchmark(fmt::format("locks/lock_and_unlock/{}", Count).c_str(), LockAndUnlock, Count);
    }
}

} // namespace bench
