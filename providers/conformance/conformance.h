// What the driver relies on in a Provider, asked of it one thing after the other.
//
// A Provider that takes changes is asked in a directory of its own, rvfsd-check-NUMBER-NUMBER in the volume's root,
// which is gone afterwards; of one that takes none, only what can be read is asked.
#pragma once

#include <string>
#include <vector>

#include "provider/provider_interface.h"

namespace providers {

struct ConformanceResult {
    std::vector<std::string> Checked;  // what was asked, a line each
    std::vector<std::string> Failures; // what is wrong, a line each
    bool Writable = false;             // whether changes were asked too
};

// Volume is \server\volume in the driver's form, with one backslash in front.
ConformanceResult CheckProvider(RVIOM_FSD &Provider, const std::u16string &Volume);

} // namespace providers
