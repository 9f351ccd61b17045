#include "app/journal/request_tap.h"

#include <algorithm>
#include <chrono>

#include <unistd.h>

#include <fmt/format.h>

#include "app/journal/asking_program.h"
#include "providers/wide_text.h"

namespace app {

namespace {

std::string Text(const UNICODE_STRING &Name) {
    return Name.Buffer == nullptr ? "" : providers::ToUtf8({Name.Buffer, Name.Length / sizeof(WCHAR)});
}

// What tells one request from another of its kind.
std::vector<providers::CallValue> DetailsOf(const IO_STACK_LOCATION &Location) {
    const auto &Of = Location.Parameters;
    switch (Location.MajorFunction) {
    case IRP_MJ_CREATE:
        return {{"access", fmt::format("0x{:x}", Of.Create.SecurityContext->DesiredAccess), false},
                {"share", fmt::format("0x{:x}", Of.Create.ShareAccess), false},
                {"disposition", fmt::format("{}", Of.Create.Options >> 24), false},
                {"options", fmt::format("0x{:x}", Of.Create.Options & 0xFFFFFF), false}};
    case IRP_MJ_READ:
        return {{"offset", fmt::format("{}", Of.Read.ByteOffset.QuadPart), false},
                {"length", fmt::format("{}", Of.Read.Length), false}};
    case IRP_MJ_WRITE:
        return {{"offset", fmt::format("{}", Of.Write.ByteOffset.QuadPart), false},
                {"length", fmt::format("{}", Of.Write.Length), false}};
    case IRP_MJ_QUERY_INFORMATION:
        return {{"class", fmt::format("{}", static_cast<int>(Of.QueryFile.FileInformationClass)), false}};
    case IRP_MJ_SET_INFORMATION:
        return {{"class", fmt::format("{}", static_cast<int>(Of.SetFile.FileInformationClass)), false}};
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
        return {{"class", fmt::format("{}", static_cast<int>(Of.QueryVolume.FsInformationClass)), false}};
    case IRP_MJ_DIRECTORY_CONTROL:
    case IRP_MJ_LOCK_CONTROL:
        return {{"minor", fmt::format("{}", Location.MinorFunction), false}};
    default:
        return {};
    }
}

} // namespace

int64_t Ticks() noexcept {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

pid_t ThreadNumber() noexcept {
    static thread_local const pid_t Mine = gettid();
    return Mine;
}

void RequestTap::Add(RequestListener &Listener) {
    const std::unique_lock Hold(ListenersLock_);
    Listeners_.push_back(&Listener);
    if (Listeners_.size() == 1) {
        Calls_.SetSink(this);
        embedded::SetIoTap(this);
    }
}

void RequestTap::Remove(RequestListener &Listener) {
    const std::unique_lock Hold(ListenersLock_);
    if (std::erase(Listeners_, &Listener) == 0 || !Listeners_.empty()) {
        return;
    }
    embedded::SetIoTap(nullptr);
    Calls_.SetSink(nullptr);
    // What ends from now on is not seen: it would stay for ever.
    const std::lock_guard Books(Lock_);
    UnderWay_.clear();
    Opens_.clear();
    Fcbs_.clear();
}

void RequestTap::RemoveAll() {
    std::vector<RequestListener *> All;
    {
        const std::shared_lock Hold(ListenersLock_);
        All = Listeners_;
    }
    for (RequestListener *Each : All) {
        Remove(*Each);
    }
}

template <class Tell>
void RequestTap::ToAll(const Tell &One) {
    const std::shared_lock Hold(ListenersLock_);
    for (RequestListener *Each : Listeners_) {
        One(*Each);
    }
}

// Needs Lock_. A create's name may be relative to another open's; later requests have the name of their create.
std::string RequestTap::PathOf(PFILE_OBJECT File, bool IsCreate) {
    if (File == nullptr) {
        return "";
    }
    if (const auto Known = Opens_.find(File); Known != Opens_.end()) {
        return Known->second.Path;
    }
    const std::string Name = Text(File->FileName);
    if (IsCreate && File->RelatedFileObject != nullptr) {
        const std::string Base = PathOf(File->RelatedFileObject, false);
        return Name.empty() ? Base : Base + '\\' + Name;
    }
    return Name.starts_with('\\') ? '\\' + Name : Name;
}

void RequestTap::Sent(const IRP *Irp, const IO_STACK_LOCATION &Location) noexcept {
    Request About = {};
    About.Thread = ThreadNumber();
    About.AskedBy = AskingThread();
    About.Operation = embedded::MajorFunctionName(Location.MajorFunction);
    About.Details = DetailsOf(Location);
    {
        const std::lock_guard Hold(Lock_);
        About.Id = ++LastId_;
        About.Path = PathOf(Location.FileObject, Location.MajorFunction == IRP_MJ_CREATE);
        About.Started = Ticks();
        UnderWay_[Irp] = About;
    }
    ToAll([&](RequestListener &Each) { Each.RequestSent(About); });
}

void RequestTap::CountOpen(const embedded::CompletedRequest &Done, const Request &About) {
    OpenCounts Now;
    {
        const std::lock_guard Hold(Lock_);
        if (Done.MajorFunction == IRP_MJ_CREATE && NT_SUCCESS(Done.Status)) {
            Opens_[Done.FileObject] = {About.Path, Done.FileObject->FsContext};
            ++Fcbs_[Done.FileObject->FsContext];
        } else if (const auto At = Opens_.find(Done.FileObject);
                   Done.MajorFunction == IRP_MJ_CLOSE && At != Opens_.end()) {
            if (const auto Fcb = Fcbs_.find(At->second.Fcb); --Fcb->second == 0) {
                Fcbs_.erase(Fcb);
            }
            Opens_.erase(At);
        } else {
            return;
        }
        Now = {Opens_.size(), Fcbs_.size()};
    }
    ToAll([&](RequestListener &Each) { Each.OpensChanged(Now); });
}

void RequestTap::Completed(const embedded::CompletedRequest &Done) noexcept {
    Request About;
    {
        const std::lock_guard Hold(Lock_);
        const auto At = UnderWay_.find(Done.Irp);
        if (At == UnderWay_.end()) {
            return; // sent before anybody listened
        }
        Request &Ended = At->second;
        Ended.Status = Done.Status;
        Ended.Information = Done.Information;
        Ended.Ended = Ticks();
        Ended.EndedAt = std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
        About = Ended;
        if (About.Returned) {
            UnderWay_.erase(At);
        }
    }
    ToAll([&](RequestListener &Each) { Each.RequestCompleted(About); });
    CountOpen(Done, About);
}

void RequestTap::Returned(const IRP *Irp, NTSTATUS Status) noexcept {
    Request About;
    {
        const std::lock_guard Hold(Lock_);
        const auto At = UnderWay_.find(Irp);
        if (At == UnderWay_.end()) {
            return;
        }
        At->second.Returned = true;
        About = At->second;
        if (About.Ended != 0) {
            UnderWay_.erase(At);
        }
    }
    ToAll([&](RequestListener &Each) { Each.RequestReturned(About, Status); });
}

void RequestTap::CallBegan(const providers::ProviderCall &Call) noexcept {
    ToAll([&](RequestListener &Each) { Each.CallBegan(Call); });
}

void RequestTap::CallEnded(const providers::ProviderCall &Call) noexcept {
    ToAll([&](RequestListener &Each) { Each.CallEnded(Call); });
}

} // namespace app
