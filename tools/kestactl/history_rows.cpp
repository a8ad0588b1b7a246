#include "history_rows.h"

#include "names.h"
#include "printable.h"
#include "utc.h"

namespace kestactl {
namespace {

constexpr std::size_t shown_digits = 12;

Json text_or_null(const std::string &text) { return text.empty() ? Json(nullptr) : Json(text); }

Json change_json(const GenerationChange &change)
{
    return {{"date", utc(change.time)},
            {"controller", change.controller >= 0 ? Json(change.controller) : Json(nullptr)},
            {"author", text_or_null(change.user)},
            {"verb", text_or_null(change.verb)},
            {"reason", text_or_null(reason_of(change))},
            {"result", text_or_null(result_of(change))}};
}

std::string or_dash(const std::string &text) { return text.empty() ? "-" : plain_text(text); }

std::string version_text(const Generation &generation)
{
    return generation.version > 0 ? "version " + std::to_string(generation.version) : "no version";
}

std::string controller_text(const GenerationChange &change)
{
    return change.controller >= 0 ? controller_name(change.controller) : "-";
}

std::string change_text(const GenerationChange &change)
{
    const std::string result = result_of(change);
    return utc(change.time) + " by " + or_dash(change.user) + " on " + controller_text(change) + ", " +
           or_dash(change.verb) + (change.comment.empty() ? "" : ": " + plain_text(change.comment)) +
           (result.empty() ? "" : " (" + plain_text(result) + ")");
}

}  // namespace

Json history_json(const Generation &generation)
{
    const GenerationChange &origin = origin_of(generation);
    return {{"number", generation.number},
            {"sha256", generation.sha256},
            {"bytes", generation.bytes},
            {"date", utc(date_of(generation))},
            {"group", text_or_null(generation.group)},
            {"version", generation.version > 0 ? Json(generation.version) : Json(nullptr)},
            {"version_recorded", generation.version_recorded},
            {"author", text_or_null(origin.user)},
            {"controller", origin.controller >= 0 ? Json(origin.controller) : Json(nullptr)},
            {"reason", text_or_null(reason_of(origin))},
            {"result", text_or_null(result_of(origin))},
            {"places", generation.places},
            {"kept", change_json(generation.kept)},
            {"saved", generation.saved ? change_json(*generation.saved) : Json(nullptr)}};
}

std::string history_line(const Generation &generation)
{
    const GenerationChange &origin = origin_of(generation);
    char start[64];
    snprintf(start, sizeof(start), "%5llu  %s  ", static_cast<unsigned long long>(generation.number),
             utc(date_of(generation)).c_str());
    return start + generation.sha256.substr(0, shown_digits) + "  " + or_dash(generation.group) + "  " +
           version_text(generation) + "  " + or_dash(origin.user) + "  " + controller_text(origin) + "  " +
           or_dash(reason_of(origin)) + "\n";
}

std::string history_lines(const Generation &generation)
{
    std::string text = "generation  " + std::to_string(generation.number) + "\nchecksum    " + generation.sha256 +
                       "\ngroup       " + or_dash(generation.group) + "\nversion     " + version_text(generation) +
                       (generation.version > 0 && !generation.version_recorded ? ", by its place" : "") +
                       "\nbytes       " + std::to_string(generation.bytes) + "\n";
    if (generation.saved) {
        text += "saved       " + change_text(*generation.saved) + "\n";
    }
    text += "replaced    " + change_text(generation.kept) + "\n";
    for (const std::string &place : generation.places) {
        text += "was in      " + plain_text(place) + "\n";
    }
    return text;
}

}  // namespace kestactl
