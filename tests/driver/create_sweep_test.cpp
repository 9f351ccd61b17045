// Every kind of open with every failure: of the Provider, of memory, of resources. Nothing may be left, and no success
// may be claimed that the Provider did not give.

#include "embedded/verifier/probe.h"
#include "tests/driver/create_client.h"

namespace {

using namespace test;

struct Kind {
    const char *Name;
    std::u16string_view Path;
    Open Request;
    bool Relative = false; // to \srv\vol\docs
    bool Shared = false;   // with another open of the same path
};

Open Deleting(Open Request) {
    Request.Access |= DELETE;
    return Request;
}

Open Sized(Open Request) {
    Request.AllocationSize = 1;
    return Request;
}

const Kind Kinds[] = {
    {"OpenFile", u"\\srv\\vol\\a.txt", {}},
    {"OpenFileToDelete", u"\\srv\\vol\\a.txt", With(ForDelete, FILE_OPEN, FILE_DELETE_ON_CLOSE)},
    {"OpenSharedFileToDelete", u"\\srv\\vol\\a.txt", With(ForDelete, FILE_OPEN, FILE_DELETE_ON_CLOSE), false, true},
    {"OpenSharedReadOnlyFileToDelete", u"\\srv\\vol\\kept", With(ForDelete, FILE_OPEN, FILE_DELETE_ON_CLOSE), false,
     true},
    {"OverwriteFile", u"\\srv\\vol\\a.txt", Sized(With({}, FILE_OVERWRITE))},
    {"SupersedeSharedFile", u"\\srv\\vol\\a.txt", With(ForDelete, FILE_SUPERSEDE), false, true},
    {"CreateFile", u"\\srv\\vol\\new", Sized(With(ForDelete, FILE_CREATE, N))},
    {"CreateFileOfNoType", u"\\srv\\vol\\new", With({}, FILE_OPEN_IF)},
    {"CreateTemporary", u"\\srv\\vol\\new", With(ForDelete, FILE_CREATE, N | FILE_DELETE_ON_CLOSE)},
    {"OpenMissing", u"\\srv\\vol\\docs\\no", {}},
    {"OpenDirectory", u"\\srv\\vol\\docs", Deleting(AsDirectory)},
    {"OpenSharedDirectory", u"\\srv\\vol\\docs", Deleting(AsDirectory), false, true},
    {"CreateDirectory", u"\\srv\\vol\\new", Deleting(With(AsDirectory, FILE_CREATE))},
    {"OpenOrCreateDirectory", u"\\srv\\vol\\new", Deleting(With(AsDirectory, FILE_OPEN_IF))},
    {"VolumeRoot", u"\\srv\\vol", AsDirectory},
    {"SharedVolumeRoot", u"\\srv\\vol", AsDirectory, false, true},
    {"RelativeFile", u"f.txt", ForDelete, true},
    {"RelativeDirectory", u"sub", AsDirectory, true},
    {"SameObject", u"", AsDirectory, true},
    {"Target", u"\\srv\\vol\\docs\\f.txt", AsTarget},
    {"RelativeTarget", u"new", AsTarget, true},
};

// All of an FCB that an open which fails must leave as it was.
auto StateOf(const FCB &Fcb) {
    return std::tuple(Fcb.OpenFlags + 0u, Fcb.OpenType + 0u, Fcb.OpenCount + 0u, Fcb.UncleanCount + 0u,
                      Fcb.VolumeResolved + 0u, Fcb.VolumeRoot + 0u, Fcb.FileLockInitialized + 0u,
                      Bytes(Fcb.ShareAccess), Fcb.Header.AllocationSize.QuadPart, Fcb.Header.FileSize.QuadPart,
                      Fcb.Header.ValidDataLength.QuadPart, std::u16string(Fcb.FullPath.Buffer),
                      Bytes(Fcb.DeleteOnCloseOwner) + Bytes(Fcb.DispositionOwner), Fcb.PrefixState + 0u, Fcb.Parent,
                      Fcb.PathChanges + 0u, Fcb.OldPathBytes + 0u, Fcb.InstanceList.Blink, Fcb.NotifyList.Blink,
                      Fcb.LockRequests.Blink);
}

class OpenSweep : public CreateFixture, public testing::WithParamInterface<Kind> {
protected:
    OpenSweep() {
        Provider.Edit([](Tree &Tree) { Tree.SetSharing(false); });
    }
    void SetUp() override {
        Bind();
        Reset();
        Open Request = GetParam().Request;
        if (GetParam().Relative) {
            Parent_ = MustOpen(u"\\srv\\vol\\docs", AsDirectory);
        }
        if (GetParam().Shared) {
            const bool IsDirectory = (Request.Options & FILE_DIRECTORY_FILE) != 0;
            Other_ = MustOpen(GetParam().Path, IsDirectory ? AsDirectory : Open{});
        }
        for (const HANDLE Each : {Parent_, Other_}) {
            if (Each != nullptr) {
                Before_.push_back(StateOf(*Fcb(Each)));
            }
        }
        Fcbs_ = FcbCount;
        Handles_ = Provider.OpenHandles();
    }
    void TearDown() override {
        for (const HANDLE Each : {Parent_, Other_}) {
            if (Each != nullptr) {
                Close(Each);
            }
        }
        ExpectNothingOpen("the sweep");
        CreateFixture::TearDown();
    }
    // The tree as the open finds it: files of another size than the last one found, and so than any FCB has.
    void Reset() {
        ++Size_;
        Provider.Edit([this](Tree &Tree) {
            Tree.Delete(false, 0, u"\\srv\\vol\\new");
            Tree.Delete(true, 0, u"\\srv\\vol\\new");
            for (const std::u16string_view Path :
                 {u"\\srv\\vol\\a.txt", u"\\srv\\vol\\docs\\f.txt", u"\\srv\\vol\\kept"}) {
                Node *const There = Tree.Find(Path);
                (There != nullptr ? *There : Tree.AddFile(Path)).Content.Resize(Size_);
            }
            Tree.Find(u"\\srv\\vol\\kept")->Attributes = RV_ATTR_READONLY;
        });
    }
    CreateResult OpenIt() {
        Open Request = GetParam().Request;
        Request.Related = Parent_;
        return Create(GetParam().Path, Request);
    }
    // An open that claims success has what the Provider gave it.
    void ExpectHonest(const CreateResult &Result, const std::string &Where) {
        if (Result.Handle == nullptr) {
            EXPECT_FALSE(NT_SUCCESS(Result.Status)) << Where;
            EXPECT_NE(Result.Status, STATUS_PENDING) << Where;
            return;
        }
        EXPECT_EQ(Result.Status, STATUS_SUCCESS) << Where;
        const PINSTANCE_CONTEXT Made = Instance(Result.Handle);
        ULONG Owned = 0;
        for (const RVHANDLE Each : {Made->FileHandle, Made->DirHandle, Made->VolumeHandle}) {
            Owned += Each != 0 ? 1 : 0;
        }
        EXPECT_EQ(Provider.OpenHandles().size(), Handles_.size() + Owned) << Where;
        const PFCB Opened = Fcb(Result.Handle);
        const ULONG Components = NtFsdCountPathComponents(&Opened->FullPath);
        EXPECT_EQ(Opened->Parent != nullptr, Components > 3) << Where << ": what its directory is renamed against";
        const bool IsTarget = (GetParam().Request.StackFlags & SL_OPEN_TARGET_DIRECTORY) != 0;
        if (!IsTarget) {
            EXPECT_EQ(Fcb(Result.Handle)->OpenType == OPEN_TYPE_FILE, Made->FileHandle != 0) << Where;
            EXPECT_NE(Fcb(Result.Handle)->OpenType, OPEN_TYPE_UNKNOWN + 0u) << Where;
        }
        Close(Result.Handle);
    }
    void ExpectAsBefore(const std::string &Where, bool Failed) {
        EXPECT_EQ(Provider.OpenHandles(), Handles_) << Where;
        EXPECT_EQ(FcbCount, Fcbs_) << Where;
        size_t At = 0;
        for (const HANDLE Each : {Parent_, Other_}) {
            if (Each != nullptr) {
                EXPECT_TRUE(!Failed || StateOf(*Fcb(Each)) == Before_[At]) << Where;
                Before_[At++] = StateOf(*Fcb(Each));
                EXPECT_EQ(Fcb(Each)->OpenCount, 1u) << Where;
                EXPECT_EQ(Fcb(Each)->UncleanCount, 1u) << Where;
            }
        }
    }

    HANDLE Parent_ = nullptr;
    HANDLE Other_ = nullptr;
    std::vector<decltype(StateOf(std::declval<FCB>()))> Before_; // of the FCBs that stay
    ULONG Fcbs_ = 0;
    size_t Size_ = 10;
    Calls Handles_;
};

TEST_P(OpenSweep, SurvivesEveryFailureOfTheProvider) {
    for (const ULONG Raw : {0xC7E70503u, 0xC7E70506u, 0xC7E70006u, 0xC7E70520u, 0xC7E70000u, 0xC7E7000Eu, 0xC7E70005u,
                            0x00000000u, 0x00000516u, 0x80000007u}) {
        for (unsigned Nth = 1;; Nth++) {
            ASSERT_LT(Nth, 60u);
            Reset();
            Provider.FailEverything(Slot::Any, Nth, static_cast<RVSTATUS>(Raw));
            const CreateResult Result = OpenIt();
            const bool Fired = Provider.FaultFired();
            Provider.ClearScript();
            const std::string Where = fmt::format("call {} answering {:08X}", Nth, Raw);
            ExpectHonest(Result, Where);
            ExpectAsBefore(Where, !NT_SUCCESS(Result.Status));
            if (!Fired) {
                EXPECT_GT(Nth, 2u);
                break;
            }
        }
    }
}

TEST_P(OpenSweep, SurvivesEveryLackOfMemoryAndResources) {
    for (const auto How : {FaultPlan::Mode::Nth, FaultPlan::Mode::NthAndAfter}) {
        for (ULONG64 Nth = 1;; Nth++) {
            ASSERT_LT(Nth, 200u);
            Reset();
            CreateResult Result;
            ULONG64 Failed = 0;
            {
                const PlannedFaults Faults({.How = How, .Nth = Nth});
                Result = OpenIt();
                Failed = GetFaultCounts().TotalFailed();
            }
            const std::string Where = fmt::format("service {}", Nth);
            ExpectHonest(Result, Where);
            ExpectAsBefore(Where, !NT_SUCCESS(Result.Status));
            if (Failed == 0) {
                EXPECT_GT(Nth, 3u) << "the path, the instance and the FCB need memory";
                break;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, OpenSweep, testing::ValuesIn(Kinds), [](const auto &Info) { return Info.param.Name; });

} // namespace
