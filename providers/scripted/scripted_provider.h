// The Provider for tests. Without a script it serves a small tree in memory (see tree.h) by the contract; rules change
// what chosen calls do (see script.h); every call is recorded, and every handle is accounted for.
//
// All members may be called from any thread, also from a rule's callback. One mutex guards tree, record and books; it
// is never held while a callback runs or a call is blocked. What comes out of Edit by reference must not be kept.
#pragma once

#include "providers/scripted/call.h"
#include "providers/scripted/script.h"
#include "providers/scripted/tree.h"

#include <array>
#include <deque>
#include <mutex>

namespace providers {

class ScriptedProvider : public RVIOM_FSD {
public:
    // Starts with the volume \srv\vol, empty.
    ScriptedProvider();
    ~ScriptedProvider();
    ScriptedProvider(const ScriptedProvider &) = delete;
    ScriptedProvider &operator=(const ScriptedProvider &) = delete;

    // ---- The tree

    void AddDirectory(std::u16string_view Path);
    // Attributes: RV_ATTR_*. Replaces what is there.
    void AddFile(std::u16string_view Path, std::string_view Content = {}, ULONG Attributes = 0);
    bool Exists(std::u16string_view Path);
    // "(missing)" when nothing is there.
    std::string Content(std::u16string_view Path);
    ULONG Attributes(std::u16string_view Path);
    // Runs Change on the tree, with no call in its midst. Not from inside another Edit.
    void Edit(const std::function<void(Tree &)> &Change);

    // ---- The script

    // Matches runs under the script's lock: it looks at the call and nothing else.
    Rule &OnCall(Slot Operation, Rule::Matcher Matches = {});
    // For calls that name Path, equal ignoring case, in any of their arguments.
    Rule &OnPath(Slot Operation, std::u16string Path);
    // One fault for a sweep: the nth call of Operation (Slot::Any: of any) from now answers Status. Replaces the last
    // one. A sweep raises Nth from 1 until FaultFired stays FALSE: then the operation ran untouched.
    void FailEverything(Slot Operation, unsigned Nth, RVSTATUS Status);
    bool FaultFired() const;
    // Drops all rules; blocked calls go on.
    void ClearScript();

    // ---- The record

    // Every call, in the order in which they came in.
    std::vector<std::string> Calls() const;
    std::vector<Call> CallRecords() const;
    // "RVFsdOpenVolume", ...
    std::vector<std::string> CallNames() const;
    // Empty when the calls were exactly the Expected ones (names without "RVFsd" count too), else both lists.
    std::string CompareCalls(const std::vector<std::string> &Expected) const;
    // Calls since the last ClearCalls.
    unsigned CountCalls(Slot Operation = Slot::Any) const;
    void ClearCalls();
    // Off: calls are counted but not recorded, for runs of millions.
    void SetRecording(bool On);

    // ---- The books

    // "file 5 \"\\srv\\vol\\a.txt\"" for every handle that is open.
    std::vector<std::string> OpenHandles() const;
    // Double closes, closed or unknown handles, handles of the wrong kind, malformed paths, null pointers, calls
    // without a reference.
    std::vector<std::string> Violations() const;

private:
    friend struct ScriptedEntries;
    using Operation = std::function<RVSTATUS(Tree &)>;

    // One call from start to end.
    RVSTATUS Run(Slot Which, const RV_SECURITY_CONTEXT *Security, std::vector<Value> Arguments, const Outputs &Out,
                 const Operation &Default);
    std::shared_ptr<Call> Begin(Slot Which, const RV_SECURITY_CONTEXT *Security, std::vector<Value> Arguments);
    RVSTATUS Perform(Slot Which, const Script::Steps &Steps, const Outputs &Out, const Operation &Default);
    ULONG AddReference();
    ULONG DropReference();

    Script Script_;

    // Guarded by Lock_.
    mutable std::mutex Lock_;
    Tree Tree_;
    std::deque<std::shared_ptr<Call>> Calls_;
    std::array<unsigned, SlotCount> Counts_ = {};
    bool Recording_ = true;
    Rule *Fault_ = nullptr;
    LONG References_ = 0;
    bool Released_ = false; // the last reference went
};

} // namespace providers
