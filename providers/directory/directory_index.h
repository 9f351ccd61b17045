// The names of one directory, to be found in any case, and in order.
//
// A name costs its bytes, twelve more and a place in a hash table, its place in order once it was listed, and eight
// bytes once short names were asked for; nothing is kept folded. The names are read once and then kept right by what
// the event log tells. Where nothing is told they are believed only while the directory's time stamps stand still and
// are older than any file system's stamps are coarse.
//
// Locks: one mutex an index, held while its directory is read; the event log's is taken under it. Safe for concurrent
// calls. A directory that does not answer holds up those that ask for it and nobody else.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include "providers/directory/errno_status.h"
#include "providers/directory/event_log.h"
#include "providers/directory/names.h"

namespace providers::directory {

// A set of entries, as a listing wants them.
struct NameList {
    struct Piece {
        ShortCode Short;    // empty unless it leads to it alone
        unsigned char Type; // DT_*
        bool Marked : 1;    // listed under its marked name
        bool IsPlain : 1;   // IsServedAsItIs
        uint16_t Size = 0;  // of the name
        uint32_t At = 0;    // in Bytes
    };
    std::string Bytes;
    std::vector<Piece> Pieces;

    // Ends with a zero.
    std::string_view Native(const Piece &Item) const {
        return std::string_view(Bytes).substr(Item.At, Item.Size);
    }
    // The name under which the entry is listed.
    std::u16string Served(const Piece &Item) const;
    // Size and At are filled in.
    void Add(std::string_view Name, Piece New);
};

struct FoundName {
    std::string Native;
    unsigned char Type = 0; // DT_*
    bool Marked = false;    // by its marked name
    bool Told = false; // the names were known; when nothing is found, nothing is there, links that lead nowhere too
};

class DirectoryIndex {
public:
    DirectoryIndex(EventLog &Log, std::atomic<size_t> &Names, std::atomic<size_t> &Scans);
    ~DirectoryIndex();

    // Whether the directory was read already: looking up will most likely not read it.
    bool IsKnown() const {
        return Known_;
    }

    // Looks Served up in the directory open as Fd: exactly, when it is served for the entry Native (empty = it is not a
    // name of one), in any case, by its marked or by its short name. CODE_NO_SUCH_FILE when it names nothing,
    // CODE_EXISTS when it is one spelling of several names and none of them exactly, and errors of reading. A directory
    // that finds names in any case itself is not read for one without "~".
    // Fd may be -1 when the names are known: what cannot be told without the directory is Unsuccessful then.
    RVSTATUS Find(int Fd, std::u16string_view Served, std::string_view Native, FoundName &Out);

    // The names that FoldedMask takes, sorted by their folded form. With WithShort their short names are matched too.
    RVSTATUS List(int Fd, std::u16string_view FoldedMask, bool WithShort, NameList &Out);

private:
    struct Item {
        uint32_t At;   // in Bytes_
        uint32_t Hash; // of the folded name
        uint16_t Size; // 0 = free
        unsigned char Type;
        bool IsPlain : 1;    // IsServedAsItIs
        bool IsAlone : 1;    // no other name is the same but for its case; right while Order_ is known
        bool SharesHash : 1; // another one has its ShortEndingOf, or had
    };
    static_assert(sizeof(Item) == 12);

    RVSTATUS Refresh(int Fd);
    bool Apply(int Fd);
    RVSTATUS Scan(int Fd, off_t Bytes);
    void Clear();
    void Add(std::string_view Native, unsigned char Type);
    void Remove(std::string_view Native);
    bool HasRoomFor(std::string_view Native) const;
    void MakeTable();
    void Tidy();
    void NeedShorts();
    uint32_t ItemOfShort(const ShortCode &Short) const;
    uint32_t ByShort(std::u16string_view Short);
    void NoteSharing(Item &Each);
    // Where the search for a name with that hash begins in Table_, and that for its short name as well.
    size_t StartOf(uint32_t Hash) const {
        return ShortEndingOf(Hash) & (Table_.size() - 1);
    }
    std::string_view NameOf(const Item &Each) const {
        return std::string_view(Bytes_).substr(Each.At, Each.Size);
    }
    const std::u16string &FoldedOf(const Item &Each);
    template <class Visitor>
    void ForHash(uint32_t Hash, Visitor Visit) const;
    void Sort();

    EventLog &Log_;
    std::atomic<size_t> &Names_; // of all directories
    std::atomic<size_t> &Scans_;

    std::mutex Mutex_; // guards what follows
    std::vector<Item> Items_;
    std::vector<uint32_t> Free_;  // items that can be used again
    std::vector<uint32_t> Table_; // item + 1, 0 = never used, Gone = was used; a power of two
    size_t TableUsed_ = 0;        // places that are not 0
    std::string Bytes_;
    size_t Garbage_ = 0; // bytes of names that went
    std::u16string Scratch_;
    std::vector<NameChange> Changes_; // told and not applied yet
    std::vector<uint32_t> Order_;     // items by their folded names; empty = not known
    std::vector<ShortCode> Shorts_;   // by item; empty for one that its short name does not lead to
    bool KnowsShorts_ = false;
    int Watch_ = -1;
    std::atomic<bool> Known_ = false; // changed under the mutex
    std::optional<bool> Folds_;       // whether the directory finds names in any case itself; empty = not asked
    struct timespec Modified_ {};
    struct timespec Changed_ {};
    struct timespec ScannedAt_ {};
};

} // namespace providers::directory
