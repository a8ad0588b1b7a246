// Undo killed with SIGKILL at one call after the other: every place has what it had or what it gets, whole; what is
// unfinished is told; a second undo completes it or says why not, and nothing is lost.
#include <set>

#include "killed_group.h"

using namespace test;
using nlohmann::json;

namespace {

// Fewer points than of other commands are tried, and of the first call only: an undo needs a change each time.
constexpr int wider = 10;
int undo_kill_step() { return kill_step(KESTA_KILL_STEP * wider); }

std::vector<std::string> tried_of(std::vector<std::string> calls)
{
    constexpr std::size_t first_calls = 1;
    calls.resize(given_kill_step() != nullptr ? calls.size() : first_calls);
    return calls;
}

}  // namespace

class KilledUndo : public KilledGroup {
protected:
    // A change that can be undone: what was before it, and what it left.
    void make_work(const std::string &mark)
    {
        write_file(host_path(0, "etc/app/one"), "saved before " + mark + "\n");
        succeed("kestactl save network");
        write_file(host_path(0, "etc/app/one"), mark + "\n");
        before_ = contents();
        succeed(std::string("kestactl ") + GetParam().command);
        left_ = contents();
    }
    void expect_nothing_lost(const std::string &where) const
    {
        const Contents now = contents();
        std::set<std::string> kept;
        for (const auto &entry : fs::directory_iterator(host_path(0, "opt/kesta_sys/bakup/generations"))) {
            kept.insert(read_file(entry.path()));
        }
        for (const auto &[place, held] : now) {
            const bool is_archive = place.find("file") == std::string::npos;
            EXPECT_TRUE(held == before_.at(place) || held == left_.at(place)) << where << ": " << place;
            EXPECT_TRUE(!is_archive || held == left_.at(place) || kept.contains(left_.at(place)))
                << where << ": what the " << place << " held is lost";
        }
    }
    void expect_completed_or_told(const std::string &where) const
    {
        const Ran verified = quickly("kestactl --json verify");
        ASSERT_TRUE(verified.code == 0 || verified.code == 1) << where << verified.err;
        (void)quickly("kestactl lock release --force");  // of the dead one, where it held it
        const Contents found = contents();
        const Ran again = quickly("kestactl undo --yes");
        if (again.code == 0) {
            // One that was killed while it told of its end is in the list of changes: it was undone itself.
            const Contents now = contents();
            EXPECT_TRUE(now == before_ || (found == before_ && now == left_)) << where;
            EXPECT_EQ(on(0, "find /opt/kesta_sys /etc -name '.*new' -o -name '*.new' -o -name .restore").out, "");
            return;
        }
        EXPECT_EQ(again.code, 1) << where << again.err;
        EXPECT_THAT(again.err, testing::HasSubstr("changed since")) << where;
        EXPECT_TRUE(contents() == found) << where;
    }

    Contents before_;
    Contents left_;
};

TEST_P(KilledUndo, AtEachCallOfThePlatform)
{
    int kills = 0;
    for (const std::string &call :
         tried_of({"nv_write_mid", "sb_open", "nv_read", "nv_write", "sb_write", "sb_close"})) {
        for (int n = 1;; n += undo_kill_step()) {
            const std::string where = call + " " + std::to_string(n);
            make_work(where);
            write_file(host_path(0, "opt/faults"), where + " once kill\n");
            if (quickly("KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl undo --yes").code == 0) {
                EXPECT_TRUE(contents() == before_) << where;
                break;  // it makes no more of them
            }
            ++kills;
            expect_nothing_lost(where);
            expect_completed_or_told(where);
        }
    }
    EXPECT_GT(kills, 0);
    RecordProperty("kills", kills);
}

#ifdef KESTA_KILL_BY_TRACING
TEST_P(KilledUndo, AtEachSystemCallThatChangesAFile)
{
    int kills = 0;
    for (const std::string &call :
         tried_of({"fsync", "renameat", "write", "pwrite64", "rename", "linkat", "unlink", "unlinkat"})) {
        for (int n = 1;; n += undo_kill_step()) {
            const std::string where = call + " " + std::to_string(n);
            make_work(where);
            const Ran killed = on(0, "strace -qq -o /dev/null -e trace=" + call + " -e inject=" + call +
                                         ":signal=KILL:when=" + std::to_string(n) + " kestactl undo --yes");
            if (killed.code == 0) {
                EXPECT_TRUE(contents() == before_) << where;
                break;
            }
            ++kills;
            EXPECT_EQ(killed.code, 137) << killed.err;
            expect_nothing_lost(where);
            expect_completed_or_told(where);
        }
    }
    EXPECT_GT(kills, 0);
    RecordProperty("kills", kills);
}
#endif

INSTANTIATE_TEST_SUITE_P(Changes, KilledUndo,
                         testing::Values(Killed{"save", "save network"}, Killed{"accept", "accept"},
                                         Killed{"restore", "restore network"}),
                         [](const testing::TestParamInfo<Killed> &tested) { return tested.param.name; });
