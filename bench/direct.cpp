// The Provider called without the driver between.
#include <vector>

#include <fmt/format.h>

#include "bench/world.h"

namespace bench {
namespace {

constexpr ULONG ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The operations without their first two arguments.
struct Caller {
    RVIOM_FSD *To = Provider();
    RV_SECURITY_CONTEXT *Who = Security();

    template <typename Operation, typename... T>
    void operator()(Operation RVIOM_FSD_TABLE::*Slot, T... Arguments) const {
        const RVSTATUS Status = (To->Table->*Slot)(To, Who, Arguments...);
        if (RvIsError(Status)) {
            Fail(fmt::format("a direct call failed: 0x{:08X}", static_cast<ULONG>(Status)));
        }
    }
};

using Slots = RVIOM_FSD_TABLE;

// Opens the volume of Path; Left is what follows it.
RVHANDLE OpenVolume(const Caller &Call, const char16_t *Path, const char16_t **Left) {
    // As in the driver, the buffer is not cleared.
    WCHAR Volume[RV_PATH_BUFFER_BYTES / sizeof(WCHAR)];
    Call(&Slots::RVFsdQueryPathForVolume, Path, Volume);
    RVHANDLE Handle = 0;
    Call(&Slots::RVFsdOpenVolume, static_cast<PCWSTR>(Volume), &Handle);
    *Left = Path + std::char_traits<char16_t>::length(Volume) + 1;
    return Handle;
}

RVHANDLE OpenFile(const Caller &Call, RVHANDLE Volume, const char16_t *Left, ULONG Access, ULONG Share,
                  ULONG Disposition) {
    RVHANDLE File = 0;
    ULONG Action = 0;
    Call(&Slots::RVFsdCreateFile, Volume, Left, Access, Share, Disposition, ULONG{0}, ULONG{0}, &File, &Action);
    return File;
}

} // namespace

DirectFile OpenDirect(const std::u16string &Path) {
    const Caller Call;
    const char16_t *Left = nullptr;
    const RVHANDLE Volume = OpenVolume(Call, Path.c_str(), &Left);
    return {Volume,
            OpenFile(Call, Volume, Left, RV_ACCESS_READ | RV_ACCESS_WRITE, ShareAll, RV_DISPOSITION_OPEN_EXISTING)};
}

void CloseDirect(const DirectFile &File) {
    const Caller Call;
    Call(&Slots::RVFsdCloseFile, File.File);
    Call(&Slots::RVFsdCloseVolume, File.Volume);
}

void CallsOfOpenAndClose(const std::u16string &Path) {
    const Caller Call;
    // Is there a file of that name?
    RVHANDLE File = OpenFile(Call, 0, Path.c_str(), RV_ACCESS_ATTRIBUTES, 0, RV_DISPOSITION_QUERY);
    Call(&Slots::RVFsdCloseFile, File);

    const char16_t *Left = nullptr;
    const RVHANDLE Volume = OpenVolume(Call, Path.c_str(), &Left);
    File = OpenFile(Call, Volume, Left, RV_ACCESS_READ | RV_ACCESS_WRITE, ShareAll, RV_DISPOSITION_OPEN_EXISTING);
    ULONG Attributes = 0;
    ULONG64 EndOfFile = 0;
    constexpr LONG64 *NoTime = nullptr;
    constexpr ULONG64 *NoValue = nullptr;
    constexpr UCHAR *NoByte = nullptr;
    Call(&Slots::RVFsdGetFileInformation, File, &Attributes, NoTime, NoTime, NoTime, &EndOfFile, NoValue, NoByte,
         NoByte, NoByte, NoByte, NoByte);
    Call(&Slots::RVFsdCloseFile, File);
    Call(&Slots::RVFsdCloseVolume, Volume);
}

void CallsOfFileQuery(const DirectFile &File, bool WithIdentifier) {
    const Caller Call;
    ULONG Attributes = 0;
    LONG64 Times[3] = {};
    ULONG64 EndOfFile = 0;
    constexpr ULONG64 *NoValue = nullptr;
    constexpr UCHAR *NoByte = nullptr;
    Call(&Slots::RVFsdGetFileInformation, File.File, &Attributes, &Times[0], &Times[1], &Times[2], &EndOfFile, NoValue,
         NoByte, NoByte, NoByte, NoByte, NoByte);
    ULONG Flags = 0;
    constexpr PVOID Nothing = nullptr;
    Call(&Slots::RVFsdGetVolumeInformation, File.Volume, &Flags, NoByte, Nothing, Nothing);
    if (WithIdentifier) {
        ULONG64 Identifier = 0;
        Call(&Slots::RVFsdGetFileId, File.File, &Identifier);
    }
}

void CallsOfVolumeSize(const std::u16string &Path) {
    const Caller Call;
    WCHAR Physical[RV_PATH_BUFFER_BYTES / sizeof(WCHAR)];
    const auto Bytes = static_cast<USHORT>(Path.size() * sizeof(WCHAR));
    UNICODE_STRING Asked = {Bytes, Bytes, const_cast<PWSTR>(Path.data())};
    UNICODE_STRING Answer = {0, RV_PATH_BUFFER_BYTES, Physical};
    // The path is no distributed one, which is an error.
    if (!RvIsError(Call.To->Table->RVFsdGetDFSPhysicalPath(Call.To, Call.Who, 0, &Asked, &Answer))) {
        Fail("a path that leads nowhere else does");
    }
    const char16_t *Left = nullptr;
    const RVHANDLE Volume = OpenVolume(Call, Path.c_str(), &Left);
    ULONG Flags = 0;
    constexpr UCHAR *NoByte = nullptr;
    constexpr PVOID Nothing = nullptr;
    Call(&Slots::RVFsdGetVolumeInformation, Volume, &Flags, NoByte, Nothing, Nothing);
    ULONG64 Sizes[4] = {};
    Call(&Slots::RVFsdGetVolumeSize, Volume, &Sizes[0], &Sizes[1], &Sizes[2], &Sizes[3]);
    Call(&Slots::RVFsdCloseVolume, Volume);
}

std::string DifferenceBetween(const std::function<void()> &ByDriver, const std::function<void()> &Direct) {
    TakeRecordedCalls();
    ByDriver();
    const std::string OfDriver = TakeRecordedCalls();
    Direct();
    const std::string Made = TakeRecordedCalls();
    return OfDriver == Made ? std::string{} : fmt::format("the driver calls\n{}and the benchmark\n{}", OfDriver, Made);
}

} // namespace bench
