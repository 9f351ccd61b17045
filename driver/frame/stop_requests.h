// The end of the requests in flight, before teardown.
#pragma once

#include "kernel/kernel.h"

// Refuses new requests and waits until those in flight have left. Own is the number of holds of the calling thread.
// Says every ten seconds what it waits for, and gives up after a minute: then FALSE.
bool NtFsdStopRequests(LONG Own);
