// Reads and writes of 4 KiB: through the Nt service, as a bare request to the driver, and at the Provider itself.
#include <shared_mutex>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "bench/rows.h"
#include "embedded/io/io.h"
#include "embedded/io/probe.h"

namespace bench {
namespace {

// Page-aligned, as a caller's buffer usually is.
UCHAR *Buffer() {
    alignas(4096) static thread_local UCHAR Bytes[TransferBytes];
    return Bytes;
}

void Require(bool Condition, const char *What) {
    if (!Condition) {
        Fail(What);
    }
}

void TransferThroughService(HANDLE Handle, bool Write) {
    IO_STATUS_BLOCK Iosb;
    LARGE_INTEGER Offset;
    Offset.QuadPart = 0;
    const auto Service = Write ? NtWriteFile : NtReadFile;
    Service(Handle, nullptr, nullptr, nullptr, &Iosb, Buffer(), TransferBytes, &Offset, nullptr);
    Require(Iosb.Information == TransferBytes, "a transfer was short");
}

void TransferAsRequest(PFILE_OBJECT File, PDEVICE_OBJECT To, bool Write) {
    embedded::IrpBuilder Request;
    Request.MajorFunction = Write ? IRP_MJ_WRITE : IRP_MJ_READ;
    Request.FileObject = File;
    Request.UserBuffer = Buffer();
    Request.Fill = [](PIO_STACK_LOCATION Stack) { Stack->Parameters.Read.Length = TransferBytes; };
    const IO_STATUS_BLOCK Iosb = embedded::SendIrpAndWait(To, Request);
    Require(Iosb.Information == TransferBytes, "a transfer was short");
}

void TransferDirect(RVIOM_FSD *To, RV_SECURITY_CONTEXT *Who, RVHANDLE File, bool Write) {
    LONG64 Offset = 0;
    ULONG64 Bytes = TransferBytes;
    const auto Call = Write ? To->Table->RVFsdWriteFile : To->Table->RVFsdReadFile;
    Call(To, Who, File, &Offset, TransferBytes, Buffer(), &Bytes);
    Require(Bytes == TransferBytes, "a transfer was short");
}

void Service(benchmark::State &State, ProviderKind Kind, DriverKind Driver, bool Write) {
    Use(Kind, Driver);
    const HANDLE Handle = Open(FilePath(0));
    for (auto _ : State) {
        TransferThroughService(Handle, Write);
    }
    Close(Handle);
}

void Request(benchmark::State &State, ProviderKind Kind, DriverKind Driver, bool Write) {
    Use(Kind, Driver);
    const HANDLE Handle = Open(FilePath(0));
    const PFILE_OBJECT File = embedded::FileObjectFromHandle(Handle);
    const PDEVICE_OBJECT To = Device();
    for (auto _ : State) {
        TransferAsRequest(File, To, Write);
    }
    embedded::DereferenceFileObject(File);
    Close(Handle);
}

void Direct(benchmark::State &State, ProviderKind Kind, bool Write) {
    Use(Kind);
    const DirectFile File = OpenDirect(FilePath(0));
    for (auto _ : State) {
        TransferDirect(Provider(), Security(), File.File, Write);
    }
    CloseDirect(File);
}

void Native(benchmark::State &State, bool Write) {
    const int File = open(NativePath(0).c_str(), O_RDWR | O_CLOEXEC);
    for (auto _ : State) {
        const ssize_t Moved =
            Write ? pwrite(File, Buffer(), TransferBytes, 0) : pread(File, Buffer(), TransferBytes, 0);
        Require(Moved == TransferBytes, "a transfer was short");
    }
    close(File);
}

// The driver over the stub when the processor has just come back from a system call: what any Provider that makes one
// leaves to the code that follows. To be compared with the two parts alone.
void NativeThenService(benchmark::State &State) {
    Use(ProviderKind::Stub);
    const HANDLE Handle = Open(FilePath(0));
    const int File = open(NativePath(0).c_str(), O_RDWR | O_CLOEXEC);
    for (auto _ : State) {
        Require(pread(File, Buffer(), TransferBytes, 0) == TransferBytes, "a transfer was short");
        TransferThroughService(Handle, false);
    }
    close(File);
    Close(Handle);
}

void SharedMutexPair(benchmark::State &State) {
    std::shared_mutex Mutex;
    for (auto _ : State) {
        Mutex.lock_shared();
        benchmark::DoNotOptimize(Mutex);
        Mutex.unlock_shared();
    }
}

// ---- Two threads -------------------------------------------------------------------------------------------------

constexpr int MostThreads = 2;

std::vector<HANDLE> Handles;
std::vector<int> Descriptors;

// Opens one file per thread, or the same file once for each.
template <bool SameFile>
void OpenForThreads(const benchmark::State &) {
    Use(ProviderKind::Directory);
    for (unsigned Thread = 0; Thread < MostThreads; ++Thread) {
        const unsigned Index = SameFile ? 0 : Thread;
        Handles.push_back(Open(FilePath(Index)));
        Descriptors.push_back(open(NativePath(Index).c_str(), O_RDONLY | O_CLOEXEC));
    }
}

void CloseOfThreads(const benchmark::State &) {
    for (unsigned Thread = 0; Thread < MostThreads; ++Thread) {
        Close(Handles[Thread]);
        close(Descriptors[Thread]);
    }
    Handles.clear();
    Descriptors.clear();
}

void ThreadsRead(benchmark::State &State) {
    const HANDLE Handle = Handles[static_cast<size_t>(State.thread_index())];
    for (auto _ : State) {
        TransferThroughService(Handle, false);
    }
    State.SetItemsProcessed(State.iterations());
}

void ThreadsPread(benchmark::State &State) {
    const int File = Descriptors[static_cast<size_t>(State.thread_index())];
    for (auto _ : State) {
        Require(pread(File, Buffer(), TransferBytes, 0) == TransferBytes, "a transfer was short");
    }
    State.SetItemsProcessed(State.iterations());
}

void ThreadsOpenAndClose(benchmark::State &State) {
    const std::u16string Path = FilePath(static_cast<unsigned>(State.thread_index()) + MostThreads);
    for (auto _ : State) {
        Close(Open(Path));
    }
    State.SetItemsProcessed(State.iterations());
}

void ThreadsNativeOpenAndClose(benchmark::State &State) {
    const std::string Path = NativePath(static_cast<unsigned>(State.thread_index()) + MostThreads);
    for (auto _ : State) {
        close(open(Path.c_str(), O_RDONLY | O_CLOEXEC));
    }
    State.SetItemsProcessed(State.iterations());
}

template <bool SameFile>
void RegisterThreads(const char *Name, void (*Function)(benchmark::State &)) {
    for (int Threads = 1; Threads <= MostThreads; ++Threads) {
        benchmark::RegisterBenchmark(Name, Function)
            ->Threads(Threads)
            ->UseRealTime()
            ->Setup(OpenForThreads<SameFile>)
            ->Teardown(CloseOfThreads);
    }
}

} // namespace

void RegisterTransfers(DriverKind Driver) {
    using benchmark::RegisterBenchmark;
    for (const bool Write : {false, true}) {
        const std::string What = Write ? "write" : "read";
        for (const auto &[Kind, Name] :
             {std::pair{ProviderKind::Stub, "stub"}, {ProviderKind::Directory, "directory"}}) {
            const std::string Under = Prefix(Driver) + What + "/" + Name;
            RegisterBenchmark((Under + "/service").c_str(), Service, Kind, Driver, Write);
            RegisterBenchmark((Under + "/request").c_str(), Request, Kind, Driver, Write);
            if (Driver == DriverKind::Linked) {
                RegisterBenchmark((Under + "/direct").c_str(), Direct, Kind, Write);
            }
        }
        if (Driver == DriverKind::Linked) {
            RegisterBenchmark((What + "/native").c_str(), Native, Write);
        }
    }
    if (Driver != DriverKind::Linked) {
        return;
    }
    RegisterBenchmark("yardstick/shared_mutex_pair", SharedMutexPair);
    RegisterBenchmark("read/stub/service_after_native", NativeThenService);
    RegisterBenchmark("trace/built_out", Request, ProviderKind::Stub, DriverKind::TraceBuiltOut, false);
    RegisterBenchmark("trace/off", Request, ProviderKind::Stub, DriverKind::TraceOff, false);
    RegisterBenchmark("trace/no_match", Request, ProviderKind::Stub, DriverKind::TraceNoMatch, false);
    RegisterThreads<false>("threads/read/different", ThreadsRead);
    RegisterThreads<true>("threads/read/same", ThreadsRead);
    RegisterThreads<false>("threads/pread/different", ThreadsPread);
    RegisterThreads<true>("threads/pread/same", ThreadsPread);
    RegisterThreads<false>("threads/open/different", ThreadsOpenAndClose);
    RegisterThreads<false>("threads/open/native", ThreadsNativeOpenAndClose);
}

} // namespace bench
