// What tests look at and plant: what the Provider holds.
#pragma once

#include <cstddef>

#include "providers/directory/state.h"

namespace providers::directory {

// Objects that exist behind the interface: open handles, and closed ones whose last operation is still under way.
inline size_t ObjectsOf(RVIOM_FSD *Interface) {
    return DirectoryProvider::State::Of(Interface).Open.Objects();
}

} // namespace providers::directory
