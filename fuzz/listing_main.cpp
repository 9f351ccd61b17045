#include "fuzz/listing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
    fuzz::RunListing(Data, Size);
    return 0;
}
