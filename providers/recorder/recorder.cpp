#include "providers/recorder/recorder.h"

#include <fmt/format.h>

#include "providers/slots.h"
#include "providers/wide_text.h"

namespace providers {

namespace {

// What goes in is there before the call, what comes out only after it.
struct Values {
    ProviderCall &Call;
    bool Before;

    void Argument(const char *Name, std::string Text, bool Quoted = false) {
        if (Before) {
            Call.In.push_back({Name, std::move(Text), Quoted});
        }
    }
    void Result(const char *Name, std::string Text, bool Quoted = false) {
        if (!Before) {
            Call.Out.push_back({Name, std::move(Text), Quoted});
        }
    }

    void Take(const char *Name, PCWSTR Value) {
        Argument(Name, Value == nullptr ? "null" : ToUtf8(Value), Value != nullptr);
    }
    void Take(const char *Name, PWSTR Value) { // a path buffer
        if (!Before && Value != nullptr) {
            Result(Name, ToUtf8(Value), true);
        }
    }
    void Take(const char *Name, PUNICODE_STRING Value) {
        Argument(Name, ToUtf8({Value->Buffer, Value->Length / sizeof(WCHAR)}), true);
    }
    void Take(const char *Name, ULONG64 Value) {
        Argument(Name, fmt::format("{}", Value));
    }
    void Take(const char *Name, ULONG Value) {
        Argument(Name, fmt::format("0x{:x}", Value));
    }
    void Take(const char *Name, UCHAR Value) {
        Argument(Name, fmt::format("{}", Value));
    }
    template <typename Number>
    void TakeAnswer(const char *Name, const Number *Value, const char *Form) {
        if (!Before && Value != nullptr) {
            Result(Name, fmt::format(fmt::runtime(Form), *Value));
        }
    }
    void Take(const char *Name, ULONG64 *Value) {
        TakeAnswer(Name, Value, "{}");
    }
    void Take(const char *Name, LONG64 *Value) {
        TakeAnswer(Name, Value, "{}");
    }
    void Take(const char *Name, ULONG *Value) {
        TakeAnswer(Name, Value, "0x{:x}");
    }
    void Take(const char *Name, USHORT *Value) {
        TakeAnswer(Name, Value, "0x{:x}");
    }
    void Take(const char *, UCHAR *) {
    }
    void Take(const char *, PVOID) {
    }
};

std::atomic<Recorder *> Active{nullptr};

} // namespace

std::string Describe(const ProviderCall &Call) {
    const auto Shown = [](const CallValue &Value) {
        return fmt::format(fmt::runtime(Value.Quoted ? "{}=\"{}\"" : "{}={}"), Value.Name, Value.Text);
    };
    std::string Line = std::string(Call.Operation) + '(';
    for (const CallValue &Value : Call.In) {
        Line += (&Value == &Call.In.front() ? "" : ", ") + Shown(Value);
    }
    Line += fmt::format(") -> 0x{:08X}", static_cast<ULONG>(Call.Status));
    for (const CallValue &Value : Call.Out) {
        Line += ' ' + Shown(Value);
    }
    return Line;
}

struct RecorderThunks {
    template <typename... A>
    using Operation = RVSTATUS(NTAPI *)(RVIOM_FSD *, RV_SECURITY_CONTEXT *, A...);

    // One thunk per slot: the slot, the name of the operation and of its arguments are what tells them apart.
    template <auto Slot, const auto &Names, typename... A>
    struct Thunk {
        static void Show(ProviderCall &Call, bool Before, A... Arguments) {
            size_t Next = 1;
            Values Taken{Call, Before};
            (Taken.Take(Names[Next++], Arguments), ...);
        }
        static RVSTATUS NTAPI Call(RVIOM_FSD *Self, RV_SECURITY_CONTEXT *Security, A... Arguments) noexcept {
            Recorder &Owner = *Active.load(std::memory_order_acquire);
            CallSink *Sink = Owner.Sink_.load(std::memory_order_acquire);
            if (Sink == nullptr) {
                return (Owner.Below_->*Slot)(Self, Security, Arguments...);
            }
            ProviderCall Told{Names[0], {}, {}, {}};
            Show(Told, true, Arguments...);
            Sink->CallBegan(Told);
            Told.Status = (Owner.Below_->*Slot)(Self, Security, Arguments...);
            if (!RvIsError(Told.Status)) {
                Show(Told, false, Arguments...);
            }
            Sink->CallEnded(Told);
            return Told.Status;
        }
    };

    template <auto Slot, const auto &Names, typename... A>
    static void Install(RVIOM_FSD_TABLE &Table, Operation<A...> RVIOM_FSD_TABLE::*) {
        Table.*Slot = Thunk<Slot, Names, A...>::Call;
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

Recorder::Recorder(RVIOM_FSD *Provider) : Provider_(Provider), Below_(Provider->Table), Watched_(*Provider->Table) {
#define INSTALL(Number, Name)                                                                                          \
    RecorderThunks::Install<&RVIOM_FSD_TABLE::RVFsd##Name, RVFsd##Name##Names>(Watched_, &RVIOM_FSD_TABLE::RVFsd##Name);
    RVFSD_PROVIDER_OPERATIONS(INSTALL)
#undef INSTALL
    Active.store(this, std::memory_order_release);
}

Recorder::~Recorder() {
    SetSink(nullptr);
}

void Recorder::SetSink(CallSink *To) {
    Sink_.store(To, std::memory_order_release);
    __atomic_store_n(&Provider_->Table, To != nullptr ? &Watched_ : Below_, __ATOMIC_RELEASE);
}

} // namespace providers
