// What a test wants to happen in chosen Provider calls.
//
// A Rule is made by ScriptedProvider::OnCall and configured by chaining, before the calls that it concerns can come; it
// lives as long as the provider. All state is
// guarded by the Script's mutex, which is not held while callbacks run or a call is blocked.
#pragma once

#include "providers/scripted/call.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace providers {

class Script;

class Rule {
public:
    using Matcher = std::function<bool(const Call &)>;

    // Act on the nth matching call only; the first Count matching calls only. Default: on all.
    Rule &Nth(unsigned Number);
    Rule &Times(unsigned Count);

    // Answers Status without doing anything; outputs stay as the caller left them. A close still closes.
    Rule &Return(RVSTATUS Status);
    // Does the operation, then answers Status in place of its own. With an error a handle just opened is closed again.
    Rule &ReturnAfter(RVSTATUS Status);
    // Runs Action in the calling thread before the operation, with no lock held.
    Rule &Do(std::function<void(const Call &)> Action);
    // Holds the calls before the operation until Release.
    Rule &Block();
    void Release();
    // FALSE when Count calls did not come to be blocked within ten seconds.
    bool WaitUntilBlocked(unsigned Count = 1);

    // Changes the outputs after the operation. When the handle is changed, the one really opened is closed again.
    Rule &Answer(std::function<void(Outputs &)> Change);
    Rule &AnswerHandle(RVHANDLE Handle);
    // Into the path buffer or the counted path, whichever the operation has.
    Rule &AnswerPath(std::u16string Path);
    // Fills all 4096 units of the path buffer with 'x', so that no terminator is left.
    Rule &AnswerUnterminatedPath();
    Rule &AnswerBytes(ULONG64 Bytes);

    unsigned Fired() const;

private:
    friend class Script;
    friend class ScriptedProvider;
    Rule(Script &Owner, Slot Operation, Matcher Matches);

    Script &Owner_;
    const Slot Operation_;
    const Matcher Matches_;
    // Guarded by the Script's mutex.
    unsigned Nth_ = 0;
    unsigned Times_ = 0;
    unsigned Matched_ = 0;
    unsigned Fired_ = 0;
    std::optional<RVSTATUS> Instead_;
    std::optional<RVSTATUS> Afterwards_;
    std::vector<std::function<void(const Call &)>> Before_;
    std::vector<std::function<void(Outputs &)>> Answers_;
    bool Blocks_ = false;
    unsigned Blocked_ = 0;
};

class Script {
public:
    // What one call has to do, copied from its rule.
    struct Steps {
        Rule *Source = nullptr; // nullptr: no rule concerns the call
        bool Block = false;
        std::optional<RVSTATUS> Instead;
        std::optional<RVSTATUS> Afterwards;
        std::vector<std::function<void(const Call &)>> Before;
        std::vector<std::function<void(Outputs &)>> Answers;
    };

    ~Script();
    Rule &Add(Slot Operation, Rule::Matcher Matches);
    // Makes one rule inert; it stays valid.
    void Remove(Rule &Old);
    // Counts the call in every rule that it matches; the first added one that is due acts.
    Steps Match(const Call &Made);
    void WaitWhileBlocked(Rule &Source);
    // Ends all blocking and makes every rule inert; the rules stay valid.
    void Retire();

private:
    friend class Rule;
    std::mutex Lock_;
    std::condition_variable Changed_;
    std::list<std::unique_ptr<Rule>> Rules_;
    std::list<std::unique_ptr<Rule>> Retired_;
};

} // namespace providers
