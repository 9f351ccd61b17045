// What the compiler calls by itself for an image: copies, fills and comparisons of every length, beside the C
// library's.
#include <array>
#include <cstring>
#include <numeric>
#include <string>

#include <gtest/gtest.h>

#include "embedded/loader/services.h"
#include "kernel/kernel.h"

namespace embedded {
namespace {

template <typename T>
T Called(const char *Name) {
    const Service *Found = FindKernelService(Name);
    return Found == nullptr ? nullptr : reinterpret_cast<T>(Found->Address);
}

using Copying = void *(NTAPI *)(void *, const void *, SIZE_T);
using Filling = void *(NTAPI *)(void *, int, SIZE_T);
using Comparing = int(NTAPI *)(const void *, const void *, SIZE_T);

constexpr size_t Most = 600; // beyond every length that has a way of its own
constexpr size_t Margin = 80;
using Bytes = std::array<uint8_t, Most + 2 * Margin>;

Bytes Counting() {
    Bytes Made;
    std::iota(Made.begin(), Made.end(), uint8_t{1});
    return Made;
}

TEST(ImageMemory, IsCopiedInEveryLengthAndNothingBesideIt) {
    for (const char *Name : {"memcpy", "memmove"}) {
        const auto Copy = Called<Copying>(Name);
        ASSERT_NE(Copy, nullptr);
        for (size_t Length = 0; Length <= Most; ++Length) {
            const Bytes From = Counting();
            Bytes To = {}, Expected = {};
            memcpy(&Expected[Margin], &From[3], Length);
            EXPECT_EQ(Copy(&To[Margin], &From[3], Length), &To[Margin]);
            ASSERT_EQ(To, Expected) << Name << " of " << Length;
        }
    }
}

TEST(ImageMemory, IsMovedOntoItselfEitherWay) {
    const auto Move = Called<Copying>("memmove");
    for (size_t Length = 0; Length <= 150; ++Length) {
        for (const int Distance : {-70, -17, -16, -9, -5, -1, 0, 1, 2, 7, 8, 15, 33, 64}) {
            Bytes Moved = Counting(), Expected = Counting();
            memmove(&Expected[Margin + Distance], &Expected[Margin], Length);
            Move(&Moved[Margin + Distance], &Moved[Margin], Length);
            ASSERT_EQ(Moved, Expected) << Length << " bytes by " << Distance;
        }
    }
}

TEST(ImageMemory, IsFilledInEveryLengthAndNothingBesideIt) {
    const auto Fill = Called<Filling>("memset");
    for (size_t Length = 0; Length <= Most; ++Length) {
        for (const int Value : {0, 0xA5, -1, 0x1FF}) {
            Bytes Filled = Counting(), Expected = Counting();
            memset(&Expected[Margin], Value, Length);
            EXPECT_EQ(Fill(&Filled[Margin], Value, Length), &Filled[Margin]);
            ASSERT_EQ(Filled, Expected) << Length << " bytes of " << Value;
        }
    }
}

TEST(ImageMemory, IsComparedByItsFirstDifferentByte) {
    const auto Compare = Called<Comparing>("memcmp");
    for (size_t Length = 0; Length <= 300; ++Length) {
        const Bytes One = Counting();
        Bytes Two = One;
        EXPECT_EQ(Compare(&One[1], &Two[1], Length), 0) << Length;
        Two[Length + 1] ^= 0x80; // behind the end
        EXPECT_EQ(Compare(&One[1], &Two[1], Length), 0) << Length;
        for (size_t At = 0; At < Length; At += 1 + At / 3) {
            Two = One;
            Two[1 + At] ^= 0x80;
            Two[Length] ^= 0x40; // a later one does not count
            const int Expected = One[1 + At] < Two[1 + At] ? -1 : 1;
            const int Result = Compare(&One[1], &Two[1], Length);
            ASSERT_EQ(Result < 0 ? -1 : Result > 0, Expected) << "at " << At << " of " << Length;
        }
    }
}

} // namespace
} // namespace embedded
