// The component framework as the driver sees it: the service interface RVPL, the Local Security Context interface,
// class and interface identifiers, and the framework's statuses.
#pragma once

#include "provider/provider_interface.h"

// Framework status values. A result is a failure when both top bits are set.
enum class RVPSTATUS : ULONG {
    Success = 0,
    NoSuchClass = 0xC7E70002,
    BadPointer = 0xC7E70004,
    NoMemory = 0xC7E70005,
};
constexpr bool RvpIsError(RVPSTATUS Status) {
    return (static_cast<ULONG>(Status) & 0xC0000000u) == 0xC0000000u;
}

// Any component object: its first word is its table; slots 0 to 2 are the standard operations.
struct RVP_OBJECT;
struct RVP_OBJECT_TABLE {
    RVPSTATUS(NTAPI *QueryInterface)(RVP_OBJECT *Self, const GUID *Iid, PVOID *Out); // 0
    ULONG(NTAPI *AddRef)(RVP_OBJECT *Self);                                          // 1
    ULONG(NTAPI *Release)(RVP_OBJECT *Self);                                         // 2
};
struct RVP_OBJECT {
    const RVP_OBJECT_TABLE *Table;
};

// RVPL: memory, strings, mutexes, atomic counters, time.
typedef ULONG64 RVPL_MUTEX;
struct RVPL;
struct RVPL_TABLE {
    PVOID QueryInterface;                                                    // 0
    PVOID AddRef;                                                            // 1
    ULONG(NTAPI *Release)(RVPL *Self);                                       // 2
    PVOID Unused3To24[22];                                                   //
    PVOID(NTAPI *AllocateForText)(RVPL *Self, SIZE_T Size);                  // 25
    PVOID(NTAPI *Allocate)(RVPL *Self, SIZE_T Size);                         // 26
    VOID(NTAPI *Free)(RVPL *Self, PVOID Pointer);                            // 27
    PVOID Unused28To42[15];                                                  //
    SIZE_T(NTAPI *StringLength)(RVPL *Self, PCWSTR Text);                    // 43: units before the terminating zero
    VOID(NTAPI *Clear)(RVPL *Self, PVOID Pointer, SIZE_T Size);              // 44
    PVOID Unused45To58[14];                                                  //
    RVPSTATUS(NTAPI *AcquireMutex)(RVPL *Self, RVPL_MUTEX Mutex);            // 59
    PVOID Unused60To61[2];                                                   //
    RVPSTATUS(NTAPI *CreateMutex)(RVPL *Self, ULONG One, RVPL_MUTEX *Mutex); // 62
    PVOID Unused63To65[3];                                                   //
    VOID(NTAPI *DestroyMutex)(RVPL *Self, RVPL_MUTEX Mutex);                 // 66
    PVOID Unused67To69[3];                                                   //
    ULONG(NTAPI *Decrement)(RVPL *Self, ULONG *Counter);                     // 70: atomic, gives the new value
    PVOID Unused71;                                                          //
    ULONG(NTAPI *Increment)(RVPL *Self, ULONG *Counter);                     // 72: atomic, gives the new value
    VOID(NTAPI *ReleaseMutex)(RVPL *Self, RVPL_MUTEX Mutex);                 // 73
    PVOID Unused74To85[12];                                                  //
    VOID(NTAPI *SystemTime)(RVPL *Self, LONG64 *Time);                       // 86: 100-ns units since 1601
};
struct RVPL {
    const RVPL_TABLE *Table;
};

// The Local Security Context interface.
struct RV_SECURITY;
struct RV_SECURITY_TABLE {
    PVOID QueryInterface;                                                                   // 0
    PVOID AddRef;                                                                           // 1
    ULONG(NTAPI *Release)(RV_SECURITY *Self);                                               // 2
    PVOID Unused3To8[6];                                                                    //
    VOID(NTAPI *GetCallerContext)(RV_SECURITY *Self, RV_SECURITY_CONTEXT *SecurityContext); // 9
};
struct RV_SECURITY {
    const RV_SECURITY_TABLE *Table;
};

static_assert(offsetof(RVPL_TABLE, AllocateForText) == 25 * 8);
static_assert(offsetof(RVPL_TABLE, StringLength) == 43 * 8);
static_assert(offsetof(RVPL_TABLE, AcquireMutex) == 59 * 8);
static_assert(offsetof(RVPL_TABLE, CreateMutex) == 62 * 8);
static_assert(offsetof(RVPL_TABLE, DestroyMutex) == 66 * 8);
static_assert(offsetof(RVPL_TABLE, Decrement) == 70 * 8);
static_assert(offsetof(RVPL_TABLE, Increment) == 72 * 8);
static_assert(offsetof(RVPL_TABLE, ReleaseMutex) == 73 * 8);
static_assert(offsetof(RVPL_TABLE, SystemTime) == 86 * 8);
static_assert(offsetof(RV_SECURITY_TABLE, GetCallerContext) == 9 * 8);

// Class and interface identifiers. Plain constants: the driver and the framework's stand-in share them.
inline constexpr GUID CLSID_Rvpl = {0x9074B2E1, 0xB573, 0x11D2, {0x82, 0xE6, 0x00, 0x08, 0xC7, 0x29, 0x94, 0x64}};
inline constexpr GUID IID_Rvpl = {0x9074B2E0, 0xB573, 0x11D2, {0x82, 0xE6, 0x00, 0x08, 0xC7, 0x29, 0x94, 0x64}};
inline constexpr GUID CLSID_Transport = {0xA00AD199, 0x232F, 0x11D3, {0x86, 0x77, 0x00, 0xA0, 0xC9, 0x24, 0x90, 0x33}};
inline constexpr GUID IID_Transport = {0x60E6A6AC, 0x2437, 0x11D3, {0x86, 0x7B, 0x00, 0xA0, 0xC9, 0x24, 0x90, 0x33}};
inline constexpr GUID CLSID_Quillon = {0x4207784F, 0x278F, 0x11D3, {0xBD, 0x25, 0xBA, 0xF9, 0xEC, 0xAF, 0x2C, 0x64}};
inline constexpr GUID IID_Quillon = {0xEB4DDC92, 0x90AC, 0x4F9E, {0x8D, 0x75, 0x0F, 0x5D, 0x2A, 0xF8, 0xD1, 0x49}};
inline constexpr GUID CLSID_Provider = {0x87D63E12, 0xB098, 0x11D2, {0xAF, 0xFC, 0x00, 0xA0, 0xC9, 0xD5, 0x49, 0xD6}};
inline constexpr GUID IID_Provider = {0x8CC6D09A, 0x6E55, 0x41B0, {0xBA, 0xE0, 0xB7, 0x22, 0xAC, 0xDB, 0x6D, 0x9B}};
inline constexpr GUID CLSID_SecurityContext = {
    0x8ED08475, 0x2297, 0x11D3, {0xBB, 0xF3, 0x00, 0xA0, 0xC9, 0xEA, 0x53, 0xEF}};
inline constexpr GUID IID_SecurityContext = {
    0x8ED08476, 0x2297, 0x11D3, {0xBB, 0xF3, 0x00, 0xA0, 0xC9, 0xEA, 0x53, 0xEF}};

// Imported from zelm.sys. Creates an instance of Clsid and answers Iid into *Out, which the caller releases. Outer is
// always NULL. Returns a framework status.
NTKERNELAPI RVPSTATUS NTAPI ZelmCreateInstance(const GUID *Clsid, PVOID Outer, const GUID *Iid, PVOID *Out);
