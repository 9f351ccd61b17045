#include "providers/scripted/script.h"

#include <algorithm>
#include <chrono>

namespace providers {

Rule::Rule(Script &Owner, Slot Operation, Matcher Matches)
    : Owner_(Owner), Operation_(Operation), Matches_(std::move(Matches)) {
}

Rule &Rule::Nth(unsigned Number) {
    std::lock_guard Hold(Owner_.Lock_);
    Nth_ = Number;
    return *this;
}

Rule &Rule::Times(unsigned Count) {
    std::lock_guard Hold(Owner_.Lock_);
    Times_ = Count;
    return *this;
}

Rule &Rule::Return(RVSTATUS Status) {
    std::lock_guard Hold(Owner_.Lock_);
    Instead_ = Status;
    return *this;
}

Rule &Rule::ReturnAfter(RVSTATUS Status) {
    std::lock_guard Hold(Owner_.Lock_);
    Afterwards_ = Status;
    return *this;
}

Rule &Rule::Do(std::function<void(const Call &)> Action) {
    std::lock_guard Hold(Owner_.Lock_);
    Before_.push_back(std::move(Action));
    return *this;
}

Rule &Rule::Block() {
    std::lock_guard Hold(Owner_.Lock_);
    Blocks_ = true;
    return *this;
}

void Rule::Release() {
    std::lock_guard Hold(Owner_.Lock_);
    Blocks_ = false;
    Owner_.Changed_.notify_all();
}

bool Rule::WaitUntilBlocked(unsigned Count) {
    std::unique_lock Hold(Owner_.Lock_);
    return Owner_.Changed_.wait_for(Hold, std::chrono::seconds(10), [&] { return Blocked_ >= Count; });
}

Rule &Rule::Answer(std::function<void(Outputs &)> Change) {
    std::lock_guard Hold(Owner_.Lock_);
    Answers_.push_back(std::move(Change));
    return *this;
}

Rule &Rule::AnswerHandle(RVHANDLE Handle) {
    return Answer([=](Outputs &Out) { *Out.Handle = Handle; });
}

Rule &Rule::AnswerPath(std::u16string Path) {
    return Answer([Path = std::move(Path)](Outputs &Out) {
        PWSTR Buffer = Out.CountedPath != nullptr ? Out.CountedPath->Buffer : Out.Path;
        const size_t Units = std::min<size_t>(Path.size(), RV_PATH_BUFFER_BYTES / 2 - 1);
        std::copy_n(Path.data(), Units, Buffer);
        Buffer[Units] = 0;
        if (Out.CountedPath != nullptr) {
            Out.CountedPath->Length = static_cast<USHORT>(Units * 2);
        }
    });
}

Rule &Rule::AnswerUnterminatedPath() {
    return Answer([](Outputs &Out) {
        PWSTR Buffer = Out.CountedPath != nullptr ? Out.CountedPath->Buffer : Out.Path;
        std::fill_n(Buffer, RV_PATH_BUFFER_BYTES / 2, u'x');
        if (Out.CountedPath != nullptr) {
            Out.CountedPath->Length = RV_PATH_BUFFER_BYTES;
        }
    });
}

Rule &Rule::AnswerBytes(ULONG64 Bytes) {
    return Answer([=](Outputs &Out) { *Out.Bytes = Bytes; });
}

unsigned Rule::Fired() const {
    std::lock_guard Hold(Owner_.Lock_);
    return Fired_;
}

Script::~Script() {
    Retire();
}

Rule &Script::Add(Slot Operation, Rule::Matcher Matches) {
    std::lock_guard Hold(Lock_);
    return *Rules_.emplace_back(new Rule(*this, Operation, std::move(Matches)));
}

void Script::Remove(Rule &Old) {
    std::lock_guard Hold(Lock_);
    const auto Found = std::find_if(Rules_.begin(), Rules_.end(), [&](const auto &R) { return R.get() == &Old; });
    if (Found != Rules_.end()) {
        Old.Blocks_ = false;
        Retired_.splice(Retired_.end(), Rules_, Found);
        Changed_.notify_all();
    }
}

Script::Steps Script::Match(const Call &Made) {
    std::lock_guard Hold(Lock_);
    Rule *Due = nullptr;
    for (const auto &Candidate : Rules_) {
        if (Candidate->Operation_ != Slot::Any && Candidate->Operation_ != Made.Operation) {
            continue;
        }
        if (Candidate->Matches_ && !Candidate->Matches_(Made)) {
            continue;
        }
        Candidate->Matched_++;
        const bool RightOne = Candidate->Nth_ == 0 || Candidate->Matched_ == Candidate->Nth_;
        const bool SomeLeft = Candidate->Times_ == 0 || Candidate->Fired_ < Candidate->Times_;
        if (Due == nullptr && RightOne && SomeLeft) {
            Due = Candidate.get();
        }
    }
    if (Due == nullptr) {
        return {};
    }
    Due->Fired_++;
    return {Due, Due->Blocks_, Due->Instead_, Due->Afterwards_, Due->Before_, Due->Answers_};
}

void Script::WaitWhileBlocked(Rule &Source) {
    std::unique_lock Hold(Lock_);
    Source.Blocked_++;
    Changed_.notify_all();
    Changed_.wait(Hold, [&] { return !Source.Blocks_; });
    Source.Blocked_--;
}

void Script::Retire() {
    std::lock_guard Hold(Lock_);
    for (const auto &Old : Rules_) {
        Old->Blocks_ = false;
    }
    Retired_.splice(Retired_.end(), Rules_);
    Changed_.notify_all();
}

} // namespace providers
