// Save, accept and restore killed with SIGKILL at one call after the other: what is left is whole, verify names
// what is unfinished, and the same command completes it.
#include <set>

#include "killed_group.h"

using namespace test;
using nlohmann::json;

namespace {

// The calls of the platform's libraries by which the commands see and change what is shared.
const std::vector<std::string> platform_calls{"nv_read", "nv_write", "nv_write_mid",  "sb_open", "sb_read",
                                              "sb_size", "sb_write", "sb_write_size", "sb_close"};
// The system calls that change a file.
const std::vector<std::string> changing_calls{"write",     "pwrite64", "sendfile", "copy_file_range", "ftruncate",
                                              "fsync",     "syncfs",   "rename",   "unlink",          "mkdir",
                                              "symlink",   "link",     "chmod",    "fchmod",          "fchownat",
                                              "utimensat", "linkat",   "renameat", "unlinkat",        "mkdirat",
                                              "symlinkat"};

}  // namespace

class KilledCommand : public KilledGroup {
protected:
    // Something for the command to do that shows whether it was done.
    void make_work(const std::string &mark)
    {
        mark_ = mark + "\n";
        if (std::string(GetParam().command) == "accept") {
            write_file(host_path(0, "etc/app/one"), mark_);
            succeed("kestactl save network");
        }
        if (std::string(GetParam().command) == "restore network") {
            mark_ = "one\n";
        }
        write_file(host_path(0, "etc/app/one"), mark + "\n");
        before_ = contents();
    }
    bool is_whole(const std::string &archive) const
    {
        write_file(home / "archive", archive);
        return shell("bunzip2 -t < " + (home / "archive").string()).code == 0;
    }
    // As a generation: what was replaced is there before anything takes its place.
    bool is_kept(const std::string &archive) const
    {
        const fs::path generations = host_path(0, "opt/kesta_sys/bakup/generations");
        for (const auto &entry : fs::directory_iterator(generations)) {
            if (entry.path().extension() == ".Z" && read_file(entry.path()) == archive) {
                return true;
            }
        }
        return false;
    }
    void expect_completed(const std::string &where) const
    {
        const Ran again = quickly("kestactl " + std::string(GetParam().command));
        EXPECT_EQ(again.code, 0) << where << again.err;
        const Ran verified = quickly("kestactl verify");
        EXPECT_EQ(verified.code, 0) << where << verified.out;
        EXPECT_EQ(on(0, "find /opt/kesta_sys /etc -name '.*new' -o -name '*.new' -o -name .restore").out, "");
        EXPECT_EQ(read_file(host_path(0, "etc/app/one")), mark_) << where;
        const std::string archive = std::string(GetParam().command) == "accept" ? flash_accept : flash_backup;
        EXPECT_EQ(on(0, "tar -xjOf " + archive + " etc/app/one").out, mark_) << where;
    }
    // Each place has what it had, or the new one whole; and whoever asks is told.
    void expect_whole_and_told(const std::string &where)
    {
        const auto now = contents();
        bool changed = false;
        for (const auto &[place, held] : now) {
            changed = changed || held != before_.at(place);
            if (held != before_.at(place) && place.find("file") == std::string::npos) {
                EXPECT_TRUE(is_whole(held)) << where << ": " << place;
                EXPECT_TRUE(is_kept(before_.at(place))) << where << ": " << place << " had another one";
            }
        }
        EXPECT_TRUE(now.at("file one") == before_.at("file one") || now.at("file one") == mark_) << where;
        const Ran verified = quickly("kestactl --json verify");
        const bool good = verified.code == 0;
        EXPECT_TRUE(good || verified.code == 1) << where << verified.err;
        std::string named;
        const json answer = verified.json();
        for (const json &subject : answer.at("result").at("subjects")) {
            const bool in_order = subject.at("state") == "agree" || subject.at("state") == "absent";
            named += in_order ? "" : subject.at("subject").get<std::string>() + "; ";
        }
        const bool differ =
            now.at("flash backup") != now.at("backup slot") || now.at("flash accept") != now.at("accept slot");
        EXPECT_TRUE(!differ || !good) << where << " is said to be in order";
        if (named.find("locks") != std::string::npos) {
            EXPECT_EQ(quickly("kestactl lock release --force").code, 0) << where;
        }
        if (++told_ % fixed_one_in == 0) {
            expect_fixed(now, where);
        }
    }
    // What verify advises ends in agreement, or says what is left, and loses nothing.
    void expect_fixed(const Contents &left, const std::string &where) const
    {
        const Ran fixed = quickly("kestactl --json verify --fix --yes");
        const json result = fixed.json().at("result");
        for (const json &one : result.at("mended")) {
            EXPECT_EQ(one.at("exit"), 0) << where << one;
        }
        bool told = fixed.code == 0;
        for (const json &subject : result.at("subjects")) {
            told = told || subject.at("mend").is_null();
        }
        EXPECT_TRUE(told) << where << fixed.out;
        std::set<std::string> after;
        for (const auto &[place, held] : contents()) {
            after.insert(held);
        }
        for (const auto &kept : fs::directory_iterator(host_path(0, "opt/kesta_sys/bakup/generations"))) {
            after.insert(read_file(kept.path()));
        }
        for (const auto &[place, held] : left) {
            EXPECT_TRUE(place.find("file") != std::string::npos || !is_whole(held) || after.contains(held))
                << where << ": what was in the " << place << " is lost";
        }
    }

private:
    static constexpr int fixed_one_in = 5;
    int told_ = 0;
    std::string mark_;
    Contents before_;
};

TEST_P(KilledCommand, AtEachCallOfThePlatform)
{
    int kills = 0;
    for (const std::string &call : platform_calls) {
        for (int n = 1;; n += kill_step()) {
            const std::string where = call + " " + std::to_string(n);
            make_work(where);
            write_file(host_path(0, "opt/faults"), where + " once kill\n");
            if (quickly("KESTA_PLATFORM_FAULT_FILE=/opt/faults kestactl " + std::string(GetParam().command)).code ==
                0) {
                break;  // it makes no more of them
            }
            ++kills;
            expect_whole_and_told(where);
            expect_completed(where);
        }
    }
    EXPECT_GT(kills * kill_step(), 40);
    RecordProperty("kills", kills);
}

#ifdef KESTA_KILL_BY_TRACING
TEST_P(KilledCommand, AtEachSystemCallThatChangesAFile)
{
    int kills = 0;
    for (const std::string &call : changing_calls) {
        for (int n = 1;; n += kill_step()) {
            const std::string where = call + " " + std::to_string(n);
            make_work(where);
            const Ran killed = on(0, "strace -qq -o /dev/null -e trace=" + call + " -e inject=" + call +
                                         ":signal=KILL:when=" + std::to_string(n) + " kestactl " + GetParam().command);
            if (killed.code == 0) {
                break;
            }
            ++kills;
            EXPECT_EQ(killed.code, 137) << killed.err;
            expect_whole_and_told(where);
            expect_completed(where);
        }
    }
    EXPECT_GT(kills * kill_step(), 15);
    RecordProperty("kills", kills);
}
#endif

INSTANTIATE_TEST_SUITE_P(Commands, KilledCommand,
                         testing::Values(Killed{"save", "save network"}, Killed{"accept", "accept"},
                                         Killed{"restore", "restore network"}),
                         [](const testing::TestParamInfo<Killed> &tested) { return tested.param.name; });
