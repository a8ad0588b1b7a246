#include "kept_generations.h"

namespace kestactl {
namespace {

std::string shown_place(const std::string &place)
{
    const auto slot = slot_of_place(place);
    return slot ? "slot " + *slot : place;
}

std::string joined_places(const std::vector<ReplacedPlace> &places)
{
    std::string text;
    for (const ReplacedPlace &place : places) {
        text += (text.empty() ? "" : ", ") + shown_place(place.place);
    }
    return text;
}

Json kept_json(const Generation &generation)
{
    return {{"sha256", generation.sha256},
            {"bytes", generation.bytes},
            {"version", generation.version > 0 ? Json(generation.version) : Json(nullptr)},
            {"group", generation.group.empty() ? Json(nullptr) : Json(generation.group)},
            {"places", generation.places}};
}

}  // namespace

void add_keep_options(const options::Command &command, Globals &globals)
{
    command
        .add_option("--keep", globals.keep_rule.keep,
                    "Keep this many generations of archives, not the number of the settings; 0: none of what is "
                    "replaced now")
        .not_negative();
    command.add_option("--comment,--reason", globals.keep_rule.comment, "Why: noted with the generations")
        .option_text("TEXT")
        .may_be_empty();
}

Step keep_step(const std::vector<ReplacedPlace> &places, const std::string &verb, const KeepRule &rule,
               const std::shared_ptr<KeepReport> &report, const std::function<void()> &look)
{
    if (!rule.keeps()) {
        return {"keep nothing of what is replaced: --keep 0", {}, [=] {
                    report->add(keep_replaced(places, verb, rule));
                }};
    }
    return {"keep what is whole of " + joined_places(places) + " as generations", {generations_folder}, [=] {
                report->add(keep_replaced(places, verb, rule, look));
            }};
}

Plan with_keeping(Plan plan, const KeepRule &rule)
{
    if (!plan.replaces.empty() && !plan.steps.empty()) {
        plan.kept = std::make_shared<KeepReport>();
        Step keeping = keep_step(plan.replaces, plan.verb, rule, plan.kept);
        keeping.act = [keep = keeping.act, report = plan.kept, room = plan.room] {
            keep();
            make_room_on_flash(*report, room);
        };
        plan.steps.insert(plan.steps.begin(), std::move(keeping));
    }
    return plan;
}

void tell_kept(Result &result, const KeepReport &report)
{
    result.json["kept"] = Json::array();
    result.json["dropped"] = Json::array();
    for (const Generation &generation : report.kept) {
        result.json["kept"].push_back(kept_json(generation));
        result.text += "Kept " + name_of(generation) + ".\n";
    }
    for (const Generation &generation : report.dropped) {
        result.json["dropped"].push_back(generation.sha256);
        result.text += "Dropped " + name_of(generation) + ".\n";
    }
    result.json["notes"] = report.notes;
    for (const std::string &note : report.notes) {
        result.text += note + "\n";
    }
}

Failure with_notes(const Failure &failure, const KeepReport &report)
{
    std::string text = failure.what();
    for (const std::string &note : report.notes) {
        text += " " + note;
    }
    return {failure.exit(), failure.code(), text, failure.hint()};
}

}  // namespace kestactl
