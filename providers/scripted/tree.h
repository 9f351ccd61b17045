// The default behaviour of the scripted Provider: a small tree of servers, volumes, directories and files in memory,
// serving every operation by the contract, and the accounting of the handles it gives out.
//
// Not thread-safe: the ScriptedProvider guards it with its mutex. Handles are numbered upwards and never reused, so a
// closed one is recognised. Misuse by the caller is answered with an error and noted in Violations.
#pragma once

#include "providers/scripted/call.h"
#include "providers/scripted/node.h"

#include <functional>
#include <set>

namespace providers {

enum class HandleKind { Volume, Directory, File };

class Tree {
public:
    // ---- Building and looking. Paths are absolute (u"\\srv\\vol\\docs\\a.txt"); missing parents are made.

    Volume &AddVolume(std::u16string_view Path);
    Node &AddDirectory(std::u16string_view Path);
    Node &AddFile(std::u16string_view Path, std::string_view Content = {});
    // nullptr when nothing is there.
    Node *Find(std::u16string_view Path);
    Volume *FindVolume(std::u16string_view Path);
    std::string ContentOf(std::u16string_view Path);
    // Slot 49 answers Physical with what follows Link in the path.
    void AddDistributedLink(std::u16string_view Link, std::u16string_view Physical);
    // Whether the share arguments of open files exclude each other, as at a server with other clients. Default: yes.
    void SetSharing(bool Enforced);

    // ---- Accounting

    std::vector<std::string> OpenHandles() const;
    const std::vector<std::string> &Violations() const {
        return Violations_;
    }
    void Violation(std::string Text);
    void SetOperation(Slot Current) {
        Current_ = Current;
    }
    // Closes Handle, if open, without a word.
    void Forget(RVHANDLE Handle);

    // ---- The operations, by the contract

    RVSTATUS OpenVolume(PCWSTR Path, RVHANDLE *Volume);
    RVSTATUS GetVolumeInformation(RVHANDLE Volume, ULONG *Flags, UCHAR *Identifier);
    RVSTATUS GetVolumeSize(RVHANDLE Volume, const Outputs &Out);
    RVSTATUS QueryPathForVolume(PCWSTR FullPath, PWSTR Buffer);
    RVSTATUS GetPhysicalPath(PUNICODE_STRING Path, PUNICODE_STRING Physical);
    RVSTATUS Close(HandleKind Kind, RVHANDLE Handle);

    RVSTATUS CreateDirectory(RVHANDLE Base, PCWSTR Path);
    RVSTATUS OpenDirectory(RVHANDLE Base, PCWSTR Path, RVHANDLE *Directory);
    RVSTATUS CreateFile(RVHANDLE Base, PCWSTR Path, ULONG Access, ULONG Share, ULONG Disposition, ULONG Options,
                        ULONG Attributes, RVHANDLE *File, ULONG *Action);
    RVSTATUS Delete(bool Directory, RVHANDLE Base, PCWSTR Path);
    RVSTATUS Move(bool Directory, RVHANDLE SourceBase, PCWSTR Source, RVHANDLE TargetBase, PCWSTR Target);
    RVSTATUS Enumerate(RVHANDLE Directory, PCWSTR Mask, bool ShortNames, ULONG *ResumeKey, ULONG *BufferSize,
                       PVOID Buffer);

    RVSTATUS GetInformation(bool Directory, RVHANDLE Handle, const Outputs &Out);
    RVSTATUS SetInformation(bool Directory, RVHANDLE Handle, ULONG *Attributes, LONG64 *Creation, LONG64 *LastWrite,
                            LONG64 *LastAccess);
    RVSTATUS GetFileId(RVHANDLE Handle, ULONG64 *FileId);
    RVSTATUS GetEffectiveRights(RVHANDLE Handle, USHORT *Rights);
    RVSTATUS FlushFile(RVHANDLE File);
    RVSTATUS LockFile(RVHANDLE File, bool Exclusive, ULONG64 Offset, ULONG64 Length);
    RVSTATUS UnlockFile(RVHANDLE File, ULONG64 Offset, ULONG64 Length);
    RVSTATUS ReadFile(RVHANDLE File, const LONG64 *Offset, ULONG64 Length, PVOID Buffer, ULONG64 *Bytes);
    RVSTATUS WriteFile(RVHANDLE File, const LONG64 *Offset, ULONG64 Length, PVOID Buffer, ULONG64 *Bytes);
    RVSTATUS ModifyFileAccess(RVHANDLE File, ULONG Access, ULONG Share, ULONG Options);

private:
    struct OpenHandle {
        HandleKind Kind;
        std::shared_ptr<Node> Target;
        std::u16string Path;
        ULONG Access = 0;
        ULONG Share = 0;
        ULONG Options = 0;
    };
    // Where a path leads. Target is empty when the last component does not exist; Parent when there is none.
    struct Place {
        RVSTATUS Status = RVSTATUS::Success;
        std::shared_ptr<Node> Parent;
        std::shared_ptr<Node> Target;
        std::u16string Leaf;
    };

    Place Resolve(RVHANDLE Base, PCWSTR Path);
    Place Walk(std::shared_ptr<Node> Start, const std::vector<std::u16string> &Components, size_t First);
    RVSTATUS VolumeOf(const std::vector<std::u16string> &Components, Volume **Found);
    OpenHandle *HandleOf(RVHANDLE Handle, std::initializer_list<HandleKind> Kinds);
    OpenHandle *FileOf(RVHANDLE Handle);
    RVHANDLE Open(HandleKind Kind, std::shared_ptr<Node> Target, std::u16string Path);
    bool SharingConflict(const Node &Target, ULONG Access, ULONG Share, RVHANDLE Except) const;
    bool LockConflict(const OpenHandle &File, RVHANDLE Handle, ULONG64 Offset, ULONG64 Length, bool Writing) const;
    RVSTATUS Resize(Node &File, ULONG64 Size);
    std::shared_ptr<Node> MakeNode(std::u16string_view Name, bool Directory);
    LONG64 Now();

    std::set<std::u16string> Servers_;                                    // folded names
    std::map<std::pair<std::u16string, std::u16string>, Volume> Volumes_; // folded server, volume
    std::vector<std::pair<std::u16string, std::u16string>> Links_;
    std::map<RVHANDLE, OpenHandle> Handles_;
    RVHANDLE LastHandle_ = 0;
    ULONG64 LastId_ = 0;
    bool Sharing_ = true;
    Slot Current_ = Slot::Any;
    std::vector<std::string> Violations_;
};

// 0xC7E7xxxx: an error of the Provider with that code.
constexpr RVSTATUS ProviderError(USHORT Code) {
    return static_cast<RVSTATUS>(0xC7E70000u | Code);
}

// Codes of the tree's own answers beyond those that the driver tells apart.
enum TREE_CODE : USHORT {
    CodeNoSuchFile = 0x0506,
    CodeDiskFull = 0x0509,
    CodeSharingViolation = 0x050D,
    CodeNameCollision = 0x0510,
    CodeDirectoryNotEmpty = 0x0513,
    CodePathInvalid = 0x0514,
    CodeNameInvalid = 0x0515,
    CodeLockConflict = 0x051E,
    CodeLockNotGranted = 0x051F,
    CodeIsADirectory = 0x0521,
    CodeNotSameDevice = 0x0534,
    CodeRangeNotLocked = 0x0537,
};

} // namespace providers
