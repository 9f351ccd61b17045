#include "app/output.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace app {

namespace {

bool Json = false;

} // namespace

bool WantsJson() {
    return Json;
}

void SetJson(bool Wanted) {
    Json = Wanted;
}

void PrintRecord(const std::vector<Field> &Fields) {
    nlohmann::ordered_json Record = nlohmann::ordered_json::object();
    for (const Field &Each : Fields) {
        std::visit([&](const auto &Value) { Record[std::string(Each.Name)] = Value; }, Each.Value);
    }
    fmt::print("{}\n", Record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::string JsonTime(int64_t Time) {
    if (Time == 0) {
        return "";
    }
    constexpr int64_t Epoch = 116444736000000000; // 1970 in 100-ns units since 1601
    constexpr int64_t Second = 10'000'000;
    int64_t Part = (Time - Epoch) % Second;
    Part += Part < 0 ? Second : 0;
    const auto Seconds = static_cast<time_t>((Time - Epoch - Part) / Second);
    tm Universal = {};
    gmtime_r(&Seconds, &Universal);
    char Text[64];
    strftime(Text, sizeof(Text), "%Y-%m-%dT%H:%M:%S", &Universal);
    return fmt::format("{}.{:07}Z", Text, Part);
}

std::string Coloured(Colour Which, std::string_view Text) {
    static const bool Allowed = [] {
        const char *No = getenv("NO_COLOR");
        const char *Kind = getenv("TERM");
        return isatty(STDOUT_FILENO) != 0 && (No == nullptr || *No == 0) && Kind != nullptr &&
               std::string_view(Kind) != "dumb";
    }();
    if (!Allowed) {
        return std::string(Text);
    }
    const char *Code = Which == Colour::Directory ? "1;34" : Which == Colour::Faint ? "2" : "1";
    return fmt::format("\033[{}m{}\033[0m", Code, Text);
}

std::string HumanSize(uint64_t Bytes) {
    constexpr const char *Units = "KMGTPE";
    if (Bytes < 1024) {
        return fmt::format("{}", Bytes);
    }
    auto Size = static_cast<double>(Bytes) / 1024;
    size_t Unit = 0;
    for (; Size >= 1023.5 && Unit < 5; ++Unit) {
        Size /= 1024;
    }
    return Size < 9.95 ? fmt::format("{:.1f}{}", Size, Units[Unit]) : fmt::format("{:.0f}{}", Size, Units[Unit]);
}

std::string ShowBytes(uint64_t Bytes, bool Human) {
    return Human ? HumanSize(Bytes) : fmt::format("{}", Bytes);
}

} // namespace app
