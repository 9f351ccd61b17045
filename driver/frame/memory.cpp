#include "frame/memory.h"

PVOID TwAllocBuffer(SIZE_T Size) {
    return ExAllocatePoolWithTag(NonPagedPoolNx, Size, POOL_TAG_GENERAL);
}

PVOID TwAllocMemory(SIZE_T Size) {
    PVOID Block = TwAllocBuffer(Size);
    if (Block != nullptr) {
        RtlZeroMemory(Block, Size);
    }
    return Block;
}

VOID TwFreeMemory(PVOID Pointer) {
    if (Pointer != nullptr) {
        ExFreePoolWithTag(Pointer, 0);
    }
}
