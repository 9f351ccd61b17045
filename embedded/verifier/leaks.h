// The proof that nothing is left: what every room still has when a driver has gone. Owns the list of checks (own
// mutex).
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace embedded {

// Adds a leak check to DescribeLeaks. The check returns an empty string when clean, else one line per leak.
// A second check of the same name replaces the first. Checks run without any lock of this room.
void RegisterLeakCheck(std::string_view Name, std::function<std::string()> Check);

// All leaks as text, empty when there are none: pool, resources, lookaside lists, MDLs, held locks, system threads and
// what a registered check knows.
std::string DescribeLeaks();

} // namespace embedded
