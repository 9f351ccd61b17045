// Replays what fuzzing starts from, and what it found.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/image.h"
#include "fuzz/listing.h"
#include "fuzz/mapping.h"

namespace {

void Replay(const char *Name, void (*Run)(const uint8_t *Data, size_t Size)) {
    size_t Inputs = 0;
    for (const auto &File : std::filesystem::directory_iterator(std::string(RVFSD_SOURCE_DIR "/fuzz/corpus/") + Name)) {
        std::ifstream Stream(File.path(), std::ios::binary);
        const std::vector<char> Bytes((std::istreambuf_iterator<char>(Stream)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(File.path().string());
        Run(reinterpret_cast<const uint8_t *>(Bytes.data()), Bytes.size());
        ++Inputs;
    }
    EXPECT_GT(Inputs, 0u);
}

TEST(Corpus, EveryMapRequestLeavesThePromisesWhole) {
    Replay("mapping", fuzz::RunMapping);
    fuzz::StopMapping();
}

TEST(Corpus, EveryListingLeavesThePromisesWhole) {
    Replay("listing", fuzz::RunListing);
    fuzz::StopListing();
}

TEST(Corpus, EveryImageIsRefusedOrLoaded) {
    Replay("image", fuzz::RunImage);
}

TEST(Corpus, EveryPdbIsRefusedOrRead) {
    Replay("pdb", fuzz::RunDebugInformation);
}

} // namespace
