#include "providers/scripted/scripted_provider.h"

#include <fmt/format.h>

namespace providers {

// ---- The tree ------------------------------------------------------------------------------------------------

void ScriptedProvider::AddDirectory(std::u16string_view Path) {
    Edit([&](Tree &T) { T.AddDirectory(Path); });
}

void ScriptedProvider::AddFile(std::u16string_view Path, std::string_view Content, ULONG Attributes) {
    Edit([&](Tree &T) { T.AddFile(Path, Content).Attributes = Attributes; });
}

bool ScriptedProvider::Exists(std::u16string_view Path) {
    std::lock_guard Hold(Lock_);
    return Tree_.Find(Path) != nullptr;
}

std::string ScriptedProvider::Content(std::u16string_view Path) {
    std::lock_guard Hold(Lock_);
    return Tree_.ContentOf(Path);
}

ULONG ScriptedProvider::Attributes(std::u16string_view Path) {
    std::lock_guard Hold(Lock_);
    const Node *Found = Tree_.Find(Path);
    return Found == nullptr ? 0 : Found->AttributeWord();
}

void ScriptedProvider::Edit(const std::function<void(Tree &)> &Change) {
    std::lock_guard Hold(Lock_);
    Change(Tree_);
}

// ---- The script ----------------------------------------------------------------------------------------------

Rule &ScriptedProvider::OnCall(Slot Operation, Rule::Matcher Matches) {
    return Script_.Add(Operation, std::move(Matches));
}

Rule &ScriptedProvider::OnPath(Slot Operation, std::u16string Path) {
    return OnCall(Operation, [Wanted = FoldCase(Path)](const Call &Made) {
        return std::any_of(Made.Arguments.begin(), Made.Arguments.end(), [&](const Value &Argument) {
            const auto *Words = std::get_if<std::u16string>(&Argument.Content);
            return Words != nullptr && FoldCase(*Words) == Wanted;
        });
    });
}

void ScriptedProvider::FailEverything(Slot Operation, unsigned Nth, RVSTATUS Status) {
    std::unique_lock Hold(Lock_);
    Rule *Old = Fault_;
    Hold.unlock();
    if (Old != nullptr) {
        Script_.Remove(*Old);
    }
    // The release of the object has no status to answer.
    Rule &Fault = Script_.Add(Operation, [](const Call &Made) { return Made.Operation != Slot::Release; });
    Fault.Nth(Nth).Return(Status);
    Hold.lock();
    Fault_ = &Fault;
}

bool ScriptedProvider::FaultFired() const {
    std::lock_guard Hold(Lock_);
    return Fault_ != nullptr && Fault_->Fired() != 0;
}

void ScriptedProvider::ClearScript() {
    Script_.Retire();
    std::lock_guard Hold(Lock_);
    Fault_ = nullptr;
}

// ---- The record ----------------------------------------------------------------------------------------------

std::vector<Call> ScriptedProvider::CallRecords() const {
    std::lock_guard Hold(Lock_);
    std::vector<Call> Copies;
    for (const auto &Made : Calls_) {
        Copies.push_back(*Made);
    }
    return Copies;
}

std::vector<std::string> ScriptedProvider::Calls() const {
    std::lock_guard Hold(Lock_);
    std::vector<std::string> Lines;
    for (const auto &Made : Calls_) {
        Lines.push_back(Made->Format());
    }
    return Lines;
}

std::vector<std::string> ScriptedProvider::CallNames() const {
    std::lock_guard Hold(Lock_);
    std::vector<std::string> Names;
    for (const auto &Made : Calls_) {
        Names.emplace_back(NameOf(Made->Operation));
    }
    return Names;
}

std::string ScriptedProvider::CompareCalls(const std::vector<std::string> &Expected) const {
    std::vector<std::string> Wanted;
    for (const std::string &Name : Expected) {
        const bool Whole = Name.starts_with("RVFsd") || Name == NameOf(Slot::Release);
        Wanted.push_back(Whole ? Name : "RVFsd" + Name);
    }
    const auto Names = CallNames();
    if (Names == Wanted) {
        return {};
    }
    std::string Report = "expected:\n";
    for (const std::string &Name : Wanted) {
        Report += "  " + Name + "\n";
    }
    Report += "called:\n";
    for (const std::string &Line : Calls()) {
        Report += "  " + Line + "\n";
    }
    return Report;
}

unsigned ScriptedProvider::CountCalls(Slot Operation) const {
    std::lock_guard Hold(Lock_);
    return Counts_[static_cast<unsigned>(Operation)];
}

void ScriptedProvider::ClearCalls() {
    std::lock_guard Hold(Lock_);
    Calls_.clear();
    Counts_.fill(0);
}

void ScriptedProvider::SetRecording(bool On) {
    std::lock_guard Hold(Lock_);
    Recording_ = On;
}

// ---- The books -----------------------------------------------------------------------------------------------

std::vector<std::string> ScriptedProvider::OpenHandles() const {
    std::lock_guard Hold(Lock_);
    return Tree_.OpenHandles();
}

std::vector<std::string> ScriptedProvider::Violations() const {
    std::lock_guard Hold(Lock_);
    return Tree_.Violations();
}

ULONG ScriptedProvider::AddReference() {
    std::lock_guard Hold(Lock_);
    Released_ = false;
    return static_cast<ULONG>(++References_);
}

ULONG ScriptedProvider::DropReference() {
    const std::shared_ptr<Call> Made = Begin(Slot::Release, nullptr, {});
    std::lock_guard Hold(Lock_);
    Made->Status = RVSTATUS::Success;
    if (References_ > 0 && --References_ == 0) {
        Released_ = true;
    }
    return static_cast<ULONG>(References_);
}

// ---- One call ------------------------------------------------------------------------------------------------

std::shared_ptr<Call> ScriptedProvider::Begin(Slot Which, const RV_SECURITY_CONTEXT *Security,
                                              std::vector<Value> Arguments) {
    auto Made = std::make_shared<Call>();
    Made->Operation = Which;
    Made->Arguments = std::move(Arguments);
    Made->Thread = std::this_thread::get_id();
    if (Security != nullptr) {
        Made->Security = *Security;
    }
    std::lock_guard Hold(Lock_);
    Tree_.SetOperation(Which);
    if (Security == nullptr && Which != Slot::Release) {
        Tree_.Violation("no security context");
    }
    if (Released_) {
        Tree_.Violation("called after the last release");
    }
    Counts_[static_cast<unsigned>(Which)]++;
    Counts_[static_cast<unsigned>(Slot::Any)]++;
    if (Recording_) {
        Calls_.push_back(Made);
    }
    return Made;
}

RVSTATUS ScriptedProvider::Perform(Slot Which, const Script::Steps &Steps, const Outputs &Out,
                                   const Operation &Default) {
    const bool Closes = Which == Slot::CloseVolume || Which == Slot::CloseDirectory || Which == Slot::CloseFile;
    std::unique_lock Hold(Lock_);
    Tree_.SetOperation(Which);
    if (Steps.Instead) {
        // A handle is gone once its close was tried, whatever the answer: a second try is a fault of the caller.
        if (Closes) {
            static_cast<void>(Default(Tree_));
        }
        return *Steps.Instead;
    }
    const RVSTATUS Own = Default(Tree_);
    const RVHANDLE Opened = Out.Handle != nullptr && !RvIsError(Own) ? *Out.Handle : 0;
    Hold.unlock();
    for (const auto &Change : Steps.Answers) {
        Outputs Changed = Out;
        Change(Changed);
    }
    const RVSTATUS Status = Steps.Afterwards.value_or(Own);
    if (Opened != 0 && (RvIsError(Status) || *Out.Handle != Opened)) {
        Hold.lock();
        Tree_.Forget(Opened);
    }
    return Status;
}

RVSTATUS ScriptedProvider::Run(Slot Which, const RV_SECURITY_CONTEXT *Security, std::vector<Value> Arguments,
                               const Outputs &Out, const Operation &Default) {
    const std::shared_ptr<Call> Made = Begin(Which, Security, std::move(Arguments));
    const Script::Steps Steps = Script_.Match(*Made);
    for (const auto &Action : Steps.Before) {
        Action(*Made);
    }
    if (Steps.Block) {
        Script_.WaitWhileBlocked(*Steps.Source);
    }
    const RVSTATUS Status = Perform(Which, Steps, Out, Default);
    {
        std::lock_guard Hold(Lock_);
        Made->Status = Status;
        // An operation that was not done left its outputs as they were, perhaps never written.
        if (!RvIsError(Status) && !Steps.Instead) {
            Made->Results = Shown(Out);
        }
    }
    return Status;
}

} // namespace providers
