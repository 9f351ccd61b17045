#include "app/journal/journal.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/journal/asking_program.h"
#include "app/text.h"

namespace app {

namespace {

std::string Quoted(const std::string &Text) {
    return nlohmann::json(Text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string Fields(const std::vector<providers::CallValue> &Values) {
    std::string All;
    for (const providers::CallValue &Value : Values) {
        All += fmt::format("{}\"{}\":{}", All.empty() ? "" : ",", Value.Name, Quoted(Value.Text));
    }
    return All;
}

std::string Named(const char *Name, const char *Category) {
    return fmt::format(R"("name":"{}","cat":"{}")", Name, Category);
}

std::string RequestFields(const Request &About) {
    const std::string Details = Fields(About.Details);
    return fmt::format(R"("request":"{}","process":"{}","path":{}{}{})", About.Id, ProgramOf(About.AskedBy).Process,
                       Quoted(About.Path), Details.empty() ? "" : ",", Details);
}

std::string ResultFields(const Request &About) {
    return fmt::format(R"("status":"{}","information":"{}")", StatusName(About.Status), About.Information);
}

} // namespace

Journal::Journal(const std::filesystem::path &File) : File_(File), Begun_(Ticks()) {
    Descriptor_ = open(File.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (Descriptor_ < 0) {
        throw UsageError(fmt::format("--journal {}: {}", File.string(), strerror(errno)));
    }
    Write("[\n");
    Event('M', Begun_, R"("name":"process_name","args":{"name":"rvfsd"})");
}

Journal::~Journal() {
    Close();
}

std::string Journal::Close() {
    if (Descriptor_ < 0) {
        return "";
    }
    Write("\n]\n");
    if (close(Descriptor_) != 0 && Failure_ == 0) {
        Failure_ = errno;
    }
    Descriptor_ = -1;
    return Failure_ == 0 ? "" : fmt::format("--journal {}: {}", File_.string(), strerror(Failure_));
}

void Journal::Write(const std::string &Bytes) noexcept {
    size_t Done = 0;
    while (Done < Bytes.size() && Failure_ == 0) {
        const ssize_t Count = write(Descriptor_, Bytes.data() + Done, Bytes.size() - Done);
        if (Count > 0) {
            Done += static_cast<size_t>(Count);
        } else if (Count == 0 || errno != EINTR) {
            Failure_ = Count == 0 ? ENOSPC : errno;
        }
    }
}

void Journal::Event(char Phase, int64_t When, const std::string &Fields) noexcept {
    const pid_t Process = getpid();
    const pid_t Thread = ThreadNumber();
    std::string Bytes;
    const auto Append = [&](char Kind, const std::string &Rest) {
        Bytes += fmt::format("{}{{\"ph\":\"{}\",\"ts\":{:.3f},\"pid\":{},\"tid\":{},{}}}", First_ ? "" : ",\n", Kind,
                             static_cast<double>(When - Begun_) / 1000, Process, Thread, Rest);
        First_ = false;
    };
    const std::lock_guard Hold(Lock_);
    if (Named_.insert(Thread).second) {
        Append('M', fmt::format(R"("name":"thread_name","args":{{"name":"{}"}})",
                                Thread == Process ? "main" : fmt::format("thread {}", Named_.size())));
    }
    Append(Phase, Fields);
    Write(Bytes);
}

void Journal::RequestSent(const Request &About) noexcept {
    Event('B', About.Started,
          fmt::format(R"({},"args":{{{}}})", Named(About.Operation, "request"), RequestFields(About)));
}

void Journal::RequestReturned(const Request &About, NTSTATUS Status) noexcept {
    const bool IsPending = Status == STATUS_PENDING;
    Event('E', Ticks(),
          fmt::format(R"({},"args":{{{}}})", Named(About.Operation, "request"),
                      IsPending ? R"("status":"STATUS_PENDING")" : ResultFields(About)));
    if (IsPending && About.Ended != 0) {
        Pended(About);
    }
}

void Journal::RequestCompleted(const Request &About) noexcept {
    if (About.Returned) {
        Pended(About);
    }
}

void Journal::Pended(const Request &About) noexcept {
    const std::string Head = fmt::format(R"({},"id":"{}")", Named(About.Operation, "pending"), About.Id);
    Event('b', About.Started, fmt::format(R"({},"args":{{{}}})", Head, RequestFields(About)));
    Event('e', About.Ended, fmt::format(R"({},"args":{{{}}})", Head, ResultFields(About)));
}

void Journal::OpensChanged(OpenCounts Now) noexcept {
    Event('C', Ticks(), fmt::format(R"("name":"opens","args":{{"opens":{},"fcbs":{}}})", Now.Opens, Now.Fcbs));
}

void Journal::CallBegan(const providers::ProviderCall &Call) noexcept {
    Event('B', Ticks(), fmt::format(R"({},"args":{{{}}})", Named(Call.Operation, "provider"), Fields(Call.In)));
}

void Journal::CallEnded(const providers::ProviderCall &Call) noexcept {
    const std::string Out = Fields(Call.Out);
    Event('E', Ticks(),
          fmt::format(R"({},"args":{{"status":"0x{:08X}"{}{}}})", Named(Call.Operation, "provider"),
                      static_cast<ULONG>(Call.Status), Out.empty() ? "" : ",", Out));
}

} // namespace app
