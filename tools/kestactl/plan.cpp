#include "plan.h"

#include <utility>

namespace kestactl {

Result::Result() = default;
Result::Result(Exit ended, std::string_view told, Json details) : exit(ended), text(told), json(std::move(details)) {}
Result::Result(const Result &other) = default;
Result::Result(Result &&other) noexcept = default;
Result &Result::operator=(const Result &other) = default;
Result &Result::operator=(Result &&other) noexcept = default;
Result::~Result() = default;

Step::Step(std::string_view does, std::vector<std::string> places, std::function<void()> action,
           std::string_view watched)
    : what(does), writes(std::move(places)), act(std::move(action)), measured(watched)
{
}
Step::Step(const Step &other) = default;
Step::Step(Step &&other) noexcept = default;
Step &Step::operator=(const Step &other) = default;
Step &Step::operator=(Step &&other) noexcept = default;
Step::~Step() = default;

Plan::Plan() = default;
Plan::Plan(const Plan &other) = default;
Plan::Plan(Plan &&other) noexcept = default;
Plan &Plan::operator=(const Plan &other) = default;
Plan &Plan::operator=(Plan &&other) noexcept = default;
Plan::~Plan() = default;

}  // namespace kestactl
