// Directories, read as they were when their reading began.
//
// The kernel keeps what it was listed in the directory's pages, and lists it to the next reader itself where an opening
// says that it may. It drops them when one of its own calls changes the directory; for what other clients change this
// side says no when the listing is half as old as attributes may get, so that those it came with still hold. An offset
// names the listing that it belongs to: pages never mix two, and when the kernel drops them while somebody reads, he
// goes on in the listing that he began.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "app/mount/file_system.h"

namespace app::mount {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t FirstEntry = 2;
constexpr size_t MostKept = 65536;              // entries
constexpr std::chrono::seconds LongestKept{60}; // for who still reads it

// Above the place in a listing is its number.
off_t OffsetOf(uint32_t Listing, size_t Index) {
    return static_cast<off_t>(uint64_t{Listing} << 32 | Index);
}
uint32_t NumberIn(off_t Offset) {
    return static_cast<uint32_t>(Offset >> 32);
}
size_t IndexIn(off_t Offset) {
    return static_cast<uint32_t>(Offset);
}

bool IsOlder(Clock::time_point Than, double Seconds) {
    return std::chrono::duration<double>(Clock::now() - Than).count() > Seconds;
}

} // namespace

struct FileSystem::Listing {
    struct Entry {
        std::string Name;
        Facts Found;
        bool Known = true; // Found is right
    };

    Listing(uint32_t WithNumber, fuse_ino_t Directory) : Number(WithNumber), Of(Directory) {
    }

    const uint32_t Number; // not 0 where it is read from
    const fuse_ino_t Of;
    std::mutex Lock;            // the rest
    std::vector<Entry> Entries; // after "." and ".."
    bool Loaded = false;
    Clock::time_point Named;              // when the names were asked for
    Clock::time_point Asked;              // when the attributes were
    uint64_t Changes = 0;                 // and what had been changed then
    std::chrono::duration<double> Took{}; // to have it from the server
};

// A directory that a program has open.
struct FileSystem::Directory {
    std::mutex Lock;
    std::shared_ptr<Listing> Opened; // what the kernel may list itself
    std::shared_ptr<Listing> Now;    // since its beginning was read last
};

std::shared_ptr<FileSystem::Listing> FileSystem::MakeListing(fuse_ino_t Of) {
    return std::make_shared<Listing>(++ListingNumber_ % INT32_MAX + 1, Of);
}

void FileSystem::Keep(const std::shared_ptr<Listing> &Loaded) {
    const size_t Entries = Loaded->Entries.size();
    if (Entries > MostKept) {
        return;
    }
    const std::lock_guard Hold(DirectoriesLock_);
    Kept_.push_back(Loaded);
    LastKept_[Loaded->Of] = Loaded;
    KeptEntries_ += Entries;
    while (!Kept_.empty() && (KeptEntries_ > MostKept || IsOlder(Kept_.front()->Named, LongestKept.count()))) {
        const auto Last = LastKept_.find(Kept_.front()->Of);
        if (Last != LastKept_.end() && Last->second == Kept_.front()) {
            LastKept_.erase(Last);
        }
        KeptEntries_ -= Kept_.front()->Entries.size();
        Kept_.pop_front();
    }
}

// What the kernel may list once more; null without it.
std::shared_ptr<FileSystem::Listing> FileSystem::Kept(fuse_ino_t Of) {
    const std::lock_guard Hold(DirectoriesLock_);
    const auto At = LastKept_.find(Of);
    return At != LastKept_.end() && !IsOlder(At->second->Named, Options_.AttributeTimeout / 2) ? At->second : nullptr;
}

int FileSystem::OpenDirectory(fuse_req_t Request, fuse_ino_t Inode, fuse_file_info *File) {
    // Nothing is opened at the server: a directory that is being read may be renamed and removed.
    auto Made = std::make_shared<Directory>();
    Made->Opened = Kept(Inode);
    File->cache_readdir = Options_.AttributeTimeout > 0 ? 1 : 0;
    File->keep_cache = Made->Opened ? 1 : 0;
    Made->Now = Made->Opened ? Made->Opened : MakeListing(Inode);
    File->fh = reinterpret_cast<uint64_t>(Made.get());
    {
        const std::lock_guard Hold(DirectoriesLock_);
        Directories_.insert(std::move(Made));
    }
    if (fuse_reply_open(Request, File) == -ENOENT) { // the open was interrupted: nobody will release it
        DropDirectory(File);
    }
    return 0;
}

void FileSystem::DropDirectory(const fuse_file_info *File) {
    const std::lock_guard Hold(DirectoriesLock_);
    Directories_.erase(Directories_.find(reinterpret_cast<Directory *>(File->fh)));
}

int FileSystem::ReleaseDirectory(fuse_req_t Request, fuse_ino_t, fuse_file_info *File) {
    DropDirectory(File);
    fuse_reply_err(Request, 0);
    return 0;
}

int FileSystem::Load(Node *Which, Listing &To) {
    To.Entries.clear();
    To.Loaded = false;
    To.Changes = Changes_;
    To.Named = To.Asked = Clock::now();
    if (Which->In == nullptr) {
        const bool Servers = Which == Nodes_.Root();
        Facts Directory;
        Directory.Attributes = FILE_ATTRIBUTE_DIRECTORY;
        for (const std::unique_ptr<Volume> &Each : Volumes_) {
            const size_t End = Each->Path.find(u'\\', 1);
            const std::string Server = LocalName(std::u16string_view(Each->Path).substr(1, End - 1));
            std::string Name = Servers ? Server : LocalName(std::u16string_view(Each->Path).substr(End + 1));
            const bool Known = std::any_of(To.Entries.begin(), To.Entries.end(),
                                           [&Name](const Listing::Entry &One) { return SameName(One.Name, Name); });
            if (!Known && (Servers || SameName(Server, Which->Name))) {
                To.Entries.push_back({std::move(Name), Directory});
            }
        }
        To.Changes = ~uint64_t{0}; // no attributes along with these
        To.Loaded = true;
        return 0;
    }
    const std::shared_lock Hold(Which->In->Renaming);
    const std::u16string Path = Nodes_.Path(Which);
    if (Path.empty()) {
        To.Loaded = true; // removed while it was open: empty
        return 0;
    }
    Remote Handle;
    if (const int Error =
            Handle.Open(Path, {.Access = FILE_READ_ATTRIBUTES | FILE_READ_DATA, .Options = FILE_DIRECTORY_FILE});
        Error != 0) {
        return Error;
    }
    if (const int Error = Handle.List([&](std::u16string_view Name, const Facts &Found) {
            std::string Local = LocalName(Name);
            if (!IsHidden(Which, Local)) {
                To.Entries.push_back({std::move(Local), Found});
            }
        });
        Error != 0) {
        To.Entries.clear();
        return Error;
    }
    To.Took = Clock::now() - To.Asked;
    To.Loaded = true;
    return 0;
}

// Asks for the attributes anew when they got too old while the directory is read, where that takes much less time than
// they may be kept: a program that looks at each entry as it comes would else have each asked for on its own. The names
// stay what they are and where they are.
void FileSystem::Renew(Node *Which, Listing &Old, size_t Index) {
    constexpr size_t Worthwhile = 64; // entries
    const bool Left = Index + Worthwhile < Old.Entries.size();
    const double Allowed = Options_.AttributeTimeout;
    Listing New(0, Old.Of);
    if (!Left || Old.Changes != Changes_ || !IsOlder(Old.Asked, Allowed) || Old.Took.count() * 4 > Allowed ||
        Load(Which, New) != 0) {
        return;
    }
    std::unordered_map<std::string_view, const Facts *> Now;
    for (const Listing::Entry &Each : New.Entries) {
        Now.emplace(Each.Name, &Each.Found);
    }
    for (Listing::Entry &Each : Old.Entries) {
        const auto At = Now.find(Each.Name);
        Each.Known = At != Now.end();
        if (Each.Known) {
            Each.Found = *At->second;
        }
    }
    Old.Changes = New.Changes;
    Old.Asked = New.Asked;
    Old.Took = New.Took;
}

// The listing that Offset belongs to; at the beginning one that nobody has read from. Where it is not known any more,
// the last one of who reads.
std::shared_ptr<FileSystem::Listing> FileSystem::Choose(fuse_ino_t Inode, off_t Offset, Directory &From) {
    const std::lock_guard Hold(From.Lock);
    if (Offset == 0) {
        const std::lock_guard HoldListing(From.Now->Lock);
        return From.Now->Loaded ? From.Now = MakeListing(Inode) : From.Now;
    }
    const uint32_t Number = NumberIn(Offset);
    for (const std::shared_ptr<Listing> &Each : {From.Now, From.Opened}) {
        if (Each && Each->Number == Number) {
            return Each;
        }
    }
    const std::lock_guard HoldAll(DirectoriesLock_);
    const auto At =
        std::find_if(Kept_.begin(), Kept_.end(), [Number](const auto &Each) { return Each->Number == Number; });
    return At != Kept_.end() ? *At : From.Now;
}

// With the answer the reader may close the directory: it is sent when that is not needed any more.
int FileSystem::ReadListing(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, Directory &From,
                            bool Plus) {
    Node *Which = NodeOf(Inode);
    const std::shared_ptr<Listing> Of = Choose(Inode, Offset, From);
    std::vector<char> Buffer(Size);
    size_t Used = 0;
    {
        const std::lock_guard Hold(Of->Lock);
        if (!Of->Loaded) {
            if (const int Error = Load(Which, *Of); Error != 0) {
                return Error;
            }
            Keep(Of);
        } else if (Plus) {
            Renew(Which, *Of, IndexIn(Offset));
        }
        Used = Pack(Request, Which, IndexIn(Offset), *Of, Plus, Buffer);
    }
    fuse_reply_buf(Request, Buffer.data(), Used);
    return 0;
}

// As many entries from Index on as Buffer holds; the bytes of them.
size_t FileSystem::Pack(fuse_req_t Request, Node *Which, size_t Index, const Listing &From, bool Plus,
                        std::vector<char> &Buffer) {
    const size_t Size = Buffer.size();
    // Attributes go along as long as nothing was changed since they came, and they are not older than they may get.
    const bool Fresh = From.Changes == Changes_ && !IsOlder(From.Asked, Options_.AttributeTimeout);
    size_t Used = 0;
    for (size_t At = Index; At < FirstEntry + From.Entries.size(); ++At) {
        const off_t Next = OffsetOf(From.Number, At + 1);
        Facts Directory;
        Directory.Attributes = FILE_ATTRIBUTE_DIRECTORY;
        const Listing::Entry *One = At < FirstEntry ? nullptr : &From.Entries[At - FirstEntry];
        const char *Name = One != nullptr ? One->Name.c_str() : At == 0 ? "." : "..";
        const Facts &Found = One != nullptr ? One->Found : Directory;
        const uint64_t Number = One != nullptr  ? Nodes_.NumberOf(Which, One->Name)
                                : At == 0       ? Which->Number
                                : Which->Parent ? Which->Parent->Number
                                                : Nodes_.Root()->Number;
        fuse_entry_param Answer = {};
        Answer.attr = Describe(Number, Found);
        size_t Needs;
        if (Plus) {
            if (fuse_add_direntry_plus(Request, nullptr, 0, Name, nullptr, 0) > Size - Used) {
                break;
            }
            Node *Child =
                One != nullptr && One->Known && Fresh ? Nodes_.Lookup(Which, One->Name, Found.IsDirectory()) : nullptr;
            if (Child != nullptr) {
                Answer = Entry(Child, Found);
            }
            Needs = fuse_add_direntry_plus(Request, Buffer.data() + Used, Size - Used, Name, &Answer, Next);
        } else {
            Needs = fuse_add_direntry(Request, Buffer.data() + Used, Size - Used, Name, &Answer.attr, Next);
        }
        if (Needs > Size - Used) {
            break;
        }
        Used += Needs;
    }
    return Used;
}

int FileSystem::ReadDirectory(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, fuse_file_info *File) {
    return ReadListing(Request, Inode, Size, Offset, *reinterpret_cast<Directory *>(File->fh), false);
}

int FileSystem::ReadDirectoryPlus(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset,
                                  fuse_file_info *File) {
    return ReadListing(Request, Inode, Size, Offset, *reinterpret_cast<Directory *>(File->fh), true);
}

} // namespace app::mount
