#include "command_line.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "appliance_state.h"

namespace kestactl {
namespace {

// How many letters have to be changed, put in or left out to make one word of another.
std::size_t distance(const std::string &one, const std::string &other)
{
    std::vector<std::size_t> row(other.size() + 1);
    for (std::size_t i = 0; i <= other.size(); ++i) {
        row[i] = i;
    }
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t k = 1; k <= other.size(); ++k) {
            const std::size_t changed = diagonal + (one[i - 1] == other[k - 1] ? 0 : 1);
            diagonal = row[k];
            row[k] = std::min({row[k] + 1, row[k - 1] + 1, changed});
        }
    }
    return row[other.size()];
}

std::string nearest_command(const Command &command, const std::string &word)
{
    std::string nearest;
    std::size_t least = std::string::npos;
    for (const Command &inner : command.subcommands()) {
        if (const std::size_t far = distance(word, inner.name()); far < least) {
            least = far;
            nearest = inner.name();
        }
    }
    return nearest;
}

std::optional<Command> inner_command(const Command &command, const std::string &name)
{
    for (const Command &inner : command.subcommands()) {
        if (inner.name() == name) {
            return inner;
        }
    }
    return std::nullopt;
}

// The first word that stands where a command has to, and is none; and which one is meant, perhaps.
std::optional<Failure> unknown_command(const Command &app, int argc, const char *const *argv)
{
    Command command = app;
    for (int i = 1; i < argc && !command.subcommands().empty(); ++i) {
        const std::string word = argv[i];
        if (word[0] == '-') {
            const std::optional<Option> own = command.find_option(word);
            const std::optional<Option> option = own ? own : app.find_option(word);
            i += option && option->takes_value() ? 1 : 0;
            continue;
        }
        const std::optional<Command> inner = inner_command(command, word);
        if (!inner) {
            const std::string near = nearest_command(command, word);
            const std::string of = command.name() == app.name() ? "kestactl" : "'kestactl " + command.name() + "'";
            return Failure(Exit::usage, "usage", "'" + word + "' is no command of " + of + ".",
                           (near.empty() ? "" : "Did you mean '" + near + "'? ") +
                               std::string("See --help for all of them."));
        }
        command = *inner;
    }
    return std::nullopt;
}

// Help and the version are answers; everything else is wrong usage.
Result answer_of(const Command &app, const options::Ended &ended, int argc, const char *const *argv)
{
    if (ended.wrong) {
        if (const std::optional<Failure> unknown = unknown_command(app, argc, argv)) {
            throw Failure(*unknown);
        }
        throw Failure(Exit::usage, "usage", ended.problem, "See 'kestactl --help', or --help behind a command.");
    }
    return {Exit::done, ended.text, {{"text", ended.text}}};
}

struct Verb {
    std::string_view name;
    void (*add)(const Command &, Globals &, Action &);
};

constexpr std::array verbs{
    Verb{"status", add_status},
    Verb{"nv", add_nv},
    Verb{"verify", add_verify},
    Verb{"diff",
         [](const Command &app, Globals &, Action &action) {
             add_diff(app, action);
         }},
    Verb{"history", add_history},
    Verb{"undo", add_undo},
    Verb{"metrics",
         [](const Command &app, Globals &, Action &action) {
             add_metrics(app, action);
         }},
    Verb{"check",
         [](const Command &app, Globals &, Action &action) {
             add_check(app, action);
         }},
    Verb{"report",
         [](const Command &app, Globals &, Action &action) {
             add_report(app, action);
         }},
    Verb{"save", add_save},
    Verb{"accept", add_accept},
    Verb{"slot", add_slot},
    Verb{"copy", add_copy},
    Verb{"repair", add_repair},
    Verb{"leftovers", add_leftovers},
    Verb{"restore", add_restore},
    Verb{"group", add_group},
    Verb{"script", add_script},
    Verb{"identity", add_identity},
    Verb{"version", add_version},
    Verb{"lock", add_lock},
    Verb{"run", add_run},
};

constexpr int verbose_level = 3;

std::optional<Command> chosen_command(const Command &command)
{
    for (const Command &inner : command.subcommands()) {
        if (inner.was_given()) {
            return inner;
        }
    }
    return std::nullopt;
}

// The one verb that is asked for, or --version; nothing: any may be meant, or all are told of.
std::optional<std::string_view> only_word(int argc, const char *const *argv)
{
    int first = 1;
    while (first < argc && std::string_view(argv[first]) == "--json") {
        ++first;
    }
    if (first >= argc) {
        return std::nullopt;
    }
    const std::string_view word = argv[first];
    const bool is_verb =
        std::any_of(verbs.begin(), verbs.end(), [word](const Verb &verb) { return verb.name == word; });
    const bool is_version = word == "--version" && first + 1 == argc;
    return is_verb || is_version ? std::optional(word) : std::nullopt;
}

// One command as if it had been given on the command line, but for whose locks it ignores and what it says of why.
Result run_words(const std::vector<std::string> &words, const LockRule &lock_rule, const std::string &comment)
{
    std::vector<const char *> given;
    given.reserve(words.size() + 1);
    for (const std::string &word : words) {
        given.push_back(word.c_str());
    }
    given.push_back(nullptr);
    CommandLine line;
    if (line.parse(static_cast<int>(words.size()), given.data())) {
        throw Failure(Exit::usage, "usage", "It is no command.", "See 'kestactl --help'.");
    }
    Globals globals = line.globals();
    globals.lock_rule = lock_rule;
    globals.keep_rule.comment = comment;
    use_both_places();
    return line.action()(globals);
}

}  // namespace

CommandLine::CommandLine(int argc, const char *const *argv)
    : program_(
          "The saved environments of this controller: what there is, what is in force, and moving it between the "
          "storage places.",
          "kestactl", "kestactl " KESTA_VERSION)
{
    const Command app = program_.command();
    globals_.run_words = run_words;
    app.require_subcommand();
    program_.fallthrough();
    app.add_flag("--json", globals_.json, "Print one JSON text on stdout, errors included");
    app.add_option("--trace", globals_.trace_level, "Show trace lines up to this level on stderr").in_range(0, 5);
    const Option quiet = app.add_flag("-q,--quiet", globals_.quiet, "Print failures only");
    app.add_flag("-v,--verbose", globals_.verbose, "Show notable events on stderr: --trace 3").excludes(quiet);
    const auto only = only_word(argc, argv);
    for (const Verb &verb : verbs) {
        if (!only || verb.name == *only) {
            verb.add(app, globals_, action_);
        }
    }
    if (!only) {
        add_completion(app, action_);
    }
    add_examples(app,
                 "  kestactl status --archives\n"
                 "  kestactl slot switch --dry-run\n"
                 "  kestactl copy cntbackup2backup\n"
                 "  kestactl restore network --from backup --script update\n"
                 "  kestactl nv read accept-name --json");
}

std::optional<Result> CommandLine::parse(int argc, const char *const *argv)
{
    if (const std::optional<options::Ended> ended = program_.parse(argc, argv)) {
        return answer_of(program_.command(), *ended, argc, argv);
    }
    if (globals_.verbose) {
        globals_.trace_level = std::max(globals_.trace_level, verbose_level);
    }
    for (std::optional<Command> chosen = chosen_command(program_.command()); chosen; chosen = chosen_command(*chosen)) {
        globals_.verb += (globals_.verb.empty() ? "" : " ") + chosen->name();
    }
    return std::nullopt;
}

}  // namespace kestactl
