// The same question to all controllers of the appliance: this one answers itself, the others by JSON, which is bounded,
// held against what is asked for, and copied field by field. A controller that gives no answer is a row, and no pass.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "command.h"

namespace kestactl {

struct ControllerAnswer {
    int controller = 0;
    bool answered = false;
    std::string why;  // not
    Exit exit = Exit::platform;
    Json result;  // as the command on that controller tells it
};

// The words of a command of kestactl, and what this controller answers. In the order of the controllers. Throws Failure.
std::vector<ControllerAnswer> ask_all(const std::vector<std::string> &words, const std::function<Result()> &own);

// What may be there, of whatever the JSON is; else null.
Json member(const Json &json, const char *name);

// JSON of somebody else: not too deep, texts not too long. Nothing: it is none.
Json bounded_json(const std::string &text);

// What all controllers share, and does not have the same value on each: "backup_slot" and its values by controller.
Json differing_items(const std::vector<ControllerAnswer> &answers);

// The commands with --all; what this controller answers is given.
Result status_of_all(bool archives, const std::function<Result()> &own);
Result verify_all(bool drift_counts, const std::function<Result()> &own);
Result history_of_all(const std::vector<std::string> &filter, const std::function<Result()> &own);

}  // namespace kestactl
