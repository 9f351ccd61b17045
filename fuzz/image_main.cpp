#include "fuzz/image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
    fuzz::RunImage(Data, Size);
    return 0;
}
