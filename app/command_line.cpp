#include "app/command_line.h"

#include <algorithm>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "app/text.h"

namespace app {

namespace {

void AddParameter(CLI::App &App, const Parameter &Each) {
    CLI::Option *Made = nullptr;
    if (const auto Flag = std::get_if<bool *>(&Each.Goes)) {
        Made = App.add_flag(Each.Names, **Flag);
    } else if (const auto Text = std::get_if<std::string *>(&Each.Goes)) {
        Made = App.add_option(Each.Names, **Text);
        if (Each.IsOption()) {
            Made->take_last();
        }
    } else if (const auto Texts = std::get_if<std::vector<std::string> *>(&Each.Goes)) {
        Made = App.add_option(Each.Names, **Texts);
        if (Each.IsOption()) {
            Made->take_all()->expected(1)->allow_extra_args(false);
        }
    } else if (const auto Number = std::get_if<uint32_t *>(&Each.Goes)) {
        Made = App.add_option(Each.Names, **Number);
    } else {
        Made = App.add_option(Each.Names, *std::get<std::optional<uint32_t> *>(Each.Goes));
    }
    if (Each.Required) {
        Made->required();
    }
    if (!Each.OneOf.empty()) {
        Made->check(CLI::IsMember(Each.OneOf));
    }
}

// The library's words where they mislead are replaced.
[[noreturn]] void Refuse(const CLI::App &App, const CLI::ParseError &Error) {
    const std::vector<std::string> Extra = App.remaining(true);
    if (App.get_subcommands().empty() && !Extra.empty() && !Extra[0].starts_with('-')) {
        throw UsageError(NoSuchVerb(Extra[0]));
    }
    const std::vector<CLI::App *> Chosen = App.get_subcommands();
    std::string Message = Error.what();
    if (!Chosen.empty()) {
        Message = fmt::format("{}: {}; help {} tells what it takes", Chosen.front()->get_name(), Message,
                              Chosen.front()->get_name());
    } else {
        Message += "; --help lists what there is";
    }
    std::replace(Message.begin(), Message.end(), '\n', ' ');
    throw UsageError(Message);
}

// find -name, for --name: one dash before a long name of the verb's own is a habit, and means nothing else.
void SpellLongNames(std::vector<std::string> &Words, const VerbList &List) {
    auto Named = std::find_if(Words.begin(), Words.end(),
                              [&](const std::string &Word) { return FindVerb(List, Word) != nullptr; });
    // Behind "--" come no options; what comes in front of the verb are options only, and it ends them there.
    if (const auto Ends = std::find(Words.begin(), Named, "--"); Ends != Named) {
        Named = Words.erase(Ends) + (Named - Ends - 1);
    }
    for (auto Word = Named; Word != Words.end() && *Word != "--"; ++Word) {
        for (const Parameter &Each : FindVerb(List, *Named)->Parameters) {
            if (Word->size() > 2 && (',' + Each.Names + ',').find(",-" + *Word + ',') != std::string::npos) {
                Word->insert(0, "-");
                break;
            }
        }
    }
}

} // namespace

std::vector<Parameter> GlobalParameters(GlobalOptions &Text) {
    return {
        Parameter{"--export",
                  "serve DIR as a volume, or as a link a directory of another export "
                  "('\\\\server\\volume=\\\\other\\vol\\dir'); "
                  "may be repeated. Without one a copy of the sample tree is \\\\demo\\files",
                  &Text.Exports}
            .As("'\\\\server\\volume=DIR'"),
        Parameter{"--quota", "limit an export to so many bytes (64K, 1M, 2G)", &Text.Quotas}.As(
            "'\\\\server\\volume=BYTES'"),
        Parameter{"--set", "a switch of the driver's; may be repeated", &Text.Switches}.As("NAME=VALUE"),
        Parameter{"--trace",
                  "the driver's messages of these categories on standard error: " + ShowCategories(UINT32_MAX) +
                      ", all; or a number",
                  &Text.Trace}
            .As("CATEGORY,..."),
        Parameter{"--log", "the driver's log file", &Text.Log}.As("FILE"),
        Parameter{"--image", "run this image of the driver (RVFSD.sys) instead of the one linked in", &Text.Image}.As(
            "FILE"),
        Parameter{"--calls", "write every kernel service that the image calls into this file", &Text.Calls}.As("FILE"),
        Parameter{"--use", "map a drive letter before the verb runs; may be repeated", &Text.Uses}.As(
            "'G:=\\\\server\\volume'"),
        Parameter{"--session", "the logon session to begin in (the verb session lists them)", &Text.Logon}.As("NAME"),
        Parameter{"--journal",
                  "write every request with its Provider calls into this file, for report and trace viewers",
                  &Text.Journal}
            .As("FILE"),
        Parameter{"--provider", "serve the volumes of this Provider, a shared library, instead of directories",
                  &Text.Provider}
            .As("LIBRARY"),
        Parameter{"--provider-options", "what the Provider is made from", &Text.ProviderOptions}.As("TEXT"),
        Parameter{"--config", "read this configuration instead of the usual ones", &Text.Config}.As("FILE"),
        {"--no-config", "read no configuration", &Text.NoConfig},
        {"--json", "facts as one JSON object a line", &Text.Json},
        {"-V,--version", "which program this is, and which driver it holds", &Text.Version}};
}

ParsedLine ParseLine(std::vector<std::string> Words, const VerbList &List, const std::vector<Parameter> &Globals) {
    CLI::App App("", "rvfsd");
    ParsedLine Line;
    bool Help = false;
    App.set_help_flag();
    App.fallthrough(); // options of the whole program stand behind the verb too
    for (const Parameter &Each : Globals) {
        AddParameter(App, Each);
    }
    App.add_flag("--help", Help);
    if (!Globals.empty()) {
        App.add_flag("-h", Help);
    }
    for (const Verb &Each : List) {
        CLI::App *Sub = App.add_subcommand(Each.Name);
        const bool TakesH = std::any_of(Each.Parameters.begin(), Each.Parameters.end(),
                                        [](const Parameter &One) { return One.Names.starts_with("-h,"); });
        Sub->set_help_flag();
        for (const Parameter &One : Each.Parameters) {
            AddParameter(*Sub, One);
        }
        if (!TakesH && !Each.Prepare) {
            Sub->add_flag("-h", Help);
        }
    }
    App.require_subcommand(0, 1);
    // A verb may have its words put in order first.
    const auto Named = std::find_if(Words.begin(), Words.end(), [&](const std::string &Word) {
        const Verb *Found = FindVerb(List, Word);
        return Found != nullptr && Found->Prepare;
    });
    if (Named != Words.end()) {
        std::vector<std::string> Rest(Named + 1, Words.end());
        if (std::find(Rest.begin(), Rest.end(), "--help") == Rest.end()) {
            FindVerb(List, *Named)->Prepare(Rest);
        }
        Words.erase(Named + 1, Words.end());
        Words.insert(Words.end(), Rest.begin(), Rest.end());
    }
    SpellLongNames(Words, List);
    const bool AsksForHelp = std::find(Words.begin(), Words.end(), "--help") != Words.end();
    std::reverse(Words.begin(), Words.end());
    try {
        App.parse(std::move(Words));
    } catch (const CLI::ParseError &Error) {
        if (!(Help || AsksForHelp) || dynamic_cast<const CLI::RequiredError *>(&Error) == nullptr) {
            Refuse(App, Error);
        }
    }
    Line.WantsHelp = Help || AsksForHelp;
    if (const std::vector<CLI::App *> Chosen = App.get_subcommands(); !Chosen.empty()) {
        Line.Chosen = FindVerb(List, Chosen.front()->get_name());
    }
    return Line;
}

} // namespace app
