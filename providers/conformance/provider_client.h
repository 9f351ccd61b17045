// Calls of a Provider as the driver makes them, every answer checked for what holds of all operations: an error has
// both top bits, an output that was asked for is written, a handle is never 0, nothing is written behind a buffer.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "provider/provider_interface.h"

namespace providers::conformance {

struct Record {
    std::u16string Name;
    ULONG Attributes;
    ULONG64 Size;
};

struct FileAnswer {
    ULONG Attributes;
    LONG64 Times[3]; // creation, last write, last access
    ULONG64 EndOfFile;
};

class Client {
public:
    using Report = std::function<void(const std::string &)>;
    Client(RVIOM_FSD &Provider, Report Fault) : Provider_(Provider), Fault_(std::move(Fault)) {
    }

    RVSTATUS OpenVolume(const std::u16string &Path, RVHANDLE &Out);
    RVSTATUS OpenDirectory(RVHANDLE Base, const std::u16string &Path, RVHANDLE &Out);
    RVSTATUS OpenFile(RVHANDLE Base, const std::u16string &Path, ULONG Disposition, RVHANDLE &Out, ULONG &Action);
    void CloseVolume(RVHANDLE Handle);
    void CloseDirectory(RVHANDLE Handle);
    void CloseFile(RVHANDLE Handle);

    RVSTATUS VolumePath(const std::u16string &Path, std::u16string &Out);
    RVSTATUS DirectoryAnswer(RVHANDLE Directory, FileAnswer &Out);
    RVSTATUS AllAnswer(RVHANDLE File, FileAnswer &Out);
    RVSTATUS BasicAnswer(RVHANDLE File, FileAnswer &Out);
    RVSTATUS Size(RVHANDLE File, ULONG64 &Out);
    RVSTATUS FileId(RVHANDLE Handle, ULONG64 &Out);

    // Data is as long as what is wanted before and as what came afterwards.
    RVSTATUS Read(RVHANDLE File, LONG64 Offset, std::string &Data);
    RVSTATUS Write(RVHANDLE File, LONG64 Offset, const std::string &Data, ULONG64 &Bytes);
    RVSTATUS SetSize(RVHANDLE File, LONG64 Size);

    // A whole search, in batches of BufferBytes. The status that ended it.
    RVSTATUS List(RVHANDLE Directory, const char16_t *Mask, bool WithShortNames, ULONG BufferBytes,
                  std::vector<Record> &Out);

    // Any other operation.
    template <typename... Parameters, typename... Given>
    RVSTATUS Call(RVSTATUS (NTAPI *RVIOM_FSD_TABLE::*Slot)(RVIOM_FSD *, RV_SECURITY_CONTEXT *, Parameters...),
                  const char *Name, Given... Arguments) {
        return Checked(Name, (Provider_.Table->*Slot)(&Provider_, &Caller, Arguments...));
    }
    // The status, after a fault was told when it is neither success nor an error.
    RVSTATUS Checked(const char *Name, RVSTATUS Status);
    void Fault(const std::string &What) {
        Fault_(What);
    }

    RV_SECURITY_CONTEXT Caller = {{1000, 1000}};

private:
    RVSTATUS Opened(const char *Name, RVSTATUS Status, RVHANDLE Handle);
    bool Walk(const std::vector<UCHAR> &Batch, ULONG BufferBytes, bool WithShortNames, std::vector<Record> &Out);

    RVIOM_FSD &Provider_;
    Report Fault_;
};

} // namespace providers::conformance
