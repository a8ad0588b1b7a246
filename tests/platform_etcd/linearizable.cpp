// A search through all orders: from a state (how far each process has come, and what the register holds) goes one step
// for each next operation that has started before every other next one ended. No state is looked at twice.
//
// A write without an answer stands apart from its process, which went on; its end is never. One whose value nobody read
// can be taken for never carried out: whatever order has it in, has it between two other writes without a read.
#include "linearizable.h"

#include <algorithm>
#include <limits>
#include <set>
#include <string>

namespace test {
namespace {

constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

History with_unknown_apart(const History &history)
{
    std::set<unsigned> read;
    for (const auto &process : history) {
        for (const Operation &one : process) {
            if (one.kind == Operation::Kind::read) {
                read.insert(one.value);
            }
        }
    }
    History result;
    for (const auto &process : history) {
        std::vector<Operation> known;
        for (const Operation &one : process) {
            if (!one.unknown) {
                known.push_back(one);
            } else if (one.kind == Operation::Kind::write && read.count(one.value) != 0) {
                result.push_back({one});
                result.back().front().end = never;
            }
        }
        result.push_back(std::move(known));
    }
    return result;
}

struct State {
    std::vector<std::uint32_t> at;
    unsigned value = 0;

    bool operator<(const State &other) const { return value != other.value ? value < other.value : at < other.at; }
};

std::int64_t earliest_end(const History &history, const State &state)
{
    std::int64_t end = never;
    for (std::size_t i = 0; i < history.size(); ++i) {
        if (state.at[i] < history[i].size()) {
            end = std::min(end, history[i][state.at[i]].end);
        }
    }
    return end;
}

}  // namespace

bool is_linearizable(const History &given)
{
    const History history = with_unknown_apart(given);
    std::vector<State> left{{std::vector<std::uint32_t>(history.size(), 0), 0}};
    std::set<State> seen{left.front()};
    while (!left.empty()) {
        const State state = left.back();
        left.pop_back();
        const std::int64_t end = earliest_end(history, state);
        bool over = true;
        for (std::size_t i = 0; i < history.size(); ++i) {
            if (state.at[i] == history[i].size()) {
                continue;
            }
            over = false;
            const Operation &one = history[i][state.at[i]];
            if (one.start > end || (one.kind == Operation::Kind::read && one.value != state.value)) {
                continue;
            }
            State next = state;
            ++next.at[i];
            next.value = one.value;
            if (seen.insert(next).second) {
                left.push_back(std::move(next));
            }
        }
        if (over) {
            return true;
        }
    }
    return false;
}

}  // namespace test
