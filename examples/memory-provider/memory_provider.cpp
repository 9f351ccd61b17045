// A Provider that keeps files in memory: one volume, files and directories that can be read, written, created, renamed
// and deleted, and that are gone when it goes. Small enough to be read in one go, complete enough to be used.
//
//   rvfsd --provider ./libmemory.so --provider-options volume='\\lab\scratch',size=64M ...

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include <rvfsd/handle_table.h>
#include <rvfsd/provider.h>

namespace {

using namespace rvfsd;

LONG64 Now() {
    using Ticks = std::chrono::duration<LONG64, std::ratio<1, 10'000'000>>;
    constexpr LONG64 UnixEpoch = 116444736000000000; // 1970 on a clock that begins in 1601
    return UnixEpoch + std::chrono::duration_cast<Ticks>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A file or directory. It lives as long as the tree or a handle holds it; its bytes count until then.
struct Node {
    Node(ULONG Attributes, ULONG64 Id, std::atomic<ULONG64> &Used) : Id(Id), Used(Used) {
        About.Attributes = Attributes;
        About.Creation = About.LastWrite = About.LastAccess = Now();
    }
    ~Node() {
        Used -= Data.size();
    }
    bool IsDirectory() const {
        return (About.Attributes & RV_ATTR_DIRECTORY) != 0;
    }

    const ULONG64 Id;
    std::atomic<ULONG64> &Used;
    Information About; // EndOfFile: see Data
    std::string Data;
    struct Child {
        std::u16string Name; // as it was written
        std::shared_ptr<Node> Entry;
    };
    std::map<std::u16string, Child> Children; // by folded name
};
using NodePtr = std::shared_ptr<Node>;

// "volume=\\server\volume,size=64M", each of them optional.
struct Options {
    std::string Volume = "\\\\memory\\files";
    ULONG64 Size = 256ull << 20;

    explicit Options(std::string_view Text) {
        while (!Text.empty()) {
            const std::string_view One = Text.substr(0, Text.find(','));
            Text.remove_prefix(std::min(Text.size(), One.size() + 1));
            if (One.starts_with("volume=\\\\") && std::count(One.begin(), One.end(), '\\') == 3 &&
                std::all_of(One.begin(), One.end(), [](char Byte) { return Byte > ' ' && Byte < 0x7F; })) {
                Volume = One.substr(7);
            } else if (One.starts_with("size=") && One.size() > 5 && One.size() < 16 && isdigit(One[5])) {
                size_t Used = 0;
                Size = std::stoull(std::string(One.substr(5)), &Used);
                const std::string_view Unit = One.substr(5 + Used);
                if (Unit != "" && Unit != "K" && Unit != "M" && Unit != "G") {
                    throw std::invalid_argument("size: expected bytes, or K, M, G behind them");
                }
                Size <<= Unit == "K" ? 10 : Unit == "M" ? 20 : Unit == "G" ? 30 : 0;
            } else {
                throw std::invalid_argument("unknown option '" + std::string(One) +
                                            "'; known are volume=\\\\server\\volume and size=BYTES");
            }
        }
    }
};

class MemoryProvider final : public Provider {
public:
    explicit MemoryProvider(std::string_view Text) : Options_(Text) {
        Path_ = std::u16string(Options_.Volume.begin() + 1, Options_.Volume.end());
        Root_ = Make(RV_ATTR_DIRECTORY);
        const NodePtr Docs = Make(RV_ATTR_DIRECTORY);
        Root_->Children[u"DOCS"] = {u"docs", Docs};
        Docs->Children[u"A.TXT"] = {u"a.txt", Holding("This is docs\\a.txt.\n")};
        Root_->Children[u"README.TXT"] = {u"readme.txt", Holding("These files live in memory, behind " +
                                                                 Options_.Volume + ".\nThey go with the program.\n")};
    }

protected:
    std::vector<std::string> Volumes() override {
        return {Options_.Volume};
    }

    // ---- Volumes

    RVSTATUS QueryVolumePath(const Caller &, std::u16string_view FullPath, std::u16string &Volume) override {
        const std::u16string Asked = Fold(VolumePart(FullPath));
        if (Asked == Fold(Path_)) {
            Volume = Path_;
            return Success;
        }
        const size_t Server = Path_.find(u'\\', 1);
        return Asked.starts_with(Fold(Path_.substr(0, Server + 1))) ? UnknownVolume : UnknownServer;
    }
    RVSTATUS OpenVolume(const Caller &, std::u16string_view Path, RVHANDLE &Volume) override {
        if (Fold(Path) != Fold(Path_)) {
            return UnknownVolume;
        }
        Volume = Handles_.Open(Root_);
        return Success;
    }
    RVSTATUS CloseVolume(const Caller &, RVHANDLE Volume) override {
        return Close(Volume);
    }
    RVSTATUS QueryVolume(const Caller &, RVHANDLE, VolumeInformation &Out) override {
        Out.Flags = RV_VOLUME_IDENTIFIER_VALID;
        memcpy(Out.Identifier, "memory-provider", sizeof(Out.Identifier));
        return Success;
    }
    RVSTATUS QueryVolumeSize(const Caller &, RVHANDLE, VolumeSize &Out) override {
        const std::shared_lock Hold(Tree_);
        const ULONG64 Free = Options_.Size - Used_;
        Out = {Options_.Size, Free, Options_.Size, Free};
        return Success;
    }

    // ---- Names

    RVSTATUS OpenDirectory(const Caller &, Place At, RVHANDLE &Directory) override {
        const std::shared_lock Hold(Tree_);
        Found Here;
        if (const RVSTATUS Status = Find(At, Here); RvIsError(Status)) {
            return Status;
        }
        if (Here.Entry == nullptr) {
            return NoSuchFile;
        }
        if (!Here.Entry->IsDirectory()) {
            return NotADirectory;
        }
        Directory = Handles_.Open(Here.Entry);
        return Success;
    }
    RVSTATUS CreateDirectory(const Caller &, Place At) override {
        const std::unique_lock Hold(Tree_);
        Found Here;
        if (const RVSTATUS Status = Find(At, Here); RvIsError(Status)) {
            return Status;
        }
        if (Here.Entry != nullptr) {
            return NameCollision;
        }
        Add(Here, Make(RV_ATTR_DIRECTORY));
        return Success;
    }
    RVSTATUS OpenFile(const Caller &, Place At, const FileRequest &Wanted, RVHANDLE &File, ULONG &Action) override {
        const std::unique_lock Hold(Tree_);
        Found Here;
        if (const RVSTATUS Status = Find(At, Here); RvIsError(Status)) {
            return Status;
        }
        if (Here.Entry == nullptr && !Wanted.Creates()) {
            return NoSuchFile;
        }
        if (Here.Entry == nullptr) {
            Add(Here, Make(Wanted.Attributes));
            Action = RV_CREATE_ACTION_CREATED;
        } else if (Here.Entry->IsDirectory()) {
            return IsADirectory;
        } else if (Wanted.Disposition == RV_DISPOSITION_CREATE_NEW) {
            return NameCollision;
        } else if ((Wanted.Replaces() || (Wanted.Access & RV_ACCESS_WRITE) != 0) &&
                   (Here.Entry->About.Attributes & RV_ATTR_READONLY) != 0) {
            return AccessDenied;
        } else if (Wanted.Replaces()) {
            if (const RVSTATUS Status = Resize(*Here.Entry, 0); RvIsError(Status)) {
                return Status;
            }
            Here.Entry->About.Attributes = Wanted.Attributes;
            Action = 0;
        } else {
            Action = RV_CREATE_ACTION_OPENED;
        }
        File = Handles_.Open(Here.Entry);
        return Success;
    }
    RVSTATUS DeleteFile(const Caller &, Place At) override {
        return Delete(At, false);
    }
    RVSTATUS DeleteDirectory(const Caller &, Place At) override {
        return Delete(At, true);
    }
    RVSTATUS MoveFile(const Caller &, Place From, Place To) override {
        return Move(From, To);
    }
    RVSTATUS MoveDirectory(const Caller &, Place From, Place To) override {
        return Move(From, To);
    }
    RVSTATUS CloseDirectory(const Caller &, RVHANDLE Directory) override {
        return Close(Directory);
    }
    RVSTATUS CloseFile(const Caller &, RVHANDLE File) override {
        return Close(File);
    }

    // ---- What a handle stands for

    RVSTATUS Query(const Caller &, RVHANDLE Of, Information &Out) override {
        const NodePtr Entry = Handles_.Find(Of);
        if (Entry == nullptr) {
            return InvalidHandle;
        }
        const std::shared_lock Hold(Tree_);
        Out = About(*Entry);
        return Success;
    }
    RVSTATUS QueryFileId(const Caller &, RVHANDLE Of, ULONG64 &Id) override {
        const NodePtr Entry = Handles_.Find(Of);
        Id = Entry != nullptr ? Entry->Id : 0;
        return Entry != nullptr ? Success : InvalidHandle;
    }
    RVSTATUS Change(const Caller &, RVHANDLE Of, const Changes &To) override {
        const NodePtr Entry = Handles_.Find(Of);
        if (Entry == nullptr) {
            return InvalidHandle;
        }
        const std::unique_lock Hold(Tree_);
        Information &About = Entry->About;
        if (To.Attributes != nullptr) {
            About.Attributes = (About.Attributes & ~RV_ATTR_SETTABLE) | (*To.Attributes & RV_ATTR_SETTABLE);
        }
        About.Creation = To.Creation != nullptr ? *To.Creation : About.Creation;
        About.LastWrite = To.LastWrite != nullptr ? *To.LastWrite : About.LastWrite;
        About.LastAccess = To.LastAccess != nullptr ? *To.LastAccess : About.LastAccess;
        return Success;
    }
    RVSTATUS List(const Caller &, RVHANDLE Directory, std::vector<Entry> &Out) override {
        const NodePtr Of = Handles_.Find(Directory);
        if (Of == nullptr) {
            return InvalidHandle;
        }
        const std::shared_lock Hold(Tree_);
        for (const auto &[Folded, Child] : Of->Children) {
            Out.push_back({Child.Name, About(*Child.Entry)});
        }
        return Success;
    }

    // ---- Data

    RVSTATUS Read(const Caller &, RVHANDLE File, ULONG64 Offset, void *Buffer, ULONG64 Length,
                  ULONG64 &Bytes) override {
        const NodePtr Of = Handles_.Find(File);
        if (Of == nullptr) {
            return InvalidHandle;
        }
        const std::shared_lock Hold(Tree_);
        Bytes = Offset < Of->Data.size() ? std::min<ULONG64>(Length, Of->Data.size() - Offset) : 0;
        memcpy(Buffer, Of->Data.data() + (Bytes != 0 ? Offset : 0), Bytes);
        return Success;
    }
    RVSTATUS Write(const Caller &, RVHANDLE File, ULONG64 Offset, const void *Buffer, ULONG64 Length,
                   ULONG64 &Bytes) override {
        const NodePtr Of = Handles_.Find(File);
        if (Of == nullptr) {
            return InvalidHandle;
        }
        const std::unique_lock Hold(Tree_);
        if (Length > Options_.Size || Offset > Options_.Size - Length) {
            return DiskFull;
        }
        if (Offset + Length > Of->Data.size()) {
            if (const RVSTATUS Status = Resize(*Of, Offset + Length); RvIsError(Status)) {
                return Status;
            }
        }
        memcpy(Of->Data.data() + Offset, Buffer, Length);
        Of->About.LastWrite = Now();
        Bytes = Length;
        return Success;
    }
    RVSTATUS SetSize(const Caller &, RVHANDLE File, ULONG64 Size) override {
        const NodePtr Of = Handles_.Find(File);
        if (Of == nullptr) {
            return InvalidHandle;
        }
        const std::unique_lock Hold(Tree_);
        Of->About.LastWrite = Now();
        return Resize(*Of, Size);
    }

private:
    // Where a path leads. Entry is null where nothing is; Parent and Name then say where it would be.
    struct Found {
        NodePtr Parent; // null for the root
        std::u16string Name;
        NodePtr Entry;
    };

    NodePtr Make(ULONG Attributes) {
        return std::make_shared<Node>(Attributes, ++LastId_, Used_);
    }
    NodePtr Holding(std::string Data) {
        NodePtr File = Make(RV_ATTR_ARCHIVE);
        File->Data = std::move(Data);
        Used_ += File->Data.size();
        return File;
    }
    RVSTATUS Close(RVHANDLE Handle) {
        return Handles_.Close(Handle) ? Success : InvalidHandle;
    }
    static Information About(const Node &Entry) {
        Information Out = Entry.About;
        Out.EndOfFile = Entry.Data.size();
        return Out;
    }
    // The rest needs Tree_.
    RVSTATUS Find(Place At, Found &Out) {
        std::u16string_view Rest = At.Path;
        Out.Entry = At.Base != 0 ? Handles_.Find(At.Base) : Root_;
        if (Out.Entry == nullptr) {
            return InvalidHandle;
        }
        if (At.Base == 0) {
            if (Fold(VolumePart(Rest)) != Fold(Path_)) {
                return UnknownVolume;
            }
            Rest.remove_prefix(std::min(Rest.size(), Path_.size() + 1));
        }
        while (!Rest.empty()) {
            if (Out.Entry == nullptr || !Out.Entry->IsDirectory()) {
                return PathNotFound;
            }
            Out.Parent = Out.Entry;
            Out.Name = Rest.substr(0, Rest.find(u'\\'));
            Rest.remove_prefix(std::min(Rest.size(), Out.Name.size() + 1));
            const auto Child = Out.Parent->Children.find(Fold(Out.Name));
            Out.Entry = Child == Out.Parent->Children.end() ? nullptr : Child->second.Entry;
        }
        return Success;
    }
    void Add(Found &Here, NodePtr Entry) {
        Here.Entry = std::move(Entry);
        Here.Parent->Children[Fold(Here.Name)] = {Here.Name, Here.Entry};
        Here.Parent->About.LastWrite = Now();
    }
    RVSTATUS Resize(Node &Of, ULONG64 Size) {
        if (Size > Of.Data.size() && Size - Of.Data.size() > Options_.Size - Used_) {
            return DiskFull;
        }
        const ULONG64 Before = Of.Data.size();
        Of.Data.resize(Size);
        Used_ += Size - Before;
        return Success;
    }
    RVSTATUS Delete(Place At, bool Directory) {
        const std::unique_lock Hold(Tree_);
        Found Here;
        if (const RVSTATUS Status = Find(At, Here); RvIsError(Status)) {
            return Status;
        }
        if (Here.Entry == nullptr) {
            return NoSuchFile;
        }
        if (Here.Parent == nullptr) {
            return AccessDenied;
        }
        if (Here.Entry->IsDirectory() != Directory) {
            return Directory ? NotADirectory : IsADirectory;
        }
        if (!Here.Entry->Children.empty()) {
            return DirectoryNotEmpty;
        }
        Here.Parent->Children.erase(Fold(Here.Name));
        return Success;
    }
    RVSTATUS Move(Place From, Place To) {
        const std::unique_lock Hold(Tree_);
        Found Source, Target;
        if (const RVSTATUS Status = Find(From, Source); RvIsError(Status)) {
            return Status;
        }
        if (const RVSTATUS Status = Find(To, Target); RvIsError(Status)) {
            return Status;
        }
        if (Source.Entry == nullptr) {
            return NoSuchFile;
        }
        if (Source.Parent == nullptr || Target.Parent == nullptr || IsBelow(*Target.Parent, *Source.Entry)) {
            return AccessDenied;
        }
        // The same entry under its other spelling is no collision.
        if (Target.Entry != nullptr && Target.Entry != Source.Entry) {
            return NameCollision;
        }
        const NodePtr Moved = Source.Entry;
        Source.Parent->Children.erase(Fold(Source.Name));
        Add(Target, Moved);
        return Success;
    }
    static bool IsBelow(const Node &Entry, const Node &Above) {
        return &Entry == &Above || std::any_of(Above.Children.begin(), Above.Children.end(),
                                               [&](const auto &Child) { return IsBelow(Entry, *Child.second.Entry); });
    }

    const Options Options_;
    std::u16string Path_;          // \server\volume
    std::atomic<ULONG64> Used_{0}; // lives longer than every node
    std::shared_mutex Tree_;
    NodePtr Root_;
    ULONG64 LastId_ = 0;
    HandleTable<Node> Handles_;
};

} // namespace

RVFSD_PROVIDER(MemoryProvider, "memory");
