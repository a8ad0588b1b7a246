// kesta-platform-check finds out each wrong platform, at the clause that it breaks.
#include <set>

#include "lab_fixture.h"

namespace {

using test::Ran;

struct WrongPlatform {
    const char *way;     // what wrong_platform.cpp does
    const char *clause;  // what it has to be found out by
};

constexpr WrongPlatform wrong_platforms[] = {
    {"nv_has_one_region", "each region has contents of its own"},
    {"nv_knows_every_region", "a transfer beyond the end is refused"},
    {"nv_stops_at_the_end", "a transfer beyond the end is refused"},
    {"nv_moves_the_record", "a transfer leaves its records as they are"},
    {"nv_writes_in_cells", "a write touches nothing beside it"},
    {"nv_reads_in_cells", "a read fills what was asked for, and nothing beside it"},
    {"nv_writes_in_halves", "a transfer is seen whole or not at all"},
    {"nv_leaks_descriptors", "descriptors are closed in commands that are run"},
    {"nv_leaks_descriptors", "descriptors 0, 1 and 2 are left to the program"},
    {"nv_mutex_stays_locked_in_children", "children made beside threads go on"},
    {"nv_is_cancelled_with_a_mutex_held", "a cancelled thread leaves nothing locked"},
    {"status_is_left_unfilled", "the controller status is told, each byte of it"},
    {"status_of_two_is_left_unfilled", "the controller status is told, each byte of it"},
    {"statuses_differ", "both forms of the controller status agree"},
    {"opening_to_write_empties_the_file", "opening to write keeps what is there until it is written"},
    {"long_reads_are_said_to_be_full", "a read says no more than it has read"},
    {"long_reads_are_short", "archives are written whole and read whole"},
    {"long_reads_return_an_errno", "archives are written whole and read whole"},
    {"errno_is_positive", "failures are results below 0"},
    {"close_says_nothing", "failures are results below 0"},
    {"files_are_cut_at_256_kib", "archives are written whole and read whole"},
    {"shorter_contents_keep_the_old_end", "what is written is read back, with its size"},
    {"empty_files_are_refused", "a size of 0 is a size"},
    {"write_offset_is_ignored", "parts of a file can be written, each at its offset"},
    {"read_offset_is_ignored", "parts of a file can be read"},
    {"write_size_always_fails", "a size can be recorded in a second opening"},
    {"write_size_empties_the_file", "a size can be recorded in a second opening"},
    {"write_size_rounds_up", "a size can be recorded in a second opening"},
    {"names_are_cut_to_12_characters", "names of 31 characters are told apart"},
    {"names_are_replaced_in_place", "a file is replaced whole"},
    {"missing_files_are_made", "a file that is not there is refused"},
    {"close_flag_is_always_0", "the close flag tells of a proper close"},
    {"files_show_before_they_are_closed", "a file is seen when it is closed, and not before"},
    {"files_show_before_they_are_closed", "a writer that dies leaves the old contents"},
    {"lower_bound_is_unchecked", "both bounds are checked when an integer is read"},
    {"upper_bound_is_unchecked", "both bounds are checked when an integer is read"},
    {"bounds_are_exclusive", "both bounds are checked when an integer is read"},
    {"error_record_is_left_empty", "failures are told, and fill the error record"},
    {"setint_always_succeeds", "failures are told, and fill the error record"},
    {"integers_are_written_in_place", "an integer is replaced whole"},
    {"master_is_no_controller", "the master is a controller's number"},
    {"network_is_the_own_controller_twice", "the network configuration has two controllers"},
    {"network_lacks_an_address", "the network configuration has two controllers"},
    {"trace_overflows_at_8_kib", "a trace of any length is borne"},
    {"trace_text_is_dropped", "the log has the text of a trace"},
    {"trace_text_is_cut_at_80", "the log has the text of a trace"},
    {"trace_is_formatted_twice", "the log has the text of a trace"},
    {"trace_has_no_place", "the log has the text of a trace"},
    {"trace_changes_errno", "a trace leaves errno as it was"},
    {"path_is_a_copy", "a source path is stripped to its file"},
};

class PlatformCheck : public test::LabTest {
protected:
    PlatformCheck() { test::fs::copy_file(KESTA_WRONG_PLATFORM, host_path(0, "opt/libwrong.so")); }

    // One run for each way to be wrong, however many clauses name it.
    const Ran &check(const std::string &way)
    {
        auto known = runs_.find(way);
        if (known == runs_.end()) {
            // What one way leaves behind is not the next one's: on etcd each has keys of its own.
            const std::string as = "LD_PRELOAD=/opt/libwrong.so KESTA_PLATFORM_ETCD_PREFIX=/wrong/" + way +
                                   "/ KESTA_WRONG_PLATFORM=" + way;
            known = runs_.emplace(way, on(0, as + " kesta-platform-check --run")).first;
            succeed(R"sh(area=$(sed -n 's/^sysback_dir *= *//p' /etc/kesta/platform.conf)
                         [ -z "$area" ] || rm -f "$area/kesta_no_such_file")sh");
        }
        return known->second;
    }

    // Whether a way is to be tried: each, or those that are named by $KESTA_TEST_WRONG_PLATFORMS.
    static bool is_tried(const std::string &way)
    {
        const char *const named = getenv("KESTA_TEST_WRONG_PLATFORMS");
        return !named || *named == '\0' || (" " + std::string(named) + " ").find(" " + way + " ") != std::string::npos;
    }

    // The libraries that clauses are broken of.
    static std::set<std::string> blamed(const std::string &out)
    {
        constexpr std::size_t mark = 6;
        std::set<std::string> libraries;
        for (std::size_t at = out.find("FAIL  "); at != std::string::npos; at = out.find("FAIL  ", at + 1)) {
            libraries.insert(out.substr(at + mark, out.find(':', at) - at - mark));
        }
        return libraries;
    }

private:
    std::map<std::string, Ran> runs_;
};

TEST_F(PlatformCheck, PassesTheEmbeddedPlatform)
{
    for (const char *way : {"", "none"}) {
        const Ran &run = check(way);
        EXPECT_EQ(run.code, 0) << run.out << run.err;
        EXPECT_THAT(run.out, testing::HasSubstr(", 0 broken"));
    }
    const Ran own = on(0, "kesta-platform-check --run");
    EXPECT_EQ(own.code, 0) << own.out;
}

TEST_F(PlatformCheck, FindsOutEachWrongPlatformAtTheClauseThatItBreaks)
{
    for (const WrongPlatform &wrong : wrong_platforms) {
        if (!is_tried(wrong.way)) {
            continue;
        }
        const Ran &run = check(wrong.way);
        EXPECT_EQ(run.code, 1) << wrong.way << run.out << run.err;
        EXPECT_THAT(run.out, testing::ContainsRegex("FAIL  [a-z_]+: " + std::string(wrong.clause))) << wrong.way;
        EXPECT_EQ(blamed(run.out).size(), 1U) << "one library is wrong: " << wrong.way << run.out;
    }
}

TEST_F(PlatformCheck, FindsTheTraceLogThatIsNamed)
{
    const std::string elsewhere = "KESTA_PLATFORM_TRACE_TARGET=syslog kesta-platform-check --run";
    EXPECT_THAT(on(0, elsewhere).out, testing::HasSubstr("name the log's file with --trace-log"));
    const std::string at = "KESTA_PLATFORM_TRACE_FILE=/opt/own.log kesta-platform-check --run --trace-log ";
    EXPECT_EQ(on(0, at + "/opt/own.log").code, 0);
    EXPECT_EQ(on(0, at + "/opt/no.log").code, 1);
    EXPECT_EQ(on(0, "KESTA_PLATFORM_TRACE_TARGET=stderr kesta-platform-check --run").code, 0);
}

}  // namespace
