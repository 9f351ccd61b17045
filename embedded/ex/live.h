// Registry of resources and lookaside lists while Verifying(): where they are, so that the memory they are in is not
// freed under them and none is initialised twice. One mutex, innermost.
#pragma once

#include "embedded/ex/ex.h"

namespace embedded {

// Enters an object; stops with 0xC4/0x1005 when it is there already.
void EnterLiveObject(LiveKind Kind, const void *Object, SIZE_T Size);
// A line for each registered object that lies between Low and High.
std::vector<std::string> LiveObjectsIn(const void *Low, const void *High);
// Takes it out; no error if it was initialised unverified.
void LeaveLiveObject(const void *Object);
// Stops with 0xC4/0xD2 or 0xCC when a registered object lies in the block that is being freed.
void VerifyNoLiveObject(const void *Block, SIZE_T Size);

} // namespace embedded
