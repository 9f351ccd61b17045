#include "app/journal/report.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/text.h"

namespace app {

namespace {

using nlohmann::json;

struct Span {
    size_t Lane;
    size_t Name;
    double Start; // microseconds
    double Length = 0;
    size_t Status = 0;
    size_t Path;
    size_t Details;
    uint64_t Request = 0; // that it is, or is made for
    bool Failed = false;
    bool Unfinished = true;
};

// Reads events in their order and makes spans of them.
class Reader {
public:
    explicit Reader(const std::filesystem::path &File) {
        std::ifstream In(File);
        if (!In) {
            throw UsageError(fmt::format("{}: {}", File.string(), strerror(errno)));
        }
        std::string Line;
        for (size_t Number = 1; std::getline(In, Line); Number++) {
            if (Line.ends_with(',')) {
                Line.pop_back();
            }
            if (Line.empty() || Line == "[" || Line == "]") {
                continue;
            }
            try {
                Take(json::parse(Line));
            } catch (const json::exception &) {
                if (In.peek() != EOF || Number == 1) {
                    throw UsageError(fmt::format("{}:{}: no event of a journal", File.string(), Number));
                }
                break; // cut in the middle
            }
        }
        if (Spans_.empty()) {
            throw UsageError(fmt::format("{}: no journal: it has no request", File.string()));
        }
        for (auto &[Thread, Of] : Threads_) {
            for (const size_t Index : Of.Open) {
                Spans_[Index].Length = End_ - Spans_[Index].Start;
                Spans_[Index].Status = TextOf("not finished");
                ++Facts_.Unfinished;
            }
        }
    }

    json Data() {
        SortLanes();
        json Spans = json::array();
        for (const Span &Each : Spans_) {
            Spans.push_back({LaneAt_[Each.Lane], Each.Name, Each.Start, Each.Length, Each.Status, Each.Path,
                             Each.Details, Each.Request, Each.Failed ? 1 : 0, Each.Unfinished ? 1 : 0});
        }
        return {{"spans", Spans},
                {"texts", Texts_},
                {"lanes", LanesShown_},
                {"counts", Counts_},
                {"end", End_},
                {"threads", Threads_.size()},
                {"unfinished", Facts_.Unfinished}};
    }
    const ReportFacts &Facts() const {
        return Facts_;
    }

private:
    struct Thread {
        std::string Name;
        std::vector<size_t> Open; // spans, the innermost last
    };
    struct Lane {
        int64_t Thread; // -1: what pends
        size_t Depth;
        bool OfProvider;
    };

    void Take(const json &Event) {
        const std::string Phase = Event.value("ph", "");
        const auto When = Event.value("ts", 0.0);
        Thread &Of = Threads_[Event.value("tid", int64_t{0})];
        End_ = std::max(End_, When);
        if (Phase == "M" && Event.value("name", "") == "thread_name") {
            Of.Name = Event.at("args").value("name", "");
        } else if (Phase == "B") {
            Begin(Event, When, Of);
        } else if (Phase == "E" && !Of.Open.empty()) {
            Finish(Spans_[Of.Open.back()], Event, When);
            Of.Open.pop_back();
        } else if (Phase == "b") {
            Pending_[Event.value("id", "")] = Add(Event, When, LaneOf(-1, PendingDepth(When), false));
        } else if (Phase == "e") {
            if (const auto At = Pending_.find(Event.value("id", "")); At != Pending_.end()) {
                Finish(Spans_[At->second], Event, When);
                PendingEnds_[Lanes_[Spans_[At->second].Lane].Depth] = When;
                Pending_.erase(At);
            }
        } else if (Phase == "C") {
            Counts_.push_back({When, Event.at("args").value("opens", 0), Event.at("args").value("fcbs", 0)});
        }
    }

    void Begin(const json &Event, double When, Thread &Of) {
        const bool OfProvider = Event.value("cat", "") == "provider";
        const size_t Index = Add(Event, When, LaneOf(Event.value("tid", int64_t{0}), Of.Open.size(), OfProvider));
        if (!Of.Open.empty() && OfProvider) {
            Spans_[Index].Request = Spans_[Of.Open.back()].Request;
        }
        ++(OfProvider ? Facts_.Calls : Facts_.Requests);
        Of.Open.push_back(Index);
    }

    size_t Add(const json &Event, double When, size_t Lane) {
        Span New = {Lane, TextOf(Event.value("name", "?")), When};
        New.Request = Number(Event);
        std::string Path, Details;
        Split(Event, Path, Details);
        New.Path = TextOf(Path);
        New.Details = TextOf(Details);
        Spans_.push_back(New);
        return Spans_.size() - 1;
    }

    void Finish(Span &Ended, const json &Event, double When) {
        std::string Path, Details;
        Split(Event, Path, Details);
        const std::string Status = Event.at("args").value("status", "");
        Ended.Length = When - Ended.Start;
        Ended.Unfinished = false;
        Ended.Status = TextOf(Status);
        // A Provider's error has both top bits; the names of statuses say no more than that they are not success.
        // The driver does what a shutdown asks for and answers it so: that is no failure.
        const bool IsTheEnd = Event.value("name", "") == "IRP_MJ_SHUTDOWN" && Status == "STATUS_NOT_SUPPORTED";
        Ended.Failed = !IsTheEnd && (Status.starts_with("0x") ? Status[2] >= 'C' : !IsSuccess(Status));
        const std::string &Before = Texts_[Ended.Details];
        if (!Details.empty()) {
            Ended.Details = TextOf(Before.empty() ? Details : Before + " \u2192 " + Details);
        }
    }
    static bool IsSuccess(const std::string &Status) {
        constexpr const char *Fine[] = {"STATUS_SUCCESS",         "STATUS_PENDING",     "STATUS_NO_MORE_FILES",
                                        "STATUS_BUFFER_OVERFLOW", "STATUS_END_OF_FILE", "STATUS_NOTIFY_CLEANUP",
                                        "STATUS_NOTIFY_ENUM_DIR"};
        return std::find(std::begin(Fine), std::end(Fine), Status) != std::end(Fine);
    }

    // The path for itself, the other arguments as one text.
    static void Split(const json &Event, std::string &Path, std::string &Details) {
        for (const auto &[Name, Value] : Event.at("args").items()) {
            const std::string Text = Value.is_string() ? Value.get<std::string>() : Value.dump();
            if (Name == "path") {
                Path = Text;
            } else if (Name != "status" && Name != "request") {
                Details += (Details.empty() ? "" : ", ") + Name + "=" + Text;
            }
        }
    }
    static uint64_t Number(const json &Event) {
        return strtoull(Event.at("args").value("request", "0").c_str(), nullptr, 10);
    }

    size_t TextOf(const std::string &Text) {
        const auto [At, New] = Known_.try_emplace(Text, Texts_.size());
        if (New) {
            Texts_.push_back(Text);
        }
        return At->second;
    }
    size_t LaneOf(int64_t Thread, size_t Depth, bool OfProvider) {
        const auto [At, New] = LaneKeys_.try_emplace({Thread, Depth, OfProvider}, Lanes_.size());
        if (New) {
            Lanes_.push_back({Thread, Depth, OfProvider});
        }
        return At->second;
    }
    // Where what pends from When on lies over nothing else.
    size_t PendingDepth(double When) {
        size_t Depth = 0;
        while (Depth < PendingEnds_.size() && PendingEnds_[Depth] > When) {
            Depth++;
        }
        PendingEnds_.resize(std::max(PendingEnds_.size(), Depth + 1), 0);
        PendingEnds_[Depth] = 1e300; // until it ends
        return Depth;
    }

    // Lanes from top to bottom: threads as they came, then what pends.
    void SortLanes() {
        std::vector<size_t> Order(Lanes_.size());
        for (size_t Index = 0; Index < Order.size(); Index++) {
            Order[Index] = Index;
        }
        std::stable_sort(Order.begin(), Order.end(), [this](size_t Left, size_t Right) {
            const auto Key = [](const Lane &Of) {
                return std::tuple(static_cast<uint64_t>(Of.Thread), Of.Depth, Of.OfProvider);
            };
            return Key(Lanes_[Left]) < Key(Lanes_[Right]);
        });
        LaneAt_.resize(Lanes_.size());
        int64_t Before = -2;
        for (const size_t Index : Order) {
            const Lane &Of = Lanes_[Index];
            const std::string Label = Of.Thread == Before ? "" : Of.Thread < 0 ? "pending" : Threads_[Of.Thread].Name;
            Before = Of.Thread;
            LaneAt_[Index] = LanesShown_.size();
            LanesShown_.push_back(
                {{"track", Of.Thread}, {"kind", Of.OfProvider ? "provider" : "request"}, {"label", Label}});
        }
    }

    std::vector<Span> Spans_;
    std::vector<std::string> Texts_ = {""};
    std::unordered_map<std::string, size_t> Known_ = {{"", 0}};
    std::map<int64_t, Thread> Threads_;
    std::vector<Lane> Lanes_;
    std::map<std::tuple<int64_t, size_t, bool>, size_t> LaneKeys_;
    std::vector<size_t> LaneAt_;
    std::vector<json> LanesShown_;
    std::unordered_map<std::string, size_t> Pending_;
    std::vector<double> PendingEnds_; // by depth
    std::vector<json> Counts_;
    double End_ = 0;
    ReportFacts Facts_;
};

} // namespace

ReportFacts MakeReport(const std::filesystem::path &File, std::string &Html) {
    Reader Read(File);
    json Data = Read.Data();
    Data["file"] = File.filename().string();
    std::string Text = Data.dump(-1, ' ', false, json::error_handler_t::replace);
    // Nothing in it may end the element that holds it.
    for (size_t At = 0; (At = Text.find('<', At)) != Text.npos;) {
        Text.replace(At, 1, "\\u003c");
    }
    constexpr std::string_view Mark = "/*DATA*/";
    Html = ReportPage;
    Html.replace(Html.find(Mark), Mark.size(), Text);
    return Read.Facts();
}

} // namespace app
