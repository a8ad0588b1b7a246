#include "metrics.h"

#include <algorithm>

#include "find_slots.h"
#include "names.h"
#include "printable.h"
#include "storage_places.h"

namespace engine {
namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

// As the format quotes it; what is no printable text stands in it as \xNN.
std::string label_value(const std::string &value)
{
    std::string quoted;
    for (const char c : plain_text(value)) {
        quoted += c == '\\' || c == '"' ? std::string("\\") + c : std::string(1, c);
    }
    return quoted;
}

// The samples of one metric stand together, behind what is said of it.
class Metrics {
public:
    void begin(const std::string &name, const std::string &unit, const std::string &help)
    {
        name_ = "kesta_" + name;
        text_ += "# TYPE " + name_ + " gauge\n";
        text_ += unit.empty() ? "" : "# UNIT " + name_ + " " + unit + "\n";
        text_ += "# HELP " + name_ + " " + help + "\n";
    }
    void add(const Labels &labels, std::int64_t value)
    {
        text_ += name_;
        for (const auto &[name, of] : labels) {
            text_ += (&name == &labels.front().first ? "{" : ",") + name + "=\"" + label_value(of) + "\"";
        }
        text_ += (labels.empty() ? " " : "} ") + std::to_string(value) + "\n";
    }
    std::string end() const { return text_ + "# EOF\n"; }

private:
    std::string name_;
    std::string text_;
};

void add_archives(Metrics &metrics, const ControllerState &state)
{
    metrics.begin("archive_bytes", "bytes", "Size of an archive on flash; 0: there is none.");
    for (const KeptArchive &archive : state.archives) {
        metrics.add({{"place", archive.place}}, static_cast<std::int64_t>(archive.bytes));
    }
    metrics.begin("archive_age_seconds", "seconds", "Since an archive on flash was written.");
    for (const KeptArchive &archive : state.archives) {
        if (archive.is_there) {
            metrics.add({{"place", archive.place}}, std::max<std::int64_t>(state.now - archive.modified, 0));
        }
    }
    metrics.begin("generations", "", "Archives that were replaced and are kept.");
    metrics.add({}, static_cast<std::int64_t>(state.generations));
    metrics.begin("generations_size_bytes", "bytes", "Room that they take.");
    metrics.add({}, static_cast<std::int64_t>(state.generation_bytes));
}

void add_names(Metrics &metrics, const NamesInForce &names)
{
    metrics.begin("version", "", "Version numbers by area; 0: never set.");
    metrics.add({{"area", "backup"}}, names.backup_version);
    metrics.add({{"area", "accept"}}, names.accept_version);
    metrics.add({{"area", "current"}}, names.current_version);
    metrics.add({{"area", "flash"}}, names.flash_version);
    metrics.begin("slot", "", "Which slot is in force: 1.");
    metrics.add({{"side", "backup"}, {"name", names.backup}}, 1);
    metrics.add({{"side", "accept"}, {"name", names.accept}}, 1);
}

void add_locks(Metrics &metrics, const ControllerState &state)
{
    if (state.command_locks) {
        metrics.begin("command_lock_age_seconds", "seconds", "Since a command lock was taken, by its holder.");
        for (const CommandLock &lock : *state.command_locks) {
            metrics.add({{"holder", controller_name(lock.controller)}, {"type", type_word(lock)}},
                        std::max<std::int64_t>(state.now - lock.identifier, 0));
        }
        metrics.begin("command_locks", "", "Command locks that are held.");
        metrics.add({}, static_cast<std::int64_t>(state.command_locks->size()));
    }
    if (state.inner_lock) {
        metrics.begin("inner_lock_held", "", "Holders of the inner lock: 1.");
        for (const InnerLockHolder &holder : *state.inner_lock) {
            metrics.add({{"holder", controller_name(holder.controller)}}, 1);
        }
        metrics.begin("inner_locks", "", "Slots of the inner lock that are set.");
        metrics.add({}, static_cast<std::int64_t>(state.inner_lock->size()));
    }
}

void add_changes(Metrics &metrics, const ControllerState &state)
{
    metrics.begin("restore_unfinished", "", "1: a restore was cut short, and is to be completed.");
    metrics.add({}, state.restore_is_unfinished);
    if (state.leftovers) {
        metrics.begin("leftovers", "", "Files that killed commands left behind.");
        metrics.add({}, static_cast<std::int64_t>(state.leftovers->size()));
    }
    if (state.last_save) {
        const Change &save = *state.last_save;
        metrics.begin("last_save_age_seconds", "seconds",
                      "Since the last save of this controller, whatever its result.");
        metrics.add({{"saved_group", save.group}}, std::max<std::int64_t>(state.now - save.time, 0));
        metrics.begin("last_save_success", "", "1: it was done.");
        metrics.add({{"result", save.result}, {"cause", save.cause}}, save.result == "done");
    }
}

void add_findings(Metrics &metrics, const ControllerState &state)
{
    if (state.findings) {
        metrics.begin("finding", "", "What verify found of a subject: 1, or 0 where it agrees.");
        for (const SubjectFinding &row : state.findings->rows) {
            metrics.add({{"subject", row.subject}, {"state", name_of(row.state)}}, row.counts());
        }
        metrics.begin("findings", "", "How many subjects do not agree.");
        metrics.add({}, state.findings->count());
        metrics.begin("verify_exit_code", "", "Exit code of verify: 0 in order, 1 findings, 4 unreadable.");
        metrics.add({}, static_cast<int>(state.findings->exit()));
    }
    if (state.drift && (state.drift->state == DriftState::none || state.drift->state == DriftState::drifted)) {
        metrics.begin("drift_files", "", "Files that have changed since they were saved.");
        metrics.add({{"change", "changed"}}, static_cast<std::int64_t>(state.drift->changed));
        metrics.add({{"change", "added"}}, static_cast<std::int64_t>(state.drift->added));
        metrics.add({{"change", "removed"}}, static_cast<std::int64_t>(state.drift->removed));
    }
}

// ----------------------------------------------------------------------------------------- check

class Judging {
public:
    void find(Health health, const std::string &what)
    {
        // No answer outweighs a warning, and what is known to be wrong outweighs both.
        const auto weight = [](Health one) {
            return one == Health::ok ? 0 : one == Health::warning ? 1 : one == Health::unknown ? 2 : 3;
        };
        health_ = weight(health) > weight(health_) ? health : health_;
        text_ += (text_.empty() ? "" : "; ") + what;
    }
    Health health() const { return health_; }
    const std::string &text() const { return text_; }

private:
    Health health_ = Health::ok;
    std::string text_;
};

void judge_saves(Judging &judging, const ControllerState &state, const CheckRule &rule)
{
    const auto backup = std::find_if(state.archives.begin(), state.archives.end(), [](const KeptArchive &one) {
        return one.place == address_of(StoragePlace::backup_on_flash);
    });
    if (backup == state.archives.end() || !backup->is_there) {
        judging.find(Health::critical, "nothing is saved on flash");
    } else if (rule.max_age > 0 && state.now - backup->modified > rule.max_age) {
        judging.find(Health::warning,
                     "the last save is " + std::to_string((state.now - backup->modified) / 3600) + " hours old");
    }
    if (state.last_save && state.last_save->result != "done") {
        judging.find(Health::critical, "the last save ended with '" + state.last_save->result + "'" +
                                           (state.last_save->cause.empty() ? "" : ", " + state.last_save->cause));
    }
    if (state.restore_is_unfinished) {
        judging.find(Health::critical, "a restore is unfinished");
    }
}

void judge_rest(Judging &judging, const ControllerState &state, const CheckRule &rule)
{
    if (state.names && !SlotNames{state.names->backup, state.names->accept}.valid()) {
        judging.find(Health::critical, "no two slots are in force");
    }
    if (state.leftovers && !state.leftovers->empty()) {
        judging.find(Health::warning, std::to_string(state.leftovers->size()) + " leftovers of killed commands");
    }
    for (const CommandLock &lock : state.command_locks.value_or(std::vector<CommandLock>())) {
        if (!lock.suspended() && !lock.looks_alive()) {
            judging.find(Health::warning,
                         "the command lock of " + controller_name(lock.controller) + " looks forgotten");
        }
    }
    if (state.findings && state.findings->count() > 0) {
        std::string subjects;
        for (const SubjectFinding &row : state.findings->rows) {
            subjects += row.counts() ? " " + row.subject : "";
        }
        judging.find(state.findings->exit() == Exit::platform ? Health::unknown : Health::critical,
                     "verify finds:" + subjects);
    }
    if (rule.drift && state.drift && state.drift->state != DriftState::none) {
        judging.find(state.drift->state == DriftState::drifted ? Health::warning : Health::unknown, state.drift->text);
    }
    for (const std::string &question : state.unanswered) {
        judging.find(Health::unknown, "no answer on " + question);
    }
}

std::string performance(const ControllerState &state)
{
    std::string text = "generations=" + std::to_string(state.generations) +
                       " generation_bytes=" + std::to_string(state.generation_bytes) + "B";
    for (const KeptArchive &archive : state.archives) {
        if (archive.place == address_of(StoragePlace::backup_on_flash) && archive.is_there) {
            text += " backup_age=" + std::to_string(std::max<std::int64_t>(state.now - archive.modified, 0)) +
                    "s backup_bytes=" + std::to_string(archive.bytes) + "B";
        }
    }
    return text + (state.findings ? " findings=" + std::to_string(state.findings->count()) : "");
}

}  // namespace

std::string metrics_text(const ControllerState &state)
{
    Metrics metrics;
    metrics.begin("controller", "", "Number of this controller; -1: unknown.");
    metrics.add({}, state.controller);
    metrics.begin("unanswered", "", "Questions that the platform did not answer.");
    metrics.add({}, static_cast<std::int64_t>(state.unanswered.size()));
    add_archives(metrics, state);
    if (state.names) {
        add_names(metrics, *state.names);
    }
    add_locks(metrics, state);
    add_changes(metrics, state);
    add_findings(metrics, state);
    return metrics.end();
}

CheckAnswer check_answer(const ControllerState &state, const CheckRule &rule)
{
    Judging judging;
    judge_saves(judging, state, rule);
    judge_rest(judging, state, rule);
    const char *const word = judging.health() == Health::ok         ? "OK"
                             : judging.health() == Health::warning  ? "WARNING"
                             : judging.health() == Health::critical ? "CRITICAL"
                                                                    : "UNKNOWN";
    std::string text = judging.text();
    if (text.empty()) {
        text = state.names ? "version " + std::to_string(state.names->current_version) + " runs, backup " +
                                 std::to_string(state.names->backup_version) + ", accepted " +
                                 std::to_string(state.names->accept_version)
                           : "nothing to tell";
    }
    // What follows a bar is taken for numbers.
    std::string line = plain_text(text);
    std::replace(line.begin(), line.end(), '|', '/');
    return {judging.health(), std::string("KESTA ") + word + " - " + line + " | " + performance(state) + "\n"};
}

}  // namespace engine
