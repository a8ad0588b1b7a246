// kestactl verify: the storage places of this controller and the shared ones held against each other.
#include <memory>

#include "all_controllers.h"
#include "appliance_state.h"
#include "command.h"
#include "drift.h"
#include "findings.h"
#include "mending.h"
#include "overview.h"
#include "utc.h"

namespace kestactl {
namespace {

struct VerifyOptions {
    bool fix = false;
    bool yes = false;
    bool drift = false;  // counts
    bool all = false;
};

constexpr int findings_schema_version = 2;

Json json_of(const PlaceFinding &place)
{
    Json json{{"place", place.place}, {"state", name_of(place.state)}};
    if (place.version) {
        json["version"] = *place.version;
    }
    if (place.bytes) {
        json["bytes"] = *place.bytes;
        json["sha256"] = place.sha256;
    }
    if (place.modified) {
        json["modified"] = utc(*place.modified);
    }
    if (!place.reason.empty()) {
        json["reason"] = place.reason;
    }
    return json;
}

Json json_of(const SubjectFinding &finding)
{
    Json json{{"subject", finding.subject}, {"state", name_of(finding.state)}, {"places", Json::array()}};
    for (const PlaceFinding &place : finding.places) {
        json["places"].push_back(json_of(place));
    }
    json["right"] = finding.right ? Json(*finding.right) : Json(nullptr);
    json["mend"] = finding.mend ? Json(*finding.mend) : Json(nullptr);
    json["text"] = finding.text;
    return json;
}

std::string text_of(const SubjectFinding &finding)
{
    char start[64];
    snprintf(start, sizeof(start), "%-2s  %-12s ", finding.counts() ? "!!" : "", finding.subject.c_str());
    std::string text = start + finding.text + "\n";
    if (finding.mend) {
        for (const MendCommand &command : *finding.mend) {
            text += "      mend it: " + shell_text(command) + "\n";
        }
    }
    return text;
}

Result result_of(const Findings &findings)
{
    Result result;
    result.schema_version = findings_schema_version;
    result.exit = findings.exit();
    result.json = {{"controller", findings.controller}, {"subjects", Json::array()}, {"findings", findings.count()}};
    for (const SubjectFinding &row : findings.rows) {
        result.json["subjects"].push_back(json_of(row));
        result.text += text_of(row);
    }
    return result;
}

void add_verdict(Result &result, const Findings &findings)
{
    const Exit exit = findings.exit();
    result.text += exit == Exit::done       ? "All places agree.\n"
                   : exit == Exit::platform ? "Some places can't be read: no answer is no pass.\n"
                                            : "Some places do not agree.\n";
}

// Beside the subjects: what changes files is the operator's own work, and no finding unless it is asked for.
void add_drift(Result &result, const Drift &drift, bool counts)
{
    result.json["drift"] = {{"state", name_of(drift.state)},
                            {"group", drift.group.empty() ? Json(nullptr) : Json(drift.group)},
                            {"changed", drift.changed},
                            {"added", drift.added},
                            {"removed", drift.removed},
                            {"paths", drift.paths},
                            {"text", drift.text}};
    const bool is_no_pass = counts && drift.state != DriftState::none;
    char start[64];
    snprintf(start, sizeof(start), "%-2s  %-12s ", is_no_pass ? "!!" : "", "drift");
    result.text += start + drift.text + "\n";
    if (is_no_pass) {
        result.exit = std::max(result.exit, drift.state == DriftState::drifted ? Exit::no : Exit::platform);
    }
}

std::vector<MendCommand> mends_of(const Findings &findings)
{
    std::vector<MendCommand> all;
    for (const SubjectFinding &row : findings.rows) {
        for (const MendCommand &command : row.mend.value_or(Mend())) {
            if (std::find(all.begin(), all.end(), command) == all.end()) {
                all.push_back(command);
            }
        }
    }
    return all;
}

Result show_mends(const Findings &findings)
{
    Result result = result_of(findings);
    add_verdict(result, findings);
    result.json["dry_run"] = true;
    result.json["would_run"] = mends_of(findings);
    result.text += "Nothing is changed. This would be run, and looked at again behind each:\n";
    for (const MendCommand &command : mends_of(findings)) {
        result.text += "  - " + shell_text(command) + "\n";
    }
    return result;
}

Result fix(const VerifyOptions &options, const Globals &globals)
{
    Findings findings = find_all();
    const std::vector<MendCommand> mends = mends_of(findings);
    if (globals.dry_run) {
        return show_mends(findings);
    }
    std::vector<Mended> mended;
    if (!mends.empty()) {
        require_writable();
        std::string question = "This runs";
        for (const MendCommand &command : mends) {
            question += "\n  " + shell_text(command);
        }
        confirm(question + "\nEach is tested again right before, and what it replaces is kept.", options.yes);
        honour_command_lock(globals.lock_rule);
        mended = mend_all(findings, globals);
    }
    Result result = result_of(findings);
    result.json["mended"] = Json::array();
    std::string text;
    for (const Mended &one : mended) {
        Json json{{"command", one.command}, {"exit", static_cast<int>(one.exit)}};
        if (!one.why.empty()) {
            json["why"] = one.why;
        }
        result.json["mended"].push_back(json);
        text += (one.exit == Exit::done ? "Done: " : "Not done: ") + shell_text(one.command) + "\n" +
                (one.why.empty() ? "" : "      " + one.why + "\n");
    }
    result.text = text + result.text;
    add_verdict(result, findings);
    return result;
}

}  // namespace

Result verify_places(bool drift_counts)
{
    const Drift drift = find_drift();  // first: what it unpacks, the findings need not
    const Findings findings = find_all();
    Result result = result_of(findings);
    add_drift(result, drift, drift_counts);
    add_verdict(result, findings);
    return result;
}

void add_verify(const Command &app, Globals &globals, Action &action)
{
    auto options = std::make_shared<VerifyOptions>();
    const Command command =
        app.add_subcommand("verify", "Hold flash, slots, NV memory and disk against each other, and say what to do");
    const Option fix_option = command.add_flag("--fix", options->fix,
                                               "Run what mends it, in an order that can lose nothing, then look again");
    command.add_flag("--yes", options->yes, "Don't ask").needs(fix_option);
    command.add_flag("--drift", options->drift, "Exit code 1 also where the group's files have changed since the save")
        .excludes(fix_option);
    command.add_flag("--all", options->all, "On all controllers").excludes(fix_option);
    add_dry_run(command, globals);
    command.get_option("--dry-run").needs(fix_option);
    add_lock_rule(command, globals);
    command.callback([&action, options] {
        action = [options](const Globals &given) {
            return options->fix   ? fix(*options, given)
                   : options->all ? verify_all(options->drift, [&] { return verify_places(options->drift); })
                                  : verify_places(options->drift);
        };
    });
    add_examples(command,
                 "  kestactl verify\n"
                 "  kestactl verify --json\n"
                 "  kestactl verify --drift\n"
                 "  kestactl verify --all\n"
                 "  kestactl verify --fix --dry-run\n"
                 "  kestactl verify --fix");
}

}  // namespace kestactl
