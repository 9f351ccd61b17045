// The things that the scripted Provider's tree is made of.
#pragma once

#include "provider/provider_interface.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace providers {

// File content in 4 KiB pieces; what was never written reads as zeros, so a size of terabytes costs nothing.
class SparseBytes {
public:
    ULONG64 Size() const {
        return Size_;
    }
    void Resize(ULONG64 Size);
    // Offset + Length does not exceed Size.
    void Read(ULONG64 Offset, ULONG64 Length, UCHAR *Out) const;
    // Grows to Offset + Length when needed.
    void Write(ULONG64 Offset, ULONG64 Length, const UCHAR *In);

private:
    static constexpr ULONG64 PieceBytes = 4096;
    std::map<ULONG64, std::vector<UCHAR>> Pieces_;
    ULONG64 Size_ = 0;
};

struct Volume;

struct LockedRange {
    RVHANDLE Owner;
    ULONG64 Offset;
    ULONG64 Length;
    bool Exclusive;
};

struct Node {
    std::u16string Name;
    std::u16string ShortName; // empty: the name itself is short
    bool Directory = false;
    bool Denied = false;   // opening and creating below answer RV_STATUS_ACCESS_DENIED
    bool Unlinked = false; // deleted while something was still open
    ULONG Attributes = 0;  // without RV_ATTR_DIRECTORY
    USHORT Rights = 0xFF;
    LONG64 Creation = 0;
    LONG64 LastWrite = 0;
    LONG64 LastAccess = 0;
    ULONG64 Id = 0;
    SparseBytes Content;
    std::vector<LockedRange> Locks;
    std::vector<RVHANDLE> Opens; // file handles
    Volume *Home = nullptr;
    Node *Parent = nullptr;
    ULONG Order = 0; // position in the parent's listing
    ULONG LastOrder = 0;
    std::map<std::u16string, std::shared_ptr<Node>> Children; // by folded name
    std::map<ULONG, Node *> Listing;                          // by Order

    ULONG AttributeWord() const {
        return Attributes | (Directory ? static_cast<ULONG>(RV_ATTR_DIRECTORY) : 0u);
    }
    std::shared_ptr<Node> Child(std::u16string_view Wanted) const;
    // No child of that name is there yet.
    void Attach(std::shared_ptr<Node> NewChild);
    // Takes Child out of this directory; it stays alive while a handle refers to it.
    std::shared_ptr<Node> Detach(Node &Child);
};

struct Volume {
    std::u16string Server;
    std::u16string Name;
    std::shared_ptr<Node> Root;
    ULONG Flags = RV_VOLUME_IDENTIFIER_VALID;
    UCHAR Identifier[16] = {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE};
    ULONG64 Length = 1ull << 42;
    ULONG64 Free = 1ull << 41;
    ULONG64 QuotaAllowed = 1ull << 42;
    ULONG64 FreeAfterQuota = 1ull << 41;
};

// Whether Name fits Mask, without regard to case: '*', '?' and the driver's stand-ins for the DOS wildcards
// (U+F8FC any run, U+F8FD one or none before a full stop or the end, U+F8FF a full stop or the end).
bool MatchesMask(std::u16string_view Mask, std::u16string_view Name);

// Writes records of Directory's entries after *ResumeKey that match Mask (null: all) into Buffer, chained and aligned
// to 8 bytes, and moves *ResumeKey and *BufferSize. 0xC7E70505 when none is left (the key stays), 0xC7E70007 when the
// first does not fit.
RVSTATUS ListDirectory(const Node &Directory, PCWSTR Mask, bool ShortNames, ULONG *ResumeKey, ULONG *BufferSize,
                       PVOID Buffer);

} // namespace providers
