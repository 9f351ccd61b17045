// The sizes and offsets of the records that the kernel and a driver share, as this kernel was compiled with them, and
// their comparison with the table that a test build of the image exports.
#pragma once

#include <string>
#include <vector>

#include "kernel/layout_table.h"

namespace embedded {

class DriverImage;

using Layout = LAYOUT_ENTRY;

// The kernel's records.
const std::vector<Layout> &KernelLayouts();

// A line for each size or offset that the table at Table, inside Image, has otherwise than Ours, lacks, or has in
// excess, by its name. Empty when they agree.
std::vector<std::string> CompareLayoutTable(const DriverImage &Image, const void *Table,
                                            const std::vector<Layout> &Ours);

} // namespace embedded
