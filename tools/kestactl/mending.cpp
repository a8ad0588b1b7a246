#include "mending.h"

#include <algorithm>

namespace kestactl {
namespace {

// More rows than there are: a row may have a second mend once another one is in order.
constexpr int most_rounds = 16;

bool was_refused(const std::vector<Mended> &mended, const MendCommand &command)
{
    return std::any_of(mended.begin(), mended.end(),
                       [&command](const Mended &one) { return one.command == command && one.exit != Exit::done; });
}

bool was_run(const std::vector<Mended> &mended, const MendCommand &command)
{
    return std::any_of(mended.begin(), mended.end(), [&command](const Mended &one) { return one.command == command; });
}

// The first row with a mend that was not tried yet.
const SubjectFinding *next_row(const Findings &findings, const std::vector<Mended> &mended)
{
    for (const SubjectFinding &row : findings.rows) {
        const bool is_new =
            row.mend && !row.mend->empty() &&
            std::none_of(row.mend->begin(), row.mend->end(),
                         [&mended](const MendCommand &command) { return was_refused(mended, command); }) &&
            !std::all_of(row.mend->begin(), row.mend->end(),
                         [&mended](const MendCommand &command) { return was_run(mended, command); });
        if (is_new) {
            return &row;
        }
    }
    return nullptr;
}

// What an operator has to hear of a command that did its work: notes, and generations that had to go.
std::string remarks_of(const Json &json)
{
    std::string text;
    for (const Json &note : json.value("notes", Json::array())) {
        text += (text.empty() ? "" : " ") + note.get<std::string>();
    }
    for (const Json &dropped : json.value("dropped", Json::array())) {
        text += (text.empty() ? "" : " ") + ("Dropped generation " + dropped.get<std::string>() + ".");
    }
    return text;
}

}  // namespace

Mended run_mend(const MendCommand &command, const Globals &globals)
{
    try {
        const Result result = globals.run_words(command, globals.lock_rule, "verify --fix");
        return {command, result.exit, remarks_of(result.json)};
    } catch (const Failure &failure) {
        return {command, failure.exit(), failure.what() + (" " + failure.hint())};
    }
}

std::vector<Mended> mend_all(Findings &findings, const Globals &globals)
{
    std::vector<Mended> mended;
    for (int round = 0; round < most_rounds; ++round) {
        const SubjectFinding *const row = next_row(findings, mended);
        if (!row) {
            break;
        }
        for (const MendCommand &command : *row->mend) {
            mended.push_back(run_mend(command, globals));
            if (mended.back().exit != Exit::done) {
                break;
            }
        }
        findings = find_all();
    }
    return mended;
}

}  // namespace kestactl
