// Run-time library: strings, times, security descriptors and Unicode prefix tables. Its services are declared in
// kernel/linux/services.h; none of them blocks.
//
// Prefix tables: the caller serialises all calls on one table. A table owns a side index on the heap while it
// holds at least one entry and none while it is empty; entries stay the caller's memory. A name that is in a
// table must keep its UNICODE_STRING and its buffer unchanged until its entry is removed.
#pragma once

#include "kernel/linux/services.h"
#include "kernel/linux/status.h"

namespace embedded {

// Node types that the run-time library writes into prefix tables and their entries.
constexpr CSHORT PrefixTableNode = 0x0800;
constexpr CSHORT PrefixRootNode = 0x0801;      // the entry that stands for its name in the index
constexpr CSHORT PrefixCaseMatchNode = 0x0803; // equal to a root ignoring case, reached through CaseMatch

// The number of prefix tables that hold at least one entry, and so own an index.
size_t PrefixTablesInUse();

} // namespace embedded
