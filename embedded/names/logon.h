// Logging on and off: a session of the security monitor with its directory in the name space.
#pragma once

#include "embedded/se/se.h"

namespace embedded {

// A new logon session of an account, with its directory, and its token. Id {0, 0} takes the next free one.
TokenRef LogOn(ULONG User, Elevation Kind = Elevation::Default, LUID Id = {});

// The two sessions of an administrator whose logon is split, linked to each other. An id {0, 0} takes the next free
// one.
struct SplitLogon {
    TokenRef Filtered;
    TokenRef Elevated;
};
SplitLogon LogOnSplit(ULONG User, LUID ElevatedId = {});

} // namespace embedded
