// The component class that the driver publishes: its factory and the mapping object.
#pragma once

#include "provider/framework.h"

inline constexpr GUID CLSID_RvfsdMapping = {
    0x7317C408, 0xA7BC, 0x49BE, {0xBD, 0x5A, 0x24, 0xFD, 0xB8, 0xF9, 0x8A, 0x89}};
inline constexpr GUID IID_RvfsdMapping = {0x6815978F, 0x58D1, 0x4BBC, {0xBB, 0x1E, 0xBC, 0xFD, 0x94, 0x82, 0x1D, 0x47}};
inline constexpr GUID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr GUID IID_IClassFactory = {
    0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

struct RVFSD_FACTORY;
struct RVFSD_FACTORY_TABLE {
    RVPSTATUS(NTAPI *QueryInterface)(RVFSD_FACTORY *This, const GUID *Iid, PVOID *Out);              // 0
    ULONG(NTAPI *AddRef)(RVFSD_FACTORY *This);                                                       // 1
    ULONG(NTAPI *Release)(RVFSD_FACTORY *This);                                                      // 2
    RVPSTATUS(NTAPI *CreateInstance)(RVFSD_FACTORY *This, PVOID Outer, const GUID *Iid, PVOID *Out); // 3
    RVPSTATUS(NTAPI *LockServer)(RVFSD_FACTORY *This, ULONG Lock);                                   // 4
};
struct RVFSD_FACTORY {
    const RVFSD_FACTORY_TABLE *Table;
    ULONG RefCount;
    ULONG LockCount;
};
static_assert(offsetof(RVFSD_FACTORY, RefCount) == 8 && offsetof(RVFSD_FACTORY, LockCount) == 12);

// The mapping object. Slots 3 to 8 are the mapping operations; while the driver offers none, each answers
// RVPSTATUS::NoSuchClass.
struct RVFSD_MAPPING;
struct RVFSD_MAPPING_TABLE {
    RVPSTATUS(NTAPI *QueryInterface)(RVFSD_MAPPING *This, const GUID *Iid, PVOID *Out); // 0
    ULONG(NTAPI *AddRef)(RVFSD_MAPPING *This);                                          // 1
    ULONG(NTAPI *Release)(RVFSD_MAPPING *This);                                         // 2
    RVPSTATUS(NTAPI *Operations[6])(RVFSD_MAPPING *This);                               // 3 to 8
};
struct RVFSD_MAPPING {
    const RVFSD_MAPPING_TABLE *Table;
    ULONG RefCount;
};

extern "C" {
// The exported table of class identifiers, ended by NULL.
extern const GUID *const ORCOM_Table[2];

// Answers Iid of the factory of Clsid into *Out, with a reference. RVPSTATUS::NoSuchClass for another class, or while
// the framework is not there.
RVPSTATUS NTAPI DllGetClassObject(const GUID *Clsid, const GUID *Iid, PVOID *Out);
}
