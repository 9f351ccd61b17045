#include "fuzz/mapping.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
    fuzz::RunMapping(Data, Size);
    return 0;
}
