#include "all_controllers.h"

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "appliance_state.h"
#include "held_command.h"
#include "names.h"
#include "printable.h"
#include "remote_controllers.h"

namespace kestactl {
namespace {

constexpr std::size_t longest_text = 8192;
constexpr std::size_t most_rows = 10000;

// A text of another machine, on one line; anything else as JSON.
std::string shown(const Json &value)
{
    if (value.is_null()) {
        return "unknown";
    }
    return plain_text(value.is_string() ? value.get<std::string>().substr(0, longest_text) : dumped(value));
}

std::string told(const Json &json, const char *name) { return shown(member(json, name)); }

// The rows of a list, if it is one.
Json rows(const Json &json, const char *name)
{
    const Json list = member(json, name);
    return list.is_array() && list.size() <= most_rows ? list : Json::array();
}

void understand(ControllerAnswer &answer, const RemoteAnswer &remote)
{
    answer.why = remote.why;
    if (!remote.has_ended) {
        return;
    }
    const Json json = bounded_json(remote.text);
    const Json error = member(json, "error");
    const Json result = member(json, "result");
    const Json exit = member(json, "exit");
    if (error.is_object()) {
        answer.why = "it said: " + told(error, "message");
    } else if (!result.is_object() || !exit.is_number_integer()) {
        answer.why = "its answer is none of kestactl";
    } else if (const Json number = member(result, "controller");
               !number.is_null() && number != Json(answer.controller)) {
        answer.why = "it says that it is controller " + shown(number);
    } else {
        const auto code = exit.get<std::int64_t>();
        answer.answered = true;
        answer.exit = code == 0 ? Exit::done : code == 1 ? Exit::no : Exit::platform;
        answer.result = result;
    }
}

ControllerAnswer answer_of_this(const std::function<Result()> &own)
{
    ControllerAnswer answer;
    answer.controller = learn_own_number();
    try {
        const Result result = own();
        answer.answered = true;
        answer.exit = result.exit;
        answer.result = result.json;
    } catch (const Failure &failure) {
        answer.why = failure.what();
        answer.exit = failure.exit();
    }
    return answer;
}

Exit worst_of(const std::vector<ControllerAnswer> &answers)
{
    Exit worst = Exit::done;
    for (const ControllerAnswer &answer : answers) {
        worst = std::max(worst, answer.answered ? answer.exit : Exit::platform);
    }
    return worst;
}

Json to_json(const std::vector<ControllerAnswer> &answers)
{
    Json all = Json::array();
    for (const ControllerAnswer &answer : answers) {
        Json json{{"controller", answer.controller}, {"answered", answer.answered}};
        json["exit"] = static_cast<int>(answer.exit);
        json["why"] = answer.answered ? Json(nullptr) : Json(answer.why);
        json["result"] = answer.answered ? answer.result : Json(nullptr);
        all.push_back(std::move(json));
    }
    return all;
}

std::string silence(const ControllerAnswer &answer)
{
    return controller_name(answer.controller) + "  no answer: " + plain_text(answer.why) + "\n";
}

std::string differences_text(const Json &items)
{
    std::string text;
    for (const auto &[name, values] : items.items()) {
        text += "!!  " + name + " differs:";
        for (const auto &[controller, value] : values.items()) {
            text += " " + controller + " says " + shown(value) + ";";
        }
        text.back() = '\n';
    }
    return text;
}

std::string status_line(const ControllerAnswer &answer)
{
    const Json &status = answer.result;
    const Json versions = member(status, "versions");
    const auto count = [&status](const char *name) {
        const Json list = member(status, name);
        return list.is_array() ? std::to_string(list.size()) : "unknown";
    };
    return controller_name(answer.controller) + "  runs version " + told(versions, "current") + ", backup " +
           told(versions, "backup") + " in " + told(status, "backup_slot") + ", accepted " + told(versions, "accept") +
           " in " + told(status, "accept_slot") + "; boot mode " + told(status, "boot_mode") + "; locks " +
           count("command_locks") + "; leftovers " + count("leftovers") +
           "; unfinished: " + told(status, "unfinished") + "\n";
}

std::string findings_lines(const ControllerAnswer &answer)
{
    const std::string name = controller_name(answer.controller);
    std::string text = name + "  " + told(answer.result, "findings") + " findings\n";
    for (const Json &subject : rows(answer.result, "subjects")) {
        const Json state = member(subject, "state");
        if (state != "agree" && state != "absent") {
            text += "!!    " + told(subject, "subject") + ": " + told(subject, "text") + "\n";
        }
    }
    const Json drift = member(answer.result, "drift");
    return text + (drift.is_object() ? "      drift: " + told(drift, "text") + "\n" : "");
}

}  // namespace

Json member(const Json &json, const char *name) { return json.value(name, Json()); }

Json bounded_json(const std::string &text) { return Json::parsed(text, longest_text).value_or(Json()); }

std::vector<ControllerAnswer> ask_all(const std::vector<std::string> &words, const std::function<Result()> &own)
{
    std::vector<std::string> command{"kestactl", "--json"};
    command.insert(command.end(), words.begin(), words.end());
    std::vector<ControllerAnswer> all;
    {
        const HeldSignals signals;
        for (const RemoteAnswer &remote : ask_controllers(other_controllers(), command, remote_transport(), signals)) {
            ControllerAnswer answer;
            answer.controller = remote.controller;
            understand(answer, remote);
            all.push_back(std::move(answer));
        }
    }
    ControllerAnswer answer = answer_of_this(own);
    const auto next = std::find_if(all.begin(), all.end(),
                                   [&answer](const auto &other) { return other.controller > answer.controller; });
    all.insert(next, std::move(answer));
    return all;
}

Json differing_items(const std::vector<ControllerAnswer> &answers)
{
    Json items = Json::object();
    const auto compare = [&](const std::string &name, const std::function<Json(const Json &)> &value_of) {
        Json values = Json::object();
        bool differ = false;
        for (const ControllerAnswer &answer : answers) {
            if (answer.answered) {
                values[controller_name(answer.controller)] = value_of(answer.result);
                differ = differ || values.back() != values.front();
            }
        }
        if (differ) {
            items[name] = values;
        }
    };
    for (const char *name : {"controllers", "boot_mode", "master", "backup_slot", "accept_slot", "group"}) {
        compare(name, [name](const Json &status) { return member(status, name); });
    }
    for (const char *name : {"current", "backup", "accept"}) {
        compare(std::string("version ") + name,
                [name](const Json &status) { return member(member(status, "versions"), name); });
    }
    return items;
}

Result status_of_all(bool archives, const std::function<Result()> &own)
{
    const std::vector<std::string> words =
        archives ? std::vector<std::string>{"status", "--archives"} : std::vector<std::string>{"status"};
    const std::vector<ControllerAnswer> answers = ask_all(words, own);
    Result result;
    result.exit = worst_of(answers);
    for (const ControllerAnswer &answer : answers) {
        result.text += answer.answered ? status_line(answer) : silence(answer);
    }
    const Json items = differing_items(answers);
    result.text += items.empty() ? "What they share is the same on all that answered.\n" : differences_text(items);
    result.json = {{"controllers", to_json(answers)}, {"differences", items}};
    return result;
}

Result verify_all(bool drift_counts, const std::function<Result()> &own)
{
    const std::vector<std::string> words =
        drift_counts ? std::vector<std::string>{"verify", "--drift"} : std::vector<std::string>{"verify"};
    const std::vector<ControllerAnswer> answers = ask_all(words, own);
    Result result;
    result.exit = worst_of(answers);
    for (const ControllerAnswer &answer : answers) {
        result.text += answer.answered ? findings_lines(answer) : silence(answer);
    }
    result.json = {{"controllers", to_json(answers)}};
    return result;
}

Result history_of_all(const std::vector<std::string> &filter, const std::function<Result()> &own)
{
    std::vector<std::string> words{"history"};
    words.insert(words.end(), filter.begin(), filter.end());
    const std::vector<ControllerAnswer> answers = ask_all(words, own);
    std::multimap<std::string, std::string, std::greater<>> lines;  // by date; the newest come first
    Result result;
    result.exit = worst_of(answers);
    for (const ControllerAnswer &answer : answers) {
        if (!answer.answered) {
            result.text += silence(answer);
        }
        for (const Json &row : rows(answer.result, "generations")) {
            lines.emplace(told(row, "date"), controller_name(answer.controller) + "  " + told(row, "number") + "  " +
                                                 told(row, "group") + "  version " + told(row, "version") + "  " +
                                                 told(row, "author") + "  " + told(row, "reason"));
        }
    }
    for (const auto &[date, line] : lines) {
        result.text += date + "  " + line + "\n";
    }
    result.json = {{"controllers", to_json(answers)}};
    return result;
}

}  // namespace kestactl
