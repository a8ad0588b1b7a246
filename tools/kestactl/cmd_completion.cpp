// kestactl completion: what a shell completes, made from the table of commands and options itself.
#include <algorithm>
#include <map>
#include <memory>

#include "command.h"

namespace kestactl {
namespace {

// What a shell has to ask for when it completes: by the name of a positional or the text of an option.
const std::map<std::string, std::string> asked{{"GROUP", "groups"},
                                               {"FILE|GROUP", "groups_or_files"},
                                               {"FILE", "files"},
                                               {"BLOCK", "blocks"},
                                               {"IDENTIFIER", "identifiers"},
                                               {"CONTROLLER", "controllers"},
                                               {"AREA", "areas"},
                                               {"SHELL", "shells"},
                                               {"GENERATION", "generations"},
                                               {"SIDE", "sides"}};
// By an option's name, or by its command and its name where a name means two things.
const std::map<std::string, std::string> asked_by_option{{"--backup", "slots"},
                                                         {"--accept", "slots"},
                                                         {"--slot", "slots"},
                                                         {"--group", "groups"},
                                                         {"--controller", "controllers"},
                                                         {"--out", "files"},
                                                         {"--only", "files"},
                                                         {"--in", "places"},
                                                         {"restore --from", "archives"},
                                                         {"--numbering", "versions"},
                                                         {"compare --backup", "versions"},
                                                         {"--generation", "generations"},
                                                         {"diff --from", "sides"},
                                                         {"diff --to", "sides"},
                                                         {"--output", "files"},
                                                         {"--trace", "levels"}};

// How it asks: shell functions, each printing words.
constexpr const char *questions = R"(_kestactl_groups()
{
    local file
    for file in /etc/kesta_sys/*/define.xml; do
        [ -e "$file" ] && file=${file%/define.xml} && echo "${file##*/}"
    done
}
_kestactl_slots() { echo kesta_backup0 kesta_backup1; }
_kestactl_archives() { echo backup accept kesta_backup0 kesta_backup1; }
_kestactl_generations() { kestactl history --oneline 2> /dev/null | while read -r number _; do echo "$number"; done; }
_kestactl_sides() { echo live backup accept; _kestactl_generations; }
_kestactl_places() { echo eeprom vpd flash nv; }
_kestactl_levels() { echo 0 1 2 3 4 5; }
_kestactl_shells() { echo bash zsh; }
_kestactl_groups_or_files() { _kestactl_groups; compgen -f -- "$current"; }
_kestactl_versions()
{
    kestactl version show 2> /dev/null | while read -r _ number _; do
        case $number in [1-9]*) echo "$number" ;; esac
    done | sort -nu
}
_kestactl_controllers() { echo CNT0 CNT1 CNT2 CNT3; }
_kestactl_blocks() { kestactl nv list 2> /dev/null | while read -r _ name _; do echo "$name"; done; }
_kestactl_areas()
{
    kestactl version show 2> /dev/null | while read -r name _; do echo "${name%-cnt[0-3]}"; done
}
_kestactl_identifiers()
{
    kestactl lock check 2> /dev/null | sed -n 's/.*identifier \([0-9]*\).*/\1/p'
}
)";

// A command below the program's own: its words, as " nv read".
using Visit = std::function<void(const Command &command, const std::string &path)>;

void visit_all(const Command &command, const std::string &path, const Visit &visit)
{
    visit(command, path);
    for (const Command &inner : command.subcommands()) {
        visit_all(inner, path + " " + inner.name(), visit);
    }
}

std::vector<std::string> option_names(const Command &command)
{
    std::vector<std::string> names;
    for (const Option &option : command.options()) {
        const std::vector<std::string> own = option.long_names();
        names.insert(names.end(), own.begin(), own.end());
    }
    return names;
}

// What stands in a command's place: its commands and options, and what is asked for its positionals.
std::string words_of(const Command &command, std::string &ask)
{
    std::vector<std::string> words;
    for (const Command &inner : command.subcommands()) {
        words.push_back(inner.name());
    }
    const std::vector<std::string> options = option_names(command);
    words.insert(words.end(), options.begin(), options.end());
    for (const Option &option : command.options()) {
        const auto found = asked.find(option.name());
        if (option.is_positional() && found != asked.end()) {
            ask = found->second;
        }
    }
    return joined(words);
}

// The values that an option tells itself, "a|b|c"; or what is asked for it.
std::string values_of(const Command &command, const Option &option, std::string &ask)
{
    if (!option.takes_value()) {
        return "";  // a flag: what comes behind it is not its value
    }
    for (const std::string &name : option.long_names()) {
        for (const std::string &key : {name, command.name() + " " + name}) {
            if (const auto found = asked_by_option.find(key); found != asked_by_option.end()) {
                ask = found->second;
            }
        }
    }
    std::string text = option.option_text();
    if (text.find('|') == std::string::npos) {
        return "";
    }
    std::replace(text.begin(), text.end(), '|', ' ');
    return text;
}

std::string quoted(const std::string &text) { return "'" + text + "'"; }

std::string assignment(const std::string &words, const std::string &ask)
{
    return "words=" + quoted(words) + (ask.empty() ? "" : "; ask=" + ask) + " ;;\n";
}

std::string bash_script(const Command &app)
{
    std::string paths;
    std::string values;
    std::string words;
    visit_all(app, "", [&](const Command &command, const std::string &path) {
        if (!path.empty()) {
            paths += "            " + quoted(path) + ") path=" + quoted(path) + " ;;\n";
        }
        for (const Option &option : command.options()) {
            std::string ask;
            const std::string known = values_of(command, option, ask);
            for (const std::string &name : option.long_names()) {
                if (!known.empty() || !ask.empty()) {
                    values += "        " + quoted(path + " " + name) + ") " + assignment(known, ask);
                }
            }
        }
        std::string ask;
        const std::string all = words_of(command, ask);
        words += "        " + quoted(path) + ") " + assignment(all, ask);
    });
    return std::string(questions) +
           "_kestactl()\n{\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}\n"
           "    local path='' words='' ask='' i\n"
           "    # --option=value comes as three words\n"
           "    [ \"$current\" != = ] || current=''\n"
           "    if [ \"$previous\" = = ] && [ \"$COMP_CWORD\" -ge 2 ]; then\n"
           "        previous=${COMP_WORDS[COMP_CWORD-2]}\n"
           "    fi\n"
           "    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
           "        case \"$path ${COMP_WORDS[i]}\" in\n" +
           paths +
           "        esac\n    done\n"
           "    case \"$path $previous\" in\n" +
           values +
           "    esac\n"
           "    if [ -z \"$words$ask\" ]; then\n        case \"$path\" in\n" +
           words +
           "        esac\n    fi\n"
           "    if [ \"$ask\" = files ]; then\n"
           "        COMPREPLY=($(compgen -f -- \"$current\"))\n        return\n    fi\n"
           "    [ -z \"$ask\" ] || words+=\" $(_kestactl_$ask)\"\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
           "}\n"
           "complete -F _kestactl kestactl\n";
}

Result completion(const Command &app, const std::string &shell)
{
    Result result;
    if (shell == "zsh") {
        result.text = "#compdef kestactl\nautoload -U +X bashcompinit && bashcompinit\n";
    }
    result.text += bash_script(app);
    result.json = {{"shell", shell}, {"script", result.text}};
    return result;
}

}  // namespace

void add_completion(const Command &app, Action &action)
{
    auto shell = std::make_shared<std::string>();
    const Command command = app.add_subcommand("completion", "Print what lets a shell complete kestactl");
    command.add_option("SHELL", *shell, "bash or zsh").required().one_of({"bash", "zsh"});
    command.callback([app, &action, shell] {
        action = [app, shell](const Globals &) {
            return completion(app, *shell);
        };
    });
    add_examples(command,
                 "  . <(kestactl completion bash)\n"
                 "  kestactl completion zsh > ~/.zfunc/_kestactl");
}

}  // namespace kestactl
