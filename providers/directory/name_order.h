// The order in which a directory is listed. No locks, and nothing of the file system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace providers::directory {

struct SortedName {
    uint32_t Index;
    bool IsAlone; // no other name is the same but for its case
};

// The names that NativeOf gives for the indices below Count, empty for one that has none, by their folded forms and, of
// one folded form, by their bytes. Bytes is about how long they are together.
template <class Names>
std::vector<SortedName> SortNames(uint32_t Count, size_t Bytes, Names NativeOf);
std::vector<SortedName> SortNames(uint32_t Count, size_t Bytes,
                                  std::string_view (*NativeOf)(const void *Context, uint32_t Index),
                                  const void *Context);

template <class Names>
std::vector<SortedName> SortNames(uint32_t Count, size_t Bytes, Names NativeOf) {
    return SortNames(
        Count, Bytes, [](const void *Context, uint32_t Index) { return (*static_cast<const Names *>(Context))(Index); },
        &NativeOf);
}

} // namespace providers::directory
