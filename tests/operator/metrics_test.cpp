// What programs that watch a controller are told.
#include "metrics.h"

#include <gmock/gmock.h>

#include <set>
#include <sstream>

using namespace engine;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

ControllerState state_in_order()
{
    ControllerState state;
    state.now = 1'000'000;
    state.controller = 0;
    state.names = NamesInForce{"kesta_backup0", "kesta_backup1", 7, 5, 7, 7};
    state.archives = {{"flash:backup", true, 100, 1'000'000 - 7200}, {"flash:accept", false}};
    state.command_locks.emplace();
    state.inner_lock.emplace();
    state.leftovers.emplace();
    state.last_save.emplace();
    state.last_save->result = "done";
    state.last_save->group = "network";
    state.findings = Findings{0, {{"slots", FindingState::agree}, {"backup", FindingState::differs}}};
    state.drift.emplace();
    state.drift->state = DriftState::drifted;
    state.drift->changed = 3;
    return state;
}

bool is_name(const std::string &name)
{
    return name.starts_with("kesta_") &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") == std::string::npos;
}

}  // namespace

TEST(Metrics, AreOpenMetricsText)
{
    const std::string text = metrics_text(state_in_order());
    std::istringstream lines(text);
    std::set<std::string> known;
    std::string current;
    std::string last;
    for (std::string line; std::getline(lines, line); last = line) {
        std::istringstream words(line);
        std::string hash;
        std::string what;
        std::string name;
        words >> hash >> what >> name;
        if (line == "# EOF") {
            continue;
        }
        if (what == "TYPE") {
            EXPECT_TRUE(known.insert(name).second) << name << " stands in two places";
            EXPECT_TRUE(is_name(name)) << name;
            EXPECT_TRUE(line.ends_with(" gauge"));
            current = name;
        } else if (what == "UNIT") {
            std::string unit;
            words >> unit;
            EXPECT_TRUE(name.ends_with("_" + unit)) << line;
        } else if (what != "HELP") {
            EXPECT_EQ(hash.substr(0, hash.find('{')), current) << line;
        }
    }
    EXPECT_EQ(last, "# EOF");
    EXPECT_THAT(text, AllOf(HasSubstr("kesta_archive_age_seconds{place=\"flash:backup\"} 7200\n"),
                            HasSubstr("kesta_version{area=\"accept\"} 5\n"),
                            HasSubstr("kesta_finding{subject=\"backup\",state=\"differs\"} 1\n"),
                            HasSubstr("kesta_last_save_success{result=\"done\",cause=\"\"} 1\n"),
                            HasSubstr("kesta_drift_files{change=\"changed\"} 3\n")));
}

TEST(Metrics, NoNameMakesALineOfItsOwn)
{
    ControllerState state = state_in_order();
    state.last_save->group = "a\"} 1\nkesta_fake 1\\";
    const std::string text = metrics_text(state);
    EXPECT_THAT(text, AllOf(Not(HasSubstr("\nkesta_fake")), HasSubstr("a\\\"} 1\\\\x0akesta_fake 1\\\\\"}")));
    state.unanswered = {"x|y\nz"};
    state.findings.reset();
    const CheckAnswer answer = check_answer(state, {});
    EXPECT_EQ(std::count(answer.line.begin(), answer.line.end(), '\n'), 1);
    EXPECT_EQ(std::count(answer.line.begin(), answer.line.end(), '|'), 1);
}

TEST(Check, HealthIsTheWorstThatIsKnown)
{
    ControllerState state = state_in_order();
    EXPECT_EQ(check_answer(state, {}).health, Health::critical) << "verify has found something";
    state.findings.reset();
    const CheckAnswer good = check_answer(state, {});
    EXPECT_EQ(good.health, Health::ok) << good.line;
    EXPECT_THAT(good.line, StartsWith("KESTA OK - version 7 runs, backup 7, accepted 5 | "));
    EXPECT_EQ(check_answer(state, {3600, false}).health, Health::warning) << "the save is two hours old";
    EXPECT_EQ(check_answer(state, {0, true}).health, Health::warning) << "files have drifted";
    state.unanswered = {"locks: x"};
    EXPECT_EQ(check_answer(state, {3600, false}).health, Health::unknown);
    state.last_save->result = "failed";
    EXPECT_EQ(check_answer(state, {}).health, Health::critical);
    state = state_in_order();
    state.findings.reset();
    state.archives[0].is_there = false;
    EXPECT_THAT(check_answer(state, {}).line, StartsWith("KESTA CRITICAL - nothing is saved on flash"));
}
