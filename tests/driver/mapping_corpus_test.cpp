// Replays what fuzzing of map requests and UTF-8 text found interesting.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/mapping.h"

namespace {

TEST(MappingCorpus, EveryInputLeavesThePromisesWhole) {
    size_t Inputs = 0;
    for (const auto &File : std::filesystem::directory_iterator(RVFSD_SOURCE_DIR "/fuzz/corpus/mapping")) {
        std::ifstream Stream(File.path(), std::ios::binary);
        const std::vector<char> Bytes((std::istreambuf_iterator<char>(Stream)), std::istreambuf_iterator<char>());
        SCOPED_TRACE(File.path().string());
        fuzz::RunMapping(reinterpret_cast<const uint8_t *>(Bytes.data()), Bytes.size());
        ++Inputs;
    }
    fuzz::StopMapping();
    EXPECT_GT(Inputs, 0u);
}

} // namespace
