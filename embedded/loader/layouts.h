// The sizes and offsets of the records that a driver shares with the kernel, the framework and the Provider, as this
// kernel was compiled with them, and their comparison with the table that a test build of the image exports.
#pragma once

#include <string>
#include <vector>

#include "kernel/layout_table.h"

namespace embedded {

class LoadedImage;

using Layout = LAYOUT_ENTRY;

// Those of the kernel's records, of the framework's and the Provider's tables, and of the information records.
const std::vector<Layout> &SharedLayouts();

// A line for each size or offset that the table at Table, inside Image, has otherwise than Ours, lacks, or has in
// excess, by its name. Empty when they agree.
std::vector<std::string> CompareLayoutTable(const LoadedImage &Image, const void *Table,
                                            const std::vector<Layout> &Ours);

} // namespace embedded
