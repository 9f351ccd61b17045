// The component class that the driver publishes: its factory and the mapping object.
#pragma once

#include "mapping/mapping_object.h"
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

// The mapping object. What slots 3 to 8 do stands with the routines of their names (mapping/mapping_object.h).
struct RVFSD_MAPPING_TABLE {
    RVPSTATUS(NTAPI *QueryInterface)(RVFSD_MAPPING *This, const GUID *Iid, PVOID *Out); // 0
    ULONG(NTAPI *AddRef)(RVFSD_MAPPING *This);                                          // 1
    ULONG(NTAPI *Release)(RVFSD_MAPPING *This);                                         // 2
    NTSTATUS(NTAPI *VerifyPath)(RVFSD_MAPPING *This, ULONG Number, PCSTR Utf8Path);     // 3
    NTSTATUS(NTAPI *MapDrive)(RVFSD_MAPPING *This, const MAP_REQUEST *Request);         // 4
    NTSTATUS(NTAPI *UnMapDrive)(RVFSD_MAPPING *This, const ULONG *Request);             // 5
    NTSTATUS(NTAPI *QueryDrive)(RVFSD_MAPPING *This, QUERY_DRIVE *Request);             // 6
    NTSTATUS(NTAPI *UnMapServer)(RVFSD_MAPPING *This, ULONG ConnectionId);              // 7
    NTSTATUS(NTAPI *TraceMessage)(RVFSD_MAPPING *This, PCSTR Text);                     // 8
};
static_assert(sizeof(RVFSD_MAPPING_TABLE) == 9 * 8 && offsetof(RVFSD_MAPPING_TABLE, VerifyPath) == 3 * 8);
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
