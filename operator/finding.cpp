#include "finding.h"

#include <algorithm>

namespace engine {

PlaceFinding told_of(const std::string &place, const ArchiveEvidence &evidence)
{
    PlaceFinding told;
    told.place = place;
    told.state = evidence.state;
    told.reason = evidence.reason;
    if (!evidence.sha256.empty()) {
        told.bytes = evidence.bytes;
        told.sha256 = evidence.sha256;
        told.modified = evidence.modified;
    }
    return told;
}

const char *name_of(FindingState state)
{
    switch (state) {
    case FindingState::agree:
        return "agree";
    case FindingState::differs:
        return "differs";
    case FindingState::damaged:
        return "damaged";
    case FindingState::absent:
        return "absent";
    case FindingState::unreadable:
        return "unreadable";
    default:
        return "unfinished";
    }
}

bool SubjectFinding::has_unreadable_place() const
{
    return std::any_of(places.begin(), places.end(),
                       [](const PlaceFinding &place) { return place.state == CopyState::unreadable; });
}

int Findings::count() const
{
    return static_cast<int>(
        std::count_if(rows.begin(), rows.end(), [](const SubjectFinding &row) { return row.counts(); }));
}

Exit Findings::exit() const
{
    const bool unreadable = std::any_of(rows.begin(), rows.end(), [](const SubjectFinding &row) {
        return row.state == FindingState::unreadable || row.has_unreadable_place();
    });
    return unreadable ? Exit::platform : count() > 0 ? Exit::no : Exit::done;
}

std::string shell_text(const MendCommand &command)
{
    const auto is_plain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string("_-./:=,+@%").find(c) != std::string::npos;
    };
    std::string text;
    for (const std::string &word : command) {
        text += text.empty() ? "" : " ";
        if (!word.empty() && std::all_of(word.begin(), word.end(), is_plain)) {
            text += word;
            continue;
        }
        text += "'";
        for (const char c : word) {
            text += c == '\'' ? "'\\''" : std::string(1, c);
        }
        text += "'";
    }
    return text;
}

}  // namespace engine
