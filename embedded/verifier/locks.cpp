#include "embedded/verifier/locks.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

#include "embedded/verifier/probe.h"
#include "embedded/verifier/report.h"
#include "embedded/verifier/stack.h"

namespace embedded {
namespace {

// Where the first lock was held from, and where the second was taken.
struct Edge {
    PVOID HeldWhere;
    PVOID TakenWhere;
};

template <class Key>
struct Node {
    std::map<Key, Edge> After; // locks taken while this one was held
    std::set<Key> Before;
};

template <class Key>
using Graph = std::map<Key, Node<Key>>;

struct LockClass {
    std::string Name;
    ULONG Rank;
};

struct OrderState {
    std::mutex Mutex;
    Graph<const void *> Instances;
    Graph<const LockClass *> Classes;
    std::map<std::string, LockClass, std::less<>> ClassesByName;
    std::map<const void *, const LockClass *> Named;
    // Moves when edges are dropped: what threads remember of accepted edges is void then.
    std::atomic<ULONG64> Generation{1};
};

OrderState &State() {
    static OrderState &Instance = *new OrderState;
    return Instance;
}

const LockClass *ClassOf(const void *Lock) {
    auto Found = State().Named.find(Lock);
    return Found == State().Named.end() ? nullptr : Found->second;
}

std::string NameOf(const void *Lock) {
    const LockClass *Class = ClassOf(Lock);
    return Class == nullptr ? fmt::format("{}", Lock) : fmt::format("{} {}", Class->Name, Lock);
}

std::string NameOf(const LockClass *Class) {
    return "class " + Class->Name;
}

std::string HeldText(const KThread &Thread) {
    std::string Text;
    for (ULONG Index = 0; Index < Thread.HeldCount; ++Index) {
        const HeldLock &Held = Thread.Held[Index];
        constexpr const char *Kinds[] = {"spin lock", "resource, shared", "resource, exclusive"};
        Text += fmt::format("  holds {} ({}), taken at {}\n", NameOf(Held.Lock), Kinds[static_cast<int>(Held.Kind)],
                            DescribeAddress(Held.Where));
    }
    return Text;
}

// The path From -> ... -> To as text, empty when there is none.
template <class Key>
std::string FindPath(const Graph<Key> &Edges, Key From, Key To) {
    std::map<Key, Key> Parent{{From, From}};
    std::vector<Key> Stack{From};
    while (!Stack.empty() && !Parent.contains(To)) {
        Key Here = Stack.back();
        Stack.pop_back();
        auto Found = Edges.find(Here);
        if (Found == Edges.end()) {
            continue;
        }
        for (const auto &[Next, Unused] : Found->second.After) {
            if (Parent.emplace(Next, Here).second) {
                Stack.push_back(Next);
            }
        }
    }
    if (From == To || !Parent.contains(To)) {
        return {};
    }
    std::string Text;
    for (Key Here = To; Here != From; Here = Parent.at(Here)) {
        Key Before = Parent.at(Here);
        const Edge &Step = Edges.at(Before).After.at(Here);
        Text = fmt::format("  earlier: {} taken at {} while {} was held from {}\n", NameOf(Here),
                           DescribeAddress(Step.TakenWhere), NameOf(Before), DescribeAddress(Step.HeldWhere)) +
               Text;
    }
    return Text;
}

[[noreturn]] void ReportOrder(const KThread &Thread, const HeldLock &Held, PVOID Lock, PVOID Where, std::string Why) {
    std::string Text = fmt::format("lock order: {} taken at {} while {} is held\n{}{}", NameOf(Lock),
                                   DescribeAddress(Where), NameOf(Held.Lock), HeldText(Thread), Why);
    BugCheck(bugcheck::Verifier, bugcheck::LockOrder, reinterpret_cast<ULONG_PTR>(Lock),
             reinterpret_cast<ULONG_PTR>(Held.Lock), reinterpret_cast<ULONG_PTR>(&Thread), Text);
}

// Adds an edge; returns the opposite path when it closes a cycle.
template <class Key>
std::string AddEdge(Graph<Key> &Edges, Key From, Key To, const Edge &Step) {
    if (!Edges[From].After.emplace(To, Step).second) {
        return {};
    }
    Edges[To].Before.insert(From);
    return FindPath(Edges, To, From);
}

void AddOrder(const KThread &Thread, const HeldLock &Held, PVOID Lock, PVOID Where) {
    const Edge Step{Held.Where, Where};
    if (std::string Path = AddEdge<const void *>(State().Instances, Held.Lock, Lock, Step); !Path.empty()) {
        ReportOrder(Thread, Held, Lock, Where, Path);
    }
    const LockClass *From = ClassOf(Held.Lock);
    const LockClass *To = ClassOf(Lock);
    if (From == nullptr || To == nullptr || From == To) {
        return;
    }
    if (From->Rank > To->Rank && To->Rank != 0) {
        ReportOrder(Thread, Held, Lock, Where,
                    fmt::format("  rank {} must not follow rank {}\n", To->Rank, From->Rank));
    }
    if (std::string Path = AddEdge(State().Classes, From, To, Step); !Path.empty()) {
        ReportOrder(Thread, Held, Lock, Where, Path);
    }
}

void DropInstance(Graph<const void *>::iterator Found) {
    auto &Instances = State().Instances;
    for (const auto &[Next, Unused] : Found->second.After) {
        Instances[Next].Before.erase(Found->first);
    }
    for (const void *Before : Found->second.Before) {
        Instances[Before].After.erase(Found->first);
    }
    Instances.erase(Found);
    ++State().Generation;
}

SeenEdge &SeenSlot(KThread &Thread, const void *From, const void *To) {
    ULONG_PTR Mixed = reinterpret_cast<ULONG_PTR>(From) * 31 + reinterpret_cast<ULONG_PTR>(To);
    return Thread.Seen[Mixed * 0x9E3779B97F4A7C15ull >> 58];
}

} // namespace

void NTAPI CloseGap(KThread &Thread, HeldLock *Held) noexcept {
    std::copy(Held + 1, &Thread.Held[Thread.HeldCount] + 1, Held);
}

void NTAPI ReportTooManyLocks(const KThread &Thread) noexcept {
    BugCheck(bugcheck::Verifier, bugcheck::OwnRule + 2, Thread.HeldCount, reinterpret_cast<ULONG_PTR>(&Thread), 0,
             "a thread holds too many locks\n" + DescribeHeldLocks(Thread));
}

static_assert(SeenEdges == 64, "SeenSlot takes six bits");

void NameLock(const void *Lock, const char *ClassName, ULONG Rank) {
    std::lock_guard Guard(State().Mutex);
    auto [Found, Unused] = State().ClassesByName.try_emplace(ClassName, LockClass{ClassName, Rank});
    State().Named[Lock] = &Found->second;
    ++State().Generation;
}

void NTAPI CheckLockOrder(KThread &Thread, PVOID Lock, PVOID Where) noexcept {
    for (ULONG Index = 0; Index < Thread.HeldCount; ++Index) {
        const HeldLock &Held = Thread.Held[Index];
        const ULONG64 Generation = State().Generation.load(std::memory_order_acquire);
        SeenEdge &Seen = SeenSlot(Thread, Held.Lock, Lock);
        if (Seen.From == Held.Lock && Seen.To == Lock && Seen.Generation == Generation) {
            continue;
        }
        std::lock_guard Guard(State().Mutex);
        AddOrder(Thread, Held, Lock, Where);
        Seen = {Held.Lock, Lock, Generation};
    }
}

void ForgetLock(const void *Lock) {
    std::lock_guard Guard(State().Mutex);
    State().Named.erase(Lock);
    if (auto Found = State().Instances.find(Lock); Found != State().Instances.end()) {
        DropInstance(Found);
    }
}

void ForgetLocksIn(const void *Start, SIZE_T Length) {
    std::lock_guard Guard(State().Mutex);
    const void *End = static_cast<const char *>(Start) + Length;
    State().Named.erase(State().Named.lower_bound(Start), State().Named.lower_bound(End));
    auto &Instances = State().Instances;
    for (auto Next = Instances.lower_bound(Start); Next != Instances.end() && Next->first < End;) {
        DropInstance(Next++);
    }
}

std::string DescribeLock(const void *Lock) {
    std::lock_guard Guard(State().Mutex);
    return NameOf(Lock);
}

std::string DescribeHeldLocks(const KThread &Thread) {
    std::lock_guard Guard(State().Mutex);
    return HeldText(Thread);
}

void ResetLockOrder() {
    std::lock_guard Guard(State().Mutex);
    State().Instances.clear();
    State().Classes.clear();
    State().Named.clear();
    State().ClassesByName.clear();
    ++State().Generation;
}

} // namespace embedded
