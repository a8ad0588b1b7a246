// The global options, a plan of steps, and the result of a command.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "generations.h"
#include "json_value.h"
#include "lock_rule.h"

namespace kestactl {

using namespace engine;

struct Result;

struct Globals {
    bool json = false;
    int trace_level = 0;
    bool dry_run = false;
    bool quiet = false;        // failures only
    bool verbose = false;      // notable events too
    std::optional<int> watch;  // seconds until it is shown again
    std::string verb;          // the command's own words: "copy archive"
    LockRule lock_rule;
    KeepRule keep_rule;
    // Runs another command line: its words, whose locks it ignores, and why it is run. Throws Failure.
    Result (*run_words)(const std::vector<std::string> &words, const LockRule &lock_rule,
                        const std::string &comment) = nullptr;
};

// What a command found or did: for people, and for programs.
struct Result {
    Exit exit = Exit::done;
    std::string text;  // ends in a newline, or is empty
    Json json = Json::object();
    // Undoes what nobody has learned of, if the result can't be written. It may hold signals till then.
    std::function<void()> unwritten = nullptr;
    int schema_version = 1;  // of its JSON

    // In plan.cpp, as those of a step and of a plan: every command has them, and would compile them for itself.
    Result();
    Result(Exit exit, std::string_view text, Json json);
    Result(const Result &other);
    Result(Result &&other) noexcept;
    Result &operator=(const Result &other);
    Result &operator=(Result &&other) noexcept;
    ~Result();
};

// One step of a changing command. A dry run prints the steps, another run carries them out.
struct Step {
    std::string what;
    std::vector<std::string> writes;  // places that the step changes
    std::function<void()> act;        // throws Failure
    std::string measured;             // the file whose bytes are told when the step begins and while it lasts

    Step(std::string_view what, std::vector<std::string> writes, std::function<void()> act,
         std::string_view measured = {});
    Step(const Step &other);
    Step(Step &&other) noexcept;
    Step &operator=(const Step &other);
    Step &operator=(Step &&other) noexcept;
    ~Step();
};

struct Plan {
    std::vector<Step> steps;
    Json json = Json::object();  // what the plan was made from
    // Changes what all controllers share, without holding the command lock: it is honoured.
    bool shared = false;
    // Takes its time: each step is told on stderr when it begins, to a terminal in words, with --json as one
    // event in a line of JSON.
    bool long_work = false;
    // Places that it gives other contents, and the verb that does so: what they hold is kept before the first step.
    std::vector<ReplacedPlace> replaces;
    std::string verb;
    std::uint64_t room = 0;  // bytes that will be written to flash, where that is known
    // What was kept by its steps; null: they replace no archive.
    std::shared_ptr<KeepReport> kept = nullptr;

    Plan();
    Plan(const Plan &other);
    Plan(Plan &&other) noexcept;
    Plan &operator=(const Plan &other);
    Plan &operator=(Plan &&other) noexcept;
    ~Plan();
};

}  // namespace kestactl
