// Replays the images and the debug information that fuzzing starts from, and what it found.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/image.h"

namespace {

void Replay(const char *Folder, void (*Run)(const uint8_t *Data, size_t Size)) {
    size_t Inputs = 0;
    for (const auto &File : std::filesystem::directory_iterator(Folder)) {
        std::ifstream Stream(File.path(), std::ios::binary);
        const std::vector<char> Bytes((std::istreambuf_iterator<char>(Stream)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(File.path().string());
        Run(reinterpret_cast<const uint8_t *>(Bytes.data()), Bytes.size());
        ++Inputs;
    }
    EXPECT_GT(Inputs, 0u) << Folder;
}

TEST(ImageCorpus, EveryImageIsRefusedOrLoaded) {
    Replay(RVFSD_SOURCE_DIR "/fuzz/corpus/image", fuzz::RunImage);
}

TEST(ImageCorpus, EveryPdbIsRefusedOrRead) {
    Replay(RVFSD_SOURCE_DIR "/fuzz/corpus/pdb", fuzz::RunDebugInformation);
}

} // namespace
