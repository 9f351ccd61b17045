#include "app/shell_completion.h"

#include <algorithm>

#include <fmt/format.h>

#include "app/command_line.h"
#include "app/text.h"

namespace app {

namespace {

// The long and short names of options, with blanks between.
std::vector<std::string> OptionNames(const std::vector<Parameter> &Parameters) {
    std::vector<std::string> Names;
    for (const Parameter &Each : Parameters) {
        std::string_view Rest = Each.Names;
        while (Each.IsOption() && !Each.Hidden && !Rest.empty()) {
            const std::string_view Name = Rest.substr(0, Rest.find(','));
            Names.emplace_back(Name);
            Rest.remove_prefix(std::min(Name.size() + 1, Rest.size()));
        }
    }
    return Names;
}

std::string Bash(const VerbList &List) {
    GlobalOptions Text;
    std::string Verbs;
    std::string Cases;
    for (const Verb &Each : List) {
        if (!Each.Hidden) {
            Verbs += Each.Name + ' ';
            Cases +=
                fmt::format("        {}) options=\"{}\" ;;\n", Each.Name, fmt::join(OptionNames(Each.Parameters), " "));
        }
    }
    return fmt::format(
        "# bash completion for rvfsd\n"
        "_rvfsd() {{\n"
        "    local word=${{COMP_WORDS[COMP_CWORD]}} verbs=\"{0}\" globals=\"{1} --help\" options= verb= each\n"
        "    for each in \"${{COMP_WORDS[@]:1:COMP_CWORD-1}}\"; do\n"
        "        case \" $verbs \" in *\" $each \"*) verb=$each; break ;; esac\n"
        "    done\n"
        "    case $verb in\n{2}    esac\n"
        "    COMPREPLY=()\n"
        "    case $word in\n"
        "    -*) mapfile -t COMPREPLY < <(compgen -W \"$options $globals\" -- \"$word\") ;;\n"
        "    *)\n"
        "        case $verb in '' | help) ;; completion) verbs=\"bash zsh fish\" ;; *) verbs= ;; esac\n"
        "        mapfile -t COMPREPLY < <(compgen -W \"$verbs\" -- \"$word\")\n"
        "        ;;\n"
        "    esac\n"
        "}}\n"
        "complete -o default -F _rvfsd rvfsd\n",
        Verbs, fmt::join(OptionNames(GlobalParameters(Text)), " "), Cases);
}

// Single quotes around Text.
std::string QuotedForZsh(const std::string &Text) {
    std::string Out = "'";
    for (const char Byte : Text) {
        Out += Byte == '\'' ? "'\\''" : std::string(1, Byte);
    }
    return Out + '\'';
}

// Between fish's single quotes a backslash escapes quotes and itself.
std::string QuotedForFish(const std::string &Text) {
    std::string Out = "'";
    for (const char Byte : Text) {
        Out += (Byte == '\'' || Byte == '\\' ? "\\" : "") + std::string(1, Byte);
    }
    return Out + '\'';
}

std::string Zsh(const VerbList &List) {
    GlobalOptions Text;
    std::string Verbs;
    std::string Cases;
    for (const Verb &Each : List) {
        if (!Each.Hidden) {
            Verbs += "        " + QuotedForZsh(Each.Name + ":" + Each.Summary) + "\n";
            Cases +=
                fmt::format("        {}) options=({}) ;;\n", Each.Name, fmt::join(OptionNames(Each.Parameters), " "));
        }
    }
    return fmt::format("#compdef rvfsd\n"
                       "_rvfsd() {{\n"
                       "    local -a verbs options globals\n"
                       "    local verb each\n"
                       "    verbs=(\n{0}    )\n"
                       "    globals=({1} --help)\n"
                       "    for each in ${{words[2,CURRENT-1]}}; do\n"
                       "        if (( ${{verbs[(I)$each:*]}} )); then verb=$each; break; fi\n"
                       "    done\n"
                       "    case $verb in\n{2}    esac\n"
                       "    if [[ ${{words[CURRENT]}} == -* ]]; then\n"
                       "        compadd -- $options $globals\n"
                       "    elif [[ -z $verb || $verb == help ]]; then\n"
                       "        _describe verb verbs\n"
                       "    elif [[ $verb == completion ]]; then\n"
                       "        compadd bash zsh fish\n"
                       "    else\n"
                       "        _files\n"
                       "    fi\n"
                       "}}\n"
                       "_rvfsd \"$@\"\n",
                       Verbs, fmt::join(OptionNames(GlobalParameters(Text)), " "), Cases);
}

std::string FishOption(const std::string &Name) {
    return Name.starts_with("--") ? " -l " + Name.substr(2) : " -s " + Name.substr(1);
}

std::string Fish(const VerbList &List) {
    GlobalOptions Text;
    std::string Out = "# fish completion for rvfsd\n";
    std::string VerbNames;
    const auto AddOptions = [&Out](const std::vector<Parameter> &Parameters, const std::string &When) {
        for (const Parameter &Each : Parameters) {
            std::string Names;
            for (const std::string &Name : OptionNames({Each})) {
                Names += FishOption(Name);
            }
            if (!Names.empty()) {
                Out += fmt::format("complete -c rvfsd{}{} -d {}\n", When, Names, QuotedForFish(Each.Help));
            }
        }
    };
    AddOptions(GlobalParameters(Text), "");
    for (const Verb &Each : List) {
        if (!Each.Hidden) {
            Out += fmt::format("complete -c rvfsd -n __fish_use_subcommand -a {} -d {}\n", Each.Name,
                               QuotedForFish(Each.Summary));
            AddOptions(Each.Parameters, fmt::format(" -n '__fish_seen_subcommand_from {}'", Each.Name));
            VerbNames += Each.Name + ' ';
        }
    }
    for (const auto &[Verb, Words] :
         {std::pair<const char *, std::string>{"help", VerbNames}, {"completion", "bash zsh fish"}}) {
        Out += fmt::format("complete -c rvfsd -f -n '__fish_seen_subcommand_from {}' -a '{}'\n", Verb, Words);
    }
    return Out;
}

} // namespace

std::string CompletionScript(const VerbList &List, const std::string &Shell) {
    if (Shell == "bash") {
        return Bash(List);
    }
    if (Shell == "zsh") {
        return Zsh(List);
    }
    if (Shell == "fish") {
        return Fish(List);
    }
    throw UsageError(fmt::format("{}: completion is there for bash, zsh and fish", Shell));
}

} // namespace app
