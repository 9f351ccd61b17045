// The order in which a directory is listed. No locks, and nothing of the file system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace providers::directory {

struct NameToSort {
    std::string_view Native; // empty for an index that has none
    bool IsPlain;            // IsServedAsItIs
};

struct SortedName {
    uint32_t Index;
    bool IsAlone; // no other name is the same but for its case
};

// The names that NameOf gives for the indices below Count, by their folded forms and, of one folded form, by their
// bytes.
template <class Names>
std::vector<SortedName> SortNames(uint32_t Count, Names NameOf);
std::vector<SortedName> SortNames(uint32_t Count, NameToSort (*NameOf)(const void *Context, uint32_t Index),
                                  const void *Context);

template <class Names>
std::vector<SortedName> SortNames(uint32_t Count, Names NameOf) {
    return SortNames(
        Count, [](const void *Context, uint32_t Index) { return (*static_cast<const Names *>(Context))(Index); },
        &NameOf);
}

} // namespace providers::directory
