// Every verb under conditions that nobody expects: standard descriptors closed, nowhere to write to, few
// descriptors, little memory, a small stack, a user that nobody knows. It ends, in one of its own exit codes; it leaves no lock; and
// nothing outside its own places has changed.
#include <unistd.h>

#include <algorithm>

#include "saved_group.h"

using namespace test;

namespace {

// What stands around the command line of kestactl.
struct Condition {
    const char *name;
    const char *before;
    const char *after;
};
void PrintTo(const Condition &condition, std::ostream *out) { *out << condition.name; }

// Verbs that only look.
const std::vector<std::string> looking{"--version",
                                       "--help",
                                       "status",
                                       "status --archives",
                                       "--json status",
                                       "verify",
                                       "--json verify",
                                       "nv list",
                                       "nv read group",
                                       "nv verify",
                                       "nv dump",
                                       "nv dump --decoded",
                                       "nv flags",
                                       "slot show",
                                       "version show",
                                       "version compare",
                                       "identity show",
                                       "group check network",
                                       "group show network",
                                       "lock check",
                                       "lock wait --wait 0",
                                       "completion bash",
                                       "save network --dry-run",
                                       "accept --dry-run",
                                       "restore network --dry-run",
                                       "slot switch --dry-run",
                                       "repair --dry-run",
                                       "group apply network --dry-run",
                                       "no-such-verb",
                                       "save",
                                       "restore none"};

// Verbs that change something: what comes before is in the way of none.
const std::vector<std::string> changing{"save network",
                                        "accept",
                                        "restore network",
                                        "restore network --from accept",
                                        "group apply network",
                                        "copy backup2tmp",
                                        "copy cntbackup2tmp",
                                        "copy cntbackup2backup",
                                        "repair",
                                        "slot switch",
                                        "version set current 7",
                                        "nv write group network",
                                        "nv sync",
                                        "identity set --in flash --wwn 0123456789abcdef",
                                        "script samefiles CNT1 /etc/hosts",
                                        "script tarz CNT2",
                                        "report /opt/report.html",
                                        "nv dump --out /opt/dump.txt",
                                        "lock take -- true",
                                        "lock local sweep -- true",
                                        "run -- true"};

// Below the folder of the lab: where the verbs above write.
const std::vector<std::string> own_places{"cnt0/opt/kesta_sys/bakup", "cnt0/tmp",          "cnt0/run",
                                          "cnt0/etc/kesta_sys",       "cnt0/etc/app",      "cnt0/etc/cp_guid",
                                          "cnt0/opt/report.html",     "cnt0/opt/dump.txt", "shared"};
// What looking leaves: the platform's own records.
const std::vector<std::string> records{"cnt0/run/kesta_sys/tmp/.innerlock",
                                       "cnt0/etc/kesta_sys/mycntno",
                                       "cnt0/etc/kesta_sys/controllernum",
                                       "cnt0/tmp/full",
                                       "cnt0/run/mount",
                                       "shared/nv/region2.jnl"};

}  // namespace

class Sweep : public SavedGroup, public testing::WithParamInterface<Condition> {
protected:
    Sweep()
    {
        define("");
        fs::copy_file(KESTA_NO_WAIT_LIBRARY, host_path(0, "opt/libno_wait.so"));
        succeed("kestactl save network && kestactl accept && kestactl status && mkdir /tmp/full");
    }

    // Without times: the lock of NV memory is written even by those who only look.
    std::map<std::string, std::string> contents() const
    {
        std::map<std::string, std::string> files;
        for (const auto &entry : fs::recursive_directory_iterator(dir)) {
            struct stat status {};
            const std::string name = fs::relative(entry.path(), dir);
            if (lstat(entry.path().c_str(), &status) == 0 && name.find("trace.log") == std::string::npos) {
                files[name] = std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + " " +
                              (S_ISREG(status.st_mode) ? read_file(entry.path()) : "");
            }
        }
        return files;
    }
    static std::string differences(const std::map<std::string, std::string> &before,
                                   const std::map<std::string, std::string> &after,
                                   const std::vector<std::string> &allowed)
    {
        std::string names;
        const auto add = [&](const std::string &name) {
            const bool own = std::any_of(allowed.begin(), allowed.end(),
                                         [&](const std::string &place) { return name.starts_with(place); });
            names += own ? "" : name + "\n";
        };
        for (const auto &[name, what] : before) {
            if (const auto found = after.find(name); found == after.end() || found->second != what) {
                add(name);
            }
        }
        for (const auto &[name, what] : after) {
            if (!before.contains(name)) {
                add(name);
            }
        }
        return names;
    }
    void run(const std::string &verb) const
    {
        const Ran ended = on(0, "timeout -k 5 60 /bin/sh -c " +
                                    quoted(GetParam().before + ("kestactl " + verb) + " " + GetParam().after));
        const bool by_pipe = ended.code == 128 + SIGPIPE && std::string(GetParam().name) == "ReaderIsGone";
        EXPECT_TRUE((ended.code >= 0 && ended.code <= 4) || by_pipe) << verb << ": " << ended.code << "\n"
                                                                     << ended.out << ended.err;
        EXPECT_EQ(ended.err.find("std::"), std::string::npos) << verb << "\n" << ended.err;
        EXPECT_EQ(ended.err.find("terminate called"), std::string::npos) << verb << "\n" << ended.err;
    }
    void expect_no_lock() const
    {
        EXPECT_EQ(ctl(0, "lock check").code, 0) << "a lock is left";
        EXPECT_EQ(ctl(0, "nv read innerlock-cnt0").out.find("held"), std::string::npos);
    }

    // Half a file, or a note of who holds a lock. A full disk may keep one: the next command sweeps it.
    void expect_no_leftovers() const
    {
        for (const auto &[name, what] : contents()) {
            EXPECT_FALSE(name.ends_with(".new") || name.find(".save.tar.Z") != std::string::npos ||
                         name.ends_with(".kestactl-holder") || name.ends_with("tmp.tar.Z"))
                << name;
        }
    }
};

TEST_P(Sweep, LookingChangesNothing)
{
    const auto before = contents();
    for (const std::string &verb : looking) {
        run(verb);
    }
    EXPECT_EQ(differences(before, contents(), records), "");
    expect_no_lock();
}

TEST_P(Sweep, ChangingKeepsToItsOwnPlaces)
{
    const auto before = contents();
    for (const std::string &verb : changing) {
        run(verb);
    }
    EXPECT_EQ(differences(before, contents(), own_places), "");
    expect_no_lock();
    expect_no_leftovers();
}

std::vector<Condition> conditions()
{
    std::vector<Condition> all{
        {"ClosedInput", "", "<&-"},
        {"ClosedOutput", "", ">&-"},
        {"ClosedErrors", "", "2>&-"},
        {"AllClosed", "exec <&- >&- 2>&-; ", ""},
        {"FullOutput", "", ">/dev/full"},
        {"FullErrors", "", "2>/dev/full"},
        {"ReaderIsGone",
         "python3 -c 'import os, signal, sys; signal.signal(signal.SIGPIPE, signal.SIG_DFL); r, w = os.pipe(); "
         "os.close(r); os.dup2(w, 1); os.execvp(sys.argv[1], sys.argv[1:])' ",
         ""},
        {"FullDisk",
         "mount -t tmpfs -o size=128k tmpfs /tmp/full && cp -a /opt/kesta_sys/bakup/. /tmp/full/ && "
         "{ head -c 1M /dev/zero > /tmp/full/.fill; } 2>/dev/null; mount --bind /tmp/full /opt/kesta_sys/bakup && ",
         ""},
#ifdef KESTA_KILL_BY_TRACING  // a sanitizer takes more than that for itself
        {"EightDescriptors", "ulimit -n 8; ", ""},
        {"LittleMemory", "ulimit -v 65536; ", ""},
        {"SmallStack", "ulimit -s 64; ", ""},
#endif
    };
    if (geteuid() == 0) {
        all.push_back(
            {"UnknownUser", "LD_PRELOAD=/opt/libno_wait.so setpriv --reuid 54321 --regid 54321 --clear-groups ", ""});
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Conditions, Sweep, testing::ValuesIn(conditions()),
                         [](const testing::TestParamInfo<Condition> &tested) {
                             return std::string(tested.param.name);
                         });
