// What a target promises of every input.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

inline void Require(bool Holds, const char *What) {
    if (!Holds) {
        fprintf(stderr, "a promise was broken: %s\n", What);
        abort();
    }
}

} // namespace fuzz
