// Names of the Provider's attribute bits, in the order in which trace lines show them.
#pragma once

#include "provider/provider_interface.h"

inline constexpr ULONG RV_ATTRIBUTE_NAME_COUNT = 11;

struct RvAttributeName {
    ULONG Bit;
    PCSTR Name;
};

// Hidden has no name in the traces. Every name but the last carries its separator.
inline constexpr RvAttributeName RV_ATTRIBUTE_NAMES[RV_ATTRIBUTE_NAME_COUNT] = {
    {RV_ATTR_READONLY, "RV_ATTR_READONLY, "},
    {RV_ATTR_SYSTEM, "RV_ATTR_SYSTEM, "},
    {RV_ATTR_DIRECTORY, "RV_ATTR_DIRECTORY, "},
    {RV_ATTR_ARCHIVE, "RV_ATTR_ARCHIVE, "},
    {RV_ATTR_ENCRYPTED, "RV_ATTR_ENCRYPTED, "},
    {RV_ATTR_NORMAL, "RV_ATTR_NORMAL, "},
    {RV_ATTR_TEMPORARY, "RV_ATTR_TEMPORARY, "},
    {RV_ATTR_JUNCTION, "RV_ATTR_JUNCTION, "},
    {RV_ATTR_COMPRESSED, "RV_ATTR_COMPRESSED, "},
    {RV_ATTR_OFFLINE, "RV_ATTR_OFFLINE, "},
    {RV_ATTR_CONTENT_INDEXED, "RV_ATTR_CONTENT_INDEXED "},
};

constexpr bool RvAttributeNamesAscend() {
    for (ULONG Index = 1; Index < RV_ATTRIBUTE_NAME_COUNT; ++Index) {
        if (RV_ATTRIBUTE_NAMES[Index - 1].Bit >= RV_ATTRIBUTE_NAMES[Index].Bit) {
            return false;
        }
    }
    return true;
}
static_assert(RvAttributeNamesAscend(), "the traces show the bits from the lowest up");

// The strings for the eleven %s of an attribute line: each bit's name, or nothing when the bit is clear.
struct RvAttributeNames {
    PCSTR Names[RV_ATTRIBUTE_NAME_COUNT];

    explicit RvAttributeNames(ULONG Attributes) {
        for (ULONG Index = 0; Index < RV_ATTRIBUTE_NAME_COUNT; ++Index) {
            Names[Index] = (Attributes & RV_ATTRIBUTE_NAMES[Index].Bit) != 0 ? RV_ATTRIBUTE_NAMES[Index].Name : "";
        }
    }
};

// The eleven strings of an RvAttributeNames as arguments of one trace call.
#define RV_ATTRIBUTE_NAME_ARGUMENTS(Set)                                                                               \
    (Set).Names[0], (Set).Names[1], (Set).Names[2], (Set).Names[3], (Set).Names[4], (Set).Names[5], (Set).Names[6],    \
        (Set).Names[7], (Set).Names[8], (Set).Names[9], (Set).Names[10]
