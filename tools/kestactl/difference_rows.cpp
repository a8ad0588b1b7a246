#include "difference_rows.h"

#include "printable.h"

namespace kestactl {
namespace {

std::string mode_text(mode_t mode)
{
    char text[8];
    snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode));
    return text;
}

Json to_json(const std::optional<FileState> &state)
{
    if (!state) {
        return nullptr;
    }
    Json json{{"kind", name_of(state->kind)},
              {"owner", state->owner},
              {"group", state->group},
              {"mode", mode_text(state->mode)}};
    if (state->kind == MemberKind::file) {
        json["bytes"] = state->size;
        json["sha256"] = state->sha256.empty() ? Json(nullptr) : Json(state->sha256);
    }
    if (!state->target.empty()) {
        json["target"] = state->target;
    }
    return json;
}

std::string brief(const FileState &state)
{
    std::string text = name_of(state.kind);
    if (state.kind == MemberKind::file) {
        text += ", " + std::to_string(state.size) + " bytes" +
                (state.sha256.empty() ? "" : ", sha256 " + state.sha256.substr(0, 16));
    }
    return text + (state.target.empty() ? "" : ", to " + plain_text(state.target));
}

std::string change_text(const FileDifference &difference, const std::string &what)
{
    const FileState &from = *difference.from;
    const FileState &to = *difference.to;
    const auto line = [&what](const std::string &before, const std::string &after) {
        return "    " + what + ": " + plain_text(before) + " -> " + plain_text(after) + "\n";
    };
    if (what == "owner") {
        return line(from.owner, to.owner);
    }
    if (what == "group") {
        return line(from.group, to.group);
    }
    if (what == "mode") {
        return line(mode_text(from.mode), mode_text(to.mode));
    }
    if (what == "link") {
        return line(from.target, to.target);
    }
    return difference.text.empty() ? line(brief(from), brief(to)) : "";
}

std::string text_of(const FileDifference &difference)
{
    const std::string path = plain_text(difference.path);
    if (!difference.problem.empty()) {
        return "!  " + path + ": " + plain_text(difference.problem) + "\n";
    }
    if (!difference.from || !difference.to) {
        return (difference.from ? "-  " : "+  ") + path + "  (" +
               brief(difference.from ? *difference.from : *difference.to) + ")\n";
    }
    std::string text = "~  " + path + "\n";
    for (const std::string &what : difference.what) {
        text += change_text(difference, what);
    }
    if (!difference.text.empty()) {
        text += "--- " + path + "\n+++ " + path + "\n" + difference.text;
    }
    return text;
}

}  // namespace

Json to_json(const std::vector<FileDifference> &differences)
{
    Json all = Json::array();
    for (const FileDifference &one : differences) {
        Json json{{"path", one.path}, {"what", one.what}, {"from", to_json(one.from)}, {"to", to_json(one.to)}};
        json["diff"] = one.text.empty() ? Json(nullptr) : Json(one.text);
        if (!one.problem.empty()) {
            json["problem"] = one.problem;
        }
        all.push_back(std::move(json));
    }
    return all;
}

std::string text_of(const std::vector<FileDifference> &differences)
{
    std::string text;
    for (const FileDifference &one : differences) {
        text += text_of(one);
    }
    return text;
}

}  // namespace kestactl
