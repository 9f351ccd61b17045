// Directories, read as they were when their reading began.

#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "app/mount/file_system.h"

namespace app::mount {

struct FileSystem::Listing {
    struct Entry {
        std::string Name;
        Facts Found;
        bool Known = true; // Found is right
    };
    bool IsOld(double Allowed) const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - Asked).count() > Allowed;
    }
    std::mutex Lock;
    std::vector<Entry> Entries; // after "." and ".."
    uint64_t Changes = 0;       // when the server was asked
    std::chrono::steady_clock::time_point Asked;
    std::chrono::duration<double> Took{}; // to have it from the server
    bool Loaded = false;
};

namespace {

constexpr off_t FirstEntry = 2;

} // namespace

int FileSystem::OpenDirectory(fuse_req_t Request, fuse_ino_t, fuse_file_info *File) {
    // Nothing is opened at the server: a directory that is being read may be renamed and removed.
    const auto Made = std::make_shared<Listing>();
    {
        const std::lock_guard Hold(ListingsLock_);
        Listings_.insert(Made);
    }
    File->fh = reinterpret_cast<uint64_t>(Made.get());
    if (fuse_reply_open(Request, File) == -ENOENT) { // the open was interrupted: nobody will release it
        DropListing(File);
    }
    return 0;
}

void FileSystem::DropListing(const fuse_file_info *File) {
    const std::lock_guard Hold(ListingsLock_);
    Listings_.erase(Listings_.find(reinterpret_cast<Listing *>(File->fh)));
}

int FileSystem::ReleaseDirectory(fuse_req_t Request, fuse_ino_t, fuse_file_info *File) {
    DropListing(File);
    fuse_reply_err(Request, 0);
    return 0;
}

int FileSystem::Load(Node *Which, Listing &To) {
    To.Entries.clear();
    To.Loaded = false;
    To.Changes = Changes_;
    To.Asked = std::chrono::steady_clock::now();
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
    To.Took = std::chrono::steady_clock::now() - To.Asked;
    To.Loaded = true;
    return 0;
}

// Asks for the attributes anew when they got too old while the directory is read, where that takes much less time than
// they may be kept: a program that looks at each entry as it comes would else have each asked for on its own. The names
// stay what they are and where they are.
void FileSystem::Renew(Node *Which, Listing &Old, off_t Offset) {
    constexpr size_t Worthwhile = 64; // entries
    const bool Left = static_cast<size_t>(Offset) + Worthwhile < Old.Entries.size();
    const double Allowed = Options_.AttributeTimeout;
    Listing New;
    if (!Left || Old.Changes != Changes_ || !Old.IsOld(Allowed) || Old.Took.count() * 4 > Allowed ||
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

// With the answer the reader may close the directory: it is sent when the listing is not needed any more.
int FileSystem::ReadListing(fuse_req_t Request, Node *Which, size_t Size, off_t Offset, Listing &From, bool Plus) {
    std::vector<char> Buffer(Size);
    size_t Used = 0;
    {
        const std::lock_guard Hold(From.Lock);
        if (Offset == 0 || !From.Loaded) {
            if (const int Error = Load(Which, From); Error != 0) {
                return Error;
            }
        } else if (Plus) {
            Renew(Which, From, Offset);
        }
        Used = Pack(Request, Which, Offset, From, Plus, Buffer);
    }
    fuse_reply_buf(Request, Buffer.data(), Used);
    return 0;
}

// As many entries from Offset on as Buffer holds; the bytes of them.
size_t FileSystem::Pack(fuse_req_t Request, Node *Which, off_t Offset, const Listing &From, bool Plus,
                        std::vector<char> &Buffer) {
    const size_t Size = Buffer.size();
    // Attributes go along as long as nothing was changed since they came, and they are not older than they may get.
    const bool Fresh = From.Changes == Changes_ && !From.IsOld(Options_.AttributeTimeout);
    size_t Used = 0;
    const off_t End = FirstEntry + static_cast<off_t>(From.Entries.size());
    for (off_t At = Offset; At < End; ++At) {
        Facts Directory;
        Directory.Attributes = FILE_ATTRIBUTE_DIRECTORY;
        const Listing::Entry *One = At < FirstEntry ? nullptr : &From.Entries[static_cast<size_t>(At - FirstEntry)];
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
            Needs = fuse_add_direntry_plus(Request, Buffer.data() + Used, Size - Used, Name, &Answer, At + 1);
        } else {
            Needs = fuse_add_direntry(Request, Buffer.data() + Used, Size - Used, Name, &Answer.attr, At + 1);
        }
        if (Needs > Size - Used) {
            break;
        }
        Used += Needs;
    }
    return Used;
}

int FileSystem::ReadDirectory(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset, fuse_file_info *File) {
    return ReadListing(Request, NodeOf(Inode), Size, Offset, *reinterpret_cast<Listing *>(File->fh), false);
}

int FileSystem::ReadDirectoryPlus(fuse_req_t Request, fuse_ino_t Inode, size_t Size, off_t Offset,
                                  fuse_file_info *File) {
    return ReadListing(Request, NodeOf(Inode), Size, Offset, *reinterpret_cast<Listing *>(File->fh), true);
}

} // namespace app::mount
