#include "app/config.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/output.h"
#include "app/text.h"

namespace app {

namespace {

using Json = nlohmann::ordered_json;

std::vector<Setting> InForce;

void Put(std::vector<Setting> &Settings, Setting New) {
    const auto Old = std::find_if(Settings.begin(), Settings.end(), [&New](const Setting &Each) {
        return Each.Kind == New.Kind && Each.Name == New.Name;
    });
    if (Old != Settings.end()) {
        *Old = std::move(New);
    } else {
        Settings.push_back(std::move(New));
    }
}

// ---- Files

// A switch may also be true or false.
std::string ValueOf(const Json &Value, const std::string &Where, bool Switch = false) {
    if (Value.is_string()) {
        return Value.get<std::string>();
    }
    if (Value.is_number_unsigned()) {
        return std::to_string(Value.get<uint64_t>());
    }
    if (Switch && Value.is_boolean()) {
        return Value.get<bool>() ? "1" : "0";
    }
    throw UsageError(Where + ": a text or a number is expected");
}

std::string VolumeIn(const std::string &Where, const std::string &Name) {
    try {
        return ShowPath(RemotePath(Name));
    } catch (const UsageError &Error) {
        throw UsageError(fmt::format("{}: {}", Where, Error.what()));
    }
}

// A name in a file: from where that file is, and ~/ from the user's home.
std::string NameFrom(const std::filesystem::path &File, const std::string &Text, const std::string &Where) {
    if (Text.empty()) {
        throw UsageError(Where + ": a name is expected");
    }
    const char *Home = getenv("HOME");
    const bool OfHome = Text.starts_with("~/") && Home != nullptr;
    return (OfHome ? std::filesystem::path(Home) / Text.substr(2) : File.parent_path() / Text)
        .lexically_normal()
        .string();
}

void ReadFile(const std::filesystem::path &File, std::vector<Setting> &Settings) {
    std::ifstream Stream(File);
    if (!Stream) {
        throw UsageError(fmt::format("{}: {}", File.string(), strerror(errno)));
    }
    Json Tree;
    try {
        Tree = Json::parse(Stream, nullptr, true, true);
    } catch (const Json::parse_error &Error) {
        const std::string_view Text = Error.what(); // behind the library's own number of it
        throw UsageError(fmt::format("{}: {}", File.string(), Text.substr(std::min(Text.find("] ") + 2, Text.size()))));
    }
    if (!Tree.is_object()) {
        throw UsageError(fmt::format("{}: an object is expected", File.string()));
    }
    constexpr struct {
        const char *Key;
        const char *Kind;
    } Tables[] = {{"exports", "export"}, {"quotas", "quota"}, {"switches", "switch"}};
    for (const auto &[Key, Value] : Tree.items()) {
        const std::string Where = fmt::format("{}: {}", File.string(), Key);
        const auto Table = std::find_if(std::begin(Tables), std::end(Tables),
                                        [&Key = Key](const auto &Each) { return Key == Each.Key; });
        if (Table == std::end(Tables)) {
            if (Key != "trace" && Key != "log" && Key != "image") {
                throw UsageError(Where + ": no such setting; there are exports, quotas, switches, trace, log, image");
            }
            const std::string Text = ValueOf(Value, Where);
            Put(Settings, {Key, "", Key == "trace" ? Text : NameFrom(File, Text, Where), File.string()});
            continue;
        }
        if (!Value.is_object()) {
            throw UsageError(Where + ": an object is expected");
        }
        for (const auto &[Name, Inner] : Value.items()) {
            const std::string There = fmt::format("{}: {}", Where, Name);
            const bool Switch = std::string_view(Table->Kind) == "switch";
            std::string Text = ValueOf(Inner, There, Switch);
            if (std::string_view(Table->Kind) == "export" && !Text.starts_with('\\')) {
                Text = NameFrom(File, Text, There);
            }
            const std::string Volume = Switch ? Name : VolumeIn(Where, Name);
            Put(Settings, {Table->Kind, Volume, std::move(Text), File.string()});
        }
    }
}

void ReadFiles(const GlobalOptions &Text, std::vector<Setting> &Settings) {
    if (Text.NoConfig) {
        return;
    }
    if (!Text.Config.empty()) {
        ReadFile(std::filesystem::absolute(Text.Config), Settings);
        return;
    }
    std::vector<std::filesystem::path> Files = {"/etc/rvfsd/config.json"};
    const char *Configs = getenv("XDG_CONFIG_HOME");
    const char *Home = getenv("HOME");
    if (Configs != nullptr && *Configs == '/') {
        Files.push_back(std::filesystem::path(Configs) / "rvfsd/config.json");
    } else if (Home != nullptr && *Home == '/') {
        Files.push_back(std::filesystem::path(Home) / ".config/rvfsd/config.json");
    }
    for (const std::filesystem::path &File : Files) {
        std::error_code Unknown;
        if (std::filesystem::exists(File, Unknown)) {
            ReadFile(File, Settings);
        }
    }
}

// ---- The command line

// NAME=VALUE at its first '='.
std::pair<std::string, std::string> SplitPair(const std::string &Text, const char *What) {
    const size_t At = Text.find('=');
    if (At == std::string::npos || At == 0 || At + 1 == Text.size()) {
        throw UsageError(fmt::format("{}: expected {}", Text, What));
    }
    return {Text.substr(0, At), Text.substr(At + 1)};
}

constexpr auto CommandLine = "command line";

// Puts one setting where the session takes it from.
void Apply(const Setting &Each, SessionOptions &Options) {
    if (Each.Kind == "export" && Each.Value.starts_with('\\')) {
        Options.Exports.push_back({Each.Name, {}, ShowPath(RemotePath(Each.Value))});
    } else if (Each.Kind == "export") {
        Options.Exports.push_back({Each.Name, Each.Value});
    } else if (Each.Kind == "quota") {
        Options.Quotas[Each.Name] = ParseSize(Each.Value);
    } else if (Each.Kind == "switch") {
        const std::span<const Switch> Known = KnownSwitches();
        if (std::none_of(Known.begin(), Known.end(), [&Each](const Switch &One) { return Each.Name == One.Name; })) {
            std::string Names;
            for (const Switch &One : Known) {
                Names += std::string(Names.empty() ? "" : ", ") + One.Name;
            }
            throw UsageError(fmt::format("{}the driver has no switch {}; it has {}",
                                         Each.From == CommandLine ? "--set: " : "", Each.Name, Names));
        }
        Options.Switches[Each.Name] = ParseWord(Each.Value);
    } else if (Each.Kind == "trace") {
        Options.TraceMask = ParseCategories(Each.Value);
    } else if (Each.Kind == "log") {
        Options.Log = Each.Value;
    } else if (Each.Kind == "image") {
        Options.Image = Each.Value;
    } else if (Each.Kind == "use") {
        Options.Uses.push_back(Each.Name + "=" + Each.Value);
    } else if (Each.Kind == "session") {
        const std::vector<LogonName> &Known = Logons();
        if (std::none_of(Known.begin(), Known.end(),
                         [&Each](const LogonName &One) { return Each.Value == One.Name; })) {
            throw UsageError(
                fmt::format("--session {}: there is no such session; the verb session lists them", Each.Value));
        }
        Options.Logon = Each.Value;
    } else if (Each.Kind == "calls") {
        Options.Calls = Each.Value;
    } else if (Each.Kind == "journal") {
        Options.Journal = Each.Value;
    } else if (Each.Kind == "provider") {
        Options.Provider = {Each.Value, Options.Provider ? Options.Provider->Options : ""};
    } else if (Each.Kind == "provider options") {
        Options.Provider = {Options.Provider ? Options.Provider->Library : "", Each.Value};
    }
}

} // namespace

std::vector<Setting> Configure(const GlobalOptions &Text) {
    std::vector<Setting> Settings;
    ReadFiles(Text, Settings);
    std::vector<std::string> Named; // twice on one line is a mistake, which the Provider tells
    for (const std::string &One : Text.Exports) {
        const auto [Name, Served] = SplitPair(One, "--export '\\\\server\\volume=DIR'");
        const std::string Volume = ShowPath(RemotePath(Name));
        if (std::find(Named.begin(), Named.end(), Volume) == Named.end()) {
            Put(Settings, {"export", Volume, Served, CommandLine});
        } else {
            Settings.push_back({"export", Volume, Served, CommandLine});
        }
        Named.push_back(Volume);
    }
    for (const std::string &One : Text.Quotas) {
        const auto [Name, Bytes] = SplitPair(One, "--quota '\\\\server\\volume=BYTES'");
        Put(Settings, {"quota", ShowPath(RemotePath(Name)), Bytes, CommandLine});
    }
    for (const std::string &One : Text.Switches) {
        const auto [Name, Value] = SplitPair(One, "--set NAME=VALUE");
        Put(Settings, {"switch", Name, Value, CommandLine});
    }
    for (const std::string &One : Text.Uses) {
        const auto [Name, Path] = SplitPair(One, "--use 'G:=\\\\server\\volume'");
        Put(Settings, {"use", Name, Path, CommandLine});
    }
    if (!Text.Provider.empty()) {
        if (!Text.Exports.empty() || !Text.Quotas.empty()) {
            throw UsageError("--provider: it serves volumes of its own; --export and --quota are for directories");
        }
        // What files say of directories is not for it.
        std::erase_if(Settings, [](const Setting &Each) { return Each.Kind == "export" || Each.Kind == "quota"; });
    } else if (!Text.ProviderOptions.empty()) {
        throw UsageError("--provider-options: they are for a Provider of --provider");
    }
    const std::pair<const char *, const std::string &> Words[] = {
        {"session", Text.Logon},     {"trace", Text.Trace},
        {"log", Text.Log},           {"image", Text.Image},
        {"calls", Text.Calls},       {"journal", Text.Journal},
        {"provider", Text.Provider}, {"provider options", Text.ProviderOptions}};
    for (const auto &[Kind, Word] : Words) {
        if (!Word.empty()) {
            Put(Settings, {Kind, "", Word, CommandLine});
        }
    }
    return Settings;
}

SessionOptions SessionOf(const std::vector<Setting> &Settings) {
    SessionOptions Options;
    for (const Setting &Each : Settings) {
        try {
            Apply(Each, Options);
        } catch (const UsageError &Error) {
            if (Each.From == CommandLine) {
                throw;
            }
            throw UsageError(fmt::format("{}: {}", Each.From, Error.what()));
        }
    }
    if (Options.Calls && !Options.Image) {
        throw UsageError("--calls: only the calls of an image can be recorded (--image)");
    }
    return Options;
}

void SetInForce(std::vector<Setting> Settings) {
    InForce = std::move(Settings);
}

void AddConfigVerb(VerbList &List) {
    List.push_back(
        {.Name = "config",
         .Group = "program",
         .Summary = "what is served and switched, and where that is said",
         .Text =
             "Configuration is read from /etc/rvfsd/config.json, then from $XDG_CONFIG_HOME/rvfsd/config.json "
             "(~/.config/rvfsd/config.json), then from the command line; the later wins for each export, quota and "
             "switch. A file holds an object: \"exports\" and \"quotas\" by \"//server/volume\", \"switches\" by name, "
             "\"trace\", \"log\" and \"image\". Files and directories are named from where this file is, or from ~/; "
             "comments "
             "are allowed.",
         .Alone = [] {
             std::vector<Setting> Shown = InForce;
             if (std::none_of(Shown.begin(), Shown.end(), [](const Setting &Each) { return Each.Kind == "export"; })) {
                 Shown.insert(Shown.begin(), {"export", "\\\\demo\\files", DefaultTree().string(), "default"});
             }
             for (const Switch &Each : KnownSwitches()) {
                 if (std::none_of(Shown.begin(), Shown.end(), [&Each](const Setting &One) {
                         return One.Kind == "switch" && One.Name == Each.Name;
                     })) {
                     Shown.push_back({"switch", Each.Name, std::to_string(Each.Default), "default"});
                 }
             }
             size_t Widest = 0;
             for (const Setting &Each : Shown) {
                 Widest = std::max(Widest, Each.Value.size());
             }
             for (const Setting &Each : Shown) {
                 if (WantsJson()) {
                     PrintRecord(
                         {{"kind", Each.Kind}, {"name", Each.Name}, {"value", Each.Value}, {"from", Each.From}});
                 } else {
                     fmt::print("{:<8} {:<34} {:<{}}  {}\n", Each.Kind, Each.Name, Each.Value, Widest,
                                Coloured(Colour::Faint, Each.From));
                 }
             }
             return 0;
         }});
}

} // namespace app
