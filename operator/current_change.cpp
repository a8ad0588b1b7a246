#include "current_change.h"

#include <kesta/kesta.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <array>

#include "appliance_state.h"
#include "generation_folder.h"
#include "journal.h"
#include "user_name.h"

namespace engine {
namespace {

struct Watched {
    Change change;
    bool is_told = false;  // it changes something, or was refused when it was about to
    bool has_begun = false;
    bool knows_names = false;
};

std::optional<Watched> watched;

// What they change is what this system goes by, and can be undone; the others are told of.
constexpr std::array undoable{"save", "accept", "restore", "copy archive", "slot switch", "version set", "undo"};

// They change nothing that an environment is made of.
constexpr std::array not_logged{"lock", "run", "script"};

const char *word_of(Exit exit)
{
    switch (exit) {
    case Exit::done:
        return "done";
    case Exit::no:
        return "no";
    case Exit::locked:
        return "held";
    case Exit::usage:
    case Exit::platform:
        return "failed";
    default:
        return "interrupted";
    }
}

bool is_logged(const std::string &verb)
{
    return std::none_of(not_logged.begin(), not_logged.end(), [&verb](const char *word) {
        return verb == word || verb.starts_with(std::string(word) + " ");
    });
}

bool is_undoable(const std::string &verb)
{
    return std::find(undoable.begin(), undoable.end(), verb) != undoable.end();
}

bool can_be_undone(const Watched &one)
{
    const Change &change = one.change;
    const bool has_all =
        std::all_of(change.archives.begin(), change.archives.end(),
                    [](const ReplacedArchive &archive) { return archive.was_kept && !archive.after.empty(); });
    return is_undoable(change.verb) && one.knows_names && has_all && change.result == "done";
}

void tell_journal(const Change &change, const ChangeEnd &end)
{
    const char *const priority = end.exit == Exit::done ? "5" : "4";
    const std::string version = change.version ? std::to_string(*change.version) : "";
    std::string message = change.verb + (change.group.empty() ? "" : " " + change.group) + ": " + change.result;
    message += version.empty() ? "" : ", version " + version;
    message += end.message.empty() ? "" : ": " + end.message;
    const JournalFields fields{{"MESSAGE", message},
                               {"PRIORITY", priority},
                               {"SYSLOG_IDENTIFIER", "kestactl"},
                               {"KESTA_VERB", change.verb},
                               {"KESTA_GROUP", change.group},
                               {"KESTA_VERSION", version},
                               {"KESTA_RESULT", change.result},
                               {"KESTA_CAUSE", end.cause},
                               {"KESTA_USER", change.user},
                               {"KESTA_CONTROLLER", std::to_string(change.controller)}};
    if (!send_to_journal(fields)) {
        send_to_log(fields);
    }
}

// It failed before it replaced anything.
bool has_left_all(const Watched &one)
{
    const Change &change = one.change;
    return change.result != "done" && change.archives.empty() && !change.files && one.knows_names &&
           change.before == change.after;
}

void log_change(Watched &one)
{
    struct stat status {};
    if (stat(generations_folder, &status) != 0) {
        return;  // nothing was saved here yet: there is no list to be in
    }
    if (one.knows_names) {
        try {
            one.change.after = names_in_force();
        } catch (const Failure &) {
            one.knows_names = false;
        }
    }
    one.change.changed_nothing = !one.has_begun || has_left_all(one);
    one.change.can_be_undone = can_be_undone(one);
    add_change(one.change);
}

}  // namespace

void watch_change(const std::string &verb, const std::string &reason)
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    watched.emplace();
    watched->change.id =
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
    watched->change.time = now.tv_sec;
    watched->change.verb = verb;
    watched->change.reason = reason;
}

void note_change(const std::string &group)
{
    if (watched && !watched->is_told) {
        watched->is_told = true;
        watched->change.group = group;
        watched->change.user = user_name();
        watched->change.controller = kestal_get_cnt_num_from_cpinfo(KESTA_CPINFO_OWN_NUMBER_NO_FILE);
    }
}

void begin_change()
{
    if (!watched || watched->has_begun) {
        return;
    }
    watched->has_begun = true;
    if (!is_undoable(watched->change.verb)) {
        return;  // nobody asks for what was before: the platform is not asked either
    }
    try {
        watched->change.before = names_in_force();
        watched->knows_names = true;
    } catch (const Failure &) {
        watched->knows_names = false;  // then it can't be undone
    }
}

std::uint64_t change_number() { return watched ? watched->change.id : 0; }

void note_change_version(int version)
{
    if (watched) {
        watched->change.version = version;
    }
}

void note_replaced_archive(const ReplacedArchive &archive)
{
    if (watched) {
        std::vector<ReplacedArchive> &all = watched->change.archives;
        const bool is_known =
            std::any_of(all.begin(), all.end(), [&archive](const auto &one) { return one.place == archive.place; });
        if (!is_known) {
            all.push_back(archive);
        }
    }
}

void note_new_archive(const std::string &place, const std::string &sha256)
{
    if (watched) {
        for (ReplacedArchive &one : watched->change.archives) {
            one.after = one.place == place ? sha256 : one.after;
        }
    }
}

void note_replaced_files(const ReplacedFiles &files)
{
    if (watched) {
        watched->change.files = files;
    }
}

std::string end_change(const ChangeEnd &end)
{
    if (!watched || !watched->is_told) {
        watched.reset();
        return "";
    }
    Watched one = std::move(*watched);
    watched.reset();
    one.change.result = word_of(end.exit);
    one.change.cause = end.cause;
    std::string missing;
    try {
        if (is_logged(one.change.verb)) {
            log_change(one);
        }
    } catch (const Failure &failure) {
        missing = std::string("This change is not in the list of changes, and can't be undone: ") + failure.what() +
                  " " + failure.hint();
    }
    tell_journal(one.change, end);
    return missing;
}

}  // namespace engine
