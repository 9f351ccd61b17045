// A Provider that does nothing and returns at once: what is measured through it is the driver.
//
// Every server and volume exists, and the tree follows from the names alone: a path whose last component holds a full
// stop is a file, any other a directory, and one whose last component begins with '!' does not exist. Nothing is
// stored, locked, allocated or counted per call; reads leave the buffer as it is. Only the options are kept, unchanged
// after construction, so any number of threads may call.
#pragma once

#include "provider/provider_interface.h"

#include <vector>

namespace providers {

struct StubOptions {
    ULONG EntriesPerDirectory = 100;
    ULONG64 FileSize = 1 << 30;
};

class StubProvider : public RVIOM_FSD {
public:
    static constexpr RVHANDLE VolumeHandle = 1;
    static constexpr RVHANDLE DirectoryHandle = 2;
    static constexpr RVHANDLE FileHandle = 3;

    explicit StubProvider(StubOptions Options = {});
    StubProvider(const StubProvider &) = delete;
    StubProvider &operator=(const StubProvider &) = delete;

    // As many directory records as one batch of 12288 bytes holds, ready to be copied out.
    struct Batch {
        std::vector<UCHAR> Bytes;
        ULONG RecordBytes;
        ULONG NameOffset;
    };
    const StubOptions &Options() const {
        return Options_;
    }
    const Batch &BasicBatch() const {
        return Basic_;
    }
    const Batch &ShortNameBatch() const {
        return ShortName_;
    }

private:
    StubOptions Options_;
    Batch Basic_;
    Batch ShortName_;
};

} // namespace providers
