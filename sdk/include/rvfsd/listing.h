// Listing a directory: entries, search masks, batches of records, searches that go on from batch to batch.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "provider/provider_interface.h"

namespace rvfsd {

struct Information {
    ULONG Attributes = 0; // RV_ATTR_*
    LONG64 Creation = 0;  // 100-ns units since 1601, as all times
    LONG64 LastWrite = 0;
    LONG64 LastAccess = 0;
    ULONG64 EndOfFile = 0;
};

struct Entry {
    std::u16string Name;
    Information About;
    std::u16string ShortName = {}; // at most 12 units; empty without one
};

// The unit in upper case as far as ASCII goes. A Provider whose server folds more brings a comparison of its own.
inline char16_t FoldUnit(char16_t Unit) {
    return Unit >= u'a' && Unit <= u'z' ? static_cast<char16_t>(Unit - (u'a' - u'A')) : Unit;
}
inline std::u16string Fold(std::u16string_view Name) {
    std::u16string Folded(Name);
    std::transform(Folded.begin(), Folded.end(), Folded.begin(), FoldUnit);
    return Folded;
}

// Whether Name matches a search mask as the driver hands it on: * and ?, and for the platform's own wildcards < > " the
// units U+F8FC (anything up to the last full stop), U+F8FD (one unit, or none before a full stop or at the end) and
// U+F8FF (a full stop, or nothing at the end). Both folded.
inline bool MatchesMask(std::u16string_view Mask, std::u16string_view Name) {
    // Which positions of Name the part of Mask so far can have come to.
    std::vector<bool> At(Name.size() + 1, false);
    At[0] = true;
    const size_t LastStop = Name.rfind(u'.');
    for (const char16_t Unit : Mask) {
        std::vector<bool> Next(Name.size() + 1, false);
        bool Running = false; // inside what * or U+F8FC covers
        for (size_t Index = 0; Index <= Name.size(); Index++) {
            const bool Here = At[Index];
            const bool Ends = Index == Name.size();
            const bool AtStop = !Ends && Name[Index] == u'.';
            if (Unit == u'*' || Unit == 0xF8FC) {
                Running = Running || Here;
                Next[Index] = Next[Index] || Running;
                if (Unit == 0xF8FC && Index == LastStop) {
                    Running = false; // the last full stop itself is not covered
                }
                continue;
            }
            if (!Here) {
                continue;
            }
            if (Unit == 0xF8FD && (Ends || AtStop)) {
                Next[Index] = true;
            } else if (Unit == 0xF8FF && Ends) {
                Next[Index] = true;
            } else if (!Ends && (Unit == u'?' || Unit == 0xF8FD || (Unit == 0xF8FF && AtStop) || Unit == Name[Index])) {
                Next[Index + 1] = true;
            }
        }
        At = std::move(Next);
    }
    return At[Name.size()];
}

// One batch of directory records in the caller's buffer.
class Batch {
public:
    // WithShortNames: the record form of slot 37, otherwise that of slot 16.
    Batch(PVOID Buffer, ULONG BufferBytes, bool WithShortNames)
        : Buffer_(static_cast<UCHAR *>(Buffer)), Room_(BufferBytes), NameOffset_(WithShortNames ? 88 : 60) {
    }

    // False when there is no more room; the batch is then as it was.
    bool Add(const Entry &One) {
        const size_t Start = (Bytes_ + 7) & ~size_t{7};
        const size_t NameBytes = One.Name.size() * sizeof(WCHAR);
        if (Start + NameOffset_ + NameBytes > Room_) {
            return false;
        }
        UCHAR *Record = Buffer_ + Start;
        memset(Record, 0, NameOffset_);
        memcpy(Record + 4, &One.About.Attributes, 4);
        memcpy(Record + 8, &One.About.Creation, 8);
        memcpy(Record + 16, &One.About.LastWrite, 8);
        memcpy(Record + 24, &One.About.LastAccess, 8);
        memcpy(Record + 32, &One.About.EndOfFile, 8);
        if (NameOffset_ == 88) {
            const ULONG Units = static_cast<ULONG>(std::min<size_t>(One.ShortName.size(), 12));
            memcpy(Record + 56, &Units, 4);
            memcpy(Record + 60, One.ShortName.data(), Units * sizeof(WCHAR));
        }
        const ULONG Units = static_cast<ULONG>(One.Name.size());
        memcpy(Record + NameOffset_ - 4, &Units, 4);
        memcpy(Record + NameOffset_, One.Name.data(), NameBytes);
        if (Last_ != nullptr) {
            const ULONG Distance = static_cast<ULONG>(Record - Last_);
            memcpy(Last_, &Distance, 4);
        }
        Last_ = Record;
        Bytes_ = Start + NameOffset_ + NameBytes;
        return true;
    }
    bool Empty() const {
        return Last_ == nullptr;
    }
    ULONG Bytes() const {
        return static_cast<ULONG>(Bytes_);
    }

private:
    UCHAR *Buffer_;
    size_t Room_;
    size_t NameOffset_;
    size_t Bytes_ = 0;
    UCHAR *Last_ = nullptr;
};

// The searches that are under way. Each is a list made when it began, so that entries that come and go meanwhile make
// no other entry appear twice or be missed. Its resume key is a tag and a position; a search that had to make room for
// newer ones of its handle answers as a lost connection, since the driver takes every other error for the end of the
// directory.
class Searches {
public:
    using List = std::vector<Entry>;
    static constexpr RVSTATUS NoMoreFiles{0xC7E70505};
    static constexpr RVSTATUS TooSmall{0xC7E70007};
    static constexpr RVSTATUS Lost{0xC7E70101};

    // Makes a search of the entries and gives the key under which it goes on from its first entry.
    ULONG Begin(RVHANDLE Directory, List Entries) {
        const std::lock_guard Hold(Lock_);
        auto &Of = Kept_[Directory];
        Of.Tag = Of.Tag == LastTag ? 1 : Of.Tag + 1;
        Of.Running[Of.Tag] = std::make_shared<const List>(std::move(Entries));
        if (Of.Running.size() > KeptOfOne) {
            const auto Next = Of.Running.upper_bound(Of.Tag);
            Of.Running.erase(Next == Of.Running.end() ? Of.Running.begin() : Next);
        }
        return Of.Tag << PositionBits;
    }
    // The next batch of the search that *Key names; *Key moves on.
    RVSTATUS Next(RVHANDLE Directory, ULONG *Key, Batch &Out) {
        if (*Key == End) {
            return NoMoreFiles;
        }
        const std::shared_ptr<const List> Entries = Find(Directory, *Key >> PositionBits);
        size_t Position = *Key & MaxPosition;
        if (Entries == nullptr || Position > Entries->size()) {
            return Lost;
        }
        while (Position < Entries->size() && Out.Add((*Entries)[Position])) {
            Position++;
        }
        if (Out.Empty() && Position < Entries->size()) {
            return TooSmall;
        }
        if (Position == Entries->size()) {
            Forget(Directory, *Key >> PositionBits);
            *Key = End;
        } else {
            *Key = (*Key & ~MaxPosition) | static_cast<ULONG>(Position);
        }
        return Out.Empty() ? NoMoreFiles : RVSTATUS::Success;
    }
    // When the handle is closed.
    void Close(RVHANDLE Directory) {
        const std::lock_guard Hold(Lock_);
        Kept_.erase(Directory);
    }
    static constexpr size_t MostEntries = (1u << 24) - 1;

private:
    static constexpr unsigned PositionBits = 24;
    static constexpr ULONG MaxPosition = (1u << PositionBits) - 1;
    static constexpr ULONG LastTag = 254;
    static constexpr ULONG End = 0xFFFFFFFF;
    static constexpr size_t KeptOfOne = 8;
    struct OfOne {
        ULONG Tag = 0;
        std::map<ULONG, std::shared_ptr<const List>> Running;
    };

    std::shared_ptr<const List> Find(RVHANDLE Directory, ULONG Tag) {
        const std::lock_guard Hold(Lock_);
        const auto Of = Kept_.find(Directory);
        if (Of == Kept_.end()) {
            return nullptr;
        }
        const auto At = Of->second.Running.find(Tag);
        return At == Of->second.Running.end() ? nullptr : At->second;
    }
    void Forget(RVHANDLE Directory, ULONG Tag) {
        const std::lock_guard Hold(Lock_);
        if (const auto Of = Kept_.find(Directory); Of != Kept_.end()) {
            Of->second.Running.erase(Tag);
        }
    }

    std::mutex Lock_;
    std::map<RVHANDLE, OfOne> Kept_;
};

} // namespace rvfsd
