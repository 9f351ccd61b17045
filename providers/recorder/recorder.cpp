#include "providers/recorder/recorder.h"

#include <string_view>

#include <fmt/format.h>

#include "providers/wide_text.h"

namespace providers {

namespace {

std::string Quoted(PCWSTR Text) {
    if (Text == nullptr) {
        return "null";
    }
    return '"' + ToUtf8(Text) + '"';
}

// What goes in is shown in the call, what comes out behind its status. Pointers to data show only that they are there.
struct Line {
    std::string In;
    std::string Out;

    void Argument(const char *Name, std::string Value) {
        In += fmt::format("{}{}={}", In.empty() ? "" : ", ", Name, Value);
    }
    void Result(const char *Name, std::string Value) {
        Out += fmt::format(" {}={}", Name, Value);
    }

    void Show(const char *Name, PCWSTR Value) {
        Argument(Name, Quoted(Value));
    }
    void Show(const char *Name, PWSTR Value) { // a path buffer
        if (Value != nullptr) {
            Result(Name, Quoted(Value));
        }
    }
    void Show(const char *Name, PUNICODE_STRING Value) {
        Argument(Name, '"' + ToUtf8({Value->Buffer, Value->Length / sizeof(WCHAR)}) + '"');
    }
    void Show(const char *Name, ULONG64 Value) {
        Argument(Name, fmt::format("{}", Value));
    }
    void Show(const char *Name, ULONG Value) {
        Argument(Name, fmt::format("0x{:x}", Value));
    }
    void Show(const char *Name, UCHAR Value) {
        Argument(Name, fmt::format("{}", Value));
    }
    void Show(const char *Name, ULONG64 *Value) {
        if (Value != nullptr) {
            Result(Name, fmt::format("{}", *Value));
        }
    }
    void Show(const char *Name, LONG64 *Value) {
        if (Value != nullptr) {
            Result(Name, fmt::format("{}", *Value));
        }
    }
    void Show(const char *Name, ULONG *Value) {
        if (Value != nullptr) {
            Result(Name, fmt::format("0x{:x}", *Value));
        }
    }
    void Show(const char *Name, USHORT *Value) {
        if (Value != nullptr) {
            Result(Name, fmt::format("0x{:x}", *Value));
        }
    }
    void Show(const char *, UCHAR *) {
    }
    void Show(const char *, PVOID) {
    }
};

} // namespace

struct RecorderThunks {
    template <typename... A>
    using Operation = RVSTATUS(NTAPI *)(RVIOM_FSD *, RV_SECURITY_CONTEXT *, A...);

    // One thunk per slot: the slot, the name of the operation and of its arguments are what tells them apart.
    template <auto Slot, const auto &Names, typename... A>
    struct Thunk {
        static RVSTATUS NTAPI Call(RVIOM_FSD *Self, RV_SECURITY_CONTEXT *Security, A... Arguments) noexcept {
            auto *Owner = static_cast<Recorder *>(Self);
            const RVSTATUS Status = (Owner->Below_->Table->*Slot)(Owner->Below_, Security, Arguments...);
            if constexpr (std::string_view(Names[0]).starts_with("RVFsdEnumerateDirectory")) {
                Owner->NoteListing(Status);
            }
            if (Owner->Sink_) {
                Line Shown;
                size_t Next = 1;
                (Shown.Show(Names[Next++], Arguments), ...);
                Owner->Sink_(fmt::format("{}({}) -> 0x{:08X}{}", Names[0], Shown.In, static_cast<ULONG>(Status),
                                         RvIsError(Status) ? "" : Shown.Out));
            }
            return Status;
        }
    };

    template <auto Slot, const auto &Names, typename... A>
    static void Install(RVIOM_FSD_TABLE &Table, Operation<A...> RVIOM_FSD_TABLE::*) {
        Table.*Slot = Thunk<Slot, Names, A...>::Call;
    }

    static ULONG NTAPI Release(RVIOM_FSD *Self) noexcept {
        RVIOM_FSD *Below = static_cast<Recorder *>(Self)->Below_;
        return Below->Table->Release(Below);
    }
};

namespace {

#define RECORDED(Name, ...) static constexpr const char *Name##Names[] = {#Name, __VA_ARGS__};
RECORDED(RVFsdOpenVolume, "path", "handle")
RECORDED(RVFsdCloseVolume, "handle")
RECORDED(RVFsdGetVolumeInformation, "handle", "flags", "identifier", "", "")
RECORDED(RVFsdGetVolumeSize, "handle", "length", "free", "quota", "free-after-quota")
RECORDED(RVFsdQueryPathForVolume, "path", "volume")
RECORDED(RVFsdCreateDirectory, "base", "path")
RECORDED(RVFsdOpenDirectory, "base", "path", "handle")
RECORDED(RVFsdGetDirectoryInformation, "handle", "attributes", "created", "written", "accessed")
RECORDED(RVFsdSetDirectoryInformation, "handle", "attributes", "created", "written", "accessed")
RECORDED(RVFsdCloseDirectory, "handle")
RECORDED(RVFsdDeleteDirectory, "base", "path")
RECORDED(RVFsdEnumerateDirectory, "handle", "mask", "flag", "key", "size", "")
RECORDED(RVFsdMoveDirectory, "base", "path", "target-base", "target")
RECORDED(RVFsdCreateFile, "base", "path", "access", "share", "disposition", "options", "attributes", "handle", "action")
RECORDED(RVFsdCloseFile, "handle")
RECORDED(RVFsdDeleteFile, "base", "path")
RECORDED(RVFsdMoveFile, "base", "path", "target-base", "target")
RECORDED(RVFsdFlushFile, "handle")
RECORDED(RVFsdGetFileInformation, "handle", "attributes", "created", "written", "accessed", "size", "", "", "", "", "",
         "")
RECORDED(RVFsdGetBasicFileInformation, "handle", "attributes", "created", "written", "accessed")
RECORDED(RVFsdGetFileId, "handle", "id")
RECORDED(RVFsdGetFileSize, "handle", "size")
RECORDED(RVFsdLockFile, "handle", "exclusive", "offset", "length")
RECORDED(RVFsdUnlockFile, "handle", "offset", "length")
RECORDED(RVFsdReadFile, "handle", "offset", "length", "", "bytes")
RECORDED(RVFsdSetFileInformation, "handle", "attributes", "created", "written", "accessed")
RECORDED(RVFsdWriteFile, "handle", "offset", "length", "", "bytes")
RECORDED(RVFsdEnumerateDirectoryEx, "handle", "mask", "options", "key", "size", "")
RECORDED(RVFsdGetEffectiveRights, "handle", "rights")
RECORDED(RVFsdGetDFSPhysicalPath, "base", "path", "physical")
RECORDED(RVFsdModifyFileAccess, "handle", "access", "share", "options")
#undef RECORDED

} // namespace

Recorder::Recorder(RVIOM_FSD *Below) : Below_(Below), Table_(*Below->Table) {
    Table_.Release = RecorderThunks::Release;
    Table_.QueryInterface = nullptr;
    Table_.AddRef = nullptr;
#define INSTALL(Name) RecorderThunks::Install<&RVIOM_FSD_TABLE::Name, Name##Names>(Table_, &RVIOM_FSD_TABLE::Name)
    INSTALL(RVFsdOpenVolume);
    INSTALL(RVFsdCloseVolume);
    INSTALL(RVFsdGetVolumeInformation);
    INSTALL(RVFsdGetVolumeSize);
    INSTALL(RVFsdQueryPathForVolume);
    INSTALL(RVFsdCreateDirectory);
    INSTALL(RVFsdOpenDirectory);
    INSTALL(RVFsdGetDirectoryInformation);
    INSTALL(RVFsdSetDirectoryInformation);
    INSTALL(RVFsdCloseDirectory);
    INSTALL(RVFsdDeleteDirectory);
    INSTALL(RVFsdEnumerateDirectory);
    INSTALL(RVFsdMoveDirectory);
    INSTALL(RVFsdCreateFile);
    INSTALL(RVFsdCloseFile);
    INSTALL(RVFsdDeleteFile);
    INSTALL(RVFsdMoveFile);
    INSTALL(RVFsdFlushFile);
    INSTALL(RVFsdGetFileInformation);
    INSTALL(RVFsdGetBasicFileInformation);
    INSTALL(RVFsdGetFileId);
    INSTALL(RVFsdGetFileSize);
    INSTALL(RVFsdLockFile);
    INSTALL(RVFsdUnlockFile);
    INSTALL(RVFsdReadFile);
    INSTALL(RVFsdSetFileInformation);
    INSTALL(RVFsdWriteFile);
    INSTALL(RVFsdEnumerateDirectoryEx);
    INSTALL(RVFsdGetEffectiveRights);
    INSTALL(RVFsdGetDFSPhysicalPath);
    INSTALL(RVFsdModifyFileAccess);
#undef INSTALL
    Table = &Table_;
}

} // namespace providers
