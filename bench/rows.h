// The rows of the benchmark program, by what they measure. main registers them: once for the driver linked in, with all
// that it is compared with, and once for the image, with what goes through the driver from end to end, under "image/".
#pragma once

#include <string>

#include "bench/world.h"

namespace bench {

void RegisterTransfers(DriverKind Driver);
void RegisterOpens(DriverKind Driver);
void RegisterListings(DriverKind Driver);
void RegisterQueries(DriverKind Driver);
// Look-ups call functions of the driver linked in: there are no such rows for the image.
void RegisterTables();
// Their client is linked to the driver that is linked in, too.
void RegisterMappings();
// Requests that workers complete.
void RegisterQueue();
// The directory Provider called without a driver.
void RegisterNames();
// The embedded kernel's lock library, without a driver.
void RegisterLocks();

inline std::string Prefix(DriverKind Driver) {
    return Driver == DriverKind::Image ? "image/" : "";
}

} // namespace bench
